#pragma once

#include "base/files/FaultyFiles.h"
#include "base/process/Config.h"
#include "base/process/FixedPath.h"
#include "peers/check/Checker.h"
#include "peers/check/Fingerprint.h"
#include "peers/morva/ExitCode.h"
#include "peers/morva/FileTree.h"
#include "peers/morva/Replay.h"
#include "peers/source/OperationLogger.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/OperationGate.h"
#include "replication/repository/streams/StreamHandle.h"

#include <QDirIterator>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

/// A fixed log and a repository that it is replayed into, for tests that let the disk fail.
namespace FaultFixture {

using namespace Morva;
using Replication::Instance;
using Replication::LogPointer;

inline constexpr char const* storeName = "store";

// --- the log

/// Keeps logs in memory.
class Recorder : public Replication::LogSink {
public:
    std::uint8_t* dataSpace(Replication::LogBuilder const&, std::uint32_t size) override {
        space_.resize(size);
        return space_.data();
    }
    bool put(Replication::LogBuilder& builder) override {
        auto log = std::make_shared<Replication::LogEntry>();
        if (!log->build(builder))
            return false;
        logs.push_back(std::move(log));
        return true;
    }
    bool flush() override { return true; }

    std::vector<LogPointer> logs;

private:
    std::vector<std::uint8_t> space_;
};

/// Random operations of which each can be done, the same for each run.
inline void writeLog(Replication::LogSink& sink, int operations) {
    Replication::LogSourceOptions options;
    std::uint32_t time = 1'700'000'000;
    options.clock = [&time] { return time; };
    Replication::OperationLogger logger(options, sink);
    std::mt19937_64 random(4);
    auto const below = [&](std::uint64_t end) { return random() % end; };
    std::set<std::string> files, directories{"/src"};
    std::vector<std::uint32_t> open;
    auto const any = [&](std::set<std::string> const& from) {
        return *std::next(from.begin(), static_cast<std::ptrdiff_t>(below(from.size())));
    };
    auto const fresh = [&] {
        return any(directories) + "/name" + std::string(below(60), 'x') + std::to_string(random());
    };
    auto const bytes = [&] {
        QByteArray result(static_cast<qsizetype>(1 + below(below(4) == 0 ? 40000 : 3000)), '\0');
        std::mt19937_64 fill(below(3) == 0 ? 1 : random());
        for (auto& byte : result)
            byte = static_cast<char>(fill());
        return result;
    };
    bool fine = true;
    auto const one = [&] {
        auto const choice = files.empty() ? 0 : below(20);
        std::string const file = files.empty() ? std::string() : any(files);
        std::uint32_t id = 0;
        switch (choice) {
        case 0:
        case 1:
        case 2: {
            auto const name = fresh();
            files.insert(name);
            auto const data = bytes();
            return logger.create(name, S_IFREG | 0644, 1000, 1000, id) &&
                   logger.write(id, below(2) * 5000, Extent(data)) && logger.close(id);
        }
        case 3: {
            auto const name = fresh();
            directories.insert(name);
            return logger.mkdir(name, S_IFDIR | 0755, 0, 0);
        }
        case 4: {
            auto const name = fresh();
            files.insert(name);
            return logger.link(file, name);
        }
        case 5: {
            auto const name = fresh();
            files.erase(file);
            files.insert(name);
            return logger.rename(file, name);
        }
        case 6:
            files.erase(file);
            return logger.unlink(file);
        case 7: {
            auto const other = any(files);
            if (other == file)
                return true;
            files.erase(file);
            return logger.rename(file, other);
        }
        case 8:
            return logger.truncate(file, below(3) * 4000);
        case 9:
            return logger.setEa(file, "user.name", Extent("a value", 7));
        case 10: {
            Replication::PosixAttrValues values;
            values.flags = Replication::posixAttrMode | Replication::posixAttrUid;
            values.mode = S_IFREG | 0600;
            values.uid = static_cast<std::uint32_t>(below(5000));
            return logger.setAttr(file, values);
        }
        case 11:
            return logger.symlink("a target", fresh(), 0, 0);
        // Files that stay open, whatever becomes of their names.
        case 12:
        case 13: {
            auto const name = fresh();
            files.insert(name);
            if (!logger.create(name, S_IFREG | 0644, 1000, 1000, id))
                return false;
            open.push_back(id);
            return true;
        }
        case 14:
        case 15:
        case 16: {
            if (open.empty())
                return true;
            auto const data = bytes();
            return logger.write(open[below(open.size())], below(30000), Extent(data));
        }
        case 17: {
            if (open.size() < 4)
                return true;
            id = open.front();
            open.erase(open.begin());
            return logger.close(id);
        }
        default: {
            auto const data = bytes();
            return logger.writePath(file, below(60000), Extent(data));
        }
        }
    };
    for (; operations > 0 && fine; --operations) {
        time += 5;
        fine = one();
    }
    ASSERT_TRUE(fine);
}

inline std::vector<LogPointer> const& fixedLog() {
    static auto const logs = [] {
        Recorder recorder;
        writeLog(recorder, 220);
        return recorder.logs;
    }();
    return logs;
}

// --- the repository

/// A tree with all that a restore would bring back, a line for each object.
inline std::string treeText(Replication::Store& store, Instance instance) {
    FileTree const tree(store, instance);
    std::string text;
    tree.walk(tree.root(), {}, [&](QByteArray const& path, FileTree::Entry const& entry) {
        text += path.toStdString();
        auto const node = tree.node(entry.id);
        auto const values = node ? FileTree::attributes(*node) : std::nullopt;
        if (!values) {
            text += " unreadable\n";
            return true;
        }
        auto const add = [&](char const* what, std::uint64_t value) {
            text += ' ' + std::string(what) + ' ' + std::to_string(value);
        };
        if (values->described) {
            add("mode", values->security.mode);
            add("uid", values->security.uid);
            if (!entry.isDirectory)
                text += " time " + values->modified.text();
        }
        if (!entry.isDirectory)
            add("links", values->links);
        if (auto const extended = FileTree::extendedAttributes(*node)) {
            auto const bytes = extended->encode();
            add("ea", fingerprint(bytes.constData(), static_cast<std::uint64_t>(bytes.size())));
        } else {
            text += " ea unreadable";
        }
        if (S_ISLNK(values->security.mode))
            text += " to " + FileTree::linkTarget(*node).value_or("?").toStdString();
        if (S_ISREG(values->security.mode)) {
            auto const stream = FileTree::content(*node);
            QByteArray bytes(stream ? static_cast<qsizetype>(stream->length()) : 0, '\0');
            auto const size = static_cast<std::uint32_t>(bytes.size());
            if (!stream || stream->read(0, bytes.data(), size) != size)
                text += " content unreadable";
            add("size", size);
            add("content", fingerprint(bytes.constData(), size));
        }
        text += '\n';
        return true;
    });
    return text;
}

/// Small caches, so that much goes to the files while logs are applied, and small steps of growth,
/// so that a disk can be full in the middle of any operation.
inline void writeConfiguration() {
    XmlList streams;
    for (auto const* key : {"NodeCacheSize", "ReferenceIndirectBlockCacheSize",
                            "ReferenceCountCacheSize", "DedupCacheSize"})
        streams.set(QString::fromLatin1(key), std::uint32_t{8});
    streams.set(QStringLiteral("DataGrowSize"), std::uint64_t{65536});
    streams.set(QStringLiteral("NodeGrowSize"), std::uint64_t{4096});
    XmlList stores;
    for (auto const* key : {"DirectoryCacheSize", "FileNodeCacheSize", "FilePointerCacheSize"})
        stores.set(QString::fromLatin1(key), std::uint32_t{8});
    stores.set(QStringLiteral("FileNodeGrowSize"), std::uint64_t{4096});
    XmlList all;
    all.set(QStringLiteral("StreamsConfiguration"), streams);
    all.set(QStringLiteral("StoreConfiguration"), stores);
    ASSERT_TRUE(Config::save(FixedPath::configuration() + "/repository.cfg", all));
}

/// A repository, and how far it has come in the fixed log.
class Target {
public:
    static constexpr std::size_t snapshotEvery = 60;
    static constexpr std::size_t flushEvery = 25;

