#include "replication/common/log/LogIo.h"

#include "base/trace/Trace.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <unistd.h>

namespace Replication {

namespace {

std::int32_t checked(std::uint32_t got, std::uint32_t length, char const* text) {
    if (got != length)
        MORVA_TRACE(Always) << text << got << "of" << length << "bytes";
    return static_cast<std::int32_t>(
        std::min<std::uint32_t>(got, std::numeric_limits<std::int32_t>::max()));
}

constexpr char const* readFailed = "Failed to read the data";

} // namespace

std::int32_t LogIoReadBuffer(void* source, void* destination, std::uint32_t length) {
    auto& extent = *static_cast<Morva::Extent*>(source);
    std::uint32_t const taken = std::min(length, extent.available);
    if (taken)
        std::memcpy(destination, extent.bytes() + (extent.size - extent.available), taken);
    extent.available -= taken;
    return checked(taken, length, "Failed to get buffer from message");
}

std::int32_t LogIoReadQFile(void* source, void* destination, std::uint32_t length) {
    qint64 const got = static_cast<QFile*>(source)->read(static_cast<char*>(destination), length);
    if (got < 0) {
        MORVA_TRACE(Always) << readFailed << static_cast<QFile*>(source)->errorString();
        return -1;
    }
    return checked(static_cast<std::uint32_t>(got), length, readFailed);
}

std::int32_t LogIoReadRawFile(void* source, void* destination, std::uint32_t length) {
    auto const got = static_cast<Morva::RawFile*>(source)->read(destination, length);
    if (!got) {
        MORVA_TRACE(Always) << readFailed << got.status().text();
        return -1;
    }
    return checked(*got, length, readFailed);
}

std::int32_t LogIoReadAhead(void* source, void* destination, std::uint32_t length) {
    auto& ahead = *static_cast<LogReadAhead*>(source);
    return checked(ahead.read(static_cast<std::uint8_t*>(destination), length), length, readFailed);
}

LogReadAhead::LogReadAhead(int descriptor, std::uint32_t capacity)
    : descriptor_(descriptor),
      buffer_(std::make_unique_for_overwrite<std::uint8_t[]>(capacity)),
      capacity_(capacity) {}

LogReadAhead::LogReadAhead(Morva::RawFile& file, std::uint32_t capacity)
    : file_(&file),
      buffer_(std::make_unique_for_overwrite<std::uint8_t[]>(capacity)),
      capacity_(capacity) {}

std::uint32_t LogReadAhead::readSource(std::uint8_t* destination, std::uint32_t length) {
    if (file_) {
        auto const got = file_->read(destination, length);
        if (got)
            return *got;
        lastError_ = got.status().error() != 0 ? got.status().error() : EIO;
        return 0;
    }
    ssize_t got;
    do
        got = ::read(descriptor_, destination, length);
    while (got < 0 && errno == EINTR);
    if (got < 0) {
        lastError_ = errno;
        return 0;
    }
    return static_cast<std::uint32_t>(got);
}

bool LogReadAhead::fill() {
    begin_ = 0;
    end_ = readSource(buffer_.get(), capacity_);
    return end_ != 0;
}

bool LogReadAhead::atEnd() {
    return begin_ == end_ && !fill();
}

std::uint32_t LogReadAhead::read(std::uint8_t* destination, std::uint32_t length) {
    std::uint32_t done = 0;
    while (done < length) {
        std::uint32_t const wanted = length - done;
        if (begin_ != end_) {
            std::uint32_t const taken = std::min(wanted, end_ - begin_);
            std::memcpy(destination + done, buffer_.get() + begin_, taken);
            begin_ += taken;
            done += taken;
        } else if (wanted >= capacity_) {
            std::uint32_t const got = readSource(destination + done, wanted);
            done += got;
            if (got == 0)
                break;
        } else if (!fill()) {
            break;
        }
    }
    position_ += done;
    return done;
}

} // namespace Replication
