#include "base/blocks/FreeList.h"

#include "base/blocks/Failures.h"
#include "base/blocks/HeaderPage.h"
#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"

#include <cstring>
#include <utility>

namespace Morva {

namespace {

/// Header of a free list file, at the start of page 0, little-endian, 48 bytes.
///  off  size  field    meaning
///    0     8  magic    "MORVAFRE"
///    8     4  version  1
///   12     4  zero
///   16     8  limit    the largest number
///   24     8  runs     height of the stack of runs
///   32     8  count    numbers in all runs
///   40     4  zero
///   44     4  check    headerCheck of the bytes before
namespace Header {
constexpr char magic[] = "MORVAFRE";
constexpr std::uint32_t version = 1;
constexpr std::uint32_t atVersion = 8, atLimit = 16, atRuns = 24, atCount = 32, atCheck = 44;
} // namespace Header

/// A run: first number and count, 8 bytes each. Run n lies in page 1 + n / 256.
constexpr std::uint32_t pageSize = 4096;
constexpr std::uint32_t runSize = 16;
constexpr std::uint32_t runsPerPage = pageSize / runSize;
constexpr std::uint64_t growPages = 16;

struct Run {
    std::uint64_t first;
    std::uint64_t count;
};

Run loadRun(std::uint8_t const* at) {
    return {loadLittle<std::uint64_t>(at), loadLittle<std::uint64_t>(at + 8)};
}

void storeRun(std::uint8_t* at, Run run) {
    storeLittle(at, run.first);
    storeLittle(at + 8, run.count);
}

bool joins(Run const& low, Run const& high) {
    return low.first + low.count == high.first;
}

} // namespace

FreeList::FreeList(std::uint32_t pages) : HeadedFile(pages) {}

FreeList::~FreeList() {
    close();
}

bool FreeList::create(QString const& name, std::uint64_t limit) {
    MORVA_METHOD("create");
    close();
    if (!beginCreation(name, RawFile::Mode::ReadWrite, pageSize))
        return scope.result(false);
    limit_ = limit;
    runs_ = count_ = reservedPages_ = 0;
    storeHeader();
    return scope.result(endCreation(cache_.writeNow(header_)));
}

bool FreeList::open(QString const& name, std::uint64_t limit, RawFile::Mode mode) {
    MORVA_METHOD("open");
    close();
    if (!beginOpening(name, mode))
        return scope.result(false);
    bool const sound = endOpening(readHeader(limit), "Invalid free list header in");
    if (!sound)
        runs_ = count_ = 0;
    return scope.result(sound);
}

bool FreeList::readHeader(std::uint64_t limit) {
    if (!pinHeader(pageSize))
        return false;
    reservedPages_ = file_->length() / pageSize - 1;
    limit_ = loadLittle<std::uint64_t>(header_ + Header::atLimit);
    runs_ = loadLittle<std::uint64_t>(header_ + Header::atRuns);
    count_ = loadLittle<std::uint64_t>(header_ + Header::atCount);
    changed_ = false;
    return std::memcmp(header_, Header::magic, 8) == 0 &&
           loadLittle<std::uint32_t>(header_ + Header::atVersion) == Header::version &&
           loadLittle<std::uint32_t>(header_ + Header::atCheck) ==
               headerCheck(header_, Header::atCheck) &&
           limit_ == limit && runs_ <= reservedPages_ * runsPerPage && runs_ <= count_ &&
           count_ <= limit_;
}

void FreeList::storeHeader() {
    std::memcpy(header_, Header::magic, 8);
    storeLittle(header_ + Header::atVersion, Header::version);
    storeLittle(header_ + Header::atLimit, limit_);
    storeLittle(header_ + Header::atRuns, runs_);
    storeLittle(header_ + Header::atCount, count_);
    storeLittle(header_ + Header::atCheck, headerCheck(header_, Header::atCheck));
    cache_.markDirty(header_);
    changed_ = false;
}

bool FreeList::close() {
    if (!header_)
        return true;
    MORVA_METHOD("close");
    bool const closed = flush();
    giveUp();
    page_ = nullptr;
    pageNumber_ = runs_ = count_ = 0;
    return scope.result(closed);
}

bool FreeList::flush() {
    if (!header_)
        return false;
    if (changed_)
        storeHeader();
    return cache_.flush();
}

bool FreeList::valid(std::uint64_t first, std::uint64_t count) const {
    return first != 0 && count != 0 && first <= limit_ && count - 1 <= limit_ - first;
}

/// The bytes of a run; its page stays pinned until a run of another page is wanted.
std::uint8_t* FreeList::top(std::uint64_t run) const {
    std::uint64_t const page = 1 + run / runsPerPage;
    if (page != pageNumber_) {
        auto* next = static_cast<std::uint8_t*>(cache_.pin(page));
        if (!next)
            return nullptr;
        if (page_)
            cache_.unpin(page_, false);
        page_ = next;
        pageNumber_ = page;
    }
    return page_ + run % runsPerPage * runSize;
}

bool FreeList::get(std::uint64_t& number) {
    while (runs_ > 0) {
        std::uint8_t* at = top(runs_ - 1);
        if (!at)
            return false;
        changed_ = true;
        Run const run = loadRun(at);
        if (!valid(run.first, run.count)) {
            MORVA_TRACE(Always) << "Damaged run in" << file_->name() << run.first << run.count;
            --runs_;
            continue;
        }
        number = run.first;
        if (run.count == 1)
            --runs_;
        storeRun(at, {run.first + 1, run.count - 1});
        cache_.markDirty(page_);
        count_ -= count_ != 0;
        return true;
    }
    count_ = 0;
    return false;
}

bool FreeList::put(std::uint64_t number) {
    return grow(number, 1);
}

bool FreeList::grow(std::uint64_t first, std::uint64_t count) {
    if (!header_)
        return false;
    if (count == 0)
        return true;
    if (!valid(first, count) || count_ > limit_ - count) {
        MORVA_TRACE(Always) << "Invalid free number" << first << count << "in" << file_->name();
        return false;
    }
    if (runs_ > 0) {
        std::uint8_t* at = top(runs_ - 1);
        if (!at)
            return false;
        Run run = loadRun(at);
        if (first < run.first + run.count && run.first < first + count) {
            MORVA_TRACE(Always) << "Number" << first << "is free already in" << file_->name();
            return false;
        }
        bool const above = joins(run, {first, count});
        if (above || joins({first, count}, run)) {
            storeRun(at, {above ? run.first : first, run.count + count});
            cache_.markDirty(page_);
            mergeDown();
            count_ += count;
            return changed_ = true;
        }
    }
    if (!push(first, count))
        return false;
    count_ += count;
    return changed_ = true;
}

/// Joins the two runs on top when they have come to touch and share a page.
void FreeList::mergeDown() {
    if ((runs_ - 1) % runsPerPage == 0)
        return;
    std::uint8_t* at = top(runs_ - 1);
    Run const upper = loadRun(at);
    Run const lower = loadRun(at - runSize);
    if (!joins(lower, upper) && !joins(upper, lower))
        return;
    storeRun(at - runSize, {std::min(lower.first, upper.first), lower.count + upper.count});
    --runs_;
}

/// Has the page of the run above the top pinned.
bool FreeList::nextPage() {
    std::uint64_t const page = 1 + runs_ / runsPerPage;
    if (page == pageNumber_)
        return true;
    if (page > reservedPages_) {
        std::uint64_t grown = reservedPages_ + growPages;
        if (!file_->setLength((1 + grown) * pageSize) &&
            !file_->setLength((1 + (grown = page)) * pageSize)) {
            MORVA_TRACE(Always) << "Failed to extend" << file_->name() << file_->lastError();
            Failures::note();
            return false;
        }
        reservedPages_ = grown;
    }
    if (runs_ % runsPerPage != 0)
        return top(runs_) != nullptr;
    auto* next = static_cast<std::uint8_t*>(cache_.pinZero(page));
    if (!next)
        return false;
    if (page_)
        cache_.unpin(page_, false);
    page_ = next;
    pageNumber_ = page;
    return true;
}

bool FreeList::push(std::uint64_t first, std::uint64_t count) {
    if (!nextPage())
        return false;
    storeRun(page_ + runs_ % runsPerPage * runSize, {first, count});
    cache_.markDirty(page_);
    ++runs_;
    return true;
}

bool FreeList::forEach(
    std::function<bool(std::uint64_t first, std::uint64_t count)> const& callback) const {
    if (!header_)
        return false;
    bool sound = true;
    for (std::uint64_t run = runs_; run > 0; --run) {
        std::uint8_t const* at = top(run - 1);
        if (!at)
            return false;
        Run const here = loadRun(at);
        if (!valid(here.first, here.count))
            sound = false;
        else if (!callback(here.first, here.count))
            return sound;
    }
    return sound;
}

} // namespace Morva
