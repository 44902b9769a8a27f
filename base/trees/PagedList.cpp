#include "base/trees/PagedList.h"

#include "base/trace/Trace.h"
#include "base/trees/ListSorter.h"
#include "base/trees/RecordCheck.h"
#include "base/values/LittleEndian.h"
#include "base/values/PosixText.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace Morva {

namespace {

/// Header of a list file, little-endian, 40 bytes; the records follow, each behind its size in 4
/// bytes. A position is the number of bytes between the header and a record.
///  off  size  field    meaning
///    0     8  magic    "MORVALST"
///    8     4  version  1
///   12     4  zero
///   16     8  count    records
///   24     8  bytes    of all records with their sizes
///   32     8  check    recordCheck of the bytes before
namespace Header {
constexpr char magic[] = "MORVALST";
constexpr std::uint32_t version = 1;
constexpr std::uint32_t atVersion = 8, atCount = 16, atBytes = 24, atCheck = 32, size = 40;
} // namespace Header

constexpr std::uint32_t frameSize = 4;
constexpr std::uint32_t smallestPage = 64;
constexpr std::uint64_t shortRead = 65536;
constexpr auto mode = RawFile::Mode::ReadWrite;

} // namespace

PagedList::PagedList(QString const& path, std::uint32_t pageSize, std::uint64_t memorySize)
    : PagedList(Compare(), path, pageSize, memorySize) {}

PagedList::PagedList(Compare compare, QString const& path, std::uint32_t pageSize,
                     std::uint64_t memorySize)
    : path_(path),
      pageSize_(std::max(pageSize, smallestPage)),
      memorySize_(memorySize),
      compare_(std::move(compare)) {}

PagedList::PagedList(PagedList const& other, QString const& path, bool withRecords)
    : PagedList(other.compare_, path, other.pageSize_, other.memorySize_) {
    if (withRecords)
        copyRecords(other);
}

PagedList::~PagedList() {
    close();
}

bool PagedList::fail(char const* text) {
    MORVA_TRACE(Always) << text << path_ << (file_ ? file_->lastError() : 0);
    failed_ = true;
    return false;
}

void PagedList::forget() {
    file_.reset();
    count_ = position_ = spilled_ = windowStart_ = 0;
    std::vector<std::uint8_t>().swap(tail_);
    std::vector<std::uint8_t>().swap(window_);
    headerWritten_ = true;
}

void PagedList::copyRecords(PagedList const& other) {
    if (other.spilled_ != 0 && !openFile())
        return;
    std::vector<std::uint8_t> bytes(std::min<std::uint64_t>(pageSize_, other.spilled_));
    while (spilled_ < other.spilled_) {
        auto const part = static_cast<std::uint32_t>(
            std::min<std::uint64_t>(bytes.size(), other.spilled_ - spilled_));
        std::uint64_t const at = Header::size + spilled_;
        if (other.file_->readAt(at, bytes.data(), part) != part ||
            file_->writeAt(at, bytes.data(), part) != part) {
            (void)fail("Failed to copy list");
            clear();
            failed_ = true;
            return;
        }
        spilled_ += part;
    }
    headerWritten_ = spilled_ == 0;
    tail_ = other.tail_;
    count_ = other.count_;
    position_ = spilled_ + tail_.size();
}

// --- The file ---------------------------------------------------------------------------------

bool PagedList::openFile() {
    file_ = RawFile::make();
    if (file_->create(path_, mode))
        return true;
    (void)fail("Failed to create list");
    file_.reset();
    return false;
}

bool PagedList::open() {
    MORVA_METHOD("open");
    forget();
    failed_ = false;
    file_ = RawFile::make();
    if (!file_->open(path_, mode) || !readHeader()) {
        MORVA_TRACE(Normal) << "No list to open in" << path_;
        forget();
        return scope.result(false);
    }
    return scope.result(true);
}

bool PagedList::readHeader() {
    std::array<std::uint8_t, Header::size> header;
    if (file_->readAt(0, header.data(), Header::size) != Header::size ||
        std::memcmp(header.data(), Header::magic, 8) != 0 ||
        loadLittle<std::uint32_t>(header.data() + Header::atVersion) != Header::version ||
        loadLittle<std::uint64_t>(header.data() + Header::atCheck) !=
            recordCheck(0, header.data(), Header::atCheck))
        return false;
    count_ = loadLittle<std::uint64_t>(header.data() + Header::atCount);
    spilled_ = loadLittle<std::uint64_t>(header.data() + Header::atBytes);
    return spilled_ <= file_->length() - Header::size && count_ <= spilled_ / frameSize;
}

bool PagedList::writeHeader() {
    std::array<std::uint8_t, Header::size> header{};
    std::memcpy(header.data(), Header::magic, 8);
    storeLittle(header.data() + Header::atVersion, Header::version);
    storeLittle(header.data() + Header::atCount, count_);
    storeLittle(header.data() + Header::atBytes, spilled_);
    storeLittle(header.data() + Header::atCheck, recordCheck(0, header.data(), Header::atCheck));
    headerWritten_ = file_->writeAt(0, header.data(), Header::size) == Header::size;
    return headerWritten_ || fail("Failed to write list");
}

