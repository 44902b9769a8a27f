#pragma once

#include "base/values/Extent.h"
#include "replication/common/log/LogFrame.h"
#include "replication/common/log/LogIo.h"
#include "replication/common/log/LogMarshalling.h"
#include "replication/common/log/LogTypes.h"
#include "replication/common/values/FileTime.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

class QIODevice;

namespace Replication {

class LogBuilder;
class LogHeader;

/// The Windows path value of a log. Offsets are in bytes and never lie beyond their text.
struct LogPath {
    bool caseSensitive = false;
    std::string_view text;            ///< the full path in canonical case, UTF-8
    std::uint32_t filenameOffset = 0; ///< of the last name in `text`
    std::uint32_t streamOffset = 0;   ///< of the stream name in `text`; the file ends here
    std::string_view casePreserved;   ///< the last name as written, stream name behind it
    std::uint32_t casePreservedStreamOffset = 0; ///< in `casePreserved`; 0 = no preserved name
};

/// Which part of a log a decode takes.
enum class LogDecode : std::uint8_t {
    Whole,
    HeaderOnly, ///< the common part, rules and process; the body's values stay unread
    BodyOnly    ///< the rest, on a log of which the common part is decoded
};

/// One log: a decoded frame of 240 bytes, behind it a copy of the rule ids, behind that the
/// serialised body, all in one piece of memory that this object owns. Strings and buffers are
/// views into the serialised bytes and stay valid until the object changes or dies.
///
/// The memory is kept and used again by the next `receive` or `build`, so that an object reused
/// for many logs does not allocate. A log that is only read may be shared by threads.
class LogEntry {
public:
    LogEntry() = default;
    LogEntry(LogEntry const&) = delete;
    LogEntry& operator=(LogEntry const&) = delete;

    /// Reads and decodes one body, straight into this object's memory. `bodySize` is what the
    /// header says; a body of any other size is broken. False on failure, which has been traced
    /// and is told by `error`; the log is then empty. Nothing is allocated for sizes that the
    /// header doesn't bear out or that are beyond `LogLayout::maximumBodySize`. After a body that
    /// could be read but is damaged, the source stands behind that body.
    [[nodiscard]] bool receive(LogIoRead const& source, std::uint32_t bodySize,
                               LogDecode mode = LogDecode::Whole);
    [[nodiscard]] bool receive(LogIoRead const& source, LogHeader const& header,
                               LogDecode mode = LogDecode::Whole);
    /// Decodes again, as after a receive with `HeaderOnly`. False if the body is damaged.
    [[nodiscard]] bool decode(LogDecode mode);
    /// Takes the log that a builder holds. Data that `dataSpace` has already put in place is not
    /// copied. False if the log would be too large.
    [[nodiscard]] bool build(LogBuilder const& builder);
    /// Reserves memory for the builder's log with a trailing buffer of up to `size` bytes and
    /// gives the place where that buffer will lie, so that a file can be read into it. The
    /// builder's other values must be set. Null when that would be too large.
    [[nodiscard]] std::uint8_t* dataSpace(LogBuilder const& builder, std::uint32_t size);

    /// Bytes of memory that the builder's log would take.
    [[nodiscard]] static std::uint64_t sizeOf(LogBuilder const& builder);

    /// 0 after a success. 1: the stream count could not be read; 2: it is out of range or the
    /// lengths could not be read; 3: stream 1 is too long or missing, or the lengths don't add up
    /// to the body size; i + 5: stream i could not be read; 4: the values are damaged.
    [[nodiscard]] std::uint32_t error() const { return error_; }

    /// Rewrites the log so that its rules are the ones it has and `rules` behind them. False, and
    /// nothing changed, when the log would become too large or is empty. Views become invalid.
    [[nodiscard]] bool addRules(std::span<std::uint32_t const> rules);

    /// The serialised body; empty for an empty log.
    [[nodiscard]] Morva::Extent body() const { return {body_, bodySize_}; }
    /// Appends the body.
    void send(QByteArray& buffer) const;
    /// Writes the body. False on failure, which has been traced.
    [[nodiscard]] bool writeBody(QIODevice& file) const;
    [[nodiscard]] bool writeBody(Morva::RawFile& file) const;
    /// Writes the header, after setting its type, rule ids, sequence number and body size to this
    /// log's, and then the body.
    [[nodiscard]] bool write(QIODevice& file, LogHeader& header) const;
    [[nodiscard]] bool write(Morva::RawFile& file, LogHeader& header) const;

    // The common part.
    [[nodiscard]] LogType type() const { return static_cast<LogType>(frame_->type); }
    [[nodiscard]] std::uint32_t flags() const { return frame_->flags; }
    [[nodiscard]] std::uint64_t sequenceNumber() const { return frame_->sequenceNumber; }
    /// Seconds since the epoch, UTC.
    [[nodiscard]] std::uint32_t time() const { return frame_->time; }
    [[nodiscard]] std::uint32_t ruleSet() const { return frame_->ruleSet; }
    [[nodiscard]] std::uint64_t shc() const { return frame_->shc; }
    [[nodiscard]] std::span<std::uint32_t const> rules() const;
    [[nodiscard]] std::string_view process() const { return frame_->process.text(); }

