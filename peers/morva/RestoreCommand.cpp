#include "base/values/PosixText.h"
#include "peers/morva/Commands.h"
#include "peers/morva/Restorer.h"
#include "peers/morva/SizeCount.h"
#include "peers/morva/SnapshotTree.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

namespace Morva {

namespace {

constexpr unsigned mostWorkers = 256;

struct Arguments {
    std::string store;
    std::string object;
    std::string target;
    bool overwrite = false;
    bool resume = false;
    unsigned workers = 0;
};

/// The target as an open directory, made if it isn't there.
Descriptor openTarget(Arguments const& given) {
    auto const fail = [&](QString const& what) -> CommandFailure {
        return {ExitCode::Failed, argumentText(given.target) + ' ' + what};
    };
    std::error_code error;
    std::filesystem::create_directories(given.target, error);
    Descriptor opened(::open(given.target.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened)
        throw fail(QStringLiteral("can't be used as a directory: ") + std::strerror(errno));
    auto const isEmpty = std::filesystem::is_empty(given.target, error);
    if (error)
        throw fail("can't be read: " + QString::fromStdString(error.message()));
    if (!isEmpty && !given.overwrite && !given.resume)
        throw fail(QStringLiteral("is not empty: --resume goes on with a restore that was "
                                  "interrupted, --overwrite replaces what is in the way"));
    return opened;
}

/// Each directory on the way down takes a descriptor.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// What a whole snapshot holds, when it has been counted; else 0.
std::uint64_t expectedBytes(NamedObject const& object) {
    if (object.tree.live() || !object.path.isEmpty())
        return 0;
    auto const file = object.tree.store().snapshots().find(object.tree.instance());
    return file && file->analyzed() ? file->logicalSize() : 0;
}

/// Holes count too, so this is the most that there can be to write.
void addSizes(NamedObject const& object, SizeCount::Add const& add) {
    bool goOn = true;
    object.tree.walk(object.entry, {}, [&](QByteArray const&, FileTree::Entry const& entry) {
        if (!goOn || !entry.id || entry.isDirectory)
            return goOn;
        auto const node = object.tree.node(entry.id);
        // What can't be told doesn't count; the restore says so where it matters.
        auto const size = node ? node->size() : Result<std::uint64_t>(std::uint64_t{0});
        goOn = add(size.ok() ? *size : 0);
        return goOn;
    });
}

void summarise(Output const& output, OpenStore const& store, NamedObject const& object,
               RestoreCounts const& counts, double seconds, bool complete) {
    auto const value = [](auto const& count) { return count.load(std::memory_order_relaxed); };
    auto const rate = static_cast<double>(value(counts.bytes)) / std::max(seconds, 1e-9);
    auto const others = value(counts.links) + value(counts.symlinks) + value(counts.specials);
    auto text = QStringLiteral("%1 files, %2 directories, %3 links and other objects, %4 in %5 s "
                               "(%6/s) from snapshot %7")
                    .arg(value(counts.files))
                    .arg(value(counts.directories))
                    .arg(others)
                    .arg(readableSize(value(counts.bytes)))
                    .arg(seconds, 0, 'f', 2)
                    .arg(readableSize(static_cast<std::uint64_t>(rate)), treeName(object.tree));
    if (value(counts.kept) > 0)
        text += QStringLiteral("; %1 were there already").arg(value(counts.kept));
    if (value(counts.problems) > 0)
        text += QStringLiteral("; %1 with problems").arg(value(counts.problems));
    output.summary(complete ? text : QString(), "restore",
                   {{"store", store.source().name},
                    {"snapshot", treeName(object.tree)},
                    {"files", jsonNumber(value(counts.files))},
                    {"directories", jsonNumber(value(counts.directories))},
                    {"links", jsonNumber(value(counts.links))},
                    {"symlinks", jsonNumber(value(counts.symlinks))},
                    {"specials", jsonNumber(value(counts.specials))},
                    {"complete", complete},
                    {"kept", jsonNumber(value(counts.kept))},
                    {"bytes", jsonNumber(value(counts.bytes))},
                    {"problems", jsonNumber(value(counts.problems))},
                    {"seconds", seconds},
                    {"bytesPerSecond", rate}});
}

void restore(CommandLine& line, Arguments const& given) {
    Stopwatch const watch;
    auto& output = line.output;
    OpenStore store(output, given.store);
    auto const object = objectNamed(store, given.object);
    auto target = openTarget(given);
    raiseDescriptorLimit();

    auto const analyzed = expectedBytes(object);
    SizeCount count;
    if (analyzed == 0 && output.showsProgress())
        count.start([&object](SizeCount::Add const& add) { addSizes(object, add); });
    RestoreOptions options;
    options.existing = given.resume      ? ObjectWriter::Existing::Resume
                       : given.overwrite ? ObjectWriter::Existing::Replace
                                         : ObjectWriter::Existing::Refuse;
    options.workers =
        given.workers != 0 ? given.workers : std::max(2U, std::thread::hardware_concurrency());
    options.problem = [&](QByteArray const& path, QString const& reason) {
        output.unreadable(path.isEmpty() ? "." : path, reason);
    };
    options.stop = [] { return Output::interrupted.load(std::memory_order_relaxed); };
    options.progress = [&](RestoreCounts const& counts) {
        output.progress(counts.bytes, analyzed != 0 ? analyzed : count.total(), counts.files);
    };
    Restorer restorer(object.tree, options);
    auto const result = restorer.run(object.entry, target.get());
    count.end();
    output.endProgress();
    store.finish();

    auto const& counts = restorer.counts();
    summarise(output, store, object, counts, watch.seconds(), result == Restorer::Result::Done);
    // Where the target stays closed is told, since nobody would look for that.
    auto const soFar =
        QStringLiteral("; %1 files are there, and %2 stays closed to others. The same "
                       "command with --resume goes on")
            .arg(counts.files.load())
            .arg(argumentText(given.target));
    if (result == Restorer::Result::Stopped)
        throw CommandFailure(ExitCode::Interrupted, "interrupted" + soFar);
    if (result == Restorer::Result::Failed)
        throw CommandFailure(ExitCode::Failed, "the target takes no more" + soFar);
    if (counts.problems > 0)
        line.code = ExitCode::SomeUnread;
}

} // namespace

void addRestoreCommand(CommandLine& line) {
    auto const given = std::make_shared<Arguments>();
    auto* command = line.app.add_subcommand("restore", "Writes a snapshot back to a directory");
    command->add_option("--store", given->store, "Name of the store; the only one by default");
    command
        ->add_option("object", given->object,
                     "A snapshot's number, \"latest\" or \"live\", and a path in it, as "
                     "SNAPSHOT:PATH")
        ->required();
    command->add_option("--target", given->target, "The directory to write to")->required();
    command->add_flag("--overwrite", given->overwrite,
                      "Also into a directory that is not empty; what is in the way is replaced");
    command->add_flag("--resume", given->resume,
                      "Goes on with an interrupted restore: what is there and equal stays");
    command->add_option("--workers", given->workers, "Threads that write; one a processor, or two")
        ->check(CLI::Range(1U, mostWorkers));
    command->callback([line, given]() mutable { restore(line, *given); });
}

} // namespace Morva
