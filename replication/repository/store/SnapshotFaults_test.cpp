// Snapshots on a disk that fails: what is damaged holds what it holds, and what failed is repeated.

#include "base/files/FaultyFiles.h"
#include "base/trees/PagedQueue.h"
#include "replication/repository/store/DedupWorker.h"
#include "replication/repository/store/StoreFixture.h"
#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/DedupRequest.h"

#include <QFile>

#include <map>

namespace Replication {
namespace {

using Morva::FaultyFiles;
using Morva::Status;

class SnapshotFaults : public StoreFixture {
protected:
    using Contents = std::map<std::uint32_t, std::vector<std::optional<QByteArray>>>;
    static constexpr std::uint32_t last = 6;

    /// Snapshots 2 to 6 of a few files that change, come and go in between.
    void makeSnapshots() {
        create();
        for (std::uint32_t instance = 2; instance <= last; ++instance) {
            for (std::uint32_t name = 0; name < 5; ++name)
                if ((instance + name) % 3 != 0) {
                    ASSERT_TRUE(writeFile(fileName(name), content(instance, name)));
                }
            if (instance > 3) {
                ASSERT_TRUE(removeFile(fileName(instance % 5)));
            }
            ASSERT_EQ(Instance{instance}, snapshot());
        }
        work();
        contents_ = contents();
    }
    [[nodiscard]] static QString fileName(std::uint32_t number) {
        return QStringLiteral("d/%1").arg(number);
    }
    [[nodiscard]] static QByteArray content(std::uint32_t instance, std::uint32_t name) {
        return QByteArray(3000 + static_cast<int>(name), static_cast<char>('a' + instance)) +
               QByteArray::number(name);
    }
    [[nodiscard]] Contents contents() {
        Contents result;
        for (auto const& file : list().all())
            for (std::uint32_t name = 0; name < 5; ++name)
                result[file->instance().value].push_back(
                    contentAt(fileName(name), file->instance()));
        return result;
    }
    /// What the snapshots that are there still show.
    void checkContents() {
        for (auto const& [instance, files] : contents())
            EXPECT_TRUE(!contents_.contains(instance) || contents_[instance] == files)
                << "snapshot " << instance;
    }
    [[nodiscard]] SnapshotList& list() const { return store_->snapshots(); }
    void work() {
        EXPECT_TRUE(DedupWorker(streams_).drain());
        EXPECT_TRUE(CleanupWorker(streams_).drain());
    }
    /// As another process would find it.
    void openAnew() {
        store_.reset();
        closePool();
        openPool();
        reopen();
    }
    [[nodiscard]] QString path(std::uint32_t instance) const {
        return Store::directoryOf(storeId) + "/snapshot/" +
               SnapshotFile::fileName(Instance{instance});
    }
    [[nodiscard]] static QByteArray bytes(QString const& name) {
        QFile file(name);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << name.toStdString();
        return file.readAll();
    }
    static void put(QString const& name, QByteArray const& bytes) {
        QFile file(name);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(bytes.size(), file.write(bytes));
    }
    [[nodiscard]] std::uint64_t waitingRequests() const {
        std::uint64_t count = 0;
        EXPECT_TRUE(streams_->dedupQueue().available(count));
        return count;
    }

