#include "peers/source/OperationLogger.h"

#include "base/trace/Trace.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Replication {

namespace {

/// Stands for no open file; a store never enters it.
constexpr std::uint32_t noFileId = std::numeric_limits<std::uint32_t>::max();

} // namespace

OperationLogger::OperationLogger(LogSourceOptions options, LogSink& sink)
    : sink_(sink),
      clock_(std::move(options.clock)),
      nextSequenceNumber_(options.firstSequenceNumber) {
    builder_.source(options.source);
    builder_.process(options.process);
    builder_.rules(options.rules);
    builder_.ruleSet(options.ruleSet);
}

std::uint32_t OperationLogger::seconds(std::time_t time) {
    return static_cast<std::uint32_t>(
        std::clamp<std::int64_t>(time, 0, std::numeric_limits<std::uint32_t>::max()));
}

std::uint32_t OperationLogger::now() {
    lastTime_ = std::max(lastTime_, clock_ ? clock_() : seconds(std::time(nullptr)));
    return lastTime_;
}

std::uint32_t OperationLogger::newFileId() {
    if (++lastFileId_ == noFileId)
        lastFileId_ = 1;
    return lastFileId_;
}

LogBuilder& OperationLogger::begin(LogType type) {
    return builder_.begin(type, nextSequenceNumber_).time(now());
}

bool OperationLogger::put() {
    if (!sink_.put(builder_))
        return false;
    ++nextSequenceNumber_;
    return true;
}

bool OperationLogger::create(std::string_view path, std::uint32_t mode, std::uint32_t uid,
                             std::uint32_t gid, std::uint32_t& fileId) {
    fileId = newFileId();
    begin(LogType::PosixCreate)
        .number(LogField::FileId, fileId)
        .text(LogField::File, path)
        .number(LogField::Mode, mode)
        .number(LogField::Uid, uid)
        .number(LogField::Gid, gid);
    return put();
}

bool OperationLogger::open(std::string_view path, std::uint32_t& fileId) {
    fileId = newFileId();
    begin(LogType::PosixOpen)
        .number(LogField::FileId, fileId)
        .text(LogField::File, path)
        .number(LogField::RawTime, lastTime_);
    return put();
}

std::uint8_t* OperationLogger::beginWrite(std::uint32_t fileId, std::uint64_t offset,
                                          std::uint32_t size) {
    begin(LogType::Write).number(LogField::FileId, fileId).number(LogField::Offset, offset);
    return sink_.dataSpace(builder_, size);
}

bool OperationLogger::endWrite(std::uint8_t const* data, std::uint32_t count) {
    builder_.number(LogField::Length, count)
        .bytes(LogField::Data, {static_cast<void const*>(data), count});
    return put();
}

bool OperationLogger::write(std::uint32_t fileId, std::uint64_t offset, Morva::Extent const& data) {
    begin(LogType::Write).number(LogField::FileId, fileId).number(LogField::Offset, offset);
    return endWrite(data.bytes(), data.size);
}

bool OperationLogger::truncateOpen(std::uint32_t fileId, std::uint64_t size) {
    begin(LogType::PosixTruncate).number(LogField::FileId, fileId).number(LogField::Size, size);
    return put();
}

bool OperationLogger::close(std::uint32_t fileId) {
    begin(LogType::Close).number(LogField::FileId, fileId);
    return put();
}

bool OperationLogger::writePath(std::string_view path, std::uint64_t offset,
                                Morva::Extent const& data) {
    begin(LogType::PosixWritePath)
        .text(LogField::File, path)
        .number(LogField::Offset, offset)
        .number(LogField::Length, data.size)
        .bytes(LogField::Data, data);
    return put();
}

bool OperationLogger::truncate(std::string_view path, std::uint64_t size) {
    begin(LogType::PosixTruncate)
        .number(LogField::FileId, noFileId)
        .text(LogField::File, path)
        .number(LogField::Size, size);
    return put();
}

bool OperationLogger::mkdir(std::string_view path, std::uint32_t mode, std::uint32_t uid,
                            std::uint32_t gid) {
    begin(LogType::PosixMkdir)
        .text(LogField::File, path)
        .number(LogField::Mode, mode)
        .number(LogField::Uid, uid)
        .number(LogField::Gid, gid);
    return put();
}

bool OperationLogger::mknod(std::string_view path, std::uint32_t mode, std::uint32_t uid,
                            std::uint32_t gid, std::uint64_t device) {
    begin(LogType::PosixMknod)
        .text(LogField::File, path)
        .number(LogField::Mode, mode)
        .number(LogField::Uid, uid)
        .number(LogField::Gid, gid)
        .number(LogField::Device, device);
    return put();
}

bool OperationLogger::symlink(std::string_view target, std::string_view path, std::uint32_t uid,
                              std::uint32_t gid) {
    begin(LogType::PosixSymlink)
        .text(LogField::From, target)
        .text(LogField::To, path)
        .number(LogField::Uid, uid)
        .number(LogField::Gid, gid);
    return put();
}

bool OperationLogger::link(std::string_view existing, std::string_view path) {
    begin(LogType::PosixLink).text(LogField::From, existing).text(LogField::To, path);
    return put();
}

bool OperationLogger::rename(std::string_view from, std::string_view to) {
    begin(LogType::PosixRename)
        .text(LogField::From, from)
        .text(LogField::To, to)
        .number(LogField::TargetRuleCount, builder_.ruleCount());
    return put();
}

bool OperationLogger::unlink(std::string_view path) {
    begin(LogType::PosixUnlink).text(LogField::File, path);
    return put();
}

bool OperationLogger::rmdir(std::string_view path) {
    begin(LogType::PosixRmdir).text(LogField::File, path);
    return put();
}

bool OperationLogger::setAttr(std::string_view path, PosixAttrValues const& values) {
    begin(LogType::PosixSetAttr)
        .text(LogField::File, path)
        .number(LogField::Mode, values.mode)
        .number(LogField::Uid, values.uid)
        .number(LogField::Gid, values.gid)
        .number(LogField::AccessTime, values.accessTime)
        .number(LogField::ModificationTime, values.modificationTime)
        .number(LogField::ChangeTime, values.changeTime)
        .number(LogField::Flags, values.flags);
    return put();
}

bool OperationLogger::setEa(std::string_view path, std::string_view name,
                            Morva::Extent const& value, std::uint32_t flags) {
    begin(LogType::PosixSetEa)
        .text(LogField::File, path)
        .text(LogField::EaName, name)
        .number(LogField::Flags, flags)
        .bytes(LogField::Data, value);
    return put();
}

bool OperationLogger::removeEa(std::string_view path, std::string_view name) {
    begin(LogType::PosixRemoveEa).text(LogField::File, path).text(LogField::EaName, name);
    return put();
}

} // namespace Replication
