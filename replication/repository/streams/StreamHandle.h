#pragma once

#include "base/trace/TracedLock.h"
#include "replication/common/values/Digest.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/streams/DedupStatistics.h"
#include "replication/repository/streams/Info.h"
#include "replication/repository/streams/StreamNode.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace Replication {

class Streams;

/// The one live object of an open stream, shared by all its readers and writers through the
/// pointer that `Streams::handle` gives. It pins the stream's node and keeps the pool alive for as
/// long as it lives.
///
/// Two rules of a stream are applied here: a change wipes the digest, and a frozen stream doesn't
/// change. Thread-safe: every operation holds the handle's lock, so that a reader waits for a
/// running write of the same stream and for no other.
///
/// Failures of blocks are traced and counted in `Streams::failures`; see `Info` for what a stream
/// holds then.
class StreamHandle : public std::enable_shared_from_this<StreamHandle> {
    /// Only `Streams` makes handles.
    struct Key {
        explicit Key() = default;
    };

public:
    /// An offset for `write` that stands for the end of the stream.
    static constexpr std::uint64_t append = Info::append;
    /// Flag of `truncate`: only ever make the stream longer.
    static constexpr std::uint32_t growOnly = 0x100;

    StreamHandle(Key, std::shared_ptr<Streams> owner, StreamNode node);
    ~StreamHandle();
    StreamHandle(StreamHandle const&) = delete;
    StreamHandle& operator=(StreamHandle const&) = delete;

    [[nodiscard]] StreamId id() const { return id_; }

    /// Writes at `offset`, or at the end with `append`; with `noExtend` only what lies below the
    /// length. A count of 0 changes nothing. On a frozen stream nothing is written and the result
    /// is true all the same: call `copyOnWrite` first. False when the end would pass the largest
    /// length there is.
    bool write(std::uint64_t offset, void const* data, std::uint32_t count, bool noExtend = false);
    /// As `write`, but false on a frozen stream.
    [[nodiscard]] bool writeUnlessFrozen(std::uint64_t offset, void const* data,
                                         std::uint32_t count, bool noExtend = false);
    /// Once true it stays so.
    [[nodiscard]] bool frozen();
    /// Bytes delivered: `count`, or what there is up to the length.
    [[nodiscard]] std::uint32_t read(std::uint64_t offset, void* data, std::uint32_t count);
    /// As `read`; nothing when a part of it could not be read and zeros stand in its place.
    [[nodiscard]] std::optional<std::uint32_t> readWhole(std::uint64_t offset, void* data,
                                                         std::uint32_t count);
    /// See `Info::locate`. What is told holds as long as the stream is frozen and not in the index,
    /// where alone `setDigest` takes a digest.
    [[nodiscard]] bool locate(std::uint64_t count, std::uint64_t* blocks);
    /// See `Info::findData`.
    [[nodiscard]] bool findData(std::uint64_t& start, std::uint64_t& end);
    /// False on a frozen stream and past the largest length. With `growOnly` a stream that is long
    /// enough already stays as it is.
    bool truncate(std::uint64_t length, std::uint32_t flags = 0);
    /// See `Info::zeroData`. False on a frozen stream and past the largest length; an empty range
    /// changes nothing and is true.
    bool zeroData(std::uint64_t start, std::uint64_t end);
    /// Whether the range lies below the length and holds nothing but zeros.
    [[nodiscard]] bool isZero(std::uint64_t start, std::uint64_t end);
    [[nodiscard]] std::uint64_t length();
    void info(StreamInfo& result);

    [[nodiscard]] std::uint32_t referenceCount();
    void addReference();
    /// At 0 it stays 0. A stream without references is deleted when its last handle goes.
    void releaseReference();

    /// To be called before the first change of a stream. When it is frozen or has two references
    /// or more, `result` gets a new stream with the same content and one reference, taken off this
    /// one; the caller's file version must then name that. Else `result` becomes empty: this
    /// stream may be changed. False, with nothing changed, when a copy is needed and can't be
    /// made: nothing may be written then.
    [[nodiscard]] bool copyOnWrite(std::shared_ptr<StreamHandle>& result);

    /// Readies the stream for deduplication; true when its content must be hashed for that and
    /// `setDigest` called. From here on it is frozen. False, with nothing to do: no reference to
    /// the stream is left, it is in the index, or its digest was known and it has just been
    /// entered.
    [[nodiscard]] bool prepareDedup(DedupStatistics& statistics);
    /// Notes the digest of a stream that was readied, and enters it in the index. `digest` is 20
    /// bytes for SHA-1.
    void setDigest(std::uint32_t type, void const* digest, DedupStatistics& statistics);
    /// Replaces the content by one of this length and digest that the index knows, and freezes the
    /// stream. False, with nothing changed, when the index doesn't know it, or the stream hasn't
    /// exactly one reference, or the blocks can't be counted.
    [[nodiscard]] bool useDedup(std::uint64_t length, Digest const& digest);
    /// Notes a digest learnt elsewhere, if the stream isn't in the index and the type differs and
    /// is a known one.
    void digest(Digest const& value);

    /// Keeps a stream without references over a stop of the process: see `Streams::saveStream`.
    void saveStream();

private:
    friend class Streams;

    void wipeDigest();
    void updateIfDirty();

    std::shared_ptr<Streams> owner_;
    StreamId id_;
    Morva::TracedMutex lock_;
    StreamNode node_; // content guarded by lock_
    Info info_;       // guarded by lock_
};

} // namespace Replication
