#pragma once

#include "replication/common/log/LogTypes.h"

#include <cstdint>
#include <span>

namespace Replication {

/// A value of a log body, by its meaning. Not every type has every value.
enum class LogField : std::uint8_t {
    FileId,
    File,
    From,
    To,
    SecondName,
    CaseSensitive,
    FilenameOffset,
    StreamOffset,
    CasePreserved,
    CasePreservedStreamOffset,
    Offset,
    Length,
    Size,
    Data,
    Mode,
    Uid,
    Gid,
    Device,
    AccessTime,
    ModificationTime,
    ChangeTime,
    ExactTimes,
    WindowsChangeTime,
    RawTime,
    Flags,
    WindowsAttributes,
    TargetRuleCount,
    EaName,
    OriginalTime,
    Exists,
    Security,
    Disposition,
    Attributes,
    Options,
    Further,
    Reserved,
    User,
    Extra1,
    Extra2,
    Extra3,
    Info,
    Owner,
    ControlCode,
    Status,
    VersionMajor,
    VersionMinor,
    Text,
    MessageType,
    Level,
    Message,
    Rule,
    OperationId,
    Policy,
    Operation,
    Trigger,
    Tag,
    Sque,
    ObjectPath,
    Stream,
    Count
};

/// How a value stands in the body: U32 and U64 in stream 1 without gaps, Text and Bytes each as
/// the next stream.
enum class LogKind : std::uint8_t { U32, U64, Text, Bytes };

/// How a value is printed; the label stands in the format itself.
enum class LogPrint : std::uint8_t {
    Hidden,
    Number,             ///< one %u or %llu
    Text,               ///< one %s
    SecurityDescriptor, ///< one %s; its length follows as SECLEN
    Sid,                ///< one %s
    Times               ///< one %s: FileTimes; nothing when the stream isn't there
};

struct LogValue {
    LogField field;
    LogKind kind;
    LogPrint print = LogPrint::Hidden;
    char const* format = "";
    /// A stream behind those that the type always has: one that is empty is left out, and one
    /// that isn't there is empty. Only as the last value, of kind Bytes.
    bool optional = false;
};

/// The marshalling of one log type: what encodes, decodes and prints it.
struct LogShape {
    LogType type;
    char const* name;
    std::span<LogValue const> values;
    bool printed = true;
};

/// The shapes of all types, in rising order of their numbers.
[[nodiscard]] std::span<LogShape const> logShapes();
/// Null for a type that isn't listed: such a log has the common part only.
[[nodiscard]] LogShape const* logShape(std::uint32_t type);
/// Where a value stands in a decoded frame: its kind, and which of the kind it is.
struct LogSlot {
    static constexpr std::uint8_t none = 0xFF;
    std::uint8_t code = none;

    [[nodiscard]] constexpr bool present() const { return code != none; }
    [[nodiscard]] constexpr bool is(LogKind kind) const {
        return code >> 4 == static_cast<std::uint8_t>(kind);
    }
    [[nodiscard]] constexpr std::uint8_t index() const { return code & 0x0F; }
};
/// Not present when the type hasn't got the field.
[[nodiscard]] LogSlot logSlot(std::uint32_t type, LogField field);

/// The layout of stream 1's common part, 32 bytes, and of the stream table.
///
///  off  size  field           printed as
///    0     4  type            PKT:
///    4     4  flags           FLAGS:
///    8     8  sequenceNumber  SEQ:
///   16     4  time            TIME:     seconds since the epoch, UTC
///   20     4  ruleSet         RULESET:
///   24     8  shc             SHC:      the source's handle counter
///
/// A body is: N as unsigned 32, then N stream lengths of 32 bits (the first is that of this table
/// itself, 4N + 4), then streams 1 to N-1 without gaps.
struct LogLayout {
    static constexpr std::uint32_t typeAt = 0;
    static constexpr std::uint32_t flagsAt = 4;
    static constexpr std::uint32_t sequenceNumberAt = 8;
    static constexpr std::uint32_t timeAt = 16;
    static constexpr std::uint32_t ruleSetAt = 20;
    static constexpr std::uint32_t shcAt = 24;
    static constexpr std::uint32_t commonSize = 32;

    static constexpr std::uint32_t fixedStream = 1;
    static constexpr std::uint32_t rulesStream = 2;
    static constexpr std::uint32_t processStream = 3;
    static constexpr std::uint32_t firstBodyStream = 4;

    static constexpr std::uint32_t minimumStreams = 2;
    static constexpr std::uint32_t maximumStreams = 63;
    static constexpr std::uint32_t maximumFixedSize = 256;
    /// A larger announced body is taken for damage and nothing is allocated for it.
    static constexpr std::uint32_t maximumBodySize = 64U << 20;

    [[nodiscard]] static constexpr std::uint32_t tableSize(std::uint32_t streams) {
        return 4 * streams + 4;
    }
};

} // namespace Replication
