#include "base/files/FaultyFiles.h"
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
    StorePointer const second = open();
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
                StorePointer const store = open();
                opened += store && store->valid() && store->rootId() == FileId{129};
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(200, opened);
    EXPECT_TRUE(Store::list().isEmpty());
    EXPECT_FALSE(openMarkOnDisk());
}

TEST_F(Stores, FilesOfInstancesThatWereNotReachedAreLeftAlone) {
    create();
    ASSERT_TRUE(writeFile("a", "1"));
    store_.reset();
    auto const name = [](char const* file) {
        return directory() + QStringLiteral("/snapshot/") + QLatin1String(file);
    };
    QStringList const strangers{"dedup0000000002", "snapshot0000000002", "snapshot0000000005"};
    for (QString const& each : strangers) {
        QFile file(name(qPrintable(each)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(4096, '\7'));
    }
    patchControl([](ControlFields fields) { fields.openMark(true); });
    store_ = open();
    ASSERT_TRUE(store_);
    EXPECT_TRUE(store_->unclean());
    EXPECT_EQ(strangers, store_->snapshots().strangers());
    EXPECT_EQ(3u, store_->control().sequence());
    // The next number that nobody has.
    EXPECT_EQ(Instance{6}, snapshot());
    EXPECT_EQ(Instance{1}, store_->snapshots().active()->previousInstance());
    EXPECT_EQ(QByteArray("1"), contentAt("a", Instance{6}));
    reopen();
    EXPECT_EQ(Instance{6}, store_->currentInstance());
    QFile left(name("dedup0000000002"));
    ASSERT_TRUE(left.open(QIODevice::ReadOnly));
    EXPECT_EQ(QByteArray(4096, '\7'), left.readAll());
}

TEST_F(Stores, WhatIsMissingMakesNoNewStore) {
    EXPECT_FALSE(*Store::exists(storeId));
    EXPECT_EQ(Morva::Status::Code::NotFound, Store::open(storeId, false).code());
    create();
    ASSERT_TRUE(writeFile("a", "1"));
    (void)snapshot();
    store_.reset();
    EXPECT_TRUE(*Store::exists(storeId));
    EXPECT_FALSE(Store::create(storeId, identity(), true));
    QString const files = directory() + QStringLiteral("/files");
    ASSERT_TRUE(QFile::rename(files, files + ".away"));
    auto const missing = Store::exists(storeId);
    EXPECT_EQ(Morva::Status::Code::Corruption, missing.code());
    EXPECT_TRUE(missing.status().text().contains("\"files\" is missing"));
    EXPECT_FALSE(Store::create(storeId, identity(), true));
    EXPECT_EQ(Morva::Status::Code::Corruption, Store::open(storeId, false).code());
    // With everything but the snapshots gone, too.
    for (QString const& name : QDir(directory()).entryList(QDir::Files))
        ASSERT_TRUE(QFile::rename(directory() + u'/' + name, root_.filePath(name)));
    EXPECT_EQ(Morva::Status::Code::Corruption, Store::exists(storeId).code());
    EXPECT_FALSE(Store::create(storeId, identity(), true));
    for (char const* name : {"files.tree", "files.ptrs.blocks"})
        ASSERT_TRUE(QFile::rename(root_.filePath(name), directory() + u'/' + QLatin1String(name)));
    ASSERT_TRUE(QFile::rename(root_.filePath("files.away"), files));
    store_ = open();
    ASSERT_TRUE(store_);
    EXPECT_EQ(QByteArray("1"), contentAt("a", Instance{2}));
}

TEST_F(Stores, ACreationThatFailsLeavesNothingBehind) {
    Morva::FaultyFiles files;
    std::uint64_t tried = 0;
    for (bool failed = true; failed; ++tried) {
        auto const before = files.faults();
        files.failWrite(tried + 1);
        auto made = Store::create(storeId, identity(), true);
        failed = files.faults() != before;
        files.heal();
        if (!made) {
            EXPECT_TRUE(failed);
            auto const there = Store::exists(storeId);
            ASSERT_TRUE(there.ok()) << there.status().text().toStdString();
            EXPECT_FALSE(*there) << tried;
            continue;
        }
        // What the failure hit has been written after all.
        store_ = *std::move(made);
        EXPECT_TRUE(store_->flush());
        reopen();
        EXPECT_TRUE(store_->valid());
        store_.reset();
        QDir(directory()).removeRecursively();
    }
    EXPECT_GT(tried, 5u);
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
    EXPECT_TRUE(store_->active(false));
    EXPECT_TRUE(store_->markForDeletion());
    EXPECT_TRUE(store_->active(true)); // wanted again before anyone was told
    EXPECT_FALSE(store_->markedForDeletion());
    EXPECT_TRUE(store_->active(false));
    EXPECT_TRUE(store_->markForDeletion());
    EXPECT_EQ(0u, channel_->count(EventRecord::DeleteStore));
    store_.reset();
    EXPECT_EQ(1u, channel_->count(EventRecord::DeleteStore));
    EXPECT_EQ(storeId, channel_->events.back().object.store);
    EXPECT_FALSE(Store::open(storeId, false));
    StorePointer const marked = open(storeId, true);
    ASSERT_TRUE(marked);
    EXPECT_FALSE(marked->valid());
    EXPECT_TRUE(marked->active(true)); // too late
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
    EXPECT_TRUE(store_->markOpen());
    EXPECT_TRUE(openMarkOnDisk());
    EXPECT_TRUE(store_->flush());
    EXPECT_TRUE(openMarkOnDisk());
    patchControl([](ControlFields fields) {
        EXPECT_EQ(1u, fields.files());
        EXPECT_EQ(1u, fields.directories());
    });
}

TEST_F(Stores, StoreZeroHasNoSnapshots) {
    create(StoreId{});
    store_->settings(true, true, true, {});
    EXPECT_FALSE(store_->indexSnapshots());
    ASSERT_TRUE(writeFile("a", "1"));
    EXPECT_EQ(Instance{1}, snapshot());
    EXPECT_EQ(Instance{1}, *store_->snapshots().validateSnapshot());
    QString reason;
    EXPECT_FALSE(store_->snapshots().markSnapshot(reason, Instance{1}));
    EXPECT_EQ(QStringLiteral("Invalid Id"), reason);
    EXPECT_TRUE(channel_->events.empty());
    store_.reset();
    store_ = open(StoreId{});
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
            StorePointer const store = open();
            if (store && store->valid())
                (void)store->passiveHandle({"d", "a"}, Instance{2});
        }
        put(good);
        EXPECT_TRUE(Store::open(storeId, false)) << name.toStdString();
    }
}

} // namespace
} // namespace Replication
