#include "replication/repository/streams/RefCountedBlocks.h"

#include "base/trace/Trace.h"

namespace Replication {

using Morva::Blocks;
using Morva::TracedLock;

namespace {

/// Numbers by which the table of counts grows.
constexpr std::uint64_t countGrowth = 0x500000;

} // namespace

RefCountedBlocks::RefCountedBlocks(std::uint32_t cacheBlocks, std::uint32_t referenceCacheSize)
    : Blocks(cacheBlocks),
      lock_({"============ Lock Ref Counted Blocks ============",
             "=========== Unlock Ref Counted Blocks ==========="}),
      counts_(referenceCacheSize) {}

bool RefCountedBlocks::create(QString const& path, std::uint32_t blockSize,
                              std::uint32_t reservedBits) {
    TracedLock lock(lock_);
    if (!Blocks::create(path + ".blocks", blockSize, reservedBits, 0,
                        Morva::RawFile::Mode::ReadWrite))
        return false;
    if (counts_.create(path + ".refs", Blocks::mask(), countGrowth))
        return true;
    (void)Blocks::close(); // of no use without its counts
    return false;
}

bool RefCountedBlocks::open(QString const& path) {
    TracedLock lock(lock_);
    if (!Blocks::open(path + ".blocks", 0, Morva::RawFile::Mode::ReadWrite))
        return false;
    if (counts_.open(path + ".refs", Blocks::mask(), countGrowth))
        return true;
    (void)Blocks::close(); // of no use without its counts
    return false;
}

bool RefCountedBlocks::close() {
    bool const countsClosed = counts_.close().ok();
    bool const blocksClosed = Blocks::close().ok();
    return countsClosed && blocksClosed;
}

void* RefCountedBlocks::newBlock(std::uint64_t& number) {
    TracedLock lock(lock_);
    auto block = Blocks::newBlock(number);
    if (!block || counts_.newId(number))
        return block ? *block : nullptr;
    MORVA_CHECK(false, "bValidRefCountedBlock");
    (void)Blocks::freeBlock(*block); // else it is lost until a repair
    number = 0;
    return nullptr;
}

void* RefCountedBlocks::getBlock(std::uint64_t number) {
    TracedLock lock(lock_);
    auto block = Blocks::getBlock(number);
    return block ? *block : nullptr;
}

void const* RefCountedBlocks::getBlock(std::uint64_t number) const {
    TracedLock lock(lock_);
    auto block = Blocks::getBlock(number);
    return block ? *block : nullptr;
}

bool RefCountedBlocks::returnBlock(void const* block, bool dirty) {
    TracedLock lock(lock_);
    return Blocks::returnBlock(block, dirty);
}

bool RefCountedBlocks::returnBlock(void const* block) const {
    TracedLock lock(lock_);
    return Blocks::returnBlock(block);
}

bool RefCountedBlocks::freeBlock(void const* block) {
    TracedLock lock(lock_);
    std::uint64_t const number = Blocks::number(block);
    if (number == 0)
        return false;
    std::uint32_t left = 0;
    if (!counts_.decrement(left, number) || left != 0) {
        Blocks::returnBlock(block, false);
        return false;
    }
    if (!counts_.releaseId(number) || !Blocks::freeBlock(block))
        MORVA_TRACE(Always) << "Lost a free indirect block" << number;
    return true;
}

RefCountedBlocks::Drop RefCountedBlocks::dropShared(void const* block) {
    TracedLock lock(lock_);
    std::uint64_t const number = Blocks::number(block);
    std::uint32_t count = 0;
    if (number == 0 || !counts_.count(count, number) || count == 0)
        return Drop::Failed;
    if (count == 1)
        return Drop::Sole;
    if (!counts_.decrement(count, number))
        return Drop::Failed;
    Blocks::returnBlock(block, false);
    return Drop::Done;
}

bool RefCountedBlocks::count(std::uint32_t& count, std::uint64_t number) const {
    TracedLock lock(lock_);
    return counts_.count(count, number).ok();
}

bool RefCountedBlocks::unique(std::uint64_t number) const {
    TracedLock lock(lock_);
    std::uint32_t count = 0;
    return counts_.count(count, number) && count == 1;
}

bool RefCountedBlocks::increment(std::uint32_t& count, std::uint64_t number) {
    TracedLock lock(lock_);
    return counts_.increment(count, number).ok();
}

bool RefCountedBlocks::decrement(std::uint64_t number) {
    TracedLock lock(lock_);
    std::uint32_t count = 0;
    if (!counts_.count(count, number) || count < 2)
        return false;
    return counts_.decrement(count, number).ok();
}

bool RefCountedBlocks::flush() {
    TracedLock lock(lock_);
    bool const blocksFlushed = Blocks::flush().ok();
    bool const countsFlushed = counts_.flush().ok();
    return blocksFlushed && countsFlushed;
}

bool RefCountedBlocks::sync() {
    TracedLock lock(lock_);
    bool const blocksSynced = Blocks::sync().ok();
    bool const countsSynced = counts_.sync().ok();
    return blocksSynced && countsSynced;
}

std::uint64_t RefCountedBlocks::blocksUsed(std::uint64_t* total) const {
    TracedLock lock(lock_);
    if (total)
        *total = Blocks::blockCount();
    return Blocks::blockCount() - Blocks::freeCount();
}

std::uint64_t RefCountedBlocks::cacheHits() const {
    TracedLock lock(lock_);
    return hits();
}

std::uint64_t RefCountedBlocks::cacheMisses() const {
    TracedLock lock(lock_);
    return misses();
}

std::uint32_t RefCountedBlocks::cacheSize() const {
    TracedLock lock(lock_);
    return Blocks::size();
}

std::uint64_t RefCountedBlocks::refCacheHits() const {
    TracedLock lock(lock_);
    return counts_.cacheHits();
}

std::uint64_t RefCountedBlocks::refCacheMisses() const {
    TracedLock lock(lock_);
    return counts_.cacheMisses();
}

std::uint32_t RefCountedBlocks::refCacheSize() const {
    TracedLock lock(lock_);
    return counts_.cacheSize();
}

bool RefCountedBlocks::forEachCount(
    std::function<bool(std::uint64_t block, std::uint32_t count)> const& visit) const {
    TracedLock lock(lock_);
    return counts_.forEach(visit).ok();
}

bool RefCountedBlocks::forEachFree(std::function<bool(std::uint64_t block)> const& visit) const {
    TracedLock lock(lock_);
    return Blocks::forEachFree(visit).ok();
}

} // namespace Replication
