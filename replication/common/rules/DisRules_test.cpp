#include "replication/common/rules/DisRules.h"

#include "base/process/Config.h"
#include "base/process/Context.h"
#include "base/process/FixedPath.h"
#include "base/trace/Trace.h"
#include "replication/common/rules/RuleFiles.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <functional>

namespace Replication {
namespace {

using Morva::Config;
using Morva::Context;
using Morva::FixedPath;
using Morva::MachineName;
using Morva::XmlList;

using Change = std::function<void(XmlList&)>;

/// The list at a path of keys, and the last key.
std::pair<XmlList, QString> place(XmlList list, char const* path) {
    auto keys = QString::fromLatin1(path).split(u'/');
    auto const last = keys.takeLast();
    for (auto const& key : keys)
        list = list.getXmlList(nullptr, key);
    return {list, last};
}

Change drop(char const* path) {
    return [path](XmlList& item) {
        auto [list, key] = place(item, path);
        EXPECT_TRUE(list.remove(key)) << path;
    };
}

template <class T>
Change put(char const* path, T value, XmlList::SetTypeE how = XmlList::SetTypeE::Replace) {
    return [=](XmlList& item) {
        auto [list, key] = place(item, path);
        list.set(key, value, how);
    };
}

template <class T> XmlList listOf(char const* key, T value) {
    XmlList list;
    list.set(key, value);
    return list;
}

/// A rule set in a directory of its own, and the trace of what reading it says.
class RuleSet : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(FixedPath::setRoot(root_.path()));
        Context::machineName(MachineName(QStringLiteral("target")));
        files_ = *RuleFiles::make({source("docs", 7, 100)});
        restartTrace();
    }
    void TearDown() override {
        Morva::Trace::remove();
        (void)FixedPath::setRoot({});
        Context::machineName(MachineName());
    }

    static SourceRules source(char const* name, std::uint32_t replayId, std::uint32_t rule) {
        SourceRules result;
        result.storeName = QString::fromLatin1(name);
        result.sourceMachine = MachineName(QStringLiteral("source"));
        result.replayId = replayId;
        result.firstRule = rule;
        return result;
    }
    [[nodiscard]] DisRules load() const {
        EXPECT_TRUE(files_.write(1));
        return DisRules(1);
    }
    /// The parts of the one source's stream and policy, for a test to change.
    [[nodiscard]] XmlList stream() const {
        return files_.replayRules.getXmlList(nullptr, "ReplayStream");
    }
    [[nodiscard]] XmlList policy() const {
        return files_.policyRules.getXmlList(nullptr, "Policy");
    }
    [[nodiscard]] XmlList repository() const { return stream().getXmlList(nullptr, "Repository"); }

    [[nodiscard]] QString tracePath() const { return root_.path() + "/trace"; }
    /// Whether a text was traced since the trace was forgotten. Ends the trace, for the lines
    /// to be in the file, and goes on in a new one.
    [[nodiscard]] bool traced(QString const& text) {
        Morva::Trace::remove();
        QFile file(tracePath());
        if (file.open(QIODevice::ReadOnly))
            seen_ += QString::fromUtf8(file.readAll());
        restartTrace();
        return seen_.contains(text);
    }
    void forgetTrace() {
        Morva::Trace::remove();
        restartTrace();
        seen_.clear();
    }
    void restartTrace() const {
        QFile::remove(tracePath());
        Morva::Trace::install(tracePath());
        Morva::Trace::object()->setLevel(Morva::TraceLevel::Verbose, Morva::Trace::module);
    }

    QString seen_;
    QTemporaryDir root_;
    RuleFiles files_;
};

XmlList versionOp(std::uint32_t id) {
    XmlList operation;
    operation.set("OperationId", id);
    operation.set("Retention", "30d");
    operation.set("RecoveryPointObjective", "1h");
    operation.set("RecoveryTimeObjective", "2h");
    return operation;
}

XmlList policyList(char const* name, std::uint32_t first, std::uint32_t count, char const* mode) {
    XmlList policy;
    policy.set("Name", name);
    policy.set("FirstRule", first);
    policy.set("RuleCount", count);
    policy.set("Mode", mode);
    return policy;
}

