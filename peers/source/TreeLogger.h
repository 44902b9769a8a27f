#pragma once

#include "peers/source/OperationLogger.h"
#include "peers/source/TreeWriter.h"

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Replication {

/// What a walk has done so far. Other threads may read it while the walk goes on.
struct TreeCounts {
    std::atomic<std::uint64_t> directories{0};
    std::atomic<std::uint64_t> files{0}; ///< regular files, each once however many names it has
    std::atomic<std::uint64_t> links{0}; ///< further names of files
    std::atomic<std::uint64_t> symlinks{0};
    std::atomic<std::uint64_t> specials{0}; ///< devices, fifos, sockets
    std::atomic<std::uint64_t> bytes{0};    ///< of file contents logged, without holes
    std::atomic<std::uint64_t> logs{0};
    std::atomic<std::uint64_t> problems{0};  ///< what could not be read
    std::atomic<std::uint64_t> changed{0};   ///< of these, files that changed while they were read
    std::atomic<std::uint64_t> vanished{0};  ///< gone between their directory and themselves
    std::atomic<std::uint64_t> skipped{0};   ///< left out as asked for, or by the writer
    std::atomic<std::uint64_t> unchanged{0}; ///< of all these, not logged since they are known
};

struct TreeOptions {
    /// Absolute paths that are left out with all that is below them.
    std::vector<std::string> leaveOut;
    /// Called for everything that can't be read (path, errno or 0, what failed); the walk goes on.
    std::function<void(std::string_view path, int error, std::string_view what)> problem;
    /// Asked for everything but directories; what the target has already is counted, not logged.
    std::function<bool(std::string_view path, struct stat const& status)> unchanged;
    /// Asked between two objects; true ends the walk.
    std::function<bool()> stop;
    /// How often a file is logged that changes while it is read, unless it is larger than
    /// `repeatedSize`; the last time it is a problem.
    unsigned attempts = 1;
    static constexpr std::uint64_t repeatedSize = 64U << 20;
};

/// Walks a directory tree, or one file, and hands it to a writer in an order that builds it from
/// nothing: a directory before what is in it, a file's first name before its others.
///
/// Names are taken in the order of their bytes. File systems mounted below are walked too; symbolic
/// links are not followed. What has a path of PATH_MAX bytes or more is a problem, and left out. A
/// file is logged with its size at the time it was opened; one that shrinks while it is read is cut
/// to what was read. Writes hold at most 1 MiB and leave out holes. A file that got another size or
/// modification time while it was read may hold parts of two states, and is a problem. What is gone
/// when its turn comes was not there: no problem.
class TreeLogger {
public:
    enum class Result {
        Done,   ///< all that could be read was logged; see `problems`
        NoRoot, ///< the root itself can't be opened, `rootError` tells why
        SinkFailed,
        Stopped
    };

    /// The writer must outlive the walker.
    TreeLogger(TreeOptions options, TreeWriter& writer);
    /// As a POSIX source. The logger must outlive the walker.
    TreeLogger(TreeOptions options, OperationLogger& logger);
    ~TreeLogger();

    /// The logs bear `absolutePath(root)`. A symbolic link to a directory as root is followed.
    [[nodiscard]] Result run(std::string const& root);
    /// The path seen from the working directory, without ".", "..", and repeated or trailing
    /// separators; by text alone.
    [[nodiscard]] static std::string absolutePath(std::string_view path);

    [[nodiscard]] TreeCounts const& counts() const { return counts_; }
    [[nodiscard]] int rootError() const { return rootError_; }

private:
    class Walk;

    TreeOptions options_;
    std::unique_ptr<TreeWriter> posix_;
    TreeWriter& writer_;
    TreeCounts counts_;
    int rootError_ = 0;
};

} // namespace Replication
