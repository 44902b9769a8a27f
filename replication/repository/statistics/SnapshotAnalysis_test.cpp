#include "replication/repository/statistics/SnapshotAnalysis.h"

#include "replication/repository/store/StoreFixture.h"

#include <QFile>

namespace Replication {
namespace {

using State = SnapshotAnalysis::State;

class SnapshotAnalyses : public StoreFixture {
protected:
    [[nodiscard]] FileHandle handle(Instance instance) const {
        return value(store_->fileHandle(store_->rootId(), instance, FileHandle::Snapshot));
    }
    static std::string figures(SnapshotAnalysis const& analysis) {
        return std::to_string(analysis.logicalSize()) + ' ' +
               std::to_string(analysis.directoryCount()) + ' ' +
               std::to_string(analysis.fileCount());
    }
    /// The figures of the whole walk, and how many steps it took.
    static std::string run(FileHandle const& snapshot, int* steps = nullptr) {
        SnapshotAnalysis analysis(snapshot);
        int taken = 0;
        for (; analysis.state() == State::Walking; ++taken)
            (void)analysis.step();
        if (steps)
            *steps = taken;
        return analysis.state() == State::Done ? figures(analysis) : "failed";
    }
};

TEST_F(SnapshotAnalyses, CountEachFileOnceInAStepForEachDirectory) {
    create();
    for (auto const& [path, size] :
         {std::pair{"a/b/one", 5000}, {"a/two", 10}, {"three", 0}, {"d/gone", 7}})
        ASSERT_TRUE(writeFile(path, QByteArray(size, 'x')));
    ASSERT_TRUE(store_->paths().link(writing(), {"a", "two"}, {"a", "b", "again"}));
    FileContext liveOnly = writing(); // snapshots don't have what such a context makes
    liveOnly.opType = NotToBackup::eLiveOnly;
    ASSERT_TRUE(store_->paths().createStream(liveOnly, {"a", "passing"}, dataStreamName, {}));
    Instance const first = snapshot();
    // What comes later doesn't show in it, though the node of a second name changes in place.
    ASSERT_TRUE(store_->paths().link(writing(), {"a", "two"}, {"third name"}));
    ASSERT_TRUE(removeFile("a/two"));
    ASSERT_TRUE(writeFile("a/b/one", QByteArray(90000, 'y')));
    Instance const second = snapshot();
    int steps = 0;
    EXPECT_EQ("5017 3 4", run(handle(first), &steps));
    EXPECT_EQ(4, steps); // the root as well
    EXPECT_EQ("90017 3 4", run(handle(second)));
    // From the record the second time, also of a store opened anew.
    reopen();
    SnapshotAnalysis again(handle(first));
    EXPECT_EQ(State::Done, again.state());
    EXPECT_TRUE(again.known());
    EXPECT_EQ("5017 3 4", figures(again));
}

TEST_F(SnapshotAnalyses, EndWhenTheSnapshotIsToGoOrIsntThere) {
    create();
    ASSERT_TRUE(writeFile("a/b/one", "1"));
    Instance const first = snapshot();
    (void)snapshot();
    SnapshotAnalysis analysis(handle(first));
    EXPECT_EQ(State::Walking, analysis.step());
    EXPECT_TRUE(store_->snapshots().deleteSnapshot(first));
    EXPECT_EQ(State::Failed, analysis.step());
    EXPECT_EQ(State::Failed, analysis.step());
    EXPECT_EQ("failed", run(handle(Instance{99})));
    FileHandle elsewhere = handle(Instance{3});
    elsewhere.store = StoreId{5};
    EXPECT_EQ("failed", run(elsewhere));
    FileHandle const good = handle(Instance{3});
    auto bytes = good.encode();
    EXPECT_EQ(good, SnapshotAnalysis::requested(Morva::Extent(bytes.data(), 32)));
    EXPECT_FALSE(SnapshotAnalysis::requested(Morva::Extent(bytes.data(), 31)));
    bytes[16] = FileHandle::Passive;
    EXPECT_FALSE(SnapshotAnalysis::requested(Morva::Extent(bytes.data(), 32)));
}

TEST_F(SnapshotAnalyses, ADamagedDirectoryStoresNoFigures) {
    create();
    ASSERT_TRUE(writeFile("a/one", "1"));
    Instance const instance = snapshot();
    StreamId const pages = [&] {
        auto const node = value(store_->passiveHandle({"a"}, instance));
        return value(node->openStream(dataStreamName))->id();
    }();
    std::uint32_t const entryLength = 7; // no multiple of 4
    ASSERT_TRUE(streams_->handle(pages, false)->write(32, &entryLength, 4, true));
    EXPECT_EQ("failed", run(handle(instance)));
    EXPECT_FALSE(store_->snapshots().find(instance)->analyzed());
}

} // namespace
} // namespace Replication
