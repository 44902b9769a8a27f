#pragma once

#include "base/trace/TracedLock.h"
#include "base/values/LittleEndian.h"
#include "base/values/Status.h"
#include "replication/common/values/Ids.h"

#include <QString>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>

namespace Replication {

/// The fields of a store's control block, the first block of "files": 1024 bytes, little-endian.
/// What is not listed is zero.
///
///  off  size  field                   meaning
///    0     4  Version                 format of this block; 3 is current
///    4     4  Instance                the current instance; 1 in a new store
///    8     4  ValidateInstance        instance of the live validate snapshot, 0 if none
///   12     4  DeleteValidateInstance  not 0: the validate snapshot goes with the next snapshot
///   16     4  LastInstance            the instance before Instance
///   20     4  DeleteLastInstance      not 0: the snapshot of LastInstance is to be retired
///   24     8  StoreId
///   32     4  ReplayId                id of the feeding data stream
///   36     4  Sequence                openings so far; the base of the event numbers
///   40     1  CaseSensitive           1: names compare case-sensitively
///   48     8  Directories             directories in the tree without the root
///   56     8  Files                   files in the tree
///   64     8  DirtyFiles              files with unsynchronised data
///   72    40  five more counters      copied to snapshots with the three above, as 64 bytes
///  112     4  FilterType              0 eFilterInvalid, 1 eFilterFilesystem, 2 eFilterExchange
///  116     4  Generation              zero; only printed
///  120     4  LastSequence            Sequence at the last orderly close
///  164     1  Active                  not 0: the rule set feeds this store
///  165     1  MarkedForDeletion       not 0: the store is to be erased
///  166     1  DeletionSent            not 0: the metadata store has been told so
///  167     1  OpenMark                not 0 while the store is open; left set by a crash
///  168     1  Batch                   not 0: batch store
///
/// A view over such bytes, which it doesn't own.
class ControlFields {
public:
    static constexpr std::uint32_t size = 1024;
    static constexpr std::uint32_t currentVersion = 3;
    using Counters = std::array<std::uint64_t, 8>;

    explicit ControlFields(std::uint8_t* bytes) : bytes_(bytes) {}

    [[nodiscard]] std::uint32_t version() const { return word(0); }
    void version(std::uint32_t value) { word(0, value); }
    [[nodiscard]] Instance instance() const { return Instance{word(4)}; }
    void instance(Instance value) { word(4, value.value); }
    [[nodiscard]] Instance validateInstance() const { return Instance{word(8)}; }
    void validateInstance(Instance value) { word(8, value.value); }
    [[nodiscard]] bool deleteValidateInstance() const { return word(12) != 0; }
    void deleteValidateInstance(bool value) { word(12, value); }
    [[nodiscard]] Instance lastInstance() const { return Instance{word(16)}; }
    void lastInstance(Instance value) { word(16, value.value); }
    [[nodiscard]] bool deleteLastInstance() const { return word(20) != 0; }
    void deleteLastInstance(bool value) { word(20, value); }
    [[nodiscard]] StoreId storeId() const { return StoreId{wide(24)}; }
    void storeId(StoreId value) { wide(24, value.value); }
    [[nodiscard]] ReplayId replayId() const { return ReplayId{word(32)}; }
    void replayId(ReplayId value) { word(32, value.value); }
    [[nodiscard]] std::uint32_t sequence() const { return word(36); }
    void sequence(std::uint32_t value) { word(36, value); }
    [[nodiscard]] bool caseSensitive() const { return bytes_[40] == 1; }
    void caseSensitive(bool value) { bytes_[40] = value; }
    [[nodiscard]] std::uint64_t directories() const { return wide(48); }
    void directories(std::uint64_t value) { wide(48, value); }
    [[nodiscard]] std::uint64_t files() const { return wide(56); }
    void files(std::uint64_t value) { wide(56, value); }
    [[nodiscard]] std::uint64_t dirtyFiles() const { return wide(64); }
    void dirtyFiles(std::uint64_t value) { wide(64, value); }
    [[nodiscard]] Counters counters() const {
        Counters result;
        for (std::uint32_t i = 0; i < result.size(); ++i)
            result[i] = wide(48 + 8 * i);
        return result;
    }
    [[nodiscard]] std::uint32_t filterType() const { return word(112); }
    void filterType(std::uint32_t value) { word(112, value); }
    [[nodiscard]] std::uint32_t generation() const { return word(116); }
    [[nodiscard]] std::uint32_t lastSequence() const { return word(120); }
    void lastSequence(std::uint32_t value) { word(120, value); }
    [[nodiscard]] bool active() const { return bytes_[164] != 0; }
    void active(bool value) { bytes_[164] = value; }
    [[nodiscard]] bool markedForDeletion() const { return bytes_[165] != 0; }
    void markedForDeletion(bool value) { bytes_[165] = value; }
    [[nodiscard]] bool deletionSent() const { return bytes_[166] != 0; }
    void deletionSent(bool value) { bytes_[166] = value; }
    [[nodiscard]] bool openMark() const { return bytes_[167] != 0; }
    void openMark(bool value) { bytes_[167] = value; }
    [[nodiscard]] bool batch() const { return bytes_[168] != 0; }
    void batch(bool value) { bytes_[168] = value; }

