#include "base/files/Journal.h"
#include "base/process/FixedPath.h"
#include "peers/morva/Commands.h"
#include "peers/morva/Root.h"

#include <CLI/CLI.hpp>

namespace Morva {

namespace {

void upgrade(CommandLine& line) {
    RootLock const lock(line.output.root, RootLock::Mode::Exclusive, line.output.wait);
    if (!FixedPath::setRoot(line.output.root))
        throw CommandFailure(ExitCode::Failed,
                             "the \"paths.cfg\" of " + line.output.root + " can't be read");
    auto const journal = Root::openJournal(Journal::Format::ToConvert);
    std::uint64_t files = 0;
    Status const converted = journal->convert([&](QString const& name) {
        Output::checkInterrupt();
        line.output.remark("reading " + name);
        ++files;
        return Status();
    });
    if (!converted)
        throw CommandFailure(ExitCode::Failed,
                             converted.text() + "; what is converted stays, repeat the command");
    line.output.summary(files == 0 ? QStringLiteral("the repository is in the newest format")
                                   : QStringLiteral("%1 files have got checksums").arg(files),
                        "upgrade", {{"files", jsonNumber(files)}});
}

} // namespace

void addUpgradeCommand(CommandLine& line) {
    auto* const command = line.app.add_subcommand(
        "upgrade", "Brings a repository of an older version to the newest format");
    command->callback([&line] { upgrade(line); });
}

} // namespace Morva
