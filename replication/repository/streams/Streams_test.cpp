#include "replication/repository/streams/Streams.h"

#include "base/files/FaultyFiles.h"
#include "base/messages/XmlList.h"
#include "base/values/Sha1.h"
#include "replication/repository/streams/DedupRequest.h"
#include "replication/repository/streams/TestSupport.h"

#include <QFile>

using namespace Replication;
using namespace Replication::Test;

namespace {

struct StreamPool : testing::Test {
    Pool pool;
    std::vector<std::uint64_t> const empty = usage(*pool.streams);
    std::vector<std::uint8_t> const data = std::vector<std::uint8_t>(10000, 3);
    DedupStatistics statistics;
    std::vector<std::uint8_t> room = std::vector<std::uint8_t>(65536);

    std::shared_ptr<StreamHandle> make(std::uint32_t size) {
        auto stream = pool.make();
        stream->write(0, data.data(), size);
        return stream;
    }
    bool dedup(StreamId id) {
        Morva::Extent buffer(room.data(), static_cast<std::uint32_t>(room.size()));
        return pool.streams->dedupStream({}, id, statistics, buffer);
    }
    StreamInfo info(StreamHandle& stream) {
        StreamInfo result;
        stream.info(result);
        return result;
    }
    std::string audit() { return Audit(*pool.streams).run(); }
    void discard(std::shared_ptr<StreamHandle>& stream) {
        stream->releaseReference();
        stream.reset();
    }
};

} // namespace

TEST_F(StreamPool, HandleIsOneForAllAndNoneForAStaleId) {
    ASSERT_TRUE(static_cast<bool>(*pool.streams));
    auto stream = make(100);
    StreamId const id = stream->id();
    EXPECT_EQ(pool.streams->handle(id, false), stream);
    discard(stream);
    EXPECT_FALSE(pool.streams->handle(id, true)) << "without blocks it goes with its last handle";
    EXPECT_FALSE(pool.streams->handle(StreamId{1}, true)) << "the control record is no stream";
    EXPECT_FALSE(pool.streams->handle(StreamId{999999}, true));
    EXPECT_FALSE(pool.streams->handle(StreamId{0}, true));
    EXPECT_EQ(pool.streams->openStreams(), 0u);
    EXPECT_EQ(usage(*pool.streams), empty);
}

TEST_F(StreamPool, StreamWithBlocksGoesWhenItsRequestIsWorked) {
    auto stream = make(200);
    StreamId const id = stream->id();
    discard(stream);
    stream = pool.streams->handle(id, true);
    ASSERT_TRUE(stream) << "the node stays until then";
    EXPECT_TRUE(pool.cleanup->drain());
    EXPECT_EQ(pool.streams->handle(id, true), stream) << "an open stream stays";
    stream->addReference();
    stream.reset();
    EXPECT_TRUE(pool.streams->requestDeleteStream(id));
    EXPECT_TRUE(pool.streams->requestDeleteStream(id));
    EXPECT_TRUE(pool.cleanup->drain());
    stream = pool.streams->handle(id, true);
    ASSERT_TRUE(stream) << "a stream with a reference stays";
    discard(stream);
    EXPECT_TRUE(pool.streams->requestDeleteStream(id));
    EXPECT_TRUE(pool.cleanup->drain());
    EXPECT_FALSE(pool.streams->handle(id, true));
    EXPECT_EQ(usage(*pool.streams), empty);
}

TEST_F(StreamPool, StopKeepsDeletionsForTheNextRun) {
    auto deleted = make(5000);
    auto saved = make(100);
    StreamId const deletedId = deleted->id();
    StreamId const savedId = saved->id();
    pool.streams->stop();
    EXPECT_FALSE(pool.streams->deleteStream(StreamId{5}));
    EXPECT_FALSE(pool.cleanup->drain());
    saved->releaseReference();
    saved->saveStream();
    saved.reset();
    discard(deleted);
    std::uint64_t waiting = 9;
    static_cast<void>(pool.streams->cleanupQueue().available(waiting));
    EXPECT_EQ(waiting, 0u);
    pool.reopen();
    static_cast<void>(pool.streams->cleanupQueue().available(waiting));
    EXPECT_EQ(waiting, 1u);
    EXPECT_TRUE(pool.cleanup->drain());
    EXPECT_FALSE(pool.streams->handle(deletedId, true));
    saved = pool.streams->handle(savedId, true);
    EXPECT_TRUE(saved) << "a saved stream is taken up again";
}

