#include "peers/check/PoolCheck.h"

#include "base/trees/BPlusTree.h"
#include "base/trees/PagedQueue.h"
#include "base/values/LittleEndian.h"
#include "peers/check/Fingerprint.h"
#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/DedupRequest.h"
#include "replication/repository/streams/RawRefCountedBlocks.h"

#include <cstring>

namespace Morva {

using Replication::CleanupRequest;
using Replication::DedupKey;
using Replication::DedupRequest;
using Replication::Digest;
using Replication::PoolControl;
using Replication::RawRefCountedBlocks;
using Replication::StreamId;
using Replication::StreamNode;
using Replication::TreeRecord;

namespace {

constexpr std::uint32_t indirectCache = 1024, nodeCache = 256, treeCache = 1024;
constexpr std::uint64_t cleanupPage = 10485760, dedupPage = 1048576;

std::uint64_t contentOf(std::uint64_t length, Digest const& digest) {
    return fingerprint(digest.value.data(), digest.value.size(), length * 3 + digest.type);
}

} // namespace

PoolCheck::PoolCheck(RepositoryPaths const& paths, CheckOptions const& options, CheckReport& report)
    : paths_(paths),
      options_(options),
      report_(report),
      indirect_(indirectCache),
      nodes_(nodeCache) {}

void PoolCheck::streamFault(FaultKind kind, std::uint64_t number, QString const& text) {
    report_.fault(kind, QStringLiteral("stream %1").arg(number), text);
}

void PoolCheck::begin() {
    openData();
    (void)indirect_.open(paths_.streams + "/indirectdata.blocks",
                         QStringLiteral("indirectdata.blocks"), TreeReader::blockSize, report_);
    (void)nodes_.open(paths_.streams + "/nodes", QStringLiteral("nodes"), StreamNode::size,
                      report_);
    reader_ = std::make_unique<TreeReader>(data_.get(), nextBlock_, indirect_);
    census_ = std::make_unique<Census>(nextBlock_, indirect_, report_);
    scanStreams();
    readCleanupQueue();
    checkDedupQueue();
    checkIndex();
    checkControl();
}

void PoolCheck::openData() {
    auto const where = QStringLiteral("data.blocks");
    data_ = RawFile::make();
    if (!data_->open(paths_.streamData + "/data.blocks", RawFile::Mode::ReadOnly)) {
        report_.fault(FaultKind::Unreadable, where, QStringLiteral("can't be opened"));
        data_.reset();
        return;
    }
    RawRefCountedBlocks::Control control;
    if (!RawRefCountedBlocks::readControl(*data_, control) ||
        control.blockSize != TreeReader::blockSize) {
        report_.fault(FaultKind::BlockFile, where, QStringLiteral("has no sound control block"));
        data_.reset();
        return;
    }
    nextBlock_ = control.nextBlock;
    dataMask_ = control.mask;
    auto const length = data_->length();
    if (!length) {
        report_.fault(FaultKind::Unreadable, where, length.status().text());
        data_.reset();
        return;
    }
    std::uint64_t const blocks = *length / TreeReader::blockSize;
    if (nextBlock_ > blocks || nextBlock_ - 1 > dataMask_) {
        report_.fault(FaultKind::BlockFile, where,
                      QStringLiteral("the next block is %1, but the file has %2 blocks")
                          .arg(nextBlock_)
                          .arg(blocks));
        nextBlock_ = std::min(nextBlock_, blocks);
    }
}

// --- streams

void PoolCheck::scanStreams() {
    streams_.resize(nodes_.count());
    std::uint64_t sinceProgress = 0;
    std::uint64_t lostFrom = 0;
    nodes_.scan(Blocks::firstBlock(), report_, [&](std::uint64_t number, auto const* bytes) {
        if (number == Blocks::firstBlock())
            std::memcpy(control_.data(), bytes, control_.size());
        else if (StreamNode(const_cast<std::uint8_t*>(bytes)).id().value == number)
            checkStream(number, bytes);
        else if (!nodes_.isFree(number))
            lostFrom = lostFrom == 0 ? number : lostFrom;
        bool const isLost = number != Blocks::firstBlock() && !nodes_.isFree(number) &&
                            (streams_[number].flags & Exists) == 0;
        if (lostFrom != 0 && !isLost)
            lost(nodes_.where(), std::exchange(lostFrom, 0), number, "node");
        if (options_.progress && ++sinceProgress % 16384 == 0)
            options_.progress(report_.figures.bytesRead);
    });
    if (lostFrom != 0)
        lost(nodes_.where(), lostFrom, nodes_.count(), "node");
}

void PoolCheck::checkStream(std::uint64_t number, std::uint8_t const* bytes) {
    StreamNode const node(const_cast<std::uint8_t*>(bytes));
    if (nodes_.isFree(number)) {
        report_.fault(FaultKind::BlockFile, nodes_.where(),
                      QStringLiteral("block %1 is free and holds a stream").arg(number));
        return;
    }
    ++report_.figures.streams;
    Stream& stream = streams_[number];
    stream.flags = Exists;
    stream.counted = node.referenceCount();
    census_->add(node.record(), TreeRecord::streamSize,
                 [number] { return QStringLiteral("stream %1").arg(number); });
    checkDigest(node);
    if (node.indexed())
        indexStream(node);
}

void PoolCheck::checkDigest(StreamNode const& node) {
    Digest const digest = node.digest();
    std::uint32_t const used = digest.type == Digest::eRepDigestSha1 ? Digest::sha1Size : 0;
    bool const clean = std::all_of(digest.value.begin() + used, digest.value.end(),
                                   [](std::uint8_t byte) { return byte == 0; });
    if (digest.type > Digest::eRepDigestSha1 || (used != 0 && !clean))
        streamFault(FaultKind::Stream, node.id().value,
                    QStringLiteral("its digest of type %1 can't be").arg(digest.type));
}

void PoolCheck::indexStream(StreamNode const& node) {
    std::uint64_t const number = node.id().value;
    std::uint64_t const length = node.record().length();
    streams_[number].flags |= Indexed;
    ++indexedStreams_;
    indexedData_ += length;
    if (!node.frozen() || node.digestType() != Digest::eRepDigestSha1)
        streamFault(FaultKind::Stream, number,
                    QStringLiteral("it is in the deduplication index, but %1")
                        .arg(node.frozen() ? QStringLiteral("has no digest")
                                           : QStringLiteral("may still change")));
    std::uint64_t const record = fingerprint(node.record().bytes(), TreeRecord::streamSize);
    Content& content = contents_[contentOf(length, node.digest())];
    if (content.streams++ == 0) {
        content.record = record;
        content.firstStream = number;
    } else if (content.record != record) {
        streamFault(FaultKind::DedupIndex, number,
                    QStringLiteral("it has other blocks than stream %1 of the same content")
                        .arg(content.firstStream));
    }
}

void PoolCheck::addStreamReference(StreamId id, Owner const& owner) {
    if (hasStream(id))
        ++streams_[id.value].found;
    else if (nodes_.isOpen())
        report_.fault(FaultKind::LostStream, owner(),
                      QStringLiteral("it names stream %1, which doesn't exist").arg(id.value));
}

std::optional<PoolCheck::StreamRecord> PoolCheck::streamRecord(StreamId id) {
    BlockPin const pin = hasStream(id) ? nodes_.pin(id.value) : BlockPin();
    if (!pin)
        return std::nullopt;
    StreamRecord record;
    std::memcpy(record.data(), pin.bytes() + StreamNode::recordAt, record.size());
    return record;
}

// --- index and queues

void PoolCheck::checkIndex() {
    auto const where = QStringLiteral("dedup.tree");
    BPlusTree tree(treeCache);
    if (!tree.open(paths_.streams + "/dedup.tree", RawFile::Mode::ReadOnly)) {
        report_.fault(FaultKind::Unreadable, where, QStringLiteral("is no sound tree"));
        return;
    }
    QStringList faults;
    (void)tree.verify(faults);
    for (QString const& text : faults)
        report_.fault(FaultKind::DedupIndex, where, text);
    report_.figures.blocksRead += tree.pageCount();
    DedupKey key;
    (void)tree.forEach( // `verify` has told of what is damaged
        [&](Extent const& stored) {
            if (key.restore(stored))
                checkKey(key, tree);
            else
                report_.fault(FaultKind::DedupIndex, where,
                              QStringLiteral("a key has %1 bytes").arg(stored.size));
            return true;
        });
    for (auto const& [hash, content] : contents_)
        if (!content.keyed)
            report_.fault(FaultKind::DedupIndex, where,
                          QStringLiteral("there is no key for stream %1, which is indexed")
                              .arg(content.firstStream));
}

void PoolCheck::checkKey(DedupKey& key, BPlusTree const& tree) {
    ++keys_;
    keyData_ += key.length();
    auto const fault = [&](QString const& text) {
        report_.fault(FaultKind::DedupIndex, QStringLiteral("dedup.tree"), text);
    };
    DedupKey probe(key.length(), key.digest());
    if (auto const found = tree.find(probe); !found.ok() || !*found || probe.hash() != key.hash())
        fault(QStringLiteral("a key of length %1 can't be found by its digest").arg(key.length()));
    auto const found = contents_.find(contentOf(key.length(), key.digest()));
    if (found == contents_.end()) {
        fault(QStringLiteral("a key of length %1 and %2 references is of no stream")
                  .arg(key.length())
                  .arg(key.referenceCount()));
        return;
    }
    Content& content = found->second;
    if (content.keyed)
        fault(QStringLiteral("the content of stream %1 has two keys").arg(content.firstStream));
    content.keyed = true;
    if (content.streams != key.referenceCount())
        fault(QStringLiteral("the key of stream %1 has count %2, but %3 streams have its content")
                  .arg(content.firstStream)
                  .arg(key.referenceCount())
                  .arg(content.streams));
    if (content.record != fingerprint(key.record().bytes(), TreeRecord::streamSize))
        fault(QStringLiteral("the key of stream %1 names other blocks").arg(content.firstStream));
}

void PoolCheck::checkControl() {
    report_.figures.keys = keys_;
    if (!nodes_.isOpen())
        return;
    PoolControl const control(control_.data());
    auto const compare = [&](char const* what, std::uint64_t stored, std::uint64_t found) {
        if (stored != found)
            report_.fault(FaultKind::Control, nodes_.where(),
                          QStringLiteral("the control record says %1 %2, found were %3")
                              .arg(stored)
                              .arg(QLatin1String(what))
                              .arg(found));
    };
    compare("indexed streams", control.indexedStreams(), indexedStreams_);
    compare("unique streams", control.uniqueStreams(), keys_);
    compare("bytes in indexed streams", control.indexedData(), indexedData_);
    compare("bytes in unique streams", control.uniqueData(), keyData_);
}

void PoolCheck::readCleanupQueue() {
    auto const where = QStringLiteral("cleanupqueue");
    PagedQueue const queue(paths_.streams + "/cleanupqueue", cleanupPage, PagedQueue::ReadOnly{});
    std::uint64_t index = 0;
    bool const read = queue && queue.forEach([&](Extent const& bytes) {
        CleanupRequest request;
        if (!request.decode(bytes))
            report_.fault(
                FaultKind::Queue, where,
                QStringLiteral("entry %1 of %2 bytes is no request").arg(index).arg(bytes.size));
        else if (request.type == CleanupRequest::DeleteInfo)
            census_->add(TreeRecord::readOnly(request.record.data), request.record.size,
                         [=] { return QStringLiteral("%1, entry %2").arg(where).arg(index); });
        else if (hasStream(request.stream))
            streams_[request.stream.value].flags |= Waiting;
        ++index;
        return true;
    });
    if (!read)
        report_.fault(FaultKind::Unreadable, where, QStringLiteral("can't be read"));
}

void PoolCheck::checkDedupQueue() {
    auto const where = QStringLiteral("dedupqueue");
    PagedQueue const queue(paths_.streams + "/dedupqueue", dedupPage, PagedQueue::ReadOnly{});
    std::uint64_t index = 0;
    bool const read = queue && queue.forEach([&](Extent const& bytes) {
        DedupRequest request;
        if (!request.decode(bytes) || request.type < DedupRequest::DedupSnapshot ||
            request.type > DedupRequest::DedupVersion || request.value == 0)
            report_.fault(
                FaultKind::Queue, where,
                QStringLiteral("entry %1 of %2 bytes is no request").arg(index).arg(bytes.size));
        ++index;
        return true;
    });
    if (!read)
        report_.fault(FaultKind::Unreadable, where, QStringLiteral("can't be read"));
}

} // namespace Morva
