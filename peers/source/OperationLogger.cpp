#include "peers/source/OperationLogger.h"

#include <utility>

namespace Replication {

OperationLogger::OperationLogger(LogSourceOptions options, LogSink& sink)
    : LogMaker(std::move(options), sink) {}

void OperationLogger::addTimes(FileTimes const& times) {
    if (!times.known())
        return;
    times.pack(packedTimes_);
    builder().bytes(LogField::ExactTimes,
                    {static_cast<void const*>(packedTimes_), sizeof packedTimes_});
}

bool OperationLogger::create(std::string_view path, std::uint32_t mode, std::uint32_t uid,
                             std::uint32_t gid, std::uint32_t& fileId, FileTimes const& times) {
    fileId = newFileId();
    begin(LogType::PosixCreate)
        .number(LogField::FileId, fileId)
        .text(LogField::File, path)
        .number(LogField::Mode, mode)
        .number(LogField::Uid, uid)
        .number(LogField::Gid, gid);
    addTimes(times);
    return put();
}

bool OperationLogger::open(std::string_view path, std::uint32_t& fileId) {
    fileId = newFileId();
    begin(LogType::PosixOpen)
        .number(LogField::FileId, fileId)
        .text(LogField::File, path)
        .number(LogField::RawTime, lastTime());
    return put();
}

bool OperationLogger::truncateOpen(std::uint32_t fileId, std::uint64_t size) {
    begin(LogType::PosixTruncate).number(LogField::FileId, fileId).number(LogField::Size, size);
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
                            std::uint32_t gid, FileTimes const& times) {
    begin(LogType::PosixMkdir)
        .text(LogField::File, path)
        .number(LogField::Mode, mode)
        .number(LogField::Uid, uid)
        .number(LogField::Gid, gid);
    addTimes(times);
    return put();
}

bool OperationLogger::mknod(std::string_view path, std::uint32_t mode, std::uint32_t uid,
                            std::uint32_t gid, std::uint64_t device, FileTimes const& times) {
    begin(LogType::PosixMknod)
        .text(LogField::File, path)
        .number(LogField::Mode, mode)
        .number(LogField::Uid, uid)
        .number(LogField::Gid, gid)
        .number(LogField::Device, device);
    addTimes(times);
    return put();
}

bool OperationLogger::symlink(std::string_view target, std::string_view path, std::uint32_t uid,
                              std::uint32_t gid, FileTimes const& times) {
    begin(LogType::PosixSymlink)
        .text(LogField::From, target)
        .text(LogField::To, path)
        .number(LogField::Uid, uid)
        .number(LogField::Gid, gid);
    addTimes(times);
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
        .number(LogField::TargetRuleCount, builder().ruleCount());
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
        .number(LogField::AccessTime, values.times.access.word())
        .number(LogField::ModificationTime, values.times.modification.word())
        .number(LogField::ChangeTime, values.times.change.word())
        .number(LogField::Flags, values.flags);
    addTimes(values.times);
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
