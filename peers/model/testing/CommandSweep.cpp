// Each command runs over a disk that fails at one place after the other. A command either gives the
// right result, or ends with another exit code than 0 and a message; the repository is then as it
// was or as it was to become, the checker finds nothing, and the command can be repeated.
//
// MORVA_ROUNDS sets the number of places of each sweep (100000: all), MORVA_PLACE the only one.

#include "base/files/FaultyFiles.h"
#include "peers/model/FaultFixture.h"
#include "peers/model/testing/CommandScene.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace {

using namespace Morva;
using namespace CommandScene;

Scene& scene() {
    static Scene theScene;
    return theScene;
}

struct Command {
    char const* name;
    std::vector<std::string> arguments;
    bool emptyRoot = false; ///< starts in a repository without a store
    bool reads = false;     ///< changes nothing
    /// What a failure leaves. Whole: all of the command or nothing. Steps: the steps that were
    /// done; a repetition goes on from there. Others: a log that failed is refused, the others are
    /// applied.
    enum class Leaves { Whole, Steps, Others } leaves = Leaves::Whole;
};

std::vector<Command> commands() {
    auto& s = scene();
    using Leaves = Command::Leaves;
    return {
        {"ReplicateFirst", {"replicate", s.source(), "--store", "main"}, true},
        {"ReplicateAgain", {"replicate", s.source(), "--store", "main"}},
        {"Replay", {"replay", "--store", "main", s.log()}, false, false, Leaves::Others},
        {"Snapshot", {"snapshot", "--label", "label"}},
        {"DeleteSnapshot", {"delete-snapshot", s.snapshot(0)}, false, false, Leaves::Steps},
        {"Dedup", {"dedup"}},
        {"Exclude", {"exclude", "--details", s.exclusions()}, false, false, Leaves::Steps},
        {"Erase", {"erase", "main", "--deactivate"}, false, false, Leaves::Steps},
        {"Restore", {"restore", s.snapshot(0), "--target", s.target(), "--overwrite"}, false, true},
        {"Cat", {"cat", s.snapshot(0) + ":a/deep/er/large"}, false, true},
        {"List", {"ls", "-R", "-l", "latest"}, false, true},
        {"Diff", {"diff", s.snapshot(0), s.snapshot(1)}, false, true},
        {"Stats", {"stats"}, false, true},
        {"Check", {"check", "--read-data"}, false, true}};
}

/// Names and contents of all files below a directory.
std::string treeOf(std::string const& directory) {
    std::map<std::string, std::string> all;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(directory)) {
        auto& text = all[entry.path().string().substr(directory.size())];
        if (entry.is_symlink())
            text = "-> " + std::filesystem::read_symlink(entry.path()).string();
        else if (entry.is_regular_file())
            text = [&] {
                std::ifstream file(entry.path(), std::ios::binary);
                std::ostringstream content;
                content << file.rdbuf();
                return std::to_string(std::hash<std::string>{}(content.str())) + ' ' +
                       std::to_string(content.str().size());
            }();
    }
    std::string result;
    for (auto const& [name, text] : all)
        result += name + ' ' + text + '\n';
    return result;
}

/// What a command leads to when nothing fails, and how often it meets the disk.
struct Clean {
    Contents before, after;
    std::string output, tree;
    std::uint64_t writes = 0, reads = 0, syncs = 0, bytes = 0;
};

Clean cleanRun(Command const& command) {
    Clean clean;
    scene().startOver(command.emptyRoot);
    clean.before = contentsOf(scene().root());
    scene().startOver(command.emptyRoot);
    {
        FaultyFiles const files;
        auto const outcome = runCommand(scene().root(), command.arguments);
        EXPECT_EQ(outcome.code, ExitCode::Done) << outcome.errors;
        clean.output = outcome.output;
        clean.writes = files.writes();
        clean.reads = files.reads();
        clean.syncs = files.syncs();
        clean.bytes = files.bytesWritten();
    }
    clean.tree = treeOf(scene().target());
    clean.after = contentsOf(scene().root());
    EXPECT_EQ(faultsIn(scene().root()), "");
    EXPECT_FALSE(clean.before.contains("failure") || clean.after.contains("failure"));
    if (command.reads) {
        EXPECT_EQ(difference(clean.after, clean.before), "");
    }
    return clean;
}

Clean const& expectedOf(Command const& command) {
    static std::map<std::string, Clean> all;
    auto const found = all.find(command.name);
    return found != all.end() ? found->second : all[command.name] = cleanRun(command);
}

using Order = std::function<void(FaultyFiles&, std::uint64_t)>;

/// Output of a run without what differs from run to run.
bool sameOutput(Command const& command, std::string const& output, std::string const& wanted) {
    std::string const name = command.name;
    return name == "Restore" || name == "Stats" || name == "Check" || output == wanted;
}

void checkResult(Command const& command, Clean const& clean, Outcome const& outcome, bool struck) {
    if (outcome.code != ExitCode::Done) {
        EXPECT_TRUE(struck) << "a failure without a fault: " << outcome.errors;
        EXPECT_NE(outcome.errors.find('/'), std::string::npos)
            << "the message names no file: " << outcome.errors;
        return;
    }
    if (command.reads) {
        EXPECT_TRUE(sameOutput(command, outcome.output, clean.output)) << "wrong output";
        EXPECT_EQ(treeOf(scene().target()), clean.tree) << "wrong files";
        EXPECT_FALSE(struck && std::string(command.name) == "Check")
            << "the check passes over what it could not read";
    }
}

