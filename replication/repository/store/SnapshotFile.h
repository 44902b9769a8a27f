#pragma once

#include "base/files/BufferedFile.h"
#include "base/files/RawFile.h"
#include "base/trace/TracedLock.h"
#include "base/values/Status.h"
#include "replication/common/values/FileHandle.h"
#include "replication/common/values/Ids.h"

#include <QList>
#include <QPair>
#include <QString>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

namespace Morva {
class XmlList;
}

namespace Replication {

struct DedupStatistics;

enum class SnapshotType : std::uint32_t {
    Old = 0, ///< not taken yet, or of the old layout
    Initial = 1,
    Policy = 2,
    User = 3,
    Synchronization = 4,
    Validate = 5
};

enum class DedupState : std::uint32_t { None = 0, Pending = 1, Processing = 2, Deduplicated = 3 };

/// An ended version: `instance` is the one in which the version was entered in its file's chain.
///
///  off  size  field
///    0     4  reserved  zero
///    4     4  instance
///    8     8  file id
struct SnapshotEntry {
    static constexpr std::uint32_t packedSize = 16;
    Instance instance;
    FileId id;
    bool operator==(SnapshotEntry const&) const = default;
};

/// The one file of a snapshot: a header that says what the snapshot is, and behind it the list of
/// the versions that ended while it was the active one. Little-endian.
///
///  off  size  field               meaning
///    0     8  Length              carried through
///    8     4  Version             1; 0 in a file converted from the old layout
///   16    64  counters            the control block's at the moment of the snapshot:
///                                 DirectoryCount, FileCount and six more
///   80     8  (dedup, reserved)   carried through
///   88     8  DedupedStreams      cumulative over runs, as the three below
///   96     8  UniqueStreams
///  104     8  DedupedSize         bytes
///  112     8  UniqueSize          bytes
///  120     4  Type                SnapshotType
///  124     4  Generation          1
///  128     4  PreviousInstance
///  132     4  SourceTime          seconds since 1970 at the source
///  136     4  RepositoryTime      seconds since 1970 here
///  140     4  Policy
///  144     4  OpId
///  148     4  RuleSet
///  152     4  DedupState
///  156     1  Retire              retirement was requested
///  157     1  Retired             retirement was handed over
///  158     1  NeedResync
///  160     8  DedupOffset         where deduplication goes on in the dedup file
///  168     8  DeleteOffset        offset of the first entry: 4096, or 512 in a converted file;
///                                 behind those that a retirement has done with
///  176     8  LogicalSize         bytes, as counted by an analysis
///  184     4  LabelSize           UTF-16 units, at most 1023
///  188     1  Analyzed
///  189     1  MarkedForDeletion   the user asked for it
///  190     1  Indexed             the changes went to the metadata store
///  191     1  Linked              PreviousInstance follows the retirement of the one before, so
///                                 that a gap tells of a file that is missing
///  192     8  HandedOnLength      length of the file before this one, with the entries that the
///                                 retirement has handed on up to DeleteOffset; 0 before it began
///  200     4  HandedOnTo          instance of that file
///  320  2048  Label               UTF-16 units, not terminated
/// 4096  16*n  SnapshotEntry       to the end of the file; a torn last one doesn't count
///
/// Setters without another word change the copy in memory; `writeHeader` brings all that changed to
/// the file in one write. Thread-safe: the object's lock is held for one operation, a leaf.
///
/// A file that can't be read or has no sound header is *damaged*: `status` says why. It is looked
/// at again each time, so that a read that failed once does no lasting harm. What a getter gives of
/// a damaged file means nothing: whoever decides by one asks for `status` before.
class SnapshotFile {
public:
    using Counters = std::array<std::uint64_t, 8>;
    static constexpr std::uint32_t headerSize = 320;
    static constexpr std::uint32_t maximumLabel = 1023;

    /// Opens the file of an instance below `directory`, or makes it where there is none. One that
    /// is there and can't be opened stays as it is. On failure `instance()` is 0, and every
    /// operation fails.
    SnapshotFile(QString const& directory, Instance instance);
    /// For a look at a file that must not change: none is made and none is converted. Of the
    /// operations only those that read may be used.
    struct ReadOnly {};
    SnapshotFile(QString const& directory, Instance instance, ReadOnly);
    /// A file that is there. Nothing is opened before something is asked of it, and none is made.
    /// Keeps its instance whatever the file holds. `dedupFile`: there is a dedup file of the
    /// instance, with which DedupState is brought in line.
    struct Existing {
        bool dedupFile = false;
    };
    SnapshotFile(QString const& directory, Instance instance, Existing existing);
    /// A file that must not be there yet. `creation` tells whether it could be made.
    struct New {};
    SnapshotFile(QString const& directory, Instance instance, New);
    ~SnapshotFile();
    SnapshotFile(SnapshotFile const&) = delete;
    SnapshotFile& operator=(SnapshotFile const&) = delete;

