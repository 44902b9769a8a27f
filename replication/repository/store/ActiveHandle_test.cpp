#include "replication/repository/store/NodeFixture.h"

#include "base/files/FaultyFiles.h"

namespace Replication {
namespace {

QStringList path(char const* text) {
    return QString::fromUtf8(text).split(QLatin1Char('/'), Qt::SkipEmptyParts);
}

class ActiveHandleTest : public NodeFixture {
protected:
    [[nodiscard]] DirKey keyOf(char const* text) {
        Directories::Located located =
            value(store_->directories().locate(path(text), PathMode::DoNotBuildPath));
        EXPECT_TRUE(located.found) << text;
        return located.key;
    }
    [[nodiscard]] bool exists(char const* text) {
        return value(store_->directories().locate(path(text), PathMode::DoNotBuildPath)).found;
    }
    [[nodiscard]] std::vector<Instance> instances(FileId id) {
        return value(store_->pointers().instanceList(id));
    }
};

TEST_F(ActiveHandleTest, StreamThatIsGoneIsNotConfusedWithANewOneOfItsName) {
    auto const a = file(path("f"), "text");
    auto const b = value(store_->paths().openStream(writing(), path("f"), dataStreamName));
    ASSERT_TRUE(b);
    snapshot();
    EXPECT_TRUE(store_->paths().write(writing(), *a, 0, "next", 4)); // which `b` follows
    ASSERT_TRUE(a->activeHandle->removeStream(a->link, dataStreamName));
    ASSERT_TRUE(a->activeHandle->createStream(a->link, dataStreamName, true));
    EXPECT_FALSE(store_->paths().write(writing(), *b, 0, "x", 1));
    EXPECT_EQ(live(path("f")), "");
}

TEST_F(ActiveHandleTest, LiveOnlyFollowsTheModeOfTheOpening) {
    FileContext liveOnly = writing();
    liveOnly.opType = NotToBackup::eLiveOnly;
    ASSERT_TRUE(store_->paths().createStream(liveOnly, path("f"), dataStreamName, {}));
    EXPECT_TRUE(keyOf("f").liveOnly());
    for (bool const wanted : {true, false, true}) {
        auto const handle = value(
            store_->paths().openStream(wanted ? liveOnly : writing(), path("f"), dataStreamName));
        ASSERT_TRUE(handle);
        EXPECT_EQ(keyOf("f").liveOnly(), wanted);
        EXPECT_EQ(handle->activeHandle->fileNode()->liveOnly(), wanted);
        EXPECT_EQ(store_->control().counters()[1], wanted ? 0U : 1U);
    }
}

TEST_F(ActiveHandleTest, VersionIsSetOnceAndNeverForDirectories) {
    auto const handle = file(path("f"))->activeHandle;
    DirKey const key = keyOf("f");
    handle->setVersion(key, path("f"), QString(), QString(), 0, {1});
    handle->setVersion(key, path("f"), QString(), QString(), 5, {});
    EXPECT_FALSE(handle->version().versioned());
    handle->setVersion(key, path("f"), QStringLiteral("u"), QString(), 5, {1});
    handle->setVersion(key, path("g"), QStringLiteral("v"), QString(), 6, {2});
    EXPECT_EQ(handle->version().ruleSet, 5U);
    EXPECT_EQ(handle->version().user, QStringLiteral("u"));
    EXPECT_EQ(handle->version().fileNode, handle->fileNode()->id());
    snapshot();
    EXPECT_TRUE(handle->attributes(LinkId{1}, 77));
    EXPECT_EQ(handle->version().fileNode, handle->fileNode()->id()) << "follows the copy";

    PathOperations::NewFile directory;
    directory.nodeType = directoryType;
    auto const d = value(store_->paths().createObject(writing(), path("d"), directory));
    ASSERT_TRUE(d);
    d->activeHandle->setVersion(keyOf("d"), path("d"), QString(), QString(), 5, {1});
    EXPECT_FALSE(d->activeHandle->version().versioned());
}

TEST_F(ActiveHandleTest, SavedRecordComesBackInTheNextHandle) {
    Morva::PackBuffer record;
    FileId id;
    {
        auto const handle = file(path("f"))->activeHandle;
        id = handle->id();
        handle->setVersion(keyOf("f"), path("f"), QStringLiteral("u"), QString(), 5, {1, 2});
        handle->saveHandle(record);
        handle->version().clear();
    }
    store_->directories().forget();
    Morva::UnpackBuffer reader;
    for (std::uint32_t form : {0U, 4U}) {
        reader.reset(record.extentWithoutSize());
        EXPECT_FALSE(store_->activeHandles().loadHandle(form, reader));
    }
    reader.reset(Morva::Extent(QByteArray()));
    EXPECT_TRUE(store_->activeHandles().loadHandle(3, reader));
    reader.reset(record.extentWithoutSize());
    ASSERT_TRUE(store_->activeHandles().loadHandle(3, reader));
    auto const handle =
        value(store_->activeHandles().restore(id, value(store_->pointers().getNode(id))));
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle->version().ruleSet, 5U);
    EXPECT_EQ(handle->version().rules, (std::vector<std::uint32_t>{1, 2}));
    EXPECT_EQ(handle->version().fileType, fileType);
}

TEST_F(ActiveHandleTest, PathOperationsMakeChangeAndRemoveFiles) {
    PathOperations& paths = store_->paths();
    PathOperations::NewFile withSecurity;
    withSecurity.security = "secret";
    withSecurity.owner = QStringLiteral("7");
    withSecurity.attributes = 3;
    auto const handle =
        value(paths.createStream(writing(), path("a/b/f"), QStringLiteral("Ea"), withSecurity));
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle->parent, path("a/b"));
    EXPECT_EQ(handle->name, QStringLiteral("f"));
    FileNode::Pointer const node = handle->activeHandle->fileNode();
    EXPECT_EQ(contentOf(node, securityStreamName), "secret");
    EXPECT_EQ(node->streamIds().size(), 3U);
    EXPECT_EQ(node->owner(), QStringLiteral("7"));
    EXPECT_TRUE(keyOf("a").isDirectory());

