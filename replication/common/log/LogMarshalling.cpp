#include "replication/common/log/LogMarshalling.h"

#include "replication/common/log/LogFrame.h"

#include <array>
#include <cstddef>

namespace Replication {

namespace {

constexpr LogValue u32(LogField field, char const* format) {
    return {field, LogKind::U32, LogPrint::Number, format};
}
constexpr LogValue u32(LogField field) {
    return {field, LogKind::U32};
}
constexpr LogValue u64(LogField field, char const* format) {
    return {field, LogKind::U64, LogPrint::Number, format};
}
constexpr LogValue str(LogField field, char const* format) {
    return {field, LogKind::Text, LogPrint::Text, format};
}
constexpr LogValue buf(LogField field) {
    return {field, LogKind::Bytes};
}

using F = LogField;

constexpr LogValue fileId = u32(F::FileId, " FILEID:%u");
constexpr LogValue file = str(F::File, " FILE:'%s'");
constexpr LogValue from = str(F::From, " FROM:'%s'");
constexpr LogValue to = str(F::To, " TO:'%s'");
constexpr LogValue mode = u32(F::Mode, " MODE:%06o");
constexpr LogValue uid = u32(F::Uid, " UID:%03u");
constexpr LogValue gid = u32(F::Gid, " GID::%03d");
constexpr LogValue offset = u64(F::Offset, " OFFSET:%llu");
constexpr LogValue length = u64(F::Length, " LEN:%llu");
constexpr LogValue size = u64(F::Size, " SIZE:%llu");
constexpr LogValue data = buf(F::Data);
constexpr LogValue eaName = str(F::EaName, " EANAME'%s'");
constexpr LogValue flags = u32(F::Flags, " FLAGS:0x%04x");
constexpr LogValue hiddenFlags = u32(F::Flags);
constexpr LogValue accessTime = u32(F::AccessTime, " ATIME:%u");
constexpr LogValue modificationTime = u32(F::ModificationTime, " MTIME:%u");
constexpr LogValue changeTime = u32(F::ChangeTime, " CTIME:%u");
constexpr LogValue exactTimes{F::ExactTimes, LogKind::Bytes, LogPrint::Times, " TIMES:%s", true};
constexpr LogValue targetRules = u32(F::TargetRuleCount);
constexpr LogValue secondName = str(F::SecondName, " (%s)");
constexpr LogValue info = u32(F::Info, " INFO:0x%x");
constexpr LogValue controlCode = u32(F::ControlCode, " CTLCODE:0x%x");
constexpr LogValue security{F::Security, LogKind::Bytes, LogPrint::SecurityDescriptor, " SEC:'%s'"};
constexpr LogValue user{F::User, LogKind::Bytes, LogPrint::Sid, " USER:'%s'"};
constexpr LogValue sque = str(F::Sque, " SQUE:'%s'");
constexpr LogValue objectPath = str(F::ObjectPath, " PATH:'%s'");
constexpr LogValue stream = str(F::Stream, " STREAM:'%s'");

// The members of a Windows path value, in their order.
constexpr LogValue caseSensitive = u32(F::CaseSensitive);
constexpr LogValue filenameOffset = u32(F::FilenameOffset);
constexpr LogValue streamOffset = u32(F::StreamOffset);
constexpr LogValue casePreserved{F::CasePreserved, LogKind::Text};
constexpr LogValue casePreservedStreamOffset = u32(F::CasePreservedStreamOffset);
#define PATH_VALUE(text)                                                                           \
    caseSensitive, text, filenameOffset, streamOffset, casePreserved, casePreservedStreamOffset

constexpr LogValue headerValues[] = {u32(F::VersionMajor, " VERSION:%u"),
                                     u32(F::VersionMinor, ".%u"), str(F::Text, " '%s'")};
constexpr LogValue messageValues[] = {u32(F::MessageType, " TYPE:%u"), u32(F::Level, " LEVEL:%u"),
                                      str(F::Message, " MSG:'%s'"), data};
constexpr LogValue policyEventValues[] = {
    u32(F::Rule, " RULE:%u"),      u32(F::OperationId, " OPID:%u"), str(F::Policy, " POLICY:'%s'"),
    str(F::Operation, " OP:'%s'"), str(F::Trigger, " TRIG:'%s'"),   str(F::Tag, " TAG:'%s'")};
constexpr LogValue fileIdOnly[] = {fileId};
constexpr LogValue readValues[] = {fileId, offset, length};
constexpr LogValue writeValues[] = {fileId, offset, length, data};
constexpr LogValue posixCreateValues[] = {fileId, file, mode, uid, gid, exactTimes};
constexpr LogValue posixOpenValues[] = {fileId, file, u32(F::RawTime, " RAWTIME:%u")};
constexpr LogValue posixMkdirValues[] = {file, mode, uid, gid, exactTimes};
constexpr LogValue posixMknodValues[] = {file,      mode, uid, gid, u64(F::Device, " DEV:0x%llx"),
                                         exactTimes};
constexpr LogValue posixRenameValues[] = {from, to, targetRules};
constexpr LogValue posixSymlinkValues[] = {from, to, uid, gid, exactTimes};
constexpr LogValue fileOnly[] = {file};
constexpr LogValue posixSetEaValues[] = {file, eaName, flags, data};
constexpr LogValue posixGetEaValues[] = {file, eaName, hiddenFlags, data};
constexpr LogValue posixRemoveEaValues[] = {file, eaName};
constexpr LogValue posixSetAttrValues[] = {
    file, mode, uid, gid, accessTime, modificationTime, changeTime, flags, exactTimes};
constexpr LogValue posixGetAttrValues[] = {file, flags};
constexpr LogValue posixLinkValues[] = {from, to};
constexpr LogValue posixWritePathValues[] = {file, offset, length, data};
constexpr LogValue posixTruncateValues[] = {fileId, file, size, flags};
constexpr LogValue posixResyncValues[] = {fileId, file};
constexpr LogValue winCreateValues[] = {fileId,
                                        PATH_VALUE(file),
                                        secondName,
                                        u32(F::OriginalTime, " ORIGTIME:%u"),
                                        u32(F::Exists, " EXISTS:%u"),
                                        security,
                                        u32(F::Disposition),
                                        u32(F::Attributes, " ATTR:0x%x"),
                                        u32(F::Options, " OPT:0x%x"),
                                        u32(F::Further),
                                        user,
                                        buf(F::Extra1),
                                        buf(F::Extra2),
                                        buf(F::Extra3)};
constexpr LogValue winRenameValues[] = {fileId, PATH_VALUE(to), secondName, targetRules};
constexpr LogValue winSymlinkValues[] = {
    fileId, PATH_VALUE(to), {F::Data, LogKind::Bytes, LogPrint::Number, " FSDATA:%u"}};
constexpr LogValue winSetEaValues[] = {fileId, flags, data};
constexpr LogValue winGetEaValues[] = {fileId, hiddenFlags, data};
constexpr LogValue winSetAttrValues[] = {fileId,
                                         mode,
                                         accessTime,
                                         modificationTime,
                                         changeTime,
                                         u32(F::WindowsChangeTime, " WCTIME:%u"),
                                         u32(F::WindowsAttributes, " WINATTRS:0x%x"),
                                         flags};
constexpr LogValue winGetAttrValues[] = {fileId, flags};
constexpr LogValue winLinkValues[] = {fileId, PATH_VALUE(to)};
constexpr LogValue winSetQuotaValues[] = {fileId, data};
constexpr LogValue winSetSecurityValues[] = {fileId, info, security, buf(F::Owner)};
constexpr LogValue winInfoValues[] = {fileId, info};
constexpr LogValue winSetVolumeInfoValues[] = {fileId, info, data};
constexpr LogValue winSetFsctlValues[] = {fileId, controlCode, data};
constexpr LogValue winGetFsctlValues[] = {fileId, controlCode};
constexpr LogValue winWritePathValues[] = {PATH_VALUE(file), offset, length, data};
constexpr LogValue winTruncateValues[] = {fileId, PATH_VALUE(file), size, flags};
constexpr LogValue winResyncValues[] = {fileId, PATH_VALUE(file), u32(F::Status, " STATUS:0x%x")};
constexpr LogValue winReopenValues[] = {
    fileId,           PATH_VALUE(file), u32(F::Disposition), u32(F::Attributes), u32(F::Options),
    u32(F::Reserved), buf(F::Extra1),   buf(F::Extra2),      buf(F::Extra3)};
constexpr LogValue winSetValidLengthValues[] = {fileId, size, flags};
constexpr LogValue exchangeCreateObjectValues[] = {sque, objectPath};
constexpr LogValue exchangeCreateStreamValues[] = {sque, stream};
constexpr LogValue exchangeWriteStreamValues[] = {
    sque, stream, {F::Offset, LogKind::U32, LogPrint::Number, " OFFSET:%u"}, data};
constexpr LogValue exchangeCloseObjectValues[] = {sque};
constexpr LogValue exchangeDeleteObjectValues[] = {objectPath};
#undef PATH_VALUE

using T = LogType;
constexpr LogShape shapes[] = {
    {T::Header, "HEADER", headerValues},
    {T::Message, "LOGMSG", messageValues},
    {T::PolicyEvent, "POLICYEVENT", policyEventValues},
    {T::Close, "CLOSE", fileIdOnly},
    {T::Read, "READ", readValues},
    {T::Write, "WRITE", writeValues},
    {T::PosixCreate, "POSIX CREATE", posixCreateValues},
    {T::PosixOpen, "POSIX OPEN", posixOpenValues},
    {T::PosixMkdir, "POSIX MKDIR", posixMkdirValues},
    {T::PosixMknod, "POSIX MKNOD", posixMknodValues},
    {T::PosixRename, "POSIX RENAME", posixRenameValues},
    {T::PosixSymlink, "POSIX SYMLINK", posixSymlinkValues},
    {T::PosixRmdir, "POSIX RMDIR", fileOnly},
    {T::PosixSetEa, "SETEA", posixSetEaValues},
    {T::PosixGetEa, "GETEA", posixGetEaValues},
    {T::PosixRemoveEa, "POSIX REMOVEEA", posixRemoveEaValues},
    {T::PosixSetAttr, "POSIX SETATTR", posixSetAttrValues},
    {T::PosixGetAttr, "POSIX GETATTR", posixGetAttrValues},
    {T::PosixLink, "LINK", posixLinkValues},
    {T::PosixUnlink, "POSIX UNLINK", fileOnly},
    {T::PosixWritePath, "POSIX WRITEPATH", posixWritePathValues},
    {T::PosixTruncate, "POSIX TRUNCATE", posixTruncateValues},
    {T::PosixResync, "POSIX RESYNC", posixResyncValues},
    {T::PosixReopen, "REOPEN", fileIdOnly},
    {T::WinCreate, "WIN CREATE", winCreateValues},
    {T::WinRename, "WIN RENAME", winRenameValues},
    {T::WinSymlink, "WIN SYMLINK", winSymlinkValues},
    {T::WinSetEa, "SETEA", winSetEaValues},
    {T::WinGetEa, "GETEA", winGetEaValues},
    {T::WinSetAttr, "WIN SETATTR", winSetAttrValues},
    {T::WinGetAttr, "WIN GETATTR", winGetAttrValues},
    {T::WinLink, "LINK", winLinkValues},
    {T::WinUnlink, "WIN UNLINK", fileIdOnly},
    {T::WinSetQuota, "WIN SETQUOTA", winSetQuotaValues},
    {T::WinGetQuota, "WIN GETQUOTA", fileIdOnly},
    {T::WinSetSecurity, "WIN SETSECURITY", winSetSecurityValues},
    {T::WinGetSecurity, "WIN GETSECURITY", winInfoValues},
    {T::WinSetVolumeInfo, "WIN SETVOLUMEINFO", winSetVolumeInfoValues},
    {T::WinGetVolumeInfo, "WIN GETVOLUMEINFO", winInfoValues},
    {T::WinSetFsctl, "WIN SETFSCTL", winSetFsctlValues},
    {T::WinGetFsctl, "WIN GETFSCTL", winGetFsctlValues},
    {T::WinWritePath, "WIN WRITEPATH", winWritePathValues},
    {T::WinTruncate, "WIN TRUNCATE", winTruncateValues},
    {T::WinResync, "WIN RESYNC", winResyncValues},
    {T::WinReopen, "WIN REOPEN", winReopenValues, false},
    {T::WinSetValidLength, "WIN SETVALIDLEN", winSetValidLengthValues},
    {T::ExchangeCreateObject, "EXCHANGEOBJECT", exchangeCreateObjectValues},
    {T::ExchangeCreateStream, "EXCHANGESTREAM", exchangeCreateStreamValues},
    {T::ExchangeWriteStream, "EXCHANGESTREAM", exchangeWriteStreamValues},
    {T::ExchangeCloseObject, "EXCHANGEOBJECT", exchangeCloseObjectValues},
    {T::ExchangeDeleteObject, "EXCHANGEOBJECT", exchangeDeleteObjectValues},
    {T::ExchangeDeleteObjectToo, "EXCHANGEOBJECT", exchangeDeleteObjectValues}};

constexpr std::size_t shapeCount = std::size(shapes);
constexpr std::size_t fieldCount = static_cast<std::size_t>(LogField::Count);
constexpr std::uint32_t largestType = static_cast<std::uint32_t>(shapes[shapeCount - 1].type);

// Index of a type's shape plus one; 0 for a type that isn't listed.
constexpr auto shapeIndex = [] {
    std::array<std::uint8_t, largestType + 1> index{};
    for (std::size_t i = 0; i < shapeCount; ++i)
        index[static_cast<std::uint32_t>(shapes[i].type)] = static_cast<std::uint8_t>(i + 1);
    return index;
}();

// Row 0 is that of an unlisted type.
constexpr auto slots = [] {
    std::array<std::array<LogSlot, fieldCount>, shapeCount + 1> rows{};
    // Said outright: g++ 12 leaves the members' own initial value out of nested arrays.
    for (auto& row : rows)
        row.fill(LogSlot{});
    for (std::size_t i = 0; i < shapeCount; ++i) {
        std::uint8_t numbers = 0;
        std::uint8_t wides = 0;
        std::uint8_t views = 0;
        for (LogValue const& value : shapes[i].values) {
            std::uint8_t& next = value.kind == LogKind::U32   ? numbers
                                 : value.kind == LogKind::U64 ? wides
                                                              : views;
            rows[i + 1][static_cast<std::size_t>(value.field)].code =
                static_cast<std::uint8_t>(static_cast<unsigned>(value.kind) << 4 | next++);
        }
    }
    return rows;
}();

constexpr bool everyShapeFitsTheFrame() {
    for (LogShape const& shape : shapes) {
        std::uint32_t counts[4] = {};
        for (LogValue const& value : shape.values)
            ++counts[static_cast<std::size_t>(value.kind)];
        if (counts[0] > LogFrame::numbersCount || counts[1] > LogFrame::widesCount ||
            counts[2] + counts[3] > LogFrame::viewsCount)
            return false;
    }
    return true;
}
constexpr bool onlyLastBytesAreOptional() {
    for (LogShape const& shape : shapes)
        for (LogValue const& value : shape.values)
            if (value.optional && (value.kind != LogKind::Bytes || &value != &shape.values.back()))
                return false;
    return true;
}
static_assert(onlyLastBytesAreOptional());
static_assert(everyShapeFitsTheFrame());
static_assert(!slots[0][0].present() && !slots.back().back().present());

std::uint8_t indexOf(std::uint32_t type) {
    return type <= largestType ? shapeIndex[type] : 0;
}

} // namespace

std::span<LogShape const> logShapes() {
    return shapes;
}

LogShape const* logShape(std::uint32_t type) {
    std::uint8_t const index = indexOf(type);
    return index ? &shapes[index - 1] : nullptr;
}

LogSlot logSlot(std::uint32_t type, LogField field) {
    return slots[indexOf(type)][static_cast<std::size_t>(field)];
}

} // namespace Replication
