#include "base/blocks/FreeList.h"

#include "base/blocks/Failures.h"
#include "base/blocks/HeaderPage.h"
#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"

#include <algorithm>
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
    (void)close(); // traced; who needs to know closes before
}

Status FreeList::create(QString const& name, std::uint64_t limit) {
    MORVA_METHOD("create");
    MORVA_TRY(close());
    MORVA_TRY(scope.result(beginCreation(name, RawFile::Mode::ReadWrite, pageSize)));
    limit_ = limit;
    runs_ = count_ = reservedPages_ = 0;
    storeHeader();
    return scope.result(endCreation(cache_.writeNow(header_)));
}

Status FreeList::open(QString const& name, std::uint64_t limit, RawFile::Mode mode) {
    MORVA_METHOD("open");
    MORVA_TRY(close());
    MORVA_TRY(scope.result(beginOpening(name, mode)));
    Status opened = endOpening(readHeader(limit), "Invalid free list header in");
    if (!opened)
        runs_ = count_ = 0;
    return scope.result(std::move(opened));
}

Status FreeList::readHeader(std::uint64_t limit) {
    MORVA_TRY(pinHeader(pageSize));
    MORVA_TRY_LET(std::uint64_t const length, file_->length());
    reservedPages_ = length / pageSize - 1;
    limit_ = loadLittle<std::uint64_t>(header_ + Header::atLimit);
    runs_ = loadLittle<std::uint64_t>(header_ + Header::atRuns);
    count_ = loadLittle<std::uint64_t>(header_ + Header::atCount);
    changed_ = false;
    bool const sound = std::memcmp(header_, Header::magic, 8) == 0 &&
                       loadLittle<std::uint32_t>(header_ + Header::atVersion) == Header::version &&
                       loadLittle<std::uint32_t>(header_ + Header::atCheck) ==
                           headerCheck(header_, Header::atCheck) &&
                       limit_ == limit && runs_ <= reservedPages_ * runsPerPage &&
                       runs_ <= count_ && count_ <= limit_;
    return sound ? Status() : unsoundHeader();
}

void FreeList::storeHeader() {
    std::memcpy(header_, Header::magic, 8);
    storeLittle(header_ + Header::atVersion, Header::version);
    storeLittle(header_ + Header::atLimit, limit_);
    count_ = std::max(count_, runs_); // less only after damage
    storeLittle(header_ + Header::atRuns, runs_);
    storeLittle(header_ + Header::atCount, count_);
    storeLittle(header_ + Header::atCheck, headerCheck(header_, Header::atCheck));
    cache_.markDirty(header_);
    changed_ = false;
}

Status FreeList::close() {
    if (!header_)
        return {};
    MORVA_METHOD("close");
    Status closed = flush();
    giveUp();
    page_ = nullptr;
    pageNumber_ = runs_ = count_ = 0;
    return scope.result(std::move(closed));
}

Status FreeList::flush() {
    if (!header_)
        return notOpen("flush");
    if (changed_)
        storeHeader();
    return cache_.flush();
}

bool FreeList::valid(std::uint64_t first, std::uint64_t count) const {
    return first != 0 && count != 0 && first <= limit_ && count - 1 <= limit_ - first;
}

/// The bytes of a run; its page stays pinned until a run of another page is wanted.
Result<std::uint8_t*> FreeList::top(std::uint64_t run) const {
    std::uint64_t const page = 1 + run / runsPerPage;
    if (page != pageNumber_) {
        MORVA_TRY_LET(void* const next, cache_.pin(page));
        if (page_)
            cache_.unpin(page_, false);
        page_ = static_cast<std::uint8_t*>(next);
        pageNumber_ = page;
    }
    return page_ + run % runsPerPage * runSize;
}

