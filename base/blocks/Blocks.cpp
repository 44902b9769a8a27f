#include "base/blocks/Blocks.h"

#include "base/blocks/Failures.h"
#include "base/blocks/HeaderPage.h"
#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace Morva {

namespace {

/// Header of a block file, at the start of block 0, little-endian, 64 bytes.
///  off  size  field           meaning
///    0     8  magic           "MORVABLK"
///    8     4  version         1
///   12     4  block size
///   16     4  reserved bits   high bits that aren't part of a block number
///   20     4  in use          1 while a process that changed the file hasn't closed it
///   24     8  block count     blocks ever handed out, and this one
///   32     8  reserved count  blocks that the disk has space for
///   40     8  free count      freed blocks
///   48     8  free head       the first of them, 0 = none
///   56     4  zero
///   60     4  check           headerCheck of the bytes before
namespace Header {
constexpr char magic[] = "MORVABLK";
constexpr std::uint32_t version = 1;
constexpr std::uint32_t atVersion = 8, atBlockSize = 12, atReservedBits = 16, atInUse = 20;
constexpr std::uint32_t atBlockCount = 24, atReservedCount = 32, atFreeCount = 40, atFreeHead = 48;
constexpr std::uint32_t atCheck = 60, size = 64;
} // namespace Header

/// A free block, little-endian; the bytes behind are what they were.
///  off  size  field  meaning
///    0     8  zero   so that no owner takes the block for one of its own
///    8     8  next   the next free block, 0 = none
///   16     8  mark   a constant XOR the block's number
namespace FreeBlock {
constexpr std::uint32_t atNext = 8, atMark = 16;
constexpr std::uint64_t mark = 0x4B4C42454552469Bull;

bool is(void const* block, std::uint64_t number) {
    auto const* bytes = static_cast<std::uint8_t const*>(block);
    return loadLittle<std::uint64_t>(bytes) == 0 &&
           loadLittle<std::uint64_t>(bytes + atMark) == (mark ^ number);
}
} // namespace FreeBlock

constexpr std::uint64_t defaultGrowSize = 1048576;
constexpr std::uint64_t largestFile = 0x7FFFFFFFFFFFFFFFull;

template <class T> T field(std::uint8_t const* header, std::uint32_t offset) {
    return loadLittle<T>(header + offset);
}

} // namespace

Blocks::Blocks(std::uint32_t cacheBlocks) : HeadedFile(cacheBlocks) {}

Blocks::~Blocks() {
    close();
}

void Blocks::setUp(std::uint32_t blockSize, std::uint64_t growSize) {
    blockSize_ = blockSize;
    std::uint64_t const step = (growSize ? growSize : defaultGrowSize) / blockSize;
    growBlocks_ = static_cast<std::uint32_t>(std::clamp<std::uint64_t>(step, 1, 0x10000000));
}

bool Blocks::create(QString const& name, std::uint32_t blockSize, std::uint32_t reservedBits,
                    std::uint64_t growSize, RawFile::Mode mode) {
    MORVA_METHOD("create");
    close();
    if (blockSize < minimumBlockSize || blockSize > maximumBlockSize || blockSize % 8 != 0 ||
        reservedBits >= 64) {
        MORVA_TRACE(Always) << "Invalid block size or reserved bits" << blockSize << reservedBits;
        return scope.result(false);
    }
    if (!beginCreation(name, mode, blockSize))
        return scope.result(false);
    setUp(blockSize, growSize);
    reservedBits_ = reservedBits;
    mask_ = ~std::uint64_t{0} >> reservedBits;
    blockCount_ = reservedCount_ = firstBlock();
    freeCount_ = freeHead_ = 0;
    marked_ = true;
    return scope.result(endCreation(writeHeader()));
}

bool Blocks::open(QString const& name, std::uint64_t growSize, RawFile::Mode mode) {
    MORVA_METHOD("open");
    close();
    return scope.result(beginOpening(name, mode) &&
                        endOpening(readHeader(growSize), "Invalid block file header in"));
}

