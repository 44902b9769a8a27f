#include "replication/repository/streams/Info.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/streams/RawRefCountedBlocks.h"
#include "replication/repository/streams/RefCountedBlocks.h"
#include "replication/repository/streams/ZeroBytes.h"

#include <algorithm>
#include <cstring>

namespace Replication {

void Info::setOffset(std::uint64_t offset) {
    std::uint64_t n = offset >> TreeParameters::blockShift;
    for (std::uint32_t level = depth() - 1; level > 0; --level) {
        levels_[level] = Level{};
        levels_[level].index = static_cast<std::uint32_t>(n & (TreeParameters::fanOut - 1));
        n >>= TreeParameters::fanOutShift;
    }
    levels_[0] = Level{};
    levels_[0].index = static_cast<std::uint32_t>(n);
    levels_[0].buffer = record_.entries();
}

bool Info::next(std::uint32_t level) {
    if (levels_[level].index + 1 >= entriesOf(level))
        return false;
    ++levels_[level].index;
    return true;
}

std::uint64_t Info::entry(std::uint32_t level) const {
    Level const& at = levels_[level];
    return at.buffer ? Morva::loadLittle<std::uint64_t>(at.buffer + at.index * 8) : 0;
}

void Info::setEntry(std::uint32_t level, std::uint64_t block) {
    Level& at = levels_[level];
    Morva::storeLittle(at.buffer + at.index * 8, block);
    at.dirty = true;
    if (level == 0)
        dirty_ = true;
}

bool Info::load(std::uint32_t level) {
    Level& at = levels_[level];
    at.block = entry(level - 1);
    if (at.block == 0)
        return true;
    at.buffer = static_cast<std::uint8_t*>(parameters_->indirect().getBlock(at.block));
    if (at.buffer)
        return true;
    MORVA_TRACE(Always) << "Failed to get indirect block" << at.block;
    failed();
    return false;
}

bool Info::loadPath(std::uint32_t& last) {
    last = 0;
    while (last + 1 < depth() && entry(last) != 0) {
        if (!load(last + 1))
            return false;
        ++last;
    }
    return true;
}

void Info::giveBack(std::uint32_t lowest) {
    for (std::uint32_t level = lowest; level > 0; --level) {
        Level& at = levels_[level];
        if (at.buffer && !parameters_->indirect().returnBlock(at.buffer, at.dirty))
            failed();
        at = Level{};
    }
}

void Info::giveBackPruned(std::uint32_t lowest) {
    std::uint32_t level = lowest;
    for (; level > 0; --level) {
        Level& at = levels_[level];
        if (!at.buffer)
            continue;
        if (!at.dirty || !allZero(at.buffer, TreeParameters::blockSize))
            break;
        setEntry(level - 1, 0);
        parameters_->indirect().freeBlock(at.buffer);
        at = Level{};
    }
    giveBack(level);
}

std::uint64_t Info::holeEnd(std::uint64_t offset, std::uint32_t last) const {
    return (offset | parameters_->coverage(depth() - last)) + 1;
}

bool Info::increaseDepth() {
    std::uint32_t const inlineSize = parameters_->inlineSize();
    std::uint8_t* entries = record_.entries();
    std::uint64_t number = 0;
    if (depth() == 0) {
        auto const used = static_cast<std::uint32_t>(std::min<std::uint64_t>(length(), inlineSize));
        if (!allZero(entries, used)) {
            RawRefCountedBlocks& data = parameters_->data();
            number = data.newBlock();
            if (number == 0) {
                failed();
                return false;
            }
            std::memcpy(scratch_, entries, used);
            std::memset(scratch_ + used, 0, sizeof scratch_ - used);
            if (!data.write(number, scratch_, 0, sizeof scratch_)) {
                failed();
                data.freeBlock(number);
                return false;
            }
        }
    } else if (!allZero(entries, inlineSize)) {
        void* block = parameters_->indirect().newBlock(number);
        if (!block) {
            failed();
            return false;
        }
        std::memcpy(block, entries, inlineSize);
        if (!parameters_->indirect().returnBlock(block, true))
            failed();
    }
    std::memset(entries, 0, inlineSize);
    record_.entry(0, number);
    record_.depth(depth() + 1);
    dirty_ = true;
    return true;
}

bool Info::decreaseDepth() {
    if (depth() == 0)
        return true;
    std::uint64_t const block = record_.entry(0);
    if (block == 0)
        std::memset(record_.entries(), 0, parameters_->inlineSize());
    else if (depth() == 1 ? !pullUpData(block) : !pullUpEntries(block))
        return false;
    record_.depth(depth() - 1);
    dirty_ = true;
    return true;
}

bool Info::pullUpData(std::uint64_t block) {
    RawRefCountedBlocks& data = parameters_->data();
    if (!data.read(block, scratch_, 0, parameters_->inlineSize())) {
        failed();
        return false;
    }
    std::memcpy(record_.entries(), scratch_, parameters_->inlineSize());
    data.freeBlock(block);
    return true;
}

bool Info::pullUpEntries(std::uint64_t block) {
    RefCountedBlocks& indirect = parameters_->indirect();
    std::uint32_t const count = parameters_->levelZeroEntries();
    bool const dataEntries = depth() == 2;
    auto* buffer = static_cast<std::uint8_t*>(indirect.getBlock(block));
    if (!buffer) {
        failed();
        return false;
    }
    std::memcpy(scratch_, buffer, parameters_->inlineSize());
    // A block that another tree shares keeps its children, so the record needs references of its
    // own. They come first: the other tree may be going away right now.
    bool shared = !indirect.unique(block);
    if (shared) {
        if (!parameters_->addReferences(scratch_, count, dataEntries)) {
            indirect.returnBlock(buffer, false);
            return false;
        }
        auto const drop = indirect.dropShared(buffer);
        if (drop != RefCountedBlocks::Drop::Done)
            parameters_->takeBackReferences(scratch_, count, dataEntries);
        if (drop == RefCountedBlocks::Drop::Failed) {
            failed();
            indirect.returnBlock(buffer, false);
            return false;
        }
        shared = drop == RefCountedBlocks::Drop::Done;
    }
    if (!shared)
        indirect.freeBlock(buffer);
    std::memcpy(record_.entries(), scratch_, parameters_->inlineSize());
    return true;
}

bool Info::makeUnique(std::uint32_t level) {
    RefCountedBlocks& indirect = parameters_->indirect();
    Level& at = levels_[level];
    if (at.block != 0 && indirect.unique(at.block)) {
        at.dirty = true;
        return true;
    }
    std::uint64_t number = 0;
    auto* fresh = static_cast<std::uint8_t*>(indirect.newBlock(number));
    if (!fresh) {
        failed();
        return false;
    }
    if (at.block == 0) {
        MORVA_TRACE(Debug) << "Replace sparse block with block" << number;
    } else {
        MORVA_TRACE(Debug) << "Take a copy of indirect block" << at.block << "into block" << number;
        std::memcpy(fresh, at.buffer, TreeParameters::blockSize);
        // References first, drop afterwards: the other owner may drop the block meanwhile and
        // with it its children.
        bool const dataEntries = depth() == level + 1;
        if (!parameters_->addReferences(fresh, TreeParameters::fanOut, dataEntries)) {
            indirect.freeBlock(fresh);
            return false;
        }
        auto const drop = indirect.dropShared(at.buffer);
        if (drop != RefCountedBlocks::Drop::Done) {
            parameters_->takeBackReferences(fresh, TreeParameters::fanOut, dataEntries);
            indirect.freeBlock(fresh);
            if (drop == RefCountedBlocks::Drop::Failed) {
                failed();
                return false;
            }
            at.dirty = true;
            return true;
        }
    }
    at.block = number;
    at.buffer = fresh;
    at.dirty = true;
    setEntry(level - 1, number);
    return true;
}

} // namespace Replication