Result<bool> FreeList::get(std::uint64_t& number, std::uint64_t end) {
    if (!header_)
        return notOpen("read");
    while (runs_ > 0) {
        MORVA_TRY_LET(std::uint8_t* const at, top(runs_ - 1));
        changed_ = true;
        Run run = loadRun(at);
        if (!valid(run.first, run.count) || run.first >= end) {
            MORVA_TRACE(Always) << "Damaged run in" << file_->name() << run.first << run.count;
            --runs_;
            if (valid(run.first, run.count))
                count_ -= std::min(count_, run.count);
            continue;
        }
        if (run.count > end - run.first) {
            MORVA_TRACE(Always) << "Damaged run in" << file_->name() << run.first << run.count;
            count_ -= std::min(count_, run.count - (end - run.first));
            run.count = end - run.first;
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

Status FreeList::put(std::uint64_t number) {
    return grow(number, 1);
}

Status FreeList::grow(std::uint64_t first, std::uint64_t count) {
    if (!header_)
        return notOpen("add to");
    if (count == 0)
        return {};
    if (!valid(first, count) || count_ > limit_ - count) {
        MORVA_TRACE(Always) << "Invalid free number" << first << count << "in" << file_->name();
        return Status::failure(Status::Code::InvalidArgument, "add to", file_->name(),
                               QStringLiteral("no such number can be free"),
                               {Status::Unit::Block, first});
    }
    if (runs_ > 0) {
        MORVA_TRY_LET(std::uint8_t* const at, top(runs_ - 1));
        Run const run = loadRun(at);
        if (first < run.first + run.count && run.first < first + count) {
            MORVA_TRACE(Always) << "Number" << first << "is free already in" << file_->name();
            return Status::corruption("add to", file_->name(),
                                      QStringLiteral("the number is free already"),
                                      {Status::Unit::Block, first});
        }
        bool const above = joins(run, {first, count});
        if (above || joins({first, count}, run)) {
            storeRun(at, {above ? run.first : first, run.count + count});
            cache_.markDirty(page_);
            mergeDown();
            count_ += count;
            changed_ = true;
            return {};
        }
    }
    MORVA_TRY(push(first, count));
    count_ += count;
    changed_ = true;
    return {};
}

/// Joins the two runs on top when they have come to touch and share a page.
void FreeList::mergeDown() {
    if ((runs_ - 1) % runsPerPage == 0)
        return;
    std::uint8_t* const at = page_ + (runs_ - 1) % runsPerPage * runSize;
    Run const upper = loadRun(at);
    Run const lower = loadRun(at - runSize);
    if (!joins(lower, upper) && !joins(upper, lower))
        return;
    storeRun(at - runSize, {std::min(lower.first, upper.first), lower.count + upper.count});
    --runs_;
}

/// Has the page of the run above the top pinned.
Status FreeList::nextPage() {
    std::uint64_t const page = 1 + runs_ / runsPerPage;
    if (page == pageNumber_)
        return {};
    if (page > reservedPages_) {
        std::uint64_t grown = reservedPages_ + growPages;
        Status extended = file_->setLength((1 + grown) * pageSize);
        if (!extended)
            extended = file_->setLength((1 + (grown = page)) * pageSize);
        if (!extended) {
            MORVA_TRACE(Always) << "Failed to extend" << file_->name() << file_->lastError();
            Failures::note();
            return extended;
        }
        reservedPages_ = grown;
    }
    if (runs_ % runsPerPage != 0) {
        MORVA_TRY(top(runs_));
        return {};
    }
    MORVA_TRY_LET(void* const next, cache_.pinZero(page));
    if (page_)
        cache_.unpin(page_, false);
    page_ = static_cast<std::uint8_t*>(next);
    pageNumber_ = page;
    return {};
}

Status FreeList::push(std::uint64_t first, std::uint64_t count) {
    MORVA_TRY(nextPage());
    storeRun(page_ + runs_ % runsPerPage * runSize, {first, count});
    cache_.markDirty(page_);
    ++runs_;
    return {};
}

Status FreeList::forEach(
    std::function<bool(std::uint64_t first, std::uint64_t count)> const& callback) const {
    if (!header_)
        return notOpen("read");
    Status sound;
    for (std::uint64_t run = runs_; run > 0; --run) {
        MORVA_TRY_LET(std::uint8_t const* const at, top(run - 1));
        Run const here = loadRun(at);
        if (!valid(here.first, here.count))
            sound.update(Status::corruption("read", file_->name(),
                                            QStringLiteral("a run of numbers is damaged"),
                                            {Status::Unit::Record, run - 1}));
        else if (!callback(here.first, here.count))
            return sound;
    }
    return sound;
}

} // namespace Morva
