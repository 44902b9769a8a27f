#pragma once

#include "base/values/Extent.h"
#include "base/values/Status.h"
#include "replication/common/values/FileHandle.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/DirectoryScan.h"
#include "replication/repository/store/FileNode.h"

#include <QString>

#include <cstdint>
#include <memory>
#include <optional>

namespace Morva {
class PagedList;
class XmlList;
} // namespace Morva

namespace Replication {

class SnapshotNames;
class Store;

/// Results of operations on directories, as readers get them.
struct DirectoryStatus {
    static constexpr std::uint32_t ok = 0;
    static constexpr std::uint32_t notDirectory = 20;
    static constexpr std::uint32_t stale = 70;
    static constexpr std::uint32_t badHandle = 10001;
    static constexpr std::uint32_t badCookie = 10003;
    static constexpr std::uint32_t serverFault = 10006;
    static constexpr std::uint32_t handleExpired = 10014;
    static constexpr std::uint32_t badArguments = 10036;
};

/// What a name stands for.
struct DirectoryItem {
    FileId fileId;
    LinkId link;
    std::uint32_t type = 0;
    bool liveOnly = false;
};

/// Reads the directories of snapshots: pages of a directory's version, which never change. See
/// `DirectoryScan` for going through a directory's names.
///
/// Thread-safe. Looking up the names of a large directory one by one costs one scan, since the
/// places of the names of directories used last are kept in memory.
class SnapshotDirectories {
public:
    explicit SnapshotDirectories(Store& store);
    ~SnapshotDirectories();

    /// 0 if there is no such name, for instance 0 and one above the current one. liveOnly names
    /// are found too.
    [[nodiscard]] Morva::Result<FileId> findName(FileId directory, Instance instance,
                                                 QString const& name);
    /// As `findName`, with all that the entry says.
    [[nodiscard]] Morva::Result<std::optional<DirectoryItem>>
    findItem(FileId directory, Instance instance, QString const& name);
    /// The same in a version of a directory that the caller has.
    [[nodiscard]] Morva::Result<std::optional<DirectoryItem>>
    findItem(FileNode& node, FileId directory, Instance instance, QString const& name);

    /// `dirRead` by handle; sets "DirEOF" in the reply. A status.
    [[nodiscard]] std::uint32_t readDir(Morva::XmlList& reply, Morva::Extent& buffer,
                                        FileHandle const& directory, std::uint64_t cookie,
                                        std::uint32_t maximum, bool attributes, bool fileHandles);
    /// Packs entries from the cookie on into the buffer, which is cut to what was written. The
    /// cookie is the byte offset of an entry, 0 for the start. liveOnly names are left out. An
    /// entry, by `PackBuffer`:
    ///
    ///  cookie of the following entry  u64
    ///  type field                     u32
    ///  name                           string
    ///  handle, kind Passive           32 bytes, with `fileHandles`
    ///  description of kind 1          `RepMetadata`, with `attributes`; of kind 0 if it can't be
    ///  had zeros to a multiple of 8
    ///
    /// `eof` is false when something was left out: no space for the next entry, `maximum` entries
    /// (0: no limit), or a cookie that isn't an entry's offset. `directory` is for the reports
    /// alone. A status; `serverFault`, with what came before in the buffer, when a page is damaged
    /// or can't be read.
    [[nodiscard]] std::uint32_t dirRead(bool& eof, Morva::Extent& buffer, FileNode& node,
                                        Instance instance, std::uint64_t cookie,
                                        std::uint32_t maximum, bool attributes, bool fileHandles,
                                        FileId directory = {});
    /// Writes a `DirscanRecord` for every name, liveOnly ones too, and adds to `count`. Fails when
    /// the node is no directory, a page failed or the list didn't take a record.
    [[nodiscard]] Morva::Status dirscan(std::uint32_t& count, Morva::PagedList& list,
                                        FileNode& node, FileId directory, Instance instance);
    /// Whether all pages can be read and every entry is valid.
    [[nodiscard]] Morva::Status validDirectory(FileNode& node, FileId directory, Instance instance);

    /// The name of (`object`, `link`) in the directory `parent`. On success they are moved one up,
    /// to the next object to ask for: that directory in its own parent. A status.
    [[nodiscard]] std::uint32_t objectName(QString& name, FileId& parent, FileId& object,
                                           LinkId& link, Instance instance);
    /// The name that an object bears in a directory at a snapshot. A status.
    [[nodiscard]] std::uint32_t objectName(QString& name, FileHandle const& object,
                                           FileHandle const& directory, FileHandle const& snapshot);
    /// The path of a directory at a snapshot, joined with "/"; empty for the root. A status.
    [[nodiscard]] std::uint32_t directoryPath(QString& path, FileHandle const& snapshot,
                                              FileHandle const& object);
    /// See `parentOf`.
    [[nodiscard]] Morva::Result<FileId> parentId(FileNode& directory) const {
        return parentOf(directory);
    }
    /// Drops what is remembered.
    void forget();

private:
    [[nodiscard]] bool fits(FileHandle const& snapshot, FileHandle const& object) const;

    Store& store_;
    std::unique_ptr<SnapshotNames> names_;
};

/// Writes the record of one name to the list of a directory scan, little-endian:
///
///  off  size     field
///    0  4        type     low 16 bits of the entry's type
///    4  4        linkId   0 read as 1
///    8  8        fileId
///   16  2*n + 2  name     UTF-16 and a 0 terminator
struct DirscanRecord {
    std::uint32_t type = 0;
    LinkId link;
    FileId fileId;
    QString name;

    static constexpr std::uint32_t fixedSize = 18;
    /// False when the record is too short or its size is odd.
    [[nodiscard]] bool decode(Morva::Extent const& record);
    /// Writes the entry's record.
    [[nodiscard]] static Morva::Status write(Morva::PagedList& list, DirectoryEntry const& entry);
};

} // namespace Replication
