#include "replication/repository/streams/Info.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/streams/RawRefCountedBlocks.h"
#include "replication/repository/streams/ZeroBytes.h"

#include <algorithm>
#include <cstring>

namespace Replication {

namespace {

constexpr std::uint32_t blockSize = TreeParameters::blockSize;
constexpr std::uint64_t offsetMask = blockSize - 1;

} // namespace

void Info::clear() {
    if (damaged())
        failed();
    else if (depth() != 0 && !parameters_->decrementEntry(record_))
        return;
    std::memset(record_.entries(), 0, parameters_->inlineSize());
    record_.depth(0);
    length(0);
}

bool Info::truncate(std::uint64_t newLength) {
    std::uint64_t const present = length();
    if (newLength == 0) {
        clear();
        return true;
    }
    if (newLength > present)
        return zeroData(present, newLength);
    if (newLength == present)
        return true;
    if (damaged()) {
        failed();
        return true;
    }
    std::uint64_t const held = parameters_->maximum(depth());
    if (depth() == 0) {
        if (newLength < held)
            std::memset(record_.entries() + newLength, 0, held - newLength);
    } else if (newLength < held) {
        // The last block goes whole, or an entry behind the new end would keep it.
        std::uint64_t const end = present >= held ? held : (present + offsetMask) & ~offsetMask;
        if (!zeroRange(newLength, end))
            return true;
    }
    length(newLength);
    while (depth() != 0 && newLength <= parameters_->maximum(depth() - 1)) {
        if (!decreaseDepth())
            break;
    }
    return true;
}

bool Info::zeroData(std::uint64_t start, std::uint64_t end) {
    if (end > parameters_->maximum(TreeParameters::maximumDepth)) {
        MORVA_TRACE(Always) << "Zeros beyond the largest length of a stream at" << end;
        failed();
        return false;
    }
    if (damaged()) {
        failed();
        return true;
    }
    if (end > length()) {
        if (!extendTo(end))
            return true;
        length(end);
    }
    if (end <= start)
        return true;
    end = std::min(end, parameters_->maximum(depth()));
    if (depth() == 0) {
        if (start < end)
            std::memset(record_.entries() + start, 0, end - start);
        dirty_ = true;
        return true;
    }
    // A failure is counted where it happens and leaves a whole tree.
    static_cast<void>(zeroRange(start, end));
    return true;
}

bool Info::zeroRange(std::uint64_t start, std::uint64_t end) {
    while (start < end) {
        setOffset(start);
        std::uint32_t last = 0;
        if (!loadPath(last)) {
            giveBack(last);
            return false;
        }
        bool const above = last + 1 < depth();
        // All that the loaded level leads to from here on.
        std::uint64_t const reach = std::min(
            end, above ? holeEnd(start, last)
                       : (start & ~offsetMask) +
                             std::uint64_t{entriesOf(last) - levels_[last].index} * blockSize);
        if (above || leafIsHole(last, start, reach)) {
            giveBack(last);
            start = reach;
            continue;
        }
        bool done = true;
        for (std::uint32_t level = 1; level <= last && done; ++level)
            done = makeUnique(level);
        done = done && zeroEntries(last, start, reach);
        giveBackPruned(last);
        if (!done)
            return false;
        start = reach;
    }
    return true;
}

bool Info::leafIsHole(std::uint32_t leaf, std::uint64_t start, std::uint64_t end) const {
    std::uint64_t const blocks = ((start & offsetMask) + (end - start) + offsetMask) / blockSize;
    return allZero(levels_[leaf].buffer + levels_[leaf].index * 8, blocks * 8);
}

bool Info::zeroEntries(std::uint32_t leaf, std::uint64_t start, std::uint64_t end) {
    do {
        auto const within = static_cast<std::uint32_t>(start & offsetMask);
        std::uint64_t const left = end - start;
        std::uint64_t const block = entry(leaf);
        if (within != 0) {
            // To the block's end, also beyond the end of the range.
            if (block != 0 && !zeroPart(leaf, within, blockSize - within))
                return false;
            start += blockSize - within;
        } else if (left < blockSize) {
            if (block != 0 && !zeroPart(leaf, 0, static_cast<std::uint32_t>(left)))
                return false;
            start = end;
        } else {
            if (block != 0) {
                setEntry(leaf, 0);
                parameters_->data().freeBlock(block);
            }
            start += blockSize;
        }
    } while (start < end && next(leaf));
    return true;
}

bool Info::zeroPart(std::uint32_t leaf, std::uint32_t offset, std::uint32_t count) {
    RawRefCountedBlocks& data = parameters_->data();
    std::uint64_t const block = entry(leaf);
    if (data.unique(block)) {
        std::memset(scratch_, 0, count);
        if (data.write(block, scratch_, offset, count))
            return true;
        failed();
        return false;
    }
    if (!data.read(block, scratch_, 0, blockSize)) {
        failed();
        return false;
    }
    std::memset(scratch_ + offset, 0, count);
    return replaceBlock(leaf, block);
}

bool Info::isZero(std::uint64_t start, std::uint64_t end) {
    if (end > length())
        return false;
    if (damaged()) {
        failed();
        return false;
    }
    end = std::min(end, parameters_->maximum(depth()));
    if (depth() == 0)
        return start >= end || allZero(record_.entries() + start, end - start);
    while (start < end) {
        setOffset(start);
        std::uint32_t last = 0;
        bool const loaded = loadPath(last);
        bool zero = loaded;
        std::uint64_t reach = end;
        if (loaded && last + 1 < depth()) {
            reach = std::min(end, holeEnd(start, last));
        } else if (loaded) {
            reach =
                std::min(end, (start & ~offsetMask) +
                                  std::uint64_t{entriesOf(last) - levels_[last].index} * blockSize);
            zero = blocksAreZero(last, start, reach);
        }
        giveBack(last);
        if (!zero)
            return false;
        start = reach;
    }
    return true;
}

bool Info::blocksAreZero(std::uint32_t leaf, std::uint64_t start, std::uint64_t end) {
    do {
        auto const within = static_cast<std::uint32_t>(start & offsetMask);
        auto const count =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(blockSize - within, end - start));
        std::uint64_t const block = entry(leaf);
        if (block != 0) {
            if (!parameters_->data().read(block, scratch_, within, count)) {
                failed();
                return false;
            }
            if (!allZero(scratch_, count))
                return false;
        }
        start += count;
    } while (start < end && next(leaf));
    return true;
}

} // namespace Replication
