#include "base/files/PageSums.h"

#include "base/files/Crc32c.h"
#include "base/values/LittleEndian.h"
#include "base/values/RandomNumber.h"

#include <isa-l/mem_routines.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace Morva {

namespace {

constexpr std::uint32_t pageSize = PageSums::pageSize;
constexpr std::uint64_t sumsOnPage = PageSums::sumsOnPage;
constexpr std::uint32_t sumAt = pageSize - 4;
constexpr std::uint64_t sideMark = std::uint64_t{1} << 63;

constexpr char magic[] = "MorvaSum";
constexpr std::uint32_t version = 1;
constexpr std::uint32_t entryBytes = 4;
constexpr std::size_t versionAt = 8, entryBytesAt = 12, idAt = 16, stampAt = 24;

constexpr qsizetype stateHead = 4;
constexpr char inTable = 0, inSide = 1;

/// Pages of one file that stay in memory unchanged: the sums of 4 GiB.
constexpr std::size_t keptPages = 1024;

std::uint32_t numberCrc(std::uint32_t seed, std::uint64_t number) {
    std::uint8_t bytes[8];
    storeLittle(bytes, number);
    return crc32c(seed, bytes, sizeof bytes);
}

bool isState(QByteArray const& state) {
    if (state.size() < stateHead || state[0] != char{version} || state[1] != char{entryBytes} ||
        state[3] != 0)
        return false;
    qsizetype const rest = state.size() - stateHead;
    return state[2] == inSide ? rest == 8
           : state[2] == inTable
               ? rest % entryBytes == 0 && rest <= static_cast<qsizetype>(sumsOnPage * entryBytes)
               : false;
}

} // namespace

PageSums::PageSums(std::uint64_t fileId)
    : fileId_(fileId), idCrc_(numberCrc(~std::uint32_t{0}, fileId)) {}

Result<std::shared_ptr<PageSums>> PageSums::of(std::uint64_t fileId, QByteArray const& state,
                                               QString const& name) {
    if (!isState(state))
        return Status::corruption("open", name,
                                  QStringLiteral("its checksums in the journal can't be read"));
    auto result = std::make_shared<PageSums>(fileId);
    char const* const bytes = state.constData() + stateHead;
    if (hasSide(state)) {
        result->hasSide_ = true;
        result->stamp_ = loadLittle<std::uint64_t>(bytes);
    } else if (auto const count = static_cast<std::size_t>(state.size() - stateHead) / entryBytes) {
        auto page = std::make_shared<Page>();
        for (std::size_t i = 0; i < count; ++i)
            page->sums[i] = loadLittle<std::uint32_t>(bytes + i * entryBytes);
        // It stands nowhere else.
        page->changed = true;
        result->pages_.emplace(0, std::move(page));
    }
    return result;
}

bool PageSums::hasSide(QByteArray const& state) {
    return isState(state) && state[2] == inSide;
}

// --- one sum

std::uint32_t PageSums::begin(std::uint64_t page) const {
    return numberCrc(idCrc_, page);
}

std::uint32_t PageSums::sumOf(std::uint64_t page, void const* bytes, std::uint32_t count) const {
    return end(crc32c(begin(page), bytes, count));
}

bool PageSums::fits(std::uint64_t page, std::uint32_t sum, void const* bytes,
                    std::uint32_t count) const {
    if (sum == 0)
        return isal_zero_detect(const_cast<void*>(bytes), count) == 0; // It only reads.
    return sumOf(page, bytes, count) == sum;
}

// --- access

Status PageSums::View::moveTo(std::uint64_t number) {
    if (page_ && number_ == number)
        return {};
    MORVA_TRY_LET(page_, sums_.pageOf(number));
    number_ = number;
    return {};
}

Result<std::uint32_t> PageSums::View::get(std::uint64_t page) {
    MORVA_TRY(moveTo(page / sumsOnPage));
    return page_->sums[page % sumsOnPage].load(std::memory_order_relaxed);
}

Status PageSums::View::put(std::uint64_t page, std::uint32_t sum) {
    MORVA_TRY(moveTo(page / sumsOnPage));
    page_->sums[page % sumsOnPage].store(sum, std::memory_order_relaxed);
    page_->changed.store(true, std::memory_order_relaxed);
    sums_.changed_.store(true, std::memory_order_relaxed);
    return {};
}

