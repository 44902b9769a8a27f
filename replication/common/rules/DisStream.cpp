#include "replication/common/rules/DisStream.h"

#include "base/trace/Trace.h"
#include "replication/common/rules/DisRules.h"

#include <iterator>

namespace Replication {

using Morva::XmlList;
using Morva::XmlListIterator;

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
    bool fine = true;
    bool any = false;
    for (XmlListIterator item(list); item; ++item) {
        if (item.name() != QLatin1String("Policy")) {
            MORVA_TRACE(Normal) << "Ignore unexpected policy item" << item.name();
            continue;
        }
        any = true;
        if (item.type() != XmlList::ValueTypeE::String) {
            MORVA_TRACE(Always) << "Unexpected/invalid node item type" << item.type()
                                << ", expected string";
            fine = false;
            continue;
        }
        auto const name = item.getString();
        if (name.isEmpty()) {
            MORVA_TRACE(Always) << "No or invalid policy name supplied";
            fine = false;
            continue;
        }
        auto const policy = rules.policy(name);
        if (!policy || !addPolicy(*policy)) {
            MORVA_TRACE(Always) << "Failed to add policy" << name;
            fine = false;
            continue;
        }
        MORVA_TRACE(Debug) << "Added policy" << name;
    }
    if (!any) {
        MORVA_TRACE(Always) << "No policies supplied";
        fine = false;
    }
    return fine;
}

Morva::TraceLine& operator<<(Morva::TraceLine& line, DisStream::Type type) {
    static constexpr char const* names[] = {"Invalid",    "Replication", "Forward", "Mirror",
                                            "Repository", "Backup",      "Logging", "CloudStorage"};
    return line << (type < std::size(names) ? names[type] : "unknown");
}

} // namespace Replication
