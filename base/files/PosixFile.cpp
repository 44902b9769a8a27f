#include "base/files/PosixFile.h"

#include "base/files/FileSystem.h"
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
    (void)close(); // traced there, and nobody is left to tell
}

Status PosixFile::failed(char const* operation, int error, Status::Place place) const {
    lastError_.store(static_cast<std::uint32_t>(error), std::memory_order_relaxed);
    if (error != ENOENT)
        MORVA_TRACE(Always) << "Failed to" << operation << "file" << name_ << TraceErrorCode{error};
    return Status::fromErrno(error, operation, name_, place);
}

Status PosixFile::openWith(QByteArray const& path, QString const& name, Mode mode, int flags) {
    if (isOpen())
        return failed("open", EINVAL);
    name_ = name;
    // A name with a zero byte would be cut there, and another file opened.
    if (path.contains('\0'))
        return failed("open", EINVAL);
    int const access = mode == Mode::ReadOnly ? O_RDONLY : O_RDWR;
    int const descriptor = retried([&] {
        return ::open(path.constData(), access | flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY,
                      creationMode);
    });
    if (descriptor < 0)
        return failed("open", errno);
    struct stat status {};
    int const error = ::fstat(descriptor, &status) != 0 ? errno
                      : S_ISREG(status.st_mode)         ? 0
                      : S_ISDIR(status.st_mode)         ? EISDIR
                                                        : EINVAL;
    if (error != 0) {
        ::close(descriptor);
        return failed("open", error);
    }
    if (mode == Mode::Random)
        ::posix_fadvise(descriptor, 0, 0, POSIX_FADV_RANDOM);
    descriptor_ = descriptor;
    position_ = 0;
    deleteOnClose_ = false;
    nameUnsynced_ = (flags & O_CREAT) != 0;
    lastError_.store(0, std::memory_order_relaxed);
    return {};
}

Status PosixFile::create(QString const& name, Mode mode) {
    Mode const writable = mode == Mode::ReadOnly ? Mode::ReadWrite : mode;
    return openWith(encodePosixText(name), name, writable, O_CREAT | O_TRUNC);
}

Status PosixFile::open(QString const& name, Mode mode) {
    return openWith(encodePosixText(name), name, mode, 0);
}

Status PosixFile::close() {
    if (!isOpen())
        return {};
    Status status;
    if (deleteOnClose_) {
        // Another file may have got the name since.
        QByteArray const path = encodePosixText(name_);
        struct stat mine {
        }, named{};
        if (::fstat(descriptor_, &mine) != 0)
            status = failed("remove", errno);
        else if (::lstat(path.constData(), &named) != 0)
            status = errno == ENOENT ? Status() : failed("remove", errno);
        else if (mine.st_dev == named.st_dev && mine.st_ino == named.st_ino &&
                 ::unlink(path.constData()) != 0)
            status = failed("remove", errno);
    }
    // Not tried again after EINTR: on Linux the descriptor is gone. What was written is safe by
    // `sync` alone, so there is nothing to learn from the result.
    ::close(descriptor_);
    descriptor_ = -1;
    deleteOnClose_ = false;
    return status;
}

Result<std::uint32_t> PosixFile::read(void* buffer, std::uint32_t count) {
    auto done = readAt(static_cast<std::uint64_t>(position_), buffer, count);
    if (done)
        position_ += *done;
    return done;
}

Status PosixFile::write(void const* buffer, std::uint32_t count) {
    auto status = writeAt(static_cast<std::uint64_t>(position_), buffer, count);
    if (status)
        position_ += count;
    return status;
}

Status PosixFile::setPosition(std::int64_t offset, Where from) {
    if (!isOpen() || offset < 0 || from != Where::Start)
        return failed("set position of", isOpen() ? EINVAL : EBADF);
    position_ = offset;
    return {};
}

std::int64_t PosixFile::position() const {
    return position_;
}

