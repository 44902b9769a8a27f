// What becomes of snapshots that have been taken: changes, deletion, retirement, deduplication.

#include "base/blocks/Failures.h"
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

#include <algorithm>

namespace Replication {

using Morva::TracedLock;

namespace {

/// Entries handled in one hold of the operation gate.
constexpr int entriesInSlice = 64;

} // namespace

// --- changes and wishes

bool SnapshotList::updateSnapshot(Instance instance, std::uint32_t policy, std::uint32_t opId,
                                  std::uint32_t ruleSet, bool indexed, QString const& label) {
    MORVA_METHOD("updateSnapshot");
    if (!p_->store.id())
        return scope.result(true);
    TracedLock guard(p_->lock);
    auto const file = p_->find(instance);
    if (!file)
        MORVA_TRACE(Always) << "Invalid snapshot number" << instance;
    else if (!file->updateResyncSnapshot(policy, opId, ruleSet, indexed, label))
        MORVA_TRACE(Always) << "Not a resync snapshot" << instance;
    else
        (void)file->writeHeader();
    return scope.result(true);
}

bool SnapshotList::deleteSnapshot(Instance instance) {
    MORVA_METHOD("deleteSnapshot");
    if (!p_->store.id())
        return scope.result(true);
    TracedLock guard(p_->lock);
    if (p_->active && p_->active->instance() == instance) {
        p_->active->setRetire();
        (void)p_->active->writeHeader();
        (void)p_->store.control().update(
            [](ControlFields& fields) { fields.deleteLastInstance(true); });
        return scope.result(true);
    }
    auto const file = p_->findOlder(instance);
    if (!file)
        MORVA_TRACE(Always) << "Invalid snapshot number" << instance;
    else if (!file->retired())
        p_->queueDeletion(*file);
    return scope.result(true);
}

void SnapshotList::deleteValidateSnapshot() {
    MORVA_METHOD("deleteValidateSnapshot");
    if (!p_->store.id())
        return;
    TracedLock guard(p_->lock);
    if (!p_->active)
        return;
    bool const active = p_->active->type() == SnapshotType::Validate;
    if (active) {
        p_->active->setRetire();
        (void)p_->active->writeHeader();
    } else {
        for (std::size_t i = 0; i + 1 < p_->snapshots.size(); ++i)
            if (p_->snapshots[i]->type() == SnapshotType::Validate && !p_->snapshots[i]->retired())
                p_->queueDeletion(*p_->snapshots[i]);
    }
    (void)p_->store.control().update([active](ControlFields& fields) {
        fields.deleteValidateInstance(active);
        if (!active)
            fields.validateInstance({});
    });
}

bool SnapshotList::markSnapshot(QString& reason, Instance instance) {
    MORVA_METHOD("markSnapshot");
    static QString const inUse = QStringLiteral(
        "The snapshot is in use.\n Note, it is not possible to delete the latest snapshot");
    if (!p_->store.id()) {
        MORVA_TRACE(Always) << "No snapshots in store 0";
        reason = QStringLiteral("Invalid Id");
        return scope.result(false);
    }
    TracedLock guard(p_->lock);
    if (p_->active && p_->active->instance() == instance) {
        MORVA_TRACE(Always) << "Cannot delete active snapshot";
        reason = inUse;
        return scope.result(false);
    }
    auto const file = p_->findOlder(instance);
    if (!file) {
        MORVA_TRACE(Always) << "Cannot find the snapshot, ignore";
        reason = QStringLiteral("The snapshot is unavailable, it may have already been retied");
        return scope.result(false);
    }
    bool const laterIndexed =
        std::any_of(p_->snapshots.begin(), p_->snapshots.end(), [instance](auto const& other) {
            return other->instance() > instance && other->indexed() &&
                   other->type() != SnapshotType::Synchronization;
        });
    if (file->indexed() && !laterIndexed) {
        MORVA_TRACE(Always) << "Cannot delete last indexed snapshot";
        reason = inUse;
        return scope.result(false);
    }
    if (file->markedForDeletion() || file->retired())
        return scope.result(true);
    Event* const event = p_->store.event();
    if (!event || !event->deleteSnapshot(instance)) {
        reason = QStringLiteral("Invalid Id");
        return scope.result(false);
    }
    file->markForDeletion();
    (void)file->writeHeader();
    return scope.result(true);
}

bool SnapshotList::snapshotAnalyzed(Instance instance, std::uint64_t logicalSize,
                                    std::uint64_t directories, std::uint64_t files) {
    MORVA_METHOD("snapshotAnalyzed");
    if (!p_->store.id())
        return scope.result(true);
    TracedLock guard(p_->lock);
    if (p_->snapshots.empty()) {
        MORVA_TRACE(Always) << "No snapshots";
        return scope.result(false);
    }
    auto const file = p_->find(instance);
    if (!file) {
        MORVA_TRACE(Always) << "Did not find instance" << instance;
        return scope.result(false);
    }
    file->analyzed(logicalSize, directories, files);
    return scope.result(file->writeHeader());
}

bool SnapshotList::isSnapshotAnalyzed(std::uint64_t& logicalSize, std::uint64_t& directories,
                                      std::uint64_t& files, Instance instance) const {
    MORVA_METHOD("isSnapshotAnalyzed");
    auto const file = find(instance);
    return scope.result(file && file->analysis(logicalSize, directories, files));
}

bool SnapshotList::retireRequested(Instance instance) const {
    auto const file = find(instance);
    return !file || file->retire();
}

// --- retirement

bool SnapshotList::retireSnapshot(Instance instance) {
    MORVA_METHOD("retireSnapshot");
    std::shared_ptr<SnapshotFile> file, previous;
    {
        TracedLock guard(p_->lock);
        file = p_->findOlder(instance);
        if (!file) {
            MORVA_TRACE(Always) << "Eeek cannot find the snapshot, ignore";
            return scope.result(true);
        }
        if (p_->snapshots.front() != file)
            previous = *(std::find(p_->snapshots.begin(), p_->snapshots.end(), file) - 1);
    }
    bool const opened = file->openForRead() && (!previous || previous->openForAppend());
    bool const done = opened && p_->freeEntries(*file, previous.get());
    if (previous)
        previous->close();
    if (!done) {
        file->close();
        p_->askAgain(*file);
        return scope.result(false);
    }
    if (p_->store.markedForDeletion()) {
        file->close();
        return scope.result(true);
    }
    if (!file->remove()) {
        MORVA_TRACE(Always) << "Failed to remove snapshot" << instance;
        p_->askAgain(*file);
        return scope.result(false);
    }
    // A dedup list of this instance stays: its streams can live on in later snapshots.
    TracedLock guard(p_->lock);
    std::erase(p_->snapshots, file);
    return scope.result(true);
}

/// The next snapshot queues the deletion once more; done twice it does no harm.
void SnapshotList::Private::askAgain(SnapshotFile& file) {
    TracedLock guard(lock);
    file.clearRetired();
    (void)file.writeHeader();
}

bool SnapshotList::Private::freeEntries(SnapshotFile& file, SnapshotFile* previous) {
    Instance const before = previous ? previous->instance() : Instance{};
    SnapshotEntry entry;
    for (bool more = true; more;) {
        OperationGate::Enter const gate;
        for (int i = 0; i < entriesInSlice; ++i) {
            more = !store.markedForDeletion() && file.readEntry(entry);
            if (!more && file.readFailed())
                return false;
            if (!more)
                break;
            MORVA_TRACE(Debug) << "Read SnapshotEntry" << entry.id << entry.instance;
            if (entry.instance < before) {
                // Seen by the snapshot before as well: it dies with that one.
                if (!previous->addEntry(entry))
                    return false;
                continue;
            }
            if (!freeEntry(entry))
                return false;
        }
    }
    return true;
}

bool SnapshotList::Private::freeEntry(SnapshotEntry const& entry) {
    MORVA_TRACE(Debug) << "Free instance" << entry.instance << "of" << entry.id;
    Morva::Failures::Watch const watch;
    NodeNumber node;
    bool current = false;
    if (!store.pointers().findInstance(entry.id, entry.instance, node, current))
        return !watch.any();
    auto const handle = store.passiveHandles().get(node, MustExist::Yes);
    if (watch.any())
        return false;
    if (current && handle && handle->linkCount() != 0) {
        // The entry reached the disk before a crash, and the end of the version didn't.
        MORVA_TRACE(Always) << "Instance" << entry.instance << "of" << entry.id
                            << "has not ended, leave it";
        return true;
    }
    // Of a deleted file the next older version becomes the current one, and has ended too.
    FileNode::Pointer older;
    if (current)
        older = store.passiveHandles().get(store.pointers().getInstance(entry.id, entry.instance));
    if (watch.any() || !store.pointers().freeInstance(entry.id, entry.instance, node))
        return !watch.any();
    if (older)
        older->dropLinks();
    if (handle)
        handle->releaseVersion();
    return true;
}

// --- deduplication

bool SnapshotList::dedupSnapshot(std::function<void()> const& checkForFreeze, Instance instance,
                                 Morva::Extent& buffer) {
    MORVA_METHOD("dedupSnapshot");
    if (!p_->store.id() || instance > p_->store.currentInstance())
        return scope.result(true);
    DedupFile list(p_->path, instance);
    if (!list.openForRead())
        return scope.result(true);
    {
        TracedLock guard(p_->lock);
        if (auto const file = p_->find(instance); file && file->type() != SnapshotType::Old) {
            if (!list.setPosition(file->dedupOffset()))
                (void)list.setPosition(0);
            file->setDedupState(DedupState::Processing);
            (void)file->writeHeader();
        }
    }
    DedupStatistics statistics;
    DedupPass pass(p_->store.streams(), checkForFreeze, statistics, buffer);
    std::uint64_t const begin = list.position();
    bool finished = true;
    StreamId id;
    while (finished && list.read(id))
        finished = !p_->store.markedForDeletion() && pass.add(id);
    finished = pass.finish() && finished;
    statistics.trace();
    if (!finished)
        (void)list.setPosition(begin + pass.done() * DedupFile::entrySize);
    p_->endDedup(instance, list, statistics, finished);
    return scope.result(finished);
}

void SnapshotList::Private::endDedup(Instance instance, DedupFile& list,
                                     DedupStatistics const& statistics, bool finished) {
    {
        TracedLock guard(lock);
        if (auto const file = find(instance)) {
            DedupStatistics sum = file->dedupStatistics();
            sum += statistics;
            file->setDedupStatistics(sum);
            if (finished)
                file->setDedupState(DedupState::Deduplicated);
            else
                // The streams that were in work are done again.
                file->setDedupOffset(list.position());
            (void)file->writeHeader();
        }
    }
    if (!finished)
        return;
    list.remove();
    if (Event* const event = store.event(); event && !event->snapshotDeduped(instance))
        MORVA_TRACE(Always) << "Failed to send snapshot deduped event";
}

} // namespace Replication
