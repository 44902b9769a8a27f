#include "replication/repository/store/NodeFixture.h"

#include "replication/common/values/RepMetadata.h"

#include <atomic>
#include <thread>

namespace Replication {
namespace {

class FileNodeTest : public NodeFixture {
protected:
    FileNode::Pointer make(bool liveOnly = false) {
        FileNode::Pointer node = value(
            store_->passiveHandles().create(fileType, liveOnly, 500, NodeInfo(Qt::CaseSensitive)));
        EXPECT_TRUE(node);
        return node;
    }
};

TEST_F(FileNodeTest, CopyDecisionFollowsClaimsLiveOnlyAndInstance) {
    struct {
        bool liveOnly, newInstance;
        int references, versions;
        bool copy;
    } const cases[] = {
        {false, false, 0, 0, false}, {false, true, 0, 0, true},  {false, false, 1, 0, true},
        {false, false, 0, 1, true},  {true, false, 0, 0, false}, {true, true, 0, 0, false},
        {true, false, 1, 0, true},   {true, true, 0, 1, true},
    };
    for (auto const& c : cases) {
        FileNode::Pointer const node = make(c.liveOnly);
        for (int i = 0; i < c.references; ++i)
            node->takeReference();
        for (int i = 0; i < c.versions; ++i)
            node->takeVersion();
        if (c.newInstance)
            snapshot();
        FileNode::Pointer copy;
        EXPECT_TRUE(node->takeCopy(copy)) << &c - cases;
        EXPECT_EQ(copy != nullptr, c.copy) << &c - cases;
        if (!copy)
            continue;
        EXPECT_NE(copy->id(), node->id());
        EXPECT_EQ(copy->instance(), store_->currentInstance());
        EXPECT_EQ(copy->referenceCount(), 1U);
        EXPECT_EQ(copy->versionCount(), 0U);
        EXPECT_FALSE(copy->versioned());
        EXPECT_EQ(copy->times(), node->times());
        EXPECT_EQ(copy->liveOnly(), c.liveOnly);
    }
}

TEST_F(FileNodeTest, SettingWhatIsThereMakesNoCopy) {
    FileNode::Pointer const node = make();
    FileNode::Pointer copy;
    EXPECT_TRUE(node->attr(copy, true, 600, true, 601, true, 7));
    EXPECT_TRUE(node->owner(copy, QStringLiteral("me")));
    snapshot();
    EXPECT_TRUE(node->attr(copy, true, 600, true, 601, true, 7));
    EXPECT_TRUE(node->owner(copy, QStringLiteral("me")));
    EXPECT_TRUE(node->attributes(copy, 7));
    EXPECT_FALSE(copy);
    EXPECT_TRUE(node->owner(copy, QStringLiteral("you")));
    ASSERT_TRUE(copy);
    EXPECT_EQ(node->owner(), QStringLiteral("me"));
    EXPECT_EQ(copy->owner(), QStringLiteral("you"));
    EXPECT_EQ(copy->attributes(), 7U);
    EXPECT_EQ(copy->times().modifiedSource, 600U);
    EXPECT_EQ(copy->times().createdSource, 601U);
}

TEST_F(FileNodeTest, FrozenStreamIsCopiedForEveryKindOfChange) {
    using Change =
        std::function<Morva::Status(FileNode&, FileNode::Pointer&, std::shared_ptr<StreamHandle>&)>;
    std::pair<Change, QByteArray> const changes[] = {
        {[](FileNode& n, auto& c, auto& s) { return n.write(c, s, 0, "XY", 2, 1); }, "XYxt"},
        {[](FileNode& n, auto& c, auto& s) { return n.truncate(c, s, 2, 0, 1); }, "te"},
        {[](FileNode& n, auto& c, auto& s) { return n.zeroData(c, s, 1, 3, 1); },
         QByteArray("t\0\0t", 4)},
    };
    for (auto const& [change, expected] : changes) {
        FileNode::Pointer const node = make();
        FileNode::Pointer copy;
        auto stream = value(node->createActiveStream(copy, dataStreamName, true));
        ASSERT_TRUE(node->write(copy, stream, 0, "text", 4, 1));
        DedupStatistics statistics;
        (void)stream->prepareDedup(statistics); // freezes it
        StreamId const frozen = stream->id();
        EXPECT_TRUE(change(*node, copy, stream));
        EXPECT_FALSE(copy) << "the node itself is in its own instance";
        EXPECT_NE(stream->id(), frozen);
        EXPECT_EQ(contentOf(node), expected);
        EXPECT_EQ(node->streamIds(), std::vector{stream->id()});
    }
}

TEST_F(FileNodeTest, ChangeThatMeetsDeduplicationIsNotLost) {
    constexpr int rounds = 20000;
    FileNode::Pointer const node = make();
    FileNode::Pointer copy;
    std::shared_ptr<StreamHandle> meant;
    std::atomic<int> begun = 0, ended = 0;
    std::thread freezer([&] {
        for (int round = 1; round <= rounds; ++round) {
            while (begun < round)
                std::this_thread::yield();
            // At another moment of the change each time.
            for (std::atomic<int> wait = 0; wait < round % 100; ++wait) {
            }
            DedupStatistics statistics;
            (void)meant->prepareDedup(statistics);
            ended = round;
        }
    });
    for (int round = 1; round <= rounds; ++round) {
        auto stream = value(node->createActiveStream(copy, dataStreamName, true));
        EXPECT_TRUE(node->write(copy, stream, 0, "text", 4, 1));
        meant = stream;
        begun = round;
        EXPECT_TRUE(node->write(copy, stream, StreamHandle::append, "X", 1, 1));
        while (ended < round)
            std::this_thread::yield();
        EXPECT_EQ(contentOf(node), "textX") << "round " << round;
        EXPECT_TRUE(node->freeStreams(copy));
    }
    freezer.join();
}

TEST_F(FileNodeTest, ListOfStreamsChangesOnTheCopyAlone) {
    FileNode::Pointer const node = make();
    FileNode::Pointer copy;
    QString const a = QStringLiteral("a"), b = QStringLiteral("b"), ea = QStringLiteral("Ea");
    for (QString const& name : {a, b})
        ASSERT_TRUE(node->createActiveStream(copy, name, true));
    EXPECT_FALSE(node->openActiveStream(copy, dataStreamName, true)) << "Data is never made here";
    EXPECT_FALSE(node->createActiveStream(copy, QString(), true));
    EXPECT_FALSE(node->renameStream(copy, a, a));
    EXPECT_FALSE(node->renameStream(copy, QStringLiteral("x"), a));
    EXPECT_FALSE(node->removeStream(copy, QStringLiteral("x")));
    snapshot();
    EXPECT_FALSE(copy);

    EXPECT_TRUE(node->openActiveStream(copy, ea, true));
    ASSERT_TRUE(copy);
    EXPECT_FALSE(node->exists(ea));
    EXPECT_TRUE(copy->exists(ea));
    FileNode::Pointer none;
    EXPECT_TRUE(copy->renameStream(none, a, b));
    EXPECT_FALSE(copy->exists(a));
    EXPECT_EQ(copy->streamIds().size(), 2U);
    EXPECT_EQ(node->streamIds().size(), 2U);
    EXPECT_TRUE(copy->removeStream(none, ea));
    // The record on disk says the same.
    NodeNumber const number = copy->id();
    copy->takeReference();
    copy = nullptr;
    copy = value(store_->passiveHandles().get(number));
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->streamNames(), QStringList(b));
}

TEST_F(FileNodeTest, DirtyAndSparseMarkOnceAndOnTheCopy) {
    FileNode::Pointer const node = make();
    FileNode::Pointer copy;
    auto stream = value(node->createActiveStream(copy, dataStreamName, true));
    std::uint64_t const before = store_->control().counters()[2];
    EXPECT_TRUE(node->dirty(copy, *stream));
    EXPECT_TRUE(node->dirty(copy, *stream));
    EXPECT_EQ(store_->control().counters()[2], before + 1);
    snapshot();
    EXPECT_TRUE(node->dirty(copy, *stream));
    EXPECT_FALSE(copy);
    EXPECT_TRUE(node->sparse(copy, *stream));
    EXPECT_TRUE(copy);
    auto foreign = streams_->handle(streams_->newStream(), false);
    EXPECT_FALSE(node->dirty(copy, *foreign));
    EXPECT_FALSE(node->write(copy, foreign, 0, "x", 1, 1));
}

TEST_F(FileNodeTest, LiveOnlyStateTakesNoCopyAndEndsInTheCurrentInstance) {
    FileNode::Pointer const node = make(true);
    snapshot();
    FileNode::Pointer copy;
    EXPECT_TRUE(node->attr(copy, true, 9, false, 0, false, 0));
    EXPECT_FALSE(copy);
    EXPECT_TRUE(node->liveOnly(copy, false));
    EXPECT_FALSE(copy);
    EXPECT_FALSE(node->liveOnly());
    EXPECT_EQ(node->instance(), store_->currentInstance());
    snapshot();
    EXPECT_TRUE(node->liveOnly(copy, true));
    ASSERT_TRUE(copy);
    EXPECT_TRUE(copy->liveOnly());
    EXPECT_FALSE(node->liveOnly());
    // With a second link it can't become live-only, and with one it stops being so.
    FileNode::Pointer none;
    EXPECT_EQ(value(copy->addLink(none, false)), LinkId{2});
    EXPECT_FALSE(copy->liveOnly());
    EXPECT_TRUE(copy->liveOnly(none, true));
    EXPECT_FALSE(copy->liveOnly());
}

TEST_F(FileNodeTest, LinkCountsAreThoseOfTheSnapshotsMoment) {
    FileNode::Pointer const node = make();
    EXPECT_TRUE(node->notLinked());
    snapshot();
    FileNode::Pointer copy;
    EXPECT_EQ(value(node->addLink(copy, false)), LinkId{2});
    ASSERT_TRUE(copy);
    EXPECT_EQ(node->linkCount(), 1U);
    EXPECT_EQ(copy->linkCount(), 2U);
    snapshot();
    FileNode::Pointer second;
    EXPECT_EQ(value(copy->addLink(second, false)), LinkId{3});
    ASSERT_TRUE(second);
    EXPECT_EQ(copy->linkCount(), 2U);
    FileNode::Pointer none;
    EXPECT_EQ(value(second->removeLink(none)), 2U);
    EXPECT_EQ(value(second->removeLink(none)), 1U);
    snapshot();
    EXPECT_EQ(value(second->removeLink(none)), 0U);
    EXPECT_EQ(value(second->removeLink(none)), 0U);
    EXPECT_FALSE(none) << "the end of a file makes no version";
    EXPECT_EQ(second->names(), 0U);
    EXPECT_EQ(second->linkCount(), 1U) << "as the snapshot saw it";
}

TEST_F(FileNodeTest, NodeWithoutClaimsIsFreedWithItsStreams) {
    std::uint64_t const nodes = usedNodes();
    FileNode::Pointer node = make();
    FileNode::Pointer copy;
    auto stream = value(node->createActiveStream(copy, dataStreamName, true));
    NodeNumber const number = node->id();
    StreamId const id = stream->id();
    stream = nullptr;
    node->takeVersion();
    node->releaseVersion();
    node->releaseVersion(); // a count of 0 stays
    node = nullptr;
    node = value(store_->passiveHandles().get(number));
    ASSERT_TRUE(node) << "the version claim holds it";
    EXPECT_TRUE(node->versioned());
    node->releaseWeakVersion();
    node = nullptr;
    EXPECT_FALSE(value(store_->passiveHandles().get(number)));
    EXPECT_FALSE(streams_->handle(id, true));
    EXPECT_EQ(usedNodes(), nodes);
}

TEST_F(FileNodeTest, RecordBeyondTheNodeIsSharedByACopyAndSurvivesIt) {
    FileNode::Pointer node = make();
    FileNode::Pointer copy;
    // 60 names of 20 characters: about 4 kilobytes of record.
    for (int i = 0; i < 60; ++i)
        ASSERT_TRUE(node->createActiveStream(
            copy, QStringLiteral("a-long-stream-name%1").arg(i, 2, 10, QLatin1Char('0')), false));
    snapshot();
    ASSERT_TRUE(node->takeCopy(copy));
    NodeNumber const oldNumber = node->id(), newNumber = copy->id();
    FileNode::Pointer none;
    for (int i = 0; i < 59; ++i)
        ASSERT_TRUE(copy->removeStream(none, copy->streamNames().last()));
    node = copy = nullptr;
    node = value(store_->passiveHandles().get(oldNumber));
    copy = value(store_->passiveHandles().get(newNumber));
    ASSERT_TRUE(node && copy);
    EXPECT_EQ(node->streamIds().size(), 60U);
    EXPECT_EQ(copy->streamIds().size(), 1U);
}

TEST_F(FileNodeTest, MetadataComesInTwoForms) {
    FileNode::Pointer const node = make();
    FileNode::Pointer copy;
    auto stream = value(node->createActiveStream(copy, dataStreamName, true));
    ASSERT_TRUE(node->write(copy, stream, 0, "12345", 5, 600));
    ASSERT_TRUE(node->createActiveStream(copy, securityStreamName, true));
    (void)node->owner(copy, QStringLiteral("me"));
    RepMetadata result;
    EXPECT_EQ(node->metadata(0, result).error(), 22);
    EXPECT_EQ(node->metadata(3, result).error(), 22);
    ASSERT_TRUE(node->metadata(1, result));
    EXPECT_EQ(result.kind, RepMetadata::eSnapshot);
    EXPECT_EQ(result.size, 5U);
    EXPECT_EQ(result.owner, QStringLiteral("me"));
    EXPECT_EQ(result.modifiedSource, 600U);
    EXPECT_EQ(result.linkCount, 1U);
    ASSERT_TRUE(node->metadata(2, result));
    ASSERT_EQ(result.streams.size(), 2U);
    EXPECT_EQ(result.streams[0].size, 5U);
}

} // namespace
} // namespace Replication
