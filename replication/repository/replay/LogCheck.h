#pragma once

#include "replication/common/log/LogEntry.h"

#include <optional>
#include <string_view>

namespace Replication {

/// A value of a log that no store can hold, or that no source of its kind can have.
struct UnsupportedValue {
    std::string_view path; ///< of the log; empty for one on an open file
    char const* reason;    ///< about the path: "its name is longer than 255 bytes"
};

/// Looks at the values of a decoded log before anything is done with them: names and paths, sizes
/// and offsets, modes and types, names of streams and attributes. Nothing when a store can hold
/// them all. The names in a Windows log mean something only to their sink, which looks at them
/// itself. Costs a walk over the log's paths, and no allocation.
[[nodiscard]] std::optional<UnsupportedValue> unsupportedValue(LogEntry const& log);

} // namespace Replication