/// Moves the records in memory to the file.
bool PagedList::spill() {
    if (tail_.empty())
        return true;
    if (!file_ && !openFile())
        return false;
    auto const bytes = static_cast<std::uint32_t>(tail_.size());
    headerWritten_ = false;
    if (file_->writeAt(Header::size + spilled_, tail_.data(), bytes) != bytes)
        return fail("Failed to write list");
    spilled_ += bytes;
    tail_.clear();
    return true;
}

bool PagedList::flush() {
    return spill() && (headerWritten_ || writeHeader());
}

bool PagedList::close() {
    bool closed = true;
    if (!delete_)
        closed = flush();
    else if (file_)
        file_->deleteOnClose();
    if (file_)
        file_->close();
    forget();
    return closed;
}

bool PagedList::deleteOnClose() {
    delete_ = true;
    return true;
}

void PagedList::clear() {
    if (file_) {
        file_->deleteOnClose();
        file_->close();
    }
    forget();
    failed_ = false;
}

// --- Records ----------------------------------------------------------------------------------

bool PagedList::write(Extent const& record) {
    if (record.size > maximumRecordSize)
        return fail("Record too large for list");
    std::uint64_t const needed = frameSize + std::uint64_t{record.size};
    if (!tail_.empty() && tail_.size() + needed > pageSize_ && !spill())
        return false;
    std::size_t const at = tail_.size();
    tail_.resize(at + needed);
    storeLittle(tail_.data() + at, record.size);
    if (record.size != 0)
        std::memcpy(tail_.data() + at + frameSize, record.data, record.size);
    ++count_;
    position_ = spilled_ + tail_.size();
    return true;
}

/// Has bytes of the file in the window; reading on in order reads a page at a time.
bool PagedList::fill(std::uint64_t position, std::uint64_t count) {
    std::uint64_t const end = windowStart_ + window_.size();
    if (position >= windowStart_ && position + count <= end)
        return true;
    if (count > spilled_ - position)
        return false;
    bool const onwards = position >= windowStart_ && position <= end;
    std::uint64_t const wanted =
        onwards ? pageSize_ : std::min<std::uint64_t>(pageSize_, shortRead);
    window_.resize(std::min(std::max(wanted, count), spilled_ - position));
    windowStart_ = position;
    auto const bytes = static_cast<std::uint32_t>(window_.size());
    if (file_->readAt(Header::size + position, window_.data(), bytes) == bytes)
        return true;
    window_.clear();
    return fail("Failed to read list");
}

bool PagedList::load(std::uint64_t position, Extent& record) {
    if (position >= spilled_) {
        std::uint64_t const at = position - spilled_;
        if (at + frameSize > tail_.size())
            return false;
        record = recordAt(tail_.data() + at);
        return record.size <= tail_.size() - at - frameSize;
    }
    if (!fill(position, frameSize))
        return false;
    std::uint64_t const size =
        loadLittle<std::uint32_t>(window_.data() + (position - windowStart_));
    if (size > maximumRecordSize || !fill(position, frameSize + size))
        return false;
    record = recordAt(window_.data() + (position - windowStart_));
    return true;
}

bool PagedList::read(Extent& record) {
    Extent found;
    if (position_ >= spilled_ + tail_.size() || !load(position_, found))
        return false;
    position_ += frameSize + std::uint64_t{found.size};
    record = found;
    return true;
}

void PagedList::setPosition(std::uint64_t position) {
    position_ = std::min<std::uint64_t>(position, spilled_ + tail_.size());
}

// --- Sorting ----------------------------------------------------------------------------------

bool PagedList::sort() {
    MORVA_METHOD("sort");
    if (!compare_)
        return scope.result(fail("No order to sort list"));
    if (count_ > 1) {
        if (!file_)
            sortInMemory();
        else if (!sortOnDisk())
            return scope.result(fail("Failed to sort list"));
    }
    setPositionStart();
    return scope.result(true);
}

void PagedList::sortInMemory() {
    std::vector<std::uint64_t> offsets;
    offsets.reserve(count_);
    for (std::uint64_t at = 0; at < tail_.size(); at += frameSize + recordAt(&tail_[at]).size)
        offsets.push_back(at);
    sortOffsets(compare_, tail_, offsets);
    std::vector<std::uint8_t> sorted;
    sorted.reserve(tail_.size());
    for (std::uint64_t at : offsets) {
        auto const from = tail_.begin() + static_cast<std::ptrdiff_t>(at);
        sorted.insert(sorted.end(), from, from + frameSize + recordAt(&tail_[at]).size);
    }
    tail_.swap(sorted);
}

bool PagedList::sortOnDisk() {
    ListSorter sorter(compare_, path_, Header::size, pageSize_, memorySize_);
    setPositionStart();
    Extent record;
    for (std::uint64_t i = 0; i < count_; ++i)
        if (!read(record) || !sorter.add(record))
            return false;
    std::unique_ptr<RawFile> sorted = sorter.finish();
    if (!sorted)
        return false;
    if (!RawFile::rename(sorted->name(), path_)) {
        sorted->deleteOnClose();
        sorted->close();
        return false;
    }
    sorted->close();
    file_ = RawFile::make();
    spilled_ += tail_.size();
    tail_.clear();
    window_.clear();
    headerWritten_ = false;
    return file_->open(path_, mode);
}

} // namespace Morva
