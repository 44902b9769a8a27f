#pragma once

#include "base/values/Extent.h"

#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

namespace Morva {

/// The seam to the disk: every file of the system is opened through this class, whose maker can
/// be swapped (`RawFile::maker`), so that a test can fail, tear or forget writes.
///
/// A RawFile has one position for `read`, `write` and `setPosition`; the positioned calls
/// (`readAt`, `writeAt`) don't use it and may be called from several threads at once. All else is
/// not thread-safe.
class RawFile {
public:
    /// 2 is the normal read and write mode; 4 the same with the hint that access is random.
    /// 1 behaves as 2. 8 opens for reading alone, for those who must not change a file.
    enum class Mode : std::uint32_t { Create = 1, ReadWrite = 2, Random = 4, ReadOnly = 8 };
    enum class Where : std::uint32_t { Start = 1 };

    /// Makes a closed file.
    using Maker = std::function<std::unique_ptr<RawFile>()>;

    /// A closed file of the kind in force.
    [[nodiscard]] static std::unique_ptr<RawFile> make();
    /// Swaps the maker for all files made from now on; an empty function restores the real one.
    /// Not thread-safe: for the start of a test.
    static void maker(Maker newMaker);

    /// Stands between the system and its files while it is in force, as a journal does.
    class Guard {
    public:
        virtual ~Guard() = default;
        /// Takes a closed file that was just made, and gives the one to use instead.
        [[nodiscard]] virtual std::unique_ptr<RawFile> guarded(std::unique_ptr<RawFile> file) = 0;
        [[nodiscard]] virtual bool remove(QString const& name) = 0;
        [[nodiscard]] virtual bool rename(QString const& from, QString const& to) = 0;
    };
    /// Puts a guard in force for all files made from now on, or none. Not thread-safe.
    static void guard(Guard* newGuard);
    /// A closed file with no guard before it.
    [[nodiscard]] static std::unique_ptr<RawFile> makeUnguarded();

    /// Removes a file; false when it is not there or can't be removed.
    [[nodiscard]] static bool remove(QString const& name);
    /// Renames a file, replacing one that has the new name.
    [[nodiscard]] static bool rename(QString const& from, QString const& to);
    /// Brings the names in a directory to the disk itself.
    [[nodiscard]] static bool syncDirectory(QString const& path);

    virtual ~RawFile() = default;

    /// Makes a new file, replacing one that is there, and opens it.
    [[nodiscard]] virtual bool create(QString const& name, Mode mode) = 0;
    /// Opens an existing file; false when it is not there, and then none is made.
    [[nodiscard]] virtual bool open(QString const& name, Mode mode) = 0;
    /// Closing a closed file is harmless. Removes the file if `deleteOnClose` was called.
    virtual void close() = 0;

    /// Bytes read at the position; a short count means the end of the file or an error.
    [[nodiscard]] virtual std::uint32_t read(void* buffer, std::uint32_t count) = 0;
    /// Bytes written at the position; anything but `count` is an error.
    [[nodiscard]] virtual std::uint32_t write(void const* buffer, std::uint32_t count) = 0;
    [[nodiscard]] bool write(Extent const& range) {
        return write(range.data, range.size) == range.size;
    }
    [[nodiscard]] virtual bool setPosition(std::int64_t offset, Where from) = 0;
    [[nodiscard]] virtual std::int64_t position() const = 0;

    /// As `read` and `write`, at `offset`, and without touching the position. Thread-safe.
    [[nodiscard]] virtual std::uint32_t readAt(std::uint64_t offset, void* buffer,
                                               std::uint32_t count) = 0;
    [[nodiscard]] virtual std::uint32_t writeAt(std::uint64_t offset, void const* buffer,
                                                std::uint32_t count) = 0;

    /// Sets the length. Growing reserves the space on the disk, so that a later write below the
    /// length can't fail for want of space; false, and nothing changed, when there is none.
    [[nodiscard]] virtual bool setLength(std::uint64_t bytes) = 0;
    [[nodiscard]] virtual std::uint64_t length() const = 0;
    /// Begins to bring what was written to the disk, so that a later `sync` has less to wait for.
    virtual void startSync() {}
    /// Brings all that was written to the disk itself.
    [[nodiscard]] virtual bool sync() = 0;

    /// A second handle on the same file with a position of its own; null on failure.
    [[nodiscard]] virtual std::unique_ptr<RawFile> threadFile(Mode mode) = 0;
    /// The file is removed when it is closed.
    virtual bool deleteOnClose() = 0;
    /// errno of the last failure, 0 if there was none.
    [[nodiscard]] virtual std::uint32_t lastError() const = 0;
    [[nodiscard]] virtual QString const& name() const = 0;
    [[nodiscard]] virtual bool isOpen() const = 0;
    [[nodiscard]] explicit operator bool() const { return isOpen(); }

    /// The mount point of the volume that holds a path; empty if that can't be told.
    [[nodiscard]] static QString volume(QString const& path);

protected:
    RawFile() = default;
    RawFile(RawFile const&) = delete;
    RawFile& operator=(RawFile const&) = delete;
};

class TraceLine;
TraceLine& operator<<(TraceLine& line, RawFile::Mode mode);

} // namespace Morva