    /// Turns a block of version 0, 1 or 2 into one of version 3. The first 112 bytes stay;
    /// FilterType takes the old version (1 for 0), Batch the byte where CaseSensitive is.
    void upgrade();
    void print(int traceLevel) const;

private:
    [[nodiscard]] std::uint32_t word(std::uint32_t offset) const {
        return Morva::loadLittle<std::uint32_t>(bytes_ + offset);
    }
    void word(std::uint32_t offset, std::uint32_t value) {
        Morva::storeLittle(bytes_ + offset, value);
    }
    [[nodiscard]] std::uint64_t wide(std::uint32_t offset) const {
        return Morva::loadLittle<std::uint64_t>(bytes_ + offset);
    }
    void wide(std::uint32_t offset, std::uint64_t value) {
        Morva::storeLittle(bytes_ + offset, value);
    }

    std::uint8_t* bytes_;
};

/// A store's control block in memory, with its way to the file.
///
/// Identity, instances and flags change through `update`, which writes the block through to the
/// file before it returns. The object counters change in memory alone, since they move with every
/// name, and reach the file with the next `update` or `write`: at a snapshot, a flush and a close.
/// After a crash they can therefore be behind the tree.
///
/// Thread-safe under a lock of its own, which is taken outside that of `NodeFile`.
class ControlBlock {
public:
    using Image = std::array<std::uint8_t, ControlFields::size>;
    /// Writes the whole block through to the file.
    using Writer = std::function<Morva::Status(Image const&)>;
    enum class Loaded { Current, Upgraded, Invalid };

    explicit ControlBlock(Writer writer) : writer_(std::move(writer)) {}

    /// Takes what was read from the file. An older form is brought to the current one (in memory;
    /// the next write makes it so on disk). A version above the current one is Invalid.
    [[nodiscard]] Loaded load(Image const& image);

    // Constant while the store is open.
    [[nodiscard]] StoreId storeId() const { return read(&ControlFields::storeId); }
    [[nodiscard]] ReplayId replayId() const { return read(&ControlFields::replayId); }
    [[nodiscard]] std::uint32_t filterType() const { return read(&ControlFields::filterType); }
    [[nodiscard]] std::uint32_t sequence() const { return read(&ControlFields::sequence); }
    [[nodiscard]] bool caseSensitive() const { return read(&ControlFields::caseSensitive); }

    [[nodiscard]] bool active() const { return read(&ControlFields::active); }
    [[nodiscard]] bool deletionSent() const { return read(&ControlFields::deletionSent); }
    [[nodiscard]] bool openMark() const { return read(&ControlFields::openMark); }
    [[nodiscard]] bool batch() const { return read(&ControlFields::batch); }
    /// Without lock: background work asks before each step.
    [[nodiscard]] bool markedForDeletion() const {
        return markedForDeletion_.load(std::memory_order_relaxed);
    }
    [[nodiscard]] ControlFields::Counters counters() const {
        return read(&ControlFields::counters);
    }

    /// "Invalid", "Filesystem", "BatchFilesystem", "Exchange" or "BatchExchange".
    [[nodiscard]] QString type() const;
    [[nodiscard]] Image image() const;

    /// Runs `change` on the fields and writes the block through. When the write fails the change is
    /// taken back, and what the file may have got of it goes with the next write.
    template <class Change> [[nodiscard]] Morva::Status update(Change change) {
        Morva::TracedLock lock(lock_);
        Image const before = image_;
        ControlFields fields(image_.data());
        change(fields);
        Morva::Status outcome = writeLocked();
        if (!outcome)
            restore(before);
        return outcome;
    }
    /// Writes the block if it has changed since the last successful write.
    [[nodiscard]] Morva::Status write();

    /// One object more or less in the tree: a directory for type 2, else a file. A counter stops
    /// at 0. Store 0 keeps no counters.
    void countName(std::uint32_t type, bool added);
    /// One file more with unsynchronised data.
    void countDirty();
    void print(int traceLevel) const;

private:
    template <class T> [[nodiscard]] T read(T (ControlFields::*field)() const) const {
        Morva::TracedLock lock(lock_);
        return (ControlFields(const_cast<std::uint8_t*>(image_.data())).*field)();
    }
    [[nodiscard]] Morva::Status writeLocked() MORVA_REQUIRES(lock_);
    void restore(Image const& image) MORVA_REQUIRES(lock_);

    Writer writer_;
    mutable Morva::TracedMutex lock_{{"Lock Control Block", "Unlock Control Block"}};
    Image image_ MORVA_GUARDED_BY(lock_){};
    bool dirty_ MORVA_GUARDED_BY(lock_) = false;
    std::atomic<bool> markedForDeletion_{false};
};

} // namespace Replication
