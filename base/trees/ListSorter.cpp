#include "base/trees/ListSorter.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Morva {

namespace {

constexpr std::uint32_t frameSize = 4;
constexpr std::uint64_t readerSize = 65536;
constexpr std::uint64_t mostReaders = 128;

} // namespace

Extent recordAt(std::uint8_t const* framed) {
    return Extent(static_cast<void const*>(framed + frameSize), loadLittle<std::uint32_t>(framed));
}

void sortOffsets(PagedList::Compare const& compare, std::vector<std::uint8_t> const& records,
                 std::vector<std::uint64_t>& offsets) {
    std::ranges::stable_sort(offsets, [&](std::uint64_t a, std::uint64_t b) {
        return compare(recordAt(records.data() + a), recordAt(records.data() + b)) ==
               PagedList::CompareResult::Less;
    });
}

/// Reads the records of one run through a buffer.
class ListSorter::Reader {
public:
    Reader(RawFile& file, Run run, std::uint64_t size) : file_(&file), run_(run), size_(size) {}

    /// Moves to the next record; false at the end.
    Result<bool> next() {
        at_ += length_;
        length_ = 0;
        if (run_.begin == run_.end && at_ == buffer_.size())
            return false;
        MORVA_TRY(have(frameSize));
        std::uint64_t const length =
            frameSize + std::uint64_t{loadLittle<std::uint32_t>(buffer_.data() + at_)};
        MORVA_TRY(have(length));
        length_ = length;
        return true;
    }
    [[nodiscard]] Extent framed() const {
        return Extent(static_cast<void const*>(buffer_.data() + at_),
                      static_cast<std::uint32_t>(length_));
    }
    [[nodiscard]] Extent record() const { return recordAt(buffer_.data() + at_); }

private:
    Status have(std::uint64_t count) {
        std::uint64_t const left = buffer_.size() - at_;
        if (count <= left)
            return {};
        if (count - left > run_.end - run_.begin)
            return Status::corruption("read", file_->name(), QStringLiteral("a record is damaged"),
                                      {Status::Unit::Byte, run_.begin});
        if (left != 0)
            std::memmove(buffer_.data(), buffer_.data() + at_, left);
        std::uint64_t const more = std::min(std::max(size_, count) - left, run_.end - run_.begin);
        buffer_.resize(left + more);
        at_ = 0;
        Status read =
            file_->readWhole(run_.begin, buffer_.data() + left, static_cast<std::uint32_t>(more));
        run_.begin += more;
        return read;
    }

    RawFile* file_;
    Run run_;
    std::uint64_t size_;
    std::vector<std::uint8_t> buffer_;
    std::uint64_t at_ = 0;
    std::uint64_t length_ = 0;
};

ListSorter::ListSorter(PagedList::Compare const& compare, QString const& path,
                       std::uint32_t headerSize, std::uint32_t pageSize, std::uint64_t memorySize)
    : compare_(compare),
      path_(path),
      headerSize_(headerSize),
      pageSize_(pageSize),
      memorySize_(memorySize) {}

ListSorter::~ListSorter() {
    for (Output& output : outputs_)
        if (output.file && output.file->deleteOnClose())
            (void)output.file->close(); // a file of scratch; traced where it fails
}

Status ListSorter::start(Output& output, char const* suffix) {
    output.end = headerSize_;
    output.buffer.clear();
    if (output.file)
        return output.file->setLength(headerSize_);
    output.file = RawFile::make();
    Status made = output.file->create(path_ + QLatin1String(suffix), RawFile::Mode::ReadWrite);
    if (!made)
        output.file.reset();
    return made;
}

Status ListSorter::append(Output& output, Extent const& framed) {
    output.buffer.insert(output.buffer.end(), framed.bytes(), framed.bytes() + framed.size);
    return output.buffer.size() < pageSize_ ? Status() : flush(output);
}

