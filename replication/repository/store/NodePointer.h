#pragma once

#include "base/trace/TracedLock.h"
#include "base/values/LittleEndian.h"
#include "base/values/Status.h"
#include "replication/common/values/Ids.h"

#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace Morva {
class Blocks;
}

namespace Replication {

/// View of an entry of the pointer file, little-endian, 32 bytes. 128 fill a block of 4096.
///
///  off  size  field       meaning
///    0     4  generation  must equal the id's high half, else the id is stale
///    4     4  instance    instance in which this version was entered
///    8     8  node        block number in "files"; 0 in a free entry
///   16     8  previous    id of the next older version's entry, 0 = none; free: the next free one
///   24     8  next        id of the next newer version's entry, 0 = this is the head; free: the
///                         previous free one
///
/// Slot 0 of the first block is the control entry: its `previous` is the head of the free list,
/// the rest is zero. Slot 1 is the root's entry. Slots 2 to 127 of that block are never used.
class PointerEntry {
public:
    static constexpr std::uint32_t size = 32;
    static constexpr std::uint32_t perBlock = 128;
    static constexpr std::uint32_t slotBits = 7;

    explicit PointerEntry(void* bytes = nullptr) : bytes_(static_cast<std::uint8_t*>(bytes)) {}
    [[nodiscard]] explicit operator bool() const { return bytes_ != nullptr; }

    [[nodiscard]] std::uint32_t generation() const {
        return Morva::loadLittle<std::uint32_t>(bytes_);
    }
    void generation(std::uint32_t value) { Morva::storeLittle(bytes_, value); }
    [[nodiscard]] Instance instance() const {
        return Instance{Morva::loadLittle<std::uint32_t>(bytes_ + 4)};
    }
    void instance(Instance value) { Morva::storeLittle(bytes_ + 4, value.value); }
    [[nodiscard]] NodeNumber node() const {
        return NodeNumber{Morva::loadLittle<std::uint64_t>(bytes_ + 8)};
    }
    void node(NodeNumber value) { Morva::storeLittle(bytes_ + 8, value.value); }
    [[nodiscard]] FileId previous() const {
        return FileId{Morva::loadLittle<std::uint64_t>(bytes_ + 16)};
    }
    void previous(FileId value) { Morva::storeLittle(bytes_ + 16, value.value); }
    [[nodiscard]] FileId next() const {
        return FileId{Morva::loadLittle<std::uint64_t>(bytes_ + 24)};
    }
    void next(FileId value) { Morva::storeLittle(bytes_ + 24, value.value); }

private:
    std::uint8_t* bytes_;
};

/// The map from a file's stable id to the nodes of all its versions, in one block file. Each id has
/// a chain of entries, newest first; instances fall along it. The head entry is what the id points
/// at; an older version's entry has an id of its own that nothing outside the chain uses.
///
/// A stale id is no failure: it yields 0, false or nothing, and so does an id outside the file. A
/// block that can't be read is one, and nothing has changed then. Chains are followed as long as
/// instances fall and generations match, so that a damaged file can't keep a walk running.
///
/// Thread-safe: one lock covers each operation whole.
class NodePointer {
public:
    /// `entries`: how many entries the cache is to hold.
    explicit NodePointer(std::uint32_t entries);
    ~NodePointer();
    NodePointer(NodePointer const&) = delete;
    NodePointer& operator=(NodePointer const&) = delete;

    /// The file is `path` + ".blocks".
    [[nodiscard]] Morva::Status create(QString const& path);
    [[nodiscard]] Morva::Status open(QString const& path);
    Morva::Status close();
    /// Writes what has changed; with `sync` it is on the disk itself afterwards.
    [[nodiscard]] Morva::Status flush(bool sync = true);
    [[nodiscard]] bool valid() const { return valid_; }

