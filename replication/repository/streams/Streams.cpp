#include "replication/repository/streams/Streams.h"

#include "base/blocks/Blocks.h"
#include "base/messages/XmlList.h"
#include "base/trace/Trace.h"
#include "base/trees/BPlusTree.h"
#include "base/trees/PagedQueue.h"
#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/RawRefCountedBlocks.h"
#include "replication/repository/streams/RefCountedBlocks.h"
#include "replication/repository/streams/StreamHandle.h"

namespace Replication {

using Morva::Blocks;
using Morva::BPlusTree;
using Morva::PagedQueue;
using Morva::RawFile;
using Morva::TracedLock;

namespace {

constexpr std::uint32_t dataReservedBits = 16;
constexpr std::uint32_t nodeReservedBits = 24;
constexpr std::uint32_t dedupPageSize = 4096;

RawFile::Mode modeOf(bool randomAccess) {
    return randomAccess ? RawFile::Mode::Random : RawFile::Mode::ReadWrite;
}

} // namespace

Streams::Configuration Streams::configure(Morva::XmlList const& list) {
    Configuration result;
    result.dataGrowSize = list.get("DataGrowSize", result.dataGrowSize);
    result.dataRandomAccess = list.get("DataRandomAccess", result.dataRandomAccess);
    result.nodeCacheSize = list.get("NodeCacheSize", result.nodeCacheSize);
    result.nodeGrowSize = list.get("NodeGrowSize", result.nodeGrowSize);
    result.nodeRandomAccess = list.get("NodeRandomAccess", result.nodeRandomAccess);
    result.referenceIndirectBlockCacheSize =
        list.get("ReferenceIndirectBlockCacheSize", result.referenceIndirectBlockCacheSize);
    result.referenceCountCacheSize =
        list.get("ReferenceCountCacheSize", result.referenceCountCacheSize);
    result.dedupCacheSize = list.get("DedupCacheSize", result.dedupCacheSize);
    return result;
}

Streams::Streams(QString const& streamsDirectory, QString const& dataDirectory,
                 Configuration const& configuration)
    : configuration_(configuration),
      failures_(std::make_shared<std::atomic<std::uint64_t>>(0)),
      nodesLock_({"============ Lock Streams Nodes =============",
                  "=========== Unlock Streams Nodes ============"}),
      openLock_({"=========== Lock Open Stream Hash ===========",
                 "========== Unlock Open Stream Hash =========="}),
      dedupLock_({"============ Lock Dedup Tree ============",
                  "=========== Unlock Dedup Tree ==========="}) {
    valid_ = start(streamsDirectory, dataDirectory);
}

namespace {

/// Whether some file of a pool is there, or can't be looked at and may be.
bool anyOf(QString const& streamsDirectory, QString const& dataPath) {
    QStringList names{dataPath + ".blocks", dataPath + ".free", dataPath + ".refs"};
    for (char const* name : {"indirectdata.blocks", "indirectdata.refs", "nodes", "dedup.tree",
                             "cleanupqueue", "dedupqueue"})
        names << streamsDirectory + '/' + QLatin1String(name);
    for (QString const& name : names) {
        auto const file = RawFile::make();
        if (!file->open(name, RawFile::Mode::ReadOnly).is(Morva::Status::Code::NotFound))
            return true;
    }
    return false;
}

} // namespace

bool Streams::start(QString const& streamsDirectory, QString const& dataDirectory) {
    MORVA_METHOD("start");
    auto& files = Morva::FileSystem::inForce();
    if (!files.makeDirectory(streamsDirectory) || !files.makeDirectory(dataDirectory)) {
        MORVA_TRACE(Always) << "Failed to create directory" << streamsDirectory << dataDirectory;
        return scope.result(false);
    }
    QString const dataPath = dataDirectory + "/data";
    bool const isNew = !anyOf(streamsDirectory, dataPath);
    auto const ifMissing = isNew ? PagedQueue::Missing::Make : PagedQueue::Missing::Fail;
    cleanupQueue_ =
        std::make_shared<PagedQueue>(streamsDirectory + "/cleanupqueue", 10485760, 100, ifMissing);
    dedupQueue_ =
        std::make_shared<PagedQueue>(streamsDirectory + "/dedupqueue", 1048576, 1000, ifMissing);
    if (!*cleanupQueue_ || !*dedupQueue_)
        return scope.result(false);
    data_ = std::make_shared<RawRefCountedBlocks>(configuration_.referenceCountCacheSize);
    indirect_ = std::make_shared<RefCountedBlocks>(configuration_.referenceIndirectBlockCacheSize,
                                                   configuration_.referenceCountCacheSize);
    nodes_ = std::make_unique<Blocks>(configuration_.nodeCacheSize);
    dedup_ = std::make_unique<BPlusTree>(configuration_.dedupCacheSize);

    if (isNew ? !createFiles(streamsDirectory, dataPath) : !openFiles(streamsDirectory, dataPath))
        return scope.result(false);
    MORVA_TRACE(Normal) << "Instance" << instance_;

    streamTree_ = std::make_unique<TreeParameters>(TreeRecord::streamSize, cleanupQueue_, data_,
                                                   indirect_, failures_);
    nodeTree_ = std::make_unique<TreeParameters>(TreeRecord::nodeSize, cleanupQueue_, data_,
                                                 indirect_, failures_);
    return scope.result(*streamTree_ && *nodeTree_);
}

bool Streams::openFiles(QString const& streamsDirectory, QString const& dataPath) {
    if (!data_->open(dataPath, configuration_.dataGrowSize, configuration_.dataRandomAccess) ||
        data_->blockSize() != TreeParameters::blockSize) {
        MORVA_TRACE(Always) << "Failed to open stream data files" << dataPath;
        return false;
    }
    if (!indirect_->open(streamsDirectory + "/indirectdata") ||
        indirect_->blockSize() != TreeParameters::blockSize ||
        !nodes_->open(streamsDirectory + "/nodes", configuration_.nodeGrowSize,
                      modeOf(configuration_.nodeRandomAccess)) ||
        nodes_->blockSize() != StreamNode::size) {
        MORVA_TRACE(Always) << "Failed to open stream node files";
        return false;
    }
    if (!dedup_->open(streamsDirectory + "/dedup.tree")) {
        MORVA_TRACE(Always) << "Failed to open dedup tree";
        return false;
    }
    auto const control = nodes_->getBlock(Blocks::firstBlock());
    control_ = PoolControl(control ? *control : nullptr);
    if (!control_) {
        MORVA_TRACE(Always) << "Failed to get control block";
        return false;
    }
    instance_ = control_.instance();
    return true;
}

bool Streams::createFiles(QString const& streamsDirectory, QString const& dataPath) {
    QString const nodesPath = streamsDirectory + "/nodes";
    RawFile::Mode const nodeMode = modeOf(configuration_.nodeRandomAccess);
    if (!indirect_->create(streamsDirectory + "/indirectdata", TreeParameters::blockSize,
                           dataReservedBits)) {
        MORVA_TRACE(Always) << "Failed to create stream data files";
        return false;
    }
    if (!nodes_->create(nodesPath, StreamNode::size, nodeReservedBits, configuration_.nodeGrowSize,
                        nodeMode)) {
        MORVA_TRACE(Always) << "Failed to create stream node files";
        return false;
    }
    if (!dedup_->create(streamsDirectory + "/dedup.tree", dedupPageSize)) {
        MORVA_TRACE(Always) << "Failed to create dedup tree";
        return false;
    }
    std::uint64_t number = 0;
    auto const control = nodes_->newBlock(number);
    control_ = PoolControl(control ? *control : nullptr);
    if (!control_ || number != Blocks::firstBlock()) {
        MORVA_TRACE(Always) << "Incorrect first block" << number;
        return false;
    }
    control_.instance(0);
    // All of it reaches the files now, so that what is there can be opened after a crash.
    if (!nodes_->updateBlock(control_.block()) || !nodes_->flush() || !dedup_->flush() ||
        !indirect_->flush()) {
        MORVA_TRACE(Always) << "Failed to create stream node files";
        return false;
    }
    if (!data_->create(dataPath, TreeParameters::blockSize, dataReservedBits,
                       configuration_.dataGrowSize, configuration_.dataRandomAccess)) {
        MORVA_TRACE(Always) << "Failed to create stream data files";
        return false;
    }
    return true;
}

Streams::~Streams() {
    MORVA_METHOD("~Streams");
    for (StreamId id : std::exchange(deferredDeletes_, {})) {
        if (!savedStreams_.contains(id))
            requestDeleteStream(id);
    }
    bool closed = true;
    if (data_)
        closed = data_->close() && closed;
    if (indirect_)
        closed = indirect_->close() && closed;
    if (dedup_)
        closed = dedup_->close().ok() && closed;
    if (control_)
        nodes_->returnBlock(control_.block(), false);
    if (nodes_)
        closed = nodes_->close().ok() && closed;
    if (!closed)
        MORVA_TRACE(Always) << "Failed to close the stream files";
}

void Streams::beginThread() {
    data_->beginThread(modeOf(configuration_.dataRandomAccess));
}

void Streams::endThread() {
    data_->endThread();
}

StreamNode Streams::newNode() {
    TracedLock lock(nodesLock_);
    std::uint64_t number = 0;
    auto const block = nodes_->newBlock(number);
    StreamNode node(block ? *block : nullptr);
    if (!node) {
        streamTree_->failed();
        return node;
    }
    node.id(StreamId{number});
    node.referenceCount(1);
    return node;
}

StreamId Streams::newStream() {
    StreamNode const node = newNode();
    if (!node)
        return {};
    StreamId const id = node.id();
    TracedLock lock(nodesLock_);
    if (!nodes_->returnBlock(node.block(), true))
        streamTree_->failed();
    return id;
}

StreamNode Streams::loadNode(StreamId id) {
    if (!id || id.value == Blocks::firstBlock())
        return StreamNode();
    TracedLock lock(nodesLock_);
    auto const block = nodes_->getBlock(id.value);
    StreamNode node(block ? *block : nullptr);
    // Not a stream that isn't there, but one that can't be read.
    if (!node && id.value < nodes_->blockCount())
        streamTree_->failed();
    if (node && node.id() != id) {
        nodes_->discardBlock(node.block());
        return StreamNode();
    }
    return node;
}

std::shared_ptr<StreamHandle> Streams::handle(StreamId id, bool invalidOk) {
    MORVA_CHECK(static_cast<bool>(id), "ulStreamId");
    TracedLock lock(openLock_);
    for (;;) {
        auto const found = open_.find(id);
        if (found == open_.end())
            break;
        MORVA_TRACE(Debug) << "Try to reuse StreamHandle" << id;
        if (std::shared_ptr<StreamHandle> live = found->second->weak_from_this().lock())
            return live;
        // Its destructor has begun and will soon take it out.
        std::unique_lock<std::mutex> held(openLock_.native(), std::adopt_lock);
        ++waitingForHandle_;
        handleGone_.wait(held);
        --waitingForHandle_;
        held.release();
    }
    StreamNode const node = deleting_.contains(id) ? StreamNode() : loadNode(id);
    if (!node) {
        MORVA_TRACE(Normal) << "Stream is not available" << id;
        MORVA_CHECK(invalidOk, "bInvalidOk");
        return nullptr;
    }
    return makeHandle(node);
}

std::shared_ptr<StreamHandle> Streams::makeHandle(StreamNode node) {
    MORVA_TRACE(Debug) << "Create a StreamHandle" << node.id();
    auto result = std::make_shared<StreamHandle>(StreamHandle::Key{}, shared_from_this(), node);
    open_.emplace(node.id(), result.get());
    MORVA_TRACE(Debug) << open_.size() << "open streams";
    return result;
}

void Streams::releaseHandle(StreamHandle& handle) {
    StreamNode const node = handle.node_;
    MORVA_CHECK(static_cast<bool>(node.id()), "ptNode->ulId");
    bool const unused = node.referenceCount() == 0;
    bool deferred = false;
    {
        TracedLock open(openLock_);
        MORVA_TRACE(Debug) << "Remove stream" << handle.id_ << "from" << open_.size()
                           << "entry stream hash";
        open_.erase(handle.id_);
        if (waitingForHandle_ != 0)
            handleGone_.notify_all();
        TracedLock nodes(nodesLock_);
        deferred = unused && (stopping_ || savedStreams_.contains(handle.id_));
        if (deferred && stopping_)
            deferredDeletes_.push_back(handle.id_);
        // Within both locks, so that nobody gets a new handle on a node that is going.
        if (unused && !deferred && node.record().depth() == 0) {
            if (!nodes_->freeBlock(node.block()))
                streamTree_->failed();
            return;
        }
        nodes_->returnBlock(node.block(), false);
    }
    if (unused && !deferred)
        requestDeleteStream(handle.id_);
}

std::shared_ptr<StreamHandle> Streams::copyHandle(StreamHandle const& handle, StreamNode node) {
    MORVA_METHOD("copyHandle");
    StreamNode const fresh = newNode();
    if (!fresh)
        return nullptr;
    if (!streamTree_->takeCopy(fresh.record(), node.record())) {
        TracedLock lock(nodesLock_);
        (void)nodes_->freeBlock(fresh.block()); // it was taken just now
        return nullptr;
    }
    MORVA_TRACE(Debug) << "Copy of stream" << handle.id_ << "is" << fresh.id();
    if (node.referenceCount() != 0)
        node.referenceCount(node.referenceCount() - 1);
    update(node);
    update(fresh);
    TracedLock lock(openLock_);
    return makeHandle(fresh);
}

void Streams::update(StreamNode node) {
    if (!node)
        return;
    TracedLock lock(nodesLock_);
    if (!nodes_->updateBlock(node.block()))
        streamTree_->failed();
}

void Streams::updateControl() {
    TracedLock lock(nodesLock_);
    if (!nodes_->updateBlock(control_.block()))
        streamTree_->failed();
}

bool Streams::dropReference(StreamId id) {
    Morva::Failures::Pardon const pardon;
    Morva::Failures::Watch const watch;
    if (std::shared_ptr<StreamHandle> const stream = handle(id, true)) {
        stream->releaseReference();
        return true;
    }
    if (!watch.any())
        return false;
    TracedLock lock(nodesLock_);
    deferredDrops_.push_back(id);
    return true;
}

void Streams::saveStream(StreamId id) {
    TracedLock lock(nodesLock_);
    savedStreams_.insert(id);
}

bool Streams::isSaved(StreamId id) const {
    TracedLock lock(nodesLock_);
    return savedStreams_.contains(id);
}

void Streams::forgetStream(StreamId id) {
    {
        TracedLock lock(nodesLock_);
        savedStreams_.erase(id);
    }
    requestDeleteStream(id);
}

std::uint32_t Streams::snapshot() {
    TracedLock lock(nodesLock_);
    ++instance_;
    control_.instance(instance_);
    MORVA_TRACE(Normal) << "Write" << instance_ << "to instance file";
    if (!nodes_->updateBlock(control_.block()))
        streamTree_->failed();
    return instance_;
}

std::uint32_t Streams::instance() const {
    TracedLock lock(nodesLock_);
    return instance_;
}

// The order keeps the files usable behind a crash: what a file refers to is written before it.
// Data blocks are in their file at once. A node marked as indexed is written behind its key.
bool Streams::flush(bool sync) {
    MORVA_METHOD("flush");
    bool good = true;
    std::vector<StreamId> unsent, undropped;
    {
        TracedLock lock(nodesLock_);
        undropped.swap(deferredDrops_);
    }
    for (StreamId const id : undropped)
        dropReference(id);
    {
        TracedLock open(openLock_);
        TracedLock lock(nodesLock_);
        good = deferredDrops_.empty();
        // Once the pool stops, its end asks.
        if (!stopping_) {
            unsent.swap(deferredDeletes_);
            // The last handle asks for it as it goes, but it may never come to that.
            for (auto const& [id, handle] : open_)
                if (handle->node_.referenceCount() == 0 && !savedStreams_.contains(id))
                    unsent.push_back(id);
        }
    }
    // A stream that is open, or has come to life again since, is left alone when its request is
    // served.
    for (StreamId const id : unsent)
        good = requestDeleteStream(id) && good;
    good = data_->flush() && good;
    good = indirect_->flush() && good;
    {
        TracedLock lock(dedupLock_);
        good = dedup_->flush().ok() && good;
    }
    {
        TracedLock lock(nodesLock_);
        good = nodes_->flush().ok() && good;
    }
    if (!sync)
        return scope.result(good);
    good = data_->sync() && good;
    good = indirect_->sync() && good;
    {
        TracedLock lock(dedupLock_);
        good = dedup_->sync().ok() && good;
    }
    {
        TracedLock lock(nodesLock_);
        good = nodes_->sync().ok() && good;
    }
    good = cleanupQueue_->sync().ok() && good;
    good = dedupQueue_->sync().ok() && good;
    return scope.result(good);
}

void Streams::stop() {
    {
        TracedLock lock(nodesLock_);
        stopping_ = true;
    }
    data_->stop();
}

void Streams::freezing(bool value) {
    TracedLock lock(nodesLock_);
    freezing_ = value;
}

std::size_t Streams::openStreams() const {
    TracedLock lock(openLock_);
    return open_.size();
}

} // namespace Replication
