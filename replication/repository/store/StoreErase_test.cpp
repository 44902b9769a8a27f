#include "base/files/FaultyFiles.h"
#include "replication/repository/store/DedupWorker.h"
#include "replication/repository/store/StoreFixture.h"
#include "replication/repository/streams/Cleanup.h"

#include <QFile>

namespace Replication {
namespace {

/// Several stores over one pool; `store_` is the one that the fixture's operations work on.
class StoreErase : public StoreFixture {
protected:
    void createStore(std::uint64_t id) { create(StoreId{id}); }
    /// Deduplicates what the snapshots asked for, and works off the deletions.
    void work() {
        ASSERT_TRUE(DedupWorker(streams_).drain());
        ASSERT_TRUE(CleanupWorker(streams_).drain());
    }
    static void mark(std::uint64_t id) {
        StorePointer const store = open(StoreId{id});
        ASSERT_TRUE(store);
        ASSERT_TRUE(store->active(false));
        ASSERT_TRUE(store->markForDeletion());
    }
    static bool erase(std::uint64_t id) {
        StorePointer const store = open(StoreId{id}, true);
        return store && store->erase().ok();
    }
    /// What of the pool is in use.
    [[nodiscard]] std::string poolInUse() const {
        Morva::XmlList all;
        streams_->statistics(all);
        Morva::XmlList const list = all.getXmlList(nullptr, "Streams");
        std::string result;
        for (auto const* key : {"NodeCount", "StreamsUsedStreamData", "StreamsIndirectUsedSize",
                                "StreamsIndexedStreams", "StreamsUniqueStreams",
                                "StreamsDedupQueueLength", "StreamsCleanupQueueLength"})
            result +=
                std::string(key) + ' ' + std::to_string(list.get(key, std::uint64_t{0})) + '\n';
        return result;
    }
};

TEST_F(StoreErase, AStoreInAnyOtherStateIsLeftAlone) {
    createStore(1);
    ASSERT_TRUE(writeFile("a", "1"));
    EXPECT_TRUE(store_->erase()); // valid, and nobody was told
    EXPECT_EQ(QByteArray("1"), contentAt("a", snapshot()));
    QString const files = store_->path() + "/files";
    store_.reset();
    ASSERT_TRUE(QFile::rename(files + ".tree", files + ".away"));
    EXPECT_TRUE(erase(1)); // not valid, but nobody was told
    ASSERT_TRUE(QFile::rename(files + ".away", files + ".tree"));
    mark(1);
    store_ = open(StoreId{1}, true);
    ASSERT_TRUE(store_);
    EXPECT_TRUE(store_->close());
    EXPECT_TRUE(store_->erase()); // no control block
    EXPECT_TRUE(QFile::exists(files));

    createStore(0);
    EXPECT_TRUE(store_->active(false));
    EXPECT_TRUE(store_->markForDeletion()); // there is nobody to tell, so that counts as done
    EXPECT_TRUE(store_->erase());           // but it is valid
    EXPECT_TRUE(QFile::exists(store_->path() + "/files"));
}

TEST_F(StoreErase, APartlyErasedStoreAndStoreZeroGoAllTheSame) {
    std::string const empty = poolInUse();
    for (std::uint64_t const id : {1, 0}) {
        createStore(id);
        ASSERT_TRUE(writeFile("d/a", QByteArray(9000, 'x')));
        QString const path = store_->path();
        store_.reset();
        mark(id);
        QDir(path + "/snapshot").removeRecursively();
        EXPECT_TRUE(QFile::remove(path + "/files.tree"));
        EXPECT_TRUE(QFile::remove(path + "/files.ptrs.blocks"));
        EXPECT_TRUE(erase(id));
        EXPECT_FALSE(QDir(path).exists());
    }
    work();
    EXPECT_EQ(empty, poolInUse());
    EXPECT_EQ(1u, channel_->count(EventRecord::DeleteStore)); // of store 0 nobody is told
}

TEST_F(StoreErase, WhatTheDiskRefusedIsFreedTheNextTime) {
    std::string const empty = poolInUse();
    Morva::FaultyFiles files;
    bool failed = true;
    int interrupted = 0;
    for (std::uint64_t reads = 0; failed; reads += 1 + reads / 3) {
        SCOPED_TRACE("reads before the fault: " + std::to_string(reads));
        createStore(1);
        for (int i = 0; i < 20; ++i)
            ASSERT_TRUE(writeFile(QString("d/%1").arg(i), QByteArray(i * 1000, 'x')));
        for (int stream = 0; stream < 40; ++stream)
            ASSERT_TRUE(store_->paths().createStream(writing(), {"d", "0"},
                                                     QString("stream%1").arg(stream), {}));
        (void)snapshot();
        store_.reset();
        mark(1);
        closePool(); // so that nothing is in a cache
        openPool();
        {
            StorePointer const store = open(StoreId{1}, true);
            ASSERT_TRUE(store);
            std::uint64_t const faultsBefore = files.faults();
            files.failReadsAfter(reads);
            bool const erased = store->erase().ok();
            failed = files.faults() != faultsBefore;
            files.heal();
            if (!erased) {
                ++interrupted;
                EXPECT_TRUE(store->erase());
            }
        }
        EXPECT_FALSE(QDir(Store::directoryOf(StoreId{1})).exists());
        EXPECT_TRUE(streams_->flush());
        work();
        ASSERT_EQ(empty, poolInUse());
    }
    EXPECT_GT(interrupted, 2);
}

} // namespace
} // namespace Replication