    /// Success once the header has been read; reads it if that hasn't happened.
    [[nodiscard]] Morva::Status status() const;
    /// Why a new file could not be made, if it couldn't.
    [[nodiscard]] Morva::Status const& creation() const { return creation_; }
    /// This object has made the file; it can be there also when that didn't succeed.
    [[nodiscard]] bool made() const { return made_; }
    [[nodiscard]] QString const& path() const { return path_; }

    /// "snapshot" and the instance as ten decimal digits.
    [[nodiscard]] static QString fileName(Instance instance);
    /// The instance of such a name; 0 if it is none.
    [[nodiscard]] static Instance fromFileName(QString const& name);

    [[nodiscard]] Instance instance() const;
    [[nodiscard]] Instance previousInstance() const;
    [[nodiscard]] SnapshotType type() const;
    [[nodiscard]] bool retire() const;
    [[nodiscard]] bool retired() const;
    [[nodiscard]] bool needResync() const;
    [[nodiscard]] Counters counters() const;
    [[nodiscard]] DedupStatistics dedupStatistics() const;
    [[nodiscard]] DedupState dedupState() const;
    [[nodiscard]] std::uint64_t dedupOffset() const;
    [[nodiscard]] std::uint64_t deleteOffset() const;
    [[nodiscard]] std::uint64_t logicalSize() const;
    [[nodiscard]] std::uint64_t directoryCount() const;
    [[nodiscard]] std::uint64_t fileCount() const;
    [[nodiscard]] std::uint32_t sourceTime() const;
    [[nodiscard]] std::uint32_t repositoryTime() const;
    [[nodiscard]] std::uint32_t version() const;
    [[nodiscard]] std::uint32_t policy() const;
    [[nodiscard]] std::uint32_t opId() const;
    [[nodiscard]] std::uint32_t ruleSet() const;
    [[nodiscard]] QString label() const;
    [[nodiscard]] bool analyzed() const;
    [[nodiscard]] bool markedForDeletion() const;
    [[nodiscard]] bool indexed() const;
    [[nodiscard]] bool linked() const;
    /// How far a retirement has come in the file before this one.
    struct HandedOn {
        Instance to; ///< 0: nothing has been handed on yet
        std::uint64_t length = 0;
    };
    [[nodiscard]] HandedOn handedOn() const;

    void setPreviousInstance(Instance instance);
    void setDedupState(DedupState state);
    void setDedupOffset(std::uint64_t offset);
    void setDeleteOffset(std::uint64_t offset);
    void setLength(std::uint64_t length);
    void setCounters(Counters const& counters);
    void setDedupStatistics(DedupStatistics const& statistics);
    void setIndexed(bool value);
    void setHandedOn(HandedOn const& value);
    /// Cuts the text to 1023 units.
    void setLabel(QString const& text);
    void setType(SnapshotType type, bool needResync);
    void setPolicy(std::uint32_t policy, std::uint32_t opId, std::uint32_t ruleSet,
                   bool needResync);
    /// Makes a policy snapshot of a synchronization snapshot. False, and nothing changed, for any
    /// other type.
    [[nodiscard]] bool updateResyncSnapshot(std::uint32_t policy, std::uint32_t opId,
                                            std::uint32_t ruleSet, bool indexed,
                                            QString const& label);
    /// Requests retirement: LogicalSize and DirectoryCount become 0, Retire and Analyzed 1.
    void setRetire();
    /// As `setRetire`, and Retired becomes 1.
    void setRetired();
    /// Back to requested, when the retirement could not be carried out.
    void clearRetired();
    void setMarkedForDeletion(bool value);
    /// The first analysis stands: nothing changes when Analyzed is set already.
    void analyzed(std::uint64_t logicalSize, std::uint64_t directories, std::uint64_t files);
    /// The three values together, if the snapshot was analysed.
    [[nodiscard]] bool analysis(std::uint64_t& logicalSize, std::uint64_t& directories,
                                std::uint64_t& files) const;
    /// The snapshot is taken: counters, times, previous instance and the dedup state (Pending or
    /// None), and `writeHeader`.
    [[nodiscard]] Morva::Status snapshot(Counters const& counters, std::uint32_t sourceTime,
                                         Instance previous, bool dedup);
    /// Writes header and label to the file. When that fails all of it is again as it was last
    /// written or read.
    [[nodiscard]] Morva::Status writeHeader();

    /// Ready for `addEntry`, at the end of the file (a torn last entry is overwritten). `Busy` when
    /// the file is open in either way already.
    [[nodiscard]] Morva::Status openForAppend();
    /// Ready for `readEntry`, from the first entry.
    [[nodiscard]] Morva::Status openForRead();
    /// False when the file is open in neither way.
    bool close();
    /// On failure the list ends with the entry before. The file must be open for appending.
    [[nodiscard]] Morva::Status addEntry(FileId id, Instance instance);
    [[nodiscard]] Morva::Status addEntry(SnapshotEntry const& entry);
    /// Where the next entry goes, in a file open for appending.
    [[nodiscard]] std::uint64_t end() const;
    /// Takes back the entries from that offset on, in a file open for appending. Does nothing
    /// where the file isn't longer.
    [[nodiscard]] Morva::Status cut(std::uint64_t end);
    /// Nothing at the end of the list. The file must be open for reading.
    [[nodiscard]] Morva::Result<std::optional<SnapshotEntry>> readEntry();
    /// Offset of the next entry that `readEntry` gives.
    [[nodiscard]] std::uint64_t position() const;
    [[nodiscard]] Morva::Status rewind();
    /// Deletes the file; one that is gone already is a success.
    [[nodiscard]] Morva::Status remove();

