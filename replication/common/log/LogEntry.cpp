#include "replication/common/log/LogEntry.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "replication/common/log/LogBuilder.h"
#include "replication/common/log/LogHeader.h"

#include <QIODevice>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <new>

// A log's memory:
//
//   0    frame, 240 bytes
//   240  the rule ids once more, aligned
//   ...  the serialised body: stream table, fixed values, rules, process, variable values
//
// Nothing in it is moved after it was decoded, so the frame's views hold.

namespace Replication {

LogFrame const LogEntry::emptyFrame{};

namespace {

constexpr std::uint32_t wordSize = 4;
constexpr std::uint32_t frameSize = sizeof(LogFrame);
constexpr std::uint64_t smallestCapacity = 512;

using Morva::loadLittle;
using Morva::storeLittle;

/// Walks the streams of a serialised body whose lengths are known to add up to its size.
class StreamWalk {
public:
    explicit StreamWalk(std::uint8_t const* body)
        : table_(body), count_(loadLittle<std::uint32_t>(body)), at_(body + length(0)) {}

    [[nodiscard]] std::uint32_t count() const { return count_; }
    [[nodiscard]] std::uint32_t length(std::uint32_t stream) const {
        return loadLittle<std::uint32_t>(table_ + wordSize * (stream + 1));
    }
    void skip() { at_ += length(next_++); }
    /// The next stream's bytes; false when there is none left.
    [[nodiscard]] bool take(LogView& view) {
        if (next_ >= count_)
            return false;
        view.size = length(next_++);
        view.data = view.size ? at_ : nullptr;
        at_ += view.size;
        return true;
    }
    /// A string: its last byte is its only zero.
    [[nodiscard]] bool takeText(LogView& view) {
        if (!take(view) || view.size == 0)
            return false;
        --view.size;
        return std::memchr(view.data, 0, view.size + std::size_t{1}) == view.data + view.size;
    }

private:
    std::uint8_t const* table_;
    std::uint32_t count_;
    std::uint32_t next_ = 1;
    std::uint8_t const* at_;
};

void skipBytes(LogIoRead const& source, std::uint32_t count) {
    std::array<std::uint8_t, 4096> scratch;
    while (count) {
        std::uint32_t const piece = std::min<std::uint32_t>(count, scratch.size());
        if (!source.read(scratch.data(), piece))
            return;
        count -= piece;
    }
}

} // namespace

struct LogEntry::Table {
    std::uint32_t count = 0;
    std::uint32_t size = 0;
    /// The table as it stands in the body: the count and the lengths.
    std::array<std::uint8_t, LogLayout::tableSize(LogLayout::maximumStreams)> bytes;

