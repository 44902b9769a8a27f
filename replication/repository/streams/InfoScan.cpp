#include "replication/repository/streams/Info.h"

#include <algorithm>

namespace Replication {

namespace {

constexpr std::uint32_t blockSize = TreeParameters::blockSize;
constexpr std::uint64_t offsetMask = blockSize - 1;

} // namespace

bool Info::findData(std::uint64_t& start, std::uint64_t& end) {
    while (start < length()) {
        end = length();
        if (damaged() || depth() == 0 || start >= parameters_->maximum(depth()))
            return true;
        setOffset(start);
        std::uint32_t last = 0;
        if (!loadPath(last)) {
            giveBack(last);
            return true;
        }
        if (last + 1 < depth()) {
            start = holeEnd(start, last);
            giveBack(last);
            continue;
        }
        std::uint64_t const block = start & ~offsetMask;
        std::uint32_t const first = levels_[last].index;
        auto const skip = [&](bool holes) {
            while ((entry(last) == 0) == holes)
                if (!next(last))
                    return false;
            return true;
        };
        bool const found = skip(true);
        std::uint32_t const from = levels_[last].index;
        std::uint32_t const to = found && !skip(false) ? entriesOf(last) : levels_[last].index;
        giveBack(last);
        if (found) {
            start = std::max(start, block + std::uint64_t{from - first} * blockSize);
            end = std::min(length(), block + std::uint64_t{to - first} * blockSize);
            return start < end;
        }
        start = block + std::uint64_t{entriesOf(last) - first} * blockSize;
    }
    return false;
}

} // namespace Replication
