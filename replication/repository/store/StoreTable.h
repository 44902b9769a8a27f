#pragma once

#include "replication/common/values/Ids.h"

#include <QList>

#include <memory>
#include <utility>

namespace Replication {

class Store;
class RepositoryStream;

/// A counted pointer to an open store. The last release closes and destroys the store.
class StorePointer {
public:
    StorePointer() = default;
    /// Counts one reference more.
    explicit StorePointer(Store* store);
    StorePointer(StorePointer const& other);
    StorePointer(StorePointer&& other) noexcept : store_(std::exchange(other.store_, nullptr)) {}
    StorePointer& operator=(StorePointer other) noexcept {
        std::swap(store_, other.store_);
        return *this;
    }
    ~StorePointer() { reset(); }
    void reset();

    [[nodiscard]] Store* get() const { return store_; }
    Store* operator->() const { return store_; }
    Store& operator*() const { return *store_; }
    explicit operator bool() const { return store_ != nullptr; }

private:
    Store* store_ = nullptr;
};

/// The open stores of the process by id. It doesn't count references itself. One process-wide
/// lock ("Lock Store Hash") guards the table; a store that is being opened or closed is marked in
/// it, so that opening one store doesn't hold up another.
class StoreTable {
public:
    [[nodiscard]] static StorePointer create(StoreId id, RepositoryStream const& stream,
                                             bool caseSensitive);
    [[nodiscard]] static StorePointer open(StoreId id, bool forDeletion);
    [[nodiscard]] static StorePointer open(StoreId id, RepositoryStream const& stream);
    static void closeAll();
    [[nodiscard]] static QList<StoreId> list();
    /// By the last release; looks at the count again under the lock.
    static void removeStore(Store* store);
};

} // namespace Replication
