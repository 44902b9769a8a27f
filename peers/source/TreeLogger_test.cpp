#include "peers/source/TreeLogger.h"

#include "peers/source/LogFileSink.h"
#include "peers/source/LogQueue.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <random>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace Replication {
namespace {

/// Keeps a line for each log, and the files that the logs make.
class CollectingSink : public LogSink {
public:
    std::uint8_t* dataSpace(LogBuilder const& builder, std::uint32_t size) override {
        if (beforeRead)
            beforeRead();
        return next.dataSpace(builder, size);
    }
    bool put(LogBuilder& builder) override {
        if (logsLeft-- == 0 || !next.build(builder))
            return false;
        apply(next);
        return true;
    }
    bool flush() override { return true; }

    void apply(LogEntry const& log) {
        EXPECT_EQ(log.sequenceNumber(), ++sequenceNumber);
        std::string const text = log.toText();
        lines.push_back(text.substr(text.find('\n') + 1));
        switch (log.type()) {
        case LogType::PosixCreate:
            open[log.fileId()] = std::string(log.file());
            files[open[log.fileId()]] = "";
            break;
        case LogType::Write: {
            EXPECT_EQ(log.length(), log.data().size);
            EXPECT_LE(log.data().size, FileReader::writeSize);
            std::string& content = files.at(open.at(log.fileId()));
            content.resize(std::max<std::size_t>(content.size(), log.offset() + log.length()));
            content.replace(log.offset(), log.length(), log.data().toByteArray().toStdString());
            break;
        }
        case LogType::PosixTruncate:
            files.at(open.at(log.fileId())).resize(log.size());
            break;
        case LogType::Close:
            EXPECT_EQ(open.erase(log.fileId()), 1U);
            break;
        default:
            break;
        }
    }

    std::string shortName(std::string_view path) const {
        return path.substr(0, root.size()) == root ? "~" + std::string(path.substr(root.size()))
                                                   : std::string(path);
    }

    std::string root;
    std::vector<std::string> lines;
    std::map<std::string, std::string> files;
    std::function<void()> beforeRead;
    std::uint64_t logsLeft = ~std::uint64_t{0};

private:
    LogEntry next;
    std::map<std::uint32_t, std::string> open;
    std::uint64_t sequenceNumber = 0;
};

class TreeLoggerTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        root = dir.path().toStdString();
        sink.root = root;
        ::umask(0);
        ASSERT_EQ(::chmod(root.c_str(), 0700), 0);
    }

    // Qt can't remove a name that is not UTF-8.
    void TearDown() override { std::filesystem::remove_all(root); }

    std::string at(std::string const& name) const { return root + "/" + name; }
    void write(std::string const& name, std::string const& content, off_t offset = 0) const {
        int const file = ::open(at(name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0640);
        ASSERT_GE(file, 0);
        ASSERT_EQ(::pwrite(file, content.data(), content.size(), offset),
                  static_cast<ssize_t>(content.size()));
        ::close(file);
    }
    TreeLogger::Result walk(TreeOptions options = {}) {
        OperationLogger logger({.source = "source"}, sink);
        TreeLogger tree({.leaveOut = options.leaveOut,
                         .problem =
                             [this](std::string_view path, int error, std::string_view what) {
                                 problems.push_back(sink.shortName(path) + " " + std::string(what) +
                                                    " " + std::to_string(error));
                             },
                         .stop = options.stop,
                         .attempts = options.attempts},
                        logger);
        TreeLogger::Result const result = tree.run(root);
        bytes = tree.counts().bytes;
        problemCount = tree.counts().problems;
        EXPECT_EQ(problemCount, problems.size());
        return result;
    }
    void expectSameContent(std::string const& name) {
        QFile file(QString::fromStdString(at(name)));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        EXPECT_TRUE(sink.files.at(at(name)) == file.readAll().toStdString()) << name;
    }

    QTemporaryDir dir;
    std::string root;
    CollectingSink sink;
    std::vector<std::string> problems;
    std::uint64_t bytes = 0;
    std::uint64_t problemCount = 0;
};