    EXPECT_FALSE(paths.openStream(writing(), path("a/x"), dataStreamName));
    EXPECT_FALSE(paths.openStream(writing(), path("a/b/f"), QStringLiteral("none")));
    EXPECT_FALSE(paths.createObject(writing(), path("a"), {})) << "is a directory";
    EXPECT_TRUE(paths.write(writing(), path("a/b/f"), dataStreamName, 0, "text", 4, 9U));
    EXPECT_EQ(node->attributes(), 9U);
    EXPECT_TRUE(paths.truncate(writing(), path("a/b/f"), 2, 0));
    EXPECT_EQ(live(path("a/b/f")), "te");
    EXPECT_TRUE(paths.write(writing(), path("a/none"), dataStreamName, 0, "text", 4));
    EXPECT_TRUE(paths.truncate(writing(), path("a/none"), 2, 0));
    EXPECT_TRUE(paths.write(writing(), path("a"), dataStreamName, 0, "junk", 4));
    EXPECT_TRUE(exists("a/b/f")) << "the directory's pages are as they were";

    ASSERT_TRUE(paths.supersede(writing(), path("a/b/f")));
    EXPECT_EQ(live(path("a/b/f")), "");
    EXPECT_EQ(node->streamIds().size(), 2U) << "Data and Security";

    EXPECT_TRUE(paths.link(writing(), path("a/b/f"), path("l")));
    EXPECT_EQ(node->linkCount(), 2U);
    EXPECT_TRUE(paths.rename(writing(), {}, path("l"), path("a/b/f"))) << "two names of one file";
    EXPECT_TRUE(exists("l"));
    EXPECT_TRUE(paths.unlink(writing(), path("l")));
    EXPECT_TRUE(paths.unlink(writing(), path("l"))) << "gone already";
    EXPECT_FALSE(paths.link(writing(), path("l"), path("m")));
    EXPECT_TRUE(exists("a/b/f"));
    EXPECT_TRUE(paths.unlink(writing(), path("a")));
    EXPECT_FALSE(exists("a"));
}

TEST_F(ActiveHandleTest, ReplacingContentByTheSameMakesNoVersion) {
    auto const handle = file(path("f"));
    PathOperations& paths = store_->paths();
    ASSERT_TRUE(paths.replaceContent(writing(), *handle, securityStreamName, "longer"));
    snapshot();
    ASSERT_TRUE(paths.replaceContent(writing(), *handle, securityStreamName, "longer"));
    EXPECT_EQ(instances(handle->activeHandle->id()).size(), 1U);
    ASSERT_TRUE(paths.replaceContent(writing(), *handle, securityStreamName, "short"));
    EXPECT_EQ(instances(handle->activeHandle->id()).size(), 2U);
    EXPECT_EQ(contentOf(handle->activeHandle->fileNode(), securityStreamName), "short");
    EXPECT_EQ(contentOf(value(store_->passiveHandle(path("f"), Instance{2})), securityStreamName),
              "longer");
    ASSERT_TRUE(paths.replaceContent(writing(), *handle, securityStreamName, {}));
    EXPECT_FALSE(handle->activeHandle->fileNode()->exists(securityStreamName));
}

