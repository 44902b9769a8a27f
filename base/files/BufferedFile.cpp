#include "base/files/BufferedFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Morva {

BufferedFile::BufferedFile(std::uint32_t bufferSize)
    : bufferSize_(std::max<std::uint32_t>(bufferSize, 1)) {}

BufferedFile::~BufferedFile() {
    (void)close(); // traced by the file, and nobody is left to tell
}

Status BufferedFile::open(QString const& name, RawFile::Mode mode) {
    if (file_) {
        lastError_ = EBUSY;
        return Status::fromErrno(EBUSY, "open", name);
    }
    auto file = RawFile::make();
    if (auto status = file->open(name, mode); !status) {
        lastError_ = file->lastError();
        return status;
    }
    file_ = std::move(file);
    start_ = position_ = 0;
    filled_ = 0;
    return {};
}

Status BufferedFile::close() {
    if (!file_)
        return {};
    lastError_ = file_->lastError();
    auto status = file_->close();
    file_.reset();
    filled_ = 0;
    return status;
}

Result<std::uint32_t> BufferedFile::read(void* buffer, std::uint32_t count) {
    if (!file_)
        return Status::fromErrno(EBADF, "read", {});
    auto* const to = static_cast<std::uint8_t*>(buffer);
    std::uint64_t position = position_;
    std::uint32_t done = 0;
    while (done < count) {
        std::uint32_t const wanted = count - done;
        std::uint32_t got = 0;
        if (position >= start_ && position - start_ < filled_) {
            auto const skip = static_cast<std::uint32_t>(position - start_);
            got = std::min(wanted, filled_ - skip);
            std::memcpy(to + done, buffer_.data() + skip, got);
        } else if (wanted >= bufferSize_) {
            MORVA_TRY_LET(got, file_->readAt(position, to + done, wanted));
            count = done + got; // short is the end
        } else {
            buffer_.resize(bufferSize_);
            start_ = position;
            filled_ = 0;
            MORVA_TRY_LET(filled_, file_->readAt(position, buffer_.data(), bufferSize_));
            if (filled_ == 0)
                break;
            continue;
        }
        done += got;
        position += got;
    }
    position_ = position;
    return done;
}

Status BufferedFile::setPosition(std::int64_t offset, RawFile::Where from) {
    if (!file_ || offset < 0 || from != RawFile::Where::Start) {
        lastError_ = file_ ? EINVAL : EBADF;
        return Status::fromErrno(static_cast<int>(lastError_), "set position of",
                                 file_ ? file_->name() : QString());
    }
    position_ = static_cast<std::uint64_t>(offset);
    return {};
}

Result<std::uint64_t> BufferedFile::length() const {
    return file_ ? file_->length() : Result<std::uint64_t>(std::uint64_t{0});
}

bool BufferedFile::deleteOnClose() {
    return file_ && file_->deleteOnClose();
}

std::uint32_t BufferedFile::lastError() const {
    std::uint32_t const error = file_ ? file_->lastError() : 0;
    return error ? error : lastError_;
}

} // namespace Morva
