#include "replication/common/rules/ReplayStream.h"

#include "base/process/Context.h"
#include "base/trace/Trace.h"
#include "replication/common/rules/DisRules.h"
#include "replication/common/rules/RuleItems.h"

namespace Replication {

using Morva::MsgAddress;
using Morva::XmlList;
using Morva::XmlListIterator;

namespace {

QString const distributorName = QStringLiteral("Distributor");

/// Takes an optional flag, and traces it where it is there.
void readFlag(XmlList const& list, char const* key, char const* text, bool& flag) {
    bool found = false;
    bool const value = list.getBool(&found, QString::fromLatin1(key));
    if (!found)
        return;
    flag = value;
    MORVA_TRACE(Verbose) << text << value;
}

} // namespace

ReplayStream::ReplayStream(XmlList const& item, DisRules const& rules) : DisStream(rules) {
    replayId_ = item.getUint32(nullptr, QStringLiteral("ReplayId"));
    if (replayId_ == 0) {
        MORVA_TRACE(Always) << "No or invalid replay id supplied";
        fault();
    }
    readFlags(item);
    nodeId_ = item.getUint32(nullptr, QStringLiteral("NodeId"));
    if (nodeId_ == 0) {
        MORVA_TRACE(Always) << "No or invalid node dataflow id supplied";
        fault();
    }
    bool found = false;
    RuleMachine source;
    auto const machine = item.getXmlList(&found, QStringLiteral("SourceMachine"));
    if (!found) {
        MORVA_TRACE(Always) << "No source machine supplied";
        fault();
    } else if (!source.read(machine)) {
        MORVA_TRACE(Always) << "Invalid source machine supplied";
        fault();
    }
    sourceMachine_ = source.machine;
    osType_ = source.osType;

    auto const route = item.getXmlList(&found, QStringLiteral("Route"));
    if (!found) {
        MORVA_TRACE(Always) << "No route supplied";
        fault();
    } else if (!readRoute(route)) {
        MORVA_TRACE(Always) << "Invalid route supplied";
        fault();
    }
    readPolicies(item, rules);
}

void ReplayStream::readFlags(XmlList const& item) {
    readFlag(item, "ResyncRequired", "Need Resync set to", needResync_);
    readFlag(item, "BatchMode", "Batch Mode set to", batchMode_);
    batch_ = batchMode_ ? 2 : 1;
    closedGracePeriod_ = item.get(QStringLiteral("ClosedGracePeriod"), closedGracePeriod_);
}

bool ReplayStream::readRoute(XmlList const& list) {
    if (!readRuleRoute(list, route_))
        return false;
    // Rules name machines without the ids that the hub may have given them.
    auto const here = Morva::Context::machineName();
    if (route_.destination().name() != here.name()) {
        MORVA_TRACE(Always) << route_.destination().name() << "does not match"
                            << "destination" << here;
        return false;
    }
    distributor_ = MsgAddress(route_.returnRoute(sourceMachine_), distributorName, distributorName);
    return true;
}

void ReplayStream::readPolicies(XmlList const& item, DisRules const& rules) {
    bool found = false;
    auto const list = item.getXmlList(&found, QStringLiteral("Policies"));
    if (!found) {
        MORVA_TRACE(Always) << "No policies supplied";
        fault();
    } else if (!loadPolicies(rules, list, policyOps_, true)) {
        MORVA_TRACE(Always) << "Invalid policies supplied";
        fault();
    }
    auto const mds = item.getXmlList(&found, QStringLiteral("MdsPolicies"));
    if (!found) {
        mdsPolicies_ = policyOps_;
    } else if (!loadPolicies(rules, mds, mdsPolicies_, false)) {
        MORVA_TRACE(Always) << "Invalid MDS data supplied";
        fault();
    }
    auto const clouds = item.getXmlList(&found, QStringLiteral("Clouds"));
    if (found && !loadClouds(rules, clouds)) {
        MORVA_TRACE(Always) << "Invalid Cloud data supplied";
        fault();
    }
}

namespace {

/// The policy that an entry names by its id or, if that is no number, by its name.
std::shared_ptr<DisPolicyInfo const> findPolicy(DisRules const& rules, QString const& text) {
    bool isNumber = false;
    auto const id = text.toUInt(&isNumber);
    return isNumber ? rules.policy(id) : rules.policy(text);
}

/// The operations of one policy's entry: "DataOp" values, each the id of one that it has.
bool loadOperations(DisPolicyInfo const& policy, XmlList const& list,
                    QList<DisDataOpPointer>& result) {
    bool fine = true;
    for (XmlListIterator item(list); item; ++item) {
        if (item.name() != QLatin1String("DataOp")) {
            MORVA_TRACE(Always) << "Unexpected/invalid operation node item name" << item.name()
                                << ", expected"
                                << "DataOp";
            fine = false;
            continue;
        }
        if (item.type() != XmlList::ValueTypeE::Uint32) {
            MORVA_TRACE(Always) << "Unexpected/invalid operation node item type" << item.type()
                                << ", expected uint32";
            fine = false;
            continue;
        }
        auto const id = item.getUint32();
        if (id == 0) {
            MORVA_TRACE(Debug) << "Ignore zero ids";
            continue;
        }
        auto const operation = policy.dataOps().find(id);
        if (operation == policy.dataOps().end()) {
            MORVA_TRACE(Always) << "policy" << policy.name()
                                << "includes invalid data operation value" << id;
            fine = false;
            continue;
        }
        MORVA_TRACE(Debug) << "Add dataop" << id;
        result.append(operation->second);
    }
    return fine;
}

} // namespace

bool ReplayStream::loadPolicies(DisRules const& rules, XmlList const& list, PolicyOps& result,
                                bool own) {
    MORVA_METHOD("loadPolicies");
    bool fine = true;
    for (XmlListIterator item(list); item; ++item) {
        if (item.type() != XmlList::ValueTypeE::List) {
            MORVA_TRACE(Always) << "Unexpected/invalid policy node item type" << item.type()
                                << ", expected list";
            fine = false;
            continue;
        }
        auto const policy = findPolicy(rules, item.name());
        if (!policy) {
            MORVA_TRACE(Always) << "Unknown policy" << item.name();
            fine = false;
            continue;
        }
        if (result.contains(policy->id())) {
            MORVA_TRACE(Always) << "policy" << item.name() << "included more that once";
            fine = false;
            continue;
        }
        if (own && !addPolicy(*policy)) {
            fine = false;
            continue;
        }
        if (!loadOperations(*policy, item.getXmlList(), result[policy->id()])) {
            MORVA_TRACE(Always) << "Invalid operation list";
            fine = false;
        }
    }
    return scope.result(fine);
}

bool ReplayStream::loadClouds(DisRules const& rules, XmlList const& list) {
    MORVA_METHOD("loadClouds");
    bool fine = true;
    for (XmlListIterator item(list); item; ++item) {
        if (item.type() != XmlList::ValueTypeE::List) {
            MORVA_TRACE(Always) << "Unexpected/invalid cloud node item type" << item.type()
                                << ", expected list";
            fine = false;
            continue;
        }
        if (item.name() == QLatin1String("Cloud"))
            fine = loadCloud(rules, item.getXmlList()) && fine;
    }
    if (!fine)
        MORVA_TRACE(Always) << "Invalid cloud list";
    return scope.result(fine);
}

bool ReplayStream::loadCloud(DisRules const& rules, XmlList const& list) {
    CloudTarget cloud;
    cloud.store = list.getString(nullptr, QStringLiteral("CloudStore"));
    if (cloud.store.isEmpty()) {
        MORVA_TRACE(Always) << "No or invalid store name supplied";
        return false;
    }
    for (auto const& other : clouds_) {
        if (other.store == cloud.store) {
            MORVA_TRACE(Always) << "cloud" << cloud.store << "included more that once";
            return false;
        }
    }
    bool fine = true;
    bool found = false;
    cloud.provider = list.getString(&found, QStringLiteral("Provider"));
    if (!found) {
        MORVA_TRACE(Always) << "No cloud storage provider supplied";
        fine = false;
    }
    auto const policies = list.getXmlList(&found, QStringLiteral("Policies"));
    if (!found || !loadPolicies(rules, policies, cloud.policies, false)) {
        MORVA_TRACE(Always) << "Invalid cloud policies supplied";
        fine = false;
    }
    if (fine)
        clouds_.append(cloud);
    return fine;
}

void ReplayStream::readTarget(XmlList const& list) {
    readFlag(list, "OptimizeNetXfer", "Optimize Network transfer set to", optimizeNetXfer_);
    readFlag(list, "FastResync", "Fast Resync set to", fastResync_);
    storeName_ = list.getString(nullptr, QStringLiteral("StoreName"));
    if (storeName_.isEmpty()) {
        MORVA_TRACE(Always) << "No or invalid store name supplied";
        fault();
    }
    bool found = false;
    target_ = list.getString(&found, QStringLiteral("Target"));
    if (!found) {
        MORVA_TRACE(Always) << "No target supplied";
        fault();
    }
}

MirrorStream::MirrorStream(XmlList const& item, DisRules const& rules) : ReplayStream(item, rules) {
    bool found = false;
    auto const list = item.getXmlList(&found, QStringLiteral("Mirror"));
    if (!found) {
        MORVA_TRACE(Always) << "No mirror stream supplied";
        fault();
        return;
    }
    readTarget(list);
    source_ = list.getString(&found, QStringLiteral("Source"));
    if (!found) {
        MORVA_TRACE(Always) << "No source supplied";
        fault();
    }
    sourceLower_ = source_.toLower();
    struct {
        char const* key;
        char const* failure;
        bool& flag;
    } const flags[] = {
        {"AppendSourceMachine", "No append source node name flag supplied", appendSourceMachine_},
        {"SyncKeepDestFiles", "No keep destination files flag supplied", keepDestFiles_},
        {"SyncToLatest", "No keep newest file flag supplied", keepNewest_},
    };
    for (auto const& required : flags) {
        required.flag = list.getBool(&found, QString::fromLatin1(required.key));
        if (!found) {
            MORVA_TRACE(Always) << required.failure;
            fault();
        }
    }
    securityOverride_ = list.get(QStringLiteral("SecurityOverride"), false);
    if (securityOverride_) {
        securityUser_ = list.getString(nullptr, QStringLiteral("SecurityUser"));
        securityGroup_ = list.getString(nullptr, QStringLiteral("SecurityGroup"));
        securityUMask_ = list.getUint32(nullptr, QStringLiteral("SecurityUMask"));
    }
}

QString MirrorStream::name() const {
    return QStringLiteral("mirror-%1").arg(storeName());
}

RepositoryStream::RepositoryStream(XmlList const& item, DisRules const& rules)
    : ReplayStream(item, rules) {
    bool found = false;
    auto const list = item.getXmlList(&found, QStringLiteral("Repository"));
    if (!found) {
        MORVA_TRACE(Always) << "No repository stream supplied";
        fault();
        return;
    }
    readTarget(list);
    source_ = list.get(QStringLiteral("Source"), QStringLiteral("/"));
    sourceLower_ = source_;
    readFlag(list, "IndexSnapshots", "Index Snapshots set to", indexSnapshots_);
    readFlag(list, "DedupSnapshots", "Dedup Snapshots set to", dedupSnapshots_);
    readFlag(list, "DedupVersions", "Dedup Versions set to", dedupVersions_);
    auto const excluded = list.getXmlList(nullptr, QStringLiteral("DedupExcludeList"));
    for (XmlListIterator file(excluded, QStringLiteral("DedupExcludeFile")); file; ++file) {
        if (auto const text = file.getString(); !text.isEmpty())
            dedupExclude_.append(text);
    }
}

QString RepositoryStream::name() const {
    return QStringLiteral("repository-%1").arg(storeName());
}

} // namespace Replication
