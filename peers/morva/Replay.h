#pragma once

#include "peers/morva/Output.h"
#include "peers/morva/Root.h"
#include "replication/common/log/LogHeader.h"
#include "replication/common/log/LogIo.h"
#include "replication/common/log/LogPool.h"

#include <QString>

#include <cstdint>
#include <memory>

namespace Morva {

/// Applies logs to one store through its sink, one after the other, on the calling thread.
class Replay {
public:
    struct Counts {
        std::uint64_t logs = 0;
        std::uint64_t bytes = 0;       ///< of log bodies
        std::uint64_t old = 0;         ///< passed over: the store has had them
        std::uint64_t failed = 0;      ///< with those that brought what can't be stored
        std::uint64_t unsupported = 0; ///< of those that failed: no store can hold what they bring
        std::uint64_t unknown = 0;     ///< of those applied, on files that aren't known to be open
        std::uint64_t lastNumber = 0;  ///< of the last log that was given
    };

    Replay(Root& root, Root::Source const& source, Output& output);

    /// Applies one log. One that doesn't fit the store is told and counted as failed. Throws
    /// `CommandFailure` when the store can't take logs any more; then what was applied since the
    /// last checkpoint is not to be kept.
    void apply(Replication::LogPointer const& log);
    /// Applies logs from a file or pipe, of that many bytes if it isn't 0, until its clean end or
    /// an interruption. The text of what else ended it: a torn log or a damaged header; empty if
    /// nothing did. What came before is applied. A damaged body is told and counted as failed, and
    /// the next log comes.
    [[nodiscard]] QString readAll(Replication::LogReadAhead& input, std::uint64_t size = 0);
    /// Saves the sink's state.
    void end();

    [[nodiscard]] Counts const& counts() const { return counts_; }
    /// The number of the last log that the store has taken.
    [[nodiscard]] std::uint64_t position() const { return sink_->position(); }
    /// The directory of the source that the store holds, as the rules in force have it.
    [[nodiscard]] QString const& sourceRoot() const { return sink_->sourceRoot(); }
    /// The paths of the store that the logs asked to be resynchronised, so far.
    [[nodiscard]] QSet<QString> const& resyncPaths() const { return sink_->resyncPaths(); }
    /// A whole tree has been applied: the store is level with its source.
    void levelWithSource();

private:
    void refuse(Replication::LogEntry const& log);
    void refuseDamaged(Replication::LogHeader const& header, std::uint64_t start);

    Root& root_;
    Output& output_;
    std::unique_ptr<Replication::Sink> sink_;
    Replication::LogPool pool_;
    std::uint64_t leftOut_ = 0; ///< by the sink
    Counts counts_;
};

} // namespace Morva