TEST_F(TreeLoggerTest, LargeFilesGoInPiecesAndHolesAreLeftOut) {
    std::mt19937 random(1);
    std::string large(5 << 19, '\0');
    for (char& byte : large)
        byte = static_cast<char>(random());
    write("large", large);
    constexpr off_t hole = 8 << 20;
    write("sparse", "middle", hole);
    ASSERT_EQ(::truncate(at("sparse").c_str(), 3 * hole), 0);
    write("empty hole", "");
    ASSERT_EQ(::truncate(at("empty hole").c_str(), hole), 0);
    ASSERT_EQ(walk(), TreeLogger::Result::Done);
    for (char const* name : {"large", "sparse", "empty hole"})
        expectSameContent(name);
    EXPECT_LT(bytes, large.size() + (1 << 16));
    auto const count = [this](char const* text) {
        return std::count_if(sink.lines.begin(), sink.lines.end(),
                             [&](auto const& line) { return line.find(text) != line.npos; });
    };
    EXPECT_EQ(count(" OFFSET:1048576 LEN:1048576"), 1);
    EXPECT_EQ(count(" SIZE:8388608 "), 1);
}

TEST_F(TreeLoggerTest, AFileThatShrinksWhileItIsReadIsLoggedAsRead) {
    write("file", std::string(3 << 20, 'x'));
    int reads = 0;
    sink.beforeRead = [&] {
        if (++reads == 2) {
            ASSERT_EQ(::truncate(at("file").c_str(), (1 << 20) + 5), 0);
        }
    };
    ASSERT_EQ(walk(), TreeLogger::Result::Done);
    EXPECT_EQ(sink.files.at(at("file")), std::string((1 << 20) + 5, 'x'));
    EXPECT_EQ(problems, std::vector<std::string>{"~/file it changed while it was read 0"});
}

TEST_F(TreeLoggerTest, AFileThatChangesWhileItIsReadIsReadAgain) {
    write("file", std::string(1000, 'x'));
    int changes = 2;
    sink.beforeRead = [&] {
        if (changes-- > 0)
            write("file", "more", 1100 - changes);
    };
    ASSERT_EQ(walk({.attempts = 3}), TreeLogger::Result::Done);
    expectSameContent("file");
    EXPECT_TRUE(problems.empty());
}

TEST_F(TreeLoggerTest, AFileThatGoesOnChangingIsToldOf) {
    write("file", std::string(1000, 'x'));
    int reads = 0;
    sink.beforeRead = [&] { write("file", "more", 1000 + ++reads); };
    ASSERT_EQ(walk({.attempts = 3}), TreeLogger::Result::Done);
    EXPECT_EQ(problems, std::vector<std::string>{"~/file it changed while it was read 0"});
    EXPECT_EQ(reads, 3);
}

TEST_F(TreeLoggerTest, AFileThatGrowsWhileItIsReadIsLoggedAsItWasOpened) {
    write("file", std::string(2 << 20, 'x'));
    sink.beforeRead = [&] { write("file", "more", 9 << 20); };
    ASSERT_EQ(walk(), TreeLogger::Result::Done);
    EXPECT_EQ(sink.files.at(at("file")), std::string(2 << 20, 'x'));
}

TEST_F(TreeLoggerTest, WhatCanNotBeReadIsReportedAndTheRestGoesOn) {
    for (char const* name : {"a", "gone", "pipe", "z"})
        write(name, "content");
    ASSERT_EQ(::mkdir(at("lost").c_str(), 0700), 0);
    bool changed = false;
    // Asked for the first time when the names have been read.
    auto const change = [&] {
        if (std::exchange(changed, true))
            return false;
        ::unlink(at("gone").c_str());
        ::rmdir(at("lost").c_str());
        ::unlink(at("pipe").c_str());
        ::mkfifo(at("pipe").c_str(), 0600);
        return false;
    };
    ASSERT_EQ(walk({.stop = change}), TreeLogger::Result::Done);
    // What is gone was not there; what has become another kind of object could not be read.
    EXPECT_EQ(problems, std::vector<std::string>{"~/pipe open " + std::to_string(ESTALE)});
    EXPECT_EQ(sink.files.size(), 2U);
    expectSameContent("z");
}

