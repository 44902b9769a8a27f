#include "replication/repository/store/StoreTable.h"

#include "base/files/FileSystem.h"
#include "base/files/RawFile.h"
#include "base/trace/Trace.h"
#include "base/trace/TracedLock.h"
#include "replication/common/rules/ReplayStream.h"
#include "replication/repository/store/Store.h"

#include <condition_variable>
#include <map>
#include <vector>

namespace Replication {

using Morva::Result;
using Morva::Status;
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

namespace {

Status noPool() {
    return Status::failure(Status::Code::InvalidArgument, "open a store", {},
                           QStringLiteral("there is no pool of streams"));
}

Status missing(StoreId id) {
    return Status::failure(Status::Code::NotFound, "open a store", Store::directoryOf(id),
                           QStringLiteral("there is none"));
}

/// Whether a store that is open may be given out.
Status usable(Store const& store, bool forDeletion) {
    if (forDeletion || store.valid())
        return {};
    if (!store.invalidity())
        return store.invalidity();
    return Status::failure(Status::Code::InvalidArgument, "open a store", store.path(),
                           QStringLiteral("it is marked for deletion"));
}

/// Ends the work on an entry that was begun, unless a store is put into it.
class Opening {
public:
    explicit Opening(StoreId id) : id_(id) {}
    ~Opening() {
        if (!done_)
            table().settle(id_, nullptr);
    }
    Opening(Opening const&) = delete;
    Opening& operator=(Opening const&) = delete;
    [[nodiscard]] StorePointer settle(std::unique_ptr<Store> store) {
        StorePointer result(store.get());
        table().settle(id_, store.release());
        done_ = true;
        return result;
    }

private:
    StoreId id_;
    bool done_ = false;
};

} // namespace

Result<bool> StoreTable::exists(StoreId id) {
    QString const path = Store::directoryOf(id);
    MORVA_TRY_LET(bool const whole,
                  Morva::FileSystem::inForce().exists(path + QStringLiteral("/files")));
    if (whole)
        return true;
    for (QString const& directory : {path, path + QStringLiteral("/snapshot")}) {
        auto const names =
            Morva::FileSystem::inForce().names(directory, Morva::FileSystem::Kind::File);
        if (!names.ok() && names.code() != Status::Code::NotFound)
            return names.status();
        if (names.ok() && !names->isEmpty())
            return Status::corruption("open a store", path,
                                      QStringLiteral("its \"files\" is missing, and \"%1\" is "
                                                     "there: is its volume mounted?")
                                          .arg(names->front()));
    }
    return false;
}

Result<StorePointer> StoreTable::create(StoreId id, StoreIdentity const& identity,
                                        bool caseSensitive) {
    MORVA_METHOD("create");
    if (!Store::configured())
        return noPool();
    {
        TracedLock guard(table().lock);
        if (table().find(id) != table().stores.end())
            return Status::failure(Status::Code::Busy, "make a store", Store::directoryOf(id),
                                   QStringLiteral("it is open"));
        table().stores[id] = Entry{};
    }
    Opening opening(id);
    MORVA_TRY_LET(bool const there, exists(id));
    if (there)
        return Status::failure(Status::Code::InvalidArgument, "make a store",
                               Store::directoryOf(id), QStringLiteral("there is one already"));
    std::unique_ptr<Store> store(new Store(id));
    if (Status made = store->createFiles(identity, caseSensitive); !made) {
        MORVA_TRACE(Always) << "Failed to create 'directories' files" << made.text();
        return made;
    }
    return opening.settle(std::move(store));
}

Result<StorePointer> StoreTable::open(StoreId id, bool forDeletion) {
    MORVA_METHOD("open (StoreId)");
    if (!Store::configured())
        return noPool();
    {
        TracedLock guard(table().lock);
        auto const it = table().find(id);
        if (it != table().stores.end()) {
            MORVA_TRY(usable(*it->second.store, forDeletion));
            return StorePointer(it->second.store);
        }
        table().stores[id] = Entry{};
    }
    Opening opening(id);
    std::unique_ptr<Store> store(new Store(id));
    if (Status opened = store->openFiles(); !opened) {
        // Absent is what nothing is left of, and no single file.
        MORVA_TRY_LET(bool const there, exists(id));
        return there ? opened : missing(id);
    }
    MORVA_TRY(usable(*store, forDeletion));
    return opening.settle(std::move(store));
}

Result<StorePointer> StoreTable::open(StoreId id, StoreIdentity const& identity) {
    MORVA_TRY_LET(StorePointer store, open(id, false));
    if (store->replayId() != identity.replayId) {
        MORVA_TRACE(Normal) << "Store" << id << "has ReplayId" << store->replayId();
        return Status::failure(Status::Code::InvalidArgument, "open a store", store->path(),
                               QStringLiteral("it is fed by another stream"));
    }
    if (store->control().batch() != identity.batch)
        MORVA_TRY(
            store->control().update([&](ControlFields& fields) { fields.batch(identity.batch); }));
    return store;
}

Status StoreTable::flushAll() {
    std::vector<StorePointer> open;
    {
        TracedLock guard(table().lock);
        for (auto const& [id, entry] : table().stores)
            if (!entry.busy)
                open.emplace_back(entry.store);
    }
    Status result;
    for (StorePointer const& store : open)
        result.update(store->flush());
    return result;
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
