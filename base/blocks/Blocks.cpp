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
    (void)close(); // traced; who needs to know closes before
}

void Blocks::setUp(std::uint32_t blockSize, std::uint64_t growSize) {
    blockSize_ = blockSize;
    std::uint64_t const step = (growSize ? growSize : defaultGrowSize) / blockSize;
    growBlocks_ = static_cast<std::uint32_t>(std::clamp<std::uint64_t>(step, 1, 0x10000000));
}

Status Blocks::create(QString const& name, std::uint32_t blockSize, std::uint32_t reservedBits,
                      std::uint64_t growSize, RawFile::Mode mode) {
    MORVA_METHOD("create");
    MORVA_TRY(close());
    if (blockSize < minimumBlockSize || blockSize > maximumBlockSize || blockSize % 8 != 0 ||
        reservedBits >= 64) {
        MORVA_TRACE(Always) << "Invalid block size or reserved bits" << blockSize << reservedBits;
        return scope.result(Status::failure(Status::Code::InvalidArgument, "create", name,
                                            QStringLiteral("no such block size")));
    }
    MORVA_TRY(scope.result(beginCreation(name, mode, blockSize)));
    setUp(blockSize, growSize);
    reservedBits_ = reservedBits;
    mask_ = ~std::uint64_t{0} >> reservedBits;
    blockCount_ = reservedCount_ = firstBlock();
    freeCount_ = freeHead_ = 0;
    marked_ = true;
    return scope.result(endCreation(writeHeader()));
}

Status Blocks::open(QString const& name, std::uint64_t growSize, RawFile::Mode mode) {
    MORVA_METHOD("open");
    MORVA_TRY(close());
    MORVA_TRY(scope.result(beginOpening(name, mode)));
    return scope.result(endOpening(readHeader(growSize), "Invalid block file header in"));
}

Status Blocks::readHeader(std::uint64_t growSize) {
    std::array<std::uint8_t, Header::size> bytes;
    std::uint8_t const* header = bytes.data();
    MORVA_TRY(file_->readWhole(0, bytes.data(), Header::size));
    if (std::memcmp(header, Header::magic, 8) != 0 ||
        field<std::uint32_t>(header, Header::atVersion) != Header::version ||
        field<std::uint32_t>(header, Header::atCheck) != headerCheck(header, Header::atCheck))
        return unsoundHeader();
    auto const blockSize = field<std::uint32_t>(header, Header::atBlockSize);
    reservedBits_ = field<std::uint32_t>(header, Header::atReservedBits);
    blockCount_ = field<std::uint64_t>(header, Header::atBlockCount);
    reservedCount_ = field<std::uint64_t>(header, Header::atReservedCount);
    freeCount_ = field<std::uint64_t>(header, Header::atFreeCount);
    freeHead_ = field<std::uint64_t>(header, Header::atFreeHead);
    if (blockSize < minimumBlockSize || blockSize > maximumBlockSize || blockSize % 8 != 0 ||
        reservedBits_ >= 64)
        return unsoundHeader();
    mask_ = ~std::uint64_t{0} >> reservedBits_;
    MORVA_TRY_LET(std::uint64_t const length, file_->length());
    if (blockCount_ < firstBlock() || blockCount_ - 1 > mask_ || blockCount_ > reservedCount_ ||
        reservedCount_ > length / blockSize || freeCount_ >= blockCount_ ||
        freeHead_ >= blockCount_)
        return unsoundHeader();
    setUp(blockSize, growSize);
    if (field<std::uint32_t>(header, Header::atInUse) != 0)
        MORVA_TRY(recoverCount());
    marked_ = headerChanged_ = false;
    return pinHeader(blockSize);
}

