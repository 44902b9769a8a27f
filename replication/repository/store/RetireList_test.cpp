#include "base/process/Context.h"
#include "replication/repository/store/DedupWorker.h"
#include "replication/repository/store/StoreFixture.h"

#include <QFile>

namespace Replication {
namespace {

class RetireLists : public StoreFixture {
protected:
    [[nodiscard]] RetireList& list() const { return store_->retired(); }
    /// A node that a version can be about, and a version of that name.
    [[nodiscard]] FileNode::Pointer node(QString const& name) {
        EXPECT_TRUE(writeFile(name, "x"));
        Instance const seen = snapshot();
        return value(store_->passiveHandle({name}, seen));
    }
    [[nodiscard]] static Version version(QString const& name, FileNode const& of,
                                         std::uint64_t previous = 0) {
        Version result;
        result.fileNode = of.id();
        result.prevFileNode = NodeNumber{previous};
        result.directory = FileId{129};
        result.path = {name};
        result.ruleSet = 5;
        result.rules = {1};
        return result;
    }
    /// Ends a version of that name.
    void retire(QString const& name, FileNode::Pointer const& of, bool final = true) {
        Version ended = version(name, *of);
        list().retiredVersion(ended, of, final);
    }
    [[nodiscard]] std::size_t sent() const {
        return channel_->count(EventRecord::VersionEnded) +
               channel_->count(EventRecord::VersionWeak) +
               channel_->count(EventRecord::VersionResync);
    }
};

TEST_F(RetireLists, AFinalVersionGoesAfterFiveSecondsOfTheStoresClock) {
    create();
    auto const file = node("a");
    list().timeStamp(5000);
    Version ended = version("a", *file);
    list().retiredVersion(ended, file, true);
    EXPECT_FALSE(ended.versioned());
    EXPECT_EQ(1u, list().size());
    list().timeStamp(5004);
    EXPECT_EQ(0u, sent());
    list().timeStamp(4000); // the clock never goes back
    EXPECT_EQ(5004u, list().timeStamp());
    list().timeStamp(5005);
    EXPECT_EQ(1u, channel_->count(EventRecord::VersionEnded));
    EXPECT_EQ(file->id().value, channel_->events.back().object.id);
    EXPECT_EQ(1u, file->versionCount());
    EXPECT_EQ(0u, list().size());
    // That claim is given back by the metadata store.
    EXPECT_TRUE(store_->releaseFileNode(file->id(), true));
    EXPECT_EQ(0u, file->versionCount());
}

TEST_F(RetireLists, WithoutRulesOrChannelNothingWaits) {
    create();
    auto file = node("a");
    Version none;
    list().retiredVersion(none, file, true);
    EXPECT_EQ(0u, list().size());
    file.reset();
    store_.reset();
    channel_.reset();
    Store::configure(configuration_, streams_, nullptr);
    store_ = open();
    Version ended = version("a", *value(store_->passiveHandle({"a"}, Instance{2})));
    list().retiredVersion(ended, nullptr, true);
    EXPECT_EQ(0u, list().size());
    EXPECT_FALSE(ended.versioned());
}

TEST_F(RetireLists, ANewFileJoinsTheVersionThatEndedUnderItsName) {
    for (bool const caseSensitive : {true, false}) {
        create(caseSensitive);
        auto file = node("a");
        list().timeStamp(5000);
        Version ended = version("A", *file, 77);
        ended.prevLink = LinkId{3};
        list().retiredVersion(ended, file, true);
        Version other = version("b", *file);
        EXPECT_FALSE(list().previousFileNode(other));
        Version next = version("a", *file);
        EXPECT_EQ(!caseSensitive, list().previousFileNode(next));
        if (caseSensitive) {
            next = version("A", *file);
            EXPECT_TRUE(list().previousFileNode(next));
        }
        EXPECT_EQ(NodeNumber{77}, next.prevFileNode);
        EXPECT_EQ(LinkId{3}, next.prevLink);
        EXPECT_EQ(0u, list().size());
        EXPECT_FALSE(list().previousFileNode(next)); // once
        // After five seconds it has gone on its own.
        retire("A", file);
        list().timeStamp(list().timeStamp() + 5);
        EXPECT_FALSE(list().previousFileNode(next));
        file.reset();
        store_.reset();
    }
}

TEST_F(RetireLists, ALaterVersionOfANameSupersedesTheOneThatWaits) {
    create();
    auto const a = node("a");
    auto const b = node("b");
    list().timeStamp(5000);
    retire("a", a);
    retire("b", b);
    list().timeStamp(5002);
    retire("a", b);
    EXPECT_EQ(2u, list().size());
    list().timeStamp(5005);
    EXPECT_EQ(1u, sent());
    list().timeStamp(5007);
    EXPECT_EQ(2u, sent());
    EXPECT_EQ(0u, a->versionCount());
    EXPECT_EQ(2u, b->versionCount());
}

TEST_F(RetireLists, AResyncAndAStopSendFinalVersionsAtOnce) {
    create();
    auto const file = node("a");
    list().timeStamp(5000);
    list().startResync();
    EXPECT_TRUE(list().resyncRunning());
    Version ended = version("a", *file);
    ended.resync = true;
    list().retiredVersion(ended, file, true);
    EXPECT_EQ(1u, channel_->count(EventRecord::VersionResync));
    Version weak = version("a", *file);
    list().retiredWeakVersion(weak, file);
    EXPECT_EQ(1u, channel_->count(EventRecord::VersionWeak));
    EXPECT_TRUE(weak.versioned()); // the handle goes on with it
    EXPECT_TRUE(weak.weak);
    EXPECT_FALSE(list().retireDue());
    list().retireRun(9000); // does nothing
    EXPECT_EQ(5000u, list().timeStamp());
    list().endResync();
    list().stateSaved(true);
    retire("a", file);
    retire("a", file, false);
    EXPECT_EQ(3u, sent());
    EXPECT_EQ(0u, list().size());
}

TEST_F(RetireLists, VersionsAreDeduplicatedOnTheirOwnWish) {
    for (bool const wanted : {false, true}) {
        create();
        store_->settings(true, false, wanted, {});
        // Longer than what a stream's record holds itself, which is never shared.
        EXPECT_TRUE(writeFile("a", QByteArray(5000, 'a')));
        auto file = value(store_->passiveHandle({"a"}, snapshot()));
        list().timeStamp(5000);
        retire("a", file);
        list().timeStamp(5005);
        EXPECT_TRUE(DedupWorker(streams_).drain());
        RepMetadata metadata;
        ASSERT_TRUE(file->metadata(RepMetadata::eSnapshot, metadata));
        EXPECT_EQ(wanted, metadata.deduped);
        file.reset();
        store_.reset();
    }
}

TEST_F(RetireLists, ALostEventKeepsTheVersion) {
    create();
    auto const file = node("a");
    list().timeStamp(5000);
    channel_->refuse = true;
    retire("a", file);
    list().timeStamp(5005);
    EXPECT_EQ(0u, list().size());
    EXPECT_EQ(1u, file->versionCount());
}

TEST_F(RetireLists, ANonFinalVersionIsOnlyThereToBeJoined) {
    create();
    auto const file = node("a");
    list().timeStamp(5000);
    retire("a", file, false);
    EXPECT_EQ(1u, list().size());
    EXPECT_FALSE(list().retireDue()); // its time on the machine's clock is seconds ahead
    list().timeStamp(5005);
    EXPECT_EQ(0u, sent());
    EXPECT_EQ(0u, list().size());
    EXPECT_FALSE(list().retireDue());
}

TEST_F(RetireLists, AClockThatIsFarAheadDoesntStopTheStores) {
    create();
    auto const file = node("a");
    auto const now = static_cast<std::uint32_t>(Morva::Context::systemTime() / 1000);
    list().timeStamp(now);
    retire("a", file);
    for (std::uint32_t const wrong : {0xFFFFFFFFU, now + 366 * 86400, now + 90000}) {
        list().timeStamp(wrong);
        EXPECT_EQ(now, list().timeStamp());
        EXPECT_EQ(0u, sent());
    }
    list().timeStamp(now + 80000); // a source may be in another zone
    EXPECT_EQ(now + 80000, list().timeStamp());
    EXPECT_EQ(1u, sent());
}

TEST_F(RetireLists, ACloseSendsWhatWaits) {
    create();
    auto file = node("a");
    list().timeStamp(5000);
    retire("a", file);
    auto const id = file->id();
    file.reset();
    store_.reset();
    EXPECT_EQ(1u, sent());
    store_ = open();
    ASSERT_TRUE(store_);
    EXPECT_EQ(1u, value(store_->passiveHandles().get(id))->versionCount());
}

} // namespace
} // namespace Replication