TEST_F(TreeLoggerTest, WhatIsLeftOutAndWhatStopsTheWalk) {
    ASSERT_EQ(::mkdir(at("out").c_str(), 0700), 0);
    write("out/inner", "x");
    write("outer", "y");
    ASSERT_EQ(walk({.leaveOut = {at("./out/")}}), TreeLogger::Result::Done);
    EXPECT_EQ(sink.files.size(), 1U);
    EXPECT_EQ(sink.files.count(at("outer")), 1U);

    OperationLogger logger({}, sink);
    TreeLogger missing({}, logger);
    EXPECT_EQ(missing.run(at("nowhere")), TreeLogger::Result::NoRoot);
    EXPECT_EQ(missing.rootError(), ENOENT);

    CollectingSink one;
    OperationLogger first({}, one);
    TreeLogger file({}, first);
    EXPECT_EQ(file.run(at("outer")), TreeLogger::Result::Done);
    EXPECT_EQ(one.files.at(at("outer")), "y");

    CollectingSink full;
    full.logsLeft = 3;
    OperationLogger second({}, full);
    TreeLogger failing({}, second);
    EXPECT_EQ(failing.run(root), TreeLogger::Result::SinkFailed);
    EXPECT_EQ(full.lines.size(), 3U);

    CollectingSink begun;
    OperationLogger third({}, begun);
    TreeLogger stopped({.stop = [] { return true; }}, third);
    EXPECT_EQ(stopped.run(root), TreeLogger::Result::Stopped);
}

TEST_F(TreeLoggerTest, PathsThatAreTooLongAreProblems) {
    std::string const name(250, 'n');
    int directory = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int levels = 0;
    for (; levels < 20; ++levels) {
        ASSERT_EQ(::mkdirat(directory, name.c_str(), 0700), 0);
        int const next = ::openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(directory);
        directory = next;
    }
    ::close(directory);
    EXPECT_EQ(walk(), TreeLogger::Result::Done);
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_TRUE(problems.front().ends_with(" log " + std::to_string(ENAMETOOLONG)));
    auto const fits = (PATH_MAX - 1 - root.size()) / (name.size() + 1);
    // The root's two logs, and two of each directory.
    EXPECT_EQ(sink.lines.size(), 2 + 2 * fits);
}

