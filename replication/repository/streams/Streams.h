#pragma once

#include "base/trace/TracedLock.h"
#include "base/values/Extent.h"
#include "replication/common/values/Digest.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/streams/DedupStatistics.h"
#include "replication/repository/streams/OperationGate.h"
#include "replication/repository/streams/StreamNode.h"
#include "replication/repository/streams/TreeParameters.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Morva {
class Blocks;
class BPlusTree;
class PagedQueue;
class XmlList;
} // namespace Morva

namespace Replication {

class DedupKey;
class RawRefCountedBlocks;
class RefCountedBlocks;
class StreamHandle;

/// The one pool of file contents of a process, shared by all stores. A stream is a numbered,
/// reference-counted sequence of bytes; its id is the number of its node in "nodes".
///
///  file                        directory    what
///  data.blocks, .free, .refs   stream data  content blocks of 4096 bytes
///  indirectdata.blocks, .refs  streams      indirect blocks of 4096 bytes
///  nodes                       streams      nodes of 256 bytes, the first is the control record
///  dedup.tree                  streams      deduplication index
///  cleanupqueue, dedupqueue    streams      requests to the background threads
///
/// Held by std::shared_ptr; every `StreamHandle` keeps it alive. Thread-safe. Locks: nodes (the
/// `nodes` file and the flags), open streams (the table of handles), dedup (the index and the
/// counters of the control record). Order: a handle's lock, then dedup, then nodes; open streams
/// before nodes; the block stores' own locks last.
///
/// Failures are traced and counted in `failures`, so that whoever applies a log can tell whether
/// all of it reached the pool.
class Streams : public std::enable_shared_from_this<Streams> {
public:
    /// Sizes of caches are blocks, pages or entries; sizes of growth are bytes, 0 for the default.
    struct Configuration {
        std::uint64_t dataGrowSize = 0;
        bool dataRandomAccess = false;
        std::uint32_t nodeCacheSize = 1024;
        std::uint64_t nodeGrowSize = 0;
        bool nodeRandomAccess = false;
        std::uint32_t referenceIndirectBlockCacheSize = 1024;
        std::uint32_t referenceCountCacheSize = 1024;
        std::uint32_t dedupCacheSize = 1024;
    };

    /// The settings of a "StreamsConfiguration" list; what is missing has its default.
    [[nodiscard]] static Configuration configure(Morva::XmlList const& list);

    /// Opens the pool in two directories. It is made anew only where not one of its files is there:
    /// when some are missing, or it can't be told, it stays closed and everything as it is. Test
    /// the object for success.
    Streams(QString const& streamsDirectory, QString const& dataDirectory,
            Configuration const& configuration);
    /// Sends the deletions that a stop put off, and closes all files.
    ~Streams();
    Streams(Streams const&) = delete;
    Streams& operator=(Streams const&) = delete;

    /// Whether all of the pool opened.
    [[nodiscard]] explicit operator bool() const { return valid_; }

    /// Opens the calling thread's handle on the data file now instead of at its first use.
    void beginThread();
    /// Closes it; also happens when the thread ends.
    void endThread();

    /// A new empty stream with one reference; id 0 when there is no room.
    [[nodiscard]] StreamId newStream();
    /// The stream's live object. Null when the id names no stream; that is traced as a fault
    /// unless `invalidOk`.
    [[nodiscard]] std::shared_ptr<StreamHandle> handle(StreamId id, bool invalidOk);
    /// Takes one reference off a stream; what the disk refuses is done at the next flush. False
    /// when the id names no stream.
    bool dropReference(StreamId id);
    /// Keeps a stream without references from being deleted: its handle was saved and will be
    /// taken up again.
    void saveStream(StreamId id);
    /// Ends that; without references and handles it is deleted.
    void forgetStream(StreamId id);

