#include "replication/repository/store/SnapshotRequests.h"

#include "base/files/RawFile.h"
#include "base/values/LittleEndian.h"

#include <optional>
#include <utility>
#include <vector>

namespace Replication {

using Morva::loadLittle;
using Morva::RawFile;
using Morva::Status;

namespace {

constexpr std::uint32_t magic = 0x5152534D;
constexpr std::uint32_t version = 1;
constexpr std::uint32_t headerSize = 12;
constexpr std::uint32_t recordSize = 12;
/// No store has more requests than this file can hold; a longer one is damage.
constexpr std::uint64_t maximumSize = 64u << 20;

void append(QByteArray& bytes, std::uint32_t value) {
    auto const at = bytes.size();
    bytes.resize(at + 4);
    Morva::storeLittle(bytes.data() + at, value);
}

std::optional<SnapshotRequests::Reasons> decode(QByteArray const& bytes) {
    auto const size = static_cast<std::uint64_t>(bytes.size());
    auto const word = [&](std::uint64_t at) {
        return loadLittle<std::uint32_t>(bytes.data() + at);
    };
    if (size < headerSize || word(0) != magic || word(4) != version)
        return {};
    SnapshotRequests::Reasons result;
    std::uint64_t at = headerSize;
    for (std::uint32_t left = word(8); left != 0; --left) {
        if (size - at < recordSize)
            return {};
        auto const kind = word(at + 4);
        auto const length = word(at + 8);
        if (kind < 1 || kind > 2 || length > SnapshotRequests::maximumReason ||
            size - at - recordSize < length)
            return {};
        result[{Instance{word(at)}, static_cast<SnapshotRequests::Kind>(kind)}] =
            QString::fromUtf8(bytes.mid(static_cast<qsizetype>(at + recordSize), length));
        at += recordSize + length;
    }
    if (at != size)
        return {};
    return result;
}

} // namespace

Status SnapshotRequests::read(QString const& directory) {
    path_ = directory + QLatin1Char('/') + fileName();
    requests_.clear();
    auto file = RawFile::make();
    MORVA_TRY(file->open(path_, RawFile::Mode::ReadOnly));
    auto const damaged = [this] {
        return Status::corruption("read", path_, QStringLiteral("it is no list of requests"));
    };
    MORVA_TRY_LET(std::uint64_t const length, file->length());
    if (length > maximumSize)
        return damaged();
    QByteArray bytes(static_cast<qsizetype>(length), Qt::Uninitialized);
    MORVA_TRY_LET(auto const got,
                  file->readAt(0, bytes.data(), static_cast<std::uint32_t>(length)));
    auto requests = got == length ? decode(bytes) : std::nullopt;
    if (!requests)
        return damaged();
    requests_ = std::move(*requests);
    return {};
}

Status SnapshotRequests::replace(QString const& directory, Reasons requests) {
    path_ = directory + QLatin1Char('/') + fileName();
    requests_ = std::move(requests);
    return write();
}

Status SnapshotRequests::put(Key key, QString const& reason) {
    auto const cut = QString::fromUtf8(reason.toUtf8().left(maximumReason));
    auto const at = requests_.find(key);
    if (at != requests_.end() && at->second == cut)
        return {};
    Reasons changed = requests_;
    changed[key] = cut;
    return change(std::move(changed));
}

Status SnapshotRequests::add(Key key) {
    return contains(key) ? Status() : put(key);
}

Status SnapshotRequests::remove(Key key) {
    if (!contains(key))
        return {};
    Reasons changed = requests_;
    changed.erase(key);
    return change(std::move(changed));
}

Status SnapshotRequests::change(Reasons changed) {
    std::swap(requests_, changed);
    Status outcome = write();
    if (!outcome)
        requests_ = std::move(changed);
    return outcome;
}

Status SnapshotRequests::write() const {
    QByteArray bytes;
    append(bytes, magic);
    append(bytes, version);
    append(bytes, static_cast<std::uint32_t>(requests_.size()));
    for (auto const& [key, reason] : requests_) {
        // Cutting the text can have split a character, which then takes more bytes than before.
        auto const text = reason.toUtf8().left(maximumReason);
        append(bytes, key.instance.value);
        append(bytes, static_cast<std::uint32_t>(key.kind));
        append(bytes, static_cast<std::uint32_t>(text.size()));
        bytes += text;
    }
    // A write that fails leaves no sound file, and then the headers tell.
    auto file = RawFile::make();
    MORVA_TRY(file->create(path_, RawFile::Mode::Create));
    return file->writeAt(0, bytes.constData(), static_cast<std::uint32_t>(bytes.size()));
}

} // namespace Replication
