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
        std::uint64_t bytes = 0; ///< of log bodies
        std::uint64_t old = 0;   ///< passed over: the store has had them
        std::uint64_t failed = 0;
    };

    Replay(Root& root, Root::Source const& source, Output& output);

    /// Applies one log. Fails as a command when the store can't take logs any more.
    void apply(Replication::LogPointer const& log);
    /// Applies logs from a file or pipe until its clean end. The text of what ended it before that:
    /// a torn or damaged log; empty if nothing did. What came before is applied.
    [[nodiscard]] QString readAll(Replication::LogReadAhead& input);
    /// Saves the sink's state.
    void end();

    [[nodiscard]] Counts const& counts() const { return counts_; }
    /// The paths of the store that the logs asked to be resynchronised, so far.
    [[nodiscard]] QSet<QString> const& resyncPaths() const { return sink_->resyncPaths(); }
    /// A whole tree has been applied: the store is level with its source.
    void levelWithSource();

private:
    Root& root_;
    Output& output_;
    std::unique_ptr<Replication::Sink> sink_;
    Replication::LogPool pool_;
    Counts counts_;
};

} // namespace Morva
