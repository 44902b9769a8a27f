#pragma once

#include "base/files/FileSystem.h"
#include "base/values/Extent.h"
#include "base/values/Status.h"

#include <QString>

#include <cstdint>
#include <memory>

namespace Morva {

/// A file. Every file of the system is opened through the file system in force
/// (`FileSystem::inForce()`), so that a test can fail, tear or forget writes.
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

    /// A closed file of the file system in force.
    [[nodiscard]] static std::unique_ptr<RawFile> make() { return FileSystem::inForce().make(); }
    /// As `FileSystem::remove` and `rename` of the one in force.
    [[nodiscard]] static Status remove(QString const& name) {
        return FileSystem::inForce().remove(name);
    }
    [[nodiscard]] static Status rename(QString const& from, QString const& to) {
        return FileSystem::inForce().rename(from, to);
    }

    virtual ~RawFile() = default;

    /// Makes a new file, replacing one that is there, and opens it.
    [[nodiscard]] virtual Status create(QString const& name, Mode mode) = 0;
    /// Opens an existing file; `NotFound` when it is not there, and then none is made.
    [[nodiscard]] virtual Status open(QString const& name, Mode mode) = 0;
    /// Closes the file, whatever fails. Closing a closed file is harmless. Removes the file if
    /// `deleteOnClose` was called, which can fail.
    virtual Status close() = 0;

    /// Bytes read at the position, which moves on by them; a short count means the end of the file
    /// and nothing else.
    [[nodiscard]] virtual Result<std::uint32_t> read(void* buffer, std::uint32_t count) = 0;
    /// Writes all of it at the position, which moves on. What a failure leaves in these bytes is
    /// any mix of old and new, and the position stays.
    [[nodiscard]] virtual Status write(void const* buffer, std::uint32_t count) = 0;
    [[nodiscard]] Status write(Extent const& range) { return write(range.data, range.size); }
    [[nodiscard]] virtual Status setPosition(std::int64_t offset, Where from) = 0;
    [[nodiscard]] virtual std::int64_t position() const = 0;

    /// As `read` and `write`, at `offset`, and without touching the position. Thread-safe.
    [[nodiscard]] virtual Result<std::uint32_t> readAt(std::uint64_t offset, void* buffer,
                                                       std::uint32_t count) = 0;
    [[nodiscard]] virtual Status writeAt(std::uint64_t offset, void const* buffer,
                                         std::uint32_t count) = 0;
    /// As `readAt`, of bytes that must be there: a file that ends before is `Corruption`.
    [[nodiscard]] Status readWhole(std::uint64_t offset, void* buffer, std::uint32_t count);

    /// Sets the length. Growing reserves the space on the disk, so that a later write below the
    /// length can't fail for want of space; when it fails nothing has changed.
    [[nodiscard]] virtual Status setLength(std::uint64_t bytes) = 0;
    [[nodiscard]] virtual Result<std::uint64_t> length() const = 0;
    /// Begins to bring what was written to the disk, so that a later `sync` has less to wait for.
    virtual void startSync() {}
    /// Brings all that was written to the disk itself. What was written before a sync that failed
    /// may be lost even if a later one succeeds.
    [[nodiscard]] virtual Status sync() = 0;

    /// A second handle on the same file with a position of its own.
    [[nodiscard]] virtual Result<std::unique_ptr<RawFile>> threadFile(Mode mode) = 0;
    /// The file is removed when it is closed. False when it isn't open.
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
