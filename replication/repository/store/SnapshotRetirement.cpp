// What becomes of snapshots that have been taken: changes, deletion, retirement, deduplication.

#include "base/files/RawFile.h"
#include "base/trace/Trace.h"
#include "replication/repository/store/Event.h"
#include "replication/repository/store/FileNode.h"
#include "replication/repository/store/NodePointer.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/SnapshotListState.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/DedupPass.h"
#include "replication/repository/streams/DedupStatistics.h"
#include "replication/repository/streams/OperationGate.h"
#include "replication/repository/streams/Streams.h"

#include <QFileInfo>

#include <algorithm>
#include <utility>

namespace Replication {

using Morva::Result;
using Morva::Status;
using Morva::TracedLock;

namespace {

/// Entries handled in one hold of the operation gate.
constexpr int entriesInSlice = 64;

} // namespace

// --- changes and wishes

Status SnapshotList::updateSnapshot(Instance instance, std::uint32_t policy, std::uint32_t opId,
                                    std::uint32_t ruleSet, bool indexed, QString const& label) {
    MORVA_METHOD("updateSnapshot");
    if (!p_->store.id())
        return {};
    TracedLock guard(p_->lock);
    auto const file = p_->find(instance);
    if (!file) {
        MORVA_TRACE(Always) << "Invalid snapshot number" << instance;
        return {};
    }
    MORVA_TRY(file->status());
    if (file->updateResyncSnapshot(policy, opId, ruleSet, indexed, label))
        return file->writeHeader();
    MORVA_TRACE(Always) << "Not a resync snapshot" << instance;
    return {};
}

Status SnapshotList::deleteSnapshot(Instance instance) {
    MORVA_METHOD("deleteSnapshot");
    if (!p_->store.id())
        return {};
    TracedLock guard(p_->lock);
    if (p_->active && p_->active->instance() == instance) {
        MORVA_TRY(p_->requestRetirement(*p_->active));
        return p_->store.control().update(
            [](ControlFields& fields) { fields.deleteLastInstance(true); });
    }
    auto const file = p_->findOlder(instance);
    if (!file) {
        MORVA_TRACE(Always) << "Invalid snapshot number" << instance;
        return {};
    }
    MORVA_TRY(file->status());
    auto const request = DedupRequest{DedupRequest::DeleteSnapshot, p_->store.id(), instance.value};
    MORVA_TRY_LET(auto const queued, p_->queuedRequests());
    return file->retired() && queued.contains(request) ? Status() : p_->queueDeletion(*file);
}

Status SnapshotList::deleteValidateSnapshot() {
    MORVA_METHOD("deleteValidateSnapshot");
    if (!p_->store.id())
        return {};
    TracedLock guard(p_->lock);
    if (!p_->active)
        return {};
    bool const active = p_->active->type() == SnapshotType::Validate;
    if (active)
        MORVA_TRY(p_->requestRetirement(*p_->active));
    else
        MORVA_TRY(p_->queueValidations());
    return p_->store.control().update([active](ControlFields& fields) {
        fields.deleteValidateInstance(active);
        if (!active)
            fields.validateInstance({});
    });
}

Status SnapshotList::Private::queueValidations() {
    ControlBlock::Image image = store.control().image();
    // Without one that is noted there is none, and no header needs to be looked at.
    if (!ControlFields(image.data()).validateInstance())
        return {};
    Status outcome;
    for (std::size_t i = 0; i + 1 < snapshots.size(); ++i) {
        SnapshotFile& file = *snapshots[i];
        if (Status known = file.status(); !known)
            outcome.update(std::move(known));
        else if (file.type() == SnapshotType::Validate && !file.retired())
            outcome.update(queueDeletion(file));
    }
    return outcome;
}

namespace {

Status refused(QString const& path, QString const& reason) {
    return Status::failure(Status::Code::InvalidArgument, "delete the snapshot", path, reason);
}

} // namespace

Status SnapshotList::markSnapshot(QString& reason, Instance instance) {
    MORVA_METHOD("markSnapshot");
    static QString const inUse = QStringLiteral(
        "The snapshot is in use.\n Note, it is not possible to delete the latest snapshot");
    auto const refuse = [&](QString const& text) {
        reason = text;
        return refused(SnapshotFile::fileName(instance), text);
    };
    if (!p_->store.id()) {
        MORVA_TRACE(Always) << "No snapshots in store 0";
        return refuse(QStringLiteral("Invalid Id"));
    }
    TracedLock guard(p_->lock);
    if (p_->active && p_->active->instance() == instance) {
        MORVA_TRACE(Always) << "Cannot delete active snapshot";
        return refuse(inUse);
    }
    auto const file = p_->findOlder(instance);
    if (!file) {
        MORVA_TRACE(Always) << "Cannot find the snapshot, ignore";
        return refuse(
            QStringLiteral("The snapshot is unavailable, it may have already been retied"));
    }
    if (Status known = file->status(); !known) {
        reason = known.text();
        return known;
    }
    if (file->indexed() && !p_->laterIndexed(instance)) {
        MORVA_TRACE(Always) << "Cannot delete last indexed snapshot";
        return refuse(inUse);
    }
    if (file->markedForDeletion() || file->retired())
        return {};
    Event* const event = p_->store.event();
    if (!event)
        return refuse(QStringLiteral("Invalid Id"));
    // The mark comes first, so that nobody is told of what a failing disk then forgets.
    file->setMarkedForDeletion(true);
    if (Status written = file->writeHeader(); !written) {
        reason = written.text();
        return written;
    }
    if (event->deleteSnapshot(instance))
        return {};
    file->setMarkedForDeletion(false);
    (void)file->writeHeader(); // a mark that stays is one that the user asked for
    return refuse(QStringLiteral("Invalid Id"));
}

/// Whether an indexed snapshot behind this one is sure to be there.
bool SnapshotList::Private::laterIndexed(Instance instance) const {
    return std::any_of(snapshots.rbegin(), snapshots.rend(), [instance](auto const& other) {
        return other->instance() > instance && other->status() && other->indexed() &&
               other->type() != SnapshotType::Synchronization;
    });
}

Status SnapshotList::snapshotAnalyzed(Instance instance, std::uint64_t logicalSize,
                                      std::uint64_t directories, std::uint64_t files) {
    MORVA_METHOD("snapshotAnalyzed");
    if (!p_->store.id())
        return {};
    TracedLock guard(p_->lock);
    auto const file = p_->find(instance);
    if (!file) {
        MORVA_TRACE(Always) << (p_->snapshots.empty() ? "No snapshots" : "Did not find instance")
                            << instance;
        return Status::failure(Status::Code::NotFound, "find", SnapshotFile::fileName(instance),
                               QStringLiteral("there is no such snapshot"));
    }
    MORVA_TRY(file->status());
    file->analyzed(logicalSize, directories, files);
    return file->writeHeader();
}

bool SnapshotList::isSnapshotAnalyzed(std::uint64_t& logicalSize, std::uint64_t& directories,
                                      std::uint64_t& files, Instance instance) const {
    MORVA_METHOD("isSnapshotAnalyzed");
    auto const file = find(instance);
    return scope.result(file && file->analysis(logicalSize, directories, files));
}

bool SnapshotList::retireRequested(Instance instance) const {
    auto const file = find(instance);
    return !file || !file->status() || file->retire();
}

// --- retirement

Status SnapshotList::retireSnapshot(Instance instance, SafePoint const& safePoint) {
    MORVA_METHOD("retireSnapshot");
    auto const near = p_->neighbours(instance);
    if (!near.file) {
        MORVA_TRACE(Always) << "Eeek cannot find the snapshot, ignore";
        return {};
    }
    Status outcome = p_->retire(near, safePoint);
    if (!outcome && !outcome.is(Status::Code::Stopped)) {
        MORVA_TRACE(Always) << "Failed to retire snapshot" << instance << outcome.text();
        p_->askAgain(*near.file, outcome);
    }
    return std::move(outcome).during(QStringLiteral("retire snapshot %1").arg(instance.value));
}

SnapshotList::Private::Neighbours SnapshotList::Private::neighbours(Instance instance) {
    TracedLock guard(lock);
    auto const at = std::find_if(snapshots.begin(), snapshots.end(),
                                 [&](auto const& file) { return file->instance() == instance; });
    if (at == snapshots.end() || at + 1 == snapshots.end())
        return {};
    return {*at, at == snapshots.begin() ? nullptr : *(at - 1), *(at + 1)};
}

Status SnapshotList::Private::checkNeighbours(Neighbours const& near) {
    MORVA_TRY(near.file->status());
    Instance const before = near.previous ? near.previous->instance() : Instance{};
    if (near.previous)
        MORVA_TRY(near.previous->status().during(QStringLiteral("look at the snapshot before it")));
    if (near.file->linked() && near.file->previousInstance() > before)
        return Status::corruption(
            "find", path + u'/' + SnapshotFile::fileName(near.file->previousInstance()),
            QStringLiteral("the file of the snapshot before it is missing"));
    return {};
}

Status SnapshotList::Private::retire(Neighbours const& near, SafePoint const& safePoint) {
    MORVA_TRY(checkNeighbours(near));
    MORVA_TRY(near.file->openForRead());
    Status outcome;
    if (near.previous)
        outcome = near.previous->openForAppend();
    if (outcome) {
        outcome = freeEntries(*near.file, near.previous.get(), safePoint);
        if (near.previous)
            (void)near.previous->close(); // it is open
    }
    (void)near.file->close(); // it is open
    MORVA_TRY(std::move(outcome));
    if (store.markedForDeletion())
        return {};
    OperationGate::Enter const gate;
    TracedLock guard(lock);
    MORVA_TRY(relink(near));
    MORVA_TRY(near.file->remove());
    // A dedup list of this instance stays: its streams can live on in later snapshots.
    std::erase(snapshots, near.file);
    SnapshotRequests::Key const key{near.file->instance(), SnapshotRequests::Kind::Retire};
    if (Status const written = requests.remove(key); !written) {
        MORVA_TRACE(Always) << "Failed to write the requests of snapshots" << written.text();
        requests.forget(key);
    }
    return {};
}

Status SnapshotList::Private::relink(Neighbours const& near) {
    Status known = near.next->status();
    if (known.is(Status::Code::Corruption))
        return {}; // whoever mends it says what is before it
    MORVA_TRY(std::move(known));
    if (!near.next->linked() || near.next->previousInstance() != near.file->instance())
        return {};
    near.next->setPreviousInstance(near.previous ? near.previous->instance() : Instance{});
    return near.next->writeHeader();
}

void SnapshotList::Private::askAgain(SnapshotFile& file, Status const& reason) {
    TracedLock guard(lock);
    if (Status noted =
            requests.put({file.instance(), SnapshotRequests::Kind::Retire}, reason.text());
        !noted)
        MORVA_TRACE(Always) << "Failed to write the requests of snapshots" << noted.text();
    if (!file.status())
        return;
    file.clearRetired();
    (void)file.writeHeader(); // the next opening finds the request in either case
}

Status SnapshotList::Private::freeEntries(SnapshotFile& file, SnapshotFile* previous,
                                          SafePoint const& safePoint) {
    // What an attempt before this one handed on behind the point from which this one goes on.
    auto const handedOn = file.handedOn();
    if (previous && handedOn.to == previous->instance())
        MORVA_TRY(previous->cut(handedOn.length));
    else
        MORVA_TRY(noteProgress(file, file.position(), previous));
    for (bool more = true; more;) {
        MORVA_TRY_LET(more, freeSlice(file, previous));
        if (more && safePoint)
            MORVA_TRY(safePoint());
    }
    return {};
}

Result<bool> SnapshotList::Private::freeSlice(SnapshotFile& file, SnapshotFile* previous) {
    OperationGate::Enter const gate;
    Instance const before = previous ? previous->instance() : Instance{};
    bool more = true;
    Status outcome;
    std::uint64_t done = file.position();
    for (int i = 0; i < entriesInSlice && outcome; ++i) {
        more = !store.markedForDeletion();
        Result<std::optional<SnapshotEntry>> const entry =
            more ? file.readEntry() : std::optional<SnapshotEntry>();
        outcome = entry.status();
        more = outcome && *entry;
        if (!more)
            break;
        MORVA_TRACE(Debug) << "Read SnapshotEntry" << (*entry)->id << (*entry)->instance;
        // One seen by the snapshot before as well dies with that one.
        outcome = (*entry)->instance < before ? previous->addEntry(**entry) : freeEntry(**entry);
        if (outcome)
            done = file.position();
    }
    Status noted = noteProgress(file, done, previous);
    MORVA_TRY(std::move(outcome));
    MORVA_TRY(std::move(noted));
    return more;
}

Status SnapshotList::Private::noteProgress(SnapshotFile& file, std::uint64_t done,
                                           SnapshotFile* previous) {
    TracedLock guard(lock);
    file.setDeleteOffset(done);
    if (previous)
        file.setHandedOn({previous->instance(), previous->end()});
    return file.writeHeader();
}

Status SnapshotList::Private::freeEntry(SnapshotEntry const& entry) {
    MORVA_TRACE(Debug) << "Free instance" << entry.instance << "of" << entry.id;
    // The writer of the live tree must not end the same file meanwhile.
    TracedLock const ending(store.endings());
    MORVA_TRY_LET(auto const version, store.pointers().findInstance(entry.id, entry.instance));
    if (!version)
        return {};
    bool const current = version->current;
    MORVA_TRY_LET(FileNode::Pointer const handle,
                  store.passiveHandles().get(version->node, MustExist::Yes));
    if (current && handle && handle->names() != 0) {
        // The entry reached the disk before a crash, and the end of the version didn't.
        MORVA_TRACE(Always) << "Instance" << entry.instance << "of" << entry.id
                            << "has not ended, leave it";
        return {};
    }
    // Of a deleted file the next older version becomes the current one, and has ended too.
    FileNode::Pointer older;
    if (current) {
        MORVA_TRY_LET(NodeNumber const number,
                      store.pointers().getInstance(entry.id, entry.instance));
        MORVA_TRY_LET(older, store.passiveHandles().get(number));
    }
    MORVA_TRY_LET(NodeNumber const freed, store.pointers().freeInstance(entry.id, entry.instance));
    if (!freed)
        return {};
    if (older)
        older->end();
    if (handle)
        handle->releaseVersion();
    return {};
}

// --- deduplication

Status SnapshotList::dedupSnapshot(std::function<void()> const& checkForFreeze, Instance instance,
                                   Morva::Extent& buffer) {
    MORVA_METHOD("dedupSnapshot");
    if (!p_->store.id() || instance > p_->store.currentInstance())
        return {};
    SnapshotRequests::Key const key{instance, SnapshotRequests::Kind::Dedup};
    Status outcome = p_->dedup(checkForFreeze, instance, buffer);
    if (outcome.is(Status::Code::Stopped))
        return outcome;
    if (!outcome)
        MORVA_TRACE(Always) << "Failed to deduplicate snapshot" << instance << outcome.text();
    TracedLock guard(p_->lock);
    Status noted = outcome ? p_->requests.remove(key) : p_->requests.put(key, outcome.text());
    if (!noted)
        MORVA_TRACE(Always) << "Failed to write the requests of snapshots" << noted.text();
    return std::move(outcome).during(QStringLiteral("deduplicate snapshot %1").arg(instance.value));
}

Status SnapshotList::Private::dedup(std::function<void()> const& checkForFreeze, Instance instance,
                                    Morva::Extent& buffer) {
    DedupFile list(path, instance);
    MORVA_TRY_LET(bool const there, Morva::FileSystem::inForce().exists(list.name()));
    if (!there)
        return {};
    if (!list.openForRead())
        return Status::failure(Status::Code::IoError, "open", list.name());
    MORVA_TRY(beginDedup(instance, list));
    DedupStatistics statistics;
    DedupPass pass(store.streams(), checkForFreeze, statistics, buffer);
    std::uint64_t const begin = list.position();
    bool finished = true;
    StreamId id;
    while (finished && list.read(id))
        finished = !store.markedForDeletion() && pass.add(id);
    std::uint64_t const whole =
        static_cast<std::uint64_t>(QFileInfo(list.name()).size()) / DedupFile::entrySize;
    bool const unread = finished && list.position() < whole * DedupFile::entrySize;
    finished = pass.finish() && finished;
    statistics.trace();
    if (!finished)
        (void)list.setPosition(begin + pass.done() * DedupFile::entrySize); // else from the start
    MORVA_TRY(endDedup(instance, list, statistics, finished && !unread));
    if (unread)
        return Status::failure(Status::Code::IoError, "read", list.name());
    if (!finished)
        return Status::failure(Status::Code::Stopped, "deduplicate", list.name());
    return {};
}

Status SnapshotList::Private::beginDedup(Instance instance, DedupFile& list) {
    TracedLock guard(lock);
    auto const file = find(instance);
    if (!file)
        return {};
    // The streams are there whatever is wrong with the snapshot that their list is named after.
    if (Status known = file->status(); !known)
        return known.is(Status::Code::Corruption) ? Status() : known;
    if (file->type() == SnapshotType::Old)
        return {};
    if (!list.setPosition(file->dedupOffset()))
        (void)list.setPosition(0); // no position of an entry: all of it once more
    file->setDedupState(DedupState::Processing);
    return file->writeHeader();
}

Status SnapshotList::Private::endDedup(Instance instance, DedupFile& list,
                                       DedupStatistics const& statistics, bool finished) {
    {
        TracedLock guard(lock);
        if (auto const file = find(instance); file && file->status()) {
            DedupStatistics sum = file->dedupStatistics();
            sum += statistics;
            file->setDedupStatistics(sum);
            if (finished)
                file->setDedupState(DedupState::Deduplicated);
            else
                // The streams that were in work are done again.
                file->setDedupOffset(list.position());
            MORVA_TRY(file->writeHeader());
        }
    }
    if (!finished)
        return {};
    if (!list.remove())
        return Status::failure(Status::Code::IoError, "remove", list.name());
    if (Event* const event = store.event(); event && !event->snapshotDeduped(instance))
        MORVA_TRACE(Always) << "Failed to send snapshot deduped event";
    return {};
}

} // namespace Replication