TEST_F(StreamPool, ChangesWipeTheDigestAndNothingElseDoes) {
    auto stream = make(300);
    Digest digest;
    digest.type = Digest::eRepDigestSha1;
    digest.value[3] = 9;
    auto const hasDigest = [&] { return info(*stream).digest.type != Digest::eRepDigestInvalid; };
    stream->digest(digest);
    EXPECT_EQ(info(*stream).digest, digest);
    stream->write(0, data.data(), 0);
    stream->truncate(200, StreamHandle::growOnly);
    stream->zeroData(5, 5);
    EXPECT_TRUE(hasDigest());
    EXPECT_EQ(stream->length(), 300u);
    stream->write(0, data.data(), 1);
    EXPECT_FALSE(hasDigest());
    stream->digest(digest);
    stream->truncate(400, StreamHandle::growOnly);
    EXPECT_FALSE(hasDigest());
    EXPECT_EQ(stream->length(), 400u);
    stream->digest(digest);
    stream->zeroData(0, 1);
    EXPECT_FALSE(hasDigest());
    stream->releaseReference();
    stream->releaseReference();
    EXPECT_EQ(stream->referenceCount(), 0u);
}

TEST_F(StreamPool, FrozenAndSharedStreamsAreCopiedForAWriter) {
    auto stream = make(10000);
    std::shared_ptr<StreamHandle> copy;
    EXPECT_TRUE(stream->copyOnWrite(copy));
    EXPECT_FALSE(copy) << "a private stream is its writer's";
    stream->addReference();
    EXPECT_TRUE(stream->copyOnWrite(copy));
    ASSERT_TRUE(copy);
    EXPECT_NE(copy->id(), stream->id());
    EXPECT_EQ(stream->referenceCount(), 1u);
    EXPECT_EQ(copy->referenceCount(), 1u);
    copy->write(5000, "abc", 3);
    char got[4] = {};
    EXPECT_EQ(stream->read(5000, got, 3), 3u);
    EXPECT_EQ(got[0], 3);

    ASSERT_TRUE(stream->prepareDedup(statistics));
    EXPECT_TRUE(stream->write(0, "abc", 3)) << "reports success";
    EXPECT_EQ(stream->read(0, got, 3), 3u);
    EXPECT_EQ(got[0], 3) << "and changes nothing";
    EXPECT_FALSE(stream->truncate(5));
    EXPECT_FALSE(stream->zeroData(0, 5));
    std::shared_ptr<StreamHandle> second;
    EXPECT_TRUE(stream->copyOnWrite(second));
    ASSERT_TRUE(second);
    EXPECT_EQ(stream->referenceCount(), 0u);
    stream.reset();
    EXPECT_EQ(audit(), "");
    discard(copy);
    discard(second);
    EXPECT_TRUE(pool.cleanup->drain());
    EXPECT_EQ(usage(*pool.streams), empty);
}

TEST_F(StreamPool, EqualStreamsShareOneTree) {
    auto one = make(10000);
    auto two = make(10000);
    auto small = make(184);
    auto other = make(9999);
    for (auto const& stream : {one, two, small, other})
        EXPECT_TRUE(dedup(stream->id()));
    EXPECT_EQ(statistics, (DedupStatistics{0, 3, 2, 29999, 19999}));
    EXPECT_TRUE(info(*two).indexed);
    EXPECT_FALSE(info(*small).indexed) << "inline streams aren't worth a key";
    EXPECT_FALSE(small->truncate(1)) << "but frozen";
    EXPECT_EQ(audit(), "");
    EXPECT_TRUE(pool.cleanup->drain());
    EXPECT_EQ(pool.streams->data().blocksUsed(nullptr) - empty[0], 6u);
    Morva::Sha1 sha;
    sha.addData(data.data(), 10000);
    EXPECT_EQ(std::memcmp(info(*one).digest.value.data(), sha.result().data, 20), 0);
    EXPECT_TRUE(pool.streams->findDedup(10000, info(*one).digest));
    EXPECT_FALSE(pool.streams->findDedup(10001, info(*one).digest));
    EXPECT_TRUE(dedup(one->id())) << "once is enough";
    EXPECT_EQ(statistics.streams, 3u);

    discard(one);
    EXPECT_TRUE(pool.cleanup->drain());
    EXPECT_EQ(audit(), "");
    std::vector<std::uint8_t> got(10000);
    EXPECT_EQ(two->read(0, got.data(), 10000), 10000u);
    EXPECT_EQ(got, data);
    for (auto* stream : {&two, &small, &other})
        discard(*stream);
    EXPECT_TRUE(pool.cleanup->drain());
    EXPECT_EQ(usage(*pool.streams), empty);
    QByteArray record = pool.streams->controlRecord();
    PoolControl const control(record.data());
    EXPECT_EQ(control.indexedData() + control.uniqueData(), 0u);
}

