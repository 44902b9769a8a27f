#pragma once

#include "peers/morva/Output.h"
#include "peers/source/LogMaker.h"
#include "peers/source/TreeLogger.h"

#include <string>

namespace Morva {

/// Options of a walk that tells the user of what it can't read, and ends when he interrupts it.
[[nodiscard]] Replication::TreeOptions treeOptions(Output const& output);

/// The logs of this machine, above those up to `position`. Throws `CommandFailure` when there is no
/// number left.
[[nodiscard]] Replication::LogSourceOptions logOptions(std::uint64_t position);

/// Throws `CommandFailure` when the walk had no beginning; its other ends are the caller's.
void checkRoot(Replication::TreeLogger::Result result, Replication::TreeLogger const& logger,
               std::string const& directory);

} // namespace Morva
