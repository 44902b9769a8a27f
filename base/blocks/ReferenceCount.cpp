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
        : cache_(cache), slot_(number % countsPerPage * 4) {
        if (auto page = cache.pin(1 + number / countsPerPage))
            page_ = *page;
        else
            status_ = std::move(page).status();
    }
    ~CountPin() {
        if (page_)
            cache_.unpin(page_, changed_);
    }
    CountPin(CountPin const&) = delete;
    CountPin& operator=(CountPin const&) = delete;
    explicit operator bool() const { return page_ != nullptr; }
    /// Why there is no page.
    Status const& status() const { return status_; }
    std::uint32_t get() const { return loadLittle<std::uint32_t>(bytes()); }
    void set(std::uint32_t count) {
        storeLittle(bytes(), count);
        changed_ = true;
    }

private:
    std::uint8_t* bytes() const { return static_cast<std::uint8_t*>(page_) + slot_; }

    PageCache& cache_;
    void* page_ = nullptr;
    Status status_;
    std::size_t slot_;
    bool changed_ = false;
};

} // namespace

ReferenceCount::ReferenceCount(std::uint32_t cacheSize) : HeadedFile(cacheSize) {}

ReferenceCount::~ReferenceCount() {
    (void)close(); // traced; who needs to know closes before
}

void ReferenceCount::setGrow(std::uint64_t grow) {
    growPages_ = std::clamp<std::uint64_t>(grow / countsPerPage, defaultGrowPages, 0x100000);
}

Status ReferenceCount::create(QString const& name, std::uint64_t limit, std::uint64_t grow) {
    MORVA_METHOD("create");
    MORVA_TRY(close());
    MORVA_TRY(scope.result(beginCreation(name, RawFile::Mode::ReadWrite, pageSize)));
    setGrow(grow);
    limit_ = limit;
    pages_ = 0;
    return scope.result(endCreation(storeHeader()));
}

Status ReferenceCount::open(QString const& name, std::uint64_t limit, std::uint64_t grow,
                            RawFile::Mode mode) {
    MORVA_METHOD("open");
    MORVA_TRY(close());
    setGrow(grow);
    MORVA_TRY(scope.result(beginOpening(name, mode)));
    return scope.result(endOpening(readHeader(limit), "Invalid reference count header in"));
}

Status ReferenceCount::readHeader(std::uint64_t limit) {
    MORVA_TRY(pinHeader(pageSize));
    MORVA_TRY_LET(std::uint64_t const length, file_->length());
    limit_ = loadLittle<std::uint64_t>(header_ + Header::atLimit);
    pages_ = loadLittle<std::uint64_t>(header_ + Header::atPages);
    bool const sound = std::memcmp(header_, Header::magic, 8) == 0 &&
                       loadLittle<std::uint32_t>(header_ + Header::atVersion) == Header::version &&
                       loadLittle<std::uint32_t>(header_ + Header::atCheck) ==
                           headerCheck(header_, Header::atCheck) &&
                       limit_ == limit && pages_ <= length / pageSize - 1 &&
                       (pages_ == 0 || pages_ - 1 <= limit_ / countsPerPage);
    return sound ? Status() : unsoundHeader();
}

Status ReferenceCount::storeHeader() {
    std::memcpy(header_, Header::magic, 8);
    storeLittle(header_ + Header::atVersion, Header::version);
    storeLittle(header_ + Header::atLimit, limit_);
    storeLittle(header_ + Header::atPages, pages_);
    storeLittle(header_ + Header::atCheck, headerCheck(header_, Header::atCheck));
    cache_.markDirty(header_);
    return cache_.writeNow(header_);
}

Status ReferenceCount::close() {
    if (!header_)
        return {};
    MORVA_METHOD("close");
    Status closed = flush();
    giveUp();
    return scope.result(std::move(closed));
}

Status ReferenceCount::flush() {
    return header_ ? cache_.flush() : notOpen("flush");
}

Status ReferenceCount::growTo(std::uint64_t pages) {
    if (pages > largestPages)
        return Status::failure(Status::Code::NoSpace, "extend", file_->name(),
                               QStringLiteral("a file can't be that large"));
    MORVA_TRY(file_->setLength((1 + pages) * pageSize));
    std::uint64_t const before = std::exchange(pages_, pages);
    Status stored = storeHeader();
    if (!stored)
        pages_ = before;
    return stored;
}

