#include "replication/common/rules/DisRules.h"

#include "base/process/Config.h"
#include "base/process/FixedPath.h"
#include "base/trace/Trace.h"
#include "replication/common/rules/RuleItems.h"

#include <iterator>

namespace Replication {

using Morva::Config;
using Morva::FixedPath;
using Morva::MachineName;
using Morva::XmlList;
using Morva::XmlListIterator;

namespace {

QString const resyncRequiredKey = QStringLiteral("ResyncRequired");
QString const mirrorKey = QStringLiteral("Mirror");
QString const repositoryKey = QStringLiteral("Repository");

} // namespace

DisRules::DisRules(std::uint32_t ruleSetId)
    : files_{QStringLiteral("policyrules.cfg"), QStringLiteral("dispatcherrules.cfg"),
             QStringLiteral("forwardrules.cfg"), QStringLiteral("replayrules.cfg")},
      items_{QStringLiteral("ReplayStream"),
             QStringLiteral("ForwardStream"),
             QStringLiteral("ReplicationStream"),
             QStringLiteral("LoggingStream"),
             QStringLiteral("SnapshotStream"),
             QStringLiteral("BackupStream"),
             QStringLiteral("Policy")} {
    reload(ruleSetId);
}

void DisRules::clear() {
    policies_.clear();
    rulePolicies_.clear();
    streams_.clear();
    replayStreams_.clear();
    loggingRules_.clear();
    osTypes_.clear();
    resyncRequired_ = false;
}

bool DisRules::reload(std::uint32_t ruleSetId) {
    MORVA_METHOD("reload");
    clear();
    ruleSetId_ = ruleSetId;
    valid_ = true;
    if (ruleSetId == 0)
        return scope.result(true);
    for (auto const& name : files_) {
        if (!valid_)
            break;
        readFile(name);
    }
    if (valid_)
        buildRulePolicies();
    else
        clear();
    return scope.result(valid_);
}

void DisRules::readFile(QString const& name) {
    auto const path = FixedPath::rules(ruleSetId_) + QLatin1Char('/') + name;
    auto const list = Config::load(path);
    if (!list.usable()) {
        MORVA_TRACE(Always) << "Rules file" << path << "is not valid. RuleSetId" << ruleSetId_;
        valid_ = false;
        return;
    }
    MORVA_TRACE(Verbose) << "Parse" << name << "entry rules file";
    for (XmlListIterator item(list); item && valid_; ++item) {
        MORVA_TRACE(Debug) << "Check" << item.name();
        if (item.name() == resyncRequiredKey) {
            resyncRequired_ = resyncRequired_ || item.getBool();
            continue;
        }
        if (!items_.contains(item.name())) {
            MORVA_TRACE(Normal) << "Ignore unexpected config item" << item.name();
            continue;
        }
        if (item.type() != XmlList::ValueTypeE::List) {
            MORVA_TRACE(Always) << "Unexpected/invalid config item type" << item.type()
                                << ", expected list entry";
            valid_ = false;
            continue;
        }
        readItem(item);
    }
}

void DisRules::readItem(XmlListIterator const& item) {
    auto const& name = item.name();
    auto const list = item.getXmlList();
    if (name == QLatin1String("ReplayStream"))
        loadReplayStream(list);
    else if (name == QLatin1String("ForwardStream"))
        loadForwardStream(list);
    else if (name == QLatin1String("ReplicationStream"))
        loadReplicationStream(list);
    else if (name == QLatin1String("LoggingStream"))
        loadLoggingStream(list);
    else if (name == QLatin1String("Policy"))
        loadPolicyStream(list);
}

void DisRules::loadReplayStream(XmlList const& item) {
    for (XmlListIterator child(item); child; ++child) {
        if (child.type() != XmlList::ValueTypeE::List)
            continue;
        if (child.name() == mirrorKey)
            return loadMirrorStream(item);
        if (child.name() == repositoryKey)
            return loadRepositoryStream(item);
    }
    MORVA_TRACE(Always) << "No Mirror or Repository stream supplied";
    valid_ = false;
}

void DisRules::loadPolicyStream(XmlList const& item) {
    MORVA_METHOD("loadPolicyStream");
    auto const added = std::make_shared<DisPolicyInfo>(item);
    if (!added->valid()) {
        MORVA_TRACE(Always) << "Invalid Policy stream data";
        valid_ = false;
        return;
    }
    MORVA_TRACE(Debug) << "Check for rules clash";
    // Streams name a policy by its name as well as by its id, so neither may come twice.
    if (policies_.contains(added->id()) || policy(added->name())) {
        MORVA_TRACE(Always) << "Policy" << added->name() << "has already been added";
        valid_ = false;
        return;
    }
    // Ranges that are there don't overlap, so only the neighbours can clash.
    auto const next = policies_.lower_bound(added->firstRule());
    auto clash = policies_.end();
    if (next != policies_.end() && next->second->firstRule() <= added->lastRule())
        clash = next;
    else if (next != policies_.begin() && std::prev(next)->second->lastRule() >= added->firstRule())
        clash = std::prev(next);
    if (clash != policies_.end()) {
        auto const& other = *clash->second;
        MORVA_TRACE(Always) << "Policy" << added->name() << "for policy" << added->id() << "Rules"
                            << added->firstRule() << "-" << added->lastRule()
                            << "conflict with Rules" << other.firstRule() << "-" << other.lastRule()
                            << other.name();
        valid_ = false;
        return;
    }
    policies_.emplace(added->id(), added);
}

template <class Stream>
void DisRules::loadReplayStreamAs(XmlList const& item, char const* invalid, char const* validated) {
    auto const stream = std::make_shared<Stream const>(item, *this);
    if (!stream->valid()) {
        MORVA_TRACE(Always) << invalid;
        valid_ = false;
        return;
    }
    attachToPolicies(stream);
    validateReplayStream(stream);
    MORVA_TRACE(Verbose) << validated << stream->name();
    addStream(stream->sourceMachine(), stream);
}

void DisRules::loadMirrorStream(XmlList const& item) {
    loadReplayStreamAs<MirrorStream>(item, "Invalid mirror stream data", "Validated Mirror Stream");
}

void DisRules::loadRepositoryStream(XmlList const& item) {
    loadReplayStreamAs<RepositoryStream>(item, "Invalid Repository stream data",
                                         "Validated Repository Stream");
}

void DisRules::attachToPolicies(DisStreamPointer const& stream) {
    for (auto const id : stream->policies()) {
        if (auto const found = policies_.find(id); found != policies_.end())
            found->second->addStream(stream);
    }
}

void DisRules::validateReplayStream(ReplayStreamPointer const& stream) {
    for (auto const& other : streams_.value(stream->sourceMachine())) {
        if (other->type() == stream->type() && other->name() == stream->name())
            MORVA_TRACE(Always) << "Warning: Store" << stream->name() << "and store"
                                << other->name() << "have the same target"
                                << "on node" << stream->sourceMachine();
    }
    MORVA_TRACE(Debug) << "Checked existing streams";
    replayStreams_.insert(stream->replayId(), stream);
}

void DisRules::addStream(MachineName const& machine, DisStreamPointer const& stream) {
    auto& list = streams_[machine];
    list.append(stream);
    MORVA_TRACE(Verbose) << "Add stream for" << machine << "now has" << list.size() << "streams";
}

void DisRules::loadForwardStream(XmlList const& item) {
    QList<MachineName> sources;
    QList<MachineName> targets;
    if (!machines(item, QStringLiteral("SourceMachines"), sources) ||
        !machines(item, QStringLiteral("TargetMachines"), targets)) {
        MORVA_TRACE(Always) << "Invalid forward stream data";
        valid_ = false;
        return;
    }
    if (targets.size() != 1) {
        MORVA_TRACE(Always) << "Must have single target node";
        valid_ = false;
        return;
    }
    auto const stream = std::make_shared<ForwardStream const>(item, targets.first(), *this);
    if (!stream->valid()) {
        MORVA_TRACE(Always) << "Invalid forward stream data";
        valid_ = false;
        return;
    }
    MORVA_TRACE(Verbose) << "Validated Forward Stream";
    attachToPolicies(stream);
    for (auto const& machine : sources)
        addStream(machine, stream);
}

void DisRules::loadReplicationStream(XmlList const& item) {
    QList<MachineName> sources;
    bool const hasMachines = machines(item, QStringLiteral("SourceMachines"), sources);
    auto const stream = std::make_shared<ReplicationStream const>(item, *this);
    if (!hasMachines || !stream->valid()) {
        MORVA_TRACE(Always) << "Invalid replication stream data";
        valid_ = false;
        return;
    }
    MORVA_TRACE(Verbose) << "Validated Replication Stream";
    attachToPolicies(stream);
    for (auto const& machine : sources)
        addStream(machine, stream);
}

void DisRules::loadLoggingStream(XmlList const& item) {
    MORVA_METHOD("loadLoggingStream");
    LoggingStream const stream(item, *this);
    if (!stream.valid()) {
        MORVA_TRACE(Always) << "Invalid logging stream data";
        valid_ = false;
        return;
    }
    for (auto const policy : stream.policies()) {
        auto& rules = loggingRules_[policy];
        for (auto const& rule : stream.loggedOperations()) {
            MORVA_TRACE(Debug) << "Add rule" << rule << "to logging hash" << policy;
            if (!rules.contains(rule))
                rules.append(rule);
        }
    }
}

void DisRules::buildRulePolicies() {
    for (auto const& [id, policy] : policies_) {
        MORVA_TRACE(Debug) << "Add rules for policy" << policy->name() << "Rule"
                           << policy->firstRule() << "-" << policy->lastRule() << "has policy id"
                           << id;
        rulePolicies_.emplace(policy->firstRule(), RuleRange{policy->lastRule(), id});
    }
}

DisRules::StreamList DisRules::streamList(MachineName const& machine) const {
    MORVA_METHOD("streamList");
    return streams_.value(machine);
}

DisStreamPointer DisRules::matchingStream(DisStream const& stream) const {
    MORVA_TRACE(Debug) << "Type" << stream.type() << "ReplayId" << stream.replayId();
    for (auto const& candidate : streams_.value(stream.sourceMachine())) {
        if (candidate->type() == stream.type() && candidate->replayId() == stream.replayId())
            return candidate;
    }
    return nullptr;
}

std::uint32_t DisRules::lookupPolicy(std::uint32_t rule) const {
    auto const above = rulePolicies_.upper_bound(rule);
    if (above == rulePolicies_.begin())
        return 0;
    auto const& range = std::prev(above)->second;
    return rule <= range.lastRule ? range.policy : 0;
}

std::optional<std::uint32_t> DisRules::policyCommsMode(std::uint32_t id) const {
    auto const found = policies_.find(id);
    if (found == policies_.end()) {
        MORVA_TRACE(Always) << "Failed to find policy" << id;
        return std::nullopt;
    }
    return found->second->commsMode();
}

QList<std::uint32_t> DisRules::localPolicyList(MachineName const& machine) const {
    MORVA_METHOD(":localPolicyList");
    QList<std::uint32_t> result;
    for (auto const& stream : streams_.value(machine)) {
        for (auto const id : stream->policies()) {
            if (!result.contains(id))
                result.append(id);
        }
    }
    return result;
}

std::shared_ptr<DisPolicyInfo const> DisRules::policy(std::uint32_t id) const {
    auto const found = policies_.find(id);
    return found == policies_.end() ? nullptr : found->second;
}

std::shared_ptr<DisPolicyInfo const> DisRules::policy(QString const& name) const {
    for (auto const& [id, policy] : policies_) {
        if (policy->name() == name)
            return policy;
    }
    return nullptr;
}

bool DisRules::machines(XmlList const& item, QString const& key, QList<MachineName>& result) {
    bool found = false;
    auto const list = item.getXmlList(&found, key);
    if (!found) {
        MORVA_TRACE(Always) << "Failed to get nodes list" << key;
        return false;
    }
    for (XmlListIterator entry(list); entry; ++entry) {
        if (entry.name() != QLatin1String("Machine")) {
            MORVA_TRACE(Normal) << "Ignore unexpected machime item" << entry.name();
            continue;
        }
        RuleMachine node;
        bool isList = false;
        auto const details = entry.getXmlList(&isList);
        if (!isList || !node.read(details)) {
            MORVA_TRACE(Always) << "Failed to get node entry";
            return false;
        }
        auto const known = osTypes_.constFind(node.machine);
        if (known != osTypes_.constEnd() && *known != node.osType) {
            MORVA_TRACE(Always) << "Conflicting OS types for" << node.machine;
            return false;
        }
        osTypes_.insert(node.machine, node.osType);
        result.append(node.machine);
    }
    return true;
}

} // namespace Replication
