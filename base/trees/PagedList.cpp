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
        (void)copyRecords(other); // `status` tells
}

PagedList::~PagedList() {
    (void)close(); // traced; who needs to know closes before
}

Status PagedList::fail(char const* text, Status why) {
    MORVA_TRACE(Always) << text << path_ << (file_ ? file_->lastError() : 0);
    failure_.update(Status(why));
    return why;
}

Status PagedList::damaged(std::uint64_t position) const {
    return Status::corruption("read", path_, QStringLiteral("a record is damaged"),
                              {Status::Unit::Byte, position});
}

void PagedList::forget() {
    file_.reset();
    count_ = position_ = spilled_ = windowStart_ = 0;
    std::vector<std::uint8_t>().swap(tail_);
    std::vector<std::uint8_t>().swap(window_);
    headerWritten_ = true;
}

Status PagedList::copyRecords(PagedList const& other) {
    if (other.spilled_ != 0) {
        MORVA_TRY(openFile());
        if (Status copied = copyFile(other); !copied) {
            clear();
            return fail("Failed to copy list", std::move(copied));
        }
    }
    headerWritten_ = spilled_ == 0;
    tail_ = other.tail_;
    count_ = other.count_;
    position_ = spilled_ + tail_.size();
    return {};
}

Status PagedList::copyFile(PagedList const& other) {
    std::vector<std::uint8_t> bytes(std::min<std::uint64_t>(pageSize_, other.spilled_));
    while (spilled_ < other.spilled_) {
        auto const part = static_cast<std::uint32_t>(
            std::min<std::uint64_t>(bytes.size(), other.spilled_ - spilled_));
        std::uint64_t const at = Header::size + spilled_;
        MORVA_TRY(other.file_->readWhole(at, bytes.data(), part));
        MORVA_TRY(file_->writeAt(at, bytes.data(), part));
        spilled_ += part;
    }
    return {};
}

// --- The file ---------------------------------------------------------------------------------

Status PagedList::openFile() {
    file_ = RawFile::make();
    Status made = file_->create(path_, mode);
    if (!made) {
        made = fail("Failed to create list", std::move(made));
        file_.reset();
    }
    return made;
}

Status PagedList::open() {
    MORVA_METHOD("open");
    forget();
    failure_ = {};
    file_ = RawFile::make();
    Status opened = file_->open(path_, mode);
    if (opened)
        opened = readHeader();
    if (!opened) {
        MORVA_TRACE(Normal) << "No list to open in" << path_;
        forget();
    }
    return scope.result(std::move(opened));
}

Status PagedList::readHeader() {
    auto const unsound = [this] {
        return Status::corruption("open", path_, QStringLiteral("its header is damaged"));
    };
    std::array<std::uint8_t, Header::size> header;
    MORVA_TRY(file_->readWhole(0, header.data(), Header::size));
    if (std::memcmp(header.data(), Header::magic, 8) != 0 ||
        loadLittle<std::uint32_t>(header.data() + Header::atVersion) != Header::version ||
        loadLittle<std::uint64_t>(header.data() + Header::atCheck) !=
            recordCheck(0, header.data(), Header::atCheck))
        return unsound();
    count_ = loadLittle<std::uint64_t>(header.data() + Header::atCount);
    spilled_ = loadLittle<std::uint64_t>(header.data() + Header::atBytes);
    MORVA_TRY_LET(std::uint64_t const length, file_->length());
    return spilled_ <= length - Header::size && count_ <= spilled_ / frameSize ? Status()
                                                                               : unsound();
}

Status PagedList::writeHeader() {
    std::array<std::uint8_t, Header::size> header{};
    std::memcpy(header.data(), Header::magic, 8);
    storeLittle(header.data() + Header::atVersion, Header::version);
    storeLittle(header.data() + Header::atCount, count_);
    storeLittle(header.data() + Header::atBytes, spilled_);
    storeLittle(header.data() + Header::atCheck, recordCheck(0, header.data(), Header::atCheck));
    Status written = file_->writeAt(0, header.data(), Header::size);
    headerWritten_ = written.ok();
    return written ? std::move(written) : fail("Failed to write list", std::move(written));
}

/// Moves the records in memory to the file.
Status PagedList::spill() {
    if (tail_.empty())
        return {};
    if (!file_)
        MORVA_TRY(openFile());
    auto const bytes = static_cast<std::uint32_t>(tail_.size());
    headerWritten_ = false;
    if (Status written = file_->writeAt(Header::size + spilled_, tail_.data(), bytes); !written)
        return fail("Failed to write list", std::move(written));
    spilled_ += bytes;
    tail_.clear();
    return {};
}

