#include "base/values/Printable.h"
#include "peers/morva/Commands.h"
#include "peers/morva/Root.h"
#include "peers/morva/SnapshotName.h"
#include "peers/morva/SnapshotTree.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"

#include <CLI/CLI.hpp>

namespace Morva {

using Replication::Instance;
using Replication::SnapshotFile;

namespace {

struct Arguments {
    std::string store;
    std::string label;
    std::string snapshot;
};

void snapshot(CommandLine& line, Arguments const& given) {
    Stopwatch const watch;
    Root root(line.output);
    auto const& source = root.source(argumentText(given.store));
    auto store = root.store(source);
    Stopwatch const taking;
    auto const instance = takeSnapshot(*store, argumentText(given.label));
    auto const milliseconds = taking.seconds() * 1000;
    store.reset();
    root.finish();
    line.output.summary(QStringLiteral("snapshot %1 of %2 taken in %3 ms (%4 ms in all)")
                            .arg(instance.value)
                            .arg(source.name)
                            .arg(milliseconds, 0, 'f', 1)
                            .arg(watch.seconds() * 1000, 0, 'f', 1),
                        "snapshot",
                        {{"store", source.name},
                         {"snapshot", jsonNumber(instance.value)},
                         {"milliseconds", milliseconds}});
}

void printSnapshot(Output const& output, Root::Source const& source, SnapshotFile const& file) {
    auto const kind = SnapshotFile::typeText(file.type());
    auto const analyzed = file.analyzed();
    auto const text = QStringLiteral("%1  %2  %3  %4 files  %5 directories  %6%7")
                          .arg(file.instance().value, 5)
                          .arg(readableTime(file.sourceTime()), kind.leftJustified(8))
                          .arg(file.fileCount(), 9)
                          .arg(file.directoryCount(), 8)
                          .arg(analyzed ? readableSize(file.logicalSize()) + "  " : QString(),
                               printable(file.label()));
    QJsonObject object{{"store", source.name},
                       {"snapshot", jsonNumber(file.instance().value)},
                       {"time", jsonNumber(file.sourceTime())},
                       {"kind", kind},
                       {"files", jsonNumber(file.fileCount())},
                       {"directories", jsonNumber(file.directoryCount())},
                       {"label", file.label()},
                       {"retired", file.retire() || file.retired()}};
    if (analyzed)
        object.insert("bytes", jsonNumber(file.logicalSize()));
    output.result(text, "snapshot", object);
}

void printDamaged(Output const& output, Root::Source const& source, SnapshotFile const& file,
                  Status const& why) {
    output.result(QStringLiteral("%1  damaged: %2").arg(file.instance().value, 5).arg(why.text()),
                  "snapshot",
                  QJsonObject{{"store", source.name},
                              {"snapshot", jsonNumber(file.instance().value)},
                              {"damaged", why.text()}});
}

void listSnapshots(CommandLine& line, Arguments const& given) {
    Root root(line.output, Root::For::Reading);
    auto const wanted = argumentText(given.store);
    for (auto const& source : root.sources()) {
        if ((!wanted.isEmpty() && source.name != wanted) || !source.made)
            continue;
        if (!line.output.json && root.sources().size() > 1)
            line.output.result(printable(source.name) + ':', {}, {});
        for (auto const& file : root.store(source, Root::Marked::Given)->snapshots().all())
            if (Status const known = file->status(); !known)
                printDamaged(line.output, source, *file, known);
            else if (isVisible(*file))
                printSnapshot(line.output, source, *file);
    }
    if (!wanted.isEmpty())
        static_cast<void>(root.source(wanted));
    root.finish();
}

void deleteSnapshot(CommandLine& line, Arguments const& given) {
    Root root(line.output);
    auto const& source = root.source(argumentText(given.store));
    auto store = root.store(source);
    auto const instance = snapshotNamed(*store, argumentText(given.snapshot));
    auto const atOnce = instance != store->currentInstance();
    auto const failure = [&](QString const& why) {
        return CommandFailure(ExitCode::Failed, QStringLiteral("snapshot %1 is not deleted: %2; "
                                                               "repeat the command, or run "
                                                               "'morva check'")
                                                    .arg(instance.value)
                                                    .arg(why));
    };
    if (Status const asked = store->snapshots().deleteSnapshot(instance); !asked)
        throw failure(asked.text());
    if (atOnce)
        root.drain(true);
    auto const& waiting = store->snapshots().waiting();
    auto const left = waiting.find({instance, Replication::SnapshotRequests::Kind::Retire});
    if (atOnce && store->snapshots().find(instance))
        throw failure(left != waiting.end() ? left->second : QStringLiteral("it is still there"));
    store.reset();
    root.finish();
    line.output.summary(
        atOnce ? QStringLiteral("snapshot %1 is gone").arg(instance.value)
               : QStringLiteral("snapshot %1 is the latest: it goes when the next one is taken")
                     .arg(instance.value),
        "deleted",
        {{"store", source.name}, {"snapshot", jsonNumber(instance.value)}, {"done", atOnce}});
}

void dedup(CommandLine& line) {
    Stopwatch const watch;
    Root root(line.output);
    XmlList before;
    root.pool().statistics(before);
    root.drain(true);
    XmlList after;
    root.pool().statistics(after);
    root.finish();
    auto const grown = [&](char const* key) {
        auto const list = [](XmlList const& all) { return all.getXmlList(nullptr, "Streams"); };
        return list(after).get(key, std::uint64_t{0}) - list(before).get(key, std::uint64_t{0});
    };
    auto const streams = grown("StreamsIndexedStreams");
    auto const bytes = grown("StreamsIndexedData");
    auto const seconds = watch.seconds();
    line.output.summary(QStringLiteral("%1 streams, %2 hashed in %3 s (%4/s); %5 were new content")
                            .arg(streams)
                            .arg(readableSize(bytes))
                            .arg(seconds, 0, 'f', 2)
                            .arg(readableSize(static_cast<std::uint64_t>(
                                     static_cast<double>(bytes) / std::max(seconds, 1e-9))),
                                 readableSize(grown("StreamsUniqueData"))),
                        "dedup",
                        {{"streams", jsonNumber(streams)},
                         {"bytes", jsonNumber(bytes)},
                         {"uniqueStreams", jsonNumber(grown("StreamsUniqueStreams"))},
                         {"uniqueBytes", jsonNumber(grown("StreamsUniqueData"))},
                         {"seconds", seconds}});
}

} // namespace

void addSnapshotCommands(CommandLine& line) {
    auto const given = std::make_shared<Arguments>();
    auto const store = [given](CLI::App* command) {
        command->add_option("--store", given->store, "Name of the store; the only one by default");
    };
    auto* take = line.app.add_subcommand("snapshot", "Takes a snapshot of the live tree");
    store(take);
    take->add_option("--label", given->label, "A text to know it by");
    take->callback([line, given]() mutable { snapshot(line, *given); });

    auto* list = line.app.add_subcommand("snapshots", "Lists the snapshots");
    store(list);
    list->callback([line, given]() mutable { listSnapshots(line, *given); });

    auto* remove = line.app.add_subcommand("delete-snapshot",
                                           "Retires a snapshot and frees what only it held");
    store(remove);
    remove->add_option("snapshot", given->snapshot, "Its number, or \"latest\"")->required();
    remove->callback([line, given]() mutable { deleteSnapshot(line, *given); });

    auto* work = line.app.add_subcommand("dedup", "Stores equal contents once");
    work->callback([line]() mutable { dedup(line); });
}

} // namespace Morva
