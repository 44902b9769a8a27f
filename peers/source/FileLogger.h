#pragma once

#include "peers/source/OperationLogger.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

struct stat;

namespace Replication {

/// What became of a part of an object.
enum class LogOutcome {
    Done,
    Problem,   ///< something could not be read, and has been reported
    SinkFailed ///< the walk must end
};

/// Logs the contents and the extended attributes of one object after the other, for TreeLogger.
class FileLogger {
public:
    using Report = std::function<void(int error, std::string_view what)>;

    /// Reports name what could not be read of the object at hand.
    FileLogger(OperationLogger& logger, Report report)
        : logger_(logger), report_(std::move(report)) {}

    /// Logs what the file held when `status` was taken, holes left out. Cut to what was read when
    /// the file has become shorter or a part of it can't be read.
    [[nodiscard]] LogOutcome contents(int file, struct stat const& status, std::uint32_t fileId);
    /// Bytes of contents logged so far by all calls.
    [[nodiscard]] std::uint64_t bytes() const { return bytes_; }

    /// Logs the attributes of an open file or directory as those of `path`.
    [[nodiscard]] LogOutcome attributes(int file, std::string_view path);
    /// Those of an object that can't be opened, by its name in an open directory. A symbolic link
    /// is not followed.
    [[nodiscard]] LogOutcome attributes(int directory, char const* name, std::string_view path);

private:
    struct AttributeSource;

    [[nodiscard]] LogOutcome range(int file, std::uint32_t fileId, std::uint64_t& at,
                                   std::uint64_t end);
    [[nodiscard]] LogOutcome attributes(AttributeSource const& source, std::string_view path);
    void report(int error, std::string_view what) const { report_(error, what); }

    OperationLogger& logger_;
    Report report_;
    std::uint64_t bytes_ = 0;
    std::vector<char> names_;
    std::vector<std::string_view> sorted_;
    std::vector<char> value_;
};

} // namespace Replication
