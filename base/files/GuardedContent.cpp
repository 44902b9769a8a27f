#include "base/files/GuardedContent.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>

namespace Morva {

namespace {

constexpr std::uint32_t pageSize = JournalPages::pageSize;

/// So much is worth bringing to the disk before the checkpoint waits for it.
constexpr std::uint64_t syncStep = 16 << 20;

constexpr std::uint64_t pagesFor(std::uint64_t bytes) {
    return bytes / pageSize + (bytes % pageSize != 0);
}

} // namespace

GuardedContent::GuardedContent(std::shared_ptr<JournalPages> pages, std::uint64_t length)
    : pages_(std::move(pages)),
      length_(length),
      base_(length),
      kept_(length),
      guardedPages_(pagesFor(length)) {}

// --- reading

Result<std::uint32_t> GuardedContent::readAt(RawFile& file, std::uint64_t offset, void* buffer,
                                             std::uint32_t count) const {
    std::shared_lock const hold(lock_);
    std::uint64_t const end = length();
    if (offset >= end)
        return 0;
    count = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, end - offset));
    auto* const bytes = static_cast<std::uint8_t*>(buffer);
    std::uint64_t const boundary = guardedPages_ * pageSize;
    std::uint32_t guarded = 0;
    if (offset < boundary) {
        guarded = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, boundary - offset));
        MORVA_TRY(readPages(file, offset, bytes, guarded));
    }
    if (guarded != count)
        MORVA_TRY(file.readWhole(offset + guarded, bytes + guarded, count - guarded));
    return count;
}

Status GuardedContent::readBase(RawFile& file, std::uint64_t offset, std::uint8_t* buffer,
                                std::uint32_t count) const {
    std::uint32_t const kept =
        offset < kept_ ? static_cast<std::uint32_t>(std::min<std::uint64_t>(count, kept_ - offset))
                       : 0;
    if (kept != 0)
        MORVA_TRY(file.readWhole(offset, buffer, kept));
    std::fill(buffer + kept, buffer + count, std::uint8_t{0});
    return {};
}

Status GuardedContent::readPages(RawFile& file, std::uint64_t offset, std::uint8_t* buffer,
                                 std::uint32_t count) const {
    if (slots_.empty())
        return readBase(file, offset, buffer, count);
    std::uint64_t const end = offset + count;
    while (offset < end) {
        auto const found = slots_.find(offset / pageSize);
        std::uint64_t stop = std::min((offset / pageSize + 1) * pageSize, end);
        if (found == slots_.end()) {
            while (stop < end && !slots_.contains(stop / pageSize))
                stop = std::min(stop + pageSize, end);
        }
        auto const part = static_cast<std::uint32_t>(stop - offset);
        MORVA_TRY(found == slots_.end()
                      ? readBase(file, offset, buffer, part)
                      : pages_->read(found->second, static_cast<std::uint32_t>(offset % pageSize),
                                     buffer, part));
        offset = stop;
        buffer += part;
    }
    return {};
}

// --- writing

void GuardedContent::grown(std::uint64_t end) {
    auto now = length_.load(std::memory_order_relaxed);
    while (now < end && !length_.compare_exchange_weak(now, end, std::memory_order_release))
        ;
}

Status GuardedContent::writeAt(RawFile& file, std::uint64_t offset, void const* buffer,
                               std::uint32_t count) {
    std::shared_lock const noCheckpoint(pages_->changing());
    MORVA_TRY(pages_->whole());
    auto const* const bytes = static_cast<std::uint8_t const*>(buffer);
    std::uint64_t const boundary = guardedPages_ * pageSize;
    std::uint32_t done = 0;
    if (offset < boundary) {
        done = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, boundary - offset));
        MORVA_TRY(writePages(file, offset, bytes, done));
        grown(done == 0 ? 0 : offset + done);
    }
    if (done == count)
        return {};
    std::shared_lock const hold(lock_);
    std::uint32_t const direct = count - done;
    written_.store(true, std::memory_order_relaxed);
    MORVA_TRY(file.writeAt(offset + done, bytes + done, direct));
    if (unsynced_.fetch_add(direct, std::memory_order_relaxed) + direct >= syncStep) {
        unsynced_.store(0, std::memory_order_relaxed);
        file.startSync();
    }
    grown(offset + count);
    return {};
}

Status GuardedContent::writePages(RawFile& file, std::uint64_t offset, std::uint8_t const* buffer,
                                  std::uint32_t count) {
    std::uint32_t done = 0;
    while (done < count) {
        std::uint64_t const page = (offset + done) / pageSize;
        auto const within = static_cast<std::uint32_t>((offset + done) % pageSize);
        std::uint32_t const whole = within == 0 ? (count - done) / pageSize : 0;
        std::uint32_t part = std::min(pageSize - within, count - done);
        {
            std::shared_lock const hold(lock_);
            if (auto const found = slots_.find(page); found != slots_.end()) {
                MORVA_TRY(pages_->write(found->second, within, buffer + done, part));
                done += part;
                continue;
            }
        }
        std::unique_lock const hold(lock_);
        std::uint32_t fresh = 0;
        while (fresh < whole && !slots_.contains(page + fresh))
            ++fresh;
        part = fresh == 0 ? part : fresh * pageSize;
        MORVA_TRY(fresh == 0 ? writePart(file, page, within, buffer + done, part)
                             : writeNewPages(page, buffer + done, fresh));
        done += part;
    }
    return {};
}

