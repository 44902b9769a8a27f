#pragma once

#include "base/files/RawFile.h"

#include <QString>

#include <atomic>
#include <cstdint>
#include <memory>
#include <shared_mutex>

namespace Morva {

/// The file "journal.pages": slots of one page each for what guarded files have got since the last
/// checkpoint in place of what they must keep. Without meaning unless the journal names its slots.
/// Thread-safe but for `open` and `reset`.
class JournalPages {
public:
    static constexpr std::uint32_t pageSize = 4096;

    /// For new pages; takes over the space of a file that is there.
    [[nodiscard]] Status create(QString const& name);
    /// For a checkpoint that is yet to be applied. `NotFound` when the file isn't there.
    [[nodiscard]] Status open(QString const& name);

    /// The first of `count` adjacent slots that are nobody's.
    [[nodiscard]] std::uint64_t take(std::uint64_t count) {
        return next_.fetch_add(count, std::memory_order_relaxed);
    }
    [[nodiscard]] std::uint64_t used() const { return next_.load(std::memory_order_relaxed); }
    [[nodiscard]] Status read(std::uint64_t slot, std::uint32_t within, void* buffer,
                              std::uint32_t count) const;
    /// Fails as well once the journal has broken down.
    [[nodiscard]] Status write(std::uint64_t slot, std::uint32_t within, void const* buffer,
                               std::uint32_t count);
    [[nodiscard]] Status sync() { return file_->sync(); }
    /// All slots are free again; gives back space beyond 64 MiB.
    void reset();

    /// Held shared over each change of a guarded file, alone by a checkpoint.
    [[nodiscard]] std::shared_mutex& changing() { return changing_; }

    /// Held shared over each change of a page together with its checksum, alone by a checkpoint.
    /// Before all other locks of the journal and of what it guards.
    [[nodiscard]] std::shared_mutex& noting() { return noting_; }

    /// Nothing that is guarded may be written any more: the slots belong to a checkpoint that
    /// could not be applied, and the next opening of the journal has to find them as they are.
    void breakDown() { broken_.store(true, std::memory_order_relaxed); }
    [[nodiscard]] bool isBroken() const { return broken_.load(std::memory_order_relaxed); }
    /// A failure once the journal has broken down.
    [[nodiscard]] Status whole() const;

private:
    [[nodiscard]] Status shorten();

    std::unique_ptr<RawFile> file_;
    std::atomic<std::uint64_t> next_ = 0;
    std::atomic<bool> broken_ = false;
    std::shared_mutex changing_;
    std::shared_mutex noting_;
};

} // namespace Morva