TEST_F(TreeLoggerTest, TreesDeeperThanTheOpenFilesAllowed) {
    std::string name;
    constexpr int depth = 300;
    for (int i = 0; i < depth; ++i) {
        name += (i ? "/d" : "d");
        ASSERT_EQ(::mkdir(at(name).c_str(), 0700), 0);
        write(name + "/z", std::to_string(i)); // comes after the directory "d" beside it
    }
    rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit const few = {220, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    TreeLogger::Result const result = walk();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_EQ(result, TreeLogger::Result::Done);
    EXPECT_TRUE(problems.empty());
    EXPECT_EQ(sink.files.size(), static_cast<std::size_t>(depth));
    EXPECT_EQ(sink.files.at(at("d/d/z")), "1");
}

/// A tree with more than what fits into the buffers of the sinks.
class LogSinksTest : public TreeLoggerTest {
protected:
    void SetUp() override {
        TreeLoggerTest::SetUp();
        for (int i = 0; i < 40; ++i) {
            ASSERT_EQ(::mkdir(at(std::to_string(i)).c_str(), 0700), 0);
            for (int j = 0; j < 50; ++j)
                write(std::to_string(i) + "/" + std::to_string(j),
                      std::string(static_cast<std::size_t>(i * j * (j % 10 ? 1 : 100)), 'a'));
        }
        ASSERT_EQ(walk(), TreeLogger::Result::Done);
        received.root = root;
    }

    CollectingSink received;
};

TEST_F(LogSinksTest, AFileHoldsTheSameLogs) {
    std::FILE* const file = std::tmpfile();
    LogFileSink out(::fileno(file));
    OperationLogger logger({.source = "source", .rules = {4, 5}, .ruleSet = 6}, out);
    TreeLogger tree({}, logger);
    ASSERT_EQ(tree.run(root), TreeLogger::Result::Done);
    ASSERT_TRUE(out.flush());
    EXPECT_EQ(static_cast<std::uint64_t>(::lseek(::fileno(file), 0, SEEK_CUR)), out.bytes());
    ::lseek(::fileno(file), 0, SEEK_SET);
    LogReadAhead in(::fileno(file));
    LogHeader header;
    LogEntry log;
    while (!in.atEnd()) {
        ASSERT_TRUE(header.receive(in.io()));
        EXPECT_EQ(header.source(), "source");
        EXPECT_EQ(header.ruleIds(), (std::vector<std::uint32_t>{4, 5}));
        ASSERT_TRUE(log.receive(in.io(), header));
        EXPECT_EQ(log.ruleSet(), 6U);
        EXPECT_EQ(log.sequenceNumber(), header.sequenceNumber());
        received.apply(log);
    }
    EXPECT_EQ(received.lines, sink.lines);
    EXPECT_TRUE(received.files == sink.files);
    EXPECT_EQ(tree.counts().logs, sink.lines.size());
    std::fclose(file);
}

TEST_F(LogSinksTest, AQueueHandsOverTheSameLogs) {
    LogQueue queue;
    std::thread writer([&] {
        OperationLogger logger({}, queue);
        EXPECT_EQ(TreeLogger({}, logger).run(root), TreeLogger::Result::Done);
        queue.finish();
    });
    while (LogPointer const log = queue.take())
        received.apply(*log);
    writer.join();
    EXPECT_EQ(received.lines, sink.lines);
    EXPECT_TRUE(received.files == sink.files);
}

TEST(LogQueue, AFlushHandsOverASingleLog) {
    LogQueue queue;
    std::thread reader([&] {
        for (std::uint64_t i = 1; i <= 3; ++i) {
            LogPointer const log = queue.take();
            ASSERT_NE(log, nullptr);
            EXPECT_EQ(log->sequenceNumber(), i);
        }
        EXPECT_EQ(queue.take(), nullptr);
    });
    OperationLogger logger({}, queue);
    EXPECT_TRUE(logger.unlink("/a"));
    EXPECT_TRUE(queue.flush());
    EXPECT_TRUE(logger.unlink("/b"));
    EXPECT_TRUE(queue.flush());
    EXPECT_TRUE(logger.unlink("/c"));
    queue.finish();
    reader.join();
}

TEST_F(LogSinksTest, ACancelledQueueStopsTheWalk) {
    LogQueue queue;
    std::thread writer([&] {
        OperationLogger logger({}, queue);
        EXPECT_EQ(TreeLogger({}, logger).run(root), TreeLogger::Result::SinkFailed);
        queue.finish();
    });
    EXPECT_NE(queue.take(), nullptr);
    queue.cancel();
    EXPECT_EQ(queue.take(), nullptr);
    writer.join();
}

TEST_F(LogSinksTest, AFullDiskEndsTheWalk) {
    int const full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    LogFileSink out(full);
    OperationLogger logger({}, out);
    EXPECT_EQ(TreeLogger({}, logger).run(root), TreeLogger::Result::SinkFailed);
    EXPECT_EQ(out.error(), ENOSPC);
    EXPECT_FALSE(out.flush());
    ::close(full);
}

TEST(TreeLogger, AbsolutePathsAreCleanedByText) {
    char* const current = ::get_current_dir_name();
    std::string const here = current;
    std::free(current);
    EXPECT_EQ(TreeLogger::absolutePath("/"), "/");
    EXPECT_EQ(TreeLogger::absolutePath("//a/./b//"), "/a/b");
    EXPECT_EQ(TreeLogger::absolutePath("/a/../../b/.."), "/");
    EXPECT_EQ(TreeLogger::absolutePath("x"), here + "/x");
    EXPECT_EQ(TreeLogger::absolutePath(""), here);
}

} // namespace
} // namespace Replication
