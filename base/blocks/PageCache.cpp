#include "base/blocks/PageCache.h"

#include "base/blocks/Failures.h"
#include "base/trace/Trace.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

namespace Morva {

namespace {

constexpr std::uint32_t liveMark = 0x50A6E11E;
constexpr std::uint32_t deadMark = 0xDEADF4A3;
constexpr std::size_t smallestTable = 64;
constexpr std::uint32_t runLimitBytes = 262144;
constexpr std::uint32_t aheadBytes = 4096;
constexpr std::uint32_t smallestSlab = 4; // frames
constexpr std::uint32_t largestSlabBytes = 262144;
constexpr unsigned victimTries = 8;

} // namespace

PageCache::PageCache(std::uint32_t target) : target_(std::max(target, 1u)) {}

PageCache::~PageCache() {
    detach();
}

void PageCache::attach(RawFile& file, std::uint32_t pageSize) {
    detach();
    file_ = &file;
    pageSize_ = pageSize;
    table_.assign(smallestTable, {});
    shift_ = 64 - std::countr_zero(smallestTable);
}

void PageCache::detach() {
    slabs_.clear();
    slabFrames_ = slabUsed_ = 0;
    free_ = nullptr;
    table_.clear();
    table_.shrink_to_fit();
    runBytes_ = {};
    aheadBytes_ = {};
    expected_ = 0;
    newest_ = oldest_ = dirtyHead_ = nullptr;
    used_ = unpinned_ = 0;
    file_ = nullptr;
}

// --- The table of pages -----------------------------------------------------------------------

std::size_t PageCache::slotOf(std::uint64_t page) const {
    return static_cast<std::size_t>((page * 0x9E3779B97F4A7C15ull) >> shift_);
}

PageCache::Frame* PageCache::lookup(std::uint64_t page) const {
    std::size_t const last = table_.size() - 1;
    for (std::size_t at = slotOf(page); table_[at].frame; at = (at + 1) & last)
        if (table_[at].number == page)
            return table_[at].frame;
    return nullptr;
}

void PageCache::enter(Frame* frame) {
    if ((used_ + 1) * std::size_t{2} > table_.size())
        growTable();
    std::size_t const last = table_.size() - 1;
    std::size_t at = slotOf(frame->number);
    while (table_[at].frame)
        at = (at + 1) & last;
    table_[at] = {frame->number, frame};
    ++used_;
}

void PageCache::leave(std::uint64_t page) {
    std::size_t const last = table_.size() - 1;
    std::size_t hole = slotOf(page);
    while (table_[hole].number != page || !table_[hole].frame)
        hole = (hole + 1) & last;
    for (std::size_t at = (hole + 1) & last; table_[at].frame; at = (at + 1) & last) {
        std::size_t const home = slotOf(table_[at].number);
        if (((at - home) & last) >= ((at - hole) & last)) {
            table_[hole] = table_[at];
            hole = at;
        }
    }
    table_[hole] = {};
    --used_;
}

void PageCache::growTable() {
    std::vector<Slot> old(table_.size() * 2);
    old.swap(table_);
    --shift_;
    used_ = 0;
    for (Slot const& slot : old)
        if (slot.frame)
            enter(slot.frame);
}

// --- Chains -----------------------------------------------------------------------------------

void PageCache::park(Frame* frame) {
    frame->newer = nullptr;
    frame->older = newest_;
    (newest_ ? newest_->newer : oldest_) = frame;
    newest_ = frame;
    ++unpinned_;
}

void PageCache::unlink(Frame* frame) {
    (frame->newer ? frame->newer->older : newest_) = frame->older;
    (frame->older ? frame->older->newer : oldest_) = frame->newer;
    --unpinned_;
}

void PageCache::touch(Frame* frame) {
    if (frame->pins++ == 0)
        unlink(frame);
}

void PageCache::setDirty(Frame* frame) {
    if (frame->dirty)
        return;
    frame->dirty = true;
    frame->dirtyPrevious = nullptr;
    frame->dirtyNext = dirtyHead_;
    if (dirtyHead_)
        dirtyHead_->dirtyPrevious = frame;
    dirtyHead_ = frame;
}

void PageCache::setClean(Frame* frame) {
    if (!frame->dirty)
        return;
    frame->dirty = false;
    (frame->dirtyPrevious ? frame->dirtyPrevious->dirtyNext : dirtyHead_) = frame->dirtyNext;
    if (frame->dirtyNext)
        frame->dirtyNext->dirtyPrevious = frame->dirtyPrevious;
}

// --- Frames -----------------------------------------------------------------------------------

void PageCache::FreeSlab::operator()(void* memory) const {
    ::operator delete (memory, std::align_val_t{alignof(Frame)});
}

PageCache::Frame* PageCache::newFrame() {
    std::size_t const size =
        (sizeof(Frame) + pageSize_ + alignof(Frame) - 1) / alignof(Frame) * alignof(Frame);
    if (slabUsed_ == slabFrames_) {
        auto const most =
            std::max(smallestSlab, static_cast<std::uint32_t>(largestSlabBytes / size));
        slabFrames_ = std::clamp(slabFrames_ * 2, smallestSlab, most);
        slabUsed_ = 0;
        slabs_.emplace_back(::operator new (size* slabFrames_, std::align_val_t{alignof(Frame)}));
    }
    auto* const bytes = static_cast<std::uint8_t*>(slabs_.back().get());
    return ::new (bytes + size * slabUsed_++) Frame{};
}

void PageCache::dropFrame(Frame* frame) {
    frame->mark = deadMark;
    frame->newer = free_;
    free_ = frame;
}

/// The coldest unpinned page that is clean or can be written; null when the first few can't.
PageCache::Frame* PageCache::victim() {
    Frame* frame = oldest_;
    for (unsigned tries = 0; frame && tries < victimTries; ++tries, frame = frame->newer) {
        if (frame->dirty && !writeAround(frame).ok()) // traced; stays dirty, and a flush tells
            continue;
        unlink(frame);
        leave(frame->number);
        return frame;
    }
    return nullptr;
}

/// A frame that belongs to no page. Never fails: the cache grows when nothing can go.
PageCache::Frame* PageCache::takeFrame() {
    if (unpinned_ > target_)
        if (Frame* extra = victim())
            dropFrame(extra);
    Frame* frame = unpinned_ >= target_ ? victim() : nullptr;
    if (!frame && free_)
        frame = std::exchange(free_, free_->newer);
    if (!frame)
        frame = newFrame();
    *frame = Frame{};
    frame->mark = liveMark;
    frame->pins = 1;
    return frame;
}

PageCache::Frame* PageCache::frameOf(void const* buffer) {
    Frame* frame = buffer ? static_cast<Frame*>(const_cast<void*>(buffer)) - 1 : nullptr;
    bool const pinnedBuffer = frame && frame->mark == liveMark && frame->pins > 0;
    MORVA_CHECK(pinnedBuffer, "pinnedBuffer");
    return pinnedBuffer ? frame : nullptr;
}

// --- Pins -------------------------------------------------------------------------------------

Result<void*> PageCache::pin(std::uint64_t page) {
    if (Frame* frame = lookup(page)) [[likely]] {
        ++hits_;
        touch(frame);
        return static_cast<void*>(frame->bytes());
    }
    ++misses_;
    Frame* frame = takeFrame();
    frame->number = page;
    bool const inOrder = page - expected_ < aheadBytes / pageSize_;
    expected_ = page + 1;
    if (!inOrder || !readAhead(frame)) {
        Status read = file_->readWhole(page * pageSize_, frame->bytes(), pageSize_);
        if (!read) [[unlikely]] {
            MORVA_TRACE(Always) << "Failed to read page" << page << "of" << file_->name();
            Failures::note();
            dropFrame(frame);
            return read;
        }
    }
    enter(frame);
    return static_cast<void*>(frame->bytes());
}

/// Reads the frame's page and those behind it that aren't here; false, with nothing done, when
/// there are none or the read fails: the caller then reads its page alone, and tells what fails.
bool PageCache::readAhead(Frame* frame) {
    std::uint64_t const first = frame->number;
    std::uint32_t const most = std::min(aheadBytes / pageSize_, target_ / 4);
    std::uint32_t count = 1;
    while (count < most && !lookup(first + count))
        ++count;
    if (count == 1)
        return false;
    aheadBytes_.resize(aheadBytes);
    auto const got = file_->readAt(first * pageSize_, aheadBytes_.data(), count * pageSize_);
    if (!got || *got < pageSize_)
        return false;
    count = *got / pageSize_;
    std::memcpy(frame->bytes(), aheadBytes_.data(), pageSize_);
    for (std::uint32_t i = 1; i < count; ++i) {
        Frame* const other = takeFrame();
        std::memcpy(other->bytes(), aheadBytes_.data() + i * pageSize_, pageSize_);
        other->number = first + i;
        other->pins = 0;
        enter(other);
        park(other);
    }
    expected_ = first + count;
    return true;
}

Result<void*> PageCache::pinZero(std::uint64_t page) {
    Frame* frame = lookup(page);
    if (frame) {
        if (frame->pins != 0) {
            MORVA_TRACE(Always) << "Page" << page << "of" << file_->name() << "is in use";
            return Status::corruption("make a page of", file_->name(),
                                      QStringLiteral("a new page is in use already"),
                                      {Status::Unit::Page, page});
        }
        ++hits_;
        touch(frame);
    } else {
        ++misses_;
        frame = takeFrame();
        frame->number = page;
        enter(frame);
    }
    std::memset(frame->bytes(), 0, pageSize_);
    setDirty(frame);
    return static_cast<void*>(frame->bytes());
}

bool PageCache::unpin(void const* buffer, bool dirty) {
    Frame* frame = frameOf(buffer);
    if (!frame)
        return false;
    if (dirty)
        setDirty(frame);
    if (--frame->pins == 0)
        park(frame);
    return true;
}

bool PageCache::markDirty(void const* buffer) {
    Frame* frame = frameOf(buffer);
    if (frame)
        setDirty(frame);
    return frame != nullptr;
}

bool PageCache::discard(void const* buffer) {
    Frame* frame = frameOf(buffer);
    if (!frame)
        return false;
    if (frame->dirty || frame->pins > 1)
        return unpin(buffer, false);
    leave(frame->number);
    dropFrame(frame);
    return true;
}

std::uint64_t PageCache::number(void const* buffer) {
    Frame const* frame = frameOf(buffer);
    return frame ? frame->number : 0;
}

std::uint32_t PageCache::pins(void const* buffer) {
    Frame const* frame = frameOf(buffer);
    return frame ? frame->pins : 0;
}

// --- Writing ----------------------------------------------------------------------------------

Status PageCache::writeNow(void const* buffer) {
    Frame* frame = frameOf(buffer);
    if (!frame)
        return Status::failure(Status::Code::InvalidArgument, "write", file_->name(),
                               QStringLiteral("the page isn't pinned"));
    return frame->dirty ? writeRun(&frame, 1) : Status();
}

Status PageCache::flush() {
    if (!dirtyHead_)
        return {};
    work_.clear();
    for (Frame* frame = dirtyHead_; frame; frame = frame->dirtyNext)
        work_.push_back(frame);
    std::ranges::sort(work_, {}, &Frame::number);
    std::size_t const longest = std::max<std::size_t>(1, runLimitBytes / pageSize_);
    Status written;
    for (std::size_t from = 0; from < work_.size();) {
        std::size_t to = from + 1;
        while (to < work_.size() && to - from < longest &&
               work_[to]->number == work_[to - 1]->number + 1)
            ++to;
        written.update(writeRun(work_.data() + from, to - from));
        from = to;
    }
    return written;
}

/// Writes a dirty page together with the dirty, unpinned pages on both sides of it.
Status PageCache::writeAround(Frame* frame) {
    auto const goesAlong = [](Frame const* other) { return other && other->dirty && !other->pins; };
    std::size_t const longest = std::max<std::size_t>(1, runLimitBytes / pageSize_);
    std::uint64_t first = frame->number;
    while (first > 0 && frame->number - first + 1 < longest && goesAlong(lookup(first - 1)))
        --first;
    work_.clear();
    for (std::uint64_t page = first; work_.size() < longest; ++page) {
        Frame* other = lookup(page);
        if (!goesAlong(other))
            break;
        work_.push_back(other);
    }
    return writeRun(work_.data(), work_.size());
}

/// The one place where bytes leave for the file: pages that follow each other, all dirty.
Status PageCache::writeRun(Frame* const* frames, std::size_t count) {
    std::uint32_t const bytes = static_cast<std::uint32_t>(count * pageSize_);
    std::uint8_t const* from = frames[0]->bytes();
    if (count > 1) {
        runBytes_.resize(std::max<std::size_t>(runBytes_.size(), bytes));
        for (std::size_t i = 0; i < count; ++i)
            std::memcpy(runBytes_.data() + i * pageSize_, frames[i]->bytes(), pageSize_);
        from = runBytes_.data();
    }
    Status written = file_->writeAt(frames[0]->number * pageSize_, from, bytes);
    if (!written) {
        MORVA_TRACE(Always) << "Failed to write" << count << "pages from" << frames[0]->number
                            << "of" << file_->name();
        return written;
    }
    for (std::size_t i = 0; i < count; ++i)
        setClean(frames[i]);
    return {};
}

} // namespace Morva