TEST_F(RuleSet, WrittenFilesLoadBackAsOneRepositoryStream) {
    auto wanted = source("docs", 7, 100);
    wanted.sourceRoot = QStringLiteral("/srv/data");
    wanted.dedupExclude = QStringList({".zip", ".jpg"});
    wanted.dedupVersions = false;
    wanted.closedGracePeriodSeconds = 60;
    files_ = *RuleFiles::make({wanted, source("other", 8, 101)});
    auto const rules = load();
    ASSERT_TRUE(rules.valid());
    EXPECT_EQ(rules.streamList(MachineName(QStringLiteral("source"))).size(), 2);
    auto const stream = std::dynamic_pointer_cast<RepositoryStream const>(rules.replayStream(7));
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->name(), QStringLiteral("repository-docs"));
    EXPECT_EQ(stream->source(), QStringLiteral("/srv/data"));
    EXPECT_EQ(stream->dedupExclude(), QStringList({".zip", ".jpg"}));
    EXPECT_TRUE(stream->dedupSnapshots());
    EXPECT_FALSE(stream->dedupVersions());
    EXPECT_EQ(stream->closedGracePeriod(), 60U);
    EXPECT_EQ(stream->filterType(), eFilterFilesystem);
    EXPECT_EQ(stream->distributor().machine().name(), QStringLiteral("source"));
    ASSERT_EQ(stream->policyOps().size(), 1U);
    EXPECT_EQ(stream->policyOps().at(100).first()->type(), DisDataOp::eVersion);
    EXPECT_EQ(stream->mdsPolicies(), stream->policyOps());
    EXPECT_TRUE(rules.policy(100)->repository());
    EXPECT_FALSE(rules.policy(100)->mirrored());
    EXPECT_EQ(rules.matchingStream(*stream), stream);
    EXPECT_FALSE(DisRules(0).matchingStream(*stream));
    EXPECT_EQ(rules.localPolicyList(MachineName(QStringLiteral("source"))),
              QList<std::uint32_t>({100, 101}));
    EXPECT_EQ(latestRuleSetId(), 1U);
}

TEST_F(RuleSet, SourcesThatRulesCantBeMadeForAreRefused) {
    auto relative = source("a", 1, 1);
    relative.sourceRoot = QStringLiteral("data");
    EXPECT_FALSE(RuleFiles::make({relative}));
    EXPECT_FALSE(RuleFiles::make({source("", 1, 1)}));
    EXPECT_FALSE(RuleFiles::make({source("a", 0, 1)}));
    EXPECT_FALSE(RuleFiles::make({source("a", 1, 0)}));
    EXPECT_FALSE(RuleFiles::make({source("a", 1, 1), source("b", 1, 2)}));
    EXPECT_FALSE(RuleFiles::make({source("a", 1, 1), source("a", 2, 2)}));
    EXPECT_FALSE(files_.write(0));
    ASSERT_TRUE(FixedPath::setRoot({}));
    EXPECT_FALSE(files_.write(1));
}

TEST_F(RuleSet, RuleSetZeroIsValidAndEmptyWithoutAFile) {
    DisRules rules(0);
    EXPECT_TRUE(rules.valid());
    EXPECT_TRUE(rules.replayStreams().isEmpty());
    EXPECT_FALSE(rules.reload(99)) << "no files";
    EXPECT_TRUE(rules.reload(0));
}

TEST_F(RuleSet, EachMissingOrDamagedFileMakesTheSetInvalidAndEmpty) {
    for (auto const* name :
         {"policyrules.cfg", "dispatcherrules.cfg", "forwardrules.cfg", "replayrules.cfg"}) {
        ASSERT_TRUE(load().valid());
        QString const path = FixedPath::rules(1) + "/" + QString::fromLatin1(name);
        ASSERT_TRUE(QFile::remove(path));
        DisRules const rules(1);
        EXPECT_FALSE(rules.valid()) << name;
        EXPECT_TRUE(rules.replayStreams().isEmpty());
        EXPECT_EQ(rules.lookupPolicy(100), 0U);
        EXPECT_TRUE(traced("Rules file " + path + " is not valid. RuleSetId 1"));
    }
    ASSERT_TRUE(load().valid());
    ASSERT_TRUE(QFile::resize(FixedPath::rules(1) + "/replayrules.cfg", 100));
    EXPECT_FALSE(DisRules(1).valid());
}

