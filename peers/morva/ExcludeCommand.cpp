#include "base/process/Config.h"
#include "base/values/PosixText.h"
#include "peers/morva/Commands.h"
#include "peers/morva/Failure.h"
#include "peers/morva/FedStore.h"
#include "peers/morva/SnapshotTree.h"
#include "replication/repository/store/ControlBlock.h"
#include "replication/repository/store/Store.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace Morva {

namespace {

struct Arguments {
    FedStoreArguments store;
    std::string details;
};

/// A list in which only what `NotToBackup` reads stands: a word that is misspelt would let through
/// what was to be excluded.
XmlList readDetails(QString const& path, std::uint32_t& entries) {
    auto const details = Config::load(path);
    if (!details.usable())
        throw CommandFailure(ExitCode::Failed, details.absent()
                                                   ? "there is no file " + path
                                                   : "can't read " + path + " as an XML list");
    entries = 0;
    for (XmlListIterator item(details); item; ++item) {
        auto const entry = item.getXmlList();
        auto known = item.name() == QLatin1String("Entry") && entry.contains("Path");
        for (XmlListIterator value(entry); value && known; ++value)
            known = value.name() == QLatin1String("Path") ||
                    value.name() == QLatin1String("Directory") ||
                    value.name() == QLatin1String("LiveOnly");
        ++entries;
        if (!known)
            throw CommandFailure(
                ExitCode::Failed,
                QStringLiteral("item %1 of %2 is no \"Entry\" list with a \"Path\" "
                               "and nothing but \"Directory\" and \"LiveOnly\"")
                    .arg(entries)
                    .arg(path));
    }
    return details;
}

/// Names that a snapshot would show.
struct Names {
    std::uint64_t directories;
    std::uint64_t files;

    explicit Names(Replication::Store const& store)
        : directories(store.control().counters()[0]), files(store.control().counters()[1]) {}
};

void exclude(CommandLine& line, Arguments const& given) {
    Stopwatch const watch;
    std::uint32_t entries = 0;
    auto const details = readDetails(argumentText(given.details), entries);
    Root root(line.output);
    // A store that isn't there is made if it is told what it will hold.
    auto named = given.store;
    if (!named.source)
        named.store = encodePosixText(root.source(argumentText(named.store)).name).toStdString();
    FedStore const fed(root, named, argumentText(named.source.value_or("")));
    auto const& source = fed.source();
    auto sink = root.sink(source);
    auto store = root.store(source);
    Names const before(*store);
    auto const applied = sink->exclude(Extent(details.toBinary()));
    if (!applied)
        throw commandFailure(
            "not all that is stored could be brought in line with the entries, and "
            "nothing was changed",
            applied);
    auto const saved = sink->handleShutdown();
    sink.reset();
    if (!saved)
        throw commandFailure("the state of the store " + source.name + " can't be saved", saved);
    Names const after(*store);
    store.reset();
    root.drain(false);
    root.finish();
    line.output.summary(
        QStringLiteral("%1 entries in force; the next snapshot has %2 files and %3 directories, "
                       "instead of %4 and %5; %6 s")
            .arg(entries)
            .arg(after.files)
            .arg(after.directories)
            .arg(before.files)
            .arg(before.directories)
            .arg(watch.seconds(), 0, 'f', 2),
        "exclude",
        {{"store", source.name},
         {"entries", jsonNumber(entries)},
         {"files", jsonNumber(after.files)},
         {"directories", jsonNumber(after.directories)},
         {"filesBefore", jsonNumber(before.files)},
         {"directoriesBefore", jsonNumber(before.directories)},
         {"seconds", watch.seconds()}});
}

} // namespace

void addExcludeCommand(CommandLine& line) {
    auto const given = std::make_shared<Arguments>();
    auto* exclude = line.app.add_subcommand(
        "exclude", "Says what is not stored, or stored without snapshots, and applies it");
    exclude->add_option("--store", given->store.store,
                        "Name of the store; the only one by default");
    addSourceOptions(*exclude, given->store);
    exclude->add_option("--details", given->details, "File with the entries")->required();
    exclude->callback([line, given]() mutable { Morva::exclude(line, *given); });
}

} // namespace Morva
