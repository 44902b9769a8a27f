#include "replication/repository/streams/RawRefCountedBlocks.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/streams/ThreadFiles.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

namespace Replication {

using Morva::FreeList;
using Morva::loadLittle;
using Morva::RawFile;
using Morva::ReferenceCount;
using Morva::storeLittle;
using Morva::TracedLock;

namespace {

constexpr std::uint32_t nextBlockAt = 0;
constexpr std::uint32_t maskAt = 16;
constexpr std::uint32_t blockSizeAt = 24;
constexpr std::uint32_t freeListPages = 2;
/// When the disk has no room for a whole step, one of this fraction is tried.
constexpr std::uint64_t smallStepFraction = 64;

RawFile::Mode modeOf(bool randomAccess) {
    return randomAccess ? RawFile::Mode::Random : RawFile::Mode::ReadWrite;
}

} // namespace

RawRefCountedBlocks::RawRefCountedBlocks(std::uint32_t cacheSize)
    : lock_({"=========== Lock Raw Ref Counted Blocks ===========",
             "========== Unlock Raw Ref Counted Blocks =========="}),
      counts_(cacheSize),
      freeList_(freeListPages) {}

RawRefCountedBlocks::~RawRefCountedBlocks() {
    close();
}

bool RawRefCountedBlocks::create(QString const& path, std::uint32_t blockSize,
                                 std::uint32_t reservedBits, std::uint64_t growSize,
                                 bool randomAccess) {
    MORVA_METHOD("create");
    TracedLock lock(lock_);
    closeAll();
    name_ = path.section('/', -1);
    mask_ = std::numeric_limits<std::uint64_t>::max() >> std::min(reservedBits, 63u);
    if (blockSize < controlSize) {
        MORVA_TRACE(Always) << "Invalid block size must be greater that" << controlSize;
        return scope.result(false);
    }
    mode_ = modeOf(randomAccess);
    file_ = RawFile::make();
    if (!file_->create(path + ".blocks", mode_)) {
        MORVA_TRACE(Always) << "Failed to create file" << path + ".blocks";
        closeAll();
        return scope.result(false);
    }
    blockSize_ = blockSize;
    growStep(growSize);
    bool made = false;
    if (!freeList_.create(path + ".free", mask_)) {
        MORVA_TRACE(Always) << "Failed to create freelist file for" << name_;
    } else if (!counts_.create(path + ".refs", mask_, growBlocks_)) {
        MORVA_TRACE(Always) << "Failed to create reference count file for" << name_;
    } else if (growBlocks_ == 0) {
        nextBlock_ = 1;
        made = flushControl();
    } else {
        std::uint64_t const first = std::min(growBlocks_, mask_);
        nextBlock_ = first;
        made = file_->setLength(first * blockSize_) && freeList_.grow(1, first - 1).ok() &&
               flushControl();
    }
    if (!made) {
        closeAll();
        return scope.result(false);
    }
    identity_ = std::make_shared<char>();
    return scope.result(true);
}

bool RawRefCountedBlocks::open(QString const& path, std::uint64_t growSize, bool randomAccess) {
    MORVA_METHOD("open");
    TracedLock lock(lock_);
    closeAll();
    name_ = path.section('/', -1);
    mode_ = modeOf(randomAccess);
    file_ = RawFile::make();
    bool opened = false;
    if (!file_->open(path + ".blocks", mode_)) {
        MORVA_TRACE(Always) << "Failed to open file" << path + ".blocks" << file_->lastError();
    } else if (!getControl()) {
        MORVA_TRACE(Always) << "Failed to get control block";
    } else {
        growStep(growSize);
        if (!freeList_.open(path + ".free", mask_))
            MORVA_TRACE(Always) << "Failed to open freelist file for" << name_;
        else if (!counts_.open(path + ".refs", mask_, growBlocks_))
            MORVA_TRACE(Always) << "Failed to open reference count file for" << name_;
        else
            opened = true;
    }
    if (!opened) {
        closeAll();
        return scope.result(false);
    }
    identity_ = std::make_shared<char>();
    return scope.result(true);
}

bool RawRefCountedBlocks::close() {
    TracedLock lock(lock_);
    bool const freeClosed = freeList_.close().ok();
    bool const countsClosed = counts_.close().ok();
    closeAll();
    return freeClosed && countsClosed;
}

void RawRefCountedBlocks::closeAll() {
    (void)freeList_.close(); // `close` has told, or nothing was written
    (void)counts_.close();   // as above
    if (file_)
        (void)file_->close(); // removes nothing
    file_.reset();
    if (identity_)
        ThreadFiles::own().remove(identity_);
    identity_.reset();
    nextBlock_ = 0;
}

void RawRefCountedBlocks::growStep(std::uint64_t growSize) {
    growBlocks_ = growSize == 0 ? defaultGrowBlocks : growSize / blockSize_;
    if (growBlocks_ == 1)
        growBlocks_ = 0;
}

bool RawRefCountedBlocks::readControl(RawFile& file, Control& control) {
    std::array<std::uint8_t, controlSize> bytes{};
    if (!file.readWhole(0, bytes.data(), controlSize)) {
        MORVA_TRACE(Always) << "Failed to read enough data at begining of file" << file.name();
        return false;
    }
    control.nextBlock = loadLittle<std::uint64_t>(&bytes[nextBlockAt]);
    control.mask = loadLittle<std::uint64_t>(&bytes[maskAt]);
    control.blockSize = loadLittle<std::uint32_t>(&bytes[blockSizeAt]);
    return control.blockSize >= controlSize && control.nextBlock != 0 && control.mask != 0 &&
           (control.mask & (control.mask + 1)) == 0 && control.nextBlock - 1 <= control.mask;
}

bool RawRefCountedBlocks::getControl() {
    Control control;
    bool const sound = readControl(*file_, control);
    nextBlock_ = control.nextBlock;
    mask_ = control.mask;
    blockSize_ = control.blockSize;
    return sound;
}

bool RawRefCountedBlocks::flushControl() {
    std::array<std::uint8_t, controlSize> bytes{};
    storeLittle(&bytes[nextBlockAt], nextBlock_.load());
    storeLittle(&bytes[maskAt], mask_);
    storeLittle(&bytes[blockSizeAt], blockSize_);
    if (!file_->setPosition(0, RawFile::Where::Start)) {
        MORVA_TRACE(Always) << "Failed to position to begining of file" << name_;
        return false;
    }
    if (!file_->write(bytes.data(), controlSize)) {
        MORVA_TRACE(Always) << "Failed to write control block" << name_;
        return false;
    }
    return true;
}

void RawRefCountedBlocks::beginThread(RawFile::Mode mode) {
    static_cast<void>(ownFile(mode));
}

void RawRefCountedBlocks::endThread() {
    if (identity_)
        ThreadFiles::own().remove(identity_);
}

RawFile* RawRefCountedBlocks::ownFile(RawFile::Mode mode) {
    if (!identity_)
        return nullptr;
    ThreadFiles& files = ThreadFiles::own();
    if (RawFile* file = files.find(identity_)) [[likely]]
        return file;
    TracedLock lock(lock_);
    auto file = file_->threadFile(mode);
    if (!file)
        MORVA_TRACE(Always) << "Failed to open file" << name_ << file_->lastError();
    return file ? files.add(identity_, *std::move(file)) : nullptr;
}

bool RawRefCountedBlocks::inFile(std::uint64_t first, std::uint64_t count) const {
    std::uint64_t const next = nextBlock_.load(std::memory_order_relaxed);
    return first != 0 && first < next && count <= next - first;
}

RawFile* RawRefCountedBlocks::fileOf(std::uint64_t first, std::uint64_t blocks,
                                     char const* failure) {
    RawFile* file = ownFile(mode_);
    if (file && inFile(first, blocks))
        return file;
    MORVA_TRACE(Always) << failure << name_ << first;
    return nullptr;
}

bool RawRefCountedBlocks::readRun(std::uint64_t first, std::uint64_t blocks, void* buffer,
                                  std::uint32_t offset, std::uint32_t count) {
    RawFile* file = fileOf(first, blocks, "Failed to position for read");
    if (file && file->readWhole(first * blockSize_ + offset, buffer, count))
        return true;
    if (file)
        MORVA_TRACE(Always) << "Failed to read data" << name_ << first << count;
    return false;
}

bool RawRefCountedBlocks::writeRun(std::uint64_t first, std::uint64_t blocks, void const* buffer,
                                   std::uint32_t offset, std::uint32_t count) {
    RawFile* file = fileOf(first, blocks, "Failed to position for write");
    if (file && file->writeAt(first * blockSize_ + offset, buffer, count))
        return true;
    if (file)
        MORVA_TRACE(Always) << "Failed to write data" << name_ << first << count;
    return false;
}

bool RawRefCountedBlocks::read(std::uint64_t block, void* buffer, std::uint32_t offset,
                               std::uint32_t count) {
    return count == 0 || readRun(block & mask_, 1, buffer, offset, count);
}

bool RawRefCountedBlocks::write(std::uint64_t block, void const* buffer, std::uint32_t offset,
                                std::uint32_t count) {
    return count == 0 || writeRun(block & mask_, 1, buffer, offset, count);
}

std::uint32_t RawRefCountedBlocks::runLength(std::uint64_t const* blocks,
                                             std::uint32_t blockCount) const {
    std::uint32_t run = 1;
    while (run < blockCount && (blocks[run] & mask_) == (blocks[run - 1] & mask_) + 1)
        ++run;
    return run;
}

template <class Bytes, class Run>
bool RawRefCountedBlocks::inRuns(std::uint64_t const* blocks, std::uint32_t blockCount, Bytes* at,
                                 std::uint32_t offset, std::uint32_t count, Run&& run) {
    while (count != 0 && blockCount != 0) {
        std::uint64_t const first = *blocks & mask_;
        std::uint32_t const length = first == 0 ? 1 : runLength(blocks, blockCount);
        auto const chunk = static_cast<std::uint32_t>(
            std::min<std::uint64_t>(count, std::uint64_t{length} * blockSize_ - offset));
        if (!run(first, length, at, offset, chunk))
            return false;
        blocks += length;
        blockCount -= length;
        at += chunk;
        count -= chunk;
        offset = 0;
    }
    return count == 0;
}

bool RawRefCountedBlocks::read(std::uint64_t const* blocks, std::uint32_t blockCount, void* buffer,
                               std::uint32_t offset, std::uint32_t count) {
    return inRuns(blocks, blockCount, static_cast<std::uint8_t*>(buffer), offset, count,
                  [this](std::uint64_t first, std::uint32_t length, std::uint8_t* at,
                         std::uint32_t from, std::uint32_t chunk) {
                      if (first != 0)
                          return readRun(first, length, at, from, chunk);
                      std::memset(at, 0, chunk);
                      return true;
                  });
}

bool RawRefCountedBlocks::write(std::uint64_t const* blocks, std::uint32_t blockCount,
                                void const* buffer, std::uint32_t offset, std::uint32_t count) {
    return inRuns(blocks, blockCount, static_cast<std::uint8_t const*>(buffer), offset, count,
                  [this](std::uint64_t first, std::uint32_t length, std::uint8_t const* at,
                         std::uint32_t from, std::uint32_t chunk) {
                      if (first != 0)
                          return writeRun(first, length, at, from, chunk);
                      MORVA_TRACE(Always) << "Attempt to write to sparse block" << name_;
                      return false;
                  });
}

bool RawRefCountedBlocks::extend(std::uint64_t first) {
    if (growBlocks_ == 0) {
        nextBlock_ = first + 1;
        if (flushControl())
            return true;
        nextBlock_ = first;
        return false;
    }
    for (std::uint64_t step : {growBlocks_, growBlocks_ / smallStepFraction}) {
        step = std::min(std::max<std::uint64_t>(step, 1), mask_ - first + 1);
        // Never shorter: a damaged control block would cut off what others use.
        std::uint64_t const wanted = (first + step) * blockSize_;
        auto const length = file_->length();
        if (!length || (*length < wanted && !file_->setLength(wanted)))
            continue;
        nextBlock_ = first + step;
        if (!flushControl()) {
            nextBlock_ = first;
            return false;
        }
        // The numbers are lost when the list can't take them, but this one is good.
        if (!freeList_.grow(first + 1, step - 1))
            MORVA_TRACE(Always) << "Failed to extend freelist of" << name_;
        return true;
    }
    MORVA_TRACE(Always) << "Failed to extend file" << name_ << file_->lastError();
    return false;
}

std::uint64_t RawRefCountedBlocks::takeBlock(bool& exhausted) {
    exhausted = false;
    for (;;) {
        std::uint64_t number = 0;
        auto const got = freeList_.get(number, nextBlock_);
        if (!got.ok())
            return 0;
        if (!*got) {
            number = nextBlock_;
            if ((number & ~mask_) != 0) {
                exhausted = true;
                return 0;
            }
            if (!extend(number))
                return 0;
        }
        if (!inFile(number, 1)) {
            MORVA_TRACE(Always) << "Free block outside the file" << name_ << number;
            continue;
        }
        if (counts_.newId(number))
            return number;
        MORVA_CHECK(false, "bValidRefCountedBlock");
        // A number that is in use is in the list by damage: the next one may be good. Else the
        // table fails or has no room, and the number waits for better times.
        std::uint32_t inUse = 0;
        if (counts_.count(inUse, number) && inUse != 0)
            continue;
        (void)freeList_.put(number); // else it is lost until a repair
        return 0;
    }
}

std::uint64_t RawRefCountedBlocks::newBlock() {
    std::uint64_t number = 0;
    return newBlocks({&number, 1}) == 1 ? number : 0;
}

std::uint32_t RawRefCountedBlocks::newBlocks(std::span<std::uint64_t> numbers) {
    TracedLock lock(lock_);
    std::uint32_t got = 0;
    while (got < numbers.size() && file_) {
        bool exhausted = false;
        if (std::uint64_t const number = takeBlock(exhausted)) {
            numbers[got++] = number;
            continue;
        }
        if (!exhausted || stopping_)
            break;
        std::unique_lock<std::mutex> held(lock_.native(), std::adopt_lock);
        ++waiting_;
        freed_.wait(held, [this] { return stopping_ || freeList_.count() != 0; });
        --waiting_;
        held.release();
    }
    return got;
}

bool RawRefCountedBlocks::freeBlock(std::uint64_t block) {
    if (block == 0)
        return false;
    TracedLock lock(lock_);
    std::uint32_t left = 0;
    if (!file_ || !counts_.decrement(left, block) || left != 0)
        return false;
    if (!counts_.releaseId(block) || !freeList_.put(block))
        MORVA_TRACE(Always) << "Lost a free block" << name_ << block;
    if (waiting_ != 0)
        freed_.notify_all();
    return true;
}

bool RawRefCountedBlocks::count(std::uint32_t& count, std::uint64_t block) const {
    TracedLock lock(lock_);
    return file_ && counts_.count(count, block).ok();
}

bool RawRefCountedBlocks::increment(std::uint32_t& count, std::uint64_t block) {
    TracedLock lock(lock_);
    return file_ && counts_.increment(count, block).ok();
}

bool RawRefCountedBlocks::unique(std::uint64_t block) const {
    TracedLock lock(lock_);
    std::uint32_t count = 0;
    return file_ && counts_.count(count, block) && count == 1;
}

bool RawRefCountedBlocks::flush() {
    TracedLock lock(lock_);
    bool const freeFlushed = freeList_.flush().ok();
    bool const countsFlushed = counts_.flush().ok();
    return freeFlushed && countsFlushed;
}

bool RawRefCountedBlocks::sync() {
    TracedLock lock(lock_);
    bool const dataSynced = file_ && file_->sync();
    bool const freeSynced = freeList_.sync().ok();
    bool const countsSynced = counts_.sync().ok();
    return dataSynced && freeSynced && countsSynced;
}

void RawRefCountedBlocks::stop() {
    TracedLock lock(lock_);
    stopping_ = true;
    freed_.notify_all();
}

std::uint64_t RawRefCountedBlocks::blocksUsed(std::uint64_t* total) const {
    TracedLock lock(lock_);
    std::uint64_t const next = nextBlock_;
    if (total)
        *total = next;
    return next - std::min(next, freeList_.count());
}

std::uint64_t RawRefCountedBlocks::cacheHits() const {
    TracedLock lock(lock_);
    return counts_.cacheHits();
}

std::uint64_t RawRefCountedBlocks::cacheMisses() const {
    TracedLock lock(lock_);
    return counts_.cacheMisses();
}

std::uint32_t RawRefCountedBlocks::cacheSize() const {
    TracedLock lock(lock_);
    return counts_.cacheSize();
}

bool RawRefCountedBlocks::forEachCount(
    std::function<bool(std::uint64_t block, std::uint32_t count)> const& visit) const {
    TracedLock lock(lock_);
    return counts_.forEach(visit).ok();
}

bool RawRefCountedBlocks::forEachFree(
    std::function<bool(std::uint64_t first, std::uint64_t count)> const& visit) const {
    TracedLock lock(lock_);
    return freeList_.forEach(visit).ok();
}

} // namespace Replication