TEST_F(ActiveHandleTest, FileHandlesLeadToVersionsAndParents) {
    FileId const id = file(path("d/f"), "one")->activeHandle->id();
    snapshot();
    FileHandle const root =
        value(store_->fileHandle(store_->rootId(), Instance{2}, FileHandle::Snapshot));
    FileHandle d, f, up;
    ASSERT_TRUE(value(store_->lookup(d, root, QStringLiteral("d"))));
    ASSERT_TRUE(value(store_->lookup(f, d, QStringLiteral("f"))));
    EXPECT_FALSE(value(store_->lookup(up, d, QStringLiteral("g"))));
    EXPECT_EQ(f, value(store_->fileHandle(id, Instance{2}, FileHandle::Passive)));
    EXPECT_EQ(contentOf(value(store_->passiveHandle(f))), "one");
    EXPECT_EQ(store_->lookupParent(up, d), 0U);
    EXPECT_EQ(up.fileId(), store_->rootId());
    EXPECT_EQ(store_->lookupParent(up, root), 0U);
    EXPECT_EQ(up, root);

    FileHandle const raw = value(store_->fileHandle(id, Instance{2}, FileHandle::Raw));
    EXPECT_EQ(contentOf(value(store_->passiveHandle(raw))), "one");
    EXPECT_FALSE(value(store_->lookup(up, raw, QStringLiteral("f"))));
    EXPECT_EQ(store_->lookupParent(up, raw), 10001U);
    EXPECT_FALSE(value(store_->passiveHandle(id, Instance{})))
        << "the live tree isn't read this way";
    EXPECT_FALSE(value(store_->passiveHandle(id, Instance{3}))) << "above the current instance";

    FileHandle munged = value(store_->fileHandle(id, {}, FileHandle::FileIdOnly));
    EXPECT_FALSE(value(store_->passiveHandle(munged)));
    EXPECT_EQ(store_->mungeFh(munged, f), 22U) << "the mount is no snapshot";
    FileHandle other = root;
    other.store = StoreId{8};
    EXPECT_EQ(store_->mungeFh(munged, other), 18U);
    EXPECT_EQ(munged.kind, FileHandle::FileIdOnly);
    EXPECT_EQ(store_->mungeFh(munged, root), 0U);
    EXPECT_EQ(munged, f);
    munged.kind = 9;
    EXPECT_FALSE(value(store_->passiveHandle(munged)));
    EXPECT_EQ(store_->lookupParent(up, munged), 10001U);
}

TEST_F(ActiveHandleTest, FailedCreationLeavesNothingBehind) {
    (void)file(path("d/keep"), "x");
    store_->directories().forget();
    std::uint64_t const nodes = usedNodes();
    std::uint64_t const files = store_->control().counters()[1];
    // A name that fits no page is refused after node and id were made.
    QStringList const tooLong{QStringLiteral("d"), QString(2100, QLatin1Char('n'))};
    EXPECT_FALSE(store_->paths().createStream(writing(), tooLong, dataStreamName, {}));
    PathOperations::NewFile directory;
    directory.nodeType = directoryType;
    EXPECT_FALSE(store_->paths().createObject(writing(), tooLong, directory));
    EXPECT_EQ(usedNodes(), nodes);
    EXPECT_EQ(store_->control().counters()[1], files);
    EXPECT_EQ(live(path("d/keep")), "x");
    std::size_t inUse = 0;
    EXPECT_TRUE(store_->pointers().walk([&](NodePointer::Entry const& entry) {
        inUse += entry.node ? 1 : 0;
        return true;
    }));
    EXPECT_EQ(inUse, 3U) << "root, d and keep";
}

struct Faults {
    Morva::FaultyFiles files;
};

/// A store all of whose files obey orders.
class FaultyStoreTest : protected Faults, public NodeFixture {};

