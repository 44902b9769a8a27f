#include "peers/source/FileReader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace Replication {

namespace {

constexpr std::uint64_t diskUnit = 512; // of st_blocks
constexpr std::uint64_t adviseFrom = 256 * 1024;
constexpr std::size_t firstListSize = 1024;
constexpr std::size_t firstValueSize = 4096;

/// As many bytes as there are, up to `count`; fewer at the end of the file or before an error.
std::uint32_t readFully(int file, std::uint8_t* destination, std::uint32_t count,
                        std::uint64_t offset, int& error) {
    std::uint32_t done = 0;
    error = 0;
    while (done < count) {
        ssize_t const got =
            ::pread(file, destination + done, count - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            error = errno;
        if (got <= 0)
            break;
        done += static_cast<std::uint32_t>(got);
    }
    return done;
}

/// The next stretch of data at or behind `at`. False when only a hole is left. A file system that
/// can't tell, and a whole file, is one stretch.
bool nextData(int file, bool sparse, std::uint64_t& at, std::uint64_t size, std::uint64_t& end) {
    end = size;
    if (!sparse)
        return true;
    off_t const data = ::lseek(file, static_cast<off_t>(at), SEEK_DATA);
    if (data < 0)
        return errno != ENXIO;
    at = static_cast<std::uint64_t>(data);
    if (at >= size)
        return false;
    off_t const hole = ::lseek(file, data, SEEK_HOLE);
    if (hole > data)
        end = std::min(size, static_cast<std::uint64_t>(hole));
    return true;
}

} // namespace

LogOutcome FileReader::range(int file, ContentTarget& target, std::uint64_t& at,
                             std::uint64_t end) {
    while (at < end) {
        auto const want = static_cast<std::uint32_t>(std::min<std::uint64_t>(writeSize, end - at));
        std::uint8_t* const space = target.beginWrite(at, want);
        if (!space)
            return LogOutcome::SinkFailed;
        int error = 0;
        std::uint32_t const got = readFully(file, space, want, at, error);
        if (got > 0 && !target.endWrite(space, got))
            return LogOutcome::SinkFailed;
        at += got;
        bytes_ += got;
        if (error) {
            report(error, "read");
            return LogOutcome::Problem;
        }
        if (got < want)
            break;
    }
    return LogOutcome::Done;
}

LogOutcome FileReader::contents(int file, struct stat const& status, ContentTarget& target) {
    auto size = static_cast<std::uint64_t>(status.st_size);
    bool const sparse = static_cast<std::uint64_t>(status.st_blocks) * diskUnit < size;
    if (size >= adviseFrom)
        ::posix_fadvise(file, 0, 0, POSIX_FADV_SEQUENTIAL);
    LogOutcome outcome = LogOutcome::Done;
    std::uint64_t logged = 0; // where the logged contents end
    std::uint64_t at = 0;
    std::uint64_t end = 0;
    while (at < size && outcome == LogOutcome::Done) {
        if (!nextData(file, sparse, at, size, end)) {
            // A hole to the end, unless the file has become shorter since.
            struct stat now = {};
            if (::fstat(file, &now) == 0)
                size = std::clamp<std::uint64_t>(static_cast<std::uint64_t>(now.st_size), logged,
                                                 size);
            break;
        }
        std::uint64_t const start = at;
        outcome = range(file, target, at, end);
        if (at > start)
            logged = at;
        if (at < end)
            size = at;
    }
    if (outcome == LogOutcome::SinkFailed || logged == size)
        return outcome;
    return target.truncate(size) ? outcome : LogOutcome::SinkFailed;
}

/// The attribute calls, on a descriptor or on a path.
struct FileReader::AttributeSource {
    int file = -1;
    char const* path = nullptr;

    [[nodiscard]] ssize_t list(char* names, std::size_t size) const {
        return path ? ::llistxattr(path, names, size) : ::flistxattr(file, names, size);
    }
    [[nodiscard]] ssize_t get(char const* name, char* value, std::size_t size) const {
        return path ? ::lgetxattr(path, name, value, size) : ::fgetxattr(file, name, value, size);
    }
};

namespace {

/// Calls `read(buffer, size)` with a buffer that grows until all fits.
template <class Read> ssize_t readGrowing(std::vector<char>& buffer, std::size_t first, Read read) {
    if (buffer.size() < first)
        buffer.resize(first);
    for (;;) {
        ssize_t const got = read(buffer.data(), buffer.size());
        if (got >= 0 || errno != ERANGE)
            return got;
        ssize_t const needed = read(nullptr, 0);
        if (needed < 0)
            return needed;
        buffer.resize(std::max(buffer.size() * 2, static_cast<std::size_t>(needed)));
    }
}

} // namespace

LogOutcome FileReader::attributes(int file, Attribute const& attribute) {
    return attributes({.file = file}, attribute);
}

LogOutcome FileReader::attributes(int directory, char const* name, Attribute const& attribute) {
    // There is no call for a name in a directory; this path leads there however long the real one.
    std::string const source =
        directory == AT_FDCWD ? name : "/proc/self/fd/" + std::to_string(directory) + '/' + name;
    return attributes({.path = source.c_str()}, attribute);
}

LogOutcome FileReader::attributes(AttributeSource const& source, Attribute const& attribute) {
    ssize_t const listed = readGrowing(names_, firstListSize, [&](char* names, std::size_t size) {
        return source.list(names, size);
    });
    if (listed == 0)
        return LogOutcome::Done;
    if (listed < 0) {
        if (errno == ENOTSUP || errno == ENOSYS || errno == ENOENT) // or it is gone
            return LogOutcome::Done;
        report(errno, "list extended attributes");
        return LogOutcome::Problem;
    }
    sorted_.clear();
    for (char const* at = names_.data(); at < names_.data() + listed; at += std::strlen(at) + 1)
        sorted_.emplace_back(at);
    std::sort(sorted_.begin(), sorted_.end());
    LogOutcome outcome = LogOutcome::Done;
    for (std::string_view const name : sorted_) {
        ssize_t const size =
            readGrowing(value_, firstValueSize, [&](char* value, std::size_t room) {
                return source.get(name.data(), value, room);
            });
        if (size < 0) {
            if (errno == ENODATA || errno == ENOENT) // removed since it was listed
                continue;
            report(errno, "read extended attribute");
            outcome = LogOutcome::Problem;
            continue;
        }
        if (!attribute(name, {value_.data(), static_cast<std::uint32_t>(size)}))
            return LogOutcome::SinkFailed;
    }
    return outcome;
}

} // namespace Replication
