#include "replication/common/rules/DispatcherStreams.h"

#include "base/trace/Trace.h"
#include "replication/common/rules/DisRules.h"
#include "replication/common/rules/RuleItems.h"

namespace Replication {

using Morva::XmlList;
using Morva::XmlListIterator;

ReplicationStream::ReplicationStream(XmlList const& item, DisRules const& rules)
    : DisStream(rules) {
    nodeId_ = item.getUint32(nullptr, QStringLiteral("NodeId"));
    if (nodeId_ == 0) {
        MORVA_TRACE(Always) << "No or invalid interface node id supplied";
        fault();
    }
    batch_ = item.get(QStringLiteral("BatchMode"), false) ? 2 : 1;
    readDispatcher(rules, item, networkCompression_);
    if (batch_ == 2)
        readTargets(item);
}

void ReplicationStream::readTargets(XmlList const& item) {
    bool found = false;
    auto const list = item.getXmlList(&found, QStringLiteral("TargetMachines"));
    if (!found || list.empty()) {
        MORVA_TRACE(Always) << "No target data supplied for batch dispatcher stream";
        fault();
        return;
    }
    for (XmlListIterator target(list); target; ++target) {
        if (target.type() != XmlList::ValueTypeE::List) {
            MORVA_TRACE(Always) << "Invalid target in target list of batch dispatcher stream";
            fault();
        } else if (!targets_.isEmpty()) {
            MORVA_TRACE(Always) << "Multiple targets no permitted for batch dispatcher stream";
            fault();
        } else if (!readTarget(target.getXmlList())) {
            MORVA_TRACE(Always) << "No or invalid target data in batch dispatcher stream";
            fault();
        }
    }
}

bool ReplicationStream::readTarget(XmlList const& list) {
    BatchTarget target;
    target.machine = Morva::MachineName(list.getString(nullptr, QStringLiteral("Name")));
    if (!target.machine) {
        MORVA_TRACE(Always) << "No target node name in batch dispatcher stream";
        return false;
    }
    bool found = false;
    auto const route = list.getXmlList(&found, QStringLiteral("Route"));
    if (!found) {
        MORVA_TRACE(Always) << "No route to target in batch dispatcher stream";
        return false;
    }
    if (!readRuleRoute(route, target.route)) {
        MORVA_TRACE(Always) << "Invalid route supplied for batch dispatcher stream";
        return false;
    }
    targets_.append(target);
    return true;
}

ForwardStream::ForwardStream(XmlList const& item, Morva::MachineName targetMachine,
                             DisRules const& rules)
    : DisStream(rules), targetMachine_(std::move(targetMachine)) {
    nodeId_ = item.get(QStringLiteral("NodeId"), 0U);
    readDispatcher(rules, item, networkCompression_);
}

LoggingStream::LoggingStream(XmlList const& item, DisRules const& rules) : DisStream(rules) {
    static constexpr std::pair<char const*, char const*> flags[] = {
        {"LogBlocked", "log blocked ops"}, {"LogCreate", "log create"}, {"LogWrite", "log write"},
        {"LogRead", "log read"},           {"LogDelete", "log delete"}, {"LogMove", "log move"},
    };
    for (auto const& [key, rule] : flags) {
        if (item.get(QString::fromLatin1(key), false))
            loggedOperations_.append(QString::fromLatin1(rule));
    }
    bool found = false;
    auto const policies = item.getXmlList(&found, QStringLiteral("Policies"));
    if (!found) {
        MORVA_TRACE(Always) << "No policies supplied";
        fault();
    } else if (!addPolicies(rules, policies)) {
        MORVA_TRACE(Always) << "Invalid policies supplied";
        fault();
    }
}

} // namespace Replication