    Contents contents_;
};

TEST_F(SnapshotFaults, ADamagedSnapshotStaysAndHoldsWhatItHolds) {
    makeSnapshots();
    auto const nodes = usedNodes();
    store_.reset();
    auto const good = bytes(path(4));
    put(path(4), QByteArray(good.size(), '\0').left(300));
    openAnew();
    ASSERT_EQ(6u, list().all().size());
    auto const damaged = list().find(Instance{4});
    ASSERT_TRUE(damaged);
    EXPECT_EQ(Status::Code::Corruption, damaged->status().code());
    EXPECT_EQ(path(4), damaged->status().file());
    // Neither it nor what would add to it goes.
    EXPECT_FALSE(list().deleteSnapshot(Instance{4}));
    EXPECT_TRUE(list().deleteSnapshot(Instance{5}));
    {
        DedupWorker worker(streams_);
        EXPECT_TRUE(worker.drain());
        ASSERT_EQ(1u, worker.parked().size());
        EXPECT_TRUE(worker.parked()[0].reason.text().contains(path(4)));
    }
    EXPECT_TRUE(list().find(Instance{5}));
    EXPECT_EQ(nodes, usedNodes());
    auto const waiting = list().waiting();
    ASSERT_EQ(1u, waiting.size());
    EXPECT_TRUE(waiting.begin()->second.contains(path(4)));
    // The one before it can: what only that holds is in its own file.
    EXPECT_TRUE(list().deleteSnapshot(Instance{3}));
    Morva::XmlList told;
    store_->statistics(told);
    EXPECT_EQ(2u, told.get("StoreWaitingWork", std::uint32_t{0}));
    EXPECT_TRUE(told.getString(nullptr, "StoreFailedWork").contains(path(4)));
    work();
    EXPECT_FALSE(list().find(Instance{3}));
    checkContents();
    store_.reset();
    put(path(4), good);
    openAnew();
    EXPECT_TRUE(list().find(Instance{4})->status());
    work();
    // Put back from before, it names one that has gone by now: a gap, and nothing is freed.
    EXPECT_FALSE(list().find(Instance{5}));
    EXPECT_TRUE(list().deleteSnapshot(Instance{4}));
    DedupWorker again(streams_);
    EXPECT_TRUE(again.drain());
    EXPECT_EQ(1u, again.parked().size());
    checkContents();
}

TEST_F(SnapshotFaults, AMissingFileIsAGap) {
    makeSnapshots();
    store_.reset();
    ASSERT_TRUE(QFile::rename(path(4), root_.filePath("away")));
    openAnew();
    EXPECT_TRUE(list().deleteSnapshot(Instance{5}));
    work();
    EXPECT_TRUE(list().find(Instance{5}));
    EXPECT_EQ(1u, list().waiting().size());
    store_.reset();
    ASSERT_TRUE(QFile::rename(root_.filePath("away"), path(4)));
    openAnew();
    work();
    EXPECT_FALSE(list().find(Instance{5}));
    EXPECT_TRUE(list().waiting().empty());
    checkContents();
    // An orderly retirement leaves no gap.
    EXPECT_EQ(Instance{4}, list().find(Instance{6})->previousInstance());
    EXPECT_TRUE(list().deleteSnapshot(Instance{4}));
    work();
    EXPECT_EQ(Instance{3}, list().find(Instance{6})->previousInstance());
    checkContents();
}

TEST_F(SnapshotFaults, ARetirementThatFailedAnywhereIsRepeatedToTheSameEnd) {
    makeSnapshots();
    EXPECT_TRUE(list().deleteSnapshot(Instance{5}));
    work();
    store_->directories().forget();
    auto const nodes = usedNodes();
    auto const previous = bytes(path(4)).mid(4096);
    EXPECT_GT(previous.size(), 0);
    FaultyFiles files;
    int repeated = 0;
    for (bool const reading : {true, false}) {
        bool failed = true;
        for (std::uint64_t n = 0; failed; n += 1 + n / 10) {
            SCOPED_TRACE((reading ? "reads" : "writes") + std::to_string(n));
            store_.reset();
            makeSnapshots();
            openAnew();
            auto const faults = files.faults();
            reading ? files.failReadsAfter(n) : files.failWritesAfter(n);
            Status const asked = list().deleteSnapshot(Instance{5});
            (void)DedupWorker(streams_).drain(); // fails when the queue does
            failed = files.faults() != faults;
            files.heal();
            if (list().find(Instance{5})) {
                EXPECT_TRUE(failed);
                ++repeated;
                ASSERT_TRUE(list().deleteSnapshot(Instance{5}));
                work();
            }
            ASSERT_FALSE(list().find(Instance{5}));
            EXPECT_TRUE(store_->flush());
            openAnew();
            work();
            EXPECT_EQ(nodes, usedNodes());
            EXPECT_EQ(previous, bytes(path(4)).mid(4096));
            EXPECT_TRUE(list().waiting().empty());
            EXPECT_EQ(0u, waitingRequests());
            checkContents();
        }
    }
    EXPECT_GT(repeated, 10);
}

TEST_F(SnapshotFaults, ARetirementStoppedBetweenItsStepsGoesOn) {
    create();
    for (int name = 0; name < 200; ++name)
        ASSERT_TRUE(writeFile(QString::number(name), "1"));
    (void)snapshot();
    for (int name = 0; name < 200; ++name)
        ASSERT_TRUE(writeFile(QString::number(name), "2"));
    (void)snapshot();
    for (int name = 0; name < 200; name += 2)
        ASSERT_TRUE(removeFile(QString::number(name)));
    (void)snapshot();
    for (int name = 1; name < 200; name += 2)
        ASSERT_TRUE(writeFile(QString::number(name), "3"));
    EXPECT_TRUE(list().deleteSnapshot(Instance{3}));
    int points = 0;
    Status const stopped = DedupWorker(streams_).drain([&] {
        return ++points == 4 ? Status::failure(Status::Code::Busy, "stop", "here") : Status();
    });
    EXPECT_EQ(Status::Code::Busy, stopped.code());
    EXPECT_TRUE(list().find(Instance{3}));
    EXPECT_EQ(QByteArray("1"), contentAt("1", Instance{2}));
    openAnew();
    EXPECT_EQ(QByteArray("1"), contentAt("1", Instance{2}));
    work();
    EXPECT_FALSE(list().find(Instance{3}));
    EXPECT_EQ(QByteArray("1"), contentAt("1", Instance{2}));
    EXPECT_EQ(QByteArray("2"), contentAt("1", Instance{4}));
    for (std::uint32_t const instance : {1, 2})
        EXPECT_TRUE(list().deleteSnapshot(Instance{instance}));
    work();
    store_->directories().forget();
    // The root and 100 files, the first version of each for snapshot 4.
    EXPECT_EQ(201u, usedNodes());
}

TEST_F(SnapshotFaults, RequestsThatWereLostAreMadeAgainAtTheNextOpening) {
    makeSnapshots();
    ASSERT_TRUE(writeFile("new", QByteArray(9000, 'n')));
    EXPECT_EQ(Instance{7}, snapshot());
    EXPECT_TRUE(list().deleteSnapshot(Instance{3}));
    EXPECT_EQ(2u, waitingRequests());
    openAnew();
    EXPECT_EQ(2u, waitingRequests()); // they are there, and not twice
    auto& queue = streams_->dedupQueue();
    ASSERT_TRUE(queue.receiver());
    Morva::Extent entry;
    for (auto got = queue.tryReceive(entry); got.ok() && *got; got = queue.tryReceive(entry))
        ASSERT_TRUE(queue.release());
    openAnew();
    EXPECT_EQ(2u, waitingRequests());
    // The list of requests is a help only.
    store_.reset();
    for (QByteArray const& requests : {QByteArray(), QByteArray(100, '\1')}) {
        QString const name = Store::directoryOf(storeId) + "/snapshot/requests";
        ASSERT_TRUE(QFile::exists(name));
        requests.isEmpty() ? (void)QFile::remove(name) : put(name, requests);
        openAnew();
        EXPECT_EQ(1u, list().waiting().size());
        store_.reset();
    }
    reopen();
    work();
    EXPECT_FALSE(list().find(Instance{3}));
    EXPECT_EQ(DedupState::Deduplicated, list().find(Instance{7})->dedupState());
    checkContents();
}

TEST_F(SnapshotFaults, ARequestOutlivesAStoreThatDoesntOpen) {
    makeSnapshots();
    EXPECT_TRUE(list().deleteSnapshot(Instance{3}));
    store_.reset();
    QString const tree = Store::directoryOf(storeId) + "/files.tree";
    ASSERT_TRUE(QFile::rename(tree, root_.filePath("away")));
    DedupWorker worker(streams_);
    EXPECT_TRUE(worker.drain());
    ASSERT_EQ(1u, worker.parked().size());
    EXPECT_EQ(1u, waitingRequests());
    ASSERT_TRUE(QFile::rename(root_.filePath("away"), tree));
    EXPECT_TRUE(worker.drain());
    EXPECT_TRUE(worker.parked().empty());
    EXPECT_EQ(0u, waitingRequests());
    reopen();
    EXPECT_FALSE(list().find(Instance{3}));
    checkContents();
}

TEST_F(SnapshotFaults, AnOpeningReadsNoHeaderButTheActiveOnes) {
    FaultyFiles files;
    std::vector<std::uint64_t> reads;
    for (int const count : {2, 40}) {
        create();
        while (store_->currentInstance() < Instance{static_cast<std::uint32_t>(count)})
            (void)snapshot();
        work();
        openAnew();
        store_.reset();
        auto const before = files.reads();
        reopen();
        reads.push_back(files.reads() - before);
        EXPECT_EQ(count, list().all().size());
        store_.reset();
    }
    EXPECT_EQ(reads[0], reads[1]);
}

TEST_F(SnapshotFaults, ASnapshotIsTakenOrTheStoreIsAsBefore) {
    FaultyFiles files;
    makeSnapshots();
    for (bool const reading : {true, false}) {
        bool failed = true;
        for (std::uint64_t n = 0; failed; ++n) {
            SCOPED_TRACE((reading ? "reads" : "writes") + std::to_string(n));
            Instance const before = store_->currentInstance();
            ASSERT_TRUE(writeFile("new", QByteArray::number(before.value)));
            auto const faults = files.faults();
            reading ? files.failReadsAfter(n) : files.failWritesAfter(n);
            Status const taken = list().userSnapshot(1, 77, "label");
            failed = files.faults() != faults;
            files.heal();
            if (!taken) {
                EXPECT_EQ(before, store_->currentInstance());
                EXPECT_TRUE(list().userSnapshot(1, 77, "label"));
            }
            EXPECT_EQ(before.value + 1, store_->currentInstance().value);
            EXPECT_EQ(77u, list().active()->sourceTime());
            EXPECT_EQ(QByteArray::number(before.value),
                      contentAt("new", store_->currentInstance()));
            EXPECT_TRUE(store_->flush());
        }
        reopen();
        work();
        checkContents();
    }
}

TEST_F(SnapshotFaults, WhatCouldNotBeWrittenWasNotMarked) {
    makeSnapshots();
    FaultyFiles files;
    files.failWritesAfter(0);
    QString reason;
    EXPECT_FALSE(list().markSnapshot(reason, Instance{3}));
    EXPECT_FALSE(reason.isEmpty());
    EXPECT_FALSE(list().find(Instance{3})->markedForDeletion());
    EXPECT_EQ(0u, channel_->count(EventRecord::DeleteSnapshot));
    EXPECT_FALSE(list().deleteSnapshot(Instance{3}));
    EXPECT_FALSE(list().retireRequested(Instance{3}));
    files.heal();
    EXPECT_TRUE(list().markSnapshot(reason, Instance{3}));
    EXPECT_TRUE(list().deleteSnapshot(Instance{3}));
}

} // namespace
} // namespace Replication
