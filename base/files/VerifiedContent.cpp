#include "base/files/VerifiedContent.h"

#include "base/files/Crc32c.h"
#include "base/trace/Trace.h"

#include <algorithm>
#include <array>
#include <vector>

namespace Morva {

namespace {

constexpr std::uint32_t pageSize = PageSums::pageSize;
using PageBytes = std::array<std::uint8_t, pageSize>;

/// Bytes of a page that a file of that length has.
std::uint32_t validBytes(std::uint64_t page, std::uint64_t length) {
    std::uint64_t const start = page * pageSize;
    return length <= start
               ? 0
               : static_cast<std::uint32_t>(std::min<std::uint64_t>(pageSize, length - start));
}

} // namespace

/// Bytes to be written, and the length of the file before.
struct VerifiedContent::Write {
    std::uint64_t offset;
    std::uint8_t const* bytes;
    std::uint32_t count;
    std::uint64_t lengthBefore;
    std::uint32_t firstSum = 0; ///< of the first and the last page afterwards
    std::uint32_t lastSum = 0;

    [[nodiscard]] std::uint64_t end() const { return offset + count; }
    [[nodiscard]] std::uint64_t firstPage() const { return offset / pageSize; }
    [[nodiscard]] std::uint64_t lastPage() const { return (end() - 1) / pageSize; }
    /// The written bytes within a page: from, to, and what they are.
    [[nodiscard]] std::uint32_t from(std::uint64_t page) const {
        return page == firstPage() ? static_cast<std::uint32_t>(offset % pageSize) : 0;
    }
    [[nodiscard]] std::uint32_t to(std::uint64_t page) const { return validBytes(page, end()); }
    /// Some bytes of the page are replaced, others stay.
    [[nodiscard]] bool changesPart(std::uint64_t page) const {
        std::uint32_t const valid = validBytes(page, lengthBefore);
        return from(page) < valid && (from(page) != 0 || to(page) < valid);
    }
    [[nodiscard]] std::uint8_t const* at(std::uint64_t page) const {
        return bytes + (page * pageSize + from(page) - offset);
    }
};

// --- reading

Result<std::uint32_t> VerifiedContent::readAt(RawFile& file, std::uint64_t offset, void* buffer,
                                              std::uint32_t count) {
    MORVA_TRY_LET(std::uint64_t const end, file.length());
    if (offset >= end)
        return std::uint32_t{0};
    count = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, end - offset));
    auto* at = static_cast<std::uint8_t*>(buffer);
    std::uint32_t left = count;
    auto const advance = [&](std::uint32_t done) {
        offset += done;
        at += done;
        left -= done;
    };
    if (std::uint32_t const within = offset % pageSize; within != 0) {
        std::uint32_t const part = std::min(left, pageSize - within);
        MORVA_TRY(readPart(file, offset, at, part, end));
        advance(part);
    }
    // The end of the file ends a page as well.
    std::uint32_t const whole = offset + left == end ? left : left / pageSize * pageSize;
    if (whole != 0)
        MORVA_TRY(readPages(file, offset, at, whole));
    advance(whole);
    if (left != 0)
        MORVA_TRY(readPart(file, offset, at, left, end));
    return count;
}

Status VerifiedContent::readPages(RawFile& file, std::uint64_t offset, std::uint8_t* buffer,
                                  std::uint32_t count) {
    MORVA_TRY_LET(std::uint32_t const got, file.readAt(offset, buffer, count));
    PageSums::View sums(*sums_);
    for (std::uint32_t done = 0; done < count; done += pageSize) {
        std::uint64_t const page = (offset + done) / pageSize;
        std::uint32_t const part = std::min(pageSize, count - done);
        MORVA_TRY_LET(std::uint32_t const sum, sums.get(page));
        if (done + part > got || !sums_->fits(page, sum, buffer + done, part)) [[unlikely]]
            MORVA_TRY(readAgain(file, offset + done, buffer + done, part));
    }
    return {};
}

Status VerifiedContent::readPart(RawFile& file, std::uint64_t offset, std::uint8_t* buffer,
                                 std::uint32_t count, std::uint64_t end) {
    std::uint64_t const page = offset / pageSize;
    PageBytes bytes;
    std::uint32_t const valid = validBytes(page, end);
    MORVA_TRY_LET(std::uint32_t const got, file.readAt(page * pageSize, bytes.data(), valid));
    PageSums::View sums(*sums_);
    MORVA_TRY_LET(std::uint32_t const sum, sums.get(page));
    if (got != valid || !sums_->fits(page, sum, bytes.data(), valid)) [[unlikely]]
        return readAgain(file, offset, buffer, count);
    std::copy_n(bytes.data() + offset % pageSize, count, buffer);
    return {};
}

