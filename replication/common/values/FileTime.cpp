#include "replication/common/values/FileTime.h"

#include "base/values/LittleEndian.h"

#include <cstdio>
#include <sys/stat.h>

namespace Replication {

using Morva::loadLittle;
using Morva::storeLittle;

namespace {

FileTime load(std::uint8_t const* at) {
    FileTime const time{static_cast<std::int64_t>(loadLittle<std::uint64_t>(at)),
                        loadLittle<std::uint32_t>(at + 8)};
    // One form alone for a time that isn't known.
    return time.known() ? time : FileTime{};
}

} // namespace

std::string FileTime::text() const {
    if (!known())
        return "unknown";
    // -1 s and 750,000,000 ns are a quarter of a second before 1970.
    bool const borrow = seconds < 0 && nanoseconds != 0;
    auto const magnitude = seconds < 0 ? 0 - static_cast<std::uint64_t>(seconds) - (borrow ? 1 : 0)
                                       : static_cast<std::uint64_t>(seconds);
    char digits[48];
    std::snprintf(digits, sizeof digits, "%s%llu.%09u", seconds < 0 ? "-" : "",
                  static_cast<unsigned long long>(magnitude),
                  borrow ? nanosecondsPerSecond - nanoseconds : nanoseconds);
    return digits;
}

FileTimes FileTimes::of(struct stat const& status) {
    return {FileTime::of(status.st_atim), FileTime::of(status.st_mtim),
            FileTime::of(status.st_ctim)};
}

void FileTimes::pack(void* destination) const {
    auto* at = static_cast<std::uint8_t*>(destination);
    for (auto const& time : {access, modification, change}) {
        storeLittle<std::uint64_t>(at, static_cast<std::uint64_t>(time.seconds));
        storeLittle<std::uint32_t>(at + 8, time.nanoseconds);
        at += FileTime::packedSize;
    }
}

std::optional<FileTimes> FileTimes::unpack(Morva::Extent const& bytes) {
    if (bytes.size < packedSize)
        return std::nullopt;
    auto const* at = bytes.bytes();
    return FileTimes{load(at), load(at + FileTime::packedSize),
                     load(at + 2 * FileTime::packedSize)};
}

} // namespace Replication
