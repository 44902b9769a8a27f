#pragma once

#include "base/blocks/HeadedFile.h"

#include <QString>

#include <cstdint>
#include <functional>

namespace Morva {

/// A persistent table from block number to an unsigned 32-bit count, in a file of its own.
///
/// A count of 0 and no count are the same. The table grows in steps whose disk space is reserved
/// at once, so a full disk is `NoSpace` from `newId`, with nothing changed.
/// Format: docs/formats/reference-count.md. Failures are traced. Not thread-safe.
class ReferenceCount : private HeadedFile {
public:
    /// `cacheSize` is in pages of 4096 bytes, 1024 counts each.
    explicit ReferenceCount(std::uint32_t cacheSize);
    /// Closes the file.
    ~ReferenceCount();

    /// Makes an empty table, replacing a file that is there. `limit` is the largest number; `grow`
    /// the growth step in numbers, 0 for a default step.
    [[nodiscard]] Status create(QString const& name, std::uint64_t limit, std::uint64_t grow);
    /// `NotFound` when the file isn't there, `Corruption` when it isn't a sound table with this
    /// limit. Opened `ReadOnly` it can be looked at and no more.
    [[nodiscard]] Status open(QString const& name, std::uint64_t limit, std::uint64_t grow,
                              RawFile::Mode mode = RawFile::Mode::ReadWrite);
    /// Flushes and closes; a failure when something could not be written. Harmless when closed.
    Status close();
    /// Writes what changed to the file. What fails is tried again at the next flush.
    [[nodiscard]] Status flush();
    using HeadedFile::sync;
    using HeadedFile::operator bool;

    /// Starts the count of `number` at 1. `Busy` when it has one already, `InvalidArgument` above
    /// the limit, `NoSpace`.
    [[nodiscard]] Status newId(std::uint64_t number);
    /// Changes the count and stores the new value in `count`. `Corruption`, with nothing changed,
    /// when the number has no count; `InvalidArgument` for an increment of the largest count.
    [[nodiscard]] Status increment(std::uint32_t& count, std::uint64_t number);
    [[nodiscard]] Status decrement(std::uint32_t& count, std::uint64_t number);
    /// The count, 0 for a number that has none. `InvalidArgument` above the limit.
    [[nodiscard]] Status count(std::uint32_t& count, std::uint64_t number) const;
    /// Takes the count away, whatever it is.
    [[nodiscard]] Status releaseId(std::uint64_t number);

    /// Calls back for each number that has a count, ascending, until the callback returns false.
    /// A page that can't be read is left out, and fails the whole. Changes nothing.
    [[nodiscard]] Status
    forEach(std::function<bool(std::uint64_t number, std::uint32_t count)> const& callback) const;

    [[nodiscard]] std::uint64_t cacheHits() const { return hits(); }
    [[nodiscard]] std::uint64_t cacheMisses() const { return misses(); }
    [[nodiscard]] std::uint32_t cacheSize() const { return size(); }

private:
    [[nodiscard]] Status readHeader(std::uint64_t limit);
    void setGrow(std::uint64_t grow);
    [[nodiscard]] Status storeHeader();
    [[nodiscard]] Status reserve(std::uint64_t number);
    [[nodiscard]] Status growTo(std::uint64_t pages);
    [[nodiscard]] bool inTable(std::uint64_t number) const;
    [[nodiscard]] Status aboveLimit(std::uint64_t number) const;
    [[nodiscard]] Status noCount(std::uint64_t number) const;

    std::uint64_t limit_ = 0;
    std::uint64_t pages_ = 0; // pages of counts
    std::uint64_t growPages_ = 0;
};

} // namespace Morva
