#pragma once

#include "peers/source/LogSink.h"
#include "replication/common/log/LogBuilder.h"

#include <QString>

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
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

/// What the makers of logs share: rising sequence numbers, times, open-file numbers, and the logs
/// that are the same whatever the file system. Each log is false when the sink has failed. Not
/// thread-safe.
class LogMaker {
public:
    /// The number that the next log will have.
    [[nodiscard]] std::uint64_t nextSequenceNumber() const { return nextSequenceNumber_; }
    [[nodiscard]] LogSink& sink() { return sink_; }

    /// What a source tells about itself: `type` is its sub-code, 9 for exclusions.
    [[nodiscard]] bool message(std::uint32_t type, Morva::Extent const& data);

    /// A file time in a log's 32 bits; what doesn't fit becomes the nearest that does.
    [[nodiscard]] static std::uint32_t seconds(std::time_t time);

protected:
    /// Stands for no open file; a store never enters it.
    static constexpr std::uint32_t noFileId = 0xFFFFFFFF;

    /// The sink must outlive the maker.
    LogMaker(LogSourceOptions options, LogSink& sink);
    ~LogMaker() = default;

    LogBuilder& begin(LogType type);
    [[nodiscard]] bool put();
    [[nodiscard]] std::uint32_t newFileId();
    /// The time of the log that was begun last.
    [[nodiscard]] std::uint32_t lastTime() const { return lastTime_; }
    [[nodiscard]] LogBuilder& builder() { return builder_; }

    [[nodiscard]] bool write(std::uint32_t fileId, std::uint64_t offset, Morva::Extent const& data);
    [[nodiscard]] bool close(std::uint32_t fileId);
    /// A write in two steps, which saves a copy: the place for up to `size` bytes, then how many
    /// of them are there. No other log may be made in between.
    [[nodiscard]] std::uint8_t* beginWrite(std::uint32_t fileId, std::uint64_t offset,
                                           std::uint32_t size);
    [[nodiscard]] bool endWrite(std::uint8_t const* data, std::uint32_t count);

private:
    [[nodiscard]] std::uint32_t now();

    LogSink& sink_;
    LogBuilder builder_;
    std::function<std::uint32_t()> clock_;
    std::uint64_t nextSequenceNumber_;
    std::uint32_t lastFileId_ = 0;
    std::uint32_t lastTime_ = 0;
};

} // namespace Replication
