#pragma once

#include "base/files/RawFile.h"
#include "base/values/Status.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace Morva {

/// The write-back cache of one file of numbered pages. Page `n` lies at byte `n * pageSize`.
///
/// Everything that reaches a block file leaves through this class, in `writeRun`.
///
/// A pinned page keeps its address until its last pin is given back. The size is a target for
/// the pages that nobody pins; pins come on top. The page that was used longest ago goes first,
/// and takes its dirty neighbours to the file with it. A page that could not be written stays
/// dirty and in the cache, which then grows; the next flush or eviction tries it again. Small pages
/// that are wanted one after the other are read several at a time. Memory is given back when the
/// work on a file ends.
///
/// Not thread-safe. Operations that take a buffer want one that this cache gave out and that is
/// still pinned; a null pointer and one that has no pin left are refused with an assertion text.
class PageCache {
public:
    /// `target` 0 counts as 1.
    explicit PageCache(std::uint32_t target);
    ~PageCache();
    PageCache(PageCache const&) = delete;
    PageCache& operator=(PageCache const&) = delete;

    /// Starts work on a file, which must be open and outlive the work.
    void attach(RawFile& file, std::uint32_t pageSize);
    /// Forgets all pages, written or not. Pins that are still out become invalid.
    void detach();

    /// The page's buffer, read from the file if it isn't here. `IoError`, and `Corruption` for a
    /// page that the file doesn't have whole or whose bytes are wrong.
    [[nodiscard]] Result<void*> pin(std::uint64_t page);
    /// The page as zero bytes, whatever the file holds, and already dirty. `Corruption` when
    /// somebody has a pin on it: the caller took a page in use for a new one.
    [[nodiscard]] Result<void*> pinZero(std::uint64_t page);
    /// Gives one pin back. False for a buffer without a pin.
    bool unpin(void const* buffer, bool dirty);
    /// Marks a pinned page as changed. False for a buffer without a pin.
    bool markDirty(void const* buffer);
    /// Gives one pin back and forgets the buffer, so that changes which nobody told of are gone. A
    /// page that is dirty, or that others hold, stays as it is: its changes aren't this caller's.
    bool discard(void const* buffer);
    [[nodiscard]] static std::uint64_t number(void const* buffer);
    [[nodiscard]] static std::uint32_t pins(void const* buffer);

    /// Writes one pinned page now, if it is dirty.
    [[nodiscard]] Status writeNow(void const* buffer);
    /// Writes all dirty pages in ascending order; the first failure when some could not be written.
    /// Those that could are clean then.
    [[nodiscard]] Status flush();
    [[nodiscard]] bool dirty() const { return dirtyHead_ != nullptr; }

    /// Pins that found the page here, and pins that didn't, since construction.
    [[nodiscard]] std::uint64_t hits() const { return hits_; }
    [[nodiscard]] std::uint64_t misses() const { return misses_; }
    /// Pages now held.
    [[nodiscard]] std::uint32_t size() const { return used_; }

private:
    /// Stands directly before the bytes of its page.
    struct alignas(64) Frame {
        std::uint64_t number;
        Frame* newer; // in the chain of unpinned pages, and `newer` also in that of free frames
        Frame* older;
        Frame* dirtyNext;
        Frame* dirtyPrevious;
        std::uint32_t pins;
        std::uint32_t mark;
        bool dirty;

        std::uint8_t* bytes() { return reinterpret_cast<std::uint8_t*>(this + 1); }
    };
    struct Slot {
        std::uint64_t number;
        Frame* frame;
    };

    static Frame* frameOf(void const* buffer);
    [[nodiscard]] std::size_t slotOf(std::uint64_t page) const;
    [[nodiscard]] Frame* lookup(std::uint64_t page) const;
    void enter(Frame* frame);
    void leave(std::uint64_t page);
    void growTable();

    void touch(Frame* frame);
    void park(Frame* frame);
    void unlink(Frame* frame);
    void setDirty(Frame* frame);
    void setClean(Frame* frame);

    [[nodiscard]] bool readAhead(Frame* frame);
    Frame* takeFrame();
    Frame* newFrame();
    void dropFrame(Frame* frame);
    Frame* victim();
    [[nodiscard]] Status writeAround(Frame* frame);
    [[nodiscard]] Status writeRun(Frame* const* frames, std::size_t count);

    RawFile* file_ = nullptr;
    std::uint32_t pageSize_ = 0;
    std::uint32_t const target_;
    std::uint32_t used_ = 0;
    std::uint32_t unpinned_ = 0;
    std::uint64_t hits_ = 0;
    std::uint64_t misses_ = 0;

    std::vector<Slot> table_; // open addressing, power of two
    unsigned shift_ = 0;
    Frame* newest_ = nullptr;
    Frame* oldest_ = nullptr;
    Frame* dirtyHead_ = nullptr;
    Frame* free_ = nullptr;
    struct FreeSlab {
        void operator()(void* memory) const;
    };
    std::vector<std::unique_ptr<void, FreeSlab>> slabs_; // of frames, each larger than the last
    std::uint32_t slabFrames_ = 0;                       // in the last one
    std::uint32_t slabUsed_ = 0;
    std::uint64_t expected_ = 0; // the page behind the last one that was read
    std::vector<std::uint8_t> aheadBytes_;
    std::vector<std::uint8_t> runBytes_;
    std::vector<Frame*> work_;
};

} // namespace Morva
