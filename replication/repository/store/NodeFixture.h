#pragma once

// For tests of this room alone.

#include "base/process/FixedPath.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/NodeFile.h"
#include "replication/repository/store/NodePointer.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/PathOperations.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"
#include "replication/repository/streams/Streams.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace Replication {

/// A pool and one new store in a temporary root.
class NodeFixture : public testing::Test {
protected:
    explicit NodeFixture(bool caseSensitive = true) {
        EXPECT_TRUE(Morva::FixedPath::setRoot(directory_.path()));
        pool = std::make_shared<Streams>(Morva::FixedPath::repositoryStreams(),
                                         Morva::FixedPath::repositoryStreamData(),
                                         Streams::Configuration());
        EXPECT_TRUE(static_cast<bool>(*pool));
        Store::configure(Morva::XmlList(), pool, nullptr);
        store = Store::create(StoreId{7}, identity(), caseSensitive);
        EXPECT_TRUE(store);
    }
    ~NodeFixture() override {
        store = {};
        Store::closeAll();
    }

    [[nodiscard]] static StoreIdentity identity() {
        return {ReplayId{3}, QStringLiteral("machine"), QStringLiteral("repository-test")};
    }
    void reopen() {
        store = {};
        store = Store::open(StoreId{7}, false);
        ASSERT_TRUE(store);
    }
    void snapshot() {
        store->directories().forget();
        ASSERT_TRUE(store->snapshots().snapshot(++time, false, 1, 1, 1, QStringLiteral("machine"),
                                                QString()));
    }
    [[nodiscard]] FileContext context() {
        FileContext result;
        result.sourceTime = ++time;
        return result;
    }
    /// A file with a "Data" stream of this content.
    std::shared_ptr<SinkHandle> file(QStringList const& path, QByteArray const& content = {}) {
        std::shared_ptr<SinkHandle> handle =
            store->paths().createStream(context(), path, dataStreamName, {});
        EXPECT_TRUE(handle && handle->streamHandle);
        if (handle && !content.isEmpty()) {
            EXPECT_TRUE(store->paths().write(context(), *handle, 0, content.constData(),
                                             static_cast<std::uint32_t>(content.size())));
        }
        return handle;
    }
    [[nodiscard]] static QByteArray contentOf(FileNode::Pointer const& node,
                                              QString const& stream = dataStreamName) {
        std::shared_ptr<StreamHandle> const handle = node ? node->openStream(stream) : nullptr;
        if (!handle)
            return "(none)";
        QByteArray result(static_cast<qsizetype>(handle->length()), '\0');
        EXPECT_EQ(handle->read(0, result.data(), static_cast<std::uint32_t>(result.size())),
                  result.size());
        return result;
    }
    /// The content at a snapshot; "(none)" when there is no such file.
    [[nodiscard]] QByteArray at(Instance instance, QStringList const& path) {
        return contentOf(store->passiveHandle(path, instance));
    }
    [[nodiscard]] QByteArray live(QStringList const& path) {
        Directories::Located const located =
            store->directories().locate(path, PathMode::DoNotBuildPath);
        return located.found ? contentOf(store->passiveHandles().get(
                                   store->pointers().getNode(located.key.fileId())))
                             : QByteArray("(none)");
    }
    [[nodiscard]] std::uint64_t usedNodes() {
        return store->nodes().totalBlocks() - store->nodes().freeBlocks();
    }

    QTemporaryDir directory_;
    std::shared_ptr<Streams> pool;
    StorePointer store;
    std::uint32_t time = 1000;
};

} // namespace Replication
