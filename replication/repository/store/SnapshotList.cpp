#include "replication/repository/store/SnapshotList.h"

#include "base/blocks/Failures.h"
#include "base/files/RawFile.h"
#include "base/trace/Trace.h"
#include "base/trees/PagedQueue.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Event.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/SnapshotListState.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/DedupRequest.h"
#include "replication/repository/streams/Streams.h"

#include <algorithm>
#include <set>
#include <utility>

namespace Replication {

using Morva::Result;
using Morva::Status;
using Morva::TracedLock;

namespace {

QString const dedupPrefix = QStringLiteral("dedup");

/// The instance of a closed dedup file's name; 0 if it is none.
Instance dedupInstance(QString const& name) {
    if (!name.startsWith(dedupPrefix))
        return {};
    return SnapshotFile::fromFileName(QStringLiteral("snapshot") + name.mid(dedupPrefix.size()));
}

/// What lies in a snapshot directory.
struct Found {
    std::set<Instance> snapshots;
    std::set<Instance> dedupFiles;
    QStringList strangers; // of instances above the highest
    Instance highestStranger;
};

Result<Found> scan(QString const& path, Instance highest) {
    Found result;
    MORVA_TRY_LET(QStringList const names,
                  Morva::FileSystem::inForce().names(path, Morva::FileSystem::Kind::File));
    for (QString const& name : names) {
        Instance const snapshot = SnapshotFile::fromFileName(name);
        Instance const dedup = dedupInstance(name);
        Instance const instance = snapshot ? snapshot : dedup;
        if (!instance)
            continue;
        if (instance > highest) {
            result.strangers += name;
            result.highestStranger = std::max(result.highestStranger, instance);
        } else {
            (snapshot ? result.snapshots : result.dedupFiles).insert(instance);
        }
    }
    return result;
}

} // namespace

SnapshotList::SnapshotList(Store& store) : p_(std::make_unique<Private>(store)) {}

SnapshotList::~SnapshotList() = default;

// --- life

Status SnapshotList::create(QString const& snapshotPath) {
    p_->path = snapshotPath;
    auto file = std::make_shared<SnapshotFile>(snapshotPath, Instance{1}, SnapshotFile::New{});
    file->setType(SnapshotType::Initial, false);
    MORVA_TRY(file->writeHeader());
    MORVA_TRY(file->openForAppend());
    {
        TracedLock lock(p_->lock);
        MORVA_TRY(p_->requests.replace(snapshotPath, {}));
        p_->active = file;
        p_->snapshots = {file};
    }
    return p_->openDedup();
}

Status SnapshotList::load(QString const& snapshotPath, bool upgraded) {
    p_->path = snapshotPath;
    Instance const current = p_->store.currentInstance();
    MORVA_TRY_LET(Found const found, scan(snapshotPath, current));
    for (QString const& name : found.strangers)
        MORVA_TRACE(Always) << "The store has not reached the instance of" << name << "in"
                            << snapshotPath << "which is left alone";
    std::vector<std::shared_ptr<SnapshotFile>> list;
    for (Instance const instance : found.snapshots)
        list.push_back(std::make_shared<SnapshotFile>(
            snapshotPath, instance, SnapshotFile::Existing{found.dedupFiles.contains(instance)}));
    if (list.empty() || list.back()->instance() != current) {
        MORVA_TRACE(Always) << "Failed to find the active snapshot" << current;
        return Status::corruption("open the active snapshot",
                                  snapshotPath + u'/' + SnapshotFile::fileName(current),
                                  QStringLiteral("the file is missing"));
    }
    if (Status outcome = list.back()->openForAppend(); !outcome) {
        MORVA_TRACE(Always) << "Failed to find the active snapshot" << current;
        return std::move(outcome).during(QStringLiteral("open the active snapshot"));
    }
    if (upgraded)
        MORVA_TRY(upgrade(list));
    {
        TracedLock lock(p_->lock);
        p_->active = list.back();
        p_->snapshots = std::move(list);
        p_->strangers = found.strangers;
        p_->highestStranger = found.highestStranger;
        MORVA_TRY(p_->loadRequests());
        p_->queueAgain({found.dedupFiles.begin(), found.dedupFiles.end()});
    }
    return p_->openDedup();
}

/// What an old control block says of the snapshots, written in their files.
Status SnapshotList::upgrade(std::vector<std::shared_ptr<SnapshotFile>> const& list) {
    ControlBlock::Image image = p_->store.control().image();
    ControlFields const control(image.data());
    Instance previous;
    for (auto const& file : list) {
        if (!file->status())
            continue; // it stays in the list as damaged
        if ((control.deleteValidateInstance() && control.validateInstance() == file->instance()) ||
            (control.deleteLastInstance() && control.lastInstance()))
            file->setRetire();
        file->setPreviousInstance(previous);
        MORVA_TRY(file->writeHeader());
        previous = file->instance();
    }
    return {};
}

void SnapshotList::close() {
    TracedLock lock(p_->lock);
    if (p_->active)
        p_->active->close();
    p_->active.reset();
    p_->snapshots.clear();
    TracedLock dedupLock(p_->dedupLock);
    p_->newStreams.reset();
}

Status SnapshotList::Private::openDedup() {
    TracedLock guard(dedupLock);
    newStreams = std::make_unique<DedupFile>(path);
    if (newStreams->openForAppend())
        return {};
    MORVA_TRACE(Always) << "Failed to open the dedup list";
    Status outcome =
        Status::failure(Status::Code::IoError, "open the dedup list", newStreams->name());
    newStreams.reset();
    return outcome;
}

std::shared_ptr<SnapshotFile> SnapshotList::Private::find(Instance instance) const {
    auto const at =
        std::lower_bound(snapshots.begin(), snapshots.end(), instance,
                         [](auto const& file, Instance value) { return file->instance() < value; });
    return at != snapshots.end() && (*at)->instance() == instance ? *at : nullptr;
}

std::shared_ptr<SnapshotFile> SnapshotList::Private::findOlder(Instance instance) const {
    auto const file = find(instance);
    return file && file != snapshots.back() ? file : nullptr;
}

// --- requests

Status SnapshotList::Private::loadRequests() {
    Status const outcome = requests.read(path);
    for (auto const& [key, reason] : SnapshotRequests::Reasons(requests.all()))
        if (key.kind == SnapshotRequests::Kind::Retire && !find(key.instance))
            requests.forget(key); // done, and the file was not told
    if (outcome)
        return {};
    // An unreadable file must not be replaced: the next opening can read it.
    if (!outcome.is(Status::Code::NotFound) && !outcome.is(Status::Code::Corruption))
        return outcome;
    MORVA_TRACE(Normal) << "Look at the header of every snapshot:" << outcome.text();
    SnapshotRequests::Reasons found;
    for (auto const& file : snapshots)
        if (file->status() && file->retire())
            found[{file->instance(), SnapshotRequests::Kind::Retire}] = {};
    if (Status const written = requests.replace(path, std::move(found)); !written)
        MORVA_TRACE(Always) << "Failed to write the requests of snapshots" << written.text();
    return {};
}

Result<std::set<DedupRequest>> SnapshotList::Private::queuedRequests() const {
    std::set<DedupRequest> queued;
    Status read = store.streams().dedupQueue().forEach([&](Morva::Extent const& bytes) {
        DedupRequest request;
        if (request.decode(bytes) && request.store == store.id())
            queued.insert(request);
        return true;
    });
    // A request that is damaged is one that waits no more.
    if (!read && !read.is(Status::Code::Corruption))
        return read;
    return queued;
}

void SnapshotList::Private::queueAgain(std::vector<Instance> const& dedupFiles) {
    auto const queued = queuedRequests();
    if (!queued) {
        MORVA_TRACE(Always) << "Failed to look into the dedup queue" << queued.status().text();
        return;
    }
    auto const waits = [&](DedupRequest::Type type, Instance instance) {
        return queued->contains({type, store.id(), instance.value});
    };
    for (Instance const instance : dedupFiles)
        if (!waits(DedupRequest::DedupSnapshot, instance) &&
            !DedupRequests::dedupSnapshot(store.streams(), store.id(), instance))
            MORVA_TRACE(Always) << "Failed to ask for deduplication of snapshot" << instance;
    for (auto const& [key, reason] : SnapshotRequests::Reasons(requests.all())) {
        auto const file = findOlder(key.instance);
        if (key.kind != SnapshotRequests::Kind::Retire || !file ||
            waits(DedupRequest::DeleteSnapshot, key.instance))
            continue;
        if (!file->status() || !file->retire())
            continue;
        if (!DedupRequests::deleteSnapshot(store.streams(), store.id(), key.instance))
            MORVA_TRACE(Always) << "Failed to ask for the deletion of snapshot" << key.instance;
    }
}

Status SnapshotList::Private::requestRetirement(SnapshotFile& file) {
    MORVA_TRY(file.status());
    // The list of requests goes first: one that its snapshot knows nothing of is void.
    MORVA_TRY(requests.add({file.instance(), SnapshotRequests::Kind::Retire}));
    file.setRetire();
    return file.writeHeader();
}

Status SnapshotList::Private::queueDeletion(SnapshotFile& file) {
    MORVA_TRY(requestRetirement(file));
    // What the queue refuses is asked for again at the next snapshot and the next opening.
    if (!DedupRequests::deleteSnapshot(store.streams(), store.id(), file.instance()))
        return Status::failure(Status::Code::IoError, "write to the dedup queue", file.path(),
                               QStringLiteral("the queue takes no request"));
    file.setRetired();
    (void)file.writeHeader(); // asked for twice, it does no harm
    return {};
}

// --- taking snapshots

void SnapshotList::Private::moveDedup(Instance instance) {
    TracedLock guard(dedupLock);
    if (!newStreams)
        return;
    if (!store.dedupSnapshots()) {
        if (!newStreams->empty())
            MORVA_TRACE(Always) << "Failed to empty the dedup list";
        return;
    }
    // A list that stays behind goes with the next snapshot, a request at the next opening.
    if (!newStreams->rename(instance))
        MORVA_TRACE(Always) << "Failed to move the dedup list to instance" << instance;
    else if (!DedupRequests::dedupSnapshot(store.streams(), store.id(), instance))
        MORVA_TRACE(Always) << "Failed to ask for deduplication of snapshot" << instance;
}

void SnapshotList::Private::discard(SnapshotFile& file) {
    if (!file.made())
        return;
    (void)file.close(); // it may be open in neither way
    store.unfinished().finish(
        [name = file.path()] { return Morva::FileSystem::inForce().removeIfThere(name); });
}

Status SnapshotList::Private::advance(Instance old, SnapshotFile const& file) {
    return store.control().update([&](ControlFields& fields) {
        fields.lastInstance(old);
        fields.instance(file.instance());
        fields.deleteLastInstance(false);
        if (file.type() != SnapshotType::Validate)
            return;
        fields.validateInstance(file.instance());
        fields.deleteValidateInstance(false);
    });
}

Status SnapshotList::Private::take(std::uint32_t sourceTime,
                                   std::function<void(SnapshotFile&)> const& describe) {
    Instance const old = store.currentInstance();
    Instance const next{[&] {
        TracedLock guard(lock);
        return std::max(old, highestStranger).value + 1;
    }()};
    // Everything that can fail comes before the store moves on, so that a full disk leaves it in
    // the old instance.
    MORVA_TRY(store.settle());
    auto file = std::make_shared<SnapshotFile>(path, next, SnapshotFile::New{});
    Status outcome = file->creation();
    if (outcome) {
        describe(*file);
        outcome = file->snapshot(store.control().counters(),
                                 sourceTime ? sourceTime : store.retired().timeStamp(), old,
                                 store.dedupSnapshots());
    }
    if (outcome)
        outcome = file->openForAppend();
    if (outcome) {
        // Cached handles on directories and their pages belong to the instance that ends.
        store.directories().forget();
        outcome = advance(old, *file);
    }
    if (!outcome) {
        discard(*file);
        return outcome;
    }
    store.currentInstance_.store(next.value, std::memory_order_release);
    moveDedup(next);
    TracedLock guard(lock);
    active->close();
    active = file;
    snapshots.push_back(file);
    queueWishes();
    return {};
}

/// What could not be asked for before, as with the one that was active until now.
void SnapshotList::Private::queueWishes() {
    for (auto const& [key, reason] : SnapshotRequests::Reasons(requests.all())) {
        auto const wish =
            key.kind == SnapshotRequests::Kind::Retire ? findOlder(key.instance) : nullptr;
        if (!wish || !wish->status() || !wish->retire() || wish->retired())
            continue;
        if (Status const queued = queueDeletion(*wish); !queued)
            MORVA_TRACE(Always) << "Failed to ask for the deletion of snapshot" << key.instance
                                << queued.text();
    }
}

Status SnapshotList::snapshot(std::uint32_t sourceTime, bool needResync, std::uint32_t policy,
                              std::uint32_t opId, std::uint32_t ruleSet, QString const& machine,
                              QString const& label) {
    MORVA_METHOD("snapshot");
    if (!p_->store.id())
        return {};
    MORVA_TRACE(Verbose) << "Snapshot of" << machine << "Policy" << policy;
    bool const indexed = p_->store.indexSnapshots() && p_->store.event();
    MORVA_TRY(p_->take(sourceTime, [&](SnapshotFile& file) {
        file.setPolicy(policy, opId, ruleSet, needResync);
        file.setIndexed(indexed);
        file.setLabel(label);
    }));
    if (Event* event = p_->store.event();
        event && !event->snapshot(p_->store.currentInstance(), ruleSet, policy, opId, needResync,
                                  sourceTime))
        MORVA_TRACE(Always) << "Failed to send snapshot event";
    return {};
}

Status SnapshotList::userSnapshot(std::uint32_t opId, std::uint32_t time, QString const& label) {
    MORVA_METHOD("userSnapshot");
    if (!p_->store.id())
        return {};
    bool const indexed = p_->store.indexSnapshots() && p_->store.event();
    MORVA_TRY(p_->take(time, [&](SnapshotFile& file) {
        file.setType(SnapshotType::User, false);
        file.setIndexed(indexed);
        file.setLabel(label);
    }));
    if (Event* event = p_->store.event();
        event && !event->userSnapshot(p_->store.currentInstance(), opId, false, time, label))
        MORVA_TRACE(Always) << "Failed to send user snapshot event";
    return {};
}

Status SnapshotList::resyncSnapshot(std::uint32_t time, QString const& label) {
    MORVA_METHOD("resyncSnapshot");
    if (!p_->store.id())
        return {};
    MORVA_TRY(p_->take(time, [&](SnapshotFile& file) {
        file.setType(SnapshotType::Synchronization, true);
        file.setLabel(label);
    }));
    if (Event* event = p_->store.event();
        event && !event->resyncSnapshot(p_->store.currentInstance(), 0, time))
        MORVA_TRACE(Always) << "Failed to send resync snapshot event";
    return {};
}

Result<Instance> SnapshotList::validateSnapshot() {
    MORVA_METHOD("validateSnapshot");
    if (!p_->store.id())
        return p_->store.currentInstance();
    MORVA_TRY(p_->take(0, [](SnapshotFile& file) {
        file.setType(SnapshotType::Validate, false);
        file.setLabel(QStringLiteral("Validate"));
    }));
    return p_->store.currentInstance();
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

Status SnapshotList::writeEntries() {
    auto& unwritten = p_->unwritten;
    while (!unwritten.empty()) {
        Status outcome = p_->active ? p_->active->addEntry(unwritten.front())
                                    : Status::failure(Status::Code::Stopped, "write entries",
                                                      p_->path, QStringLiteral("it is closed"));
        if (!outcome) {
            Morva::Failures::note();
            return outcome;
        }
        unwritten.erase(unwritten.begin());
    }
    return {};
}

void SnapshotList::addToDedup(StreamId id) {
    if (!p_->store.dedupSnapshots())
        return;
    MORVA_TRACE(Debug) << ">>>> Ask for stream" << id << "to be deduped after the next snapshot";
    TracedLock guard(p_->dedupLock);
    if (p_->newStreams && !p_->newStreams->append(id))
        MORVA_TRACE(Always) << "Failed to add to the dedup list";
}

bool SnapshotList::flushDedup() {
    TracedLock guard(p_->dedupLock);
    return !p_->newStreams || p_->newStreams->flush();
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

SnapshotRequests::Reasons SnapshotList::waiting() const {
    TracedLock guard(p_->lock);
    return p_->requests.all();
}

QStringList SnapshotList::strangers() const {
    TracedLock guard(p_->lock);
    return p_->strangers;
}

} // namespace Replication
