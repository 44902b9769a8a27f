#pragma once

#include "base/files/RawFile.h"
#include "base/values/Extent.h"
#include "base/values/Status.h"

#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Morva {

/// A list of byte ranges that may be far larger than memory, and that can be sorted.
///
/// The list has one position, an opaque number that `getPosition` gives and of which only 0 is
/// known: the start. Writing always appends, and leaves the position at the end. A list that
/// never outgrew one page and is deleted on close never touches the disk.
/// Format: docs/formats/list.md. Failures are traced, and the first stays in `status`. Belongs to
/// one thread.
class PagedList {
public:
    enum class CompareResult : int { Less = -1, Equal = 0, Greater = 1 };
    using Compare = std::function<CompareResult(Extent const&, Extent const&)>;

    static constexpr std::uint32_t defaultPageSize = 1048576;
    static constexpr std::uint64_t defaultMemorySize = 16777216;
    static constexpr std::uint32_t maximumRecordSize = 0x40000000;

    /// An empty list; a file at the path is left alone until `open` takes it over or a first page
    /// replaces it. `pageSize` bytes are written or read at a time, `memorySize` bytes bound what
    /// sorting holds in memory; neither is allocated ahead.
    explicit PagedList(QString const& path, std::uint32_t pageSize = defaultPageSize,
                       std::uint64_t memorySize = defaultMemorySize);
    /// The same with an order for `sort`.
    PagedList(Compare compare, QString const& path, std::uint32_t pageSize = defaultPageSize,
              std::uint64_t memorySize = defaultMemorySize);
    /// A list with the order and sizes of another and a file of its own; with its records too if
    /// `withRecords`. `status` tells whether they could be copied.
    PagedList(PagedList const& other, QString const& path, bool withRecords);
    /// Closes the list.
    ~PagedList();
    PagedList(PagedList const&) = delete;
    PagedList& operator=(PagedList const&) = delete;

    /// Takes over the list that `close` left in the file. The position is the start. Otherwise the
    /// list is empty: `NotFound` when there is none, `Corruption` when it isn't whole.
    [[nodiscard]] Status open();
    /// Writes what isn't in the file yet, so that `open` can take it over; removes the file instead
    /// after `deleteOnClose`. The list is empty then. An empty list makes no file.
    Status close();
    /// Writes what isn't in the file yet.
    [[nodiscard]] Status flush();
    /// The first failure to write or read since `open`, `clear` or the construction.
    [[nodiscard]] Status const& status() const { return failure_; }
    [[nodiscard]] explicit operator bool() const { return failure_.ok(); }

    /// Appends a copy of the record. On a failure the list is as it was.
    [[nodiscard]] Status write(Extent const& record);
    /// True with the record at the position, which moves behind it; the range is valid until the
    /// next operation on the list. False at the end, and the position stays there. `Corruption` for
    /// a damaged record, and for a position that isn't one of a record.
    [[nodiscard]] Result<bool> read(Extent& record);
    /// A position behind the end counts as the end.
    void setPosition(std::uint64_t position);
    void setPositionStart() { setPosition(0); }
    [[nodiscard]] std::uint64_t getPosition() const { return position_; }

    /// Orders the records; equal ones keep their order. The position is the start then. On a
    /// failure (no compare function, a full disk) the list is as it was. Needs disk space for
    /// up to two copies of the list while it runs.
    [[nodiscard]] Status sort();
    /// Back to an empty list, without the file.
    void clear();
    /// The file is removed when the list is closed or destroyed.
    bool deleteOnClose();

    [[nodiscard]] std::uint64_t count() const { return count_; }
    [[nodiscard]] bool empty() const { return count_ == 0; }
    [[nodiscard]] QString const& path() const { return path_; }

private:
    [[nodiscard]] Status spill();
    [[nodiscard]] Status fail(char const* text, Status why);
    [[nodiscard]] Status damaged(std::uint64_t position) const;
    [[nodiscard]] Status fill(std::uint64_t position, std::uint64_t count);
    [[nodiscard]] Status load(std::uint64_t position, Extent& record);
    [[nodiscard]] Status readHeader();
    [[nodiscard]] Status writeHeader();
    [[nodiscard]] Status openFile();
    [[nodiscard]] Status copyRecords(PagedList const& other);
    [[nodiscard]] Status copyFile(PagedList const& other);
    void sortInMemory();
    [[nodiscard]] Status sortOnDisk();
    void forget();

    QString path_;
    std::uint32_t pageSize_;
    std::uint64_t memorySize_;
    Compare compare_;
    std::unique_ptr<RawFile> file_; // null until a first page is full
    std::uint64_t count_ = 0;
    std::uint64_t position_ = 0;
    std::uint64_t spilled_ = 0;        // bytes of records in the file
    std::vector<std::uint8_t> tail_;   // records behind those in the file
    std::vector<std::uint8_t> window_; // bytes of the file last read
    std::uint64_t windowStart_ = 0;
    bool headerWritten_ = true; // the file's header tells of all records in the file
    bool delete_ = false;
    Status failure_;
};

} // namespace Morva
