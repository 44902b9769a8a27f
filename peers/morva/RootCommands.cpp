#include "peers/morva/Commands.h"
#include "peers/morva/Root.h"
#include "peers/morva/SnapshotTree.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>

namespace Morva {

namespace {

void init(CommandLine& line) {
    if (line.output.root.isEmpty())
        throw CommandFailure(ExitCode::Usage, "say where with --root or MORVA_ROOT");
    Root::init(line.output.root);
    line.output.summary("made a repository at " + line.output.root, "init",
                        {{"root", line.output.root}});
}

/// Bytes of contents that are in use.
std::uint64_t usedData(Root& root) {
    XmlList pool;
    root.pool().statistics(pool);
    return pool.getXmlList(nullptr, "Streams").get("StreamsUsedStreamData", std::uint64_t{0});
}

void erase(CommandLine& line, QString const& name, bool deactivate) {
    Stopwatch const watch;
    Root root(line.output);
    auto const before = usedData(root);
    root.erase(name, deactivate);
    auto const after = usedData(root);
    root.finish();
    auto const freed = before - std::min(before, after);
    line.output.summary(
        QStringLiteral("the store %1 is gone, which freed %2 of contents, in %3 s")
            .arg(name, readableSize(freed))
            .arg(watch.seconds(), 0, 'f', 2),
        "erased",
        {{"store", name}, {"freedBytes", jsonNumber(freed)}, {"seconds", watch.seconds()}});
}

} // namespace

void addRootCommands(CommandLine& line) {
    line.app.add_subcommand("init", "Makes a repository")->callback([line]() mutable {
        init(line);
    });
    struct Arguments {
        std::string store;
        bool deactivate = false;
    };
    auto const given = std::make_shared<Arguments>();
    auto* const erasing = line.app.add_subcommand(
        "erase", "Erases a store with all its snapshots and what only it holds");
    erasing->add_option("store", given->store, "Name of the store")->required();
    erasing->add_flag("--deactivate", given->deactivate,
                      "Also a store that is active: take it out of the rules");
    erasing->callback(
        [line, given]() mutable { erase(line, argumentText(given->store), given->deactivate); });
}

} // namespace Morva
