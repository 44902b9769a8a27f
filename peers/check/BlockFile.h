#pragma once

#include "base/blocks/Blocks.h"
#include "base/files/RawFile.h"
#include "peers/check/CheckReport.h"

#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Morva {

/// A block file opened for reading alone, with the set of its free blocks. For one thread.
class BlockFile {
public:
    explicit BlockFile(std::uint32_t cacheBlocks) : blocks_(cacheBlocks) {}

    /// Opens the file and walks its free blocks. Faults go to the report under `where`. False when
    /// it doesn't open or has blocks of another size, and then there are no blocks.
    [[nodiscard]] bool open(QString const& path, QString const& where, std::uint32_t blockSize,
                            CheckReport& report);
    [[nodiscard]] bool isOpen() const { return file_ != nullptr; }
    [[nodiscard]] QString const& where() const { return where_; }

    /// Blocks with the header; 0 when the file isn't open.
    [[nodiscard]] std::uint64_t count() const { return isOpen() ? blocks_.blockCount() : 0; }
    [[nodiscard]] bool isFree(std::uint64_t number) const {
        return number < free_.size() && free_[number];
    }
    [[nodiscard]] bool exists(std::uint64_t number) const {
        return number >= Blocks::firstBlock() && number < count();
    }
    /// The largest block number that the file can hold.
    [[nodiscard]] std::uint64_t mask() const { return blocks_.mask(); }
    /// A pinned block, through the cache; empty when it isn't there or can't be read.
    [[nodiscard]] BlockPin pin(std::uint64_t number) {
        return exists(number) ? BlockPin::get(blocks_, number) : BlockPin();
    }
    /// Hands out every block from `first` on, in order, read many at a time; the bytes are valid
    /// for the call. What can't be read is a fault of the report.
    void scan(std::uint64_t first, CheckReport& report,
              std::function<void(std::uint64_t number, std::uint8_t const* bytes)> const& visit);

private:
    void findFree(CheckReport& report);

    Blocks blocks_;
    std::unique_ptr<RawFile> file_;
    std::vector<bool> free_;
    QString where_;
};

} // namespace Morva