Result<PageSums::PagePointer> PageSums::pageOf(std::uint64_t number) {
    auto const known = [&]() -> PagePointer {
        std::shared_lock const hold(table_);
        auto const found = pages_.find(number);
        return found == pages_.end() ? nullptr : found->second;
    };
    if (auto page = known())
        return page;
    std::lock_guard const loading(loading_);
    if (auto page = known())
        return page;
    auto page = std::make_shared<Page>();
    if (number < sidePages_) {
        std::array<std::uint8_t, pageSize> bytes;
        MORVA_TRY(readSide(number + 1, bytes.data()));
        for (std::size_t i = 0; i < sumsOnPage; ++i)
            page->sums[i].store(loadLittle<std::uint32_t>(&bytes[i * entryBytes]),
                                std::memory_order_relaxed);
    }
    std::unique_lock const hold(table_);
    if (pages_.size() >= keptPages)
        dropSome();
    pages_.emplace(number, page);
    return page;
}

void PageSums::dropSome() {
    // Only those that nobody holds: a sum put into one that is gone would be lost.
    std::size_t left = keptPages / 8;
    for (auto each = pages_.begin(); each != pages_.end() && left > 0;) {
        bool const goes = each->second.use_count() == 1 && !each->second->changed;
        left -= goes;
        each = goes ? pages_.erase(each) : std::next(each);
    }
}

Status PageSums::cut(std::uint64_t first) {
    std::uint64_t const last = first / sumsOnPage;
    PagePointer page;
    if (first % sumsOnPage != 0) {
        MORVA_TRY_LET(page, pageOf(last));
        for (std::uint64_t i = first % sumsOnPage; i < sumsOnPage; ++i)
            page->sums[i].store(0, std::memory_order_relaxed);
        page->changed = true;
    }
    std::lock_guard const loading(loading_);
    std::unique_lock const hold(table_);
    std::uint64_t const kept = last + (page != nullptr);
    std::erase_if(pages_, [kept](auto const& each) { return each.first >= kept; });
    sidePages_ = std::min(sidePages_, kept);
    changed_ = true;
    return {};
}

// --- the side file

std::uint32_t PageSums::sideSum(std::uint64_t number, std::uint8_t const* bytes) const {
    return end(crc32c(numberCrc(idCrc_, sideMark + number), bytes, sumAt));
}

Status PageSums::damaged(QString const& reason, std::uint64_t number) const {
    return Status::corruption("read", side_->name(), reason, {Status::Unit::Page, number});
}

Status PageSums::readSide(std::uint64_t number, std::uint8_t* bytes) {
    MORVA_TRY(side_->readWhole(number * pageSize, bytes, pageSize));
    if (loadLittle<std::uint32_t>(bytes + sumAt) != sideSum(number, bytes))
        return damaged(QStringLiteral("its checksum doesn't fit"), number);
    return {};
}

Status PageSums::writeSide(std::uint64_t number, std::uint8_t* bytes) {
    storeLittle(bytes + sumAt, sideSum(number, bytes));
    return side_->writeAt(number * pageSize, bytes, pageSize);
}

Status PageSums::open(QString const& name, Maker const& make) {
    std::lock_guard const loading(loading_);
    if (!hasSide_ || side_)
        return {};
    auto file = make();
    Status opened = file->open(sideName(name), RawFile::Mode::ReadOnly);
    if (opened.is(Status::Code::NotFound))
        return Status::corruption("open", sideName(name), QStringLiteral("it isn't there"));
    MORVA_TRY(std::move(opened));
    MORVA_TRY_LET(auto const length, file->length());
    side_ = std::move(file);
    sidePages_ = length < pageSize ? 0 : length / pageSize - 1;
    Status verified = verifyHeader();
    if (!verified)
        side_.reset();
    return verified;
}

Status PageSums::verifyHeader() {
    std::array<std::uint8_t, pageSize> bytes;
    MORVA_TRY(readSide(0, bytes.data()));
    if (std::memcmp(bytes.data(), magic, versionAt) != 0 ||
        loadLittle<std::uint32_t>(&bytes[versionAt]) != version ||
        loadLittle<std::uint32_t>(&bytes[entryBytesAt]) != entryBytes)
        return damaged(QStringLiteral("it is no file of checksums that is known here"), 0);
    if (loadLittle<std::uint64_t>(&bytes[idAt]) != fileId_)
        return damaged(QStringLiteral("it belongs to another file"), 0);
    if (loadLittle<std::uint64_t>(&bytes[stampAt]) != stamp_)
        return damaged(QStringLiteral("it is of another time than the journal"), 0);
    return {};
}

