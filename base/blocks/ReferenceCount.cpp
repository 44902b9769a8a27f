#include "base/blocks/ReferenceCount.h"

#include "base/blocks/Failures.h"
#include "base/blocks/HeaderPage.h"
#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Morva {

namespace {

/// Header of a reference count file, at the start of page 0, little-endian, 40 bytes.
///  off  size  field    meaning
///    0     8  magic    "MORVAREF"
///    8     4  version  1
///   12     4  zero
///   16     8  limit    the largest number
///   24     8  pages    pages of counts that the disk has space for
///   32     4  zero
///   36     4  check    headerCheck of the bytes before
namespace Header {
constexpr char magic[] = "MORVAREF";
constexpr std::uint32_t version = 1;
constexpr std::uint32_t atVersion = 8, atLimit = 16, atPages = 24, atCheck = 36;
} // namespace Header

/// The count of number n is 4 bytes at page 1 + n / 1024, slot n % 1024.
constexpr std::uint32_t pageSize = 4096;
constexpr std::uint32_t countsPerPage = pageSize / 4;
constexpr std::uint64_t defaultGrowPages = 16;
constexpr std::uint64_t largestPages = 0x7FFFFFFFFFFFFFFFull / pageSize - 1;

/// One pinned page, and in it the count of a number.
class CountPin {
public:
    CountPin(PageCache& cache, std::uint64_t number)
        : cache_(cache),
          page_(cache.pin(1 + number / countsPerPage)),
          slot_(number % countsPerPage * 4) {}
    ~CountPin() {
        if (page_)
            cache_.unpin(page_, changed_);
    }
    explicit operator bool() const { return page_ != nullptr; }
    std::uint32_t get() const { return loadLittle<std::uint32_t>(bytes()); }
    void set(std::uint32_t count) {
        storeLittle(bytes(), count);
        changed_ = true;
    }

private:
    std::uint8_t* bytes() const { return static_cast<std::uint8_t*>(page_) + slot_; }

    PageCache& cache_;
    void* page_;
    std::size_t slot_;
    bool changed_ = false;
};

} // namespace

ReferenceCount::ReferenceCount(std::uint32_t cacheSize) : HeadedFile(cacheSize) {}

ReferenceCount::~ReferenceCount() {
    close();
}

void ReferenceCount::setGrow(std::uint64_t grow) {
    growPages_ = std::clamp<std::uint64_t>(grow / countsPerPage, defaultGrowPages, 0x100000);
}

bool ReferenceCount::create(QString const& name, std::uint64_t limit, std::uint64_t grow) {
    MORVA_METHOD("create");
    close();
    if (!beginCreation(name, RawFile::Mode::ReadWrite, pageSize))
        return scope.result(false);
    setGrow(grow);
    limit_ = limit;
    pages_ = 0;
    return scope.result(endCreation(storeHeader()));
}

bool ReferenceCount::open(QString const& name, std::uint64_t limit, std::uint64_t grow,
                          RawFile::Mode mode) {
    MORVA_METHOD("open");
    close();
    setGrow(grow);
    return scope.result(beginOpening(name, mode) &&
                        endOpening(readHeader(limit), "Invalid reference count header in"));
}

bool ReferenceCount::readHeader(std::uint64_t limit) {
    if (!pinHeader(pageSize))
        return false;
    std::uint64_t const length = file_->length();
    limit_ = loadLittle<std::uint64_t>(header_ + Header::atLimit);
    pages_ = loadLittle<std::uint64_t>(header_ + Header::atPages);
    return std::memcmp(header_, Header::magic, 8) == 0 &&
           loadLittle<std::uint32_t>(header_ + Header::atVersion) == Header::version &&
           loadLittle<std::uint32_t>(header_ + Header::atCheck) ==
               headerCheck(header_, Header::atCheck) &&
           limit_ == limit && pages_ <= length / pageSize - 1 &&
           (pages_ == 0 || pages_ - 1 <= limit_ / countsPerPage);
}

bool ReferenceCount::storeHeader() {
    std::memcpy(header_, Header::magic, 8);
    storeLittle(header_ + Header::atVersion, Header::version);
    storeLittle(header_ + Header::atLimit, limit_);
    storeLittle(header_ + Header::atPages, pages_);
    storeLittle(header_ + Header::atCheck, headerCheck(header_, Header::atCheck));
    cache_.markDirty(header_);
    return cache_.writeNow(header_);
}

