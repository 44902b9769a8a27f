#pragma once

// For tests of this room alone.

#include "peers/morva/Commands.h"
#include "peers/morva/FileTree.h"
#include "peers/morva/Replay.h"
#include "peers/morva/Restorer.h"
#include "peers/morva/Root.h"
#include "peers/source/LogFileSink.h"
#include "peers/source/TreeLogger.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

namespace Morva {

/// A source directory, a repository with one store of it, and a place to restore to.
class RestoreFixture : public testing::Test {
protected:
    RestoreFixture() {
        std::filesystem::create_directory(source);
        Root::init(QString::fromStdString(path + "/root"));
        root.emplace(QString::fromStdString(path + "/root"));
        root->addSource("main", QString::fromStdString(source));
    }

    ~RestoreFixture() override {
        root.reset();
        // Not every name here is one that Qt can remove.
        std::error_code error;
        std::filesystem::remove_all(path, error);
    }

    [[nodiscard]] Replication::StorePointer store() { return root->store(root->source(storeName)); }
    /// Runs `log` with a logger, and applies what it logged to the store.
    template <class Logger = Replication::OperationLogger, class Log> void apply(Log&& log) {
        auto const name = path + "/log";
        int const file = ::open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(file, 0);
        Replication::LogFileSink sink(file);
        Replication::LogSourceOptions options;
        options.source = "source";
        options.firstSequenceNumber = nextLog_;
        Logger logger(options, sink);
        log(logger);
        ASSERT_TRUE(sink.flush());
        nextLog_ = logger.nextSequenceNumber();
        ASSERT_EQ(::lseek(file, 0, SEEK_SET), 0);
        Replication::LogReadAhead input(file);
        Replay replay(*root, root->source(storeName), output);
        ASSERT_EQ(replay.readAll(input), "");
        ASSERT_EQ(replay.counts().failed, 0U);
        replay.levelWithSource();
        replay.end();
        ::close(file);
    }
    /// Logs the whole source directory into the store.
    void replicate() {
        apply([this](Replication::OperationLogger& logger) {
            Replication::TreeLogger walker({}, logger);
            ASSERT_EQ(walker.run(source), Replication::TreeLogger::Result::Done);
            ASSERT_EQ(walker.counts().problems, 0U);
        });
    }
    Replication::Instance snapshot() {
        EXPECT_TRUE(store()->snapshots().userSnapshot(0, ++time_, "label"));
        return store()->currentInstance();
    }
    /// Restores an object of a snapshot into `target`; the problems go to `problems`.
    Restorer::Result restore(FileTree const& tree, QString const& what, RestoreOptions options) {
        problems.clear();
        std::filesystem::create_directories(target);
        Descriptor const opened(::open(target.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        options.problem = [this](QByteArray const& at, QString const& reason) {
            problems += at.toStdString() + ": " + reason.toStdString() + '\n';
        };
        auto const entry = tree.find(what.split('/', Qt::SkipEmptyParts));
        EXPECT_TRUE(entry);
        Restorer restorer(tree, options);
        return entry ? restorer.run(*entry, opened.get()) : Restorer::Result::Failed;
    }
    [[nodiscard]] std::string at(char const* name) const { return source + '/' + name; }

    QTemporaryDir directory;
    std::string path = directory.path().toStdString();
    std::string source = path + "/source";
    std::string target = path + "/target";
    std::string problems;
    char const* storeName = "main"; ///< that the operations work on
    Output output;
    std::optional<Root> root;

private:
    std::uint64_t nextLog_ = 1;
    std::uint32_t time_ = 1000000;
};

} // namespace Morva
