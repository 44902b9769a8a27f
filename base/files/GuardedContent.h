#pragma once

#include "base/files/JournalPages.h"
#include "base/files/RawFile.h"

#include <QString>

#include <atomic>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

namespace Morva {

class VerifiedContent;

/// What one guarded file holds: the bytes that it had at the last checkpoint, which stay as they
/// are on the disk, and what was written since. New content of pages that hold such bytes goes to
/// slots of the journal's pages; what is written behind them goes to the file itself.
///
/// Shared by all handles on the file. `readAt` and `writeAt` may be called from several threads at
/// once, all else by one while nobody writes. A checkpoint holds off whoever changes the file, and
/// reading goes on.
class GuardedContent {
public:
    /// A run of pages that stand in adjacent slots, or are zeros.
    struct Run {
        static constexpr std::uint64_t zeros = ~std::uint64_t{0}; ///< in place of a slot

        std::uint64_t page;
        std::uint64_t slot;
        std::uint64_t count;
    };

    /// `length` is that of the last checkpoint, 0 for a file made since.
    GuardedContent(std::shared_ptr<JournalPages> pages, std::uint64_t length);

    /// What verifies its pages, if anything does.
    [[nodiscard]] std::shared_ptr<VerifiedContent> const& verified() const { return verified_; }
    void verified(std::shared_ptr<VerifiedContent> content) { verified_ = std::move(content); }
    [[nodiscard]] JournalPages& pages() const { return *pages_; }

    /// The calls of a `RawFile`, done on `file`, which is open on the file itself.
    [[nodiscard]] Result<std::uint32_t> readAt(RawFile& file, std::uint64_t offset, void* buffer,
                                               std::uint32_t count) const;
    [[nodiscard]] Status writeAt(RawFile& file, std::uint64_t offset, void const* buffer,
                                 std::uint32_t count);
    [[nodiscard]] Status setLength(RawFile& file, std::uint64_t bytes);
    [[nodiscard]] std::uint64_t length() const { return length_.load(std::memory_order_acquire); }

    /// The file itself was written to since the checkpoint.
    [[nodiscard]] bool isWritten() const { return written_.load(std::memory_order_relaxed); }
    /// Runs are to be applied, or bytes to be cut off, before the file is what it should be.
    [[nodiscard]] bool isOverlaid() const { return !slots_.empty() || kept_ < base_; }
    [[nodiscard]] bool isChanged() const { return isWritten() || isOverlaid(); }
    [[nodiscard]] std::vector<Run> runs() const;

    /// Writes the pages of all runs, cuts the file to `length`.
    [[nodiscard]] static Status apply(RawFile& file, JournalPages const& pages,
                                      std::vector<Run> const& runs, std::uint64_t length);
    /// The file is now what it should be, and that is what has to stay.
    void settle();

private:
    [[nodiscard]] Status readBase(RawFile& file, std::uint64_t offset, std::uint8_t* buffer,
                                  std::uint32_t count) const;
    [[nodiscard]] Status readPages(RawFile& file, std::uint64_t offset, std::uint8_t* buffer,
                                   std::uint32_t count) const;
    [[nodiscard]] Status writePages(RawFile& file, std::uint64_t offset, std::uint8_t const* buffer,
                                    std::uint32_t count);
    [[nodiscard]] Status writeNewPages(std::uint64_t page, std::uint8_t const* buffer,
                                       std::uint64_t count);
    [[nodiscard]] Status writePart(RawFile& file, std::uint64_t page, std::uint32_t within,
                                   std::uint8_t const* buffer, std::uint32_t count);
    void grown(std::uint64_t end);
    [[nodiscard]] Status cut(RawFile& file, std::uint64_t bytes);

    std::shared_ptr<JournalPages> pages_;
    std::shared_ptr<VerifiedContent> verified_;
    mutable std::shared_mutex lock_;
    std::unordered_map<std::uint64_t, std::uint64_t> slots_; ///< by page
    std::atomic<bool> written_ = false;
    std::atomic<std::uint64_t> unsynced_ = 0; ///< bytes written to the file since it began to sync
    std::atomic<std::uint64_t> length_;
    std::uint64_t base_; ///< length at the checkpoint
    std::uint64_t kept_; ///< bytes of it that were never cut off since; behind them are zeros
    std::uint64_t guardedPages_; ///< pages that hold any of it
};

} // namespace Morva