    [[nodiscard]] std::uint32_t length(std::uint32_t stream) const {
        return stream < count ? loadLittle<std::uint32_t>(bytes.data() + wordSize * (stream + 1))
                              : 0;
    }
};

bool LogEntry::fail(std::uint32_t error, char const* text) {
    MORVA_TRACE(Always) << text << "error" << error;
    clear();
    error_ = error;
    return false;
}

void LogEntry::clear() {
    frame_ = &emptyFrame;
    body_ = nullptr;
    bodySize_ = 0;
    used_ = 0;
    error_ = 0;
    valuesRead_ = false;
}

void LogEntry::release() {
    clear();
    memory_.reset();
    capacity_ = 0;
}

void LogEntry::reserve(std::uint64_t size) {
    clear();
    if (size <= capacity_)
        return;
    memory_.reset();
    capacity_ = static_cast<std::uint32_t>(std::bit_ceil(std::max(size, smallestCapacity)));
    memory_ = std::make_unique_for_overwrite<std::uint8_t[]>(capacity_);
}

void LogEntry::place(std::uint32_t rulesSize, std::uint32_t bodySize) {
    body_ = memory_.get() + frameSize + rulesSize;
    bodySize_ = bodySize;
    used_ = frameSize + rulesSize + bodySize;
}

bool LogEntry::receive(LogIoRead const& source, LogHeader const& header, LogDecode mode) {
    return receive(source, header.bodySize(), mode);
}

bool LogEntry::receive(LogIoRead const& source, std::uint32_t bodySize, LogDecode mode) {
    MORVA_METHOD("receive");
    clear();
    Table table;
    std::uint32_t consumed = 0;
    if (!readTable(source, bodySize, table, consumed)) {
        // Sizes beyond the limit are not to be believed, so there is no end to skip to.
        if (consumed && bodySize <= LogLayout::maximumBodySize && bodySize > consumed)
            skipBytes(source, bodySize - consumed);
        return scope.result(false);
    }
    std::uint32_t const rulesSize = table.length(LogLayout::rulesStream);
    MORVA_TRACE(Debug) << "Deserialize header of" << frameSize + rulesSize + bodySize << "log";
    for (std::uint32_t i = 0; i < table.count; ++i)
        MORVA_TRACE(Debug) << table.length(i);
    reserve(std::uint64_t{frameSize} + rulesSize + bodySize);
    place(rulesSize, bodySize);
    std::memcpy(body_, table.bytes.data(), table.size);
    return scope.result(readStreams(source, table) && decode(mode));
}

bool LogEntry::readTable(LogIoRead const& source, std::uint32_t bodySize, Table& table,
                         std::uint32_t& consumed) {
    constexpr char const* failure = "Failed to deserialize header";
    // A body too short for its own count would be read into the header that follows it.
    if (bodySize < wordSize) {
        skipBytes(source, bodySize);
        return fail(1, failure);
    }
    if (!source.read(table.bytes.data(), wordSize))
        return fail(1, failure);
    consumed = wordSize;
    table.count = loadLittle<std::uint32_t>(table.bytes.data());
    if (table.count < LogLayout::minimumStreams || table.count > LogLayout::maximumStreams)
        return fail(2, failure);
    table.size = LogLayout::tableSize(table.count);
    if (bodySize < table.size)
        return fail(2, failure);
    if (!source.read(table.bytes.data() + wordSize, table.size - wordSize)) {
        consumed = 0;
        return fail(2, failure);
    }
    consumed = table.size;
    std::uint64_t sum = 0;
    for (std::uint32_t i = 0; i < table.count; ++i)
        sum += table.length(i);
    if (bodySize > LogLayout::maximumBodySize || sum != bodySize || table.length(0) != table.size ||
        table.length(LogLayout::fixedStream) > LogLayout::maximumFixedSize)
        return fail(3, failure);
    return true;
}

bool LogEntry::readStreams(LogIoRead const& source, Table const& table) {
    std::uint32_t got = 0;
    if (source.read(body_ + table.size, bodySize_ - table.size, got))
        return true;
    if (got < table.length(LogLayout::fixedStream))
        return fail(3, "Failed to deserialize header");
    std::uint32_t stream = LogLayout::fixedStream;
    std::uint64_t end = table.length(stream);
    while (end <= got && stream + 1 < table.count)
        end += table.length(++stream);
    return fail(stream + 5, "Failed to deserialize body");
}

bool LogEntry::decode(LogDecode mode) {
    if (!body_)
        return false;
    constexpr std::uint32_t damaged = 4;
    if (mode != LogDecode::BodyOnly) {
        auto* frame = new (memory_.get()) LogFrame;
        frame_ = frame;
        valuesRead_ = false;
        if (!decodeCommon(*frame))
            return fail(damaged, "Failed to deserialize body");
    } else if (frame_ == &emptyFrame) {
        return false;
    }
    if (mode == LogDecode::HeaderOnly)
        return true;
    if (!decodeValues(*std::launder(reinterpret_cast<LogFrame*>(memory_.get()))))
        return fail(damaged, "Failed to deserialize body");
    valuesRead_ = true;
    return true;
}

bool LogEntry::decodeCommon(LogFrame& frame) {
    StreamWalk streams(body_);
    LogView fixed;
    if (!streams.take(fixed) || fixed.size < LogLayout::commonSize)
        return false;
    frame.type = loadLittle<std::uint32_t>(fixed.data + LogLayout::typeAt);
    frame.flags = loadLittle<std::uint32_t>(fixed.data + LogLayout::flagsAt);
    frame.sequenceNumber = loadLittle<std::uint64_t>(fixed.data + LogLayout::sequenceNumberAt);
    frame.time = loadLittle<std::uint32_t>(fixed.data + LogLayout::timeAt);
    frame.ruleSet = loadLittle<std::uint32_t>(fixed.data + LogLayout::ruleSetAt);
    frame.shc = loadLittle<std::uint64_t>(fixed.data + LogLayout::shcAt);
    LogView rules;
    if (streams.take(rules)) {
        if (rules.size % wordSize != 0)
            return false;
        frame.ruleCount = rules.size / wordSize;
        if (rules.size)
            std::memcpy(memory_.get() + frameSize, rules.data, rules.size);
    }
    return streams.count() <= LogLayout::processStream || streams.takeText(frame.process);
}

bool LogEntry::decodeValues(LogFrame& frame) {
    LogShape const* const shape = logShape(frame.type);
    if (!shape)
        return true;
    StreamWalk streams(body_);
    LogView fixed;
    if (!streams.take(fixed))
        return false;
    for (std::uint32_t i = LogLayout::rulesStream; i < LogLayout::firstBodyStream; ++i)
        if (i < streams.count())
            streams.skip();
    std::uint8_t const* at = fixed.data + LogLayout::commonSize;
    std::uint8_t const* const end = fixed.data + fixed.size;
    std::uint32_t* number = frame.numbers;
    std::uint64_t* wide = frame.wides;
    LogView* view = frame.views;
    for (LogValue const& value : shape->values) {
        switch (value.kind) {
        case LogKind::U32:
            if (end - at < static_cast<std::ptrdiff_t>(sizeof(std::uint32_t)))
                return false;
            *number++ = loadLittle<std::uint32_t>(at);
            at += sizeof(std::uint32_t);
            break;
        case LogKind::U64:
            if (end - at < static_cast<std::ptrdiff_t>(sizeof(std::uint64_t)))
                return false;
            *wide++ = loadLittle<std::uint64_t>(at);
            at += sizeof(std::uint64_t);
            break;
        case LogKind::Text:
            if (!streams.takeText(*view++))
                return false;
            break;
        case LogKind::Bytes:
            if (!streams.take(*view++) && !value.optional)
                return false;
            break;
        }
    }
    if (!has(LogField::CasePreserved))
        return true;
    LogPath const windowsPath = path();
    return windowsPath.filenameOffset <= windowsPath.text.size() &&
           windowsPath.streamOffset <= windowsPath.text.size() &&
           windowsPath.casePreservedStreamOffset <= windowsPath.casePreserved.size();
}

std::uint64_t LogEntry::sizeOf(LogBuilder const& builder) {
    return frameSize + std::uint64_t{wordSize} * builder.ruleCount() + builder.bodySize();
}

std::uint8_t* LogEntry::dataSpace(LogBuilder const& builder, std::uint32_t size) {
    std::uint64_t const head = builder.bodySize() - builder.trailing().size;
    if (head + size > LogLayout::maximumBodySize)
        return nullptr;
    std::uint64_t const before = frameSize + wordSize * builder.ruleCount() + head;
    reserve(before + size);
    return memory_.get() + before;
}

bool LogEntry::build(LogBuilder const& builder) {
    std::uint64_t const size = builder.bodySize();
    if (size > LogLayout::maximumBodySize)
        return fail(3, "The log is too large,");
    std::uint32_t const rulesSize = wordSize * builder.ruleCount();
    Morva::Extent const trailing = builder.trailing();
    std::uint64_t const dataAt = frameSize + rulesSize + size - trailing.size;
    bool const inPlace = memory_ && trailing.size != 0 && trailing.data == memory_.get() + dataAt &&
                         dataAt + trailing.size <= capacity_;
    if (inPlace)
        clear();
    else
        reserve(std::uint64_t{frameSize} + rulesSize + size);
    place(rulesSize, static_cast<std::uint32_t>(size));
    std::uint8_t* const end = builder.writeHead(body_);
    if (!inPlace && trailing.size)
        std::memcpy(end, trailing.data, trailing.size);
    return decode(LogDecode::Whole);
}

bool LogEntry::addRules(std::span<std::uint32_t const> rules) {
    if (!body_ || frame_ == &emptyFrame)
        return false;
    StreamWalk const streams(body_);
    std::uint32_t const oldCount = streams.count();
    std::uint32_t const count = std::max(oldCount, LogLayout::rulesStream + 1);
    std::uint32_t const oldTable = streams.length(0);
    std::uint32_t const fixed = streams.length(LogLayout::fixedStream);
    std::uint32_t const oldRules = wordSize * frame_->ruleCount;
    std::uint64_t const newRules = oldRules + std::uint64_t{wordSize} * rules.size();
    std::uint32_t const newTable = LogLayout::tableSize(count);
    std::uint64_t const newBody =
        std::uint64_t{bodySize_} - oldTable - oldRules + newTable + newRules;
    if (newBody > LogLayout::maximumBodySize || newRules > LogLayout::maximumBodySize)
        return false;

    auto const newCapacity = static_cast<std::uint32_t>(frameSize + newRules + newBody);
    auto memory = std::make_unique_for_overwrite<std::uint8_t[]>(newCapacity);
    std::uint8_t* const body = memory.get() + frameSize + newRules;
    storeLittle(body, count);
    for (std::uint32_t i = 1; i < oldCount; ++i)
        storeLittle(body + wordSize * (i + 1), streams.length(i));
    storeLittle(body + wordSize, newTable);
    storeLittle(body + wordSize * (LogLayout::rulesStream + 1),
                static_cast<std::uint32_t>(newRules));
    std::uint8_t* at = body + newTable;
    std::memcpy(at, body_ + oldTable, fixed + oldRules);
    at += fixed + oldRules;
    if (!rules.empty())
        std::memcpy(at, rules.data(), rules.size_bytes());
    at += rules.size_bytes();
    std::uint32_t const rest = oldTable + fixed + oldRules;
    std::memcpy(at, body_ + rest, bodySize_ - rest);

    bool const wholeLog = valuesRead_;
    memory_ = std::move(memory);
    capacity_ = newCapacity;
    place(static_cast<std::uint32_t>(newRules), static_cast<std::uint32_t>(newBody));
    return decode(wholeLog ? LogDecode::Whole : LogDecode::HeaderOnly);
}

std::span<std::uint32_t const> LogEntry::rules() const {
    if (frame_->ruleCount == 0)
        return {};
    return {reinterpret_cast<std::uint32_t const*>(memory_.get() + frameSize), frame_->ruleCount};
}

std::uint32_t LogEntry::number(LogField field) const {
    LogSlot const at = slot(field);
    return at.is(LogKind::U32) ? frame_->numbers[at.index()] : 0;
}

std::uint64_t LogEntry::wide(LogField field) const {
    LogSlot const at = slot(field);
    return at.is(LogKind::U64) ? frame_->wides[at.index()] : number(field);
}

std::string_view LogEntry::text(LogField field) const {
    LogSlot const at = slot(field);
    return at.is(LogKind::Text) ? frame_->views[at.index()].text() : std::string_view();
}

Morva::Extent LogEntry::bytes(LogField field) const {
    LogSlot const at = slot(field);
    if (!at.is(LogKind::Bytes))
        return {};
    LogView const& view = frame_->views[at.index()];
    return {static_cast<void const*>(view.data), view.size};
}

LogPath LogEntry::path() const {
    LogPath path;
    path.caseSensitive = number(LogField::CaseSensitive) != 0;
    path.text = has(LogField::File) ? file() : to();
    path.filenameOffset = number(LogField::FilenameOffset);
    path.streamOffset = number(LogField::StreamOffset);
    path.casePreserved = text(LogField::CasePreserved);
    path.casePreservedStreamOffset = number(LogField::CasePreservedStreamOffset);
    return path;
}

std::string_view LogEntry::fileText() const {
    switch (type()) {
    case LogType::WinCreate:
    case LogType::WinReopen:
    case LogType::WinWritePath:
        return file();
    case LogType::WinRename:
    case LogType::PosixRename:
        return to();
    default:
        return {};
    }
}

void LogEntry::send(QByteArray& buffer) const {
    buffer.append(reinterpret_cast<char const*>(body_), bodySize_);
}

bool LogEntry::writeBody(QIODevice& file) const {
    if (file.write(reinterpret_cast<char const*>(body_), bodySize_) == bodySize_)
        return true;
    MORVA_TRACE(Always) << "Failed to write log to file" << file.errorString();
    return false;
}

bool LogEntry::writeBody(Morva::RawFile& file) const {
    if (file.write(body()))
        return true;
    MORVA_TRACE(Always) << "Failed to write log to file" << file.name() << file.lastError();
    return false;
}

namespace {

void describe(LogEntry const& log, LogHeader& header) {
    header.type(LogHeader::Log);
    header.ruleIds(log.rules().data(), static_cast<std::uint32_t>(log.rules().size()));
    header.sequenceNumber(log.sequenceNumber());
    header.bodySize(log.body().size);
}

} // namespace

bool LogEntry::write(QIODevice& file, LogHeader& header) const {
    describe(*this, header);
    return header.write(file) && writeBody(file);
}

bool LogEntry::write(Morva::RawFile& file, LogHeader& header) const {
    describe(*this, header);
    return header.write(file) && writeBody(file);
}

} // namespace Replication