    [[nodiscard]] FileId rootId() const;
    void setRoot(NodeNumber node, Instance instance);
    /// A new id with one version.
    [[nodiscard]] Morva::Result<FileId> newId(NodeNumber node, Instance instance);
    /// The current node, or 0.
    [[nodiscard]] Morva::Result<NodeNumber> getNode(FileId id) const;
    /// The instance in which the current version was entered, or 0.
    [[nodiscard]] Morva::Result<Instance> currentInstance(FileId id) const;
    /// Enters a new version and returns the instance of the one before. In the instance of the
    /// current version that one's node is replaced, and its own instance returned. 0, and nothing
    /// changed, for a stale id.
    [[nodiscard]] Morva::Result<Instance> newInstance(FileId id, NodeNumber node,
                                                      Instance instance);
    /// The node of the newest version entered before `instance`, or 0.
    [[nodiscard]] Morva::Result<NodeNumber> getInstance(FileId id, Instance instance) const;
    struct Version {
        NodeNumber node;
        bool current = false; ///< nothing newer has been entered
    };
    /// The version entered in exactly this instance, if there is one.
    [[nodiscard]] Morva::Result<std::optional<Version>> findInstance(FileId id,
                                                                     Instance instance) const;
    /// Frees an id without older versions; true if it was there to be freed.
    [[nodiscard]] Morva::Result<bool> freeId(FileId id);
    /// Frees the version entered in exactly this instance and gives its node, or 0 when there is
    /// none. The id stays valid while other versions are left.
    [[nodiscard]] Morva::Result<NodeNumber> freeInstance(FileId id, Instance instance);
    /// As above; whether there was one. If not, `lastInstance` is that of the newest older version,
    /// if any.
    [[nodiscard]] Morva::Result<bool> freeInstance(FileId id, Instance instance,
                                                   Instance& lastInstance);
    /// Every version's instance, oldest first; none for a stale id.
    [[nodiscard]] Morva::Result<std::vector<Instance>> instanceList(FileId id) const;

    [[nodiscard]] std::uint64_t hits() const;
    [[nodiscard]] std::uint64_t misses() const;
    [[nodiscard]] std::uint32_t size() const;

    /// One entry as it stands in the file, for checks. `id` bears the stored generation.
    struct Entry {
        FileId id;
        Instance instance;
        NodeNumber node;
        FileId previous;
        FileId next;
    };
    /// Hands out the root's entry and every entry of all further blocks, free ones too, in the
    /// order of the file, until the visitor returns false. The first failure of those blocks that
    /// could not be read; the walk goes on with the next. The visitor is called without the lock.
    [[nodiscard]] Morva::Status walk(std::function<bool(Entry const&)> const& visit) const;
    /// The ids of the free list from its head. Corruption when the list is damaged (an id out of
    /// range or stale, an entry in use, a cycle); `list` has what came before.
    [[nodiscard]] Morva::Status freeList(std::vector<FileId>& list) const;

private:
    class Pin;

    // An empty pin: there is no such entry.
    [[nodiscard]] Morva::Result<Pin> get(FileId id) const;
    [[nodiscard]] Morva::Result<Pin> getUsed(FileId id) const;
    [[nodiscard]] Morva::Result<Pin> older(PointerEntry entry) const;
    /// The newest entry of a chain whose instance isn't above this one.
    [[nodiscard]] Morva::Result<Pin> newestUpTo(FileId id, Instance instance) const;
    [[nodiscard]] FileId freeHead() const;
    [[nodiscard]] Morva::Status setControl();
    [[nodiscard]] Morva::Status getControl();
    [[nodiscard]] Morva::Status extend();
    void setFreeHead(FileId id);
    /// The head of the free list, taken out and cleared; its generation stays.
    [[nodiscard]] Morva::Result<Pin> takeFree();
    /// `next` is the free list's head so far, if any.
    void putFree(Pin& entry, Pin& next);
    /// Frees one entry of a chain, or fails with nothing changed.
    [[nodiscard]] Morva::Status release(Pin& entry);
    [[nodiscard]] Morva::Result<NodeNumber> freeVersion(FileId id, Instance instance,
                                                        Instance& lastInstance);
    [[nodiscard]] Morva::Status failed(char const* operation) const;

    bool valid_ = false;
    mutable Morva::TracedMutex lock_;
    void* control_ MORVA_GUARDED_BY(lock_) = nullptr;
    std::unique_ptr<Morva::Blocks> blocks_ MORVA_GUARDED_BY(lock_);
    QString path_;
};

} // namespace Replication