    // The body's values. A value that the type hasn't got, or has as another kind, is 0 or empty.
    [[nodiscard]] bool has(LogField field) const { return slot(field).present(); }
    [[nodiscard]] std::uint32_t number(LogField field) const;
    /// Values of 32 bits too.
    [[nodiscard]] std::uint64_t wide(LogField field) const;
    /// Raw bytes without the terminating zero; they hold no other zero byte.
    [[nodiscard]] std::string_view text(LogField field) const;
    /// Null and 0 for an empty buffer.
    [[nodiscard]] Morva::Extent bytes(LogField field) const;

    [[nodiscard]] std::uint32_t fileId() const { return number(LogField::FileId); }
    [[nodiscard]] std::string_view file() const { return text(LogField::File); }
    [[nodiscard]] std::string_view from() const { return text(LogField::From); }
    [[nodiscard]] std::string_view to() const { return text(LogField::To); }
    [[nodiscard]] std::string_view eaName() const { return text(LogField::EaName); }
    [[nodiscard]] std::uint64_t offset() const { return wide(LogField::Offset); }
    [[nodiscard]] std::uint64_t length() const { return wide(LogField::Length); }
    [[nodiscard]] std::uint64_t size() const { return wide(LogField::Size); }
    [[nodiscard]] Morva::Extent data() const { return bytes(LogField::Data); }
    [[nodiscard]] std::uint32_t mode() const { return number(LogField::Mode); }
    [[nodiscard]] std::uint32_t uid() const { return number(LogField::Uid); }
    [[nodiscard]] std::uint32_t gid() const { return number(LogField::Gid); }
    [[nodiscard]] std::uint64_t device() const { return wide(LogField::Device); }
    [[nodiscard]] std::uint32_t accessTime() const { return number(LogField::AccessTime); }
    [[nodiscard]] std::uint32_t modificationTime() const {
        return number(LogField::ModificationTime);
    }
    [[nodiscard]] std::uint32_t changeTime() const { return number(LogField::ChangeTime); }
    /// What the words of the times can't hold; nothing when the log doesn't bring it.
    [[nodiscard]] std::optional<FileTimes> exactTimes() const {
        return FileTimes::unpack(bytes(LogField::ExactTimes));
    }
    /// The FLAGS of the body; `flags()` are the log's.
    [[nodiscard]] std::uint32_t bodyFlags() const { return number(LogField::Flags); }
    [[nodiscard]] std::uint32_t targetRuleCount() const {
        return number(LogField::TargetRuleCount);
    }
    /// The path value of a Windows log, whether it is FILE or TO.
    [[nodiscard]] LogPath path() const;
    /// The path that the log is about: FILE of a create, reopen or write by path, TO of a rename;
    /// empty for other types.
    [[nodiscard]] std::string_view fileText() const;

    /// The two lines of the trace, parted by a newline (one line for a type without text form).
    /// Control characters in names are shown as \xNN, so that a name can't forge a line.
    [[nodiscard]] std::string toText() const;
    /// The first line, and the second with "HEADER ONLY".
    [[nodiscard]] std::string headerText() const;

    /// Bytes of memory held, used or not.
    [[nodiscard]] std::uint32_t capacity() const { return capacity_; }
    /// Bytes of memory that this log takes: frame, rule ids, serialised body.
    [[nodiscard]] std::uint32_t usedSize() const { return used_; }
    /// Gives the memory back; the log is empty.
    void release();

private:
    [[nodiscard]] LogSlot slot(LogField field) const { return logSlot(frame_->type, field); }

    static LogFrame const emptyFrame;

    struct Table;

    [[nodiscard]] bool fail(std::uint32_t error, char const* text);
    void clear();
    void reserve(std::uint64_t size);
    void place(std::uint32_t rulesSize, std::uint32_t bodySize);
    [[nodiscard]] bool readTable(LogIoRead const& source, std::uint32_t bodySize, Table& table,
                                 std::uint32_t& consumed);
    [[nodiscard]] bool readStreams(LogIoRead const& source, Table const& table);
    [[nodiscard]] bool decodeCommon(LogFrame& frame);
    [[nodiscard]] bool decodeValues(LogFrame& frame);

    /// At the start of the memory, or the empty frame.
    LogFrame const* frame_ = &emptyFrame;
    std::unique_ptr<std::uint8_t[]> memory_;
    std::uint8_t* body_ = nullptr;
    std::uint32_t bodySize_ = 0;
    std::uint32_t capacity_ = 0;
    std::uint32_t used_ = 0;
    std::uint32_t error_ = 0;
    bool valuesRead_ = false;
};

} // namespace Replication
