// The records of the pool.

#include "base/blocks/Blocks.h"
#include "base/blocks/FreeList.h"
#include "base/blocks/ReferenceCount.h"
#include "base/files/RawFile.h"
#include "base/trees/BPlusTree.h"
#include "base/trees/PagedQueue.h"
#include "peers/check/BlockFile.h"
#include "peers/check/Inspector.h"
#include "peers/check/Printable.h"
#include "peers/check/TreeReader.h"
#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/DedupKey.h"
#include "replication/repository/streams/DedupRequest.h"
#include "replication/repository/streams/RawRefCountedBlocks.h"
#include "replication/repository/streams/StreamNode.h"

namespace Morva {

using Replication::CleanupRequest;
using Replication::DedupKey;
using Replication::DedupRequest;
using Replication::Digest;
using Replication::PoolControl;
using Replication::RawRefCountedBlocks;
using Replication::StreamNode;
using Replication::TreeRecord;

namespace {

constexpr std::uint32_t cachePages = 256;
constexpr std::uint32_t headerBytes = 64, firstBytes = 256;
constexpr std::uint64_t cleanupPage = 10485760, dedupPage = 1048576;
constexpr int dataReservedBits = 16;

QString digestText(Digest const& digest) {
    if (digest.type == Digest::eRepDigestInvalid)
        return QStringLiteral("none");
    auto const value =
        QByteArray::fromRawData(reinterpret_cast<char const*>(digest.value.data()),
                                digest.type == Digest::eRepDigestSha1 ? Digest::sha1Size : 32);
    return QStringLiteral("type %1 ").arg(digest.type) + QString::fromLatin1(value.toHex());
}

} // namespace

void Inspector::header(QString const& path) {
    Blocks blocks(1);
    say(path);
    if (blocks.open(path, 0, RawFile::Mode::ReadOnly)) {
        say(QStringLiteral("  blocks of %1 bytes: %2, the header counted; %3 free; largest number "
                           "%4")
                .arg(blocks.blockSize())
                .arg(blocks.blockCount())
                .arg(blocks.freeCount())
                .arg(blocks.mask()));
        if (!blocks.forEachFree([](std::uint64_t) { return true; }))
            fault(QStringLiteral("the chain of free blocks is damaged"));
        return;
    }
    fault(path + QStringLiteral(" has no sound header"));
    auto const file = RawFile::make();
    std::vector<std::uint8_t> bytes(headerBytes);
    if (file->open(path, RawFile::Mode::ReadOnly))
        if (auto const got = file->readAt(0, bytes.data(), headerBytes))
            hexDump(bytes.data(), *got);
}

void Inspector::headers(Words) {
    auto const file = RawFile::make();
    QString const data = paths_.streamData + "/data.blocks";
    say(data);
    RawRefCountedBlocks::Control control;
    if (!file->open(data, RawFile::Mode::ReadOnly))
        fault(data + QStringLiteral(" can't be opened"));
    else if (!RawRefCountedBlocks::readControl(*file, control))
        fault(data + QStringLiteral(" has no sound control block"));
    auto const length = file->isOpen() ? file->length() : std::uint64_t{0};
    if (!length)
        fault(length.status().text());
    say(QStringLiteral("  next block %1, mask %2, blocks of %3 bytes; room for %4")
            .arg(control.nextBlock)
            .arg(hexNumber(control.mask))
            .arg(control.blockSize)
            .arg(length ? *length / TreeReader::blockSize : 0));
    for (char const* name : {"/indirectdata.blocks", "/nodes", "/dedup.tree"})
        header(paths_.streams + QLatin1String(name));
    auto const stores = FileSystem::inForce().names(paths_.stores, FileSystem::Kind::Directory);
    if (!stores)
        return fault(stores.status().text());
    for (QString const& store : *stores)
        for (char const* name : {"/files", "/files.ptrs.blocks", "/files.tree"})
            header(paths_.stores + "/" + store + QLatin1String(name));
}

void Inspector::pool(Words) {
    std::vector<std::uint8_t> bytes;
    if (!record(paths_.streams + "/nodes", StreamNode::size, Blocks::firstBlock(), bytes))
        return;
    PoolControl const control(bytes.data());
    say(QStringLiteral("instance %1").arg(control.instance()));
    say(QStringLiteral("indexed streams %1, bytes %2")
            .arg(control.indexedStreams())
            .arg(control.indexedData()));
    say(QStringLiteral("unique streams %1, bytes %2")
            .arg(control.uniqueStreams())
            .arg(control.uniqueData()));
}

void Inspector::stream(Words words) {
    std::uint64_t id = 0;
    std::vector<std::uint8_t> bytes;
    if (!number(words[0], id) || !record(paths_.streams + "/nodes", StreamNode::size, id, bytes))
        return;
    StreamNode const node(bytes.data());
    if (id == Blocks::firstBlock() || node.id().value != id) {
        fault(QStringLiteral("block %1 is no stream; its first word is %2")
                  .arg(id)
                  .arg(node.id().value));
        hexDump(bytes.data(), StreamNode::recordAt);
    }
    say(QStringLiteral("stream %1: reference count %2, %3, %4")
            .arg(id)
            .arg(node.referenceCount())
            .arg(node.indexed() ? QStringLiteral("indexed") : QStringLiteral("not indexed"),
                 node.frozen() ? QStringLiteral("frozen") : QStringLiteral("not frozen")));
    say(QStringLiteral("  digest %1").arg(digestText(node.digest())));
    tree(node.record(), TreeRecord::streamSize);
}

void Inspector::count(QString const& path, std::uint64_t block) {
    ReferenceCount counts(1);
    std::uint32_t count = 0;
    if (!counts.open(path, ~std::uint64_t{0} >> dataReservedBits, 0, RawFile::Mode::ReadOnly) ||
        !counts.count(count, block))
        fault(path + QStringLiteral(" can't tell the count"));
    else
        say(QStringLiteral("block %1: reference count %2").arg(block).arg(count));
}

void Inspector::dataBlock(Words words) {
    std::uint64_t block = 0;
    if (!number(words[0], block))
        return;
    count(paths_.streamData + "/data.refs", block);
    std::vector<std::uint8_t> bytes;
    if (record(paths_.streamData + "/data.blocks", TreeReader::blockSize, block, bytes))
        hexDump(bytes.data(), firstBytes);
}

void Inspector::indirectBlock(Words words) {
    std::uint64_t block = 0;
    if (!number(words[0], block))
        return;
    count(paths_.streams + "/indirectdata.refs", block);
    std::vector<std::uint8_t> bytes;
    if (record(paths_.streams + "/indirectdata.blocks", TreeReader::blockSize, block, bytes))
        runs(bytes.data(), TreeReader::fanOut, 2);
}

void Inspector::freeList(Words) {
    QString const path = paths_.streamData + "/data.free";
    FreeList list(1);
    if (!list.open(path, ~std::uint64_t{0} >> dataReservedBits, RawFile::Mode::ReadOnly))
        return fault(path + QStringLiteral(" is no sound free list"));
    say(QStringLiteral("%1 numbers are free").arg(list.count()));
    if (!list.forEach([this](std::uint64_t first, std::uint64_t count) {
            say(QStringLiteral("  %1 to %2").arg(first).arg(first + count - 1));
            return lines_ < mostLines;
        }))
        fault(QStringLiteral("a run of numbers is damaged"));
}

void Inspector::keys(Words) {
    BPlusTree index(cachePages);
    if (!index.open(paths_.streams + "/dedup.tree", RawFile::Mode::ReadOnly))
        return fault(QStringLiteral("dedup.tree is no sound tree"));
    say(QStringLiteral("%1 keys").arg(index.keyCount()));
    DedupKey key;
    Morva::Status const whole = index.forEach([&](Extent const& stored) {
        if (!key.restore(stored))
            fault(QStringLiteral("a key has %1 bytes").arg(stored.size));
        else
            say(QStringLiteral("  length %1, digest %2, streams %3, first entry %4")
                    .arg(key.length())
                    .arg(digestText(key.digest()))
                    .arg(key.referenceCount())
                    .arg(key.record().entry(0)));
        return lines_ < mostLines;
    });
    QStringList faults;
    if (!whole || !index.verify(faults))
        for (QString const& text : faults)
            fault(text);
}

void Inspector::queue(Words words) {
    if (words[0] == QLatin1String("cleanup"))
        cleanupQueue();
    else if (words[0] == QLatin1String("dedup"))
        dedupQueue();
    else
        usage_ = true;
}

void Inspector::cleanupQueue() {
    PagedQueue const queue(paths_.streams + "/cleanupqueue", cleanupPage, PagedQueue::ReadOnly{});
    bool const read = queue && queue.forEach([this](Extent const& bytes) {
        CleanupRequest request;
        if (!request.decode(bytes)) {
            fault(QStringLiteral("an entry of %1 bytes is no request").arg(bytes.size));
            hexDump(bytes.data, std::min(bytes.size, firstBytes));
        } else if (request.type == CleanupRequest::DeleteStream) {
            say(QStringLiteral("delete stream %1").arg(request.stream.value));
        } else {
            say(QStringLiteral("release a tree"));
            tree(TreeRecord::readOnly(request.record.data), request.record.size);
        }
        return lines_ < mostLines;
    });
    std::uint64_t waiting = 0;
    if (!read || !queue.available(waiting))
        return fault(QStringLiteral("cleanupqueue can't be read"));
    say(QStringLiteral("%1 requests wait").arg(waiting));
}

void Inspector::dedupQueue() {
    PagedQueue const queue(paths_.streams + "/dedupqueue", dedupPage, PagedQueue::ReadOnly{});
    bool const read = queue && queue.forEach([this](Extent const& bytes) {
        DedupRequest request;
        if (!request.decode(bytes)) {
            fault(QStringLiteral("an entry of %1 bytes is no request").arg(bytes.size));
            hexDump(bytes.data, std::min(bytes.size, firstBytes));
            return true;
        }
        static char const* const texts[] = {"unknown", "deduplicate snapshot", "delete snapshot",
                                            "deduplicate version"};
        if (request.type == 0 || request.type > DedupRequest::DedupVersion)
            fault(QStringLiteral("a request has type %1").arg(request.type));
        else
            say(QStringLiteral("store %1: %2 %3")
                    .arg(request.store.value)
                    .arg(QLatin1String(texts[request.type]))
                    .arg(request.value));
        return lines_ < mostLines;
    });
    std::uint64_t waiting = 0;
    if (!read || !queue.available(waiting))
        return fault(QStringLiteral("dedupqueue can't be read"));
    say(QStringLiteral("%1 requests wait").arg(waiting));
}

} // namespace Morva