TEST_F(RuleSet, UnknownAndUnusedItemsAreHarmless) {
    XmlList streamOnTop;
    streamOnTop.set("StoreName", "x");
    files_.replayRules.set("RepositoryStream", streamOnTop);
    files_.replayRules.set("SnapshotStream", XmlList());
    files_.replayRules.set("BackupStream", XmlList());
    files_.replayRules.set("replaystream", "names are compared exactly");
    auto const rules = load();
    EXPECT_TRUE(rules.valid());
    EXPECT_EQ(rules.replayStreams().size(), 1);
    EXPECT_TRUE(traced("Ignore unexpected config item RepositoryStream"));
    files_.replayRules.set("SnapshotStream", "text");
    EXPECT_FALSE(load().valid());
    EXPECT_TRUE(traced(", expected list entry"));
}

TEST_F(RuleSet, EachFaultOfAStreamIsNamedAndRefused) {
    struct {
        char const* trace;
        Change change;
    } const cases[] = {
        {"No or invalid replay id supplied", put("ReplayId", 0U)},
        {"No or invalid replay id supplied", put("ReplayId", "7")},
        {"No or invalid node dataflow id supplied", drop("NodeId")},
        {"No source machine supplied", drop("SourceMachine")},
        {"No or invalid machine name supplied", put("SourceMachine/Name", "")},
        {"No machine name supplied", drop("SourceMachine/OsType")},
        {"No route supplied", drop("Route")},
        {"Invalid route supplied", put("Route", XmlList())},
        {"elsewhere does not match destination target", put("Route/Name", "elsewhere")},
        {", expected string", put("Route/Name", 5U)},
        {"No or invalid route machine name supplied", put("Route/Name", "")},
        {"No policies supplied", drop("Policies")},
        {", expected list", put("Policies/100", "text")},
        {"Unknown policy 5", put("Policies/5", XmlList())},
        {"included more that once", put("Policies/100", XmlList(), XmlList::SetTypeE::Add)},
        {"includes invalid data operation value 9", put("Policies/100/DataOp", 9U)},
        {", expected uint32", put("Policies/100/DataOp", "1")},
        {"Invalid operation list", put("Policies/100/Op", 1U)},
        {"Invalid MDS data supplied", put("MdsPolicies", listOf("5", XmlList()))},
        {"Invalid Cloud data supplied", put("Clouds", listOf("Cloud", XmlList()))},
        {"No Mirror or Repository stream supplied", drop("Repository")},
        {"No or invalid store name supplied", put("Repository/StoreName", "")},
        {"No target supplied", drop("Repository/Target")},
    };
    for (auto const& test : cases) {
        files_ = *RuleFiles::make({source("docs", 7, 100)});
        auto item = stream();
        test.change(item);
        forgetTrace();
        auto const rules = load();
        EXPECT_FALSE(rules.valid()) << test.trace;
        EXPECT_TRUE(rules.replayStreams().isEmpty());
        EXPECT_TRUE(traced(test.trace)) << test.trace;
    }
}

TEST_F(RuleSet, FlagsOfARepositoryStreamDefaultToTrue) {
    for (auto const* key : {"IndexSnapshots", "DedupSnapshots", "DedupVersions", "Source"})
        repository().remove(key);
    stream().remove("ClosedGracePeriod");
    XmlList excluded;
    excluded.set("DedupExcludeFile", "", XmlList::SetTypeE::Add);
    excluded.set("Other", ".a", XmlList::SetTypeE::Add);
    excluded.set("DedupExcludeFile", ".b", XmlList::SetTypeE::Add);
    repository().set("DedupExcludeList", excluded);
    auto const rules = load();
    auto const stream = std::dynamic_pointer_cast<RepositoryStream const>(rules.replayStream(7));
    ASSERT_TRUE(stream);
    EXPECT_TRUE(stream->indexSnapshots() && stream->dedupSnapshots() && stream->dedupVersions());
    EXPECT_TRUE(stream->fastResync());
    EXPECT_FALSE(stream->needResync());
    EXPECT_EQ(stream->source(), QStringLiteral("/"));
    EXPECT_EQ(stream->closedGracePeriod(), 3600U);
    EXPECT_EQ(stream->dedupExclude(), QStringList(".b"));
    EXPECT_FALSE(rules.resyncRequired());
}

