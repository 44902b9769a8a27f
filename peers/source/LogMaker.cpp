#include "peers/source/LogMaker.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Replication {

LogMaker::LogMaker(LogSourceOptions options, LogSink& sink)
    : sink_(sink),
      clock_(std::move(options.clock)),
      nextSequenceNumber_(options.firstSequenceNumber) {
    builder_.source(options.source);
    builder_.process(options.process);
    builder_.rules(options.rules);
    builder_.ruleSet(options.ruleSet);
}

std::uint32_t LogMaker::seconds(std::time_t time) {
    return static_cast<std::uint32_t>(
        std::clamp<std::int64_t>(time, 0, std::numeric_limits<std::uint32_t>::max()));
}

std::uint32_t LogMaker::now() {
    lastTime_ = std::max(lastTime_, clock_ ? clock_() : seconds(std::time(nullptr)));
    return lastTime_;
}

std::uint32_t LogMaker::newFileId() {
    if (++lastFileId_ == noFileId)
        lastFileId_ = 1;
    return lastFileId_;
}

LogBuilder& LogMaker::begin(LogType type) {
    return builder_.begin(type, nextSequenceNumber_).time(now());
}

bool LogMaker::put() {
    if (!sink_.put(builder_))
        return false;
    ++nextSequenceNumber_;
    return true;
}

bool LogMaker::message(std::uint32_t type, Morva::Extent const& data) {
    begin(LogType::Message).number(LogField::MessageType, type).bytes(LogField::Data, data);
    return put();
}

std::uint8_t* LogMaker::beginWrite(std::uint32_t fileId, std::uint64_t offset, std::uint32_t size) {
    begin(LogType::Write).number(LogField::FileId, fileId).number(LogField::Offset, offset);
    return sink_.dataSpace(builder_, size);
}

bool LogMaker::endWrite(std::uint8_t const* data, std::uint32_t count) {
    builder_.number(LogField::Length, count)
        .bytes(LogField::Data, {static_cast<void const*>(data), count});
    return put();
}

bool LogMaker::write(std::uint32_t fileId, std::uint64_t offset, Morva::Extent const& data) {
    begin(LogType::Write).number(LogField::FileId, fileId).number(LogField::Offset, offset);
    return endWrite(data.bytes(), data.size);
}

bool LogMaker::close(std::uint32_t fileId) {
    begin(LogType::Close).number(LogField::FileId, fileId);
    return put();
}

} // namespace Replication
