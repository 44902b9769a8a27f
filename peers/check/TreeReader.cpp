#include "peers/check/TreeReader.h"

#include "base/values/LittleEndian.h"

#include <algorithm>
#include <cstring>

namespace Morva {

using Replication::TreeRecord;

std::uint64_t TreeReader::maximum(std::uint32_t width, std::uint32_t depth) {
    if (depth == 0)
        return std::uint64_t{entries(width)} * 8;
    if (depth > TreeRecord::maximumDepth)
        return 0;
    std::uint64_t bytes = std::uint64_t{entries(width)} * blockSize;
    for (; depth > 1; --depth)
        bytes *= fanOut;
    return bytes;
}

bool TreeReader::blockAt(TreeRecord record, std::uint64_t index, std::uint64_t& block) {
    std::uint64_t below = 1; // data blocks that one entry covers
    for (std::uint32_t level = 1; level < record.depth(); ++level)
        below *= fanOut;
    block = record.entry(static_cast<std::uint32_t>(index / below));
    for (; below > 1 && block != 0;) {
        index %= below;
        below /= fanOut;
        BlockPin const pin = indirect_.pin(block);
        if (!pin)
            return false;
        block = loadLittle<std::uint64_t>(pin.bytes() + index / below * 8);
    }
    return true;
}

bool TreeReader::readRun(std::uint64_t block, std::uint64_t skip, void* buffer,
                         std::uint32_t count) {
    if (block == 0) {
        std::memset(buffer, 0, count);
        return true;
    }
    std::uint64_t const blocks = (skip + count + blockSize - 1) / blockSize;
    if (!data_ || block >= nextBlock_ || blocks > nextBlock_ - block)
        return false;
    bytesRead_ += count;
    return data_->readWhole(block * blockSize + skip, buffer, count).ok();
}

bool TreeReader::read(TreeRecord record, std::uint32_t width, std::uint64_t offset, void* buffer,
                      std::uint32_t count) {
    if (!sound(record, width) || offset > record.length() || count > record.length() - offset)
        return false;
    if (count == 0)
        return true;
    if (record.depth() == 0) {
        std::memcpy(buffer, record.entries() + offset, count);
        return true;
    }
    auto* out = static_cast<std::uint8_t*>(buffer);
    while (count > 0) {
        std::uint64_t const index = offset / blockSize;
        std::uint64_t const skip = offset % blockSize;
        std::uint64_t first = 0;
        if (!blockAt(record, index, first))
            return false;
        std::uint64_t run = 1; // blocks that lie one behind the other, or holes
        std::uint64_t const wanted = (skip + count + blockSize - 1) / blockSize;
        for (std::uint64_t next = 0; run < wanted; ++run) {
            if (!blockAt(record, index + run, next))
                return false;
            if (next != (first == 0 ? 0 : first + run))
                break;
        }
        auto const part =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(run * blockSize - skip, count));
        if (!readRun(first, skip, out, part))
            return false;
        out += part;
        offset += part;
        count -= part;
    }
    return true;
}

} // namespace Morva