    /// Deduplicates one stream: hashes it as far as that is needed and enters it in the index.
    /// `checkForFreeze` is called while `freezing` is set, and holds the thread until that is
    /// over. `buffer` is the room to read into. Holds the operation gate for its changes only.
    /// False only when the pool is stopping.
    [[nodiscard]] bool dedupStream(std::function<void()> const& checkForFreeze, StreamId id,
                                   DedupStatistics& statistics, Morva::Extent& buffer);
    /// Whether the index knows this content.
    [[nodiscard]] bool findDedup(std::uint64_t length, Digest const& digest);

    /// Ask the cleanup to delete a stream, or to release the tree of a record (200 bytes of a
    /// stream, 960 of a store's node). They return at once; false when the queue fails.
    bool requestDeleteStream(StreamId id);
    /// The working halves, for the cleanup; false, with nothing done, when the pool is stopping. A
    /// stream with references or an open handle stays. They hold the operation gate, slice by
    /// slice: the caller must not hold it. `done`, if given, runs in the gate of the last slice.
    [[nodiscard]] bool deleteStream(StreamId id, std::function<void()> const& done = {});
    [[nodiscard]] bool deleteInfo(Morva::Extent const& record,
                                  std::function<void()> const& done = {});

    /// The trees of the pool's two widths of record: 200 bytes for streams, and 960 bytes for the
    /// node records of stores.
    [[nodiscard]] TreeParameters& streamTree() const { return *streamTree_; }
    [[nodiscard]] TreeParameters& nodeTree() const { return *nodeTree_; }
    /// The gate of the process.
    [[nodiscard]] static OperationGate& gate() { return OperationGate::process(); }
    /// Blocks, nodes, counts and requests that failed since the pool opened. Rises only.
    [[nodiscard]] std::uint64_t failures() const {
        return failures_->load(std::memory_order_relaxed);
    }

    /// Adds one to the pool's instance, which it returns.
    std::uint32_t snapshot();
    [[nodiscard]] std::uint32_t instance() const;
    /// Writes everything in an order that keeps the files usable: data free list and counts,
    /// indirect blocks and counts, the index, the nodes. With `sync` it is on the disk itself
    /// afterwards. False when any of it failed. Does not take the gate: the caller holds it alone.
    [[nodiscard]] bool flush(bool sync = true);
    /// From now on nothing is deleted or deduplicated, and nobody waits for a free block. For good.
    void stop();
    [[nodiscard]] bool stopping() const { return stopping_.load(std::memory_order_relaxed); }
    void freezing(bool value);
    [[nodiscard]] bool freezing() const { return freezing_.load(std::memory_order_relaxed); }

    [[nodiscard]] Morva::PagedQueue& cleanupQueue() const { return *cleanupQueue_; }
    [[nodiscard]] Morva::PagedQueue& dedupQueue() const { return *dedupQueue_; }

    /// Sets the list "Streams" in `result`; it is empty when the pool isn't open.
    void statistics(Morva::XmlList& result);
    /// Appends a heading and the same figures as an HTML table, a row a line.
    void report(QStringList& lines);

    /// For a checker; nothing is changed. The data and indirect stores tell their counts and free
    /// numbers.
    [[nodiscard]] RawRefCountedBlocks& data() const { return *data_; }
    [[nodiscard]] RefCountedBlocks& indirect() const { return *indirect_; }
    /// Every node that is a stream, in the order of numbers; the view ends with the call. False
    /// when a node couldn't be read; the rest is visited all the same. Under the nodes lock: the
    /// function must not call the pool's operations on streams.
    [[nodiscard]] bool forEachStream(std::function<void(StreamNode const&)> const& visit) const;
    /// Every free block of "nodes", until the function gives false. False when their chain is
    /// damaged.
    [[nodiscard]] bool
    forEachFreeNode(std::function<bool(std::uint64_t number)> const& visit) const;
    /// Every key of the index. Under the dedup lock. False when the tree is damaged.
    [[nodiscard]] bool forEachKey(std::function<void(DedupKey&)> const& visit) const;
    /// The pool's control record; a copy of its 256 bytes.
    [[nodiscard]] QByteArray controlRecord() const;
    /// Streams whose handle is open now.
    [[nodiscard]] std::size_t openStreams() const;

private:
    friend class StreamHandle;
    struct Statistic;

