#pragma once

#include "base/blocks/HeadedFile.h"

#include <QString>

#include <cstdint>
#include <functional>

namespace Morva {

/// A persistent set of free block numbers, kept as a stack of runs in a file of its own.
///
/// `get` takes from the run on top, ascending, so that blocks taken one after another lie side by
/// side; `put` adds to the top. Both cost the same however many numbers there are. The set can't
/// tell whether a number is in it already: putting one twice gives it out twice.
/// Format: docs/formats/free-list.md. Failures are traced. Not thread-safe.
class FreeList : private HeadedFile {
public:
    /// `pages` is the cache size in pages of 4096 bytes.
    explicit FreeList(std::uint32_t pages);
    /// Closes the file.
    ~FreeList();

    /// Makes an empty set, replacing a file that is there. `limit` is the largest number.
    [[nodiscard]] Status create(QString const& name, std::uint64_t limit);
    /// `NotFound` when the file isn't there, `Corruption` when it isn't a sound set with this
    /// limit. Opened `ReadOnly` it can be looked at and no more.
    [[nodiscard]] Status open(QString const& name, std::uint64_t limit,
                              RawFile::Mode mode = RawFile::Mode::ReadWrite);
    /// Flushes and closes; a failure when something could not be written. Harmless when closed.
    Status close();
    /// Writes what changed to the file. What fails is tried again at the next flush.
    [[nodiscard]] Status flush();
    using HeadedFile::sync;
    using HeadedFile::operator bool;

    /// Removes and gives one number; false, with `number` unchanged, when the set is empty. Numbers
    /// from `end` on can't be free by what the caller knows. They, and a damaged run, are passed
    /// over in one step each, which loses them and nothing else.
    [[nodiscard]] Result<bool> get(std::uint64_t& number, std::uint64_t end = ~std::uint64_t{0});
    /// Adds a number. `InvalidArgument` for 0 and for one above the limit, `Corruption` for one
    /// that is seen to be free already, `NoSpace`; then nothing has changed.
    [[nodiscard]] Status put(std::uint64_t number);
    /// Adds `count` numbers from `first` on, in one step. Fails as `put`; 0 numbers are no failure.
    [[nodiscard]] Status grow(std::uint64_t first, std::uint64_t count);
    /// Numbers in the set.
    [[nodiscard]] std::uint64_t count() const { return count_; }

    /// Calls back for each run, the next to be used first, until the callback returns false.
    /// `Corruption` when a run lies outside 1 to the limit; the others are given all the same.
    /// Changes nothing.
    [[nodiscard]] Status
    forEach(std::function<bool(std::uint64_t first, std::uint64_t count)> const& callback) const;

private:
    [[nodiscard]] Status readHeader(std::uint64_t limit);
    void storeHeader();
    [[nodiscard]] bool valid(std::uint64_t first, std::uint64_t count) const;
    [[nodiscard]] Result<std::uint8_t*> top(std::uint64_t run) const;
    void mergeDown();
    [[nodiscard]] Status nextPage();
    [[nodiscard]] Status push(std::uint64_t first, std::uint64_t count);

    mutable std::uint8_t* page_ = nullptr; // pinned page of the top run, if pageNumber_ isn't 0
    mutable std::uint64_t pageNumber_ = 0;
    std::uint64_t limit_ = 0;
    std::uint64_t runs_ = 0;
    std::uint64_t count_ = 0;
    std::uint64_t reservedPages_ = 0;
    bool changed_ = false;
};

} // namespace Morva