Status VerifiedContent::readAgain(RawFile& file, std::uint64_t offset, std::uint8_t* buffer,
                                  std::uint32_t count) {
    std::lock_guard const nobodyWrites(writing_);
    PageBytes bytes;
    std::uint32_t valid = 0;
    MORVA_TRY(readAlone(file, offset / pageSize, bytes.data(), valid));
    // What was cut off meanwhile reads as zeros.
    std::fill(bytes.begin() + valid, bytes.end(), std::uint8_t{0});
    std::copy_n(bytes.data() + offset % pageSize, count, buffer);
    return {};
}

Status VerifiedContent::readAlone(RawFile& file, std::uint64_t page, std::uint8_t* bytes,
                                  std::uint32_t& valid) {
    MORVA_TRY_LET(std::uint64_t const end, file.length());
    valid = validBytes(page, end);
    if (valid == 0)
        return {};
    PageSums::View sums(*sums_);
    MORVA_TRY_LET(std::uint32_t const sum, sums.get(page));
    MORVA_TRY_LET(std::uint32_t const got, file.readAt(page * pageSize, bytes, valid));
    if (got == valid && sums_->fits(page, sum, bytes, valid))
        return {};
    MORVA_TRACE(Always) << "Page" << page << "of file" << file.name() << "doesn't fit its checksum";
    return Status::corruption("read", file.name(),
                              got == valid ? QStringLiteral("its checksum doesn't fit")
                                           : QStringLiteral("the file ends before its length"),
                              {Status::Unit::Page, page});
}

// --- writing

Status VerifiedContent::writeAt(RawFile& file, std::uint64_t offset, void const* buffer,
                                std::uint32_t count) {
    if (count == 0)
        return {};
    std::lock_guard const alone(writing_);
    MORVA_TRY_LET(std::uint64_t const length, file.length());
    Write write{offset, static_cast<std::uint8_t const*>(buffer), count, length};
    PageSums::View sums(*sums_);
    // What may have to read is done before anything changes.
    std::uint64_t const tail = length / pageSize;
    std::uint32_t tailSum = 0;
    if (tail < write.firstPage()) {
        MORVA_TRY_LET(tailSum, grownSum(file, tail, length, pageSize, sums));
    }
    MORVA_TRY_LET(write.firstSum, sumAfter(file, write, write.firstPage(), sums));
    if (write.lastPage() != write.firstPage()) {
        MORVA_TRY_LET(write.lastSum, sumAfter(file, write, write.lastPage(), sums));
    }
    if (Status written = file.writeAt(offset, buffer, count); !written) {
        written.update(settle(file, write, sums));
        return written;
    }
    if (tailSum != 0)
        MORVA_TRY(sums.put(tail, tailSum));
    for (std::uint64_t page = write.firstPage(); page <= write.lastPage(); ++page)
        MORVA_TRY(sums.put(page, intended(write, page)));
    return {};
}

std::uint32_t VerifiedContent::intended(Write const& write, std::uint64_t page) const {
    return page == write.firstPage()  ? write.firstSum
           : page == write.lastPage() ? write.lastSum
                                      : sums_->sumOf(page, write.at(page), pageSize);
}

Status VerifiedContent::settle(RawFile& file, Write const& write, PageSums::View& sums) {
    MORVA_TRY_LET(std::uint64_t const length, file.length());
    if (length > write.lengthBefore)
        MORVA_TRY(file.setLength(write.lengthBefore));
    PageBytes bytes;
    for (std::uint64_t page = write.firstPage(); page <= write.lastPage(); ++page) {
        std::uint32_t const valid = validBytes(page, write.lengthBefore);
        if (valid == 0)
            break;
        MORVA_TRY_LET(std::uint32_t const got, file.readAt(page * pageSize, bytes.data(), valid));
        if (got != valid)
            continue;
        std::uint32_t const sum = sums_->sumOf(page, bytes.data(), valid);
        // A page that was to be changed in part was verified just before. A torn page of others
        // keeps its sum, and is refused until it is written again.
        if (sum == intended(write, page) || write.changesPart(page))
            MORVA_TRY(sums.put(page, sum));
    }
    return {};
}

