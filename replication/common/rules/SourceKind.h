#pragma once

#include <cstdint>
#include <optional>

namespace Replication {

class DisRules;
class ReplayStream;

/// What feeds a store: it decides how logs are replayed and how names compare.
enum class SourceKind { Posix, Windows, Exchange };

/// By the stream's rules: policies of filter type 2 are those of a mail store; else an "OsType"
/// that begins with "Win" is that of a Windows machine, and any other of a POSIX one.
[[nodiscard]] SourceKind sourceKind(ReplayStream const& stream);
/// The same for a replay id of a rule set; nothing when the set has no such stream.
[[nodiscard]] std::optional<SourceKind> sourceKind(DisRules const& rules, std::uint32_t replayId);
/// Whether names that differ only in case are different names.
[[nodiscard]] constexpr bool caseSensitive(SourceKind kind) {
    return kind == SourceKind::Posix;
}

} // namespace Replication
