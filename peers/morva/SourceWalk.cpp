#include "peers/morva/SourceWalk.h"

#include "base/process/Context.h"
#include "peers/morva/ExitCode.h"
#include "peers/morva/SnapshotTree.h"

#include <cstring>
#include <limits>

namespace Morva {

using Replication::LogSourceOptions;
using Replication::TreeLogger;
using Replication::TreeOptions;

TreeOptions treeOptions(Output const& output) {
    TreeOptions options;
    options.problem = [&output](std::string_view path, int error, std::string_view what) {
        output.unreadable(
            {path.data(), static_cast<qsizetype>(path.size())},
            QString::fromUtf8(what.data(), static_cast<qsizetype>(what.size())) +
                (error != 0 ? QStringLiteral(": ") + std::strerror(error) : QString()));
    };
    options.stop = [] { return Output::interrupted.load(std::memory_order_relaxed); };
    return options;
}

LogSourceOptions logOptions(std::uint64_t position) {
    if (position == std::numeric_limits<std::uint64_t>::max())
        throw CommandFailure(ExitCode::Failed,
                             "the store has come to the last sequence number that there is: a new "
                             "store must take its place");
    LogSourceOptions options;
    options.source = Context::machineName().name();
    options.firstSequenceNumber = position + 1;
    return options;
}

void checkRoot(TreeLogger::Result result, TreeLogger const& logger, std::string const& directory) {
    if (result == TreeLogger::Result::NoRoot)
        throw CommandFailure(ExitCode::Failed, "can't open " + argumentText(directory) + ": " +
                                                   std::strerror(logger.rootError()));
}

} // namespace Morva