bool Blocks::readHeader(std::uint64_t growSize) {
    std::array<std::uint8_t, Header::size> bytes;
    std::uint8_t const* header = bytes.data();
    if (file_->readAt(0, bytes.data(), Header::size) != Header::size ||
        std::memcmp(header, Header::magic, 8) != 0 ||
        field<std::uint32_t>(header, Header::atVersion) != Header::version ||
        field<std::uint32_t>(header, Header::atCheck) != headerCheck(header, Header::atCheck))
        return false;
    auto const blockSize = field<std::uint32_t>(header, Header::atBlockSize);
    reservedBits_ = field<std::uint32_t>(header, Header::atReservedBits);
    blockCount_ = field<std::uint64_t>(header, Header::atBlockCount);
    reservedCount_ = field<std::uint64_t>(header, Header::atReservedCount);
    freeCount_ = field<std::uint64_t>(header, Header::atFreeCount);
    freeHead_ = field<std::uint64_t>(header, Header::atFreeHead);
    if (blockSize < minimumBlockSize || blockSize > maximumBlockSize || blockSize % 8 != 0 ||
        reservedBits_ >= 64)
        return false;
    mask_ = ~std::uint64_t{0} >> reservedBits_;
    if (blockCount_ < firstBlock() || blockCount_ - 1 > mask_ || blockCount_ > reservedCount_ ||
        reservedCount_ > file_->length() / blockSize || freeCount_ >= blockCount_ ||
        freeHead_ >= blockCount_)
        return false;
    setUp(blockSize, growSize);
    if (field<std::uint32_t>(header, Header::atInUse) != 0)
        recoverCount();
    marked_ = headerChanged_ = false;
    return pinHeader(blockSize);
}

/// After a crash the header's block count may be older than blocks that were written. A block
/// past it that isn't all zero was handed out.
void Blocks::recoverCount() {
    MORVA_TRACE(Always) << "Block file" << file_->name() << "was not closed";
    std::vector<std::uint8_t> block(blockSize_);
    std::uint64_t last = reservedCount_;
    while (last > blockCount_) {
        if (file_->readAt((last - 1) * blockSize_, block.data(), blockSize_) != blockSize_ ||
            std::ranges::any_of(block, [](std::uint8_t byte) { return byte != 0; }))
            break;
        --last;
    }
    blockCount_ = last;
}

void Blocks::storeHeader() {
    std::memcpy(header_, Header::magic, 8);
    storeLittle(header_ + Header::atVersion, Header::version);
    storeLittle(header_ + Header::atBlockSize, blockSize_);
    storeLittle(header_ + Header::atReservedBits, reservedBits_);
    storeLittle(header_ + Header::atInUse, std::uint32_t{marked_});
    storeLittle(header_ + Header::atBlockCount, blockCount_);
    storeLittle(header_ + Header::atReservedCount, reservedCount_);
    storeLittle(header_ + Header::atFreeCount, freeCount_);
    storeLittle(header_ + Header::atFreeHead, freeHead_);
    storeLittle(header_ + Header::atCheck, headerCheck(header_, Header::atCheck));
    cache_.markDirty(header_);
    headerChanged_ = false;
}

bool Blocks::writeHeader() {
    storeHeader();
    return cache_.writeNow(header_);
}

/// Before the first change the file is marked as in use, so that the next open after a crash knows.
bool Blocks::markChanged() {
    headerChanged_ = true;
    if (marked_)
        return true;
    marked_ = true;
    if (writeHeader())
        return headerChanged_ = true;
    marked_ = false;
    Failures::note();
    return false;
}

bool Blocks::close() {
    if (!header_)
        return true;
    MORVA_METHOD("close");
    bool closed = flush();
    if (closed && marked_) {
        marked_ = false;
        closed = writeHeader();
    }
    giveUp();
    return scope.result(closed);
}

bool Blocks::flush() {
    if (!header_)
        return false;
    if (headerChanged_)
        storeHeader();
    return cache_.flush();
}

// --- Blocks of the file -----------------------------------------------------------------------

bool Blocks::growTo(std::uint64_t blocks) {
    if (blocks > largestFile / blockSize_ || !file_->setLength(blocks * blockSize_))
        return false;
    std::uint64_t const before = std::exchange(reservedCount_, blocks);
    if (writeHeader())
        return true;
    reservedCount_ = before;
    return false;
}

bool Blocks::reserve() {
    if (blockCount_ < reservedCount_)
        return true;
    if (blockCount_ - 1 >= mask_) {
        MORVA_TRACE(Always) << "No block number is left in" << file_->name();
        return false;
    }
    std::uint64_t const step = std::min<std::uint64_t>(growBlocks_, mask_ - blockCount_ + 1);
    if (growTo(blockCount_ + step) || (step > 1 && growTo(blockCount_ + 1)))
        return true;
    MORVA_TRACE(Always) << "Failed to extend" << file_->name() << file_->lastError();
    Failures::note();
    return false;
}

