#include "base/trees/PagedQueue.h"
#include "replication/repository/store/DedupWorker.h"
#include "replication/repository/store/StoreFixture.h"
#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/DedupRequest.h"

#include <QFile>

namespace Replication {
namespace {

class Snapshots : public StoreFixture {
protected:
    [[nodiscard]] SnapshotList& list() const { return store_->snapshots(); }
    void drain() {
        EXPECT_TRUE(DedupWorker(streams_).drain());
        EXPECT_TRUE(CleanupWorker(streams_).drain());
    }
    [[nodiscard]] std::vector<std::uint32_t> instances() const {
        std::vector<std::uint32_t> result;
        for (auto const& file : list().all())
            result.push_back(file->instance().value);
        return result;
    }
};

TEST_F(Snapshots, KindsSayWhatTheyAre) {
    create();
    ASSERT_TRUE(writeFile("a", "1"));
    EXPECT_EQ(Instance{2}, snapshot("policy"));
    EXPECT_TRUE(list().userSnapshot(9, 100, "user"));
    EXPECT_TRUE(list().resyncSnapshot(101, "resync"));
    EXPECT_EQ(Instance{5}, *list().validateSnapshot());
    auto const files = list().all();
    ASSERT_EQ(5u, files.size());
    SnapshotType const types[] = {SnapshotType::Initial, SnapshotType::Policy, SnapshotType::User,
                                  SnapshotType::Synchronization, SnapshotType::Validate};
    QString const labels[] = {"", "policy", "user", "resync", "Validate"};
    for (std::size_t i = 0; i < files.size(); ++i) {
        EXPECT_EQ(types[i], files[i]->type());
        EXPECT_EQ(labels[i], files[i]->label());
        EXPECT_EQ(i, files[i]->previousInstance().value);
        EXPECT_EQ(types[i] == SnapshotType::Synchronization, files[i]->needResync());
    }
    EXPECT_EQ(1u, files[1]->fileCount());
    EXPECT_EQ(1u, channel_->count(EventRecord::SnapshotTaken));
    EXPECT_EQ(1u, channel_->count(EventRecord::UserSnapshot));
    EXPECT_EQ(1u, channel_->count(EventRecord::ResyncSnapshot));
    EXPECT_TRUE(list().updateSnapshot(Instance{4}, 1, 2, 3, true, "wanted"));
    EXPECT_TRUE(list().updateSnapshot(Instance{3}, 1, 2, 3, true, "no"));
    EXPECT_TRUE(list().updateSnapshot(Instance{77}, 1, 2, 3, true, "no"));
    reopen();
    EXPECT_EQ(SnapshotType::Policy, list().find(Instance{4})->type());
    EXPECT_EQ(QStringLiteral("wanted"), list().find(Instance{4})->label());
    EXPECT_EQ(QStringLiteral("user"), list().find(Instance{3})->label());
    EXPECT_EQ(Instance{5}, list().active()->instance());
}

TEST_F(Snapshots, LostEventsAndFullDisks) {
    create();
    channel_->refuse = true;
    EXPECT_EQ(Instance{2}, snapshot());
    // A file that can't be made leaves the store where it is.
    QString const next = store_->snapshotPath() + "/" + SnapshotFile::fileName(Instance{3});
    ASSERT_TRUE(QDir().mkpath(next));
    EXPECT_FALSE(list().userSnapshot(1, 1, "no"));
    EXPECT_EQ(Instance{2}, store_->currentInstance());
    EXPECT_TRUE(writeFile("a", "1"));
    QDir().rmdir(next);
    EXPECT_EQ(Instance{3}, snapshot());
    EXPECT_EQ(QByteArray("1"), contentAt("a", Instance{3}));
    reopen();
    EXPECT_EQ(Instance{3}, store_->currentInstance());
}

TEST_F(Snapshots, DeletionWaitsForTheNextSnapshotWhenActive) {
    create();
    EXPECT_TRUE(list().deleteSnapshot(Instance{1})); // active
    EXPECT_TRUE(list().deleteSnapshot(Instance{9})); // none
    drain();
    EXPECT_EQ((std::vector<std::uint32_t>{1}), instances());
    EXPECT_TRUE(list().retireRequested(Instance{1}));
    EXPECT_TRUE(list().retireRequested(Instance{9}));
    (void)snapshot();
    (void)snapshot();
    EXPECT_FALSE(list().retireRequested(Instance{2}));
    drain();
    EXPECT_EQ((std::vector<std::uint32_t>{2, 3}), instances());
    EXPECT_TRUE(list().deleteSnapshot(Instance{2}));
    EXPECT_TRUE(list().deleteSnapshot(Instance{2})); // asked for already
    drain();
    EXPECT_EQ((std::vector<std::uint32_t>{3}), instances());
    EXPECT_FALSE(QFile::exists(store_->snapshotPath() + "/snapshot0000000002"));
}

TEST_F(Snapshots, AnEntryOfAVersionThatHasNotEndedFreesNothing) {
    create();
    ASSERT_TRUE(writeFile("kept", "1"));
    ASSERT_TRUE(writeFile("changed", "1"));
    (void)snapshot();
    auto const located = value(store_->directories().locate({"kept"}, PathMode::DoNotBuildPath));
    ASSERT_TRUE(located.found);
    // As after a crash between the entry and the pages that it tells of.
    ASSERT_TRUE(list().active()->addEntry(located.key.fileId(), Instance{1}));
    // A version that is current once more, since the newer one went with the file.
    ASSERT_TRUE(writeFile("changed", "2"));
    ASSERT_TRUE(removeFile("changed"));
    (void)snapshot();
    EXPECT_TRUE(list().deleteSnapshot(Instance{1}));
    EXPECT_TRUE(list().deleteSnapshot(Instance{2}));
    drain();
    EXPECT_EQ((std::vector<std::uint32_t>{3}), instances());
    store_->directories().forget();
    EXPECT_EQ(2u, usedNodes()); // the root and the file that is kept
    reopen();
    EXPECT_EQ(QByteArray("1"), contentAt("kept", store_->currentInstance()));
    ASSERT_TRUE(writeFile("kept", "3"));
    EXPECT_EQ(QByteArray("1"), contentAt("kept", Instance{3}));
}

TEST_F(Snapshots, ValidationSnapshotsGoTogether) {
    create();
    EXPECT_TRUE(list().validateSnapshot());
    EXPECT_TRUE(list().validateSnapshot());
    EXPECT_TRUE(list().deleteValidateSnapshot()); // the active one is of the kind
    drain();
    EXPECT_EQ((std::vector<std::uint32_t>{1, 2, 3}), instances());
    (void)snapshot();
    drain();
    EXPECT_EQ((std::vector<std::uint32_t>{1, 2, 4}), instances());
    EXPECT_TRUE(list().deleteValidateSnapshot());
    drain();
    EXPECT_EQ((std::vector<std::uint32_t>{1, 4}), instances());
}

TEST_F(Snapshots, MarkingHasItsRules) {
    create();
    QString reason;
    EXPECT_FALSE(list().markSnapshot(reason, Instance{1})); // active
    EXPECT_EQ(QStringLiteral("The snapshot is in use.\n Note, it is not possible to delete the "
                             "latest snapshot"),
              reason);
    (void)snapshot();
    EXPECT_TRUE(list().resyncSnapshot(1, "r"));
    EXPECT_FALSE(list().markSnapshot(reason, Instance{2})); // the last indexed one
    EXPECT_FALSE(list().markSnapshot(reason, Instance{9}));
    EXPECT_EQ(QStringLiteral("The snapshot is unavailable, it may have already been retied"),
              reason);
    (void)snapshot();
    channel_->refuse = true;
    EXPECT_FALSE(list().markSnapshot(reason, Instance{2}));
    EXPECT_EQ(QStringLiteral("Invalid Id"), reason);
    channel_->refuse = false;
    EXPECT_TRUE(list().markSnapshot(reason, Instance{2}));
    EXPECT_TRUE(list().markSnapshot(reason, Instance{2}));
    EXPECT_EQ(1u, channel_->count(EventRecord::DeleteSnapshot));
    EXPECT_TRUE(list().markSnapshot(reason, Instance{1})); // never indexed
    reopen();
    EXPECT_TRUE(list().find(Instance{2})->markedForDeletion());
}

TEST_F(Snapshots, EqualContentsAreSharedAfterASnapshot) {
    create();
    QByteArray const content(300000, 'z');
    for (char const* name : {"a", "b", "c"})
        ASSERT_TRUE(writeFile(name, content));
    Instance const taken = snapshot();
    EXPECT_EQ(DedupState::Pending, list().find(taken)->dedupState());
    drain();
    auto const file = list().find(taken);
    EXPECT_EQ(DedupState::Deduplicated, file->dedupState());
    EXPECT_EQ(3u, file->dedupStatistics().streams);
    EXPECT_EQ(1u, file->dedupStatistics().uniqueStreams);
    EXPECT_EQ(1u, channel_->count(EventRecord::SnapshotDeduped));
    EXPECT_FALSE(QFile::exists(store_->snapshotPath() + "/dedup0000000002"));
    ASSERT_TRUE(writeFile("b", "other")); // a frozen stream is copied
    for (char const* name : {"a", "b", "c"})
        EXPECT_EQ(content, contentAt(name, taken));
    EXPECT_EQ(QByteArray("other"), contentAt("b", snapshot()));
    // Without deduplication there is no list.
    store_->settings(true, false, true, {});
    ASSERT_TRUE(writeFile("d", content));
    EXPECT_EQ(DedupState::None, list().find(snapshot())->dedupState());
    reopen();
    EXPECT_EQ(DedupState::Deduplicated, list().find(taken)->dedupState());
}

TEST_F(Snapshots, WorkerKeepsStoresOpenForFiveMinutes) {
    create();
    (void)snapshot();
    DedupWorker worker(streams_);
    ASSERT_TRUE(worker.start());
    EXPECT_FALSE(worker.start());
    ASSERT_TRUE(worker.drain()); // on this thread, with the worker held
    EXPECT_TRUE(worker.running());
    worker.stop();
    EXPECT_FALSE(worker.running());
    store_.reset();
    EXPECT_TRUE(Store::list().isEmpty());
    // A store that is gone needs nothing any more.
    EXPECT_TRUE(DedupRequests::dedupSnapshot(*streams_, StoreId{99}, Instance{1}));
    EXPECT_TRUE(worker.drain());
}

TEST_F(Snapshots, MarkingAStoreForDeletionEndsItsPassAndNoOther) {
    create();
    ASSERT_TRUE(writeFile("a", QByteArray(300000, 'a')));
    ASSERT_TRUE(writeFile("b", QByteArray(300000, 'b')));
    Instance const taken = snapshot();
    EXPECT_TRUE(DedupRequests::dedupSnapshot(*streams_, StoreId{99}, Instance{1}));
    streams_->freezing(true);
    DedupWorker worker(streams_, [this] {
        EXPECT_TRUE(store_->active(false));
        EXPECT_TRUE(store_->markForDeletion());
    });
    EXPECT_TRUE(worker.drain());
    EXPECT_NE(DedupState::Deduplicated, list().find(taken)->dedupState());
    EXPECT_EQ(1u, list().find(taken)->dedupStatistics().streams) << "the second file was not left";
    std::uint64_t waiting = 1;
    EXPECT_TRUE(streams_->dedupQueue().available(waiting));
    EXPECT_EQ(0u, waiting);
}

} // namespace
} // namespace Replication
