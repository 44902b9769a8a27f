#include "peers/source/WindowsLogger.h"

namespace Replication {

namespace {

/// Access and change time, which stores have no use for.
constexpr std::uint32_t otherTimes = 0x08 | 0x40;
constexpr std::uint32_t allAttributes =
    otherTimes | winAttrModificationTime | winAttrChangeTime | winAttrAttributes;

} // namespace

bool WindowsLogger::create(WindowsCreate const& values, std::uint32_t& fileId) {
    fileId = newFileId();
    auto const disposition = static_cast<std::uint32_t>(values.disposition);
    begin(LogType::WinCreate)
        .flags(values.directory ? std::uint32_t{logFlagDirectory} : 0)
        .shc(fileId)
        .number(LogField::FileId, fileId)
        .path(LogField::File, values.path)
        .number(LogField::OriginalTime, values.created)
        .number(LogField::Exists, values.exists ? 1 : 0)
        .bytes(LogField::Security, values.security)
        .number(LogField::Disposition, disposition)
        .number(LogField::Attributes, values.attributes)
        .number(LogField::Options, disposition << winDispositionShift | values.options)
        .bytes(LogField::User, values.user);
    return put();
}

bool WindowsLogger::truncate(std::uint32_t fileId, LogPath const& path, std::uint64_t size) {
    begin(LogType::WinTruncate)
        .number(LogField::FileId, fileId)
        .path(LogField::File, path)
        .number(LogField::Size, size);
    return put();
}

bool WindowsLogger::setAttr(std::uint32_t fileId, WindowsAttrValues const& values) {
    begin(LogType::WinSetAttr)
        .number(LogField::FileId, fileId)
        .number(LogField::Mode, values.mode)
        .number(LogField::AccessTime, values.accessTime)
        .number(LogField::ModificationTime, values.modificationTime)
        .number(LogField::ChangeTime, values.creationTime)
        .number(LogField::WindowsChangeTime, values.changeTime)
        .number(LogField::WindowsAttributes, values.attributes)
        .number(LogField::Flags, allAttributes);
    return put();
}

bool WindowsLogger::link(std::uint32_t fileId, LogPath const& path) {
    begin(LogType::WinLink).number(LogField::FileId, fileId).path(LogField::To, path);
    return put();
}

bool WindowsLogger::symlink(std::uint32_t fileId, LogPath const& target,
                            Morva::Extent const& data) {
    begin(LogType::WinSymlink)
        .number(LogField::FileId, fileId)
        .path(LogField::To, target)
        .bytes(LogField::Data, data);
    return put();
}

} // namespace Replication