Status ReferenceCount::reserve(std::uint64_t number) {
    std::uint64_t const needed = number / countsPerPage + 1;
    if (needed <= pages_)
        return {};
    std::uint64_t const steps = (needed + growPages_ - 1) / growPages_;
    std::uint64_t const wanted = std::min(steps * growPages_, limit_ / countsPerPage + 1);
    Status grown = growTo(wanted);
    if (!grown && wanted != needed)
        grown = growTo(needed);
    if (!grown) {
        MORVA_TRACE(Always) << "Failed to extend" << file_->name() << file_->lastError();
        Failures::note();
    }
    return grown;
}

Status ReferenceCount::aboveLimit(std::uint64_t number) const {
    if (!header_)
        return notOpen("count in");
    return Status::failure(Status::Code::InvalidArgument, "count in", file_->name(),
                           QStringLiteral("the number is above the limit"),
                           {Status::Unit::Block, number});
}

Status ReferenceCount::noCount(std::uint64_t number) const {
    if (!header_)
        return notOpen("count in");
    return Status::corruption("count in", file_->name(),
                              QStringLiteral("a number in use has no count"),
                              {Status::Unit::Block, number});
}

bool ReferenceCount::inTable(std::uint64_t number) const {
    return header_ && number <= limit_ && number / countsPerPage < pages_;
}

Status ReferenceCount::newId(std::uint64_t number) {
    Status reserved = header_ && number <= limit_ ? reserve(number) : aboveLimit(number);
    if (!reserved) {
        MORVA_TRACE(Always) << "Number" << number << "can't have a count";
        return reserved;
    }
    CountPin pin(cache_, number);
    if (!pin)
        return pin.status();
    if (pin.get() != 0) {
        MORVA_TRACE(Always) << "Number" << number << "has a count already" << pin.get();
        return Status::failure(Status::Code::Busy, "count in", file_->name(),
                               QStringLiteral("the number is in use already"),
                               {Status::Unit::Block, number});
    }
    pin.set(1);
    return {};
}

Status ReferenceCount::increment(std::uint32_t& count, std::uint64_t number) {
    if (inTable(number)) [[likely]] {
        CountPin pin(cache_, number);
        if (!pin)
            return pin.status();
        std::uint32_t const now = pin.get();
        if (now == ~std::uint32_t{0}) {
            MORVA_TRACE(Always) << "Number" << number << "has no count that can rise";
            return Status::failure(Status::Code::InvalidArgument, "count in", file_->name(),
                                   QStringLiteral("the count can't rise any more"),
                                   {Status::Unit::Block, number});
        }
        if (now != 0) [[likely]] {
            pin.set(now + 1);
            count = now + 1;
            return {};
        }
    }
    MORVA_TRACE(Always) << "Number" << number << "has no count that can rise";
    return noCount(number);
}

Status ReferenceCount::decrement(std::uint32_t& count, std::uint64_t number) {
    if (inTable(number)) [[likely]] {
        CountPin pin(cache_, number);
        if (!pin)
            return pin.status();
        std::uint32_t const now = pin.get();
        if (now != 0) [[likely]] {
            pin.set(now - 1);
            count = now - 1;
            return {};
        }
    }
    MORVA_TRACE(Always) << "Number" << number << "has no count that can fall";
    return noCount(number);
}

Status ReferenceCount::count(std::uint32_t& count, std::uint64_t number) const {
    if (!header_ || number > limit_)
        return aboveLimit(number);
    if (!inTable(number)) {
        count = 0;
        return {};
    }
    CountPin const pin(cache_, number);
    if (pin)
        count = pin.get();
    return pin.status();
}

Status ReferenceCount::releaseId(std::uint64_t number) {
    if (!header_ || number > limit_)
        return aboveLimit(number);
    if (!inTable(number))
        return {};
    CountPin pin(cache_, number);
    if (pin && pin.get() != 0)
        pin.set(0);
    return pin.status();
}

Status ReferenceCount::forEach(
    std::function<bool(std::uint64_t number, std::uint32_t count)> const& callback) const {
    static constexpr std::uint8_t zeros[pageSize] = {};
    if (!header_)
        return notOpen("read");
    Status sound;
    bool more = true;
    for (std::uint64_t page = 0; page < pages_ && more; ++page) {
        auto pinned = cache_.pin(1 + page);
        if (!pinned) {
            sound.update(std::move(pinned).status());
            continue;
        }
        auto const* bytes = static_cast<std::uint8_t const*>(*pinned);
        if (std::memcmp(bytes, zeros, pageSize) != 0)
            for (std::uint32_t slot = 0; slot < countsPerPage && more; ++slot)
                if (auto const count = loadLittle<std::uint32_t>(bytes + slot * 4))
                    more = callback(page * countsPerPage + slot, count);
        cache_.unpin(bytes, false);
    }
    return sound;
}

} // namespace Morva
