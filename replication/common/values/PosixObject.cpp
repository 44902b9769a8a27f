#include "replication/common/values/PosixObject.h"

#include "base/values/LittleEndian.h"

namespace Replication {

using Morva::Extent;
using Morva::loadLittle;
using Morva::storeLittle;

namespace {

constexpr std::uint32_t plainVersion = 1;
constexpr std::uint32_t timedVersion = 2;

void appendNumber(QByteArray& record, std::uint32_t value) {
    char bytes[4];
    storeLittle<std::uint32_t>(bytes, value);
    record.append(bytes, sizeof bytes);
}

void appendCounted(QByteArray& record, QByteArray const& bytes) {
    appendNumber(record, static_cast<std::uint32_t>(bytes.size()));
    record.append(bytes);
}

/// Takes values from the front of a record; every take fails when too little is left.
class Cursor {
public:
    explicit Cursor(Extent const& record) : next_(record.bytes()), left_(record.size) {}

    [[nodiscard]] bool number(std::uint32_t& value) {
        if (left_ < 4)
            return false;
        value = loadLittle<std::uint32_t>(next_);
        advance(4);
        return true;
    }
    [[nodiscard]] bool counted(QByteArray& bytes) {
        std::uint32_t size = 0;
        if (!number(size) || size > left_)
            return false;
        bytes = QByteArray(reinterpret_cast<char const*>(next_), static_cast<qsizetype>(size));
        advance(size);
        return true;
    }

private:
    void advance(std::uint32_t count) {
        next_ += count;
        left_ -= count;
    }

    std::uint8_t const* next_;
    std::uint32_t left_;
};

} // namespace

QByteArray PosixSecurity::encode() const {
    auto const timed = times.known();
    QByteArray record(timed ? timedSize : packedSize, '\0');
    auto* bytes = record.data();
    storeLittle<std::uint32_t>(bytes, timed ? timedVersion : plainVersion);
    storeLittle<std::uint32_t>(bytes + 4, mode);
    storeLittle<std::uint32_t>(bytes + 8, uid);
    storeLittle<std::uint32_t>(bytes + 12, gid);
    storeLittle<std::uint64_t>(bytes + 16, device);
    if (timed)
        times.pack(bytes + packedSize);
    return record;
}

std::optional<PosixSecurity> PosixSecurity::decode(Extent const& record) {
    auto const* bytes = record.bytes();
    if (record.size < packedSize)
        return {};
    auto const version = loadLittle<std::uint32_t>(bytes);
    PosixSecurity result{loadLittle<std::uint32_t>(bytes + 4),
                         loadLittle<std::uint32_t>(bytes + 8),
                         loadLittle<std::uint32_t>(bytes + 12),
                         loadLittle<std::uint64_t>(bytes + 16),
                         {}};
    if (version == plainVersion)
        return result;
    auto const times = FileTimes::unpack({bytes + packedSize, record.size - packedSize});
    if (version != timedVersion || !times)
        return {};
    result.times = *times;
    return result;
}

QByteArray PosixAttributes::encode() const {
    QByteArray record;
    if (attributes_.empty())
        return record;
    appendNumber(record, plainVersion);
    appendNumber(record, static_cast<std::uint32_t>(attributes_.size()));
    for (auto const& [name, value] : attributes_) {
        appendCounted(record, name);
        appendCounted(record, value);
    }
    return record;
}

std::optional<PosixAttributes> PosixAttributes::decode(Extent const& record) {
    PosixAttributes result;
    if (record.size == 0)
        return result;
    Cursor cursor(record);
    std::uint32_t version = 0;
    std::uint32_t count = 0;
    if (!cursor.number(version) || version != plainVersion || !cursor.number(count))
        return {};
    for (; count > 0; --count) {
        QByteArray name;
        QByteArray value;
        if (!cursor.counted(name) || !cursor.counted(value))
            return {};
        result.attributes_.insert_or_assign(name, value);
    }
    return result;
}

} // namespace Replication