TEST_F(RuleSet, ResyncMarkIsOfAStreamOrOfTheSet) {
    stream().set("ResyncRequired", true);
    auto const rules = load();
    EXPECT_FALSE(rules.resyncRequired()) << "other streams need none";
    EXPECT_TRUE(rules.replayStream(7)->needResync());
    stream().remove("ResyncRequired");
    files_.policyRules.set("ResyncRequired", true);
    EXPECT_TRUE(load().resyncRequired());
}

TEST_F(RuleSet, SameStoreTwiceWarnsAndBothLoad) {
    auto second = stream().clone();
    second.set("ReplayId", 8U);
    files_.replayRules.set("ReplayStream", second, XmlList::SetTypeE::Add);
    auto const rules = load();
    EXPECT_TRUE(rules.valid());
    EXPECT_EQ(rules.replayStreams().size(), 2);
    EXPECT_TRUE(traced("Warning: Store repository-docs and store repository-docs "
                       "have the same target on node source"));
}

TEST_F(RuleSet, MirrorStreamReadsItsOwnList) {
    XmlList mirror;
    mirror.set("StoreName", "docs");
    mirror.set("Source", "C:\\Data");
    mirror.set("Target", "/mirror");
    mirror.set("AppendSourceMachine", true);
    mirror.set("SyncKeepDestFiles", false);
    mirror.set("SecurityOverride", true);
    mirror.set("SecurityUser", "root");
    mirror.set("SecurityUMask", 18U);
    stream().remove("Repository");
    stream().set("Mirror", mirror);
    EXPECT_FALSE(load().valid());
    EXPECT_TRUE(traced("No keep newest file flag supplied"));
    mirror.set("SyncToLatest", true);
    auto const rules = load();
    auto const stream = std::dynamic_pointer_cast<MirrorStream const>(rules.replayStream(7));
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->name(), QStringLiteral("mirror-docs"));
    EXPECT_EQ(stream->sourceLower(), QStringLiteral("c:\\data"));
    EXPECT_TRUE(stream->appendSourceMachine() && stream->keepNewest() && !stream->keepDestFiles());
    EXPECT_EQ(stream->securityUMask(), 18U);
    EXPECT_TRUE(rules.policy(100)->mirrored() && rules.policy(100)->repository());
}

TEST_F(RuleSet, StreamTakesOneFilterTypeAndOutsideOfBatchOneMode) {
    files_.policyRules.set("Policy", policyList("second", 200, 2, "async"), XmlList::SetTypeE::Add);
    stream().getXmlList(nullptr, "Policies").set("200", XmlList());
    EXPECT_FALSE(load().valid());
    EXPECT_TRUE(traced("mismatching comms modes in the same stream"));
    stream().set("BatchMode", true);
    auto const rules = load();
    ASSERT_TRUE(rules.valid());
    EXPECT_EQ(rules.replayStream(7)->batch(), 2U);
    EXPECT_EQ(rules.replayStream(7)->commsMode(), eJournaled);
    EXPECT_EQ(rules.policyCommsMode(200), std::uint32_t(eAsync));
    auto exchange = policyList("third", 300, 1, "journaled");
    exchange.set("FilterType", "Exchange");
    files_.policyRules.set("Policy", exchange, XmlList::SetTypeE::Add);
    stream().getXmlList(nullptr, "Policies").set("third", XmlList());
    EXPECT_FALSE(load().valid());
    EXPECT_TRUE(traced("Stream must only contain one filter type"));
}