TEST_F(StreamPool, KnownContentReplacesAStreamWithoutItsData) {
    auto one = make(10000);
    auto other = make(9000);
    ASSERT_TRUE(dedup(one->id()));
    ASSERT_TRUE(dedup(other->id()));
    auto target = make(5000);
    Digest const digest = info(*one).digest;
    EXPECT_FALSE(target->useDedup(10001, digest));
    target->addReference();
    EXPECT_FALSE(target->useDedup(10000, digest)) << "others name the stream too";
    target->releaseReference();
    EXPECT_TRUE(target->useDedup(10000, digest));
    EXPECT_EQ(audit(), "");
    EXPECT_EQ(target->length(), 10000u);
    EXPECT_FALSE(target->truncate(1)) << "frozen from now on";
    EXPECT_TRUE(target->useDedup(10000, digest)) << "it has that content already";
    EXPECT_TRUE(target->useDedup(9000, info(*other).digest)) << "from one key to another";
    EXPECT_EQ(audit(), "");
    EXPECT_TRUE(one->useDedup(9000, info(*other).digest));
    EXPECT_FALSE(pool.streams->findDedup(10000, digest)) << "its last stream has left the key";
    EXPECT_TRUE(pool.cleanup->drain());
    EXPECT_EQ(audit(), "");
    EXPECT_EQ(one->length(), 9000u);
    for (auto* stream : {&one, &other, &target})
        discard(*stream);
    EXPECT_TRUE(pool.cleanup->drain());
    EXPECT_EQ(usage(*pool.streams), empty);
}

TEST_F(StreamPool, DedupLeavesWhatItCantOrNeedNotHash) {
    auto known = make(10000);
    auto unread = make(10000);
    auto unused = make(10000);
    Digest digest;
    digest.type = Digest::eRepDigestSha1;
    digest.value[0] = 1;
    known->digest(digest);
    digest.type = 2;
    unread->digest(digest);
    EXPECT_EQ(info(*unread).digest.type, 0u) << "nobody could tell such contents apart";
    room.resize(0);
    EXPECT_TRUE(dedup(known->id()));
    EXPECT_TRUE(info(*known).indexed) << "no byte of it was read";
    room.resize(4096);
    unused->releaseReference();
    EXPECT_TRUE(dedup(unused->id()));
    EXPECT_FALSE(info(*unused).indexed);
    EXPECT_TRUE(unused->truncate(5)) << "not even frozen";
    EXPECT_TRUE(dedup(StreamId{4711}));
    int asked = 0;
    pool.streams->freezing(true);
    Morva::Extent buffer(room.data(), 4096);
    EXPECT_TRUE(pool.streams->dedupStream([&asked] { ++asked; }, unread->id(), statistics, buffer));
    EXPECT_EQ(asked, 4) << "before the stream, and before each of three reads";
    pool.streams->stop();
    EXPECT_FALSE(dedup(known->id()));
}

TEST_F(StreamPool, MissingFilesNeverMakeANewPoolOfAnOldOne) {
    QString const root = pool.directory.path();
    for (char const* name :
         {"/data/data.refs", "/data/data.blocks", "/data/data.free", "/streams/nodes",
          "/streams/indirectdata.blocks", "/streams/dedup.tree", "/streams/cleanupqueue"}) {
        SCOPED_TRACE(name);
        auto stream = make(1000);
        stream.reset();
        pool.close();
        ASSERT_TRUE(QFile::rename(root + name, root + "/away"));
        pool.open();
        EXPECT_FALSE(static_cast<bool>(*pool.streams));
        pool.close();
        EXPECT_FALSE(QFile::exists(root + name)) << "nothing is made";
        ASSERT_TRUE(QFile::rename(root + "/away", root + name));
        pool.open();
        ASSERT_TRUE(static_cast<bool>(*pool.streams));
    }
    EXPECT_EQ(audit(), "");
    EXPECT_EQ(usage(*pool.streams)[2], 7u);
}

TEST_F(StreamPool, FailedReadsAtOpeningLeaveEverythingAsItIs) {
    QString const root = pool.directory.path();
    auto stream = make(10000);
    StreamId const id = stream->id();
    stream.reset();
    pool.close();
    auto const contents = [&root] {
        QByteArray all;
        for (char const* name : {"/data/data.blocks", "/data/data.free", "/streams/nodes",
                                 "/streams/dedup.tree", "/streams/cleanupqueue"}) {
            QFile file(root + name);
            EXPECT_TRUE(file.open(QIODevice::ReadOnly));
            all += file.readAll();
        }
        return all;
    };
    QByteArray const before = contents();
    bool failed = true;
    for (std::uint64_t n = 0; failed; ++n) {
        SCOPED_TRACE(n);
        Morva::FaultyFiles disk;
        disk.failReadsAfter(n); // this one and all behind it
        pool.open();
        failed = disk.faults() != 0;
        EXPECT_EQ(static_cast<bool>(*pool.streams), !failed);
        pool.close();
        ASSERT_EQ(contents(), before);
    }
    pool.open();
    ASSERT_TRUE(static_cast<bool>(*pool.streams));
    EXPECT_EQ(pool.streams->handle(id, false)->length(), 10000u);
}

