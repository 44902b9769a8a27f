#include "replication/common/log/LogBuilder.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"

#include <cstring>

namespace Replication {

namespace {

constexpr std::uint32_t wordSize = 4;

using Morva::storeLittle;

bool isStream(LogValue const& value, LogView const& view) {
    return !value.optional || view.size != 0;
}

std::uint8_t* putBytes(std::uint8_t* at, void const* bytes, std::size_t count) {
    if (count)
        std::memcpy(at, bytes, count);
    return at + count;
}

} // namespace

void LogBuilder::rules(std::span<std::uint32_t const> ids) {
    rules_.assign(ids.begin(), ids.end());
    header_.ruleIds(rules_);
}

LogBuilder& LogBuilder::begin(LogType type, std::uint64_t sequenceNumber) {
    std::uint32_t const ruleSet = frame_.ruleSet;
    frame_ = LogFrame{};
    frame_.type = static_cast<std::uint32_t>(type);
    frame_.sequenceNumber = sequenceNumber;
    frame_.ruleSet = ruleSet;
    shape_ = logShape(frame_.type);
    return *this;
}

LogBuilder& LogBuilder::flags(std::uint32_t value) {
    frame_.flags = value;
    return *this;
}

LogBuilder& LogBuilder::time(std::uint32_t value) {
    frame_.time = value;
    return *this;
}

LogBuilder& LogBuilder::shc(std::uint64_t value) {
    frame_.shc = value;
    return *this;
}

LogSlot LogBuilder::slot(LogField field) const {
    LogSlot const at = logSlot(frame_.type, field);
    MORVA_CHECK(at.present(), "The log type has the field");
    return at;
}

LogBuilder& LogBuilder::number(LogField field, std::uint64_t value) {
    LogSlot const at = slot(field);
    if (at.is(LogKind::U32))
        frame_.numbers[at.index()] = static_cast<std::uint32_t>(value);
    else if (at.is(LogKind::U64))
        frame_.wides[at.index()] = value;
    return *this;
}

LogBuilder& LogBuilder::text(LogField field, std::string_view value) {
    LogSlot const at = slot(field);
    if (at.is(LogKind::Text))
        frame_.views[at.index()] = {reinterpret_cast<std::uint8_t const*>(value.data()),
                                    static_cast<std::uint32_t>(value.size())};
    return *this;
}

LogBuilder& LogBuilder::bytes(LogField field, Morva::Extent const& value) {
    LogSlot const at = slot(field);
    if (at.is(LogKind::Bytes))
        frame_.views[at.index()] = {value.bytes(), value.size};
    return *this;
}

LogBuilder& LogBuilder::path(LogField field, LogPath const& value) {
    return text(field, value.text)
        .number(LogField::CaseSensitive, value.caseSensitive ? 1 : 0)
        .number(LogField::FilenameOffset, value.filenameOffset)
        .number(LogField::StreamOffset, value.streamOffset)
        .text(LogField::CasePreserved, value.casePreserved)
        .number(LogField::CasePreservedStreamOffset, value.casePreservedStreamOffset);
}

bool LogBuilder::trailingIsBuffer() const {
    return shape_ && shape_->values.back().kind == LogKind::Bytes;
}

Morva::Extent LogBuilder::trailing() const {
    if (!trailingIsBuffer())
        return {};
    LogView const& view = frame_.views[slot(shape_->values.back().field).index()];
    return {static_cast<void const*>(view.data), view.size};
}

std::uint64_t LogBuilder::bodySize() const {
    std::uint32_t streams = LogLayout::firstBodyStream;
    std::uint64_t size = LogLayout::commonSize + wordSize * rules_.size() + process_.size() + 1;
    LogView const* view = frame_.views;
    if (shape_)
        for (LogValue const& value : shape_->values) {
            switch (value.kind) {
            case LogKind::U32:
                size += sizeof(std::uint32_t);
                break;
            case LogKind::U64:
                size += sizeof(std::uint64_t);
                break;
            case LogKind::Text:
                size += std::uint64_t{view++->size} + 1;
                ++streams;
                break;
            case LogKind::Bytes:
                streams += isStream(value, *view) ? 1 : 0;
                size += view++->size;
                break;
            }
        }
    return size + LogLayout::tableSize(streams);
}

std::uint8_t* LogBuilder::writeHead(std::uint8_t* destination) const {
    std::uint32_t streams = LogLayout::firstBodyStream;
    std::uint32_t fixed = LogLayout::commonSize;
    LogView const* view = frame_.views;
    if (shape_)
        for (LogValue const& value : shape_->values) {
            if (value.kind == LogKind::U32)
                fixed += sizeof(std::uint32_t);
            else if (value.kind == LogKind::U64)
                fixed += sizeof(std::uint64_t);
            else
                streams += isStream(value, *view++) ? 1 : 0;
        }
    std::uint8_t* length = destination;
    auto const putLength = [&length](std::uint32_t value) {
        storeLittle(length, value);
        length += wordSize;
    };
    putLength(streams);
    putLength(LogLayout::tableSize(streams));
    putLength(fixed);
    putLength(wordSize * ruleCount());
    putLength(static_cast<std::uint32_t>(process_.size()) + 1);

    std::uint8_t* number = destination + LogLayout::tableSize(streams);
    storeLittle(number + LogLayout::typeAt, frame_.type);
    storeLittle(number + LogLayout::flagsAt, frame_.flags);
    storeLittle(number + LogLayout::sequenceNumberAt, frame_.sequenceNumber);
    storeLittle(number + LogLayout::timeAt, frame_.time);
    storeLittle(number + LogLayout::ruleSetAt, frame_.ruleSet);
    storeLittle(number + LogLayout::shcAt, frame_.shc);
    std::uint8_t* at = number + fixed;
    number += LogLayout::commonSize;
    at = putBytes(at, rules_.data(), wordSize * rules_.size());
    at = putBytes(at, process_.c_str(), process_.size() + 1);
    if (!shape_)
        return at;

    std::uint32_t const* narrow = frame_.numbers;
    std::uint64_t const* wide = frame_.wides;
    view = frame_.views;
    LogValue const* const trailingBuffer = trailingIsBuffer() ? &shape_->values.back() : nullptr;
    for (LogValue const& value : shape_->values) {
        switch (value.kind) {
        case LogKind::U32:
            storeLittle(number, *narrow++);
            number += sizeof(std::uint32_t);
            break;
        case LogKind::U64:
            storeLittle(number, *wide++);
            number += sizeof(std::uint64_t);
            break;
        case LogKind::Text:
            putLength(view->size + 1);
            at = putBytes(at, view->data, view->size);
            *at++ = 0;
            ++view;
            break;
        case LogKind::Bytes:
            if (isStream(value, *view))
                putLength(view->size);
            if (&value != trailingBuffer)
                at = putBytes(at, view->data, view->size);
            ++view;
            break;
        }
    }
    return at;
}

LogExtents LogBuilder::encode() {
    std::uint64_t const size = bodySize();
    if (size > LogLayout::maximumBodySize) {
        MORVA_TRACE(Always) << "The log is too large," << size << "bytes";
        return {};
    }
    Morva::Extent const data = trailing();
    bool const separate = data.size >= separateSize;
    header_.sequenceNumber(frame_.sequenceNumber);
    header_.bodySize(static_cast<std::uint32_t>(size));
    Morva::Extent const header = header_.packed();
    std::size_t const headSize = header.size + size - (separate ? data.size : 0);
    if (head_.size() < headSize)
        head_.resize(headSize);
    std::uint8_t* const end = writeHead(putBytes(head_.data(), header.data, header.size));
    if (!separate)
        putBytes(end, data.data, data.size);
    return {Morva::Extent(head_.data(), static_cast<std::uint32_t>(headSize)),
            separate ? data : Morva::Extent()};
}

} // namespace Replication
