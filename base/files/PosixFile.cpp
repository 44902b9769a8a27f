#include "base/files/PosixFile.h"

#include "base/trace/Trace.h"
#include "base/values/PosixText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace Morva {

namespace {

constexpr std::uint64_t largestOffset = std::numeric_limits<off_t>::max();
constexpr mode_t creationMode = 0600;

template <class Call> auto retried(Call call) {
    for (;;) {
        auto const result = call();
        if (result >= 0 || errno != EINTR)
            return result;
    }
}

bool inRange(std::uint64_t offset, std::uint64_t count) {
    return offset <= largestOffset && count <= largestOffset - offset;
}

} // namespace

PosixFile::~PosixFile() {
    close();
}

bool PosixFile::failed(char const* what, int error) {
    lastError_.store(static_cast<std::uint32_t>(error), std::memory_order_relaxed);
    if (error != ENOENT)
        MORVA_TRACE(Always) << what << name_ << TraceErrorCode{error};
    return false;
}

bool PosixFile::openWith(QByteArray const& path, QString const& name, Mode mode, int flags) {
    // A name with a zero byte would be cut there, and another file opened.
    if (isOpen() || path.contains('\0'))
        return failed("Failed to open file", EINVAL);
    name_ = name;
    int const access = mode == Mode::ReadOnly ? O_RDONLY : O_RDWR;
    int const descriptor = retried([&] {
        return ::open(path.constData(), access | flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY,
                      creationMode);
    });
    if (descriptor < 0)
        return failed("Failed to open file", errno);
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(descriptor);
        return failed("Failed to open file", S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    }
    if (mode == Mode::Random)
        ::posix_fadvise(descriptor, 0, 0, POSIX_FADV_RANDOM);
    descriptor_ = descriptor;
    position_ = 0;
    deleteOnClose_ = false;
    nameUnsynced_ = (flags & O_CREAT) != 0;
    lastError_.store(0, std::memory_order_relaxed);
    return true;
}

bool PosixFile::create(QString const& name, Mode mode) {
    Mode const writable = mode == Mode::ReadOnly ? Mode::ReadWrite : mode;
    return openWith(encodePosixText(name), name, writable, O_CREAT | O_TRUNC);
}

bool PosixFile::open(QString const& name, Mode mode) {
    return openWith(encodePosixText(name), name, mode, 0);
}

void PosixFile::close() {
    if (!isOpen())
        return;
    if (deleteOnClose_) {
        // Another file may have got the name since.
        QByteArray const path = encodePosixText(name_);
        struct stat mine {
        }, named{};
        if (::fstat(descriptor_, &mine) == 0 && ::lstat(path.constData(), &named) == 0 &&
            mine.st_dev == named.st_dev && mine.st_ino == named.st_ino &&
            ::unlink(path.constData()) != 0)
            failed("Failed to remove file", errno);
    }
    // Not tried again after EINTR: on Linux the descriptor is gone.
    ::close(descriptor_);
    descriptor_ = -1;
    deleteOnClose_ = false;
}

std::uint32_t PosixFile::read(void* buffer, std::uint32_t count) {
    std::uint32_t const done = readAt(static_cast<std::uint64_t>(position_), buffer, count);
    position_ += done;
    return done;
}

std::uint32_t PosixFile::write(void const* buffer, std::uint32_t count) {
    std::uint32_t const done = writeAt(static_cast<std::uint64_t>(position_), buffer, count);
    position_ += done;
    return done;
}

bool PosixFile::setPosition(std::int64_t offset, Where from) {
    if (!isOpen())
        return failed("Failed to set position of file", EBADF);
    if (offset < 0 || from != Where::Start)
        return failed("Failed to set position of file", EINVAL);
    position_ = offset;
    return true;
}

std::int64_t PosixFile::position() const {
    return position_;
}

