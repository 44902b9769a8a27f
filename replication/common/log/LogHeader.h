#pragma once

#include "base/values/PackBuffer.h"
#include "replication/common/log/LogIo.h"

#include <QString>

#include <cstdint>
#include <vector>

class QIODevice;

namespace Replication {

/// The outer header of a log: enough to route and sequence it without reading its body.
///
/// Packed with `PackBuffer`; the record starts at the magic, so alignment counts from there. All
/// integers little-endian.
///
///  off  size  field       meaning
///    0     4  size        bytes that follow this field; 12 at least
///    4     4  magic       0xDEF345AD
///    8     4  type        1001 or 1002; the rest depends on it
///
///  type 1001, the header of a log:
///   12     4  count       of rule ids
///   16    4n  ruleIds
///   then   8  sequenceNumber
///          s  source      name of the source machine
///          4  bodySize    bytes of log body directly behind the header
///          4  end magic   0x54DEAD3F
///
///  type 1002, a notification without a body:
///   12     s  name        the text that it carries
///   then   4  end magic   0x54DEAD3F
///
/// Not thread-safe. Receiving again into the same object does not allocate once its buffers have
/// grown and while the source's name stays the same.
class LogHeader {
public:
    enum Type : std::uint32_t { Log = 1001, Notification = 1002 };
    static constexpr std::uint32_t startMagic = 0xDEF345AD;
    static constexpr std::uint32_t endMagic = 0x54DEAD3F;
    static constexpr std::uint32_t minimumSize = 12;
    /// A larger announced size is taken for damage and nothing is allocated for it.
    static constexpr std::uint32_t maximumSize = 1U << 20;

    /// A header of type `Log` with no rule ids, sequence number 0, empty strings, body size 0.
    LogHeader() = default;

    /// Reads one header. False on failure, which has been traced; the fields are then undefined
    /// and the stream is broken.
    [[nodiscard]] bool receive(LogIoRead const& source);

    /// Appends the packed header.
    void send(QByteArray& buffer);
    /// False on failure, which has been traced.
    [[nodiscard]] bool write(QIODevice& file);
    [[nodiscard]] bool write(Morva::RawFile& file);
    /// The packed header, valid until the next call on this object.
    [[nodiscard]] Morva::Extent packed();

    [[nodiscard]] std::uint32_t type() const { return type_; }
    [[nodiscard]] std::vector<std::uint32_t> const& ruleIds() const { return ruleIds_; }
    [[nodiscard]] std::uint64_t sequenceNumber() const { return sequenceNumber_; }
    [[nodiscard]] QString const& source() const { return source_; }
    /// The text of a notification.
    [[nodiscard]] QString const& name() const { return name_; }
    [[nodiscard]] std::uint32_t bodySize() const { return bodySize_; }
    /// Bytes of the header and its body; known after a receive, send, write or packed.
    [[nodiscard]] std::uint64_t totalLength() const { return totalLength_; }

    void type(Type value) { type_ = value; }
    void ruleIds(std::vector<std::uint32_t> const& ids) { ruleIds_ = ids; }
    void ruleIds(std::uint32_t const* ids, std::uint32_t count) {
        ruleIds_.assign(ids, ids + count);
    }
    void sequenceNumber(std::uint64_t value) { sequenceNumber_ = value; }
    void source(QString const& value) { source_ = value; }
    void name(QString const& value) { name_ = value; }
    void bodySize(std::uint32_t value) { bodySize_ = value; }

private:
    [[nodiscard]] bool decode(std::uint8_t const* record, std::uint32_t size);
    [[nodiscard]] bool takeText(Morva::UnpackBuffer& unpack, QString& text);

    std::uint32_t type_ = Log;
    std::vector<std::uint32_t> ruleIds_;
    std::uint64_t sequenceNumber_ = 0;
    QString source_;
    QString name_;
    std::uint32_t bodySize_ = 0;
    std::uint64_t totalLength_ = 0;

    std::vector<std::uint8_t> buffer_;
    std::vector<char16_t> text_;
    Morva::PackBuffer pack_;
};

} // namespace Replication
