#pragma once

#include "base/process/FixedPath.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/NodeInfo.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/SnapshotDirectories.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"
#include "replication/repository/streams/Streams.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>

namespace Replication {

/// A real store in a temporary directory, for tests of its directories.
class DirectoriesFixture : public testing::Test {
protected:
    void SetUp() override { make(true); }
    void TearDown() override {
        store_.reset();
        Store::closeAll();
        streams_.reset();
    }

    void make(bool caseSensitive) {
        store_.reset();
        Store::closeAll();
        streams_.reset();
        ASSERT_TRUE(Morva::FixedPath::setRoot(directory_.path()));
        streams_ =
            std::make_shared<Streams>(directory_.filePath("streams"),
                                      directory_.filePath("streams"), Streams::Configuration());
        ASSERT_TRUE(static_cast<bool>(*streams_));
        Store::configure({}, streams_, nullptr);
        store_ = Store::create(StoreId{++lastId}, StoreIdentity(ReplayId{1}, "machine", "store"),
                               caseSensitive);
        ASSERT_TRUE(static_cast<bool>(store_));
    }

    Store& store() { return *store_; }
    Directories& directories() { return store_->directories(); }
    FileId root() { return store_->rootId(); }
    ActiveHandle::Pointer handle(FileId id) { return store_->activeHandles().get(id); }
    FileNode::Pointer node(FileId id) { return handle(id)->fileNode(); }

    /// Makes an object; its id, or 0.
    FileId make(FileId parent, QString const& name, std::uint32_t type = fileType,
                LiveMode mode = LiveMode::Clear) {
        DirKey key = directories().key(parent, name, type);
        auto const made = store_->activeHandles().create(key, {name}, mode, 1,
                                                         NodeInfo(store_->caseSensitivity()));
        return made ? key.fileId() : FileId{};
    }
    DirKey found(FileId parent, QString const& name) {
        DirKey key = directories().key(parent, name);
        EXPECT_TRUE(directories().find(key)) << name.toStdString();
        return key;
    }
    bool exists(FileId parent, QString const& name) {
        DirKey key = directories().key(parent, name);
        return directories().find(key);
    }
    bool removeName(FileId parent, QString const& name) {
        DirKey key = found(parent, name);
        return directories().removeLink(key);
    }
    bool move(FileId fromParent, QString const& from, FileId toParent, QString const& to) {
        DirKey source = found(fromParent, from);
        DirKey target = directories().key(toParent, to);
        return directories().rename(NotToBackup::eNothing, *handle(source.fileId()), source, target,
                                    to);
    }
    bool valid(FileId directory) {
        return directories().validDirectory(*node(directory), directory);
    }
    /// Takes a snapshot; the instance at which it is read.
    Instance snapshot() {
        EXPECT_TRUE(store_->snapshots().snapshot(++time_, false, 0, 0, 0, {}, {}));
        return store_->currentInstance();
    }
    std::uint64_t files() { return store_->control().counters()[1]; }
    std::uint64_t folders() { return store_->control().counters()[0]; }

    inline static std::uint64_t lastId = 0;
    QTemporaryDir directory_;
    std::shared_ptr<Streams> streams_;
    StorePointer store_;
    std::uint32_t time_ = 1000;
};

} // namespace Replication
