#include "replication/repository/streams/Info.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/streams/RawRefCountedBlocks.h"

#include <algorithm>
#include <cstring>

namespace Replication {

namespace {

constexpr std::uint32_t blockSize = TreeParameters::blockSize;
constexpr std::uint32_t offsetMask = blockSize - 1;

using BlockRun = std::array<std::uint64_t, TreeParameters::fanOut>;

} // namespace

bool Info::extendTo(std::uint64_t end) {
    while (parameters_->maximum(depth()) < end) {
        if (!increaseDepth())
            return false;
    }
    return true;
}

bool Info::write(std::uint64_t offset, void const* data, std::uint32_t count, bool noExtend) {
    if (damaged()) {
        failed();
        return true;
    }
    if (offset == append)
        offset = length();
    if (count > ~offset)
        count = static_cast<std::uint32_t>(~offset);
    if (noExtend) {
        if (offset >= length())
            return true;
        count = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, length() - offset));
    }
    if (count == 0)
        return true;
    if (offset + count > parameters_->maximum(TreeParameters::maximumDepth)) {
        MORVA_TRACE(Always) << "Write beyond the largest length of a stream at" << offset;
        failed();
        return false;
    }
    if (!extendTo(offset + count))
        return true;
    Span span{offset, static_cast<std::uint8_t const*>(data), count};
    if (depth() == 0) {
        std::memcpy(record_.entries() + offset, data, count);
        dirty_ = true;
        span.offset += count;
    } else {
        while (span.count != 0 && doWrite(span)) {
        }
    }
    if (span.offset != offset && span.offset > length())
        length(span.offset);
    return true;
}

bool Info::doWrite(Span& span) {
    setOffset(span.offset);
    std::uint32_t const leaf = depth() - 1;
    for (std::uint32_t level = 1; level <= leaf; ++level) {
        if (!load(level) || !makeUnique(level)) {
            giveBackPruned(level);
            return false;
        }
    }
    bool written = true;
    do {
        std::uint32_t const within = span.offset & offsetMask;
        if (within == 0 && span.count >= blockSize)
            written = writeWhole(
                span, std::min(span.count / blockSize, entriesOf(leaf) - levels_[leaf].index));
        else
            written = writePartial(span, std::min(span.count, blockSize - within));
    } while (written && span.count != 0 && next(leaf));
    if (written)
        giveBack(leaf);
    else
        giveBackPruned(leaf);
    return written;
}

bool Info::writeWhole(Span& span, std::uint32_t blocks) {
    RawRefCountedBlocks& data = parameters_->data();
    std::uint32_t const leaf = depth() - 1;
    std::uint32_t const first = levels_[leaf].index;
    std::uint8_t const* entries = levels_[leaf].buffer + first * 8;
    // What is private is written in place, all else goes to new blocks.
    BlockRun run;
    BlockRun fresh;
    std::uint32_t wanted = 0;
    for (std::uint32_t i = 0; i < blocks; ++i) {
        std::uint64_t const old = Morva::loadLittle<std::uint64_t>(entries + i * 8);
        run[i] = old != 0 && data.unique(old) ? old : 0;
        wanted += run[i] == 0;
    }
    std::uint32_t const got = wanted == 0 ? 0 : data.newBlocks({fresh.data(), wanted});
    bool complete = got == wanted;
    if (!complete)
        failed();
    std::uint32_t used = 0;
    std::uint32_t ready = 0;
    while (ready < blocks && (run[ready] != 0 || used < got)) {
        if (run[ready] == 0)
            run[ready] = fresh[used++];
        ++ready;
    }
    if (ready == 0)
        return false;
    if (!data.write(run.data(), ready, span.data, 0, ready * blockSize)) {
        failed();
        for (std::uint32_t i = 0; i < used; ++i)
            data.freeBlock(fresh[i]);
        return false;
    }
    for (std::uint32_t i = 0; i < ready; ++i) {
        levels_[leaf].index = first + i;
        std::uint64_t const old = entry(leaf);
        if (old == run[i])
            continue;
        setEntry(leaf, run[i]);
        if (old != 0)
            data.freeBlock(old);
        else
            MORVA_TRACE(Debug) << "Replace sparse block with block" << run[i];
    }
    span.offset += std::uint64_t{ready} * blockSize;
    span.data += ready * blockSize;
    span.count -= ready * blockSize;
    return complete;
}

bool Info::writePartial(Span& span, std::uint32_t chunk) {
    RawRefCountedBlocks& data = parameters_->data();
    std::uint32_t const leaf = depth() - 1;
    std::uint32_t const within = span.offset & offsetMask;
    std::uint64_t const old = entry(leaf);
    if (old != 0 && data.unique(old)) {
        if (!data.write(old, span.data, within, chunk)) {
            failed();
            return false;
        }
    } else {
        if (old == 0) {
            MORVA_TRACE(Debug) << "New block, that need zeros";
            std::memset(scratch_, 0, sizeof scratch_);
        } else if (!data.read(old, scratch_, 0, blockSize)) {
            failed();
            return false;
        } else {
            MORVA_TRACE(Debug) << "Add data into a copied block";
        }
        std::memcpy(scratch_ + within, span.data, chunk);
        if (!replaceBlock(leaf, old))
            return false;
    }
    span.offset += chunk;
    span.data += chunk;
    span.count -= chunk;
    return true;
}

