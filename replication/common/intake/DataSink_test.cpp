#include "replication/common/intake/DataSink.h"

#include "base/files/FaultyFiles.h"
#include "base/messages/XmlList.h"
#include "base/trace/Log.h"
#include "replication/common/log/LogBuilder.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

#include <set>

namespace Replication {
namespace {

using Morva::FaultyFiles;
using Morva::XmlList;

/// A sink that notes what it is told to do.
class TestSink : public DataSink {
public:
    using DataSink::ackMode;
    using DataSink::closedHandles;
    using DataSink::DataSink;
    using DataSink::notToBackup;
    using DataSink::openHandles;
    using DataSink::state;

    bool loadRules(std::uint32_t ruleSet) override {
        loaded.push_back(ruleSet);
        return !unloadable.contains(ruleSet) && stateFile().ruleSet(ruleSet);
    }
    Morva::Status replay(LogPointer const& log) override {
        replayed.push_back(log->sequenceNumber());
        if (log->sequenceNumber() == pauseAt)
            pause();
        return failing.contains(log->sequenceNumber())
                   ? Morva::Status::failure(failsWith, "apply log", "store")
                   : Morva::Status();
    }
    bool askForPathsOf(LogEntry const&) override { return pathsKnown; }
    /// A checkpoint.
    void checkpoint() {
        EXPECT_TRUE(savePosition());
        acknowledge();
    }
    void sendAck(std::uint64_t sequence) override { acks.push_back(sequence); }
    void sendNak(std::uint64_t sequence) override { naks.push_back(sequence); }
    void closeAllFiles() override { ++closings; }
    bool startResyncProcess(QString const& type) override {
        resyncs += type;
        return false;
    }
    bool destinationEmpty() override { return true; }
    bool batchMode() const override { return batch; }
    void policyEvent(LogEntry const&) override {}
    void unstalled() override { ++unstalls; }
    Morva::Status exclusionsChanged() override {
        ++exclusionChanges;
        return failExclusions
                   ? Morva::Status::failure(Morva::Status::Code::IoError, "exclude", "store")
                   : Morva::Status();
    }
    std::uint32_t closedGracePeriod() const override { return grace; }

    std::set<std::uint32_t> unloadable;
    std::set<std::uint64_t> failing;
    Morva::Status::Code failsWith = Morva::Status::Code::InvalidArgument;
    bool pathsKnown = false;
    std::uint64_t pauseAt = 0;
    bool batch = false;
    std::uint32_t grace = 100;
    std::vector<std::uint32_t> loaded;
    std::vector<std::uint64_t> replayed;
    std::vector<std::uint64_t> acks;
    std::vector<std::uint64_t> naks;
    QStringList resyncs;
    int closings = 0;
    int unstalls = 0;
    int exclusionChanges = 0;
    bool failExclusions = false;
};

struct TestHandle : OpenHandle {
    void print() const override {}
};

class DataSinks : public testing::Test {
protected:
    using Outcome = DataSink::Outcome;
    using Numbers = std::vector<std::uint64_t>;

    DataSinks() {
        Morva::Log::install([this](Morva::LogMessage const& message) { said += message.text; });
    }
    ~DataSinks() override { Morva::Log::remove(); }

    [[nodiscard]] QString path() const { return directory_.filePath("state-1"); }
    [[nodiscard]] std::unique_ptr<TestSink> make(std::uint32_t ruleSet = 1) const {
        DataSink::Identity identity;
        identity.name = "repository-home";
        identity.sourceMachine = "machine";
        identity.target = "home";
        identity.stateFile = path();
        identity.ruleSet = ruleSet;
        return std::make_unique<TestSink>(identity);
    }
    [[nodiscard]] std::unique_ptr<TestSink> started(std::uint32_t ruleSet = 1) const {
        auto sink = make(ruleSet);
        EXPECT_TRUE(sink->start());
        return sink;
    }
    /// A log that `change` may add to before it is finished.
    [[nodiscard]] LogPointer log(LogType type, std::uint64_t sequence, std::uint32_t ruleSet = 1,
                                 std::function<void(LogBuilder&)> const& change = {}) {
        LogBuilder builder;
        builder.ruleSet(ruleSet);
        builder.begin(type, sequence).time(time);
        if (change)
            change(builder);
        auto result = std::make_shared<LogEntry>();
        EXPECT_TRUE(result->build(builder));
        return result;
    }
    [[nodiscard]] LogPointer close(std::uint64_t sequence, std::uint32_t ruleSet = 1) {
        return log(LogType::Close, sequence, ruleSet);
    }
    [[nodiscard]] LogPointer message(std::uint64_t sequence, DataSink::MessageType type,
                                     QByteArray const& data = {}) {
        return log(LogType::Message, sequence, 1, [&](LogBuilder& builder) {
            builder.number(LogField::MessageType, type).bytes(LogField::Data, Morva::Extent(data));
        });
    }
    [[nodiscard]] static QByteArray exclusions(char const* path) {
        XmlList details;
        NotToBackup::addEntry(details, QString::fromLatin1(path), false, false);
        return details.toBinary();
    }
    [[nodiscard]] static bool excludes(TestSink const& sink, char const* name) {
        return sink.notToBackup().fileOpType({QString::fromLatin1(name)}) == NotToBackup::eExcluded;
    }

