#include "peers/morva/FedStore.h"

#include "peers/morva/SnapshotTree.h"

#include <CLI/CLI.hpp>

namespace Morva {

using Replication::SourceKind;

namespace {

/// What was said for a new store must fit one that is there.
void checkFits(Source const& source, FedStoreArguments const& given) {
    if (given.kind && *given.kind != source.kind)
        throw CommandFailure(ExitCode::Usage,
                             QStringLiteral("the store %1 is fed by a source of the kind %2")
                                 .arg(source.name, kindName(source.kind)));
    if (given.source && argumentText(*given.source) != source.sourceRoot)
        throw CommandFailure(ExitCode::Usage, QStringLiteral("the store %1 holds %2 of its source")
                                                  .arg(source.name, source.sourceRoot));
}

Source sourceFor(Root& root, FedStoreArguments const& given, QString const& sourceRoot) {
    auto const name = argumentText(given.store);
    if (root.hasSource(name)) {
        auto const& source = root.source(name);
        checkFits(source, given);
        return source;
    }
    auto const kind = given.kind.value_or(SourceKind::Posix);
    if (kind == SourceKind::Windows ? sourceRoot.isEmpty() : !sourceRoot.startsWith(u'/'))
        throw CommandFailure(ExitCode::Usage, "--source is no absolute path: " + sourceRoot);
    QStringList dedupExclude;
    for (auto const& suffix : given.dedupExclude)
        dedupExclude += argumentText(suffix);
    return root.addSource(name, sourceRoot, dedupExclude, kind);
}

} // namespace

void addStoreOption(CLI::App& command, FedStoreArguments& given) {
    command.add_option("--store", given.store, "Name of the store; made if it isn't there")
        ->required();
}

void addNoDedupOption(CLI::App& command, FedStoreArguments& given) {
    command
        .add_option("--no-dedup", given.dedupExclude,
                    "For a new store: an end of names that are not deduplicated; may be given "
                    "again")
        ->allow_extra_args(false)
        ->type_name("SUFFIX");
}

void addKindOption(CLI::App& command, std::optional<SourceKind>& kind, char const* help) {
    auto const set = [&kind](std::string const& name) {
        for (auto const each : {SourceKind::Posix, SourceKind::Windows, SourceKind::Exchange})
            if (name == kindName(each).toStdString())
                kind = each;
    };
    command.add_option_function<std::string>("--as", set, help)
        ->check(CLI::IsMember({"posix", "windows", "exchange"}))
        ->type_name("KIND");
}

void addSourceOptions(CLI::App& command, FedStoreArguments& given) {
    command.add_option("--source", given.source,
                       "For a new store: the directory of the source that it holds");
    addKindOption(command, given.kind, "For a new store: the kind of source that feeds it");
}

FedStore::FedStore(Root& root, FedStoreArguments const& given, QString const& sourceRoot)
    : root_(root), source_(sourceFor(root, given, sourceRoot)) {}

FedStore::~FedStore() {
    try {
        root_.forgetUnmade(source_.name);
    } catch (CommandFailure const&) {
        // The entry stays, of a store that is made at its first use. The command fails anyway.
    }
}

} // namespace Morva
