#pragma once

// For tests of this room alone.

#include "replication/repository/store/NodeInfo.h"
#include "replication/repository/store/StoreFixture.h"

namespace Replication {

/// A new store, and short ways to make and to find names in its directories.
class DirectoriesFixture : public StoreFixture {
protected:
    DirectoriesFixture() { create(); }

    /// Takes another store in place of the one that is there.
    void make(bool caseSensitive) {
        StoreFixture::create(StoreId{storeId.value + 1}, caseSensitive);
        ASSERT_TRUE(store_);
    }

    Store& store() { return *store_; }
    Directories& directories() { return store_->directories(); }
    FileId root() { return store_->rootId(); }
    ActiveHandle::Pointer handle(FileId id) { return value(store_->activeHandles().get(id)); }
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
        EXPECT_TRUE(value(directories().find(key))) << name.toStdString();
        return key;
    }
    bool exists(FileId parent, QString const& name) {
        DirKey key = directories().key(parent, name);
        return value(directories().find(key));
    }
    bool removeName(FileId parent, QString const& name) {
        DirKey key = found(parent, name);
        return directories().removeLink(key).ok();
    }
    bool move(FileId fromParent, QString const& from, FileId toParent, QString const& to) {
        DirKey source = found(fromParent, from);
        DirKey target = directories().key(toParent, to);
        return directories()
            .rename(NotToBackup::eNothing, *handle(source.fileId()), source, target, to)
            .ok();
    }
    bool valid(FileId directory) {
        return directories().validDirectory(*node(directory), directory).ok();
    }
    std::uint64_t files() { return store_->control().counters()[1]; }
    std::uint64_t folders() { return store_->control().counters()[0]; }
};

} // namespace Replication