/// The head of the chain of free blocks, all zero; null when there is none to be had.
void* Blocks::takeFree(std::uint64_t& number) {
    void* block = cache_.pin(freeHead_);
    if (!block)
        return nullptr;
    auto const next =
        loadLittle<std::uint64_t>(static_cast<std::uint8_t*>(block) + FreeBlock::atNext);
    if (!FreeBlock::is(block, freeHead_) || next >= blockCount_ || freeCount_ == 0) {
        MORVA_TRACE(Always) << "Damaged chain of free blocks in" << file_->name() << "at"
                            << freeHead_ << "," << freeCount_ << "blocks are lost";
        cache_.unpin(block, false);
        freeHead_ = freeCount_ = 0;
        return nullptr;
    }
    number = std::exchange(freeHead_, next);
    --freeCount_;
    std::memset(block, 0, blockSize_);
    cache_.markDirty(block);
    return block;
}

void* Blocks::newBlock(std::uint64_t& number) {
    number = 0;
    if (!header_ || !markChanged())
        return nullptr;
    if (freeHead_ != 0) {
        Failures::Watch const watch;
        if (void* block = takeFree(number))
            return block;
        if (watch.any())
            return nullptr;
    }
    if (!reserve())
        return nullptr;
    void* block = cache_.pinZero(blockCount_);
    if (block)
        number = blockCount_++;
    headerChanged_ = true;
    return block;
}

void* Blocks::getBlock(std::uint64_t number) {
    if (number == 0 || number >= blockCount_ || !header_) [[unlikely]] {
        MORVA_TRACE(Always) << "Invalid block number" << number << "of" << blockCount_;
        return nullptr;
    }
    return cache_.pin(number);
}

void const* Blocks::getBlock(std::uint64_t number) const {
    return const_cast<Blocks*>(this)->getBlock(number);
}

bool Blocks::returnBlock(void const* block, bool dirty) {
    return cache_.unpin(block, dirty);
}

bool Blocks::returnBlock(void const* block) const {
    return cache_.unpin(block, false);
}

bool Blocks::updateBlock(void const* block) {
    return cache_.markDirty(block);
}

bool Blocks::discardBlock(void const* block) {
    return cache_.discard(block);
}

bool Blocks::freeBlock(void const* block) {
    std::uint64_t const freed = number(block);
    if (freed == 0)
        return false;
    if (FreeBlock::is(block, freed)) {
        MORVA_TRACE(Always) << "Failed to free block" << freed << "of" << file_->name();
        cache_.unpin(block, false);
        return false;
    }
    // The mark is for blocks handed out: without it a crash can lose the freed one, and no more.
    {
        Failures::Pardon const pardon;
        (void)markChanged();
    }
    auto* bytes = static_cast<std::uint8_t*>(const_cast<void*>(block));
    storeLittle(bytes, std::uint64_t{0});
    storeLittle(bytes + FreeBlock::atNext, freeHead_);
    storeLittle(bytes + FreeBlock::atMark, FreeBlock::mark ^ freed);
    freeHead_ = freed;
    ++freeCount_;
    return cache_.unpin(block, true);
}

std::uint64_t Blocks::number(void const* block) const {
    return block ? PageCache::number(block) : 0;
}

bool Blocks::isFree(std::uint64_t number) const {
    void const* block = getBlock(number);
    if (!block)
        return false;
    bool const free = FreeBlock::is(block, number);
    returnBlock(block);
    return free;
}

bool Blocks::forEachFree(std::function<bool(std::uint64_t number)> const& callback) const {
    if (!header_)
        return false;
    std::uint64_t left = freeCount_;
    for (std::uint64_t at = freeHead_; at != 0 || left != 0; --left) {
        void const* block = left != 0 && at != 0 ? getBlock(at) : nullptr;
        bool const sound = block && FreeBlock::is(block, at);
        std::uint64_t const next =
            sound ? loadLittle<std::uint64_t>(static_cast<std::uint8_t const*>(block) +
                                              FreeBlock::atNext)
                  : 0;
        if (block)
            returnBlock(block);
        if (!sound) {
            MORVA_TRACE(Always) << "Damaged chain of free blocks in" << file_->name() << "at" << at;
            return false;
        }
        if (!callback(at))
            return true;
        at = next;
    }
    return true;
}

} // namespace Morva
