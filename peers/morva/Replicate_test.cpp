#include "base/process/Context.h"
#include "peers/morva/CommandFixture.h"
#include "peers/morva/Replay.h"
#include "peers/source/LogFileSink.h"
#include "peers/source/OperationLogger.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <sstream>

namespace Morva {
namespace {

constexpr std::uint64_t microsecondsOfAYear = 365ULL * 86400 * 1000000;

class Replicate : public CommandFixture {
protected:
    /// A log file of one new file.
    std::string logFile(std::uint64_t number, char const* name) {
        auto const file = path + "/log";
        int const descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        Replication::LogFileSink sink(descriptor);
        Replication::LogSourceOptions options;
        options.source = "source";
        options.firstSequenceNumber = number;
        Replication::OperationLogger logger(options, sink);
        std::uint32_t id = 0;
        EXPECT_TRUE(logger.create(source + '/' + name, S_IFREG | 0644, 0, 0, id));
        EXPECT_TRUE(logger.close(id));
        EXPECT_TRUE(sink.flush());
        ::close(descriptor);
        return file;
    }
};

TEST_F(Replicate, StoresWhateverNumbersTheStoreHasCome) {
    write("first", "1");
    ASSERT_EQ(replicate(), ExitCode::Done) << message;
    // A root whose numbers are microseconds, and whose clock was a year ahead once.
    ASSERT_EQ(run("erase main --deactivate"), ExitCode::Done) << message;
    auto const ahead = Context::systemTime() * 1000 + microsecondsOfAYear;
    ASSERT_EQ(run("replay --store main --source " + source + ' ' + logFile(ahead, "first")),
              ExitCode::Done)
        << message;
    write("second", "2");
    ASSERT_EQ(replicate(), ExitCode::Done) << message;
    EXPECT_EQ(stored(), "first\nsecond\n");
    write("third", "3");
    ASSERT_EQ(replicate(), ExitCode::Done) << message;
    EXPECT_EQ(stored(), "first\nsecond\nthird\n");
}

TEST_F(Replicate, LogsThatTheStoreHasPassedAreToldAndNeverPassForStored) {
    write("first", "1");
    ASSERT_EQ(replicate(), ExitCode::Done) << message;
    EXPECT_EQ(run("replay --store main " + logFile(1, "other")), ExitCode::Failed);
    EXPECT_NE(message.find("--after"), std::string::npos) << message;
    EXPECT_NE(results.find("2 left out"), std::string::npos) << results;
    // The same log again is no new one.
    auto const log = logFile(1000, "other");
    ASSERT_EQ(run("replay --store main " + log), ExitCode::Done) << message;
    EXPECT_EQ(run("replay --store main " + log), ExitCode::Done) << message;
    EXPECT_NE(results.find("2 left out"), std::string::npos) << results;
}

TEST_F(Replicate, RefusesAnotherDirectoryUnlessTheSourceMoved) {
    write("a", "1");
    write("b/c", "2");
    ASSERT_EQ(replicate(), ExitCode::Done) << message;
    auto const other = path + "/other";
    std::filesystem::create_directory(other);
    std::ofstream(other + "/new") << "3";
    for (auto const& directory : {other, path, source + "/b"}) {
        EXPECT_EQ(run("replicate " + directory + " --store main"), ExitCode::Failed) << directory;
        EXPECT_NE(message.find("--source-moved"), std::string::npos) << message;
    }
    EXPECT_EQ(stored(), "a\nb\nb/c\n");
    // What doesn't look like the same tree is refused all the same, and then nothing has moved.
    EXPECT_EQ(run("replicate " + other + " --store main --source-moved"), ExitCode::Failed);
    EXPECT_NE(message.find("--allow-removal"), std::string::npos) << message;
    ASSERT_EQ(replicate(), ExitCode::Done) << message;

    std::filesystem::rename(source, path + "/moved");
    source = path + "/moved";
    write("b/d", "4");
    EXPECT_EQ(replicate(), ExitCode::Failed);
    EXPECT_EQ(replicate("--source-moved"), ExitCode::Done) << message;
    EXPECT_EQ(stored(), "a\nb\nb/c\nb/d\n");
    write("e", "5");
    EXPECT_EQ(replicate(), ExitCode::Done) << message; // it is known from then on
    EXPECT_EQ(stored(), "a\nb\nb/c\nb/d\ne\n");
    EXPECT_EQ(faults(), "");
}

TEST_F(Replicate, RefusesToRemoveMoreThanHalfUnlessAllowed) {
    for (auto const* name : {"a", "b", "c/d", "c/e"})
        write(name, name);
    ASSERT_EQ(replicate(), ExitCode::Done) << message;
    std::filesystem::remove_all(source + "/c");
    EXPECT_EQ(replicate(), ExitCode::Done) << message; // half is not more than half
    std::filesystem::remove_all(source);
    std::filesystem::create_directory(source); // as a volume that isn't mounted
    EXPECT_EQ(replicate(), ExitCode::Failed);
    EXPECT_NE(message.find("--allow-removal"), std::string::npos) << message;
    EXPECT_EQ(stored(), "a\nb\n");
    EXPECT_EQ(replicate("--allow-removal"), ExitCode::Done) << message;
    EXPECT_EQ(stored(), "");
}

TEST_F(Replicate, MakesNoStoreOfWhatItRefuses) {
    write("file", "1");
    EXPECT_EQ(run("replicate " + source + "/file --store main"), ExitCode::Failed);
    EXPECT_NE(message.find("is no directory"), std::string::npos) << message;
    EXPECT_EQ(run("replicate " + path + "/absent --store main"), ExitCode::Failed);
    for (auto const* name : {"../x", ".", "a/b", "-x", " x", ""}) {
        EXPECT_EQ(run("replicate " + source + " --store '" + name + "'"), ExitCode::Usage) << name;
    }
    Root root(QString::fromStdString(path + "/root"));
    EXPECT_TRUE(root.sources().isEmpty());
    for (auto const* name : {"a\nb", "a\x1b[31m", "\u202egpj"})
        EXPECT_FALSE(SourceTable::faultOfName(QString::fromUtf8(name)).isEmpty()) << name;
}

TEST_F(Replicate, WhatWasNotFinishedIsTakenBack) {
    write("first", "1");
    ASSERT_EQ(replicate(), ExitCode::Done) << message;
    auto const log = logFile(1000, "second");
    int const descriptor = ::open(log.c_str(), O_RDONLY);
    {
        Output output;
        Root root(QString::fromStdString(path + "/root"));
        Replay replay(root, root.source("main"), output);
        Replication::LogReadAhead input(descriptor);
        ASSERT_EQ(replay.readAll(input), "");
        ASSERT_EQ(replay.counts().logs, 2U);
        ASSERT_TRUE(root.store(root.source("main"))->snapshots().userSnapshot(0, 1, "gone"));
    }
    ::close(descriptor);
    ASSERT_EQ(run("snapshots"), ExitCode::Done);
    EXPECT_EQ(results.find("gone"), std::string::npos) << results;
    EXPECT_EQ(errors, "");
    ASSERT_EQ(run("ls live --store main"), ExitCode::Done);
    EXPECT_EQ(results, "first\n");
    EXPECT_EQ(faults(), "");
}

TEST_F(Replicate, AStoreThatWasThereIsNeverMadeAnew) {
    write("first", "1");
    ASSERT_EQ(replicate(), ExitCode::Done) << message;
    auto const stores = path + "/root/repository/stores";
    std::filesystem::rename(stores, path + "/elsewhere");
    std::filesystem::create_directory(stores);
    EXPECT_NE(replicate(), ExitCode::Done);
    EXPECT_NE(run("ls latest"), ExitCode::Done);
    std::filesystem::remove_all(stores);
    std::filesystem::rename(path + "/elsewhere", stores);
    EXPECT_EQ(stored(), "first\n");
    EXPECT_EQ(replicate(), ExitCode::Done) << message;
    EXPECT_EQ(faults(), "");
}

/// What a directory holds, by path: what it is, its bytes and its times.
std::map<std::string, std::string> stateOf(std::string const& directory) {
    std::map<std::string, std::string> state;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(directory)) {
        std::ostringstream text;
        struct stat status {};
        EXPECT_EQ(::lstat(entry.path().c_str(), &status), 0);
        text << status.st_mode << ' ' << status.st_size << ' ' << status.st_mtim.tv_sec << '.'
             << status.st_mtim.tv_nsec << ' ';
        if (entry.is_regular_file())
            text << std::ifstream(entry.path()).rdbuf();
        state[entry.path().string()] = text.str();
    }
    return state;
}

TEST_F(Replicate, ReadingCommandsChangeNothingInTheRoot) {
    write("a/b", "text");
    ASSERT_EQ(replicate(), ExitCode::Done) << message;
    auto const before = stateOf(path + "/root");
    // Several at once: a reader that is there keeps none away, only those that change.
    RootLock const reader(QString::fromStdString(path + "/root"), RootLock::Mode::Shared, {});
    for (std::string const command : {"ls latest -R", "cat latest:a/b", "find b", "diff 2 live",
                                      "versions a/b", "snapshots", "stats", "check --read-data"})
        EXPECT_EQ(run(command), ExitCode::Done) << command << ": " << message;
    EXPECT_EQ(run("restore latest --target " + path + "/back"), ExitCode::Done) << message;
    EXPECT_EQ(run("snapshot"), ExitCode::InUse);
    EXPECT_EQ(stateOf(path + "/root"), before);
}

TEST_F(Replicate, DamagedSettingsAreFoundAndNeverPassForOthers) {
    write("a", "1");
    ASSERT_EQ(replicate(), ExitCode::Done) << message;
    for (std::string const file : {"/root/config/sources.cfg", "/root/rules/1/replayrules.cfg"}) {
        std::ostringstream whole;
        whole << std::ifstream(path + file).rdbuf();
        auto damaged = whole.str();
        damaged[damaged.find("main")] = 'n';
        std::ofstream(path + file) << damaged;
        EXPECT_EQ(replicate(), ExitCode::Failed) << file;
        std::ofstream(path + file) << whole.str();
        EXPECT_EQ(replicate(), ExitCode::Done) << message;
    }
}

TEST_F(Replicate, ARootThatCannotBeReadIsNotAbsent) {
    EXPECT_EQ(run("snapshots"), ExitCode::Done) << message;
    auto const lock = path + "/root/morva.lock";
    std::filesystem::remove(lock);
    EXPECT_EQ(run("snapshots"), ExitCode::NoRepository);
    std::filesystem::create_symlink(lock, lock); // what looking at fails, but not by ENOENT
    EXPECT_EQ(run("snapshots"), ExitCode::Failed) << message;
}

TEST_F(Replicate, ExclusionsCanBeSetBeforeTheFirstReplication) {
    write("kept", "1");
    write("core", "2");
    auto const details = path + "/details";
    std::ofstream(details) << R"(<?xml version="1.0"?><XmlList><Item Name="Entry" Type="list">)"
                           << R"(<Item Name="Path" Type="string">core</Item></Item></XmlList>)";
    EXPECT_NE(run("exclude --store main --details " + details), ExitCode::Done);
    ASSERT_EQ(run("exclude --store main --source " + source + " --details " + details),
              ExitCode::Done)
        << message;
    ASSERT_EQ(replicate(), ExitCode::Done) << message;
    EXPECT_EQ(stored(), "kept\n");
}

TEST_F(Replicate, NamesReachPeopleEscapedAndProgramsExactly) {
    std::string const name = "a\nb\x1b[31m\xc2\x9b\xff";
    write(name, "1");
    ASSERT_EQ(replicate(), ExitCode::Done) << message;
    EXPECT_EQ(stored(), "a\\x0ab\\x1b[31m\\x9b\\xff\n");
    ASSERT_EQ(run("ls latest -0"), ExitCode::Done);
    EXPECT_EQ(results, name + '\0');
    ASSERT_EQ(run("ls latest", true), ExitCode::Done);
    EXPECT_NE(results.find(R"("a\nb\u001b[31m)"), std::string::npos) << results;
    EXPECT_NE(results.find(R"(\udcff")"), std::string::npos) << results;
    EXPECT_EQ(run("restore latest --target " + path + "/t --workers 100000"), ExitCode::Usage);
    EXPECT_EQ(run("restore latest --target " + path + "/t --workers 0"), ExitCode::Usage);
}

} // namespace
} // namespace Morva
