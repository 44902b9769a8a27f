#pragma once

#include "base/values/Status.h"

#include <QString>
#include <QStringList>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace Morva {

class RawFile;

/// The seam to the disk: names and the making of files go through the one of these that is in
/// force, so that a journal can stand between, and a test can make any call fail.
///
/// From below: the disk (`disk()`, which a test may swap), and on it at most one layer (`layer()`,
/// a journal, or what is built on one), which uses the disk itself. `inForce()` is the layer if
/// there is one, else the disk.
///
/// Thread-safe but for swapping, which belongs to the start and the end of a program or a test.
/// Absent is what doesn't exist (ENOENT alone); a path that can't be looked at is a failure.
class FileSystem {
public:
    enum class Kind : std::uint8_t { File, Directory, Other };
    struct Information {
        Kind kind = Kind::Other;
        std::uint64_t length = 0;  ///< bytes
        std::int64_t modified = 0; ///< seconds since 1970
        std::uint32_t owner = 0;   ///< uid
    };
    struct Entry {
        QString name; ///< without its directory
        Kind kind = Kind::Other;
    };

    [[nodiscard]] static FileSystem& inForce();
    [[nodiscard]] static FileSystem& disk();
    /// Swaps the disk; null puts the real one back. Not owned.
    static void disk(FileSystem* other);
    /// Puts a layer on the disk; null removes it. Not owned.
    static void layer(FileSystem* other);

    virtual ~FileSystem() = default;

    /// Makes a closed file.
    [[nodiscard]] virtual std::unique_ptr<RawFile> make() = 0;
    /// What a name stands for, symbolic links not followed; nothing when it is absent.
    [[nodiscard]] virtual Result<std::optional<Information>> stat(QString const& name) = 0;
    /// All names in a directory, in the order of their characters. `NotFound` when it is absent.
    [[nodiscard]] virtual Result<std::vector<Entry>> list(QString const& directory) = 0;
    /// Makes a directory, and those above it. One that is there already is a success.
    [[nodiscard]] virtual Status makeDirectory(QString const& path) = 0;
    /// Removes an empty directory.
    [[nodiscard]] virtual Status removeDirectory(QString const& path) = 0;
    /// Renames a file, replacing one that has the new name.
    [[nodiscard]] virtual Status rename(QString const& from, QString const& to) = 0;
    /// Removes a file.
    [[nodiscard]] virtual Status remove(QString const& name) = 0;
    /// Brings the names in a directory to the disk itself.
    [[nodiscard]] virtual Status syncDirectory(QString const& path) = 0;

    /// By `stat`.
    [[nodiscard]] Result<bool> exists(QString const& name);
    /// The names of one kind, by `list`. An absent directory has none.
    [[nodiscard]] Result<QStringList> names(QString const& directory, Kind kind);
    /// As `remove`, and a file that is absent is a success.
    [[nodiscard]] Status removeIfThere(QString const& name);

protected:
    FileSystem() = default;
    FileSystem(FileSystem const&) = delete;
    FileSystem& operator=(FileSystem const&) = delete;
};

} // namespace Morva
