#include "replication/repository/store/StoreFixture.h"

#include <QFile>

#include <atomic>
#include <random>
#include <thread>

namespace Replication {
namespace {

class Stores : public StoreFixture {
protected:
    [[nodiscard]] static QString directory() { return Store::directoryOf(storeId); }
    /// Changes the control block of a closed store, as another version or a crash leaves it.
    template <class Change> static void patchControl(Change change) {
        QFile file(directory() + QStringLiteral("/files"));
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.seek(ControlFields::size));
        QByteArray bytes = file.read(ControlFields::size);
        change(ControlFields(reinterpret_cast<std::uint8_t*>(bytes.data())));
        ASSERT_TRUE(file.seek(ControlFields::size));
        ASSERT_EQ(bytes.size(), file.write(bytes));
    }
    [[nodiscard]] static bool openMarkOnDisk() {
        bool mark = false;
        patchControl([&](ControlFields fields) { mark = fields.openMark(); });
        return mark;
    }
};

TEST_F(Stores, ANewStoreIsValidAndComesBack) {
    create(false);
    EXPECT_TRUE(directory().endsWith("/0000000000001234"));
    for (int opening = 0; opening < 3; ++opening) {
        EXPECT_TRUE(store_->valid());
        EXPECT_FALSE(store_->caseSensitive());
        EXPECT_EQ(ReplayId{7}, store_->replayId());
        EXPECT_EQ(QStringLiteral("Filesystem"), store_->type());
        EXPECT_EQ(QStringLiteral("machine"), store_->sourceMachine());
        EXPECT_EQ(QStringLiteral("repository-home"), store_->name());
        EXPECT_EQ(FileId{129}, store_->rootId());
        EXPECT_EQ(Instance{1}, store_->currentInstance());
        EXPECT_TRUE(store_->active());
        EXPECT_EQ(ControlFields::Counters{}, store_->control().counters());
        EXPECT_EQ(static_cast<std::uint32_t>(2 + opening), store_->control().sequence());
        ASSERT_EQ(1u, store_->snapshots().all().size());
        EXPECT_EQ(SnapshotType::Initial, store_->snapshots().active()->type());
        EXPECT_TRUE(openMarkOnDisk());
        reopen();
    }
    store_.reset();
    EXPECT_FALSE(openMarkOnDisk());
}

TEST_F(Stores, OneObjectForEachOpenId) {
    create();
    EXPECT_FALSE(Store::create(storeId, identity(), true));
    StorePointer const second = Store::open(storeId, false);
    EXPECT_EQ(store_.get(), second.get());
    EXPECT_EQ(QList<StoreId>{storeId}, Store::list());
    store_ = StorePointer();
    EXPECT_TRUE(second->valid());
    EXPECT_TRUE(Store::open(storeId, identity()));
    StoreIdentity other = identity();
    other.replayId = ReplayId{8};
    EXPECT_FALSE(Store::open(storeId, other));
    other = identity();
    other.batch = true;
    EXPECT_TRUE(Store::open(storeId, other));
    EXPECT_EQ(QStringLiteral("BatchFilesystem"), second->type());
    EXPECT_FALSE(Store::open(StoreId{99}, false));
}

TEST_F(Stores, ManyThreadsOpenAndCloseOneStore) {
    create();
    store_.reset();
    std::atomic<int> opened = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int n = 0; n < 50; ++n) {
                StorePointer const store = Store::open(storeId, false);
                opened += store && store->valid() && store->rootId() == FileId{129};
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(200, opened);
    EXPECT_TRUE(Store::list().isEmpty());
    EXPECT_FALSE(openMarkOnDisk());
}

TEST_F(Stores, UncleanEndIsSeenAndUnfinishedSnapshotsGo) {
    create();
    ASSERT_TRUE(writeFile("a", "1"));
    store_.reset();
    auto const put = [&](char const* name) {
        QFile file(directory() + QStringLiteral("/snapshot/") + QLatin1String(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(4096, '\0'));
    };
    auto const there = [&](char const* name) {
        return QFile::exists(directory() + QStringLiteral("/snapshot/") + QLatin1String(name));
    };
    put("snapshot0000000002");
    put("dedup0000000002");
    put("notes");
    patchControl([](ControlFields fields) { fields.openMark(true); });
    store_ = Store::open(storeId, false);
    ASSERT_TRUE(store_);
    EXPECT_FALSE(there("snapshot0000000002"));
    EXPECT_FALSE(there("dedup0000000002"));
    EXPECT_TRUE(there("notes"));
    EXPECT_EQ(3u, store_->control().sequence());
    EXPECT_EQ(Instance{2}, snapshot());
    EXPECT_EQ(QByteArray("1"), contentAt("a", Instance{2}));
    reopen();
    EXPECT_EQ(Instance{2}, store_->currentInstance());
}

TEST_F(Stores, OldControlBlockIsUpgradedAndNewerRefused) {
    create();
    store_.reset();
    patchControl([](ControlFields fields) { fields.version(2); });
    reopen();
    EXPECT_EQ(2u, store_->filterType());
    EXPECT_FALSE(store_->active());
    store_.reset();
    patchControl([](ControlFields fields) {
        EXPECT_EQ(3u, fields.version());
        fields.version(4);
    });
    EXPECT_FALSE(Store::open(storeId, false));
    EXPECT_FALSE(Store::open(storeId, true));
    EXPECT_TRUE(Store::list().isEmpty());
}

TEST_F(Stores, ActiveStoreIsNotMarkedForDeletion) {
    create();
    EXPECT_FALSE(store_->markForDeletion());
    EXPECT_FALSE(store_->markedForDeletion());
    store_->active(false);
    EXPECT_TRUE(store_->markForDeletion());
    store_->active(true); // wanted again before anyone was told
    EXPECT_FALSE(store_->markedForDeletion());
    store_->active(false);
    EXPECT_TRUE(store_->markForDeletion());
    EXPECT_EQ(0u, channel_->count(EventRecord::DeleteStore));
    store_.reset();
    EXPECT_EQ(1u, channel_->count(EventRecord::DeleteStore));
    EXPECT_EQ(storeId, channel_->events.back().object.store);
    EXPECT_FALSE(Store::open(storeId, false));
    StorePointer const marked = Store::open(storeId, true);
    ASSERT_TRUE(marked);
    EXPECT_FALSE(marked->valid());
    marked->active(true); // too late
    EXPECT_FALSE(marked->active());
    EXPECT_TRUE(marked->markedForDeletion());
    EXPECT_FALSE(marked->rootHandle().id);
    EXPECT_EQ(1u, channel_->count(EventRecord::DeleteStore));
}

TEST_F(Stores, FreezeLeavesACleanStore) {
    create();
    ASSERT_TRUE(writeFile("d/a", "1"));
    EXPECT_TRUE(streams_->flush());
    EXPECT_TRUE(store_->flushForFreeze());
    EXPECT_FALSE(openMarkOnDisk());
    store_->markOpen();
    EXPECT_TRUE(openMarkOnDisk());
    EXPECT_TRUE(store_->flush());
    EXPECT_TRUE(openMarkOnDisk());
    patchControl([](ControlFields fields) {
        EXPECT_EQ(1u, fields.files());
        EXPECT_EQ(1u, fields.directories());
    });
}

TEST_F(Stores, StoreZeroHasNoSnapshots) {
    store_ = Store::create(StoreId{}, identity(), true);
    ASSERT_TRUE(store_);
    store_->settings(true, true, true, {});
    EXPECT_FALSE(store_->indexSnapshots());
    ASSERT_TRUE(writeFile("a", "1"));
    EXPECT_EQ(Instance{1}, snapshot());
    EXPECT_EQ(Instance{1}, store_->snapshots().validateSnapshot());
    QString reason;
    EXPECT_FALSE(store_->snapshots().markSnapshot(reason, Instance{1}));
    EXPECT_EQ(QStringLiteral("Invalid Id"), reason);
    EXPECT_TRUE(channel_->events.empty());
    store_.reset();
    store_ = Store::open(StoreId{}, false);
    ASSERT_TRUE(store_);
    EXPECT_TRUE(store_->valid());
}

TEST_F(Stores, DamagedDirectoriesDontOpenOrAtLeastDontCrash) {
    create();
    ASSERT_TRUE(writeFile("d/a", QByteArray(5000, 'x')));
    (void)snapshot();
    ASSERT_TRUE(writeFile("d/a", "2"));
    store_.reset();
    QStringList const names{"files", "files.ptrs.blocks", "files.tree",
                            "snapshot/snapshot0000000002"};
    auto const seed = std::random_device()();
    std::mt19937 random(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    for (QString const& name : names) {
        QString const path = directory() + QLatin1Char('/') + name;
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        QByteArray const good = file.readAll();
        file.close();
        auto const put = [&](QByteArray const& bytes) {
            ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
            file.write(bytes);
            file.close();
        };
        ASSERT_TRUE(file.remove());
        EXPECT_FALSE(Store::open(storeId, false)) << name.toStdString();
        for (QByteArray const& bytes : {QByteArray(), good.left(100), QByteArray(8192, '\1')}) {
            put(bytes);
            EXPECT_FALSE(Store::open(storeId, false)) << name.toStdString() << bytes.size();
        }
        for (int i = 0; i < 10; ++i) {
            QByteArray bytes = good;
            for (qsizetype at = 0; at < bytes.size(); ++at)
                if (at < 64 || random() % 16 == 0)
                    bytes[at] = static_cast<char>(random());
            put(bytes);
            StorePointer const store = Store::open(storeId, false);
            if (store && store->valid())
                (void)store->passiveHandle({"d", "a"}, Instance{2});
        }
        put(good);
        EXPECT_TRUE(Store::open(storeId, false)) << name.toStdString();
    }
}

} // namespace
} // namespace Replication