TEST_F(RuleSet, RulesMapToPoliciesAndMayNotClash) {
    files_.policyRules.set("Policy", policyList("wide", 200, 10, "sync"), XmlList::SetTypeE::Add);
    auto const rules = load();
    ASSERT_TRUE(rules.valid());
    struct {
        std::uint32_t rule;
        std::uint32_t policy;
    } const lookups[] = {{0, 0},     {99, 0},    {100, 100}, {101, 0},        {199, 0},
                         {200, 200}, {209, 200}, {210, 0},   {4294967295U, 0}};
    for (auto const& lookup : lookups)
        EXPECT_EQ(rules.lookupPolicy(lookup.rule), lookup.policy) << lookup.rule;
    EXPECT_FALSE(rules.policyCommsMode(209));
    EXPECT_TRUE(traced("Failed to find policy 209"));

    struct {
        std::uint32_t first;
        std::uint32_t count;
        char const* name;
        char const* trace; // null where the policy fits
    } const clashes[] = {
        {209, 1, "c", "conflict with Rules"},
        {190, 11, "c", "conflict with Rules"},
        {150, 200, "c", "conflict with Rules"},
        {205, 2, "c", "conflict with Rules"},
        {200, 1, "c", "has already been added"},
        {300, 1, "wide", "has already been added"},
        {210, 5, "c", nullptr},
        {190, 10, "c", nullptr},
    };
    auto const before = files_.policyRules.clone();
    for (auto const& clash : clashes) {
        files_.policyRules = before.clone();
        files_.policyRules.set("Policy", policyList(clash.name, clash.first, clash.count, "sync"),
                               XmlList::SetTypeE::Add);
        forgetTrace();
        EXPECT_EQ(load().valid(), clash.trace == nullptr) << clash.first;
        EXPECT_TRUE(!clash.trace || traced(clash.trace)) << clash.first;
    }
}

TEST(DisPolicy, EachFaultLeavesThePolicyWithoutAName) {
    struct {
        char const* fault;
        Change change;
        bool valid;
    } const cases[] = {
        {"as it is", [](XmlList&) {}, true},
        {"no name", drop("Name"), false},
        {"empty name", put("Name", ""), false},
        {"no count", drop("RuleCount"), false},
        {"count 0", put("RuleCount", 0U), false},
        {"count beyond bounds", put("RuleCount", DisPolicy::maxRules + 1), false},
        {"first rule 0", put("FirstRule", 0U), false},
        {"last rule", put("FirstRule", 4294967294U), true},
        {"rules past the last number", put("FirstRule", 4294967295U), false},
        {"no mode", drop("Mode"), false},
        {"mode in capitals", put("Mode", "SYNC"), false},
        {"operation without retention", drop("Version/Retention"), true},
        {"operation that is no list", put("Cdp", "x"), true},
        {"unknown item", put("Other", "x"), true},
    };
    for (auto const& test : cases) {
        auto list = policyList("p", 10, 2, "sync");
        list.set("Version", versionOp(1));
        test.change(list);
        EXPECT_EQ(DisPolicy(list).valid(), test.valid) << test.fault;
    }
}

TEST(DisPolicy, KeepsTheOperationsThatAreUsable) {
    auto list = policyList("p", 10, 3, "async");
    list.set("Version", versionOp(1));
    list.set("Backup", versionOp(0));
    auto incomplete = versionOp(3);
    incomplete.remove("RecoveryTimeObjective");
    list.set("Cdp", incomplete);
    XmlList tag;
    tag.set("OperationId", 4U);
    tag.set("CustomType", "t");
    list.set("ClassificationTag", tag);
    XmlList index;
    index.set("OperationId", 5U);
    index.set("Name", "idx");
    list.set("Index", index);
    DisPolicy const policy(list);
    EXPECT_EQ(policy.lastRule(), 12U);
    EXPECT_EQ(policy.commsMode(), eAsync);
    ASSERT_EQ(policy.dataOps().size(), 2U);
    EXPECT_EQ(policy.dataOps().at(5)->name(), QStringLiteral("idx"));
    auto const version = std::dynamic_pointer_cast<VersionDataOp const>(policy.dataOps().at(1));
    ASSERT_TRUE(version);
    EXPECT_EQ(version->recoveryPointObjective(), QStringLiteral("1h"));
    EXPECT_TRUE(VersionDataOp(incomplete).retention().isEmpty());
    tag.set("CustomValue", "v");
    EXPECT_EQ(DisPolicy(list).dataOps().size(), 3U);
    for (std::uint32_t type = 1; type <= 9; ++type) {
        auto const name = DisDataOp::itemName(static_cast<DisDataOp::Type>(type));
        auto const operation = DisDataOp::make(name, XmlList());
        ASSERT_TRUE(operation) << type;
        EXPECT_EQ(operation->type(), type);
    }
    EXPECT_FALSE(DisDataOp::make("Name", XmlList()));
}

XmlList machineList(std::initializer_list<std::pair<char const*, char const*>> machines) {
    XmlList list;
    for (auto const& [name, os] : machines) {
        XmlList machine;
        machine.set("Name", name);
        machine.set("OsType", os);
        list.set("Machine", machine, XmlList::SetTypeE::Add);
    }
    return list;
}

