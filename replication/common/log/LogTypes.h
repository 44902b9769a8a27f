#pragma once

#include <cstdint>

namespace Replication {

/// What a log tells: the first value of every log body. Any other number is carried too, as the
/// common part alone.
enum class LogType : std::uint32_t {
    Header = 2,
    Message = 3,
    PolicyEvent = 5,
    Close = 100,
    Read = 101,
    Write = 102,
    PosixCreate = 200,
    PosixOpen = 201,
    PosixMkdir = 202,
    PosixMknod = 203,
    PosixRename = 204,
    PosixSymlink = 205,
    PosixRmdir = 206,
    PosixSetEa = 207,
    PosixGetEa = 208,
    PosixRemoveEa = 209,
    PosixSetAttr = 210,
    PosixGetAttr = 211,
    PosixLink = 212,
    PosixUnlink = 213,
    PosixWritePath = 214,
    PosixTruncate = 215,
    PosixResync = 216,
    PosixReopen = 217,
    WinCreate = 300,
    WinRename = 301,
    WinSymlink = 302,
    WinSetEa = 303,
    WinGetEa = 304,
    WinSetAttr = 305,
    WinGetAttr = 306,
    WinLink = 307,
    WinUnlink = 308,
    WinSetQuota = 309,
    WinGetQuota = 310,
    WinSetSecurity = 311,
    WinGetSecurity = 312,
    WinSetVolumeInfo = 313,
    WinGetVolumeInfo = 314,
    WinSetFsctl = 315,
    WinGetFsctl = 316,
    WinWritePath = 317,
    WinTruncate = 318,
    WinResync = 319,
    WinReopen = 320,
    WinSetValidLength = 321,
    ExchangeCreateObject = 400,
    ExchangeCreateStream = 401,
    ExchangeWriteStream = 402,
    ExchangeCloseObject = 403,
    ExchangeDeleteObject = 404,
    ExchangeDeleteObjectToo = 405
};

/// Bits of the FLAGS of a PosixSetAttr log: which of its values are meant.
enum PosixAttrFlag : std::uint32_t {
    posixAttrMode = 0x01,
    posixAttrUid = 0x02,
    posixAttrGid = 0x04,
    posixAttrAccessTime = 0x08,
    posixAttrModificationTime = 0x10,
    posixAttrChangeTime = 0x20
};

/// Bits of a log's own flags, in its common part.
enum LogFlag : std::uint32_t {
    logFlagDirectory = 0x10 ///< of a Windows log with a path: it names a directory
};

/// The top byte of the OPT of a Windows create or reopen: what was asked of the file system.
enum class WinDisposition : std::uint32_t {
    Supersede = 0,
    Open = 1,
    Create = 2,
    OpenIf = 3,
    Overwrite = 4,
    OverwriteIf = 5
};
inline constexpr std::uint32_t winDispositionShift = 24;

/// Bits of the FLAGS of a WinSetAttr log: which of its values are meant.
enum WinAttrFlag : std::uint32_t {
    winAttrModificationTime = 0x10,
    winAttrChangeTime = 0x20,
    winAttrAttributes = 0x80
};

/// Bits of Windows file attributes ([MS-FSCC] 2.6) that the system itself looks at.
enum WinFileAttribute : std::uint32_t {
    winFileReadOnly = 0x01,
    winFileDirectory = 0x10,
    winFileNormal = 0x80
};

/// FSCTL_SET_ZERO_DATA ([MS-FSCC] 2.3.71), the one control code that changes a file's content. Its
/// data are two 64-bit offsets: the first byte to be zero, and the first behind the range.
inline constexpr std::uint32_t winSetZeroData = 0x980C8;

} // namespace Replication