/// After a crash the header's block count may be older than blocks that were written. A block
/// past it that isn't all zero, or that is damaged, was handed out.
Status Blocks::recoverCount() {
    MORVA_TRACE(Always) << "Block file" << file_->name() << "was not closed";
    std::vector<std::uint8_t> block(blockSize_);
    std::uint64_t last = reservedCount_;
    while (last > blockCount_) {
        Status read = file_->readWhole((last - 1) * blockSize_, block.data(), blockSize_);
        if (!read && !read.is(Status::Code::Corruption))
            return read;
        if (!read || std::ranges::any_of(block, [](std::uint8_t byte) { return byte != 0; }))
            break;
        --last;
    }
    blockCount_ = last;
    return {};
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

Status Blocks::writeHeader() {
    storeHeader();
    return cache_.writeNow(header_);
}

/// Before the first change the file is marked as in use, so that the next open after a crash knows.
Status Blocks::markChanged() {
    headerChanged_ = true;
    if (marked_)
        return {};
    marked_ = true;
    Status written = writeHeader();
    headerChanged_ = true;
    if (!written) {
        marked_ = false;
        Failures::note();
    }
    return written;
}

Status Blocks::close() {
    if (!header_)
        return {};
    MORVA_METHOD("close");
    Status closed = flush();
    if (closed && marked_) {
        marked_ = false;
        closed = writeHeader();
    }
    giveUp();
    return scope.result(std::move(closed));
}

Status Blocks::flush() {
    if (!header_)
        return notOpen("flush");
    if (headerChanged_)
        storeHeader();
    return cache_.flush();
}

// --- Blocks of the file -----------------------------------------------------------------------

Status Blocks::growTo(std::uint64_t blocks) {
    if (blocks > largestFile / blockSize_)
        return Status::failure(Status::Code::NoSpace, "extend", file_->name(),
                               QStringLiteral("a file can't be that large"));
    MORVA_TRY(file_->setLength(blocks * blockSize_));
    std::uint64_t const before = std::exchange(reservedCount_, blocks);
    Status written = writeHeader();
    if (!written)
        reservedCount_ = before;
    return written;
}

Status Blocks::reserve() {
    if (blockCount_ < reservedCount_)
        return {};
    if (blockCount_ - 1 >= mask_) {
        MORVA_TRACE(Always) << "No block number is left in" << file_->name();
        return Status::failure(Status::Code::NoSpace, "extend", file_->name(),
                               QStringLiteral("no block number is left"));
    }
    std::uint64_t const step = std::min<std::uint64_t>(growBlocks_, mask_ - blockCount_ + 1);
    Status grown = growTo(blockCount_ + step);
    if (!grown && step > 1)
        grown = growTo(blockCount_ + 1);
    if (!grown) {
        MORVA_TRACE(Always) << "Failed to extend" << file_->name() << file_->lastError();
        Failures::note();
    }
    return grown;
}

Status Blocks::badChain(std::uint64_t number) const {
    return Status::corruption("read", file_->name(),
                              QStringLiteral("the chain of free blocks is damaged"),
                              {Status::Unit::Block, number});
}

/// The head of the chain of free blocks, all zero. `Corruption` when the chain is damaged.
Result<void*> Blocks::takeFree(std::uint64_t& number) {
    MORVA_TRY_LET(void* const block, cache_.pin(freeHead_));
    auto const next =
        loadLittle<std::uint64_t>(static_cast<std::uint8_t*>(block) + FreeBlock::atNext);
    if (!FreeBlock::is(block, freeHead_) || next >= blockCount_ || freeCount_ == 0) {
        cache_.unpin(block, false);
        return badChain(freeHead_);
    }
    number = std::exchange(freeHead_, next);
    --freeCount_;
    std::memset(block, 0, blockSize_);
    cache_.markDirty(block);
    return block;
}

Result<void*> Blocks::newBlock(std::uint64_t& number) {
    number = 0;
    if (!header_)
        return notOpen("make a block");
    MORVA_TRY(markChanged());
    if (freeHead_ != 0) {
        auto block = takeFree(number);
        if (block.code() != Status::Code::Corruption)
            return block;
        // Its blocks are lost until a repair; none that is in use can be taken for free.
        MORVA_TRACE(Always) << "Damaged chain of free blocks in" << file_->name() << "at"
                            << freeHead_ << "," << freeCount_ << "blocks are lost";
        freeHead_ = freeCount_ = 0;
    }
    MORVA_TRY(reserve());
    auto block = cache_.pinZero(blockCount_);
    if (block)
        number = blockCount_++;
    headerChanged_ = true;
    return block;
}

Status Blocks::noBlock(std::uint64_t number) const {
    MORVA_TRACE(Always) << "Invalid block number" << number << "of" << blockCount_;
    if (!header_)
        return notOpen("read");
    return Status::corruption("read", file_->name(), QStringLiteral("no such block exists"),
                              {Status::Unit::Block, number});
}

Result<void*> Blocks::getBlock(std::uint64_t number) {
    if (number == 0 || number >= blockCount_ || !header_) [[unlikely]]
        return noBlock(number);
    return cache_.pin(number);
}

Result<void const*> Blocks::getBlock(std::uint64_t number) const {
    MORVA_TRY_LET(void const* const block, const_cast<Blocks*>(this)->getBlock(number));
    return block;
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

Status Blocks::freeBlock(void const* block) {
    std::uint64_t const freed = number(block);
    if (freed == 0)
        return Status::failure(Status::Code::InvalidArgument, "free a block of",
                               header_ ? file_->name() : QString(),
                               QStringLiteral("the block isn't pinned"));
    if (FreeBlock::is(block, freed)) {
        MORVA_TRACE(Always) << "Failed to free block" << freed << "of" << file_->name();
        cache_.unpin(block, false);
        return Status::corruption("free a block of", file_->name(),
                                  QStringLiteral("it is free already"),
                                  {Status::Unit::Block, freed});
    }
    {
        Failures::Pardon const pardon;
        (void)markChanged(); // for blocks handed out: a crash loses the freed one, and no more
    }
    auto* bytes = static_cast<std::uint8_t*>(const_cast<void*>(block));
    storeLittle(bytes, std::uint64_t{0});
    storeLittle(bytes + FreeBlock::atNext, freeHead_);
    storeLittle(bytes + FreeBlock::atMark, FreeBlock::mark ^ freed);
    freeHead_ = freed;
    ++freeCount_;
    cache_.unpin(block, true);
    return {};
}

std::uint64_t Blocks::number(void const* block) const {
    return block ? PageCache::number(block) : 0;
}

Result<bool> Blocks::isFree(std::uint64_t number) const {
    MORVA_TRY_LET(void const* const block, getBlock(number));
    bool const free = FreeBlock::is(block, number);
    returnBlock(block);
    return free;
}

Status Blocks::forEachFree(std::function<bool(std::uint64_t number)> const& callback) const {
    if (!header_)
        return notOpen("read");
    std::uint64_t left = freeCount_;
    for (std::uint64_t at = freeHead_; at != 0 || left != 0; --left) {
        bool sound = left != 0 && at != 0;
        std::uint64_t next = 0;
        if (sound) {
            MORVA_TRY_LET(void const* const block, getBlock(at));
            sound = FreeBlock::is(block, at);
            next = loadLittle<std::uint64_t>(static_cast<std::uint8_t const*>(block) +
                                             FreeBlock::atNext);
            returnBlock(block);
        }
        if (!sound) {
            MORVA_TRACE(Always) << "Damaged chain of free blocks in" << file_->name() << "at" << at;
            return badChain(at);
        }
        if (!callback(at))
            return {};
        at = next;
    }
    return {};
}

} // namespace Morva
