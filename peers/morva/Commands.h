#pragma once

#include "peers/morva/ExitCode.h"
#include "peers/morva/Output.h"

namespace CLI {
class App;
}

namespace Morva {

/// Each adds its subcommands to the command line. A subcommand's callback sets `code` where it
/// ends with another result than `Done`, or throws `CommandFailure`.
struct CommandLine {
    CLI::App& app;
    Output& output;
    ExitCode& code;
};

void addRootCommands(CommandLine& line);       ///< init, erase
void addLogCommands(CommandLine& line);        ///< log, replay
void addReplicateCommand(CommandLine& line);   ///< replicate
void addExcludeCommand(CommandLine& line);     ///< exclude
void addSnapshotCommands(CommandLine& line);   ///< snapshot, snapshots, delete-snapshot, dedup
void addBrowseCommands(CommandLine& line);     ///< ls, cat, diff, versions, find
void addRestoreCommand(CommandLine& line);     ///< restore
void addCheckCommand(CommandLine& line);       ///< check
void addUpgradeCommand(CommandLine& line);     ///< upgrade
void addInspectCommand(CommandLine& line);     ///< inspect
void addStatisticsCommands(CommandLine& line); ///< stats, analyze

} // namespace Morva