TEST_F(StreamPool, KeyThatCannotBeReadKeepsItsStream) {
    auto one = make(10000);
    StreamId const id = one->id();
    EXPECT_TRUE(dedup(id));
    Digest const digest = info(*one).digest;
    one->releaseReference();
    one.reset();
    pool.close();
    {
        Morva::FaultyFiles disk;
        pool.open();
        disk.onlyNamesEndingWith("dedup.tree");
        disk.failReadsAfter(0);
        EXPECT_TRUE(pool.cleanup->drain());
        disk.heal();
    }
    EXPECT_TRUE(pool.streams->findDedup(10000, digest));
    EXPECT_EQ(audit(), "");
    EXPECT_TRUE(pool.streams->flush());
    EXPECT_TRUE(pool.cleanup->drain());
    EXPECT_FALSE(pool.streams->findDedup(10000, digest));
    EXPECT_EQ(usage(*pool.streams), empty);
}

TEST_F(StreamPool, StatisticsHaveTheirKeysAndRows) {
    auto stream = make(10000);
    ASSERT_TRUE(DedupRequests::dedupVersion(*pool.streams, StoreId{1}, 2));
    Morva::XmlList result;
    pool.streams->statistics(result);
    Morva::XmlList const list = result.getXmlList(nullptr, "Streams");
    QStringList lines;
    pool.streams->report(lines);
    ASSERT_EQ(lines.size(), 3 + static_cast<qsizetype>(list.size()));
    EXPECT_EQ(lines.mid(0, 2).join(' ') + lines.last(),
              "<H2>Repository Streams</H2> <TABLE></TABLE>");
    QStringList keys, labels;
    qsizetype line = 2;
    for (Morva::XmlListIterator entry(list); entry; ++entry, ++line) {
        QStringList const row = lines[line].split("<TD align=\"right\">");
        keys << entry.name();
        labels << row.first().mid(QString("<TR><TD>").size());
        EXPECT_EQ(row.last(), QString::number(entry.getUint64())) << lines[line].toStdString();
    }
    EXPECT_EQ(keys.join(' '),
              "NodeCount TotalNodeData UsedNodeData StreamsNodeCacheHits StreamsNodeCacheMisses "
              "StreamsNodeCacheSize StreamsIndexedStreams StreamsUniqueStreams StreamsIndexedData "
              "StreamsUniqueData StreamsDedupCacheHits StreamsDedupCacheMisses "
              "StreamsDedupCacheSize StreamsTotalStreamData StreamsUsedStreamData "
              "StreamsRefCountCacheHits StreamsRefCountCacheMisses StreamsRefCountCacheSize "
              "StreamsIndirectTotalSize StreamsIndirectUsedSize StreamsIndirectBlockCacheHits "
              "StreamsIndirectBlockCacheMisses StreamsIndirectBlockCacheSize "
              "StreamsIndirectRefCountCacheHits StreamsIndirectRefCountCacheMisses "
              "StreamsIndirectRefCountCacheSize StreamsDedupQueueLength StreamsCleanupQueueLength");
    EXPECT_EQ(
        labels.join(", "),
        "Total Streams, Total Stream Node Data, Used Stream Node Data, Node Cache Hits, Node "
        "Cache Misses, Node Cache Size, Indexed Streams, Unique Streams, Indexed Data, Unique "
        "Data, Dedup Cache Hits, Dedup Cache Misses, Dedup Cache Size, Total Stream Data, "
        "Used Stream Data, Stream Reference Count Cache Hits, Stream Reference Count Cache "
        "Misses, Stream Reference Count Cache Size, Total Stream Indirect Data, Used Stream "
        "Indirect Data, Stream Indirect Block Cache Hits, Stream Indirect Block Cache Misses, "
        "Stream Indirect Block Cache Size, Stream Indirect Reference Count Cache Hits, Stream "
        "Indirect Reference Count Cache Misses, Stream Indirect Reference Count Cache Size, "
        "Dedup Queue Length, Cleanup Queue Length");
    EXPECT_EQ(list.getUint64(nullptr, "StreamsUsedStreamData"), 4u * 4096);
    EXPECT_EQ(list.getUint64(nullptr, "StreamsDedupQueueLength"), 1u);

    Morva::XmlList settings;
    settings.set("DataGrowSize", std::uint64_t{5});
    settings.set("NodeRandomAccess", true);
    Streams::Configuration const configuration = Streams::configure(settings);
    EXPECT_EQ(configuration.dataGrowSize, 5u);
    EXPECT_TRUE(configuration.nodeRandomAccess);
    EXPECT_EQ(configuration.dedupCacheSize, 1024u);
}