/// The repository once the disk is well again.
void checkRepositoryAfter(Command const& command, Clean const& clean, Outcome const& outcome) {
    EXPECT_EQ(faultsIn(scene().root()), "") << "after the fault";
    auto const found = contentsOf(scene().root());
    auto const asBefore = difference(found, clean.before);
    auto const asAfter = difference(found, clean.after);
    if (outcome.code == ExitCode::Done) {
        EXPECT_EQ(asAfter, "") << "done, and not so";
    } else if (command.leaves == Command::Leaves::Others) {
        for (auto const& [name, tree] : clean.before)
            if (!name.ends_with(":live")) {
                EXPECT_EQ(FaultFixture::difference(found.count(name) ? found.at(name) : "", tree),
                          "")
                    << "snapshot " << name;
            }
    } else if (command.leaves == Command::Leaves::Whole) {
        EXPECT_TRUE(asBefore.empty() || asAfter.empty())
            << "neither as before: " << asBefore << "nor as after: " << asAfter;
    }
    if (command.reads || command.leaves == Command::Leaves::Others ||
        outcome.code == ExitCode::Done)
        return;
    // A command that did its work and then failed may have nothing left to do.
    auto const again = runCommand(scene().root(), command.arguments);
    if (!asAfter.empty()) {
        EXPECT_EQ(again.code, ExitCode::Done) << "repeated: " << again.errors;
        EXPECT_EQ(difference(contentsOf(scene().root()), clean.after), "") << "repeated";
    }
    EXPECT_EQ(faultsIn(scene().root()), "") << "repeated";
}

/// Whether the fault was met.
bool faultyRun(Command const& command, Clean const& clean, Order const& order, std::uint64_t n) {
    scene().startOver(command.emptyRoot);
    bool struck = false;
    Outcome outcome;
    {
        FaultyFiles files;
        order(files, n);
        outcome = runCommand(scene().root(), command.arguments);
        struck = files.faults() != 0 || files.crashed();
        if (files.crashed()) {
            // The process is gone with it; what it would have said doesn't count.
            files.restart(n % 2 == 0 ? FaultyFiles::Unsynced::Lost : FaultyFiles::Unsynced::Kept,
                          n);
            outcome = {ExitCode::Failed, {}, "/"};
        }
        files.heal();
    }
    checkResult(command, clean, outcome, struck);
    checkRepositoryAfter(command, clean, outcome);
    return struck;
}

/// In the order of `commands()`, which can't be called before the tests begin.
constexpr std::array names{
    "ReplicateFirst", "ReplicateAgain", "Replay", "Snapshot", "DeleteSnapshot", "Dedup", "Exclude",
    "Erase",          "Restore",        "Cat",    "List",     "Diff",           "Stats", "Check"};

class CommandSweep : public testing::TestWithParam<std::size_t> {
protected:
    /// Sweeps an order over its places, and tells of each place that had a failure.
    void sweep(std::uint64_t Clean::*places, Order const& order) {
        auto const command = commands()[GetParam()];
        ASSERT_STREQ(command.name, names[GetParam()]);
        auto const& clean = expectedOf(command);
        auto const count = clean.*places;
        auto const* rounds = std::getenv("MORVA_ROUNDS");
        auto const* only = std::getenv("MORVA_PLACE");
        auto const steps = rounds ? std::strtoull(rounds, nullptr, 0) : 6;
        auto const step = std::max<std::uint64_t>(1, count / steps);
        std::uint64_t runs = 0, struck = 0, failed = 0;
        for (auto n = only ? std::strtoull(only, nullptr, 0) : 1; n <= count; n += step) {
            testing::TestPartResultArray results;
            {
                testing::ScopedFakeTestPartResultReporter const keep(
                    testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD,
                    &results);
                struck += faultyRun(command, clean, order, n);
            }
            ++runs;
            failed += results.size() != 0;
            for (int i = 0; i < results.size(); ++i)
                ADD_FAILURE_AT(results.GetTestPartResult(i).file_name(),
                               results.GetTestPartResult(i).line_number())
                    << command.name << " at " << n << " of " << count << ": "
                    << results.GetTestPartResult(i).message();
            if (only)
                break;
        }
        if (count > 0) {
            EXPECT_GT(struck, 0U);
        }
        std::cout << command.name << ": " << runs << " runs, " << struck << " met the fault, "
                  << failed << " failed" << std::endl;
    }
};

TEST_P(CommandSweep, ReadsThatFailFromThereOn) {
    sweep(&Clean::reads, [](FaultyFiles& files, auto n) { files.failReadsAfter(n - 1); });
}

TEST_P(CommandSweep, OneWriteThatFails) {
    sweep(&Clean::writes, [](FaultyFiles& files, auto n) { files.failWrite(n); });
}

TEST_P(CommandSweep, WritesThatFailFromThereOn) {
    sweep(&Clean::writes, [](FaultyFiles& files, auto n) { files.failWritesAfter(n - 1); });
}

TEST_P(CommandSweep, SyncsThatFailFromThereOn) {
    sweep(&Clean::syncs, [](FaultyFiles& files, auto n) { files.failSyncsAfter(n - 1); });
}

TEST_P(CommandSweep, AFullDisk) {
    sweep(&Clean::bytes, [](FaultyFiles& files, auto n) { files.diskBudget(n); });
}

TEST_P(CommandSweep, AKill) {
    sweep(&Clean::writes, [](FaultyFiles& files, auto n) { files.crashAtWrite(n); });
}

std::string nameOf(testing::TestParamInfo<std::size_t> const& info) {
    return names[info.param];
}

INSTANTIATE_TEST_SUITE_P(All, CommandSweep, testing::Range<std::size_t>(0, names.size()), nameOf);

} // namespace