XmlList dispatcherItem() {
    XmlList policies;
    policies.set("Policy", "policy-docs");
    XmlList item;
    item.set("NodeId", 3U);
    item.set("NetworkCompression", true);
    item.set("Policies", policies);
    item.set("SourceMachines", machineList({{"a", "Linux"}, {"b", "Linux"}}));
    item.set("TargetMachines", machineList({{"t", "Linux"}}));
    return item;
}

TEST_F(RuleSet, DispatcherStreamsBelongToEachOfTheirSources) {
    files_.dispatcherRules.set("ReplicationStream", dispatcherItem());
    files_.forwardRules.set("ForwardStream", dispatcherItem());
    auto logging = dispatcherItem();
    logging.set("LogWrite", true);
    logging.set("LogRead", false);
    logging.set("LogMove", true);
    files_.dispatcherRules.set("LoggingStream", logging);
    auto const rules = load();
    ASSERT_TRUE(rules.valid());
    auto const streams = rules.streamList(MachineName(QStringLiteral("b")));
    ASSERT_EQ(streams.size(), 2);
    EXPECT_EQ(streams[0]->type(), DisStream::eReplication);
    EXPECT_EQ(streams[1]->type(), DisStream::eForward);
    EXPECT_EQ(streams[1]->name(), QString());
    EXPECT_TRUE(traced("Stream has no name"));
    EXPECT_TRUE(rules.policy(100)->replicated() && rules.policy(100)->forwarded());
    EXPECT_EQ(rules.loggingRules(100), QStringList({"log write", "log move"}));
}

TEST_F(RuleSet, EachFaultOfADispatcherStreamIsNamedAndRefused) {
    auto const batch = [](XmlList& item) {
        put("BatchMode", true)(item);
        put("TargetMachines/Machine/Route", listOf("Name", "t"))(item);
    };
    auto const twoTargets = machineList({{"t", "L"}, {"u", "L"}});
    struct {
        char const* key;
        char const* trace; // null where the stream is valid
        Change change;
    } const cases[] = {
        {"ForwardStream", nullptr, [](XmlList&) {}},
        {"ForwardStream", "Must have single target node", put("TargetMachines", twoTargets)},
        {"ForwardStream", "Must have single target node", put("TargetMachines", XmlList())},
        {"ForwardStream", "Failed to get nodes list", drop("SourceMachines")},
        {"ForwardStream", "Failed to get node entry", put("SourceMachines/Machine", "a")},
        {"ForwardStream", "Conflicting OS types for a",
         put("TargetMachines", machineList({{"a", "Windows"}}))},
        {"ForwardStream", "No compression flag supplied", drop("NetworkCompression")},
        {"ForwardStream", "No policy list supplied", drop("Policies")},
        {"ForwardStream", "No policies supplied", put("Policies", XmlList())},
        {"ForwardStream", "Failed to add policy none", put("Policies/Policy", "none")},
        {"ForwardStream", "No or invalid policy name supplied", put("Policies/Policy", "")},
        {"ReplicationStream", "No or invalid interface node id supplied", put("NodeId", 0U)},
        {"ReplicationStream", nullptr, batch},
        {"ReplicationStream", "No target data supplied for batch dispatcher stream",
         [&](XmlList& s) { batch(s), s.remove("TargetMachines"); }},
        {"ReplicationStream", "No route to target in batch dispatcher stream",
         put("BatchMode", true)},
        {"ReplicationStream", "Multiple targets no permitted for batch dispatcher stream",
         [&](XmlList& s) { put("TargetMachines", twoTargets)(s), batch(s); }},
        {"LoggingStream", "Invalid logging stream data", drop("Policies")},
    };
    for (auto const& test : cases) {
        files_ = *RuleFiles::make({source("docs", 7, 100)});
        auto item = dispatcherItem();
        test.change(item);
        files_.forwardRules.set(QString::fromLatin1(test.key), item);
        forgetTrace();
        EXPECT_EQ(load().valid(), test.trace == nullptr)
            << test.key << (test.trace ? test.trace : "");
        EXPECT_TRUE(!test.trace || traced(test.trace))
            << test.key << (test.trace ? test.trace : "");
    }
}

} // namespace
} // namespace Replication
