#include "peers/morva/ContentWriter.h"

#include "base/values/Sha1.h"
#include "replication/repository/streams/StreamHandle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

namespace Morva {

using Replication::Digest;
using Replication::StreamHandle;
using Replication::StreamInfo;

namespace {

bool writeAll(int file, std::uint8_t const* bytes, std::uint64_t count, std::uint64_t offset) {
    while (count > 0) {
        auto const done = ::pwrite(file, bytes, count, static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        bytes += done;
        offset += static_cast<std::uint64_t>(done);
        count -= static_cast<std::uint64_t>(done);
    }
    return true;
}

bool readAll(int file, std::uint8_t* bytes, std::uint64_t count, std::uint64_t offset) {
    while (count > 0) {
        auto const done = ::pread(file, bytes, count, static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        bytes += done;
        offset += static_cast<std::uint64_t>(done);
        count -= static_cast<std::uint64_t>(done);
    }
    return true;
}

/// The digest of content as it goes by from its first byte on, if the store knows what it has to
/// be. A hole ends it: hashing one could take for ever.
class DigestCheck {
public:
    explicit DigestCheck(StreamHandle& content) {
        StreamInfo info;
        content.info(info);
        if (info.digest.type != Digest::eRepDigestSha1)
            return;
        std::copy_n(info.digest.value.begin(), Digest::sha1Size, wanted_.begin());
        sha_.emplace();
    }

    void add(std::uint64_t offset, std::uint8_t const* bytes, std::uint32_t count) {
        if (!sha_)
            return;
        if (offset != next_)
            return sha_.reset();
        sha_->addData(bytes, count);
        next_ += count;
    }
    [[nodiscard]] bool differs(std::uint64_t length) {
        return sha_ && next_ == length &&
               std::memcmp(sha_->result().data, wanted_.data(), wanted_.size()) != 0;
    }

private:
    std::optional<Sha1> sha_;
    std::array<std::uint8_t, Digest::sha1Size> wanted_{};
    std::uint64_t next_ = 0;
};

std::uint32_t pieceOf(std::uint64_t start, std::uint64_t end) {
    return static_cast<std::uint32_t>(
        std::min<std::uint64_t>(end - start, ObjectWriter::Buffer::size));
}

/// Whether a stretch of a file reads as zeros, of which its holes are not looked at.
bool holdsZeros(int file, std::uint64_t start, std::uint64_t end, ObjectWriter::Buffer& buffer,
                ObjectWriter::Written const& goOn) {
    while (start < end) {
        auto const data = ::lseek(file, static_cast<off_t>(start), SEEK_DATA);
        if (data < 0)
            return errno == ENXIO;
        start = static_cast<std::uint64_t>(data);
        if (start >= end)
            return true;
        auto const count = pieceOf(start, end);
        auto const* const bytes = buffer.bytes();
        if (!readAll(file, buffer.bytes(), count, start) || !goOn(0) ||
            std::any_of(bytes, bytes + count, [](std::uint8_t byte) { return byte != 0; }))
            return false;
        start += count;
    }
    return true;
}

} // namespace

bool writeContent(int file, StreamHandle& content, ObjectWriter::Buffer& buffer,
                  ObjectWriter::Written const& written, WriteResult& result) {
    auto const length = content.length();
    DigestCheck digest(content);
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    std::uint64_t reached = 0;
    while (content.findData(start, end)) {
        for (; start < end; start = reached) {
            auto const count = pieceOf(start, end);
            if (content.readWhole(start, buffer.bytes(), count) != count)
                result.add(QStringLiteral("parts of its content can't be read and are zeros"));
            digest.add(start, buffer.bytes(), count);
            if (!writeAll(file, buffer.bytes(), count, start)) {
                result.addTaking("it can't be written", errno);
                return false;
            }
            reached = start + count;
            if (!written(count)) {
                result.add(QStringLiteral("interrupted"));
                return false;
            }
        }
    }
    if (reached < length && ::ftruncate(file, static_cast<off_t>(length)) != 0) {
        result.addTaking("it can't get its size", errno);
        return false;
    }
    if (digest.differs(length))
        result.add(QStringLiteral("its content is not what was stored: it has another digest"));
    return true;
}

bool holdsContent(int file, StreamHandle& content, ObjectWriter::Buffer& buffer,
                  ObjectWriter::Written const& goOn) {
    struct stat status {};
    auto const length = content.length();
    if (::fstat(file, &status) != 0 || static_cast<std::uint64_t>(status.st_size) != length)
        return false;
    std::vector<std::uint8_t> there;
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    std::uint64_t reached = 0;
    while (content.findData(start, end)) {
        if (!holdsZeros(file, reached, start, buffer, goOn))
            return false;
        for (; start < end; start = reached) {
            auto const count = pieceOf(start, end);
            there.resize(count);
            if (content.readWhole(start, buffer.bytes(), count) != count ||
                !readAll(file, there.data(), count, start) || !goOn(0) ||
                std::memcmp(there.data(), buffer.bytes(), count) != 0)
                return false;
            reached = start + count;
        }
    }
    return holdsZeros(file, reached, length, buffer, goOn);
}

} // namespace Morva
