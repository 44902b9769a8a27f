#pragma once

#include "base/files/RawFile.h"
#include "base/trace/TracedLock.h"
#include "base/values/Extent.h"

#include <QString>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Morva {

/// A persistent first-in first-out queue of records between threads, which survives a restart.
///
/// Many threads may send; one receives. A record is in the file when `send` returns (written, not
/// synced) and stays there until it is released. The file starts over whenever the queue runs
/// empty, and whenever what was released takes more of it than a page and than all that waits: it
/// is never longer than twice what waits and a page. Format and what a crash can leave:
/// docs/formats/queue.md. Failures are traced.
class PagedQueue {
public:
    enum class Result : std::uint32_t {
        Success = 0,
        Empty = 1,       ///< `tryReceive` only: no record waits
        Interrupted = 2, ///< `stop` was called, or the interrupt descriptor is readable
        Failed = 3,      ///< the file can't be used, or the call is out of order
        TooLarge = 4     ///< the record is larger than the page size
    };

    /// Opens the queue's file, or makes it if there is none. A record and its 16 bytes of frame
    /// must fit `pageSize` bytes; `pagesInMemory` bounds what is kept in memory. Neither is
    /// allocated ahead.
    PagedQueue(QString const& path, std::uint64_t pageSize, std::uint64_t pagesInMemory);
    /// Opens a file for a look at it that changes nothing; none is made. Of the operations only
    /// `forEach` and `available` may be used then.
    struct ReadOnly {};
    PagedQueue(QString const& path, std::uint64_t pageSize, ReadOnly);
    ~PagedQueue();

    /// Whether the file could be opened or made.
    [[nodiscard]] explicit operator bool() const { return open_; }

    /// Appends a copy of the record. Any thread. On a failure the queue is as it was.
    [[nodiscard]] Result send(Extent const& record);

    /// The calling thread becomes the receiver. To be called once before the receiving calls,
    /// which all belong to that thread. A descriptor (an eventfd, say; the caller keeps it open
    /// and owns it) that becomes readable ends a wait.
    [[nodiscard]] Result receiver(int interruptDescriptor = -1);
    /// Waits for the next record and gives a range that is valid until `release`. A stop or an
    /// interrupt comes before a record that waits. Called again without a `release` it gives the
    /// same record.
    [[nodiscard]] Result receivePolled(Extent& record);
    /// The same without waiting.
    [[nodiscard]] Result tryReceive(Extent& record);
    /// The record given out is done and leaves the queue.
    [[nodiscard]] Result release();
    /// Ends the receiver's wait, and all its waits from now on. Any thread.
    void stop();

    /// Records in the queue, the one given out counted until its release. Any thread.
    [[nodiscard]] Result available(std::uint64_t& count) const;
    [[nodiscard]] bool sync();

    /// Calls back for each record in the queue, in order, until the callback returns false; the
    /// range is valid for the call. False when the file can't be read. Holds the queue's lock and
    /// changes nothing.
    bool forEach(std::function<bool(Extent const& record)> const& callback) const;

private:
    struct Head {
        std::uint64_t sequence = 0;   // of the writes of the head
        std::uint64_t generation = 0; // rises each time the file starts over, never above sequence
        std::uint64_t offset = 0;     // of the first record
    };
    /// Bytes of the file read ahead.
    struct Window {
        std::vector<std::uint8_t> bytes;
        std::uint64_t start = 0;
    };

    [[nodiscard]] bool openOrMake(QString const& path) MORVA_REQUIRES(lock_);
    [[nodiscard]] bool readHead() MORVA_REQUIRES(lock_);
    [[nodiscard]] bool writeHead(Head head) MORVA_REQUIRES(lock_);
    static void storeHead(std::uint8_t* at, Head const& head);
    void addFrame(Extent const& record, std::uint64_t generation, std::uint64_t offset)
        MORVA_REQUIRES(lock_);
    [[nodiscard]] bool copyToFront(std::uint64_t from, std::uint64_t generation, std::uint64_t& end)
        MORVA_REQUIRES(lock_);
    void findTail() MORVA_REQUIRES(lock_);
    [[nodiscard]] bool trim() MORVA_REQUIRES(lock_);
    [[nodiscard]] bool load(std::uint64_t offset, std::uint64_t end, std::uint64_t generation,
                            Window& window, Extent& record) const;
    [[nodiscard]] bool fill(std::uint64_t offset, std::uint64_t end, std::uint64_t count,
                            Window& window) const;
    [[nodiscard]] Result take(Extent& record);
    [[nodiscard]] bool interrupted() const;
    void waitForEvent() const;
    void wake() const;

    std::uint64_t const pageSize_;
    std::uint64_t const memory_;
    std::unique_ptr<RawFile> file_; // set up in the constructor; only positioned calls after it
    bool open_ = false;
    int event_ = -1;
    std::atomic<bool> stopped_ = false;

    int interrupt_ = -1; // these belong to the receiver
    bool receiving_ = false;
    bool held_ = false;
    std::uint32_t heldSize_ = 0;
    Window window_;

    mutable TracedMutex lock_;
    Head head_ MORVA_GUARDED_BY(lock_);
    std::uint64_t tail_ MORVA_GUARDED_BY(lock_) = 0;
    std::uint64_t count_ MORVA_GUARDED_BY(lock_) = 0;
    bool trimmed_ MORVA_GUARDED_BY(lock_) = false;     // nothing lies behind the tail
    std::uint64_t moveAt_ MORVA_GUARDED_BY(lock_) = 0; // not tried before, after a failure
    std::vector<std::uint8_t> frame_ MORVA_GUARDED_BY(lock_);
};

} // namespace Morva
