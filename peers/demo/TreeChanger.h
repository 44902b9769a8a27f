#pragma once

#include "peers/source/OperationLogger.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace Replication {

/// Changes a directory tree in all the ways that users do and logs each change as it makes it, as a
/// source's filter would. Which files are hit follows from the seed.
///
/// Throws std::system_error when a change fails.
class TreeChanger {
public:
    TreeChanger(std::filesystem::path root, OperationLogger& logger, std::uint64_t seed);

    /// Makes `rounds` changes of each kind.
    void run(int rounds);
    /// How many changes of each kind were made.
    [[nodiscard]] std::map<std::string, int> const& counts() const { return counts_; }

private:
    using Path = std::filesystem::path;

    void collect();
    [[nodiscard]] Path const& anyFile();
    [[nodiscard]] Path const& anyDirectory();
    [[nodiscard]] Path newName(char const* prefix);

    void write(Path const& file, std::uint64_t offset, std::string const& text);
    void append();
    void overwrite();
    void truncate();
    void create();
    void renameFile();
    void renameDirectory();
    void hardLink();
    void symlink();
    void remove();
    void removeDirectory();
    void changeMode();
    void changeTime();
    void changeAttribute();
    void logTimes(Path const& path);

    Path root_;
    OperationLogger& logger_;
    std::mt19937_64 random_;
    std::vector<Path> files_;
    std::vector<Path> directories_;
    int serial_ = 0;
    std::map<std::string, int> counts_;
};

} // namespace Replication
