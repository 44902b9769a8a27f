#include "replication/repository/streams/Info.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/streams/RawRefCountedBlocks.h"
#include "replication/repository/streams/RefCountedBlocks.h"

#include <cstring>
#include <limits>

// A release can be interrupted for a flush, and the process can end behind that; the request is
// then done again from the start. So an entry of a block is zeroed when what it names is gone, and
// the blocks that the record itself names, which can't be changed in a queued request, are emptied
// in place and only dropped all together at the end.
//
// A block with one reference is reached from here alone and nobody can gain another one, so
// emptying it in place is safe. A block with more loses one in one step with the look at its
// count: of two trees that are released at once, exactly one finds itself the last.

namespace Replication {

void Info::release() {
    while (!releaseSlice(std::numeric_limits<std::uint32_t>::max())) {
    }
}

bool Info::releaseSlice(std::uint32_t budget) {
    if (damaged()) {
        failed();
        return true;
    }
    std::uint32_t const entries = parameters_->levelZeroEntries();
    std::uint32_t const height = depth() - 1;
    if (depth() == 0)
        return true;
    if (height != 0) {
        for (std::uint32_t i = 0; i < entries; ++i) {
            if (record_.entry(i) != 0 && !emptyTop(height, record_.entry(i), budget))
                return false;
        }
    }
    std::uint32_t unlimited = std::numeric_limits<std::uint32_t>::max();
    for (std::uint32_t i = 0; i < entries; ++i) {
        std::uint64_t const block = record_.entry(i);
        if (block == 0)
            continue;
        if (height == 0)
            parameters_->data().freeBlock(block);
        else if (!dropTree(height, block, i, unlimited))
            return false;
        record_.entry(i, 0);
        dirty_ = true;
    }
    return true;
}

bool Info::emptyTop(std::uint32_t height, std::uint64_t block, std::uint32_t& budget) {
    RefCountedBlocks& indirect = parameters_->indirect();
    if (!indirect.unique(block))
        return true;
    auto* entries = static_cast<std::uint8_t*>(indirect.getBlock(block));
    // dropTree tells of it.
    if (!entries)
        return true;
    bool const done = emptyEntries(height, entries, budget);
    if (!indirect.returnBlock(entries, true))
        failed();
    return done;
}

bool Info::emptyEntries(std::uint32_t height, std::uint8_t* entries, std::uint32_t& budget) {
    for (std::uint32_t i = 0; i < TreeParameters::fanOut; ++i) {
        auto const block = Morva::loadLittle<std::uint64_t>(entries + i * 8);
        if (block == 0)
            continue;
        if (budget == 0)
            return false;
        if (height == 1) {
            parameters_->data().freeBlock(block);
            --budget;
        } else if (!dropTree(height - 1, block, i, budget)) {
            return false;
        }
        Morva::storeLittle(entries + i * 8, std::uint64_t{0});
    }
    return true;
}

bool Info::dropTree(std::uint32_t height, std::uint64_t block, std::uint32_t index,
                    std::uint32_t& budget) {
    RefCountedBlocks& indirect = parameters_->indirect();
    auto* entries = static_cast<std::uint8_t*>(indirect.getBlock(block));
    if (!entries) {
        MORVA_TRACE(Always) << "Failed to get child block" << block << "at index" << index;
        MORVA_CHECK(entries, "ptChildEntries");
        failed();
        return true;
    }
    switch (indirect.dropShared(entries)) {
    case RefCountedBlocks::Drop::Done:
        break;
    case RefCountedBlocks::Drop::Failed:
        failed();
        indirect.returnBlock(entries, false);
        return true;
    case RefCountedBlocks::Drop::Sole:
        if (!emptyEntries(height, entries, budget)) {
            if (!indirect.returnBlock(entries, true))
                failed();
            return false;
        }
        indirect.freeBlock(entries);
        break;
    }
    if (budget != 0)
        --budget;
    return true;
}

} // namespace Replication
