#pragma once

#include "base/messages/XmlList.h"
#include "base/process/FixedPath.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Event.h"
#include "replication/repository/store/FileNode.h"
#include "replication/repository/store/NodeFile.h"
#include "replication/repository/store/NodePointer.h"
#include "replication/repository/store/Outcomes.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/PathOperations.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/SnapshotDirectories.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"
#include "replication/repository/streams/Streams.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>

#include <memory>
#include <optional>
#include <vector>

namespace Replication {

/// Keeps the events of a test in memory; can be told to refuse them.
class MemoryEventChannel : public EventChannel {
public:
    bool send(Morva::Extent const& event) override {
        if (refuse)
            return false;
        std::optional<EventRecord> record = EventRecord::decode(event);
        EXPECT_TRUE(record);
        if (record)
            events.push_back(*record);
        return true;
    }
    /// How many events of a type there were.
    [[nodiscard]] std::size_t count(std::uint32_t type) const {
        std::size_t result = 0;
        for (EventRecord const& event : events)
            result += event.type == type;
        return result;
    }

    bool refuse = false;
    std::vector<EventRecord> events;
};

/// A root directory of its own, a pool, a channel and one store, for tests.
class StoreFixture : public testing::Test {
protected:
    static constexpr StoreId storeId{0x1234};

    StoreFixture() {
        EXPECT_TRUE(Morva::FixedPath::setRoot(root_.path()));
        openPool();
    }
    ~StoreFixture() override {
        store_.reset();
        closePool();
        Morva::FixedPath::setRoot({});
    }

    void openPool() {
        QDir().mkpath(Morva::FixedPath::repositoryStreams());
        QDir().mkpath(Morva::FixedPath::repositoryStreamData());
        streams_ = std::make_shared<Streams>(Morva::FixedPath::repositoryStreams(),
                                             Morva::FixedPath::repositoryStreamData(),
                                             Streams::Configuration{});
        EXPECT_TRUE(*streams_);
        Store::configure(configuration_, streams_, channel_);
    }
    void closePool() {
        Store::closeAll();
        streams_.reset();
    }

    [[nodiscard]] static StoreIdentity identity() {
        return {ReplayId{7}, QStringLiteral("machine"), QStringLiteral("repository-home")};
    }
    /// A new store in the place of the one before.
    void create(bool caseSensitive = true) { create(storeId, caseSensitive); }
    void create(StoreId id, bool caseSensitive = true) {
        QDir(Store::directoryOf(id)).removeRecursively();
        auto made = Store::create(id, identity(), caseSensitive);
        ASSERT_TRUE(made) << made.status().text().toStdString();
        store_ = *made;
    }
    void reopen() {
        store_.reset();
        store_ = open();
        ASSERT_TRUE(store_);
    }
    /// Null when it doesn't open.
    [[nodiscard]] static StorePointer open(StoreId id = storeId, bool forDeletion = false) {
        auto opened = Store::open(id, forDeletion);
        return opened ? *std::move(opened) : StorePointer();
    }

    /// A file with content, in the root or below; the directories on the way are made.
    bool writeFile(QString const& path, QByteArray const& content) {
        FileContext const context = writing();
        QStringList const parts = path.split(QLatin1Char('/'));
        auto const made = store_->paths().createStream(context, parts, dataStreamName, {});
        return made && (*made)->streamHandle &&
               store_->paths().truncate(context, **made, static_cast<std::uint64_t>(content.size()),
                                        0) &&
               store_->paths().write(context, **made, 0, content.constData(),
                                     static_cast<std::uint32_t>(content.size()));
    }
    bool removeFile(QString const& path) {
        return store_->paths().unlink(writing(), path.split(QLatin1Char('/'))).ok();
    }
    /// The content at an instance; nothing when there is no such file.
    [[nodiscard]] std::optional<QByteArray> contentAt(QString const& path, Instance instance) {
        auto const node = value(store_->passiveHandle(path.split(QLatin1Char('/')), instance));
        auto const stream = node ? value(node->openStream(dataStreamName)) : nullptr;
        if (!stream)
            return {};
        QByteArray result(static_cast<qsizetype>(stream->length()), Qt::Uninitialized);
        EXPECT_EQ(result.size(),
                  stream->read(0, result.data(), static_cast<std::uint32_t>(result.size())));
        return result;
    }
    /// Takes a policy snapshot and returns its instance.
    Instance snapshot(QString const& label = {}) {
        EXPECT_TRUE(store_->snapshots().snapshot(++time_, false, 3, 4, 5, QStringLiteral("machine"),
                                                 label));
        return store_->currentInstance();
    }
    [[nodiscard]] FileContext writing() {
        FileContext context;
        context.sourceTime = ++time_;
        return context;
    }
    /// Nodes in use, the root's counted.
    [[nodiscard]] std::uint64_t usedNodes() const {
        NodeFile const& nodes = store_->nodes();
        // Block 0 is the file's own and the first one the control block.
        return nodes.totalBlocks() - nodes.freeBlocks() - 2;
    }

    QTemporaryDir root_;
    Morva::XmlList configuration_;
    std::shared_ptr<MemoryEventChannel> channel_ = std::make_shared<MemoryEventChannel>();
    std::shared_ptr<Streams> streams_;
    StorePointer store_;
    std::uint32_t time_ = 1000;
};

} // namespace Replication
