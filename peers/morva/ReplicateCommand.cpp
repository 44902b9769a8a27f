#include "base/values/PosixText.h"
#include "peers/morva/Commands.h"
#include "peers/morva/FedStore.h"
#include "peers/morva/Leveller.h"
#include "peers/morva/Replay.h"
#include "peers/morva/SizeCount.h"
#include "peers/morva/SnapshotName.h"
#include "peers/morva/SnapshotTree.h"
#include "peers/morva/SourceWalk.h"
#include "peers/source/LogQueue.h"
#include "replication/repository/store/Store.h"

#include <CLI/CLI.hpp>

#include <QFile>

#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <thread>

namespace Morva {

using Replication::LogQueue;
using Replication::OperationLogger;
using Replication::TreeCounts;
using Replication::TreeLogger;

namespace {

struct Arguments {
    std::string directory;
    std::string label;
    bool sourceMoved = false;
    bool allowRemoval = false;
    FedStoreArguments store;
};

/// Walks the tree on a thread of its own, while the caller replays.
class Reader {
public:
    Reader(std::function<TreeLogger::Result()> walk, LogQueue& queue)
        : queue_(queue), thread_([walk = std::move(walk), &queue, this] {
              result_ = walk();
              queue.finish();
          }) {}
    ~Reader() {
        queue_.cancel();
        if (thread_.joinable())
            thread_.join();
    }
    Reader(Reader const&) = delete;
    Reader& operator=(Reader const&) = delete;

