#pragma once

#include "base/files/PageSums.h"
#include "base/files/RawFile.h"

#include <cstdint>
#include <memory>
#include <mutex>

namespace Morva {

/// What a file with page sums holds: reads that verify each page, writes that note the sum of each.
/// Shared by all handles on the file; each call is done on `file`, a handle of the layer below.
///
/// `readAt` and `writeAt` may be called from several threads at once. Writers wait for each other.
/// A reader doesn't wait for them: its bytes are right if they fit the sum, whenever that was
/// noted. Only where they don't it reads again while nobody writes, and what doesn't fit then is
/// `Corruption` with the file and the page.
class VerifiedContent {
public:
    explicit VerifiedContent(std::shared_ptr<PageSums> sums) : sums_(std::move(sums)) {}

    /// As the calls of a `RawFile`. Bytes that were read before a failure are not to be used.
    [[nodiscard]] Result<std::uint32_t> readAt(RawFile& file, std::uint64_t offset, void* buffer,
                                               std::uint32_t count);
    /// Reads a page before it writes a part of one, unless the part is added at the file's end.
    [[nodiscard]] Status writeAt(RawFile& file, std::uint64_t offset, void const* buffer,
                                 std::uint32_t count);
    [[nodiscard]] Status setLength(RawFile& file, std::uint64_t bytes);
    /// Takes all pages as they are, for a file that has no sums yet.
    [[nodiscard]] Status adopt(RawFile& file);

    [[nodiscard]] PageSums& sums() { return *sums_; }

private:
    struct Write;

    [[nodiscard]] Status readPages(RawFile& file, std::uint64_t offset, std::uint8_t* buffer,
                                   std::uint32_t count);
    [[nodiscard]] Status readPart(RawFile& file, std::uint64_t offset, std::uint8_t* buffer,
                                  std::uint32_t count, std::uint64_t end);
    [[nodiscard]] Status readAgain(RawFile& file, std::uint64_t offset, std::uint8_t* buffer,
                                   std::uint32_t count);
    [[nodiscard]] Status readAlone(RawFile& file, std::uint64_t page, std::uint8_t* bytes,
                                   std::uint32_t& valid);
    /// The sum of a page that the file has after the write.
    [[nodiscard]] Result<std::uint32_t> sumAfter(RawFile& file, Write const& write,
                                                 std::uint64_t page, PageSums::View& sums);
    [[nodiscard]] std::uint32_t intended(Write const& write, std::uint64_t page) const;
    /// After a write that failed: notes what it left, which may be any mix of old and new bytes.
    [[nodiscard]] Status settle(RawFile& file, Write const& write, PageSums::View& sums);
    /// The CRC over the bytes that a page has, to which others can be added.
    [[nodiscard]] Result<std::uint32_t> crcOf(RawFile& file, std::uint64_t page,
                                              std::uint32_t valid, PageSums::View& sums);
    /// The sum of the last page of a file of that length once it goes to `end` with zeros.
    [[nodiscard]] Result<std::uint32_t> grownSum(RawFile& file, std::uint64_t page,
                                                 std::uint64_t length, std::uint32_t end,
                                                 PageSums::View& sums);

    std::shared_ptr<PageSums> const sums_;
    std::mutex writing_; ///< before the locks of the sums
};

} // namespace Morva
