#include "base/files/BufferedFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Morva {

BufferedFile::BufferedFile(std::uint32_t bufferSize)
    : bufferSize_(std::max<std::uint32_t>(bufferSize, 1)) {}

BufferedFile::~BufferedFile() {
    close();
}

bool BufferedFile::open(QString const& name, RawFile::Mode mode) {
    if (file_) {
        lastError_ = EBUSY;
        return false;
    }
    auto file = RawFile::make();
    if (!file->open(name, mode)) {
        lastError_ = file->lastError();
        return false;
    }
    file_ = std::move(file);
    start_ = position_ = 0;
    filled_ = 0;
    return true;
}

void BufferedFile::close() {
    if (!file_)
        return;
    lastError_ = file_->lastError();
    file_->close();
    file_.reset();
    filled_ = 0;
}

std::uint32_t BufferedFile::read(void* buffer, std::uint32_t count) {
    if (!file_)
        return 0;
    auto* const to = static_cast<std::uint8_t*>(buffer);
    std::uint32_t done = 0;
    while (done < count) {
        std::uint32_t const wanted = count - done;
        if (position_ >= start_ && position_ - start_ < filled_) {
            auto const skip = static_cast<std::uint32_t>(position_ - start_);
            std::uint32_t const got = std::min(wanted, filled_ - skip);
            std::memcpy(to + done, buffer_.data() + skip, got);
            done += got;
            position_ += got;
            continue;
        }
        if (wanted >= bufferSize_) {
            std::uint32_t const got = file_->readAt(position_, to + done, wanted);
            position_ += got;
            return done + got;
        }
        buffer_.resize(bufferSize_);
        start_ = position_;
        filled_ = file_->readAt(position_, buffer_.data(), bufferSize_);
        if (filled_ == 0)
            break;
    }
    return done;
}

bool BufferedFile::setPosition(std::int64_t offset, RawFile::Where from) {
    if (!file_ || offset < 0 || from != RawFile::Where::Start) {
        lastError_ = file_ ? EINVAL : EBADF;
        return false;
    }
    position_ = static_cast<std::uint64_t>(offset);
    return true;
}

std::uint64_t BufferedFile::length() const {
    return file_ ? file_->length() : 0;
}

bool BufferedFile::deleteOnClose() {
    return file_ && file_->deleteOnClose();
}

std::uint32_t BufferedFile::lastError() const {
    std::uint32_t const error = file_ ? file_->lastError() : 0;
    return error ? error : lastError_;
}

} // namespace Morva