Result<std::uint32_t> PosixFile::readAt(std::uint64_t offset, void* buffer, std::uint32_t count) {
    if (!inRange(offset, count))
        return failed("read", EINVAL, {Status::Unit::Byte, offset});
    std::uint32_t done = 0;
    while (done < count) {
        ssize_t const got = retried([&] {
            return ::pread(descriptor_, static_cast<std::uint8_t*>(buffer) + done, count - done,
                           static_cast<off_t>(offset + done));
        });
        if (got < 0)
            return failed("read", errno, {Status::Unit::Byte, offset + done});
        if (got == 0)
            break;
        done += static_cast<std::uint32_t>(got);
    }
    return done;
}

Status PosixFile::writeAt(std::uint64_t offset, void const* buffer, std::uint32_t count) {
    if (!inRange(offset, count))
        return failed("write", EFBIG, {Status::Unit::Byte, offset});
    std::uint32_t done = 0;
    while (done < count) {
        ssize_t const put = retried([&] {
            return ::pwrite(descriptor_, static_cast<std::uint8_t const*>(buffer) + done,
                            count - done, static_cast<off_t>(offset + done));
        });
        if (put <= 0)
            return failed("write", put < 0 ? errno : ENOSPC, {Status::Unit::Byte, offset + done});
        done += static_cast<std::uint32_t>(put);
    }
    return {};
}

Status PosixFile::grow(std::uint64_t from, std::uint64_t bytes) {
    int error = EINTR;
    while (error == EINTR)
        error = ::posix_fallocate(descriptor_, static_cast<off_t>(from),
                                  static_cast<off_t>(bytes - from));
    if (error == 0)
        return {};
    // Part of the space may have been taken before it ran out.
    if (retried([&] { return ::ftruncate(descriptor_, static_cast<off_t>(from)); }) != 0)
        (void)failed("set length of", errno); // the reason of the caller's failure is `error`
    return failed("set length of", error);
}

Status PosixFile::setLength(std::uint64_t bytes) {
    MORVA_TRY_LET(auto const now, length());
    if (bytes > largestOffset)
        return failed("set length of", EFBIG);
    if (bytes > now)
        return grow(now, bytes);
    if (bytes < now &&
        retried([&] { return ::ftruncate(descriptor_, static_cast<off_t>(bytes)); }) != 0)
        return failed("set length of", errno);
    return {};
}

Result<std::uint64_t> PosixFile::length() const {
    struct stat status {};
    if (::fstat(descriptor_, &status) != 0)
        return failed("get length of", errno);
    return static_cast<std::uint64_t>(status.st_size);
}

void PosixFile::startSync() {
    (void)::sync_file_range(descriptor_, 0, 0, SYNC_FILE_RANGE_WRITE); // a hint; `sync` tells
}

Status PosixFile::sync() {
    if (retried([&] { return ::fdatasync(descriptor_); }) != 0)
        return failed("sync", errno);
    if (nameUnsynced_) {
        qsizetype const slash = name_.lastIndexOf(u'/');
        MORVA_TRY(FileSystem::disk().syncDirectory(
            slash < 0 ? QStringLiteral(".") : name_.left(std::max(slash, qsizetype{1}))));
        nameUnsynced_ = false;
    }
    return {};
}

Result<std::unique_ptr<RawFile>> PosixFile::threadFile(Mode mode) {
    if (!isOpen())
        return failed("open", EBADF);
    // By descriptor and not by name, which may have changed. Without /proc a duplicate does, too:
    // the position is not the descriptor's.
    auto other = std::make_unique<PosixFile>();
    QByteArray const path = "/proc/self/fd/" + QByteArray::number(descriptor_);
    if (!other->openWith(path, name_, mode, 0)) {
        other->descriptor_ = ::fcntl(descriptor_, F_DUPFD_CLOEXEC, 0);
        if (!other->isOpen())
            return failed("open", errno);
    }
    return std::unique_ptr<RawFile>(std::move(other));
}

bool PosixFile::deleteOnClose() {
    deleteOnClose_ = isOpen();
    return deleteOnClose_;
}

std::uint32_t PosixFile::lastError() const {
    return lastError_.load(std::memory_order_relaxed);
}

} // namespace Morva
