#pragma once

#include "base/files/RawFile.h"
#include "base/trace/TracedLock.h"
#include "base/values/Extent.h"
#include "base/values/Status.h"

#include <QString>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace Morva {

/// A persistent first-in first-out queue of records between threads, which survives a restart.
///
/// Many threads may send; one receives. A record is in the file when `send` returns (written, not
/// synced) and stays there until it is released. The file starts over whenever the queue runs
/// empty, and whenever what was released takes more of it than a page and than all that waits: it
/// is never longer than twice what waits and a page. Format and what a crash can leave:
/// docs/formats/queue.md. Failures are traced.
///
/// A damaged record is `Corruption` to the receiver, once, and never the queue's end: what is sound
/// behind it is found again and given next, and nothing is written over before it was passed.
class PagedQueue {
public:
    /// What a constructor does when there is no file, or one whose making was cut short.
    enum class Missing { Make, Fail };

    /// Opens the queue's file. A record and its 16 bytes of frame must fit `pageSize` bytes;
    /// `pagesInMemory` bounds what is kept in memory. Neither is allocated ahead.
    PagedQueue(QString const& path, std::uint64_t pageSize, std::uint64_t pagesInMemory,
               Missing missing = Missing::Make);
    /// Opens a file for a look at it that changes nothing; none is made. Of the operations only
    /// `forEach` and `available` may be used then.
    struct ReadOnly {};
    PagedQueue(QString const& path, std::uint64_t pageSize, ReadOnly);
    ~PagedQueue();

    /// Whether the file could be opened or made, and why not: `NotFound`, `Corruption` of its head,
    /// `IoError`.
    [[nodiscard]] explicit operator bool() const { return opened_.ok(); }
    [[nodiscard]] Status const& status() const { return opened_; }

    /// Appends a copy of the record. Any thread. On a failure the queue is as it was;
    /// `InvalidArgument` when the record is larger than the page size.
    [[nodiscard]] Status send(Extent const& record);

    /// The calling thread becomes the receiver. To be called once before the receiving calls,
    /// which all belong to that thread. A descriptor (an eventfd, say; the caller keeps it open
    /// and owns it) that becomes readable ends a wait.
    [[nodiscard]] Status receiver(int interruptDescriptor = -1);
    /// Waits for the next record and gives a range that is valid until `release`. `Stopped` after
    /// `stop` and while the interrupt descriptor is readable, which come before a record that
    /// waits. `Corruption` when records before the next sound one are damaged: the next call gives
    /// that one. After an `IoError` the next call tries again. Called again without a `release` it
    /// gives the same record.
    [[nodiscard]] Status receivePolled(Extent& record);
    /// The same without waiting: false when no record waits.
    [[nodiscard]] Result<bool> tryReceive(Extent& record);
    /// The record given out is done and leaves the queue, and with it damaged ones before it. On a
    /// failure it is still given out.
    [[nodiscard]] Status release();
    /// Ends the receiver's wait, and all its waits from now on. Any thread.
    void stop();

    /// Sound records in the queue, the one given out counted until its release. Any thread.
    [[nodiscard]] Status available(std::uint64_t& count) const;
    [[nodiscard]] Status sync();

    /// Calls back for each sound record in the queue, in order, until the callback returns false;
    /// the range is valid for the call. `Corruption` when others are damaged. Holds the queue's
    /// lock and changes nothing.
    [[nodiscard]] Status forEach(std::function<bool(Extent const& record)> const& callback) const;

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

    /// A sound record and where its frame begins.
    struct Found {
        std::uint64_t offset = 0;
        Extent record;

        [[nodiscard]] std::uint64_t end() const;
    };

    [[nodiscard]] Status openOrMake(QString const& path, Missing missing) MORVA_REQUIRES(lock_);
    [[nodiscard]] Status make() MORVA_REQUIRES(lock_);
    [[nodiscard]] Status readHead() MORVA_REQUIRES(lock_);
    [[nodiscard]] Status writeHead(Head head) MORVA_REQUIRES(lock_);
    static void storeHead(std::uint8_t* at, Head const& head);
    void addFrame(Extent const& record, std::uint64_t generation, std::uint64_t offset)
        MORVA_REQUIRES(lock_);
    [[nodiscard]] bool copyToFront(std::uint64_t from, std::uint64_t generation, std::uint64_t& end)
        MORVA_REQUIRES(lock_);
    [[nodiscard]] Status findTail() MORVA_REQUIRES(lock_);
    [[nodiscard]] Result<bool> passDamagedTail(std::uint64_t length, Window& window)
        MORVA_REQUIRES(lock_);
    [[nodiscard]] Status trim() MORVA_REQUIRES(lock_);
    [[nodiscard]] Status damagedAt(std::uint64_t offset) const;
    [[nodiscard]] Status load(std::uint64_t offset, std::uint64_t end, std::uint64_t generation,
                              Window& window, Extent& record) const;
    [[nodiscard]] Result<std::optional<Found>> find(std::uint64_t from, std::uint64_t end,
                                                    std::uint64_t generation, Window& window) const;
    [[nodiscard]] Result<std::optional<Found>> findAgain(std::uint64_t from, std::uint64_t end,
                                                         std::uint64_t generation,
                                                         Window& window) const;
    [[nodiscard]] Status fill(std::uint64_t offset, std::uint64_t end, std::uint64_t count,
                              Window& window) const;
    [[nodiscard]] Status recount() MORVA_REQUIRES(lock_);
    [[nodiscard]] Result<bool> take(Extent& record);
    [[nodiscard]] Status passDamage(std::uint64_t from, std::uint64_t to);
    [[nodiscard]] bool interrupted() const;
    void waitForEvent() const;
    void wake() const;

    std::uint64_t const pageSize_;
    std::uint64_t const memory_;
    std::unique_ptr<RawFile> file_; // set up in the constructor; only positioned calls after it
    Status opened_;
    int event_ = -1;
    std::atomic<bool> stopped_ = false;

    int interrupt_ = -1; // these belong to the receiver
    bool receiving_ = false;
    bool held_ = false;
    std::uint64_t heldEnd_ = 0; // of the record given out
    std::uint64_t told_ = 0;    // damage before this offset was told
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