Status PageSums::writeHeader() {
    std::array<std::uint8_t, pageSize> bytes{};
    std::memcpy(bytes.data(), magic, versionAt);
    storeLittle(&bytes[versionAt], version);
    storeLittle(&bytes[entryBytesAt], entryBytes);
    storeLittle(&bytes[idAt], fileId_);
    std::uint64_t const stamp = randomNumber();
    storeLittle(&bytes[stampAt], stamp);
    MORVA_TRY(writeSide(0, bytes.data()));
    stamp_ = stamp;
    return {};
}

void PageSums::verifySide(std::function<void(Status const&)> const& fault) {
    std::lock_guard const loading(loading_);
    std::array<std::uint8_t, pageSize> bytes;
    for (std::uint64_t number = 1; side_ && number <= sidePages_; ++number)
        if (Status const read = readSide(number, bytes.data()); !read)
            fault(read);
}

std::uint64_t PageSums::used() const {
    std::uint64_t result = 0;
    for (auto const& [number, page] : pages_)
        for (std::uint64_t i = sumsOnPage; i-- > 0;)
            if (page->sums[i].load(std::memory_order_relaxed) != 0) {
                result = std::max(result, number * sumsOnPage + i + 1);
                break;
            }
    return result;
}

Status PageSums::flush(QString const& name, Maker const& make) {
    std::lock_guard const loading(loading_);
    if (!changed_)
        return {};
    if (!hasSide_ && used() <= pagesWithoutSide) {
        changed_ = false;
        return {};
    }
    MORVA_TRY(openForWriting(sideName(name), make));
    MORVA_TRY(writePages());
    MORVA_TRY(writeHeader());
    changed_ = false;
    return {};
}

Status PageSums::openForWriting(QString const& side, Maker const& make) {
    if (writable_)
        return {};
    auto file = make();
    MORVA_TRY(hasSide_ ? file->open(side, RawFile::Mode::ReadWrite)
                       : file->create(side, RawFile::Mode::ReadWrite));
    side_ = std::move(file);
    writable_ = hasSide_ = true;
    return {};
}

Status PageSums::writePages() {
    MORVA_TRY_LET(auto const length, side_->length());
    if (std::uint64_t const held = (sidePages_ + 1) * pageSize; length > held)
        MORVA_TRY(side_->setLength(held));
    std::vector<std::pair<std::uint64_t, Page*>> changed;
    for (auto const& [number, page] : pages_)
        if (page->changed)
            changed.emplace_back(number, page.get());
    std::sort(changed.begin(), changed.end());
    std::array<std::uint8_t, pageSize> bytes;
    for (auto const& [number, page] : changed) {
        // A page is part of the file only if it fits its own sum, empty ones between too.
        for (bytes.fill(0); sidePages_ < number; ++sidePages_)
            MORVA_TRY(writeSide(sidePages_ + 1, bytes.data()));
        for (std::size_t i = 0; i < sumsOnPage; ++i)
            storeLittle(&bytes[i * entryBytes], page->sums[i].load(std::memory_order_relaxed));
        MORVA_TRY(writeSide(number + 1, bytes.data()));
        sidePages_ = std::max(sidePages_, number + 1);
        page->changed = false;
    }
    return {};
}

QByteArray PageSums::state() const {
    QByteArray result;
    result.append(char{version}).append(char{entryBytes}).append(hasSide_ ? inSide : inTable);
    result.append('\0');
    auto const append = [&result]<class Number>(Number number) {
        char bytes[sizeof number];
        storeLittle(bytes, number);
        result.append(bytes, sizeof bytes);
    };
    std::shared_lock const hold(table_);
    if (hasSide_) {
        append(stamp_);
    } else if (auto const first = pages_.find(0); first != pages_.end()) {
        std::uint64_t const count = used();
        for (std::uint64_t i = 0; i < count; ++i)
            append(first->second->sums[i].load(std::memory_order_relaxed));
    }
    return result;
}

} // namespace Morva
