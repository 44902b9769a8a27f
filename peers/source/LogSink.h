#pragma once

#include "replication/common/log/LogBuilder.h"

#include <cstdint>

namespace Replication {

/// Where a source's logs go. Used by one thread.
class LogSink {
public:
    virtual ~LogSink() = default;

    /// The place for the trailing buffer, at most `size` bytes, of the log that the builder holds
    /// and that the next `put` will hand over; its other values must be set. Reading a file into
    /// it saves a copy. Null when the sink has failed. Valid until the next `put`.
    [[nodiscard]] virtual std::uint8_t* dataSpace(LogBuilder const& builder,
                                                  std::uint32_t size) = 0;
    /// Takes the builder's log. False when the sink has failed; the source then stops.
    [[nodiscard]] virtual bool put(LogBuilder& builder) = 0;
    /// Brings all that was put on its way. False when anything of it failed.
    [[nodiscard]] virtual bool flush() = 0;
};

} // namespace Replication
