#pragma once

#include "peers/source/LogSink.h"
#include "replication/common/log/LogBuilder.h"

#include <QString>

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Replication {

/// What all logs of one source have in common.
struct LogSourceOptions {
    QString source;                   ///< name of the source machine
    std::string process = "morva";    ///< name of the process that did the operation
    std::vector<std::uint32_t> rules; ///< rule ids to which the logs apply
    std::uint32_t ruleSet = 0;
    std::uint64_t firstSequenceNumber = 1;
    /// The time of each log, seconds since the epoch; the system's clock when empty. What it
    /// gives is only let move forward.
    std::function<std::uint32_t()> clock;
};

/// The values of a POSIX attribute log; `flags` says which are meant (PosixAttrFlag).
struct PosixAttrValues {
    std::uint32_t flags = 0;
    std::uint32_t mode = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::uint32_t accessTime = 0;
    std::uint32_t modificationTime = 0;
    std::uint32_t changeTime = 0;
};

/// Makes one log for each file operation, with rising sequence numbers. Paths are the absolute
/// paths at the source, as bytes. A mode is the full st_mode, with the type.
///
/// Each operation is false when the sink has failed. Not thread-safe.
class OperationLogger {
public:
    /// The sink must outlive the logger.
    OperationLogger(LogSourceOptions options, LogSink& sink);

    /// Makes a file and opens it under a new number, which `write`, `truncateOpen` and `close`
    /// take.
    [[nodiscard]] bool create(std::string_view path, std::uint32_t mode, std::uint32_t uid,
                              std::uint32_t gid, std::uint32_t& fileId);
    [[nodiscard]] bool open(std::string_view path, std::uint32_t& fileId);
    [[nodiscard]] bool write(std::uint32_t fileId, std::uint64_t offset, Morva::Extent const& data);
    [[nodiscard]] bool truncateOpen(std::uint32_t fileId, std::uint64_t size);
    [[nodiscard]] bool close(std::uint32_t fileId);

    [[nodiscard]] bool writePath(std::string_view path, std::uint64_t offset,
                                 Morva::Extent const& data);
    [[nodiscard]] bool truncate(std::string_view path, std::uint64_t size);
    [[nodiscard]] bool mkdir(std::string_view path, std::uint32_t mode, std::uint32_t uid,
                             std::uint32_t gid);
    [[nodiscard]] bool mknod(std::string_view path, std::uint32_t mode, std::uint32_t uid,
                             std::uint32_t gid, std::uint64_t device);
    [[nodiscard]] bool symlink(std::string_view target, std::string_view path, std::uint32_t uid,
                               std::uint32_t gid);
    [[nodiscard]] bool link(std::string_view existing, std::string_view path);
    [[nodiscard]] bool rename(std::string_view from, std::string_view to);
    [[nodiscard]] bool unlink(std::string_view path);
    [[nodiscard]] bool rmdir(std::string_view path);
    [[nodiscard]] bool setAttr(std::string_view path, PosixAttrValues const& values);
    [[nodiscard]] bool setEa(std::string_view path, std::string_view name,
                             Morva::Extent const& value, std::uint32_t flags = 0);
    [[nodiscard]] bool removeEa(std::string_view path, std::string_view name);

    /// A write in two steps, which saves a copy: the place for up to `size` bytes, then how many
    /// of them are there. No other log may be made in between.
    [[nodiscard]] std::uint8_t* beginWrite(std::uint32_t fileId, std::uint64_t offset,
                                           std::uint32_t size);
    [[nodiscard]] bool endWrite(std::uint8_t const* data, std::uint32_t count);

    /// The number that the next log will have.
    [[nodiscard]] std::uint64_t nextSequenceNumber() const { return nextSequenceNumber_; }
    [[nodiscard]] LogSink& sink() { return sink_; }

    /// A file time in a log's 32 bits; what doesn't fit becomes the nearest that does.
    [[nodiscard]] static std::uint32_t seconds(std::time_t time);

private:
    LogBuilder& begin(LogType type);
    [[nodiscard]] bool put();
    [[nodiscard]] std::uint32_t newFileId();
    [[nodiscard]] std::uint32_t now();

    LogSink& sink_;
    LogBuilder builder_;
    std::function<std::uint32_t()> clock_;
    std::uint64_t nextSequenceNumber_;
    std::uint32_t lastFileId_ = 0;
    std::uint32_t lastTime_ = 0;
};

} // namespace Replication