    /// Adds the snapshot to a list under "SnapShotEntry". Nothing for an Initial or Validate
    /// snapshot, and for one that is to be retired. Of a damaged one there are "Id" and "Damaged",
    /// the reason. `root` is the handle of the store's root.
    void statistics(Morva::XmlList& list, FileHandle const& root) const;
    /// What the statistics of the process say of the snapshot besides its own figures.
    struct Origin {
        QString machine; ///< of the source
        QString store;
        QString instanceType;
        ReplayId replayId;
        FileHandle root; ///< handle of the store's root
    };
    using NamedLists = QList<QPair<QString, Morva::XmlList>>;
    /// Appends the snapshot as a list "Snapshot", likewise; nothing either when
    /// `from` or `to` (seconds at the source) isn't 0 and the snapshot lies outside of them.
    void statistics(NamedLists& lists, Origin const& origin, std::uint32_t from,
                    std::uint32_t to) const;
    /// Text of a type in the first form of `statistics`.
    [[nodiscard]] static QString typeText(SnapshotType type);

private:
    /// Initial and Validate snapshots and those that are to go aren't told of.
    [[nodiscard]] bool listed() const;
    /// In the second form if there is an origin.
    void addFigures(Morva::XmlList& entry, FileHandle root, Origin const* origin) const;
    /// "Damaged" instead of figures; false for a sound file.
    [[nodiscard]] bool addDamage(Morva::XmlList& entry, FileHandle root) const;
    static void addId(Morva::XmlList& entry, FileHandle root, Instance instance);
    [[nodiscard]] Morva::Status loadLocked() const MORVA_REQUIRES(lock_);
    [[nodiscard]] Morva::Status readHeader(Morva::RawFile& file) const MORVA_REQUIRES(lock_);
    void loadLabel(std::uint8_t const* bytes, std::uint32_t count) const MORVA_REQUIRES(lock_);
    [[nodiscard]] Morva::Status convert(Morva::RawFile& file) const MORVA_REQUIRES(lock_);
    void convertHeader() const MORVA_REQUIRES(lock_);
    void alignDedupState() const MORVA_REQUIRES(lock_);
    [[nodiscard]] Morva::Status makeFile() MORVA_REQUIRES(lock_);
    /// Success when the file is sound and open in neither way.
    [[nodiscard]] Morva::Status closed() const MORVA_REQUIRES(lock_);
    [[nodiscard]] Morva::Status notOpen() const;
    [[nodiscard]] std::uint64_t firstOffset() const MORVA_REQUIRES(lock_);
    template <class T> [[nodiscard]] T read(T (*get)(std::uint8_t const* header)) const;
    /// The header, for a change.
    [[nodiscard]] std::array<std::uint8_t, headerSize>& changing() MORVA_REQUIRES(lock_);
    void labelLocked(QString const& text) MORVA_REQUIRES(lock_);
    void policyLocked(std::uint32_t policy, std::uint32_t opId, std::uint32_t ruleSet)
        MORVA_REQUIRES(lock_);
    void retireLocked() MORVA_REQUIRES(lock_);
    [[nodiscard]] Morva::Status writeHeaderLocked() MORVA_REQUIRES(lock_);
    [[nodiscard]] Morva::Status writeImage() MORVA_REQUIRES(lock_);

    /// What `writeHeader` brings to the file.
    struct Contents {
        std::array<std::uint8_t, headerSize> header{};
        QString label;
    };

    mutable Morva::TracedMutex lock_{{"Lock SnapshotFile", "Unlock SnapshotFile"}};
    QString path_;
    bool readOnly_ = false;
    bool made_ = false;
    Morva::Status creation_;
    std::optional<bool> dedupFile_; ///< whether there is one, where that is known
    Instance instance_ MORVA_GUARDED_BY(lock_);
    mutable bool loaded_ MORVA_GUARDED_BY(lock_) = false;
    mutable Contents now_ MORVA_GUARDED_BY(lock_);
    mutable Contents kept_ MORVA_GUARDED_BY(lock_); ///< as in the file
    Morva::BufferedFile reader_ MORVA_GUARDED_BY(lock_);
    bool readFailed_ MORVA_GUARDED_BY(lock_) = false; ///< the last `readEntry`
    std::unique_ptr<Morva::RawFile> writer_ MORVA_GUARDED_BY(lock_);
    std::uint64_t appendOffset_ MORVA_GUARDED_BY(lock_) = 0;
};

} // namespace Replication