std::uint32_t PosixFile::readAt(std::uint64_t offset, void* buffer, std::uint32_t count) {
    if (!inRange(offset, count)) {
        failed("Failed to read file", EINVAL);
        return 0;
    }
    std::uint32_t done = 0;
    while (done < count) {
        ssize_t const got = retried([&] {
            return ::pread(descriptor_, static_cast<std::uint8_t*>(buffer) + done, count - done,
                           static_cast<off_t>(offset + done));
        });
        if (got < 0)
            failed("Failed to read file", errno);
        if (got <= 0)
            break;
        done += static_cast<std::uint32_t>(got);
    }
    return done;
}

std::uint32_t PosixFile::writeAt(std::uint64_t offset, void const* buffer, std::uint32_t count) {
    if (!inRange(offset, count)) {
        failed("Failed to write file", EFBIG);
        return 0;
    }
    std::uint32_t done = 0;
    while (done < count) {
        ssize_t const put = retried([&] {
            return ::pwrite(descriptor_, static_cast<std::uint8_t const*>(buffer) + done,
                            count - done, static_cast<off_t>(offset + done));
        });
        if (put <= 0) {
            failed("Failed to write file", put < 0 ? errno : ENOSPC);
            break;
        }
        done += static_cast<std::uint32_t>(put);
    }
    return done;
}

bool PosixFile::grow(std::uint64_t from, std::uint64_t bytes) {
    int error = EINTR;
    while (error == EINTR)
        error = ::posix_fallocate(descriptor_, static_cast<off_t>(from),
                                  static_cast<off_t>(bytes - from));
    if (error == 0)
        return true;
    // Part of the space may have been taken before it ran out.
    if (retried([&] { return ::ftruncate(descriptor_, static_cast<off_t>(from)); }) != 0)
        failed("Failed to set length of file", errno);
    return failed("Failed to set length of file", error);
}

bool PosixFile::setLength(std::uint64_t bytes) {
    struct stat status {};
    if (::fstat(descriptor_, &status) != 0)
        return failed("Failed to set length of file", errno);
    if (bytes > largestOffset)
        return failed("Failed to set length of file", EFBIG);
    auto const now = static_cast<std::uint64_t>(status.st_size);
    if (bytes > now)
        return grow(now, bytes);
    if (bytes < now &&
        retried([&] { return ::ftruncate(descriptor_, static_cast<off_t>(bytes)); }) != 0)
        return failed("Failed to set length of file", errno);
    return true;
}

std::uint64_t PosixFile::length() const {
    struct stat status {};
    return ::fstat(descriptor_, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

void PosixFile::startSync() {
    (void)::sync_file_range(descriptor_, 0, 0, SYNC_FILE_RANGE_WRITE);
}

bool PosixFile::sync() {
    if (retried([&] { return ::fdatasync(descriptor_); }) != 0)
        return failed("Failed to sync file", errno);
    if (nameUnsynced_) {
        qsizetype const slash = name_.lastIndexOf(u'/');
        if (!syncDirectory(slash < 0 ? QStringLiteral(".")
                                     : name_.left(std::max(slash, qsizetype{1}))))
            return false;
        nameUnsynced_ = false;
    }
    return true;
}

std::unique_ptr<RawFile> PosixFile::threadFile(Mode mode) {
    if (!isOpen()) {
        failed("Failed to open file", EBADF);
        return nullptr;
    }
    // By descriptor and not by name, which may have changed. Without /proc a duplicate does, too:
    // the position is not the descriptor's.
    auto other = std::make_unique<PosixFile>();
    QByteArray const path = "/proc/self/fd/" + QByteArray::number(descriptor_);
    if (other->openWith(path, name_, mode, 0))
        return other;
    other->descriptor_ = ::fcntl(descriptor_, F_DUPFD_CLOEXEC, 0);
    if (!other->isOpen()) {
        failed("Failed to open file", errno);
        return nullptr;
    }
    return other;
}

bool PosixFile::deleteOnClose() {
    deleteOnClose_ = isOpen();
    return deleteOnClose_;
}

std::uint32_t PosixFile::lastError() const {
    return lastError_.load(std::memory_order_relaxed);
}

} // namespace Morva
