#include "replication/repository/store/SnapshotList.h"

#include "base/blocks/Failures.h"
#include "base/trace/Trace.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Event.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/SnapshotListState.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/DedupRequest.h"
#include "replication/repository/streams/Streams.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <map>

namespace Replication {

using Morva::TracedLock;

namespace {

QString const dedupPrefix = QStringLiteral("dedup");

/// The instance of a closed dedup file's name; 0 if it is none.
Instance dedupInstance(QString const& name) {
    if (!name.startsWith(dedupPrefix))
        return {};
    return SnapshotFile::fromFileName(QStringLiteral("snapshot") + name.mid(dedupPrefix.size()));
}

/// What lies in a snapshot directory for one instance.
struct Found {
    bool snapshot = false;
    bool dedup = false;
};

std::map<Instance, Found> scan(QString const& path, Instance highest) {
    std::map<Instance, Found> result;
    QDir directory(path);
    QStringList const names = directory.entryList(QDir::Files, QDir::Name);
    for (QString const& name : names) {
        Instance const snapshot = SnapshotFile::fromFileName(name);
        Instance const dedup = dedupInstance(name);
        Instance const instance = snapshot ? snapshot : dedup;
        if (!instance)
            continue;
        if (highest && instance > highest) {
            MORVA_TRACE(Always) << "Remove" << name << "of an unfinished snapshot";
            directory.remove(name);
            continue;
        }
        (snapshot ? result[instance].snapshot : result[instance].dedup) = true;
    }
    return result;
}

/// Brings the state of deduplication in line with the dedup file; whether it changed.
bool alignDedupState(SnapshotFile& file, bool dedupFile) {
    DedupState const state = file.dedupState();
    if (dedupFile) {
        if (state == DedupState::Processing || state == DedupState::Pending)
            return false;
        file.setDedupState(DedupState::Pending);
        return true;
    }
    if (state == DedupState::Deduplicated || state == DedupState::None)
        return false;
    file.setDedupState(DedupState::None);
    return true;
}

} // namespace

SnapshotList::SnapshotList(Store& store) : p_(std::make_unique<Private>(store)) {}

SnapshotList::~SnapshotList() = default;

// --- life

bool SnapshotList::create(QString const& snapshotPath) {
    p_->path = snapshotPath;
    auto file = std::make_shared<SnapshotFile>(snapshotPath, Instance{1});
    file->setType(SnapshotType::Initial, false);
    if (!file->writeHeader() || !file->openForAppend())
        return false;
    {
        TracedLock lock(p_->lock);
        p_->active = file;
        p_->snapshots = {file};
    }
    return p_->openDedup();
}

bool SnapshotList::load(QString const& snapshotPath, bool upgraded, bool unclean) {
    p_->path = snapshotPath;
    ControlBlock::Image image = p_->store.control().image();
    ControlFields const control(image.data());
    Instance const current = p_->store.currentInstance();
    Instance previous;
    std::vector<std::shared_ptr<SnapshotFile>> list;
    for (auto const& [instance, found] : scan(snapshotPath, unclean ? current : Instance{})) {
        if (!found.snapshot)
            continue;
        auto file = std::make_shared<SnapshotFile>(snapshotPath, instance);
        if (!file->instance())
            continue;
        bool changed = alignDedupState(*file, found.dedup);
        if (upgraded) {
            if ((control.deleteValidateInstance() && control.validateInstance() == instance) ||
                (control.deleteLastInstance() && control.lastInstance()))
                file->setRetire();
            file->setPreviousInstance(previous);
            changed = true;
        }
        if (changed)
            (void)file->writeHeader();
        previous = instance;
        list.push_back(std::move(file));
    }
    if (list.empty() || list.back()->instance() != current || !list.back()->openForAppend()) {
        MORVA_TRACE(Always) << "Failed to find the active snapshot" << current;
        return false;
    }
    {
        TracedLock lock(p_->lock);
        p_->active = list.back();
        p_->snapshots = std::move(list);
    }
    return p_->openDedup();
}

void SnapshotList::close() {
    TracedLock lock(p_->lock);
    if (p_->active)
        p_->active->close();
    p_->active.reset();
    p_->snapshots.clear();
    TracedLock dedupLock(p_->dedupLock);
    p_->dedup.reset();
}

bool SnapshotList::Private::openDedup() {
    TracedLock guard(dedupLock);
    dedup = std::make_unique<DedupFile>(path);
    if (dedup->openForAppend())
        return true;
    MORVA_TRACE(Always) << "Failed to open the dedup list";
    dedup.reset();
    return false;
}

std::shared_ptr<SnapshotFile> SnapshotList::Private::find(Instance instance) const {
    for (auto const& file : snapshots)
        if (file->instance() == instance)
            return file;
    return nullptr;
}

std::shared_ptr<SnapshotFile> SnapshotList::Private::findOlder(Instance instance) const {
    auto const file = find(instance);
    return file && file != snapshots.back() ? file : nullptr;
}

void SnapshotList::Private::queueDeletion(SnapshotFile& file) {
    // What the queue refuses is asked for again at the next snapshot.
    file.setRetire();
    if (DedupRequests::deleteSnapshot(store.streams(), store.id(), file.instance()))
        file.setRetired();
    (void)file.writeHeader();
}

// --- taking snapshots

void SnapshotList::Private::moveDedup(Instance instance) {
    TracedLock guard(dedupLock);
    if (!dedup)
        return;
    if (!store.dedupSnapshots()) {
        if (!dedup->empty())
            MORVA_TRACE(Always) << "Failed to empty the dedup list";
        return;
    }
    if (!dedup->rename(instance))
        MORVA_TRACE(Always) << "Failed to move the dedup list to instance" << instance;
    else
        (void)DedupRequests::dedupSnapshot(store.streams(), store.id(), instance);
}

void SnapshotList::Private::discard(Instance instance) {
    store.unfinished().finish([name = path + QLatin1Char('/') + SnapshotFile::fileName(instance)] {
        return !QFileInfo(name).isFile() || Morva::RawFile::remove(name);
    });
}

bool SnapshotList::Private::take(std::function<void(SnapshotFile&)> const& describe) {
    Instance const old = store.currentInstance();
    Instance const next{old.value + 1};
    // Everything that can fail comes before the store moves on, so that a full disk leaves it in
    // the old instance.
    if (!store.settle())
        return false;
    auto file = std::make_shared<SnapshotFile>(path, next);
    if (!file->instance()) {
        discard(next);
        return false;
    }
    describe(*file);
    if (!file->snapshot(store.control().counters(), store.retired().timeStamp(), old,
                        store.dedupSnapshots()) ||
        !file->openForAppend()) {
        file->remove();
        discard(next);
        return false;
    }
    // Cached handles on directories and their pages belong to the instance that ends.
    store.directories().forget();
    Instance lastBefore;
    bool deleteLastBefore = false;
    bool const written = store.control().update([&](ControlFields& fields) {
        lastBefore = fields.lastInstance();
        deleteLastBefore = fields.deleteLastInstance();
        fields.lastInstance(old);
        fields.instance(next);
        fields.deleteLastInstance(false);
    });
    if (!written) {
        (void)store.control().update([&](ControlFields& fields) {
            fields.lastInstance(lastBefore);
            fields.instance(old);
            fields.deleteLastInstance(deleteLastBefore);
        });
        file->remove();
        discard(next);
        return false;
    }
    store.currentInstance_.store(next.value, std::memory_order_release);
    moveDedup(next);
    TracedLock guard(lock);
    active->close();
    active = file;
    snapshots.push_back(file);
    for (std::size_t i = 0; i + 1 < snapshots.size(); ++i)
        if (snapshots[i]->retire() && !snapshots[i]->retired())
            queueDeletion(*snapshots[i]);
    return true;
}

bool SnapshotList::snapshot(std::uint32_t sourceTime, bool needResync, std::uint32_t policy,
                            std::uint32_t opId, std::uint32_t ruleSet, QString const& machine,
                            QString const& label) {
    MORVA_METHOD("snapshot");
    if (!p_->store.id())
        return scope.result(true);
    MORVA_TRACE(Verbose) << "Snapshot of" << machine << "Policy" << policy;
    bool const indexed = p_->store.indexSnapshots() && p_->store.event();
    if (!p_->take([&](SnapshotFile& file) {
            file.setPolicy(policy, opId, ruleSet, needResync);
            file.setIndexed(indexed);
            file.setLabel(label);
        }))
        return scope.result(false);
    if (Event* event = p_->store.event();
        event && !event->snapshot(p_->store.currentInstance(), ruleSet, policy, opId, needResync,
                                  sourceTime))
        MORVA_TRACE(Always) << "Failed to send snapshot event";
    return scope.result(true);
}

bool SnapshotList::userSnapshot(std::uint32_t opId, std::uint32_t time, QString const& label) {
    MORVA_METHOD("userSnapshot");
    if (!p_->store.id())
        return scope.result(true);
    bool const indexed = p_->store.indexSnapshots() && p_->store.event();
    if (!p_->take([&](SnapshotFile& file) {
            file.setType(SnapshotType::User, false);
            file.setIndexed(indexed);
            file.setLabel(label);
        }))
        return scope.result(false);
    if (Event* event = p_->store.event();
        event && !event->userSnapshot(p_->store.currentInstance(), opId, false, time, label))
        MORVA_TRACE(Always) << "Failed to send user snapshot event";
    return scope.result(true);
}

bool SnapshotList::resyncSnapshot(std::uint32_t time, QString const& label) {
    MORVA_METHOD("resyncSnapshot");
    if (!p_->store.id())
        return scope.result(true);
    if (!p_->take([&](SnapshotFile& file) {
            file.setType(SnapshotType::Synchronization, true);
            file.setLabel(label);
        }))
        return scope.result(false);
    if (Event* event = p_->store.event();
        event && !event->resyncSnapshot(p_->store.currentInstance(), 0, time))
        MORVA_TRACE(Always) << "Failed to send resync snapshot event";
    return scope.result(true);
}

Instance SnapshotList::validateSnapshot() {
    MORVA_METHOD("validateSnapshot");
    if (p_->store.id() && p_->take([](SnapshotFile& file) {
            file.setType(SnapshotType::Validate, false);
            file.setLabel(QStringLiteral("Validate"));
        }))
        (void)p_->store.control().update([this](ControlFields& fields) {
            fields.validateInstance(p_->store.currentInstance());
            fields.deleteValidateInstance(false);
        });
    return scope.result(p_->store.currentInstance());
}

// --- looking and adding

void SnapshotList::addEntry(FileId id, Instance instance) {
    if (!p_->active)
        return;
    p_->unwritten.push_back({instance, id});
    Morva::Failures::Pardon const pardon;
    if (!writeEntries())
        MORVA_TRACE(Always) << "Failed to record the end of" << id << "in instance" << instance;
}

bool SnapshotList::writeEntries() {
    auto& unwritten = p_->unwritten;
    while (!unwritten.empty()) {
        if (!p_->active || !p_->active->addEntry(unwritten.front())) {
            Morva::Failures::note();
            return false;
        }
        unwritten.erase(unwritten.begin());
    }
    return true;
}

void SnapshotList::addToDedup(StreamId id) {
    if (!p_->store.dedupSnapshots())
        return;
    MORVA_TRACE(Debug) << ">>>> Ask for stream" << id << "to be deduped after the next snapshot";
    TracedLock guard(p_->dedupLock);
    if (p_->dedup && !p_->dedup->append(id))
        MORVA_TRACE(Always) << "Failed to add to the dedup list";
}

bool SnapshotList::flushDedup() {
    TracedLock guard(p_->dedupLock);
    return !p_->dedup || p_->dedup->flush();
}

std::shared_ptr<SnapshotFile> SnapshotList::find(Instance instance) const {
    TracedLock guard(p_->lock);
    return p_->find(instance);
}

std::shared_ptr<SnapshotFile> SnapshotList::active() const {
    TracedLock guard(p_->lock);
    return p_->active;
}

std::vector<std::shared_ptr<SnapshotFile>> SnapshotList::all() const {
    TracedLock guard(p_->lock);
    return p_->snapshots;
}

void SnapshotList::forEach(std::function<void(SnapshotFile const&)> const& visit) const {
    TracedLock guard(p_->lock);
    for (auto const& file : p_->snapshots)
        visit(*file);
}

} // namespace Replication
