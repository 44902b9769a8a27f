#include "base/values/PosixText.h"
#include "peers/morva/Commands.h"
#include "peers/morva/FedStore.h"
#include "peers/morva/Replay.h"
#include "peers/morva/SnapshotTree.h"
#include "peers/morva/SourceWalk.h"
#include "peers/source/LogFileSink.h"
#include "peers/source/MailTreeWriter.h"
#include "peers/source/PosixTreeWriter.h"
#include "peers/source/WindowsTreeWriter.h"

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <optional>

namespace Morva {

using Replication::LogFileSink;
using Replication::LogReadAhead;
using Replication::LogSink;
using Replication::OperationLogger;
using Replication::SourceKind;
using Replication::TreeLogger;

namespace {

struct Arguments {
    std::string directory;
    std::string file;
    std::uint64_t after = 0;
    std::optional<SourceKind> kind;
    Replication::WindowsPlace place;
    FedStoreArguments store;
};

/// Walks the tree and calls back with its writer.
template <class Walk> void withWriter(Arguments const& given, LogSink& sink, Walk const& walk) {
    auto const options = logOptions(given.after);
    switch (given.kind.value_or(SourceKind::Posix)) {
    case SourceKind::Posix: {
        OperationLogger log(options, sink);
        Replication::PosixTreeWriter writer(log);
        return walk(writer);
    }
    case SourceKind::Windows: {
        Replication::WindowsLogger log(options, sink);
        Replication::WindowsTreeWriter writer(
            log, {TreeLogger::absolutePath(given.directory), given.place});
        return walk(writer);
    }
    case SourceKind::Exchange: {
        auto const top = given.directory + '/';
        std::error_code ignored;
        if (!std::filesystem::is_directory(top + "cur", ignored) &&
            !std::filesystem::is_directory(top + "new", ignored))
            throw CommandFailure(ExitCode::Failed, argumentText(given.directory) +
                                                       " is no Maildir: it has no \"cur\" and no "
                                                       "\"new\"");
        Replication::ExchangeLogger log(options, sink);
        Replication::MailTreeWriter writer(log);
        return walk(writer);
    }
    }
}

void checkLogWritten(LogFileSink const& sink) {
    if (sink.error() != 0)
        failOutput(sink.error());
}

void logTree(CommandLine& line, Arguments const& given) {
    if (::isatty(STDOUT_FILENO))
        throw CommandFailure(ExitCode::Usage, "logs are binary: send them to a file or a pipe");
    if (line.output.json)
        throw CommandFailure(ExitCode::Usage,
                             "logs go to standard output, where --json has no room");
    LogFileSink sink(STDOUT_FILENO);
    withWriter(given, sink, [&](Replication::TreeWriter& writer) {
        TreeLogger logger(treeOptions(line.output), writer);
        auto const result = logger.run(given.directory);
        checkRoot(result, logger, given.directory);
        auto const flushed = sink.flush();
        checkLogWritten(sink);
        if (result == TreeLogger::Result::Stopped)
            throw CommandFailure(ExitCode::Interrupted, "interrupted: the log has a part of " +
                                                            argumentText(given.directory));
        if (result == TreeLogger::Result::SinkFailed || !flushed)
            throw CommandFailure(ExitCode::Failed, "a log could not be made");
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
        text += QStringLiteral("; %1 left out, since the store has passed their numbers")
                    .arg(counts.old);
    if (counts.failed != 0)
        text += QStringLiteral("; %1 failed").arg(counts.failed);
    if (counts.unknown != 0)
        text += QStringLiteral("; %1 change files that aren't known to be open, and are not in the "
                               "store")
                    .arg(counts.unknown);
    return text;
}

QJsonObject replayObject(Replay::Counts const& counts, std::uint64_t position, double seconds) {
    return {{"logs", jsonNumber(counts.logs)},
            {"bytes", jsonNumber(counts.bytes)},
            {"alreadyReplicated", jsonNumber(counts.old)},
            {"failed", jsonNumber(counts.failed)},
            {"unknownFiles", jsonNumber(counts.unknown)},
            {"sequenceNumber", jsonNumber(position)},
            {"seconds", seconds}};
}

/// The file or standard input, as an open descriptor.
class LogInput {
public:
    explicit LogInput(std::string const& name) : isFile_(!name.empty() && name != "-") {
        if (!isFile_)
            return;
        descriptor_ = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
        if (descriptor_ < 0)
            throw CommandFailure(ExitCode::Failed,
                                 "can't open " + argumentText(name) + ": " + std::strerror(errno));
    }
    ~LogInput() {
        if (isFile_)
            ::close(descriptor_);
    }
    LogInput(LogInput const&) = delete;
    LogInput& operator=(LogInput const&) = delete;

    [[nodiscard]] int descriptor() const { return descriptor_; }
    /// 0 if that isn't known.
    [[nodiscard]] std::uint64_t size() const {
        struct stat status {};
        auto const known = ::fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode);
        return known ? static_cast<std::uint64_t>(status.st_size) : 0;
    }

private:
    bool isFile_;
    int descriptor_ = STDIN_FILENO;
};

/// A file whose logs all lie below the store's position is no repetition of the last one: its
/// numbers are wrong, and nothing of it was stored.
void checkNumbers(Replay::Counts const& counts, std::uint64_t position) {
    if (counts.logs == 0 && counts.old != 0 && counts.lastNumber < position)
        throw CommandFailure(ExitCode::Failed,
                             QStringLiteral("nothing was stored: the logs end with the number %1, "
                                            "and the store has come to %2. Logs that are new to it "
                                            "are made with 'morva log --after %2'")
                                 .arg(counts.lastNumber)
                                 .arg(position));
}

void replayFile(CommandLine& line, Arguments const& given) {
    LogInput const file(given.file);
    Stopwatch const watch;
    Root root(line.output);
    root.startWork();
    FedStore const store(root, given.store, argumentText(given.store.source.value_or("/")));
    LogReadAhead input(file.descriptor());
    std::optional<Replay> replay(std::in_place, root, store.source(), line.output);
    auto const failure = replay->readAll(input, file.size());
    replay->end();
    auto const counts = replay->counts();
    auto const position = replay->position();
    // The store closes with the root, so that the last checkpoint has it closed.
    replay.reset();
    // What came before a torn log or an interruption is whole, and stays.
    root.finish();
    line.output.endProgress();
    line.output.summary(replaySummary(counts, watch.seconds()), "replay",
                        replayObject(counts, position, watch.seconds()));
    if (!failure.isEmpty())
        throw CommandFailure(ExitCode::Failed, failure);
    Output::checkInterrupt();
    checkNumbers(counts, position);
    if (counts.failed != 0 || counts.unknown != 0)
        line.code = ExitCode::SomeUnread;
}

} // namespace

void addLogCommands(CommandLine& line) {
    auto const given = std::make_shared<Arguments>();
    auto* log =
        line.app.add_subcommand("log", "Writes a directory tree as logs to standard output");
    log->add_option("directory", given->directory, "Top of the tree, or a Maildir")->required();
    log->add_option("--after", given->after,
                    "The number that the store has come to, see 'morva stats'; 0 for a new store")
        ->required()
        ->type_name("NUMBER");
    addKindOption(*log, given->kind, "The kind of source; exchange for a Maildir");
    log->add_option("--drive", given->place.drive, "As windows: the drive that the tree is on");
    log->add_option("--top", given->place.top,
                    "As windows: the path of the tree's top on the drive; its own if not given");
    log->callback([line, given]() mutable { logTree(line, *given); });

    auto* replay = line.app.add_subcommand("replay", "Applies logs to a store");
    addStoreOption(*replay, given->store);
    addSourceOptions(*replay, given->store);
    addNoDedupOption(*replay, given->store);
    replay->add_option("file", given->file, "Log file; standard input without one or for \"-\"");
    replay->callback([line, given]() mutable { replayFile(line, *given); });
}

} // namespace Morva