Status ListSorter::flush(Output& output) {
    auto const size = static_cast<std::uint32_t>(output.buffer.size());
    MORVA_TRY(output.file->writeAt(output.end, output.buffer.data(), size));
    output.end += size;
    output.buffer.clear();
    return {};
}

Status ListSorter::add(Extent const& record) {
    std::uint64_t const needed = frameSize + std::uint64_t{record.size} + sizeof(std::uint64_t);
    std::uint64_t const held = records_.size() + offsets_.size() * sizeof(std::uint64_t);
    if (!offsets_.empty() && held + needed > memorySize_)
        MORVA_TRY(writeRun());
    std::uint64_t const at = records_.size();
    records_.resize(at + frameSize + record.size);
    offsets_.push_back(at);
    storeLittle(records_.data() + at, record.size);
    if (record.size != 0)
        std::memcpy(records_.data() + at + frameSize, record.data, record.size);
    return {};
}

Status ListSorter::writeRun() {
    Output& output = outputs_[0];
    if (!output.file)
        MORVA_TRY(start(output, ".sort0"));
    sortOffsets(compare_, records_, offsets_);
    std::uint64_t const begin = output.end;
    for (std::uint64_t offset : offsets_) {
        std::uint8_t const* at = records_.data() + offset;
        MORVA_TRY(
            append(output, Extent(static_cast<void const*>(at), frameSize + recordAt(at).size)));
    }
    MORVA_TRY(flush(output));
    runs_.push_back({begin, output.end});
    records_.clear();
    offsets_.clear();
    return {};
}

Result<std::unique_ptr<RawFile>> ListSorter::finish() {
    MORVA_TRY(writeRun());
    std::vector<std::uint8_t>().swap(records_);
    std::size_t from = 0;
    while (runs_.size() > 1) {
        Output& target = outputs_[1 - from];
        MORVA_TRY(start(target, from == 0 ? ".sort1" : ".sort0"));
        MORVA_TRY(mergePass(outputs_[from], target));
        from = 1 - from;
    }
    return std::move(outputs_[from].file);
}

Status ListSorter::mergePass(Output& from, Output& to) {
    std::uint64_t const readers =
        std::clamp<std::uint64_t>(memorySize_ / readerSize, 2, mostReaders);
    std::vector<Run> merged;
    for (std::size_t first = 0; first < runs_.size(); first += readers) {
        auto const last = std::min<std::size_t>(first + readers, runs_.size());
        std::uint64_t const begin = to.end;
        MORVA_TRY(merge(*from.file, {runs_.begin() + first, runs_.begin() + last}, to));
        MORVA_TRY(flush(to));
        merged.push_back({begin, to.end});
    }
    runs_ = std::move(merged);
    return {};
}

Status ListSorter::merge(RawFile& from, std::vector<Run> const& runs, Output& to) {
    std::vector<Reader> readers;
    std::vector<std::size_t> heap;
    for (Run const& run : runs)
        readers.emplace_back(from, run,
                             std::min(readerSize, memorySize_ / runs.size() + frameSize));
    auto const behind = [&](std::size_t a, std::size_t b) {
        auto const order = compare_(readers[a].record(), readers[b].record());
        return order == PagedList::CompareResult::Greater ||
               (order == PagedList::CompareResult::Equal && a > b);
    };
    for (std::size_t i = 0; i < readers.size(); ++i) {
        MORVA_TRY_LET(bool const more, readers[i].next());
        if (more)
            heap.push_back(i);
    }
    std::ranges::make_heap(heap, behind);
    while (!heap.empty()) {
        std::ranges::pop_heap(heap, behind);
        Reader& reader = readers[heap.back()];
        MORVA_TRY(append(to, reader.framed()));
        MORVA_TRY_LET(bool const more, reader.next());
        if (more)
            std::ranges::push_heap(heap, behind);
        else
            heap.pop_back();
    }
    return {};
}

} // namespace Morva