TEST_F(FaultyStoreTest, VersionThatFindsNoPlaceInItsChainChangesNothing) {
    auto const handle = file(path("f"), "one");
    snapshot();
    // All entries of the pointer file come into use, and it can't grow.
    files.diskBudget(0);
    while (store_->pointers().newId(NodeNumber{1}, Instance{1})) {
    }
    std::uint64_t const nodes = usedNodes();
    EXPECT_FALSE(store_->paths().write(writing(), *handle, 0, "two", 3));
    EXPECT_EQ(live(path("f")), "one");
    EXPECT_EQ(usedNodes(), nodes);
    EXPECT_EQ(at(Instance{2}, path("f")), "one");
    files.heal();
    EXPECT_TRUE(store_->paths().write(writing(), *handle, 0, "two", 3));
    EXPECT_EQ(live(path("f")), "two");
    EXPECT_EQ(at(Instance{2}, path("f")), "one");
}

TEST_F(FaultyStoreTest, WhatTheDiskRefusedIsToldOrMadeUpFor) {
    auto const handle = file(path("f"), "one");
    ASSERT_TRUE(store_->paths().link(writing(), path("f"), path("l")));
    snapshot();
    // A version's end that the snapshot can't note.
    files.onlyNamesEndingWith(QStringLiteral("snapshot0000000002"));
    files.failWritesAfter(0);
    EXPECT_TRUE(handle->activeHandle->attributes(handle->link, 7));
    EXPECT_FALSE(store_->settle());
    files.heal();
    EXPECT_TRUE(store_->settle());
    SnapshotFile const noted(store_->snapshotPath(), Instance{2}, SnapshotFile::ReadOnly{});
    EXPECT_EQ(QFileInfo(store_->snapshotPath() + "/snapshot0000000002").size(),
              static_cast<qint64>(noted.deleteOffset() + SnapshotEntry::packedSize));
    snapshot();
    // No block is left for a second version of the node.
    files.diskBudget(0);
    std::vector<NodePin> taken;
    for (;;) {
        auto pin = store_->nodes().newNode(Instance{1});
        if (!pin)
            break;
        taken.push_back(*std::move(pin));
    }
    EXPECT_FALSE(handle->activeHandle->owner(handle->link, QStringLiteral("you")));
    EXPECT_FALSE(store_->paths().unlink(writing(), path("l")));
    EXPECT_EQ(handle->activeHandle->linkCount(), 2U);
    files.heal();
    for (NodePin& pin : taken)
        store_->nodes().freeNode(std::move(pin));
    EXPECT_TRUE(store_->paths().unlink(writing(), path("l")));
    EXPECT_EQ(handle->activeHandle->linkCount(), 1U);
    EXPECT_EQ(handle->activeHandle->owner(), QString());
    EXPECT_EQ(live(path("f")), "one");
}

TEST_F(FaultyStoreTest, RecordThatCannotBeWrittenKeepsItsStreams) {
    auto const handle = file(path("f"), "text");
    // A record of a block's size, beyond the node.
    for (int i = 0; i < 60; ++i)
        ASSERT_TRUE(handle->activeHandle->createStream(
            handle->link, QStringLiteral("a-long-stream-name%1").arg(i), false));
    DedupStatistics statistics;
    (void)handle->streamHandle->prepareDedup(statistics); // freezes it
    StreamId const frozen = handle->streamHandle->id();
    files.onlyNamesEndingWith(QStringLiteral("data.blocks"));
    files.failWritesAfter(0);
    EXPECT_FALSE(store_->paths().write(writing(), *handle, 0, "new", 3));
    QString const first = QStringLiteral("a-long-stream-name0");
    QString const second = QStringLiteral("a-long-stream-name1");
    EXPECT_FALSE(handle->activeHandle->removeStream(handle->link, first));
    EXPECT_FALSE(handle->activeHandle->renameStream(handle->link, second, first));
    files.heal();
    for (QString const& name : {first, second}) {
        auto const kept = value(handle->activeHandle->fileNode()->openStream(name));
        ASSERT_TRUE(kept);
        EXPECT_EQ(kept->referenceCount(), 1U);
    }
    EXPECT_TRUE(handle->activeHandle->removeStream(handle->link, first));
    EXPECT_EQ(handle->streamHandle->id(), frozen);
    EXPECT_EQ(handle->streamHandle->referenceCount(), 1U);
    EXPECT_EQ(live(path("f")), "text");
    EXPECT_TRUE(store_->paths().write(writing(), *handle, 0, "new", 3));
    EXPECT_EQ(live(path("f")), "newt");
    NodeNumber const node = handle->activeHandle->fileNode()->id();
    *handle = SinkHandle();
    store_->directories().forget();
    EXPECT_EQ(contentOf(value(store_->passiveHandles().get(node))), "newt") << "as the record says";
    EXPECT_FALSE(streams_->handle(frozen, true));
}

} // namespace
} // namespace Replication
