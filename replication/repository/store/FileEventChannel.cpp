#include "replication/repository/store/FileEventChannel.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"

#include <array>
#include <cstring>

namespace Replication {

using Morva::Extent;
using Morva::loadLittle;
using Morva::RawFile;
using Morva::storeLittle;
using Morva::TracedLock;

namespace {

constexpr std::uint32_t lengthSize = 4;

/// Length of the event at an offset; 0 if there is no whole one.
std::uint32_t eventAt(RawFile& file, std::uint64_t offset, std::uint64_t end) {
    std::array<std::uint8_t, lengthSize> bytes;
    if (end - offset < lengthSize || !file.readWhole(offset, bytes.data(), lengthSize))
        return 0;
    auto const length = loadLittle<std::uint32_t>(bytes.data());
    if (length > EventChannel::maximumEvent || length > end - offset - lengthSize)
        return 0;
    return length;
}

} // namespace

FileEventChannel::FileEventChannel(QString const& path) : file_(RawFile::make()) {
    if (!file_->open(path, RawFile::Mode::ReadWrite) &&
        !file_->create(path, RawFile::Mode::Create)) {
        MORVA_TRACE(Always) << "Failed to setup event channel" << path << file_->lastError();
        file_.reset();
        return;
    }
    auto const length = file_->length();
    if (!length) {
        MORVA_TRACE(Always) << "Failed to setup event channel" << path << file_->lastError();
        file_.reset();
        return;
    }
    while (std::uint32_t const event = eventAt(*file_, end_, *length))
        end_ += lengthSize + event;
    if (end_ != *length && !file_->setLength(end_))
        MORVA_TRACE(Always) << "Failed to cut a torn event off" << path;
}

FileEventChannel::~FileEventChannel() = default;

bool FileEventChannel::send(Extent const& event) {
    if (event.size > maximumEvent || event.size == 0) {
        MORVA_TRACE(Always) << "Event too large, maximum" << maximumEvent << "event" << event.size;
        return false;
    }
    std::array<std::uint8_t, lengthSize + maximumEvent> bytes;
    storeLittle<std::uint32_t>(bytes.data(), event.size);
    std::memcpy(bytes.data() + lengthSize, event.data, event.size);
    std::uint32_t const count = lengthSize + event.size;
    TracedLock lock(lock_);
    if (!file_ || !file_->writeAt(end_, bytes.data(), count)) {
        MORVA_TRACE(Always) << "Failed to send event";
        return false;
    }
    end_ += count;
    return true;
}

FileEventChannel::Reader::Reader(QString const& path) : file_(RawFile::make()) {
    if (!file_->open(path, RawFile::Mode::ReadOnly))
        file_.reset();
}

FileEventChannel::Reader::~Reader() = default;

std::optional<QByteArray> FileEventChannel::Reader::next() {
    auto const length = file_ ? file_->length() : std::uint64_t{0};
    std::uint32_t const count = length && *length != 0 ? eventAt(*file_, offset_, *length) : 0;
    if (count == 0)
        return {};
    QByteArray event(static_cast<qsizetype>(count), Qt::Uninitialized);
    if (!file_->readWhole(offset_ + lengthSize, event.data(), count))
        return {};
    offset_ += lengthSize + count;
    return event;
}

} // namespace Replication