    Target() {
        Root::init(path());
        writeConfiguration();
        root_ = std::make_unique<Root>(path());
        root_->addSource(storeName, QStringLiteral("/src"));
        begin();
    }
    ~Target() {
        replay_.reset();
        root_.reset();
    }

    void begin() {
        open(Root::For::Changing);
        replay_ = std::make_unique<Replay>(*root_, root_->source(storeName), output_);
    }
    /// Opens it without taking logs.
    void open(Root::For purpose) {
        if (!root_)
            root_ = std::make_unique<Root>(path(), purpose);
    }
    [[nodiscard]] Root& root() { return *root_; }
    [[nodiscard]] Replication::Store& store() { return *root_->store(root_->source(storeName)); }
    /// Brings everything to the files or, with `checkpoints`, makes a checkpoint of it.
    [[nodiscard]] bool flush() {
        if (!checkpoints) {
            Replication::OperationGate::EnterAlone const alone;
            bool const stored = store().flush().ok();
            return root_->pool().flush() && stored;
        }
        try {
            root_->checkpoint();
        } catch (CommandFailure const& failure) {
            message = failure.what();
            return false;
        }
        return true;
    }
    /// Applies the next log; false when that was told to have failed.
    [[nodiscard]] bool apply() {
        auto const failed = replay_->counts().failed;
        try {
            replay_->apply(fixedLog()[applied]);
        } catch (CommandFailure const& failure) {
            message = failure.what();
            return false;
        }
        if (replay_->counts().failed != failed)
            return false;
        ++applied;
        return true;
    }
    /// Goes on until the end or a failure: logs, snapshots and flushes.
    [[nodiscard]] bool run() {
        while (applied < fixedLog().size()) {
            if (applied % snapshotEvery == 0 && !snapshots.contains(applied) && !snapshot())
                return false;
            if (applied % flushEvery == 0 && flushed != applied) {
                if (!flush())
                    return false;
                flushed = applied;
            }
            if (!apply())
                return false;
        }
        return flush();
    }
    [[nodiscard]] bool snapshot() {
        auto const time = 1'700'000'000 + static_cast<std::uint32_t>(applied);
        if (!store().snapshots().userSnapshot(0, time, QStringLiteral("test")))
            return false;
        snapshots[applied] = store().currentInstance();
        return true;
    }
    [[nodiscard]] std::string live() { return treeText(store(), Instance{}); }
    /// Closes everything; the text of what failed.
    [[nodiscard]] std::string finish() {
        std::string result;
        try {
            if (replay_)
                replay_->end();
            replay_.reset();
            root_->finish();
        } catch (CommandFailure const& failure) {
            result = failure.what();
        }
        // First, since it holds the store.
        replay_.reset();
        root_.reset();
        return result;
    }
    /// The faults of the closed repository, but for lost space.
    [[nodiscard]] static std::string faults() {
        CheckOptions options;
        options.readData = true;
        auto const report = checkRepository(RepositoryPaths::current(), options);
        std::string result;
        for (auto const& fault : report.faults())
            if (fault.kind != FaultKind::LostSpace)
                result += fault.line().toStdString() + '\n';
        return result;
    }

