#include "base/process/Context.h"
#include "base/values/PosixText.h"
#include "peers/morva/Commands.h"
#include "peers/morva/Leveller.h"
#include "peers/morva/Replay.h"
#include "peers/morva/Root.h"
#include "peers/morva/SnapshotName.h"
#include "peers/source/LogFileSink.h"
#include "peers/source/LogQueue.h"
#include "peers/source/MailTreeWriter.h"
#include "peers/source/PosixTreeWriter.h"
#include "peers/source/TreeLogger.h"
#include "peers/source/WindowsTreeWriter.h"
#include "replication/repository/store/Store.h"

#include <CLI/CLI.hpp>

#include <QFile>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <thread>

namespace Morva {

using Replication::LogFileSink;
using Replication::LogQueue;
using Replication::LogReadAhead;
using Replication::LogSink;
using Replication::LogSourceOptions;
using Replication::OperationLogger;
using Replication::SourceKind;
using Replication::TreeCounts;
using Replication::TreeLogger;
using Replication::TreeOptions;

namespace {

struct Arguments {
    std::string directory;
    std::string file;
    std::string store;
    std::string source = "/";
    std::string label;
    std::vector<std::string> dedupExclude;
    SourceKind kind = SourceKind::Posix;
    Replication::WindowsPlace place;
};

/// Rises over all runs on a machine, so that a store that has taken an older log takes this one.
std::uint64_t firstSequenceNumber() {
    return Context::systemTime() * 1000;
}

LogSourceOptions sourceOptions() {
    LogSourceOptions options;
    options.source = Context::machineName().name();
    options.firstSequenceNumber = firstSequenceNumber();
    return options;
}

TreeOptions treeOptions(Output const& output) {
    TreeOptions options;
    options.problem = [&output](std::string_view path, int error, std::string_view what) {
        output.error(decodePosixText({path.data(), static_cast<qsizetype>(path.size())}) + ": " +
                     QString::fromUtf8(what.data(), static_cast<qsizetype>(what.size())) + ": " +
                     std::strerror(error));
    };
    options.stop = [] { return Output::interrupted.load(std::memory_order_relaxed); };
    return options;
}

void checkWalk(TreeLogger::Result result, TreeLogger const& logger, std::string const& directory) {
    if (result == TreeLogger::Result::Stopped)
        throw CommandFailure(ExitCode::Interrupted, "interrupted");
    if (result == TreeLogger::Result::NoRoot)
        throw CommandFailure(ExitCode::Failed, "can't open " + QString::fromStdString(directory) +
                                                   ": " + std::strerror(logger.rootError()));
}

/// Walks the tree and calls back with its writer.
template <class Walk> void withWriter(Arguments const& given, LogSink& sink, Walk const& walk) {
    switch (given.kind) {
    case SourceKind::Posix: {
        OperationLogger log(sourceOptions(), sink);
        Replication::PosixTreeWriter writer(log);
        return walk(writer);
    }
    case SourceKind::Windows: {
        Replication::WindowsLogger log(sourceOptions(), sink);
        Replication::WindowsTreeWriter writer(
            log, {TreeLogger::absolutePath(given.directory), given.place});
        return walk(writer);
    }
    case SourceKind::Exchange: {
        auto const top = given.directory + '/';
        std::error_code ignored;
        if (!std::filesystem::is_directory(top + "cur", ignored) &&
            !std::filesystem::is_directory(top + "new", ignored))
            throw CommandFailure(ExitCode::Failed, QString::fromStdString(given.directory) +
                                                       " is no Maildir: it has no \"cur\" and no "
                                                       "\"new\"");
        Replication::ExchangeLogger log(sourceOptions(), sink);
        Replication::MailTreeWriter writer(log);
        return walk(writer);
    }
    }
}

void logTree(CommandLine& line, Arguments const& given) {
    if (::isatty(STDOUT_FILENO))
        throw CommandFailure(ExitCode::Usage, "logs are binary: send them to a file or a pipe");
    LogFileSink sink(STDOUT_FILENO);
    withWriter(given, sink, [&](Replication::TreeWriter& writer) {
        TreeLogger logger(treeOptions(line.output), writer);
        auto const result = logger.run(given.directory);
        checkWalk(result, logger, given.directory);
        if (result == TreeLogger::Result::SinkFailed || !sink.flush())
            throw CommandFailure(ExitCode::Failed, QStringLiteral("can't write the log: ") +
                                                       std::strerror(sink.error()));
        if (logger.counts().problems != 0)
            line.code = ExitCode::SomeUnread;
    });
}

QString replaySummary(Replay::Counts const& counts, double seconds) {
    auto text = QStringLiteral("%1 logs, %2 applied in %3 s")
                    .arg(counts.logs)
                    .arg(readableSize(counts.bytes))
                    .arg(seconds, 0, 'f', 2);
    if (counts.old != 0)
        text += QStringLiteral("; %1 were in the store already").arg(counts.old);
    if (counts.failed != 0)
        text += QStringLiteral("; %1 failed").arg(counts.failed);
    return text;
}

QJsonObject replayObject(Replay::Counts const& counts, double seconds) {
    return {{"logs", jsonNumber(counts.logs)},
            {"bytes", jsonNumber(counts.bytes)},
            {"alreadyReplicated", jsonNumber(counts.old)},
            {"failed", jsonNumber(counts.failed)},
            {"seconds", seconds}};
}

Root::Source const& sourceFor(Root& root, Arguments const& given, QString const& sourceRoot) {
    auto const store = QString::fromStdString(given.store);
    if (root.hasSource(store))
        return root.source(store);
    if (given.kind == SourceKind::Windows ? sourceRoot.isEmpty() : !sourceRoot.startsWith(u'/'))
        throw CommandFailure(ExitCode::Usage, "--source is no absolute path: " + sourceRoot);
    QStringList dedupExclude;
    for (auto const& suffix : given.dedupExclude)
        dedupExclude += QString::fromStdString(suffix);
    return root.addSource(store, sourceRoot, dedupExclude, given.kind);
}

void replayFile(CommandLine& line, Arguments const& given) {
    auto const fromFile = !given.file.empty() && given.file != "-";
    auto const descriptor =
        fromFile ? ::open(given.file.c_str(), O_RDONLY | O_CLOEXEC) : STDIN_FILENO;
    if (descriptor < 0)
        throw CommandFailure(ExitCode::Failed, "can't open " + QString::fromStdString(given.file) +
                                                   ": " + std::strerror(errno));
    Stopwatch const watch;
    Root root(line.output.root);
    root.startWork();
    auto const& source = sourceFor(root, given, QString::fromStdString(given.source));
    LogReadAhead input(descriptor);
    std::optional<Replay> replay(std::in_place, root, source, line.output);
    auto const failure = replay->readAll(input);
    replay->end();
    auto const counts = replay->counts();
    // The store closes with the root, so that the last checkpoint has it closed.
    replay.reset();
    root.finish();
    if (fromFile)
        ::close(descriptor);
    line.output.endProgress();
    line.output.summary(replaySummary(counts, watch.seconds()), "replay",
                        replayObject(counts, watch.seconds()));
    if (!failure.isEmpty())
        throw CommandFailure(ExitCode::Failed, failure);
    if (counts.failed != 0)
        line.code = ExitCode::Failed;
}

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

void replicateSummary(Output const& output, QString const& store, TreeCounts const& counts,
                      Leveller const& leveller, std::uint32_t snapshot, double seconds) {
    auto const rate = static_cast<double>(counts.bytes) / std::max(seconds, 1e-9);
    output.summary(QStringLiteral("%1 files, %2 directories, %3 symlinks, %4 further names, %5 in "
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
                       .arg(snapshot),
                   "replicate",
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
                    {"unreadable", jsonNumber(counts.problems)},
                    {"snapshot", jsonNumber(snapshot)},
                    {"seconds", seconds}});
}

void replicate(CommandLine& line, Arguments const& given) {
    Stopwatch const watch;
    std::error_code error;
    auto const directory = std::filesystem::canonical(given.directory, error).string();
    if (error)
        throw CommandFailure(ExitCode::Failed, "can't open " +
                                                   QString::fromStdString(given.directory) + ": " +
                                                   error.message().c_str());
    Root root(line.output.root);
    root.startWork();
    auto const& source = sourceFor(
        root, given, decodePosixText({directory.data(), static_cast<qsizetype>(directory.size())}));
    if (source.kind != Replication::SourceKind::Posix)
        throw CommandFailure(ExitCode::Usage, "the store " + source.name +
                                                  " is fed by another kind of source than a "
                                                  "directory of this machine");
    std::optional<Replay> replay(std::in_place, root, source, line.output);
    auto store = root.store(source);
    FileTree const live(*store, Replication::Instance{0});
    LogQueue queue;
    OperationLogger operations(sourceOptions(), queue);
    Leveller leveller(live, directory);
    if (!leveller.run())
        throw CommandFailure(ExitCode::Failed, "the live tree of " + source.name +
                                                   " can't be read; run 'morva check'");
    auto options = treeOptions(line.output);
    options.leaveOut = {QFile::encodeName(line.output.root).toStdString()};
    options.unchanged = [&leveller](std::string_view path, struct stat const& status) {
        return leveller.unchanged(path, status);
    };
    TreeLogger logger(options, operations);
    {
        auto const walk = [&] {
            return leveller.logRemovals(operations) ? logger.run(directory)
                                                    : TreeLogger::Result::SinkFailed;
        };
        Reader reader(walk, queue);
        while (auto const log = queue.take()) {
            replay->apply(log);
            line.output.progress(logger.counts().bytes, 0, logger.counts().files);
        }
        checkWalk(reader.join(), logger, given.directory);
    }
    replay->levelWithSource();
    replay->end();
    auto const failed = replay->counts().failed;
    auto const snapshot = takeSnapshot(*store, QString::fromStdString(given.label)).value;
    root.drain(false);
    replay.reset();
    store.reset();
    root.finish();
    line.output.endProgress();
    replicateSummary(line.output, source.name, logger.counts(), leveller, snapshot,
                     watch.seconds());
    if (logger.counts().problems != 0)
        line.code = ExitCode::SomeUnread;
    if (failed != 0)
        line.code = ExitCode::Failed;
}

} // namespace

void addLogCommands(CommandLine& line) {
    auto const given = std::make_shared<Arguments>();
    auto const ofKind = [given](CLI::App* command, char const* help) {
        auto const set = [given](std::string const& name) {
            given->kind = name == "windows"    ? SourceKind::Windows
                          : name == "exchange" ? SourceKind::Exchange
                                               : SourceKind::Posix;
        };
        command->add_option_function<std::string>("--as", set, help)
            ->check(CLI::IsMember({"posix", "windows", "exchange"}))
            ->type_name("KIND");
    };
    auto* log =
        line.app.add_subcommand("log", "Writes a directory tree as logs to standard output");
    log->add_option("directory", given->directory, "Top of the tree, or a Maildir")->required();
    ofKind(log, "The kind of source; exchange for a Maildir");
    log->add_option("--drive", given->place.drive, "As windows: the drive that the tree is on");
    log->add_option("--top", given->place.top,
                    "As windows: the path of the tree's top on the drive; its own if not given");
    log->callback([line, given]() mutable { logTree(line, *given); });

    auto const forNewStore = [given](CLI::App* command) {
        command
            ->add_option("--no-dedup", given->dedupExclude,
                         "For a new store: an end of names that are not deduplicated; may be "
                         "given again")
            ->allow_extra_args(false)
            ->type_name("SUFFIX");
    };
    auto* replay = line.app.add_subcommand("replay", "Applies logs to a store");
    replay->add_option("--store", given->store, "Name of the store; made if it isn't there")
        ->required();
    replay->add_option("--source", given->source,
                       "For a new store: the directory of the source that it holds");
    ofKind(replay, "For a new store: the kind of source that feeds it");
    forNewStore(replay);
    replay->add_option("file", given->file, "Log file; standard input without one or for \"-\"");
    replay->callback([line, given]() mutable { replayFile(line, *given); });

    auto* replicate = line.app.add_subcommand(
        "replicate", "Brings a store level with a directory tree and takes a snapshot");
    replicate->add_option("directory", given->directory, "Top of the tree")->required();
    replicate->add_option("--store", given->store, "Name of the store; made if it isn't there")
        ->required();
    forNewStore(replicate);
    replicate->add_option("--label", given->label, "A text to know the snapshot by");
    replicate->callback([line, given]() mutable { Morva::replicate(line, *given); });
}

} // namespace Morva