    [[nodiscard]] TreeLogger::Result join() {
        thread_.join();
        return result_;
    }

private:
    LogQueue& queue_;
    TreeLogger::Result result_ = TreeLogger::Result::SinkFailed;
    std::thread thread_;
};

/// The directory without symbolic links, as sources.cfg names it.
std::string directoryNamed(std::string const& given) {
    std::error_code error;
    auto const directory = std::filesystem::canonical(given, error);
    auto const isDirectory = !error && std::filesystem::is_directory(directory, error);
    if (error)
        throw CommandFailure(ExitCode::Failed,
                             "can't open " + argumentText(given) + ": " + error.message().c_str());
    if (!isDirectory)
        throw CommandFailure(ExitCode::Failed, argumentText(given) +
                                                   " is no directory: a store holds the tree below "
                                                   "one");
    return directory.string();
}

/// A store that was fed from another directory would lose all that isn't in this one.
void checkSource(Root& root, Source const& source, QString const& holds, QString const& directory,
                 bool moved) {
    if (source.kind != Replication::SourceKind::Posix)
        throw CommandFailure(ExitCode::Usage, "the store " + source.name +
                                                  " is fed by another kind of source than a "
                                                  "directory of this machine");
    if (holds == directory)
        return;
    if (!moved)
        throw CommandFailure(ExitCode::Failed,
                             "the store " + source.name + " holds " + holds + ", and not " +
                                 directory +
                                 "; nothing was changed. Name another store, or give "
                                 "--source-moved if the same tree has moved there");
    root.moveSource(source.name, directory);
}

/// An empty directory is more often a volume that isn't mounted than a tree that was deleted.
void checkRemovals(Leveller const& leveller, Source const& source, QString const& directory) {
    if (leveller.removedFiles() * 2 > leveller.files())
        throw CommandFailure(
            ExitCode::Failed,
            QStringLiteral("%1 of the %2 files of the store %3 are not in %4 any more; nothing was "
                           "changed. Is its volume mounted? If they are really gone, give "
                           "--allow-removal")
                .arg(leveller.removedFiles())
                .arg(leveller.files())
                .arg(source.name, directory));
}

void summarise(Output const& output, QString const& store, TreeCounts const& counts,
               Leveller const& leveller, std::uint64_t failed, std::uint32_t snapshot,
               double seconds) {
    auto const rate = static_cast<double>(counts.bytes) / std::max(seconds, 1e-9);
    auto text = QStringLiteral("%1 files, %2 directories, %3 symlinks, %4 further names, %5 in "
                               "%6 s (%7/s), %8 unchanged, %9 gone, snapshot %10")
                    .arg(counts.files.load())
                    .arg(counts.directories.load())
                    .arg(counts.symlinks.load())
                    .arg(counts.links.load())
                    .arg(readableSize(counts.bytes))
                    .arg(seconds, 0, 'f', 2)
                    .arg(readableSize(static_cast<std::uint64_t>(rate)))
                    .arg(counts.unchanged.load())
                    .arg(leveller.removed())
                    .arg(snapshot);
    if (auto const unread = counts.problems - counts.changed; unread != 0)
        text += QStringLiteral("; %1 could not be read").arg(unread);
    if (counts.changed != 0)
        text += QStringLiteral("; %1 changed while they were read").arg(counts.changed.load());
    if (failed != 0)
        text += QStringLiteral("; %1 logs could not be applied").arg(failed);
    output.summary(text, "replicate",
                   {{"store", store},
                    {"files", jsonNumber(counts.files)},
                    {"directories", jsonNumber(counts.directories)},
                    {"symlinks", jsonNumber(counts.symlinks)},
                    {"links", jsonNumber(counts.links)},
                    {"specials", jsonNumber(counts.specials)},
                    {"bytes", jsonNumber(counts.bytes)},
                    {"logs", jsonNumber(counts.logs)},
                    {"unchanged", jsonNumber(counts.unchanged)},
                    {"gone", jsonNumber(leveller.removed())},
                    {"unreadable", jsonNumber(counts.problems - counts.changed)},
                    {"changedWhileRead", jsonNumber(counts.changed)},
                    {"vanished", jsonNumber(counts.vanished)},
                    {"failed", jsonNumber(failed)},
                    {"snapshot", jsonNumber(snapshot)},
                    {"seconds", seconds}});
}

/// The sizes of the files that will be read, holes included.
void addSizes(std::string const& directory, Leveller const& leveller, SizeCount::Add const& add) {
    std::error_code error;
    auto at = std::filesystem::recursive_directory_iterator(
        directory, std::filesystem::directory_options::skip_permission_denied, error);
    for (; !error && at != std::filesystem::recursive_directory_iterator(); at.increment(error)) {
        struct stat status {};
        auto const& path = at->path().native();
        auto const isRead = ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
                            !leveller.unchanged(path, status);
        if (!add(isRead ? static_cast<std::uint64_t>(status.st_size) : 0))
            return;
    }
}

/// Reads the tree and applies its logs. Whether the walk came to its end.
bool feed(CommandLine& line, Replay& replay, Leveller const& leveller, TreeLogger& logger,
          OperationLogger& operations, LogQueue& queue, std::string const& directory) {
    auto const walk = [&] {
        return leveller.logRemovals(operations) ? logger.run(directory)
                                                : TreeLogger::Result::SinkFailed;
    };
    SizeCount count;
    if (line.output.showsProgress())
        count.start([&](SizeCount::Add const& add) { addSizes(directory, leveller, add); });
    Reader reader(walk, queue);
    while (auto const log = queue.take()) {
        replay.apply(log);
        line.output.progress(logger.counts().bytes, count.total(), logger.counts().files);
    }
    auto const result = reader.join();
    checkRoot(result, logger, directory);
    // Each number is above those that the store has, or what it stands for would be missing.
    if (result == TreeLogger::Result::SinkFailed || replay.counts().old != 0)
        throw CommandFailure(ExitCode::Failed,
                             QStringLiteral("not all of the tree reached the store (%1 logs were "
                                            "left out); nothing since the last checkpoint is kept")
                                 .arg(replay.counts().old));
    return result == TreeLogger::Result::Done;
}

void replicate(CommandLine& line, Arguments const& given) {
    Stopwatch const watch;
    auto const directory = directoryNamed(given.directory);
    auto const shown = argumentText(directory);
    Root root(line.output);
    root.startWork();
    FedStore const fed(root, given.store, shown);
    auto const& source = fed.source();
    std::optional<Replay> replay(std::in_place, root, source, line.output);
    checkSource(root, source, replay->sourceRoot(), shown, given.sourceMoved);
    auto store = root.store(source);
    FileTree const live(*store, Replication::Instance{0});
    Leveller leveller(live, directory);
    if (!leveller.run())
        throw CommandFailure(ExitCode::Failed, "the live tree of " + source.name +
                                                   " can't be read; run 'morva check'");
    if (!given.allowRemoval)
        checkRemovals(leveller, source, shown);

    auto logs = logOptions(replay->position());
    if (shown != replay->sourceRoot())
        logs.ruleSet = root.ruleSet();
    LogQueue queue;
    OperationLogger operations(logs, queue);
    auto options = treeOptions(line.output);
    options.attempts = 3;
    options.leaveOut = {QFile::encodeName(line.output.root).toStdString()};
    options.unchanged = [&leveller](std::string_view path, struct stat const& status) {
        return leveller.unchanged(path, status);
    };
    TreeLogger logger(options, operations);
    bool const whole = feed(line, *replay, leveller, logger, operations, queue, directory);
    auto const failed = replay->counts().failed;
    if (whole && failed == 0)
        replay->levelWithSource();
    replay->end();
    auto const snapshot = whole ? takeSnapshot(*store, argumentText(given.label)).value : 0;
    if (whole)
        root.drain(false);
    replay.reset();
    store.reset();
    // An interruption keeps the objects that came through, so that the next run need not read them.
    root.finish();
    line.output.endProgress();
    if (!whole)
        throw CommandFailure(ExitCode::Interrupted,
                             QStringLiteral("interrupted: %1 files are stored, and there is no "
                                            "snapshot of them; the same command goes on")
                                 .arg(logger.counts().files.load()));
    summarise(line.output, source.name, logger.counts(), leveller, failed, snapshot,
              watch.seconds());
    if (logger.counts().problems != 0 || failed != 0)
        line.code = ExitCode::SomeUnread;
}

} // namespace

void addReplicateCommand(CommandLine& line) {
    auto const given = std::make_shared<Arguments>();
    auto* replicate = line.app.add_subcommand(
        "replicate", "Brings a store level with a directory tree and takes a snapshot");
    replicate->add_option("directory", given->directory, "Top of the tree")->required();
    addStoreOption(*replicate, given->store);
    addNoDedupOption(*replicate, given->store);
    replicate->add_option("--label", given->label, "A text to know the snapshot by");
    replicate->add_flag("--source-moved", given->sourceMoved,
                        "The tree that the store holds is now at this directory");
    replicate->add_flag("--allow-removal", given->allowRemoval,
                        "Also when more than half of the store's files are gone");
    replicate->callback([line, given]() mutable { Morva::replicate(line, *given); });
}

} // namespace Morva