    [[nodiscard]] bool start(QString const& streamsDirectory, QString const& dataDirectory);
    [[nodiscard]] bool openFiles(QString const& streamsDirectory, QString const& dataPath);
    [[nodiscard]] bool createFiles(QString const& streamsDirectory, QString const& dataPath);
    [[nodiscard]] std::vector<Statistic> collectStatistics();

    /// The pinned node of a stream, null when the id names none.
    [[nodiscard]] StreamNode loadNode(StreamId id);
    [[nodiscard]] StreamNode newNode();
    [[nodiscard]] std::shared_ptr<StreamHandle> makeHandle(StreamNode node);
    /// Only from the destructor of a handle.
    void releaseHandle(StreamHandle& handle);
    /// A new private stream with the content of `handle`, whose count goes down by one. Under the
    /// handle's lock. Null when it can't be made; nothing is changed then.
    [[nodiscard]] std::shared_ptr<StreamHandle> copyHandle(StreamHandle const& handle,
                                                           StreamNode node);
    /// Says that a pinned node has changed.
    void update(StreamNode node);
    void updateControl();

    /// Enters a stream in the index, or joins it to an existing key. Under the handle's lock.
    bool addDedup(StreamNode node, DedupStatistics& statistics);
    [[nodiscard]] bool joinKey(DedupKey& key, StreamNode node);
    [[nodiscard]] bool useDedup(StreamNode node, std::uint64_t length, Digest const& digest);
    /// Takes a stream of this content out of the index; `missing` is traced when it isn't there.
    /// Under the dedup lock. False, with nothing changed, when the index can't be read or changed.
    [[nodiscard]] bool leaveKey(std::uint64_t length, Digest const& digest, char const* missing);
    [[nodiscard]] bool leaveIndex(StreamNode node);
    void updateKey(DedupKey const& key);
    [[nodiscard]] bool isSaved(StreamId id) const;
    [[nodiscard]] bool claimForDeletion(StreamId id, StreamNode& node);
    void endDeletion(StreamId id, StreamNode node, bool done);

    /// Spreads stream ids over the table of open streams.
    struct IdHash {
        std::size_t operator()(StreamId id) const noexcept {
            return static_cast<std::uint32_t>((id.value >> 31) ^ id.value);
        }
    };

    Configuration configuration_;
    bool valid_ = false;
    std::shared_ptr<std::atomic<std::uint64_t>> failures_;
    std::shared_ptr<Morva::PagedQueue> cleanupQueue_;
    std::shared_ptr<Morva::PagedQueue> dedupQueue_;
    std::shared_ptr<RawRefCountedBlocks> data_;
    std::shared_ptr<RefCountedBlocks> indirect_;
    std::unique_ptr<TreeParameters> streamTree_;
    std::unique_ptr<TreeParameters> nodeTree_;

    mutable Morva::TracedMutex nodesLock_;
    std::unique_ptr<Morva::Blocks> nodes_;      // guarded by nodesLock_
    std::uint32_t instance_ = 0;                // guarded by nodesLock_
    std::atomic<bool> stopping_ = false;        // written under nodesLock_
    std::atomic<bool> freezing_ = false;        // written under nodesLock_
    std::vector<StreamId> deferredDeletes_;     // guarded by nodesLock_
    std::vector<StreamId> deferredDrops_;       // guarded by nodesLock_
    std::unordered_set<StreamId> savedStreams_; // guarded by nodesLock_

    mutable Morva::TracedMutex openLock_;
    std::condition_variable handleGone_;
    /// Weak: a handle takes itself out as the first act of its end.
    std::unordered_map<StreamId, StreamHandle*, IdHash> open_; // guarded by openLock_
    std::unordered_set<StreamId> deleting_;                    // guarded by openLock_
    std::uint32_t waitingForHandle_ = 0;                       // guarded by openLock_

    mutable Morva::TracedMutex dedupLock_;
    std::unique_ptr<Morva::BPlusTree> dedup_; // guarded by dedupLock_
    PoolControl control_;                     // counters guarded by dedupLock_
};

} // namespace Replication
