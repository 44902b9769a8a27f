#pragma once

#include "base/values/Extent.h"
#include "replication/common/log/LogEntry.h"
#include "replication/common/log/LogFrame.h"
#include "replication/common/log/LogHeader.h"
#include "replication/common/log/LogMarshalling.h"

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace Replication {

/// A finished log as two ranges that follow each other: all small parts, and a large trailing
/// buffer that was not copied. Valid until the builder changes.
struct LogExtents {
    Morva::Extent head;
    Morva::Extent data; ///< may be empty

    [[nodiscard]] std::uint64_t size() const { return std::uint64_t{head.size} + data.size; }
};

/// Makes logs. The values that logs of one source share (source, rules, process, rule set) are set
/// once; `begin` starts each log, the setters fill it, `encode` packs it or `LogEntry::build`
/// takes it. Strings and buffers are referenced until then and must stay valid.
///
/// Buffers are reused, so that making a log does not allocate. Not thread-safe.
class LogBuilder {
public:
    /// A trailing buffer of this size or more is handed on as a range of its own.
    static constexpr std::uint32_t separateSize = 4096;

    // Kept over `begin`.
    void source(QString const& machine) { header_.source(machine); }
    void rules(std::span<std::uint32_t const> ids);
    void process(std::string_view name) { process_.assign(name); }
    void ruleSet(std::uint32_t number) { frame_.ruleSet = number; }

    /// Starts a log with the type, all values empty, time, flags and shc 0.
    LogBuilder& begin(LogType type, std::uint64_t sequenceNumber);
    LogBuilder& flags(std::uint32_t value);
    /// Seconds since the epoch, UTC.
    LogBuilder& time(std::uint32_t value);
    LogBuilder& shc(std::uint64_t value);

    /// Sets a value of the body, 32 or 64 bits wide. A field that the type hasn't got is a bug:
    /// it is traced and ignored. So in the next three.
    LogBuilder& number(LogField field, std::uint64_t value);
    /// Bytes without zeros.
    LogBuilder& text(LogField field, std::string_view value);
    LogBuilder& bytes(LogField field, Morva::Extent const& value);
    /// `field` is File or To, whichever the type has.
    LogBuilder& path(LogField field, LogPath const& value);

    [[nodiscard]] LogType type() const { return static_cast<LogType>(frame_.type); }
    [[nodiscard]] std::uint64_t sequenceNumber() const { return frame_.sequenceNumber; }
    /// Header and body. Empty when the body would exceed `LogLayout::maximumBodySize`.
    [[nodiscard]] LogExtents encode();

    /// Bytes of the body, all streams together.
    [[nodiscard]] std::uint64_t bodySize() const;
    /// The trailing buffer if the type's last value is one, else empty.
    [[nodiscard]] Morva::Extent trailing() const;
    /// Writes the body without its trailing buffer; `destination` has room for `bodySize` less
    /// that buffer's size. Returns the end of what it wrote.
    std::uint8_t* writeHead(std::uint8_t* destination) const;
    [[nodiscard]] std::uint32_t ruleCount() const {
        return static_cast<std::uint32_t>(rules_.size());
    }

private:
    [[nodiscard]] LogSlot slot(LogField field) const;
    [[nodiscard]] bool trailingIsBuffer() const;

    LogFrame frame_;
    LogShape const* shape_ = nullptr;
    std::vector<std::uint32_t> rules_;
    std::string process_;
    LogHeader header_;
    std::vector<std::uint8_t> head_;
};

} // namespace Replication