Result<std::uint32_t> VerifiedContent::crcOf(RawFile& file, std::uint64_t page, std::uint32_t valid,
                                             PageSums::View& sums) {
    std::uint32_t const begin = sums_->begin(page);
    if (valid == 0)
        return begin;
    MORVA_TRY_LET(std::uint32_t const sum, sums.get(page));
    if (sum == 0)
        return crc32cOfZeros(begin, valid);
    if (PageSums::canGoOn(sum))
        return sum;
    PageBytes bytes;
    MORVA_TRY(readAlone(file, page, bytes.data(), valid));
    return crc32c(begin, bytes.data(), valid);
}

Result<std::uint32_t> VerifiedContent::grownSum(RawFile& file, std::uint64_t page,
                                                std::uint64_t length, std::uint32_t end,
                                                PageSums::View& sums) {
    std::uint32_t const valid = validBytes(page, length);
    MORVA_TRY_LET(std::uint32_t const sum, sums.get(page));
    if (sum == 0 || valid == end)
        return sum;
    MORVA_TRY_LET(std::uint32_t const crc, crcOf(file, page, valid, sums));
    return PageSums::end(crc32cOfZeros(crc, end - valid));
}

Result<std::uint32_t> VerifiedContent::sumAfter(RawFile& file, Write const& write,
                                                std::uint64_t page, PageSums::View& sums) {
    std::uint32_t const from = write.from(page), to = write.to(page);
    std::uint32_t const valid = validBytes(page, write.lengthBefore);
    if (from == 0 && to >= valid)
        return sums_->sumOf(page, write.at(page), to);
    if (from >= valid) {
        MORVA_TRY_LET(std::uint32_t const crc, crcOf(file, page, valid, sums));
        return PageSums::end(crc32c(crc32cOfZeros(crc, from - valid), write.at(page), to - from));
    }
    MORVA_TRY_LET(std::uint32_t const sum, sums.get(page));
    PageBytes bytes{};
    std::uint32_t held = valid;
    if (sum != 0)
        MORVA_TRY(readAlone(file, page, bytes.data(), held));
    std::copy_n(write.at(page), to - from, bytes.data() + from);
    return sums_->sumOf(page, bytes.data(), std::max(held, to));
}

Status VerifiedContent::setLength(RawFile& file, std::uint64_t bytes) {
    std::lock_guard const alone(writing_);
    MORVA_TRY_LET(std::uint64_t const length, file.length());
    if (bytes == length)
        return file.setLength(bytes);
    PageSums::View sums(*sums_);
    std::uint64_t const page = std::min(length, bytes) / pageSize;
    std::uint32_t const kept = validBytes(page, bytes);
    std::uint32_t sum = 0;
    if (bytes > length) {
        MORVA_TRY_LET(sum, grownSum(file, page, length, kept, sums));
    } else if (kept != 0) {
        MORVA_TRY_LET(sum, sums.get(page));
        if (sum != 0) {
            PageBytes before;
            std::uint32_t valid = 0;
            MORVA_TRY(readAlone(file, page, before.data(), valid));
            sum = sums_->sumOf(page, before.data(), kept);
        }
    }
    MORVA_TRY(file.setLength(bytes));
    if (sum != 0)
        MORVA_TRY(sums.put(page, sum));
    return bytes < length ? sums_->cut(page + (kept != 0)) : Status();
}

Status VerifiedContent::adopt(RawFile& file) {
    constexpr std::uint32_t step = 256 * pageSize;
    std::lock_guard const alone(writing_);
    MORVA_TRY_LET(std::uint64_t const length, file.length());
    std::vector<std::uint8_t> bytes(step);
    PageSums::View sums(*sums_);
    for (std::uint64_t offset = 0; offset < length; offset += step) {
        auto const count =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(step, length - offset));
        MORVA_TRY(file.readWhole(offset, bytes.data(), count));
        for (std::uint32_t done = 0; done < count; done += pageSize) {
            std::uint64_t const page = (offset + done) / pageSize;
            std::uint32_t const part = std::min(pageSize, count - done);
            std::uint8_t const* const at = bytes.data() + done;
            if (!sums_->fits(page, 0, at, part))
                MORVA_TRY(sums.put(page, sums_->sumOf(page, at, part)));
        }
    }
    return {};
}

} // namespace Morva
