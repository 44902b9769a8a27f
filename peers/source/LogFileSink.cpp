#include "peers/source/LogFileSink.h"

#include "base/trace/Trace.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/uio.h>

namespace Replication {

LogFileSink::LogFileSink(int descriptor, std::uint32_t bufferSize)
    : descriptor_(descriptor), buffer_(bufferSize) {}

LogFileSink::~LogFileSink() = default;

std::uint8_t* LogFileSink::dataSpace(LogBuilder const&, std::uint32_t size) {
    if (error_)
        return nullptr;
    if (size > dataCapacity_) {
        data_ = std::make_unique_for_overwrite<std::uint8_t[]>(size);
        dataCapacity_ = size;
    }
    return data_.get();
}

bool LogFileSink::put(LogBuilder& builder) {
    if (error_)
        return false;
    LogExtents const log = builder.encode();
    if (log.head.size == 0)
        return false;
    bytes_ += log.size();
    if (log.data.size == 0 && log.head.size <= buffer_.size() - used_) {
        std::memcpy(buffer_.data() + used_, log.head.data, log.head.size);
        used_ += log.head.size;
        return true;
    }
    iovec ranges[] = {
        {buffer_.data(), used_}, {log.head.data, log.head.size}, {log.data.data, log.data.size}};
    used_ = 0;
    return writeAll(ranges, 3);
}

bool LogFileSink::flush() {
    if (error_)
        return false;
    iovec range = {buffer_.data(), used_};
    used_ = 0;
    return writeAll(&range, 1);
}

bool LogFileSink::writeAll(iovec* ranges, int count) {
    while (count > 0) {
        if (ranges->iov_len == 0) {
            ++ranges;
            --count;
            continue;
        }
        ssize_t const written = ::writev(descriptor_, ranges, count);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            error_ = written < 0 ? errno : EIO;
            MORVA_TRACE(Always) << "Failed to write logs" << Morva::TraceErrorCode{error_};
            return false;
        }
        auto rest = static_cast<std::size_t>(written);
        for (int i = 0; rest; ++i) {
            std::size_t const taken = std::min(rest, ranges[i].iov_len);
            ranges[i].iov_base = static_cast<std::uint8_t*>(ranges[i].iov_base) + taken;
            ranges[i].iov_len -= taken;
            rest -= taken;
        }
    }
    return true;
}

} // namespace Replication
