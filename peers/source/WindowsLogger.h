#pragma once

#include "peers/source/LogMaker.h"
#include "replication/common/log/LogEntry.h"

#include <cstdint>

namespace Replication {

/// File attributes ([MS-FSCC] 2.6) besides those of `WinFileAttribute`.
enum WindowsAttribute : std::uint32_t {
    windowsHidden = 0x2,
    windowsArchive = 0x20,
    windowsSparse = 0x200,
    windowsReparsePoint = 0x400
};

/// Options of an open.
enum WindowsOption : std::uint32_t {
    windowsDirectoryFile = 0x1,
    windowsNonDirectoryFile = 0x40,
    windowsOpenReparsePoint = 0x200000
};

struct WindowsCreate {
    LogPath path;
    WinDisposition disposition = WinDisposition::Create;
    bool exists = false; ///< what is opened was there before
    bool directory = false;
    std::uint32_t attributes = 0;
    std::uint32_t options = 0; ///< WindowsOption
    std::uint32_t created = 0; ///< seconds since the epoch
    Morva::Extent security;    ///< a self-relative descriptor
    Morva::Extent user;        ///< the SID of the owner
};

/// The values of a Windows attribute log, all of them meant.
struct WindowsAttrValues {
    std::uint32_t mode = 0;
    std::uint32_t accessTime = 0;
    std::uint32_t modificationTime = 0;
    std::uint32_t creationTime = 0;
    std::uint32_t changeTime = 0;
    std::uint32_t attributes = 0;
};

/// Makes one log for each file operation of a Windows source. Most name the file by the number
/// under which it is open. Each is false when the sink has failed. Not thread-safe.
class WindowsLogger : public LogMaker {
public:
    /// The sink must outlive the logger.
    WindowsLogger(LogSourceOptions options, LogSink& sink) : LogMaker(std::move(options), sink) {}
    using LogMaker::beginWrite;
    using LogMaker::close;
    using LogMaker::endWrite;
    using LogMaker::write;

    /// Opens a file or stream, or makes it, under a new number.
    [[nodiscard]] bool create(WindowsCreate const& values, std::uint32_t& fileId);
    [[nodiscard]] bool truncate(std::uint32_t fileId, LogPath const& path, std::uint64_t size);
    [[nodiscard]] bool setAttr(std::uint32_t fileId, WindowsAttrValues const& values);
    /// A further name of an open file.
    [[nodiscard]] bool link(std::uint32_t fileId, LogPath const& path);
    /// Makes an open file a symbolic link; `data` is its reparse buffer.
    [[nodiscard]] bool symlink(std::uint32_t fileId, LogPath const& target,
                               Morva::Extent const& data);
};

} // namespace Replication
