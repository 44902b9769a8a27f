#pragma once

#include "peers/source/LogMaker.h"
#include "replication/common/values/FileTime.h"

#include <cstdint>
#include <string_view>

namespace Replication {

/// The values of a POSIX attribute log; `flags` says which are meant (PosixAttrFlag).
struct PosixAttrValues {
    std::uint32_t flags = 0;
    std::uint32_t mode = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    FileTimes times = {};
};

/// Makes one log for each file operation of a POSIX source. Paths are the absolute
/// paths at the source, as bytes. A mode is the full st_mode, with the type. What makes an object
/// takes the times that the object will be given in the end by `setAttr`, where they are known
/// already: the store then keeps them at once, and `setAttr` need not write them.
///
/// Each operation is false when the sink has failed. Not thread-safe.
class OperationLogger : public LogMaker {
public:
    /// The sink must outlive the logger.
    OperationLogger(LogSourceOptions options, LogSink& sink);
    using LogMaker::beginWrite;
    using LogMaker::close;
    using LogMaker::endWrite;
    using LogMaker::write;

    /// Makes a file and opens it under a new number, which `write`, `truncateOpen` and `close`
    /// take.
    [[nodiscard]] bool create(std::string_view path, std::uint32_t mode, std::uint32_t uid,
                              std::uint32_t gid, std::uint32_t& fileId,
                              FileTimes const& times = {});
    [[nodiscard]] bool open(std::string_view path, std::uint32_t& fileId);
    [[nodiscard]] bool truncateOpen(std::uint32_t fileId, std::uint64_t size);

    [[nodiscard]] bool writePath(std::string_view path, std::uint64_t offset,
                                 Morva::Extent const& data);
    [[nodiscard]] bool truncate(std::string_view path, std::uint64_t size);
    [[nodiscard]] bool mkdir(std::string_view path, std::uint32_t mode, std::uint32_t uid,
                             std::uint32_t gid, FileTimes const& times = {});
    [[nodiscard]] bool mknod(std::string_view path, std::uint32_t mode, std::uint32_t uid,
                             std::uint32_t gid, std::uint64_t device, FileTimes const& times = {});
    [[nodiscard]] bool symlink(std::string_view target, std::string_view path, std::uint32_t uid,
                               std::uint32_t gid, FileTimes const& times = {});
    [[nodiscard]] bool link(std::string_view existing, std::string_view path);
    [[nodiscard]] bool rename(std::string_view from, std::string_view to);
    [[nodiscard]] bool unlink(std::string_view path);
    [[nodiscard]] bool rmdir(std::string_view path);
    [[nodiscard]] bool setAttr(std::string_view path, PosixAttrValues const& values);
    [[nodiscard]] bool setEa(std::string_view path, std::string_view name,
                             Morva::Extent const& value, std::uint32_t flags = 0);
    [[nodiscard]] bool removeEa(std::string_view path, std::string_view name);

private:
    /// Adds the exact times to the log that was begun; they stay here until the next.
    void addTimes(FileTimes const& times);

    std::uint8_t packedTimes_[FileTimes::packedSize] = {};
};

} // namespace Replication