Status GuardedContent::writeNewPages(std::uint64_t page, std::uint8_t const* buffer,
                                     std::uint64_t count) {
    std::uint64_t const slot = pages_->take(count);
    MORVA_TRY(pages_->write(slot, 0, buffer, static_cast<std::uint32_t>(count * pageSize)));
    for (std::uint64_t i = 0; i < count; ++i)
        slots_.emplace(page + i, slot + i);
    return {};
}

Status GuardedContent::writePart(RawFile& file, std::uint64_t page, std::uint32_t within,
                                 std::uint8_t const* buffer, std::uint32_t count) {
    if (auto const found = slots_.find(page); found != slots_.end())
        return pages_->write(found->second, within, buffer, count);
    std::array<std::uint8_t, pageSize> bytes;
    MORVA_TRY(readBase(file, page * pageSize, bytes.data(), pageSize));
    std::copy_n(buffer, count, bytes.begin() + within);
    return writeNewPages(page, bytes.data(), 1);
}

// --- the length

Status GuardedContent::setLength(RawFile& file, std::uint64_t bytes) {
    std::shared_lock const noCheckpoint(pages_->changing());
    MORVA_TRY(pages_->whole());
    std::uint64_t const now = length();
    if (bytes < now)
        return cut(file, bytes);
    MORVA_TRY_LET(auto const held, file.length());
    if (bytes > std::max(now, held)) {
        written_.store(true, std::memory_order_relaxed);
        MORVA_TRY(file.setLength(bytes));
    }
    grown(bytes);
    return {};
}

Status GuardedContent::cut(RawFile& file, std::uint64_t bytes) {
    std::unique_lock const hold(lock_);
    std::uint64_t const last = bytes / pageSize;
    if (auto const tail = static_cast<std::uint32_t>(bytes % pageSize);
        tail != 0 && last < guardedPages_) {
        std::array<std::uint8_t, pageSize> const zeros{};
        MORVA_TRY(writePart(file, last, tail, zeros.data(), pageSize - tail));
    }
    MORVA_TRY_LET(auto const held, file.length());
    if (std::uint64_t const floor = std::max(bytes, base_); held > floor) {
        written_.store(true, std::memory_order_relaxed);
        MORVA_TRY(file.setLength(floor));
    }
    std::erase_if(slots_, [bytes](auto const& slot) { return slot.first >= pagesFor(bytes); });
    kept_ = std::min(kept_, bytes);
    length_.store(bytes, std::memory_order_release);
    return {};
}

// --- the checkpoint

std::vector<GuardedContent::Run> GuardedContent::runs() const {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> ordered(slots_.begin(), slots_.end());
    // What was cut off and grown again would be as it was before.
    std::uint64_t const end = pagesFor(std::min(base_, length()));
    for (std::uint64_t page = pagesFor(kept_); page < end; ++page)
        if (!slots_.contains(page))
            ordered.emplace_back(page, Run::zeros);
    std::sort(ordered.begin(), ordered.end());
    std::vector<Run> result;
    for (auto const& [page, slot] : ordered) {
        if (!result.empty() && result.back().page + result.back().count == page &&
            (slot == Run::zeros ? result.back().slot == slot
                                : result.back().slot + result.back().count == slot))
            ++result.back().count;
        else
            result.push_back({page, slot, 1});
    }
    return result;
}

Status GuardedContent::apply(RawFile& file, JournalPages const& pages, std::vector<Run> const& runs,
                             std::uint64_t length) {
    constexpr std::uint64_t pagesAtOnce = 64;
    std::vector<std::uint8_t> buffer(pagesAtOnce * pageSize);
    for (Run const& run : runs) {
        if (run.slot == Run::zeros)
            std::fill(buffer.begin(), buffer.end(), std::uint8_t{0});
        for (std::uint64_t i = 0; i < run.count; i += pagesAtOnce) {
            std::uint64_t const start = (run.page + i) * pageSize;
            if (start >= length)
                break;
            auto const size = static_cast<std::uint32_t>(std::min(
                {(run.count - i) * pageSize, std::uint64_t{buffer.size()}, length - start}));
            if (run.slot != Run::zeros)
                MORVA_TRY(pages.read(run.slot + i, 0, buffer.data(), size));
            MORVA_TRY(file.writeAt(start, buffer.data(), size));
        }
    }
    MORVA_TRY_LET(auto const held, file.length());
    return held <= length ? Status() : file.setLength(length);
}

void GuardedContent::settle() {
    std::unique_lock const hold(lock_);
    slots_.clear();
    written_.store(false, std::memory_order_relaxed);
    base_ = kept_ = length();
    guardedPages_ = pagesFor(base_);
}

} // namespace Morva
