#pragma once

#include "base/trace/TracedLock.h"
#include "base/values/PackBuffer.h"
#include "replication/common/values/FileHandle.h"
#include "replication/common/values/Ids.h"
#include "replication/common/values/RepMetadata.h"
#include "replication/repository/store/EventChannel.h"
#include "replication/repository/store/Version.h"

#include <QString>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace Replication {

/// One event in unpacked form, with the codec of its record: a header of 96 bytes, little-endian,
/// then the variable data of its type, aligned as by `PackBuffer` from the record's start.
///
///  off  size  field
///    0     4  type           one flag, below
///    4     4  replay id
///    8     8  sequence       one more than that of the store's event before
///   16    32  object handle  `FileHandle`; a link id of 1 is written as 0
///   48    32  second handle  previous version or directory; all zero for none
///   80     4  first value
///   84     4  count          rules that follow
///   88     4  second value   a time, seconds since 1970, or 0
///   92     4  reserved       zero
///
///  type                  object handle   second       at 80       variable data
///  1 Version             Raw, node,link  Raw, before  rule set    rules; path; user; process;
///                                                                 metadata of kind 1
///  128 VersionResync     as 1
///  1024 VersionWeak      as 1
///  2 Snapshot            Snapshot, inst                rule set   rules; policy u32; op id u32;
///                                                                 need-resync bool; source time
///                                                                 u32; instance u32
///  2048 UserSnapshot     Snapshot, inst                op id      need-resync bool; source time
///                                                                 u32; instance u32; label
///  8192 ResyncSnapshot   Snapshot, inst                op id      source time u32; instance u32
///  4 New                 Raw, file,link  directory     0          name
///  8 Copy                as 4            as 4          0          a handle of the source directory
///                                                                 (32 bytes), if there is one
///  16 Delete             as 4            as 4          0          none
///  32 Rename             as 4            as 4          0          new name
///  64 SnapshotDeduped    Snapshot, inst                0          none
///  4096 DeleteStore      Raw, store                    0          none
///  16384 DeleteSnapshot  Snapshot, inst                0          none
///
/// In New, Copy, Delete and Rename the object handle's id is the file id, and the second handle is
/// of kind FileIdOnly. A path is its elements joined by "/".
struct EventRecord {
    enum Type : std::uint32_t {
        VersionEnded = 1,
        SnapshotTaken = 2,
        New = 4,
        Copy = 8,
        Delete = 16,
        Rename = 32,
        SnapshotDeduped = 64,
        VersionResync = 128,
        VersionWeak = 1024,
        UserSnapshot = 2048,
        DeleteStore = 4096,
        ResyncSnapshot = 8192,
        DeleteSnapshot = 16384
    };
    static constexpr std::uint32_t headerSize = 96;

    std::uint32_t type = 0;
    ReplayId replayId;
    std::uint64_t sequence = 0;
    FileHandle object;
    FileHandle second;
    std::uint32_t first = 0;
    std::uint32_t time = 0; ///< the second value
    std::vector<std::uint32_t> rules;

    // Variable data, by type.
    QString path, user, process;  ///< versions
    RepMetadata metadata;         ///< versions
    std::uint32_t policy = 0;     ///< Snapshot
    std::uint32_t opId = 0;       ///< Snapshot
    bool needResync = false;      ///< Snapshot, UserSnapshot
    std::uint32_t sourceTime = 0; ///< the three kinds of snapshot
    Instance instance;            ///< the three kinds of snapshot
    QString text;                 ///< New and Rename: the name; UserSnapshot: the label
    FileHandle source;            ///< Copy; kind Invalid: none

    /// Replaces what the buffer holds; the record is its `extentWithoutSize()`.
    void encode(Morva::PackBuffer& buffer) const;
    /// Nothing for an unknown type, a record cut short, or one with more rules than bytes.
    [[nodiscard]] static std::optional<EventRecord> decode(Morva::Extent const& record);

    bool operator==(EventRecord const&) const = default;
};

/// Tells the metadata store of one store's changes; numbers them in one sequence.
///
/// Each operation packs one event and hands it to the channel. False when the channel didn't take
/// it; the number is used up all the same, so that the receiver sees the gap, and the caller goes
/// on. Without a channel every operation is false.
///
/// Thread-safe: a sink's thread, the dedup thread and the requests of a manager share one object.
class Event {
public:
    /// Numbers from (opening - 1) * 2^32 + 1 on, where `opening` is the control block's sequence.
    Event(std::shared_ptr<EventChannel> channel, StoreId store, ReplayId replay,
          std::uint32_t filterType, std::uint32_t opening);

    /// A version has ended. With `inResync` a version whose resync flag is set goes out as
    /// VersionResync; else one with the weak flag as VersionWeak; else as Version.
    bool version(Version const& version, RepMetadata const& metadata, bool inResync);
    bool snapshot(Instance instance, std::uint32_t ruleSet, std::uint32_t policy,
                  std::uint32_t opId, bool needResync, std::uint32_t sourceTime);
    bool userSnapshot(Instance instance, std::uint32_t opId, bool needResync,
                      std::uint32_t sourceTime, QString const& label);
    bool resyncSnapshot(Instance instance, std::uint32_t opId, std::uint32_t sourceTime);
    bool snapshotDeduped(Instance instance);
    bool deleteSnapshot(Instance instance);
    /// `replay` and `store` stand for themselves, since the manager tells of stores it can't open.
    bool deleteStore(ReplayId replay, StoreId store);

    /// A new name in the search index.
    bool created(FileId file, LinkId link, FileId directory, QString const& name,
                 std::uint32_t time);
    /// The file has a new version ("Copy"). `directory` and `source` may be 0.
    bool changed(FileId file, LinkId link, FileId directory, FileId source, std::uint32_t time);
    /// The file leaves the search index. `directory` may be 0.
    bool removed(FileId file, LinkId link, FileId directory, std::uint32_t time);
    bool renamed(FileId file, LinkId link, FileId directory, QString const& newName,
                 std::uint32_t time);

    /// The number of the last event, 0 before the first of a new store.
    [[nodiscard]] std::uint64_t sequence() const;

private:
    [[nodiscard]] EventRecord record(EventRecord::Type type) const;
    [[nodiscard]] EventRecord ofSnapshot(EventRecord::Type type, Instance instance) const;
    [[nodiscard]] EventRecord ofFile(EventRecord::Type type, FileId file, LinkId link,
                                     FileId directory, std::uint32_t time) const;
    bool send(EventRecord& event, char const* word);

    std::shared_ptr<EventChannel> channel_;
    StoreId store_;
    ReplayId replay_;
    std::uint32_t filterType_;
    mutable Morva::TracedMutex lock_{{"Lock Event", "Unlock Event"}};
    std::uint64_t sequence_ MORVA_GUARDED_BY(lock_);
    Morva::PackBuffer buffer_ MORVA_GUARDED_BY(lock_);
};

} // namespace Replication