Status PagedList::flush() {
    MORVA_TRY(spill());
    return headerWritten_ ? Status() : writeHeader();
}

Status PagedList::close() {
    Status closed;
    if (!delete_)
        closed = flush();
    else if (file_)
        file_->deleteOnClose();
    if (file_)
        closed.update(file_->close());
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
        (void)file_->close(); // traced there; the list is empty all the same
    }
    forget();
    failure_ = {};
}

// --- Records ----------------------------------------------------------------------------------

Status PagedList::write(Extent const& record) {
    if (record.size > maximumRecordSize)
        return fail("Record too large for list",
                    Status::failure(Status::Code::InvalidArgument, "write", path_,
                                    QStringLiteral("the record is too large")));
    std::uint64_t const needed = frameSize + std::uint64_t{record.size};
    if (!tail_.empty() && tail_.size() + needed > pageSize_)
        MORVA_TRY(spill());
    std::size_t const at = tail_.size();
    tail_.resize(at + needed);
    storeLittle(tail_.data() + at, record.size);
    if (record.size != 0)
        std::memcpy(tail_.data() + at + frameSize, record.data, record.size);
    ++count_;
    position_ = spilled_ + tail_.size();
    return {};
}

/// Has bytes of the file in the window; reading on in order reads a page at a time.
Status PagedList::fill(std::uint64_t position, std::uint64_t count) {
    std::uint64_t const end = windowStart_ + window_.size();
    if (position >= windowStart_ && position + count <= end)
        return {};
    if (count > spilled_ - position)
        return damaged(position);
    bool const onwards = position >= windowStart_ && position <= end;
    std::uint64_t const wanted =
        onwards ? pageSize_ : std::min<std::uint64_t>(pageSize_, shortRead);
    window_.resize(std::min(std::max(wanted, count), spilled_ - position));
    windowStart_ = position;
    auto const bytes = static_cast<std::uint32_t>(window_.size());
    Status read = file_->readWhole(Header::size + position, window_.data(), bytes);
    if (!read)
        window_.clear();
    return read;
}

Status PagedList::load(std::uint64_t position, Extent& record) {
    if (position >= spilled_) {
        std::uint64_t const at = position - spilled_;
        if (at + frameSize > tail_.size())
            return damaged(position);
        record = recordAt(tail_.data() + at);
        return record.size <= tail_.size() - at - frameSize ? Status() : damaged(position);
    }
    MORVA_TRY(fill(position, frameSize));
    std::uint64_t const size =
        loadLittle<std::uint32_t>(window_.data() + (position - windowStart_));
    if (size > maximumRecordSize)
        return damaged(position);
    MORVA_TRY(fill(position, frameSize + size));
    record = recordAt(window_.data() + (position - windowStart_));
    return {};
}

Result<bool> PagedList::read(Extent& record) {
    if (position_ >= spilled_ + tail_.size())
        return false;
    Extent found;
    if (Status loaded = load(position_, found); !loaded)
        return fail("Failed to read list", std::move(loaded));
    position_ += frameSize + std::uint64_t{found.size};
    record = found;
    return true;
}

void PagedList::setPosition(std::uint64_t position) {
    position_ = std::min<std::uint64_t>(position, spilled_ + tail_.size());
}

// --- Sorting ----------------------------------------------------------------------------------

Status PagedList::sort() {
    MORVA_METHOD("sort");
    if (!compare_)
        return scope.result(
            fail("No order to sort list", Status::failure(Status::Code::InvalidArgument, "sort",
                                                          path_, QStringLiteral("no order"))));
    if (count_ > 1) {
        if (!file_)
            sortInMemory();
        else if (Status sorted = sortOnDisk(); !sorted)
            return scope.result(fail("Failed to sort list", std::move(sorted)));
    }
    setPositionStart();
    return {};
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

Status PagedList::sortOnDisk() {
    ListSorter sorter(compare_, path_, Header::size, pageSize_, memorySize_);
    setPositionStart();
    Extent record;
    for (std::uint64_t i = 0; i < count_; ++i) {
        MORVA_TRY_LET(bool const more, read(record));
        if (!more)
            return damaged(position_);
        MORVA_TRY(sorter.add(record));
    }
    MORVA_TRY_LET(std::unique_ptr<RawFile> const sorted, sorter.finish());
    if (Status renamed = RawFile::rename(sorted->name(), path_); !renamed) {
        sorted->deleteOnClose();
        (void)sorted->close(); // the rename has failed already
        return renamed;
    }
    (void)sorted->close(); // removes nothing
    file_ = RawFile::make();
    spilled_ += tail_.size();
    tail_.clear();
    window_.clear();
    headerWritten_ = false;
    return file_->open(path_, mode);
}

} // namespace Morva
