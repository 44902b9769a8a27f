#pragma once

#include "base/values/Status.h"
#include "replication/common/values/Ids.h"

#include <QList>
#include <QString>

#include <cstdint>
#include <memory>
#include <utility>

namespace Replication {

class Store;
class RepositoryStream;

/// What a store is made for, as its stream of the rule set says.
struct StoreIdentity {
    ReplayId replayId;
    std::uint32_t filterType = 1; ///< 1 file system, 2 Exchange
    bool batch = false;
    QString sourceMachine;
    QString name; ///< "repository-" and the store's name

    StoreIdentity() = default;
    StoreIdentity(ReplayId replay, QString machine, QString storeName)
        : replayId(replay), sourceMachine(std::move(machine)), name(std::move(storeName)) {}
    /// Of a stream, which can stand wherever an identity is wanted.
    StoreIdentity(RepositoryStream const& stream); // NOLINT: a conversion
};

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
/// it, and whoever wants that one waits, so that one store doesn't hold up another.
class StoreTable {
public:
    /// A new store, in a place where there is nothing: `exists` must be certain of that. `Busy`,
    /// with nothing changed, when the id is open already. When the files can't be made, none is
    /// left.
    [[nodiscard]] static Morva::Result<StorePointer>
    create(StoreId id, StoreIdentity const& identity, bool caseSensitive);
    /// `NotFound` when there is certainly no store of this id. A store that is marked for deletion
    /// or can't be opened beyond its control block isn't valid; it is given out with `forDeletion`
    /// alone.
    [[nodiscard]] static Morva::Result<StorePointer> open(StoreId id, bool forDeletion);
    /// As `open(id, false)`; fails also when the store is fed by another replay id. Brings the
    /// store's batch mark up to date.
    [[nodiscard]] static Morva::Result<StorePointer> open(StoreId id,
                                                          StoreIdentity const& identity);
    /// Whether there is a store of this id. False is certain: its directory is absent or holds no
    /// file. A directory with files and without "files" is `Corruption`: something is missing.
    [[nodiscard]] static Morva::Result<bool> exists(StoreId id);
    /// Flushes every store that is open, whoever has opened it, as `Store::flush` does; the first
    /// failure of any. The caller holds the operation gate alone.
    [[nodiscard]] static Morva::Status flushAll();
    static void closeAll();
    /// The ids of the open stores.
    [[nodiscard]] static QList<StoreId> list();
    /// Gives back a reference that may be the last: looks at the count again under the lock, and
    /// closes and destroys the store if nobody has opened it meanwhile.
    static void removeStore(Store* store);
};

} // namespace Replication
