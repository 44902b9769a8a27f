// A fixed log is replayed into a repository over files that fail, at every place in turn: what
// fails is told, what was applied before stays, and once the disk is well again the rest follows.

#include "peers/model/FaultFixture.h"
#include "peers/morva/Commands.h"
#include "peers/source/LogFileSink.h"

#include <QFile>

#include <CLI/CLI.hpp>
#include <gtest/gtest-spi.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <iostream>

namespace {

using namespace FaultFixture;

/// One run: the order stands from the first log on until something is told to have failed.
void faultyRun(std::function<void(FaultyFiles&)> const& order, bool closeFirst, bool& reached) {
    FaultyFiles files;
    Target target;
    order(files);
    bool const whole = target.run();
    reached = files.faults() != 0;
    if (!whole) {
        EXPECT_TRUE(reached) << "a failure without a fault";
        // As long as the fault lasts all stays as it is, and each attempt ends.
        if (target.applied < fixedLog().size()) {
            auto const before = target.applied;
            if (!target.apply()) {
                EXPECT_EQ(target.applied, before);
            }
        }
        (void)target.flush();
    }
    files.heal();
    auto const sameButFailed = [&] {
        return differenceBut(target.live(), expected().trees[target.applied], target.applied);
    };
    EXPECT_EQ(sameButFailed(), "") << "live tree";
    // What a source has open it opens again for a new process; this log doesn't.
    auto const next = target.applied;
    bool const isOpen = next < fixedLog().size() && fixedLog()[next]->file().empty() &&
                        fixedLog()[next]->fileId() != 0;
    if (closeFirst && !isOpen) {
        EXPECT_EQ(target.finish(), "") << "closing once the disk is well again";
        EXPECT_EQ(Target::faults(), "") << "after the fault";
        target.begin();
        EXPECT_EQ(sameButFailed(), "") << "reopened";
        compareSnapshots(target);
    }
    ASSERT_TRUE(target.run()) << "the rest of the logs: " << target.message;
    EXPECT_EQ(difference(target.live(), expected().trees.back()), "") << "at the end";
    EXPECT_EQ(target.finish(), "");
    EXPECT_EQ(Target::faults(), "") << "at the end";
    target.begin();
    EXPECT_EQ(difference(target.live(), expected().trees.back()), "") << "at the end, reopened";
    compareSnapshots(target);
}

/// Sweeps an order over the `places` where it can strike, in about as many steps as given, and
/// tells of each place that had a failure. MORVA_ROUNDS sets the number of steps, and then each is
/// done both with and without a new start; MORVA_PLACE gives the only place.
void sweep(std::uint64_t places, std::uint64_t steps,
           std::function<void(FaultyFiles&, std::uint64_t)> const& order) {
    auto const* rounds = std::getenv("MORVA_ROUNDS");
    auto const* only = std::getenv("MORVA_PLACE");
    if (rounds)
        steps = std::strtoull(rounds, nullptr, 0);
    auto const step = std::max<std::uint64_t>(1, places / steps);
    std::uint64_t runs = 0, struck = 0, failed = 0;
    auto const run = [&](std::uint64_t n, bool closeFirst) {
        bool reached = false;
        testing::TestPartResultArray results;
        {
            testing::ScopedFakeTestPartResultReporter const keep(
                testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
            faultyRun([&](FaultyFiles& files) { order(files, n); }, closeFirst, reached);
        }
        ++runs;
        struck += reached;
        for (int i = 0; i < results.size(); ++i)
            ADD_FAILURE_AT(results.GetTestPartResult(i).file_name(),
                           results.GetTestPartResult(i).line_number())
                << "at " << n << " of " << places << ": " << results.GetTestPartResult(i).message();
        failed += results.size() != 0;
    };
    for (std::uint64_t n = only ? std::strtoull(only, nullptr, 0) : 1; n <= places; n += step) {
        bool const even = n / step % 2 == 0;
        run(n, even);
        if (rounds || only)
            run(n, !even);
        if (only)
            return;
    }
    EXPECT_GT(struck, runs / 2);
    std::cout << runs << " runs, " << struck << " met the fault, " << failed << " failed"
              << std::endl;
}

TEST(Faults, OneFailedWriteLosesNothing) {
    sweep(expected().writes, 12, [](FaultyFiles& files, auto n) { files.failWrite(n); });
}

TEST(Faults, ADeadDiskThatComesBackLosesNothing) {
    sweep(expected().writes, 12, [](FaultyFiles& files, auto n) { files.failWritesAfter(n - 1); });
}

TEST(Faults, AFullDiskStopsTheReplayUntilThereIsSpace) {
    sweep(expected().bytes, 12, [](FaultyFiles& files, auto n) { files.diskBudget(n); });
}

TEST(Faults, AShortWriteLosesNothing) {
    sweep(expected().writes, 12, [](FaultyFiles& files, auto n) { files.shortWrite(n); });
}

TEST(Faults, FailedReadsLoseNothing) {
    sweep(expected().reads, 12, [](FaultyFiles& files, auto n) { files.failReadsAfter(n - 1); });
}

// --- torn logs

/// Notes where each log ends.
class MarkingSink : public Replication::LogFileSink {
public:
    using LogFileSink::LogFileSink;
    bool put(Replication::LogBuilder& builder) override {
        if (!LogFileSink::put(builder))
            return false;
        ends.push_back(bytes());
        return true;
    }
    std::vector<std::uint64_t> ends{0};
};

/// What `morva replay` ends with, and its text.
ExitCode replayCommand(QString const& root, QString const& log, std::string& message) {
    Output output;
    output.root = root;
    output.quiet = true;
    auto code = ExitCode::Done;
    CLI::App app;
    CommandLine line{app, output, code};
    addLogCommands(line);
    try {
        app.parse("replay --store store --source /src " + log.toStdString());
    } catch (CommandFailure const& failure) {
        message = failure.what();
        return failure.code();
    }
    return code;
}

TEST(TornLog, StopsTheReplayWithAllThatCameBefore) {
    QTemporaryDir const directory;
    FaultyFiles const quick; // its syncs cost nothing
    auto const name = directory.path() + "/log";
    auto const root = directory.path() + "/root";
    int const descriptor = ::open(QFile::encodeName(name).constData(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(descriptor, 0);
    MarkingSink sink(descriptor);
    writeLog(sink, 12);
    ASSERT_TRUE(sink.flush());
    QFile whole(name);
    ASSERT_TRUE(whole.open(QIODevice::ReadOnly));
    auto const bytes = whole.readAll();
    ASSERT_EQ(static_cast<std::uint64_t>(bytes.size()), sink.ends.back());

    // Every byte of the first log, then samples, each into a repository that has all before.
    Root::init(root);
    auto const samples = bytes.size() / 40;
    for (qsizetype cut = 0; cut <= bytes.size();
         cut += static_cast<std::uint64_t>(cut) < sink.ends[1] ? 3 : samples) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        QFile torn(name);
        ASSERT_TRUE(torn.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(torn.write(bytes.constData(), cut), cut);
        torn.close();
        auto const end = static_cast<std::uint64_t>(cut);
        auto const last = std::upper_bound(sink.ends.begin(), sink.ends.end(), end) - 1;
        std::string message;
        auto const code = replayCommand(root, name, message);
        if (*last == end) {
            EXPECT_EQ(code, ExitCode::Done) << message;
        } else {
            EXPECT_EQ(code, ExitCode::Failed);
            auto const start = "the log that begins at byte " + std::to_string(*last);
            EXPECT_NE(message.find(start), std::string::npos) << message;
        }
        EXPECT_EQ(Target::faults(), "");
        ASSERT_FALSE(HasFailure());
    }
    ::close(descriptor);
}

} // namespace
