#include "replication/repository/store/StoreTable.h"

#include "base/trace/Trace.h"
#include "base/trace/TracedLock.h"
#include "replication/common/rules/ReplayStream.h"
#include "replication/repository/store/Store.h"

#include <QDir>

#include <condition_variable>
#include <map>

namespace Replication {

using Morva::TracedLock;
using Morva::TracedMutex;

namespace {

/// A store of the table. While it is busy it is being opened or closed by one thread, and its
/// pointer belongs to that one.
struct Entry {
    Store* store = nullptr;
    bool busy = true;
};

struct Table {
    TracedMutex lock{{"Lock Store Hash", "Unlock Store Hash"}};
    std::condition_variable_any changed;
    std::map<StoreId, Entry> stores MORVA_GUARDED_BY(lock);

    /// The entry once nobody is at work on it; the end if there is none.
    std::map<StoreId, Entry>::iterator find(StoreId id) MORVA_REQUIRES(lock) {
        for (;;) {
            auto const it = stores.find(id);
            if (it == stores.end() || !it->second.busy)
                return it;
            changed.wait(lock);
        }
    }

    /// Ends the work on an entry: the store stands in it from now on, or it goes.
    void settle(StoreId id, Store* store) {
        TracedLock guard(lock);
        if (store)
            stores[id] = Entry{store, false};
        else
            stores.erase(id);
        changed.notify_all();
    }
};

Table& table() {
    static Table instance;
    return instance;
}

} // namespace

StoreIdentity::StoreIdentity(RepositoryStream const& stream)
    : replayId(stream.replayId()),
      filterType(stream.filterType()),
      batch(stream.batch() == 2),
      sourceMachine(stream.sourceMachine().name()),
      name(stream.name()) {}

StorePointer::StorePointer(Store* store) : store_(store) {
    if (store_)
        store_->referenceCount_.fetch_add(1, std::memory_order_relaxed);
}

StorePointer::StorePointer(StorePointer const& other) : StorePointer(other.store_) {}

void StorePointer::reset() {
    Store* const store = std::exchange(store_, nullptr);
    if (!store)
        return;
    int count = store->referenceCount_.load(std::memory_order_relaxed);
    while (count > 1)
        if (store->referenceCount_.compare_exchange_weak(count, count - 1,
                                                         std::memory_order_acq_rel))
            return;
    StoreTable::removeStore(store);
}

StorePointer StoreTable::create(StoreId id, StoreIdentity const& identity, bool caseSensitive) {
    MORVA_METHOD("create");
    if (!Store::configured())
        return {};
    {
        TracedLock guard(table().lock);
        if (table().find(id) != table().stores.end())
            return {};
        table().stores[id] = Entry{};
    }
    std::unique_ptr<Store> store(new Store(id));
    if (!QDir().mkpath(store->path()) || !store->createFiles(identity, caseSensitive)) {
        MORVA_TRACE(Always) << "Failed to create 'directories' files";
        store.reset();
        table().settle(id, nullptr);
        return {};
    }
    StorePointer result(store.get());
    table().settle(id, store.release());
    return result;
}

StorePointer StoreTable::open(StoreId id, bool forDeletion) {
    MORVA_METHOD("open (StoreId)");
    if (!Store::configured())
        return {};
    {
        TracedLock guard(table().lock);
        auto const it = table().find(id);
        if (it != table().stores.end()) {
            Store* const store = it->second.store;
            return forDeletion || store->valid() ? StorePointer(store) : StorePointer();
        }
        table().stores[id] = Entry{};
    }
    std::unique_ptr<Store> store(new Store(id));
    if (!store->openFiles() || (!store->valid() && !forDeletion)) {
        store.reset();
        table().settle(id, nullptr);
        return {};
    }
    StorePointer result(store.get());
    table().settle(id, store.release());
    return result;
}

StorePointer StoreTable::open(StoreId id, StoreIdentity const& identity) {
    StorePointer store = open(id, false);
    if (!store)
        return {};
    if (store->replayId() != identity.replayId) {
        MORVA_TRACE(Normal) << "Store" << id << "has ReplayId" << store->replayId();
        return {};
    }
    if (store->control().batch() != identity.batch)
        (void)store->control().update([&](ControlFields& fields) { fields.batch(identity.batch); });
    return store;
}

void StoreTable::closeAll() {
    MORVA_METHOD("closeAll");
    TracedLock guard(table().lock);
    for (auto const& [id, entry] : table().stores)
        MORVA_TRACE(Normal) << "Store" << id << "References"
                            << (entry.busy ? 0 : entry.store->referenceCount_.load());
}

QList<StoreId> StoreTable::list() {
    TracedLock guard(table().lock);
    QList<StoreId> result;
    for (auto const& [id, entry] : table().stores)
        if (!entry.busy)
            result.append(id);
    return result;
}

void StoreTable::removeStore(Store* store) {
    StoreId const id = store->id();
    {
        // A count of one only ever falls under the lock, so nobody can find the store in between.
        TracedLock guard(table().lock);
        if (store->referenceCount_.fetch_sub(1, std::memory_order_acq_rel) > 1)
            return;
        table().stores[id].busy = true;
    }
    store->closed();
    delete store;
    table().settle(id, nullptr);
}

} // namespace Replication