    QTemporaryDir directory_;
    std::uint32_t time = 1000;
    QStringList said;
};

TEST_F(DataSinks, FirstStartAsksForAnInitialSynchronisation) {
    auto const sink = started();
    EXPECT_TRUE(sink->needsResync());
    EXPECT_EQ(sink->resyncs, QStringList{"Initial"});
    EXPECT_TRUE(sink->acks.empty());
    StateFile file(path());
    file.readHeader();
    EXPECT_EQ(file.flags(), StateFile::resyncFlag);
}

TEST_F(DataSinks, OldSequencesAreDroppedAndGapsAreNot) {
    auto const sink = started();
    EXPECT_EQ(sink->takeLog(close(5)), Outcome::Applied);
    EXPECT_EQ(sink->takeLog(close(5)), Outcome::AlreadyReplicated);
    EXPECT_EQ(sink->takeLog(close(4)), Outcome::AlreadyReplicated);
    EXPECT_EQ(sink->takeLog(close(9)), Outcome::Applied);
    EXPECT_EQ(sink->replayed, (Numbers{5, 9}));
    EXPECT_TRUE(sink->acks.empty());
    sink->checkpoint();
    sink->checkpoint(); // nothing new
    EXPECT_EQ(sink->acks, (Numbers{9}));
    StateFile file(path());
    file.readHeader();
    EXPECT_EQ(file.sequenceNumber(), 9U);
    EXPECT_EQ(file.bytesProcessed(), 2 * std::uint64_t{close(5)->body().size});
}

TEST_F(DataSinks, OnlyWhatACheckpointHoldsIsAcknowledged) {
    {
        auto const sink = started();
        sink->needsResync(false);
        EXPECT_EQ(sink->takeLog(close(5)), Outcome::Applied);
        sink->checkpoint();
        EXPECT_EQ(sink->takeLog(close(6)), Outcome::Applied);
        // Rules change: the forced acknowledgement names what is durable, too.
        EXPECT_EQ(sink->takeLog(close(7, 2)), Outcome::Applied);
        EXPECT_EQ(sink->acks, (Numbers{5, 5}));
        EXPECT_EQ(sink->position(), 7U);
        // A checkpoint whose saving has come to the files and which has not come to the disk.
        EXPECT_TRUE(sink->savePosition());
        EXPECT_EQ(sink->takeLog(close(8, 2)), Outcome::Applied);
        EXPECT_EQ(sink->durablePosition(), 5U);
        sink->acknowledge();
        EXPECT_EQ(sink->durablePosition(), 7U);
        EXPECT_EQ(sink->acks, (Numbers{5, 5, 7}));
    }
    auto const sink = started();
    EXPECT_FALSE(sink->needsResync());
    EXPECT_TRUE(sink->resyncs.empty());
    EXPECT_EQ(sink->acks, (Numbers{7})); // so that the source learns where to go on
    EXPECT_EQ(sink->takeLog(close(7)), Outcome::AlreadyReplicated);
    EXPECT_EQ(sink->takeLog(close(8)), Outcome::Applied);
}

TEST_F(DataSinks, NumberThatIsTooFarAwayIsRefused) {
    auto const sink = started();
    EXPECT_EQ(sink->takeLog(close(~std::uint64_t{0})), Outcome::Jumped);
    // A source of an earlier version counts the microseconds of its clock.
    std::uint64_t const first = 1'700'000'000'000'000;
    EXPECT_EQ(sink->takeLog(close(first)), Outcome::Applied);
    EXPECT_EQ(sink->takeLog(close(first + DataSink::maximumJump + 1)), Outcome::Jumped);
    EXPECT_EQ(sink->takeLog(close(~std::uint64_t{0})), Outcome::Jumped);
    EXPECT_TRUE(sink->failure().text().contains("sequence number 18446744073709551615"));
    EXPECT_EQ(sink->naks.size(), 3U);
    EXPECT_EQ(sink->position(), first);
    EXPECT_EQ(sink->takeLog(close(first + DataSink::maximumJump)), Outcome::Applied);
    EXPECT_EQ(sink->takeLog(close(first + DataSink::maximumJump + 1)), Outcome::Applied);
}

TEST_F(DataSinks, StartTakesTheRulesThatTheStateFileNames) {
    struct {
        char const* what;
        std::set<std::uint32_t> unloadable;
        bool starts;
        std::vector<std::uint32_t> loaded;
        bool needsResync;
    } const cases[] = {
        {"its own", {}, true, {1}, false},
        {"the current ones", {1}, true, {1, 3}, true},
        {"none", {1, 3}, false, {1, 3}, true},
    };
    for (auto const& each : cases) {
        QFile::remove(path());
        {
            auto const sink = started();
            sink->needsResync(false);
            ASSERT_EQ(sink->takeLog(close(5)), Outcome::Applied);
            sink->checkpoint();
        }
        auto const sink = make(3);
        sink->unloadable = each.unloadable;
        EXPECT_EQ(sink->start().ok(), each.starts) << each.what;
        EXPECT_EQ(sink->loaded, each.loaded) << each.what;
        EXPECT_EQ(sink->needsResync(), each.needsResync) << each.what;
        if (each.starts)
            continue;
        EXPECT_EQ(sink->takeLog(close(6)), Outcome::Waiting);
        EXPECT_TRUE(sink->replayed.empty());
        sink->unloadable = {};
        EXPECT_EQ(sink->takeLog(close(6)), Outcome::Applied) << "the rules can be had now";
    }
}

TEST_F(DataSinks, NewRulesAreLoadedBeforeTheirFirstLog) {
    auto const sink = started();
    EXPECT_EQ(sink->takeLog(close(1)), Outcome::Applied);
    sink->openHandles().insert(7, std::make_shared<TestHandle>());
    sink->unloadable = {2};
    // It stays in the list until the rules can be had.
    LogList list;
    list.add(close(2, 2));
    list.add(close(3, 2));
    EXPECT_TRUE(sink->takeLogs(list));
    EXPECT_EQ(list.count(), 2U);
    EXPECT_EQ(sink->openHandles().size(), 1);
    EXPECT_EQ(sink->position(), 1U);

    sink->unloadable = {};
    EXPECT_FALSE(sink->takeLogs(list));
    EXPECT_EQ(sink->replayed, (Numbers{1, 2, 3}));
    EXPECT_EQ(sink->loaded, (std::vector<std::uint32_t>{1, 2, 2}));
    EXPECT_EQ(sink->openHandles().size(), 0);
    EXPECT_EQ(sink->closedHandles().size(), 1);
    // Logs of the rules before are no reason to go back.
    EXPECT_EQ(sink->takeLog(close(4, 1)), Outcome::Applied);
    EXPECT_EQ(sink->loaded.size(), 3U);

    // What the source had open is kept for the grace period from here on, whatever was before.
    sink->closedHandles().clear();
    time += 10 * sink->grace;
    sink->openHandles().insert(7, std::make_shared<TestHandle>());
    EXPECT_EQ(sink->takeLog(close(5, 3)), Outcome::Applied);
    EXPECT_EQ(sink->closedHandles().size(), 1);
    time += sink->grace + 1;
    EXPECT_EQ(sink->takeLog(close(6, 3)), Outcome::Applied);
    EXPECT_EQ(sink->closedHandles().size(), 0);
}

TEST_F(DataSinks, FailedLogIsRefusedAndAsksForAResync) {
    auto const sink = started();
    sink->needsResync(false);
    sink->failing = {2, 4, 6};
    EXPECT_EQ(sink->takeLog(close(1)), Outcome::Applied);
    EXPECT_EQ(sink->takeLog(close(2)), Outcome::Failed);
    EXPECT_EQ(sink->naks, (Numbers{2}));
    EXPECT_EQ(sink->position(), 1U);
    EXPECT_TRUE(sink->needsResync());
    EXPECT_TRUE(said.contains("A resynchronization of machine to home is required, "
                              "File operation failed"));

    // It is enough to have its paths anew, where they are known.
    sink->needsResync(false);
    sink->pathsKnown = true;
    EXPECT_EQ(sink->takeLog(close(2)), Outcome::Failed);
    EXPECT_FALSE(sink->needsResync());
    sink->pathsKnown = false;
    sink->naks.pop_back();

    // A mirror's source is told by the mirror, so only the position moves.
    sink->ackMode(DataSink::AckFromMirror);
    EXPECT_EQ(sink->takeLog(close(3)), Outcome::Applied);
    EXPECT_EQ(sink->takeLog(close(4)), Outcome::Failed);
    sink->checkpoint();
    EXPECT_TRUE(sink->acks.empty());
    EXPECT_EQ(sink->naks.size(), 1U);
    EXPECT_EQ(sink->position(), 4U);

    sink->ackMode(DataSink::AckToSource);
    sink->needsResync(false);
    sink->state(DataSink::eRunningDuringSnapshot);
    EXPECT_EQ(sink->takeLog(close(6)), Outcome::Forgiven);
    EXPECT_EQ(sink->position(), 6U);
    EXPECT_FALSE(sink->needsResync());
    // What the repository fails is not forgiven.
    sink->failing.insert(7);
    sink->failsWith = Morva::Status::Code::IoError;
    EXPECT_EQ(sink->takeLog(close(7)), Outcome::Failed);
    EXPECT_TRUE(sink->needsResync());
}

TEST_F(DataSinks, NoSpaceIsAPauseAndNoFailure) {
    auto const sink = started();
    sink->needsResync(false);
    sink->failing = {2};
    sink->failsWith = Morva::Status::Code::NoSpace;
    LogList list;
    for (std::uint64_t i = 1; i <= 3; ++i)
        list.add(close(i));
    EXPECT_TRUE(sink->takeLogs(list));
    EXPECT_TRUE(sink->paused());
    EXPECT_TRUE(sink->failure().is(Morva::Status::Code::NoSpace));
    EXPECT_EQ(list.count(), 2U);
    EXPECT_TRUE(sink->naks.empty());
    EXPECT_FALSE(sink->needsResync());
    sink->failing.clear();
    sink->resume();
    EXPECT_FALSE(sink->takeLogs(list));
    EXPECT_EQ(sink->replayed, (Numbers{1, 2, 2, 3}));
}

TEST_F(DataSinks, LoopEndsWithItsBudgetAndOnAPause) {
    auto const sink = started();
    LogList list;
    for (std::uint64_t i = 1; i <= DataSink::budget + 10; ++i)
        list.add(close(i));
    EXPECT_TRUE(list.highWaterReached());
    EXPECT_TRUE(sink->takeLogs(list));
    EXPECT_EQ(list.count(), 10U);
    EXPECT_EQ(sink->unstalls, 1);
    EXPECT_FALSE(list.stalled());

    sink->pauseAt = DataSink::budget + 5;
    EXPECT_TRUE(sink->takeLogs(list));
    EXPECT_EQ(list.count(), 5U);
    EXPECT_FALSE(sink->takeLogs(list));
    EXPECT_EQ(list.count(), 5U);
    sink->resume();
    EXPECT_FALSE(sink->takeLogs(list));
    EXPECT_EQ(sink->position(), DataSink::budget + 10U);
    EXPECT_EQ(sink->unstalls, 1);
}

TEST_F(DataSinks, ClosedHandlesLastForTheGracePeriod) {
    auto const sink = started();
    auto const open = [&](std::uint32_t id) {
        sink->openHandles().insert(id, std::make_shared<TestHandle>());
    };
    open(1);
    EXPECT_EQ(sink->takeLog(message(1, DataSink::StartOfSnapshot)), Outcome::Applied);
    EXPECT_EQ(sink->closings, 1);
    EXPECT_EQ(sink->openHandles().size(), 0);
    open(2);
    time += sink->grace; // its last second
    EXPECT_EQ(sink->takeLog(close(2)), Outcome::Applied);
    EXPECT_EQ(sink->closedHandles().size(), 1);
    ++time;
    EXPECT_EQ(sink->takeLog(close(3)), Outcome::Applied);
    EXPECT_EQ(sink->closedHandles().size(), 0);
    EXPECT_EQ(sink->openHandles().size(), 1);

    // A period beyond the end of time lasts until then.
    sink->grace = 0xFFFFFFFF;
    EXPECT_EQ(sink->takeLog(message(4, DataSink::StartOfSnapshot)), Outcome::Applied);
    time += 1000;
    EXPECT_EQ(sink->takeLog(close(5)), Outcome::Applied);
    EXPECT_EQ(sink->closedHandles().size(), 1);

    // A source that starts anew knows none of its numbers any more.
    open(3);
    EXPECT_EQ(sink->takeLog(message(6, DataSink::SourceStarted)), Outcome::Applied);
    EXPECT_EQ(sink->openHandles().size() + sink->closedHandles().size(), 0);
    EXPECT_EQ(sink->takeLog(message(7, DataSink::PingTest)), Outcome::Applied);
    EXPECT_EQ(sink->position(), 7U);
}

TEST_F(DataSinks, ExclusionsOutliveTheProcess) {
    {
        auto const sink = started();
        EXPECT_EQ(sink->takeLog(message(1, DataSink::NotToBackupDetails, exclusions("*.tmp"))),
                  Outcome::Applied);
        EXPECT_TRUE(excludes(*sink, "a.tmp"));
        EXPECT_EQ(sink->exclusionChanges, 1);
        // The same again changes nothing; nonsense and nothing are passed over.
        EXPECT_EQ(sink->takeLog(message(2, DataSink::SourceStarted, exclusions("*.tmp"))),
                  Outcome::Applied);
        EXPECT_EQ(sink->takeLog(message(3, DataSink::NotToBackupDetails, "nonsense")),
                  Outcome::Applied);
        EXPECT_EQ(sink->takeLog(message(4, DataSink::NotToBackupDetails)), Outcome::Applied);
        EXPECT_EQ(sink->exclusionChanges, 1);
        EXPECT_TRUE(excludes(*sink, "a.tmp"));
        // No shutdown: the process may end anyhow.
    }
    {
        auto const sink = started();
        EXPECT_TRUE(excludes(*sink, "a.tmp"));
        EXPECT_EQ(sink->takeLog(message(5, DataSink::SourceStarted, XmlList().toBinary())),
                  Outcome::Applied);
        EXPECT_FALSE(excludes(*sink, "a.tmp"));
        EXPECT_EQ(sink->exclusionChanges, 1);
        // Others are not for these logs to bring.
        EXPECT_EQ(sink->takeLog(message(6, DataSink::EndOfSnapshot, exclusions("*"))),
                  Outcome::Applied);
        EXPECT_TRUE(sink->handleShutdown());
    }
    {
        auto const sink = started();
        EXPECT_FALSE(excludes(*sink, "a.tmp"));
        // What could not be applied in full is in force, and is applied when it comes again, or
        // by the next start.
        sink->failExclusions = true;
        sink->failing = {7};
        EXPECT_EQ(sink->takeLog(message(7, DataSink::NotToBackupDetails, exclusions("*.tmp"))),
                  Outcome::Failed);
        EXPECT_TRUE(excludes(*sink, "a.tmp"));
        EXPECT_EQ(sink->takeLog(message(8, DataSink::NotToBackupDetails, exclusions("*.tmp"))),
                  Outcome::Failed);
        EXPECT_EQ(sink->exclusionChanges, 2);
        EXPECT_TRUE(sink->handleShutdown());
    }
    for (auto const changes : {1, 0}) {
        auto const sink = started();
        EXPECT_TRUE(excludes(*sink, "a.tmp"));
        EXPECT_EQ(sink->exclusionChanges, changes);
    }
}

TEST_F(DataSinks, UnreadableStateStopsTheSinkAndStaysAsItIs) {
    QFile file(path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("torn");
    file.close();
    {
        auto const sink = make();
        EXPECT_TRUE(said.contains("Unable to read existing state file"));
        EXPECT_FALSE(sink->valid());
        auto const started = sink->start();
        EXPECT_TRUE(started.is(Morva::Status::Code::Corruption));
        EXPECT_TRUE(started.text().contains(path()));
        EXPECT_EQ(sink->takeLog(close(1)), Outcome::Waiting);
        EXPECT_TRUE(sink->replayed.empty());
    }
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), "torn");
}

TEST_F(DataSinks, WithoutAStateFileNoLogIsTaken) {
    FaultyFiles files;
    files.failWritesAfter(0);
    auto const sink = make();
    EXPECT_TRUE(said.contains("Fatal error, unable to create state file"));
    EXPECT_FALSE(sink->valid());
    EXPECT_FALSE(sink->start());
    EXPECT_EQ(sink->takeLog(close(1)), Outcome::Waiting);
    EXPECT_TRUE(sink->replayed.empty());
    EXPECT_TRUE(sink->acks.empty());
}

TEST_F(DataSinks, FailureToWriteTheStateFailsTheCheckpointAndNotTheIntake) {
    FaultyFiles files;
    auto const sink = started();
    files.failWritesAfter(0, ENOSPC);
    EXPECT_EQ(sink->takeLog(close(1)), Outcome::Applied);
    EXPECT_FALSE(sink->savePosition());
    EXPECT_TRUE(said.contains("Failed to write to state file"));
    sink->acknowledge();
    EXPECT_TRUE(sink->acks.empty());
    files.heal();
    EXPECT_EQ(sink->takeLog(close(2)), Outcome::Applied);
    sink->checkpoint();
    EXPECT_EQ(sink->acks, (Numbers{2}));
    StateFile file(path());
    file.readHeader();
    EXPECT_EQ(file.sequenceNumber(), 2U);
    EXPECT_EQ(file.bytesProcessed(), 2 * std::uint64_t{close(1)->body().size});
}

TEST_F(DataSinks, TooManyPathsBecomeAResyncOfTheWholeTarget) {
    auto const sink = started();
    sink->needsResync(false);
    qsizetype told = 0;
    for (qsizetype i = 0; i < DataSink::maximumResyncPaths; ++i)
        told += sink->addResyncPath(QString::number(i), false) ? 1 : 0;
    EXPECT_EQ(told, DataSink::resyncPathsTold);
    EXPECT_FALSE(sink->addResyncPath("5", false)) << "it is there";
    EXPECT_FALSE(sink->needsResync());
    sink->addResyncPath("one more", false);
    EXPECT_TRUE(sink->needsResync());
    EXPECT_TRUE(sink->resyncPaths().isEmpty());
    auto const lines = said.size();
    for (qsizetype i = 0; i < 1000; ++i)
        sink->addResyncPath(QString::number(i), false);
    EXPECT_TRUE(sink->resyncPaths().isEmpty());
    EXPECT_EQ(said.size(), lines);
}

TEST_F(DataSinks, FullResyncIsOnlyAskedForWhenRequired) {
    auto const sink = started();
    sink->resyncs.clear();
    sink->needsResync(false);
    sink->requestResync("Full", {});
    EXPECT_TRUE(sink->resyncs.isEmpty());
    sink->requestResync("Partial", {});
    sink->sendResyncRequired("for a test", true, 0);
    EXPECT_TRUE(said.filter("for a test").isEmpty());
    sink->requestResync("Full", {});
    EXPECT_EQ(sink->resyncs, (QStringList{"Partial", "Full"}));

    // Of a batch source, a policy event stands for a whole copy.
    sink->resyncs.clear();
    sink->needsResync(false);
    for (auto const batch : {false, true}) {
        sink->batch = batch;
        EXPECT_EQ(sink->takeLog(log(LogType::PolicyEvent, batch ? 2 : 1)), Outcome::Applied);
        EXPECT_EQ(sink->needsResync(), batch);
    }
    EXPECT_EQ(sink->resyncs, QStringList{"Full"});
}

TEST_F(DataSinks, StateDecidesOverPathsOfAPartialResync) {
    struct {
        DataSink::State state;
        bool first;
        bool taken;
    } const cases[] = {
        {DataSink::eRunning, false, true},
        {DataSink::eRunningDuringSnapshot, false, false},
        {DataSink::eRunningDuringSnapshot, true, true},
        {DataSink::eResyncNeedSnapshotCompleteMsg, false, true},
        {DataSink::eResyncNeedCompletedMsg, true, true}, // an "Initial" one, as it started
        {DataSink::eResyncNeedStartLog, false, true},
        {DataSink::eResyncNeedEndLog, false, true},
        {DataSink::eValidate, false, true},
    };
    for (auto const& each : cases) {
        auto const sink = started();
        sink->state(each.state);
        EXPECT_EQ(sink->addResyncPath("a/b", each.first), each.taken) << each.state;
        EXPECT_EQ(sink->resyncPaths().contains("a/b"), each.taken) << each.state;
        EXPECT_EQ(sink->idle(), each.state == DataSink::eRunning && !each.taken) << each.state;
    }
}

} // namespace
} // namespace Replication
