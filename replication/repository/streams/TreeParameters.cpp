#include "replication/repository/streams/TreeParameters.h"

#include "base/trace/Trace.h"
#include "base/trees/PagedQueue.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/RawRefCountedBlocks.h"
#include "replication/repository/streams/RefCountedBlocks.h"
#include "replication/repository/streams/ZeroBytes.h"

#include <cstring>

namespace Replication {

using Morva::loadLittle;

TreeParameters::TreeParameters(std::uint32_t recordBytes,
                               std::shared_ptr<Morva::PagedQueue> cleanupQueue,
                               std::shared_ptr<RawRefCountedBlocks> data,
                               std::shared_ptr<RefCountedBlocks> indirect,
                               std::shared_ptr<std::atomic<std::uint64_t>> failures)
    : cleanupQueue_(std::move(cleanupQueue)),
      data_(std::move(data)),
      indirect_(std::move(indirect)),
      failures_(std::move(failures)),
      levelZeroEntries_(recordBytes < 24 ? 0 : ((recordBytes - 24) >> 3) + 1) {
    maximum_[0] = inlineSize();
    std::uint64_t length = std::uint64_t{levelZeroEntries_} * blockSize;
    for (std::uint32_t depth = 1; depth <= maximumDepth; ++depth) {
        maximum_[depth] = length;
        length <<= fanOutShift;
    }
}

TreeParameters::operator bool() const {
    return levelZeroEntries_ != 0 && levelZeroEntries_ <= fanOut;
}

bool TreeParameters::takeCopy(TreeRecord to, TreeRecord from) const {
    if (!incrementEntry(from))
        return false;
    std::memcpy(to.bytes(), from.bytes(), recordSize());
    return true;
}

bool TreeParameters::incrementEntry(TreeRecord record) const {
    std::uint32_t const depth = record.depth();
    if (depth == 0)
        return true;
    if (depth <= maximumDepth)
        return addReferences(record.entries(), levelZeroEntries_, depth == 1);
    failed();
    return false;
}

bool TreeParameters::addReferences(std::uint8_t const* entries, std::uint32_t count,
                                   bool dataEntries) const {
    std::uint32_t now = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        auto const block = loadLittle<std::uint64_t>(entries + i * 8);
        if (block == 0 ||
            (dataEntries ? data_->increment(now, block) : indirect_->increment(now, block)))
            continue;
        MORVA_TRACE(Always) << "Failed to add a reference to block" << block;
        takeBackReferences(entries, i, dataEntries);
        failed();
        return false;
    }
    return true;
}

void TreeParameters::takeBackReferences(std::uint8_t const* entries, std::uint32_t count,
                                        bool dataEntries) const {
    for (std::uint32_t i = 0; i < count; ++i) {
        auto const block = loadLittle<std::uint64_t>(entries + i * 8);
        if (block == 0)
            continue;
        if (dataEntries)
            data_->freeBlock(block);
        else if (!indirect_->decrement(block))
            failed();
    }
}

bool TreeParameters::decrementEntry(TreeRecord record) const {
    if (record.depth() == 0 || allZero(record.entries(), inlineSize()))
        return true;
    if (CleanupRequest::deleteInfo(*cleanupQueue_, Morva::Extent(record.bytes(), recordSize())))
        return true;
    failed();
    return false;
}

bool TreeParameters::walk(TreeRecord record, Visitor const& visit) const {
    std::uint32_t const depth = record.depth();
    if (depth > maximumDepth)
        return false;
    bool whole = true;
    for (std::uint32_t i = 0; depth != 0 && i < levelZeroEntries_; ++i) {
        if (record.entry(i) != 0 && !walkBlock(depth - 1, record.entry(i), visit))
            whole = false;
    }
    return whole;
}

bool TreeParameters::walkBlock(std::uint32_t level, std::uint64_t block,
                               Visitor const& visit) const {
    if (visit(level, block) == Visit::Skip || level == 0)
        return true;
    auto const& indirect = static_cast<RefCountedBlocks const&>(*indirect_);
    void const* entries = indirect.getBlock(block);
    if (!entries)
        return false;
    bool whole = true;
    for (std::uint32_t i = 0; i < fanOut; ++i) {
        auto const child = loadLittle<std::uint64_t>(static_cast<char const*>(entries) + i * 8);
        if (child != 0 && !walkBlock(level - 1, child, visit))
            whole = false;
    }
    indirect.returnBlock(entries);
    return whole;
}

} // namespace Replication
