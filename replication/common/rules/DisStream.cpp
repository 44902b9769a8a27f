#include "replication/common/rules/DisStream.h"

#include "base/trace/Trace.h"
#include "replication/common/rules/DisRules.h"
#include "replication/common/rules/RuleItems.h"

#include <iterator>

namespace Replication {

using Morva::XmlList;

DisStream::DisStream(DisRules const& rules) : ruleSet_(rules.ruleSetId()) {}

QString DisStream::name() const {
    MORVA_TRACE(Always) << "Stream has no name";
    return {};
}

bool DisStream::addPolicy(DisPolicyInfo const& policy) {
    if (policies_.isEmpty()) {
        commsMode_ = policy.commsMode();
        filterType_ = policy.filterType();
    } else if (policy.filterType() != filterType_) {
        MORVA_TRACE(Always) << "Stream must only contain one filter type";
        return false;
    } else if (batch_ != 2 && policy.commsMode() != commsMode_) {
        MORVA_TRACE(Always) << "mismatching comms modes in the same stream";
        return false;
    }
    policies_.append(policy.id());
    return true;
}

bool DisStream::addPolicies(DisRules const& rules, XmlList const& list) {
    auto const fine = readRuleTexts(list, "Policy", "Ignore unexpected policy item",
                                    "No or invalid policy name supplied", [&](QString const& name) {
                                        auto const policy = rules.policy(name);
                                        if (!policy || !addPolicy(*policy)) {
                                            MORVA_TRACE(Always) << "Failed to add policy" << name;
                                            return false;
                                        }
                                        MORVA_TRACE(Debug) << "Added policy" << name;
                                        return true;
                                    });
    if (list.contains(QStringLiteral("Policy")))
        return fine;
    MORVA_TRACE(Always) << "No policies supplied";
    return false;
}

void DisStream::readDispatcher(DisRules const& rules, XmlList const& item, bool& compression) {
    bool found = false;
    compression = item.getBool(&found, QStringLiteral("NetworkCompression"));
    if (!found) {
        MORVA_TRACE(Always) << "No compression flag supplied";
        fault();
    }
    auto const policies = item.getXmlList(&found, QStringLiteral("Policies"));
    if (!found)
        MORVA_TRACE(Always) << "No policy list supplied";
    if (!found || !addPolicies(rules, policies))
        fault();
}

Morva::TraceLine& operator<<(Morva::TraceLine& line, DisStream::Type type) {
    static constexpr char const* names[] = {"Invalid",    "Replication", "Forward", "Mirror",
                                            "Repository", "Backup",      "Logging", "CloudStorage"};
    return line << (type < std::size(names) ? names[type] : "unknown");
}

} // namespace Replication