bool Info::replaceBlock(std::uint32_t leaf, std::uint64_t old) {
    RawRefCountedBlocks& data = parameters_->data();
    std::uint64_t const number = data.newBlock();
    if (number == 0) {
        failed();
        return false;
    }
    if (old == 0)
        MORVA_TRACE(Debug) << "Replace sparse block with block" << number;
    else
        MORVA_TRACE(Debug) << "Take a copy of block" << old << "into block" << number;
    if (!data.write(number, scratch_, 0, blockSize)) {
        failed();
        data.freeBlock(number);
        return false;
    }
    setEntry(leaf, number);
    if (old != 0)
        data.freeBlock(old);
    return true;
}

std::uint32_t Info::read(std::uint64_t offset, void* data, std::uint32_t count) {
    if (offset >= length())
        return 0;
    count = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, length() - offset));
    auto* buffer = static_cast<std::uint8_t*>(data);
    std::uint64_t const end = offset + count;
    std::uint64_t const held = damaged() ? 0 : parameters_->maximum(depth());
    std::uint64_t at = offset;
    if (offset < held && depth() == 0) {
        at = std::min(end, held);
        std::memcpy(buffer, record_.entries() + offset, at - offset);
    } else {
        while (at < std::min(end, held))
            at = doRead(at, std::min(end, held), buffer + (at - offset));
    }
    if (at < end) {
        failed();
        std::memset(buffer + (at - offset), 0, end - at);
    }
    return count;
}

void Info::findRun(std::uint64_t offset, std::uint64_t end, Run& run) {
    setOffset(offset);
    std::uint32_t last = 0;
    run.failed = !loadPath(last);
    run.hole = run.failed || last + 1 < depth();
    if (run.hole) {
        run.end = std::min(end, holeEnd(offset, last));
    } else {
        std::uint32_t const within = offset & offsetMask;
        std::uint32_t const index = levels_[last].index;
        std::uint32_t const room = entriesOf(last) - index;
        run.count = static_cast<std::uint32_t>(
            std::min<std::uint64_t>((within + (end - offset) + offsetMask) / blockSize, room));
        run.end = std::min(end, offset - within + std::uint64_t{run.count} * blockSize);
        std::memcpy(run.blocks.data(), levels_[last].buffer + index * 8, run.count * 8);
    }
    giveBack(last);
}

std::uint64_t Info::doRead(std::uint64_t offset, std::uint64_t end, std::uint8_t* buffer) {
    Run run;
    findRun(offset, end, run);
    auto const size = run.end - offset;
    if (run.hole) {
        MORVA_TRACE(Debug) << "Sparse block zero" << size
                           << (run.end < end ? "bytes until next block" : "remaining bytes");
        std::memset(buffer, 0, size);
    } else {
        readBlocks(run.blocks.data(), run.count, buffer, offset & offsetMask,
                   static_cast<std::uint32_t>(size));
    }
    return run.end;
}

bool Info::locate(std::uint64_t count, std::uint64_t* blocks) {
    if (depth() == 0 || damaged() || count > length() || count > parameters_->maximum(depth()))
        return false;
    std::uint64_t offset = 0;
    Run run;
    while (offset < count) {
        findRun(offset, count, run);
        if (run.failed)
            return false;
        auto const found = static_cast<std::uint32_t>((run.end - offset + offsetMask) / blockSize);
        if (run.hole)
            std::fill_n(blocks, found, 0);
        else
            std::memcpy(blocks, run.blocks.data(), found * sizeof *blocks);
        blocks += found;
        offset = run.end;
    }
    return true;
}

void Info::readBlocks(std::uint64_t const* blocks, std::uint32_t blockCount, std::uint8_t* buffer,
                      std::uint32_t offset, std::uint32_t count) {
    RawRefCountedBlocks& data = parameters_->data();
    if (data.read(blocks, blockCount, buffer, offset, count))
        return;
    // Something in the run is damaged: save what can be read.
    for (std::uint32_t i = 0; i < blockCount; ++i) {
        std::uint32_t const chunk = std::min(count, blockSize - offset);
        if (blocks[i] == 0) {
            std::memset(buffer, 0, chunk);
        } else if (!data.read(blocks[i], buffer, offset, chunk)) {
            failed();
            std::memset(buffer, 0, chunk);
        }
        buffer += chunk;
        count -= chunk;
        offset = 0;
    }
}

} // namespace Replication