bool ReferenceCount::close() {
    if (!header_)
        return true;
    MORVA_METHOD("close");
    bool const closed = flush();
    giveUp();
    return scope.result(closed);
}

bool ReferenceCount::flush() {
    return header_ && cache_.flush();
}

bool ReferenceCount::growTo(std::uint64_t pages) {
    if (pages > largestPages || !file_->setLength((1 + pages) * pageSize))
        return false;
    std::uint64_t const before = std::exchange(pages_, pages);
    if (storeHeader())
        return true;
    pages_ = before;
    return false;
}

bool ReferenceCount::reserve(std::uint64_t number) {
    std::uint64_t const needed = number / countsPerPage + 1;
    if (needed <= pages_)
        return true;
    std::uint64_t const steps = (needed + growPages_ - 1) / growPages_;
    std::uint64_t const wanted = std::min(steps * growPages_, limit_ / countsPerPage + 1);
    if (growTo(wanted) || (wanted != needed && growTo(needed)))
        return true;
    MORVA_TRACE(Always) << "Failed to extend" << file_->name() << file_->lastError();
    Failures::note();
    return false;
}

bool ReferenceCount::inTable(std::uint64_t number) const {
    return header_ && number <= limit_ && number / countsPerPage < pages_;
}

bool ReferenceCount::newId(std::uint64_t number) {
    if (!header_ || number > limit_ || !reserve(number)) {
        MORVA_TRACE(Always) << "Number" << number << "can't have a count";
        return false;
    }
    CountPin pin(cache_, number);
    if (!pin)
        return false;
    if (pin.get() != 0) {
        MORVA_TRACE(Always) << "Number" << number << "has a count already" << pin.get();
        return false;
    }
    pin.set(1);
    return true;
}

bool ReferenceCount::increment(std::uint32_t& count, std::uint64_t number) {
    if (inTable(number)) [[likely]] {
        CountPin pin(cache_, number);
        if (!pin)
            return false;
        std::uint32_t const now = pin.get();
        if (now != 0 && now != ~std::uint32_t{0}) [[likely]] {
            pin.set(now + 1);
            count = now + 1;
            return true;
        }
    }
    MORVA_TRACE(Always) << "Number" << number << "has no count that can rise";
    return false;
}

bool ReferenceCount::decrement(std::uint32_t& count, std::uint64_t number) {
    if (inTable(number)) [[likely]] {
        CountPin pin(cache_, number);
        if (!pin)
            return false;
        std::uint32_t const now = pin.get();
        if (now != 0) [[likely]] {
            pin.set(now - 1);
            count = now - 1;
            return true;
        }
    }
    MORVA_TRACE(Always) << "Number" << number << "has no count that can fall";
    return false;
}

bool ReferenceCount::count(std::uint32_t& count, std::uint64_t number) const {
    if (!header_ || number > limit_)
        return false;
    if (!inTable(number)) {
        count = 0;
        return true;
    }
    CountPin const pin(cache_, number);
    if (pin)
        count = pin.get();
    return static_cast<bool>(pin);
}

bool ReferenceCount::releaseId(std::uint64_t number) {
    if (!header_ || number > limit_)
        return false;
    if (!inTable(number))
        return true;
    CountPin pin(cache_, number);
    if (!pin)
        return false;
    if (pin.get() != 0)
        pin.set(0);
    return true;
}

bool ReferenceCount::forEach(
    std::function<bool(std::uint64_t number, std::uint32_t count)> const& callback) const {
    static constexpr std::uint8_t zeros[pageSize] = {};
    if (!header_)
        return false;
    bool sound = true;
    bool more = true;
    for (std::uint64_t page = 0; page < pages_ && more; ++page) {
        auto const* bytes = static_cast<std::uint8_t const*>(cache_.pin(1 + page));
        if (!bytes) {
            sound = false;
            continue;
        }
        if (std::memcmp(bytes, zeros, pageSize) != 0)
            for (std::uint32_t slot = 0; slot < countsPerPage && more; ++slot)
                if (auto const count = loadLittle<std::uint32_t>(bytes + slot * 4))
                    more = callback(page * countsPerPage + slot, count);
        cache_.unpin(bytes, false);
    }
    return sound;
}

} // namespace Morva
