#include "replication/repository/replay/PosixReplayFixture.h"

#include "base/process/Config.h"

namespace Replication {
namespace {

class SinkRules : public PosixReplayFixture {
protected:
    Outcome policyEvent(std::uint32_t ruleId, std::uint32_t operation) {
        return apply(LogType::PolicyEvent, [&](LogBuilder& log) {
            log.number(F::Rule, ruleId).number(F::OperationId, operation);
            log.text(F::Policy, "nightly").text(F::Tag, "label");
        });
    }
    /// The rules that version an open file.
    [[nodiscard]] std::vector<std::uint32_t> rulesOf(char const* path) {
        auto const handle = object(path);
        return handle ? handle->version().rules : std::vector<std::uint32_t>{};
    }
};

TEST_F(SinkRules, PolicyEventsThatAskForABackupTakeASnapshot) {
    struct {
        std::uint32_t rule;
        std::uint32_t operation;
        bool snapshot;
    } const cases[] = {
        {rule, backupOperation, true},
        {rule, cdpOperation, false},
        {rule, 1, false},
        {rule, 9, false},
        {rule + 1, backupOperation, false},
    };
    ASSERT_TRUE(make("/src/a", "a"));
    for (auto const& each : cases) {
        auto const before = store_->currentInstance();
        EXPECT_EQ(policyEvent(each.rule, each.operation), Outcome::Applied);
        EXPECT_EQ(store_->currentInstance() != before, each.snapshot)
            << each.rule << ' ' << each.operation;
    }
    EXPECT_EQ(contentAt("a", store_->currentInstance()), "a");
    EXPECT_TRUE(
        said_.contains("Successfully performed a backup of machine for policy nightly to home"));

    sink_->needsResync(true);
    EXPECT_EQ(policyEvent(rule, backupOperation), Outcome::Applied);
    EXPECT_TRUE(said_.contains("Successfully performed a backup of machine for policy nightly to "
                               "home, but a resynchronization is required"));
    sink_->needsResync(false);
    EXPECT_TRUE(open(1, "/src/none"));
    // The event first asks for the files that are missing.
    EXPECT_EQ(policyEvent(rule, backupOperation), Outcome::Applied);
    EXPECT_TRUE(said_.contains("Successfully performed a backup of machine for policy nightly to "
                               "home, but a partial resynchronization is required"));
}

TEST_F(SinkRules, FailedBackupIsToldAndDoesNotFailTheLog) {
    files_.failWritesAfter(0);
    auto const before = store_->currentInstance();
    EXPECT_EQ(policyEvent(rule, backupOperation), Outcome::Applied);
    files_.heal();
    EXPECT_EQ(store_->currentInstance(), before);
    EXPECT_TRUE(said_.contains("Failed to perform a backup of machine for policy nightly"));
}

TEST_F(SinkRules, OnlyVersioningRulesOfNamesThatAreNotSuppressedStay) {
    Morva::XmlList files;
    files.set("File", "~$", Morva::XmlList::SetTypeE::Add);
    files.set("File", ".lock", Morva::XmlList::SetTypeE::Add);
    Morva::XmlList config;
    config.set("SuppressedFiles", files);
    ASSERT_TRUE(QDir().mkpath(Morva::FixedPath::configuration()));
    ASSERT_TRUE(Morva::ConfigLocal::save(
        Morva::FixedPath::configuration() + "/version-suppression.cfg", config));
    writeRules(2);

    // The rules in force don't know the list yet.
    ASSERT_TRUE(create(1, "/src/~$first"));
    EXPECT_EQ(rulesOf("~$first"), std::vector<std::uint32_t>{rule});
    ruleSet_ = 2;
    ASSERT_TRUE(mkdir("/src/x.lock"));
    struct {
        char const* path;
        bool versioned;
    } const cases[] = {
        {"/src/a", true}, {"/src/~$a", false}, {"/src/a.locked", false}, {"/src/x.lock/a", true}};
    std::uint32_t id = 10;
    for (auto const& each : cases) {
        ASSERT_TRUE(create(++id, each.path));
        EXPECT_EQ(!rulesOf(each.path + 5).empty(), each.versioned) << each.path;
    }
}

TEST_F(SinkRules, RulesDecideOverDeduplicationByTheEndOfTheName) {
    source_.dedupExclude = QStringList{"*.zip", ".JPG", "*"};
    writeRules(2);
    ruleSet_ = 2;
    auto const dedup = [this](char const* path) {
        EXPECT_TRUE(create(1, path));
        return std::static_pointer_cast<SinkHandle>(sink_->openHandles().value(1))->dedup;
    };
    EXPECT_FALSE(dedup("/src/a.zip"));
    EXPECT_TRUE(dedup("/src/a.jpg"));
    EXPECT_FALSE(dedup("/src/a.JPG"));
    EXPECT_TRUE(dedup("/src/zip"));
}

TEST_F(SinkRules, RulesThatAskForAResyncDoSoWhenTheyComeIntoForce) {
    writeRules(2, true);
    writeRules(3);
    ruleSet_ = 2;
    ASSERT_TRUE(create(1, "/src/a"));
    EXPECT_TRUE(sink_->needsResync());
    EXPECT_TRUE(said_.contains("A resynchronization of machine to home is required, "
                               "Rules change requires resynchronization"));
    // The handle came after the change; the next one moves it.
    EXPECT_EQ(sink_->openHandles().size(), 1);
    sink_->needsResync(false);
    ruleSet_ = 3;
    EXPECT_TRUE(write(1, 0, "x"));
    EXPECT_EQ(content("a"), "x");
    EXPECT_FALSE(sink_->needsResync());
}

TEST_F(SinkRules, RulesThatCanNotBeTakenLeaveTheOldOnesInForce) {
    ASSERT_TRUE(make("/src/a", "a"));
    ruleSet_ = 4; // no such rule set
    EXPECT_EQ(apply(LogType::PosixUnlink, [](LogBuilder& log) { log.text(F::File, "/src/a"); }),
              Outcome::Waiting);
    EXPECT_TRUE(object("a"));

    // The same when its number can't be saved, again and again.
    source_.sourceRoot = "/other";
    writeRules(2);
    ruleSet_ = 2;
    files_.failWritesAfter(0);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(apply(LogType::PosixUnlink, [](LogBuilder& log) { log.text(F::File, "/src/a"); }),
                  Outcome::Waiting);
    EXPECT_EQ(sink_->sourceRoot(), "/src");
    files_.heal();
    EXPECT_TRUE(named(LogType::PosixUnlink, "/other/a"));
    EXPECT_FALSE(object("a"));
}

} // namespace
} // namespace Replication
