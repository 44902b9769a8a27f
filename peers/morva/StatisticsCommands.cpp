#include "base/process/Context.h"
#include "base/values/Printable.h"
#include "peers/morva/Commands.h"
#include "peers/morva/Root.h"
#include "peers/morva/SnapshotName.h"
#include "peers/morva/SnapshotTree.h"
#include "replication/repository/replay/UnsupportedPaths.h"
#include "replication/repository/statistics/SnapshotAnalysis.h"
#include "replication/repository/store/Store.h"

#include <CLI/CLI.hpp>

#include <QJsonArray>

#include <map>
#include <memory>

namespace Morva {

using Replication::FileHandle;
using Replication::SnapshotAnalysis;

namespace {

struct Arguments {
    bool html = false;
    std::string store;
    std::string snapshot;
};

// --- stats

QJsonValue jsonValue(XmlListIterator const& item);

QJsonObject jsonObject(XmlList const& list) {
    QJsonObject object;
    for (XmlListIterator item(list); item; ++item)
        object.insert(item.name(), jsonValue(item));
    return object;
}

QJsonValue jsonValue(XmlListIterator const& item) {
    switch (item.type()) {
    case XmlList::ValueTypeE::Bool:
        return item.getBool();
    case XmlList::ValueTypeE::String:
        return item.getString();
    case XmlList::ValueTypeE::Buffer:
        return QString::fromLatin1(item.getBuffer().toHex());
    case XmlList::ValueTypeE::List: {
        // Of entries of one kind, whose name says no more.
        QJsonArray entries;
        for (XmlListIterator entry(item.getXmlList()); entry; ++entry)
            entries.append(jsonObject(entry.getXmlList()));
        return entries;
    }
    default:
        return jsonNumber(item.getUint64());
    }
}

/// The figures of the pool or a store: as text the plain values, as an object all of them.
void printFigures(Output const& output, QString const& title, QString const& type,
                  XmlList const& list) {
    QString text = printable(title);
    for (XmlListIterator item(list.getXmlList(nullptr, "Unsupported"), "Entry"); item; ++item)
        text += QStringLiteral("\n  can't be stored: %1: %2")
                    .arg(printable(item.getXmlList().getString(nullptr, "Path")),
                         item.getXmlList().getString(nullptr, "Reason"));
    for (XmlListIterator item(list); item; ++item)
        if (item.type() != XmlList::ValueTypeE::List)
            text += QStringLiteral("\n  %1 %2")
                        .arg(item.name().leftJustified(40),
                             printable(jsonValue(item).toVariant().toString()));
    QJsonObject object = jsonObject(list);
    object.insert("name", title);
    output.result(text, type, object);
}

/// The paths where the store isn't what its source is.
void addUnsupported(Output const& output, QString const& storePath, XmlList& figures) {
    Replication::UnsupportedPaths unsupported(storePath);
    if (auto const loaded = unsupported.load(); !loaded)
        output.error(loaded.text());
    figures.set("UnsupportedPaths",
                std::uint64_t{unsupported.paths().size()} + unsupported.leftOut());
    XmlList entries;
    for (auto const& [path, reason] : unsupported.paths()) {
        XmlList entry;
        entry.set("Path", path);
        entry.set("Reason", reason);
        entries.set("Entry", entry, XmlList::SetTypeE::Add);
    }
    if (!unsupported.empty())
        figures.set("Unsupported", entries);
}

void printStats(Output const& output, Root& root) {
    XmlList pool;
    root.pool().statistics(pool);
    printFigures(output, QStringLiteral("pool"), "pool", pool.getXmlList(nullptr, "Streams"));
    for (auto const& source : root.sources()) {
        if (!source.made)
            continue; // nothing was ever brought to it
        XmlList figures;
        auto const store = root.store(source, Root::Marked::Given);
        store->statistics(figures);
        figures.set("SequenceNumber", root.position(source));
        addUnsupported(output, store->path(), figures);
        printFigures(output, source.name, "store", figures);
    }
}

/// The pool and, machine by machine, the stores, as a page of tables.
void printPage(Output const& output, Root& root) {
    QStringList lines;
    root.pool().report(lines);
    std::map<QString, QStringList> machines;
    for (auto const& source : root.sources()) {
        if (!source.made)
            continue;
        auto const store = root.store(source, Root::Marked::Given);
        // A store that waits for its deletion doesn't know its machine any more.
        auto const machine =
            store->valid() ? store->sourceMachine() : Context::machineName().name();
        QString table;
        store->statistics(table);
        machines[machine] << "<H3>Store:" + source.name.toHtmlEscaped() + "</H3>" << table;
    }
    for (auto const& [machine, stores] : machines)
        lines << "<H2>Machine:" + machine.toHtmlEscaped() + "</H2>" << stores;
    output.result(lines.join('\n'), {}, {});
}

void stats(CommandLine& line, bool html) {
    if (html && line.output.json)
        throw CommandFailure(ExitCode::Usage, "--html and --json exclude each other");
    Root root(line.output, Root::For::Reading);
    html ? printPage(line.output, root) : printStats(line.output, root);
    root.finish();
}

// --- analyze

/// Walks the snapshot to its end. The store is given up on return.
void walk(Output& output, SnapshotAnalysis& analysis) {
    while (analysis.step() == SnapshotAnalysis::State::Walking) {
        Output::checkInterrupt();
        output.progress(analysis.logicalSize(), 0, analysis.fileCount());
    }
    output.endProgress();
    if (analysis.state() == SnapshotAnalysis::State::Failed)
        throw CommandFailure(ExitCode::Failed, "the snapshot can't be analysed ('morva check' "
                                               "tells what is damaged)");
}

void analyze(CommandLine& line, Arguments const& given) {
    Stopwatch const watch;
    Root root(line.output);
    auto const& source = root.source(argumentText(given.store));
    auto const snapshot = [&] {
        auto const store = root.store(source);
        auto const instance = snapshotNamed(*store, argumentText(given.snapshot));
        return *store->fileHandle(store->rootId(), instance, FileHandle::Snapshot);
    }();
    SnapshotAnalysis analysis(snapshot);
    walk(line.output, analysis);
    root.finish();
    line.output.result(QStringLiteral("snapshot %1 of %2: %3 files, %4 directories, %5 (%6)")
                           .arg(snapshot.instance.value)
                           .arg(source.name)
                           .arg(analysis.fileCount())
                           .arg(analysis.directoryCount())
                           .arg(readableSize(analysis.logicalSize()),
                                analysis.known()
                                    ? QStringLiteral("known")
                                    : QStringLiteral("in %1 s").arg(watch.seconds(), 0, 'f', 2)),
                       "analysis",
                       {{"store", source.name},
                        {"snapshot", jsonNumber(snapshot.instance.value)},
                        {"files", jsonNumber(analysis.fileCount())},
                        {"directories", jsonNumber(analysis.directoryCount())},
                        {"bytes", jsonNumber(analysis.logicalSize())},
                        {"known", analysis.known()},
                        {"seconds", watch.seconds()}});
}

} // namespace

void addStatisticsCommands(CommandLine& line) {
    auto const given = std::make_shared<Arguments>();
    auto* const figures =
        line.app.add_subcommand("stats", "Prints the figures of the pool and the stores");
    figures->add_flag("--html", given->html, "As a page of tables");
    figures->callback([line, given]() mutable { stats(line, given->html); });

    auto* const counting = line.app.add_subcommand(
        "analyze", "Counts what is in a snapshot, and keeps the figures with it");
    counting->add_option("snapshot", given->snapshot, "Its number, or \"latest\"")->required();
    counting->add_option("--store", given->store, "Name of the store; the only one by default");
    counting->callback([line, given]() mutable { analyze(line, *given); });
}

} // namespace Morva