    /// Of all files together.
    [[nodiscard]] std::uint64_t bytesOnDisk() const {
        std::uint64_t bytes = 0;
        for (QDirIterator at(path(), QDir::Files, QDirIterator::Subdirectories); at.hasNext();) {
            at.next();
            bytes += static_cast<std::uint64_t>(at.fileInfo().size());
        }
        return bytes;
    }

    bool checkpoints = false;
    std::size_t applied = 0;
    std::size_t flushed = SIZE_MAX;
    std::map<std::size_t, Instance> snapshots; ///< by the count of logs before it
    std::string message;

private:
    [[nodiscard]] QString path() const { return directory_.path() + "/root"; }

    QTemporaryDir directory_;
    Output output_;
    std::unique_ptr<Root> root_;
    std::unique_ptr<Replay> replay_;
};

/// The live tree after each count of logs, and how much a whole run writes and reads.
struct Expected {
    std::vector<std::string> trees;
    std::uint64_t writes = 0, reads = 0, bytes = 0;
};

inline Expected const& expected() {
    static auto const result = [] {
        Expected all;
        {
            Target target;
            all.trees.push_back(target.live());
            while (target.applied < fixedLog().size()) {
                if (!target.apply()) {
                    ADD_FAILURE() << "log " << target.applied << " can't be applied";
                    break;
                }
                all.trees.push_back(target.live());
            }
            EXPECT_EQ(target.finish(), "");
            EXPECT_EQ(Target::faults(), "");
        }
        FaultyFiles files;
        Target target;
        auto const writes = files.writes();
        auto const reads = files.reads();
        auto const bytes = target.bytesOnDisk();
        EXPECT_TRUE(target.run());
        EXPECT_EQ(target.finish(), "");
        all.writes = files.writes() - writes;
        all.reads = files.reads() - reads;
        all.bytes = target.bytesOnDisk() - bytes;
        return all;
    }();
    return result;
}

/// The first line in which two trees differ.
inline std::string difference(std::string const& stored, std::string const& wanted) {
    if (stored == wanted)
        return {};
    auto const [a, b] = std::mismatch(stored.begin(), stored.end(), wanted.begin(), wanted.end());
    auto const line = [](std::string const& text, std::string::const_iterator at) {
        auto const offset = static_cast<std::size_t>(at - text.begin());
        auto const begin = offset == 0 ? 0 : text.rfind('\n', offset - 1) + 1;
        return text.substr(begin, text.find('\n', offset) - begin);
    };
    return "stored: " + line(stored, a) + "\nwanted: " + line(wanted, b) + '\n';
}

/// The paths that a log is about.
inline std::set<std::string> pathsOf(std::size_t number) {
    auto const& log = *fixedLog()[number];
    std::set<std::string> paths;
    for (auto const text : {log.file(), log.from(), log.to()})
        if (text.starts_with("/src/"))
            paths.emplace(text.substr(5));
    if (!paths.empty())
        return paths;
    // One on an open file, whose name can have changed since.
    std::size_t at = number;
    while (at > 0 && (fixedLog()[at]->type() != Replication::LogType::PosixCreate ||
                      fixedLog()[at]->fileId() != log.fileId()))
        --at;
    paths = at == 0 ? paths : pathsOf(at);
    for (; at < number; ++at) {
        auto const from = fixedLog()[at]->from();
        if (fixedLog()[at]->type() == Replication::LogType::PosixRename && from.size() > 5 &&
            paths.contains(std::string(from.substr(5))))
            paths = {std::string(fixedLog()[at]->to().substr(5))};
    }
    return paths;
}

/// An operation in several steps can end halfway, and the log comes again: until then what it is
/// about may differ, and nothing else.
inline std::string differenceBut(std::string const& stored, std::string const& wanted,
                                 std::size_t failing) {
    if (failing == fixedLog().size())
        return difference(stored, wanted);
    // Such a log can have taken a name off a file that has others.
    auto excepted = pathsOf(failing);
    auto const forEachLine = [](std::string const& text, auto const& visit) {
        for (std::size_t at = 0, end = 0; at < text.size(); at = end + 1) {
            end = text.find('\n', at);
            auto const line = text.substr(at, end - at);
            visit(line, line.substr(0, line.find(' ')));
        }
    };
    for (auto const* text : {&stored, &wanted})
        forEachLine(*text, [&](std::string const& line, std::string const& path) {
            if (line.find(" links ") != std::string::npos &&
                line.find(" links 1 ") == std::string::npos)
                excepted.insert(path);
        });
    auto const lines = [&](std::string const& text) {
        std::set<std::string> result;
        forEachLine(text, [&](std::string const& line, std::string const& path) {
            if (!excepted.contains(path))
                result.insert(line);
        });
        return result;
    };
    std::string result;
    auto const a = lines(stored), b = lines(wanted);
    for (auto const& line : a)
        if (!b.contains(line))
            result += "stored: " + line + '\n';
    for (auto const& line : b)
        if (!a.contains(line))
            result += "wanted: " + line + '\n';
    return result;
}

inline void compareSnapshots(Target& target) {
    for (auto const& each : target.snapshots)
        EXPECT_EQ(difference(treeText(target.store(), each.second), expected().trees[each.first]),
                  "")
            << "snapshot " << each.second.value << " after " << each.first << " logs";
}

} // namespace FaultFixture
