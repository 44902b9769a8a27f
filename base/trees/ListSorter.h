#pragma once

#include "base/trees/PagedList.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace Morva {

/// Sorts records by merging runs on disk, with bounded memory. Records go in one by one and come
/// out as a file of records behind `headerSize` bytes that are left for the caller. Equal records
/// keep their order. Its temporary files are gone when it is destroyed.
class ListSorter {
public:
    ListSorter(PagedList::Compare const& compare, QString const& path, std::uint32_t headerSize,
               std::uint32_t pageSize, std::uint64_t memorySize);
    ~ListSorter();

    [[nodiscard]] Status add(Extent const& record);
    /// The file with all records in order, open. It is the caller's then.
    [[nodiscard]] Result<std::unique_ptr<RawFile>> finish();

private:
    struct Run {
        std::uint64_t begin;
        std::uint64_t end;
    };
    class Reader;

    /// A file of runs, one behind the other, with a buffer for writing.
    struct Output {
        std::unique_ptr<RawFile> file;
        std::uint64_t end = 0;
        std::vector<std::uint8_t> buffer;
    };

    [[nodiscard]] Status start(Output& output, char const* suffix);
    [[nodiscard]] Status append(Output& output, Extent const& framed);
    [[nodiscard]] Status flush(Output& output);
    [[nodiscard]] Status writeRun();
    [[nodiscard]] Status mergePass(Output& from, Output& to);
    [[nodiscard]] Status merge(RawFile& from, std::vector<Run> const& runs, Output& to);

    PagedList::Compare const& compare_;
    QString path_;
    std::uint32_t const headerSize_;
    std::uint32_t const pageSize_;
    std::uint64_t const memorySize_;
    std::vector<std::uint8_t> records_;
    std::vector<std::uint64_t> offsets_;
    std::vector<Run> runs_;
    Output outputs_[2];
};

/// A record with its frame of 4 bytes, as it lies in memory at `framed`.
[[nodiscard]] Extent recordAt(std::uint8_t const* framed);

/// The order of framed records at offsets into `records`.
void sortOffsets(PagedList::Compare const& compare, std::vector<std::uint8_t> const& records,
                 std::vector<std::uint64_t>& offsets);

} // namespace Morva
