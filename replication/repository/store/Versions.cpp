// How versions of files begin and end in a store: see Store.h.

#include "base/blocks/Failures.h"
#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/DirKey.h"
#include "replication/repository/store/Event.h"
#include "replication/repository/store/FileNode.h"
#include "replication/repository/store/NodePointer.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/DedupStatistics.h"
#include "replication/repository/streams/Streams.h"

namespace Replication {

using Morva::Failures;
using Morva::Status;
using Morva::TracedLock;

bool Store::updateFileId(std::uint32_t time, FileId id, FileNode& oldNode, FileNode& newNode) {
    MORVA_METHOD("updateFileId");
    if (newNode.linkCount() == 0) {
        // A file that has lost its last name while it is open: its id is no longer the business
        // of the live tree, and the copy goes with the handle.
        newNode.releaseVersion();
        return scope.result(true);
    }
    Instance const current = currentInstance();
    Instance const previous = pointers_->newInstance(id, newNode.id(), current);
    if (!previous) {
        MORVA_TRACE(Always) << "Failed to enter a new version of" << id;
        streams_->nodeTree().failed();
        newNode.releaseVersion();
        return scope.result(false);
    }
    if (!id_) {
        oldNode.releaseVersion();
        return scope.result(true);
    }
    if (!newNode.liveOnly() && indexSnapshots_ && event_ && newNode.notLinked() &&
        !event_->changed(id, LinkId{1}, {}, {}, time))
        MORVA_TRACE(Always) << "Failed to send copy event";
    if (current > previous) {
        MORVA_TRACE(Verbose) << "First copy of FileId" << id << "in instance" << current
                             << "record that instance" << previous << "has expired";
        snapshots_->addEntry(id, previous);
    } else {
        oldNode.releaseVersion();
    }
    return scope.result(true);
}

void Store::removeFileId(DirKey const& key, bool retire) {
    MORVA_METHOD("removeFileId");
    if (!key.liveOnly())
        control_->countName(key.type(), false);
    unfinished_.finish([this, key, retire] { return dropLink(key, retire); });
}

bool Store::dropLink(DirKey const& key, bool retire) {
    Failures::Watch const watch;
    auto const handle = active_->get(key.fileId());
    if (!handle || !handle->fileNode()) {
        if (watch.any())
            return false;
        MORVA_TRACE(Always) << "Failed to find the file of" << key.fileId();
        return true;
    }
    std::uint32_t const before = handle->linkCount();
    if (before == 0)
        return true;
    std::uint32_t const left = handle->removeLink(key.link());
    if (left == before)
        return false;
    if (left == 0)
        unfinished_.finish([=, this] { return dropLastLink(key, *handle, retire); });
    return true;
}

bool Store::dropLastLink(DirKey const& key, ActiveHandle& handle, bool retire) {
    Failures::Watch const watch;
    FileNode& node = *handle.fileNode();
    FileId const id = key.fileId();
    Instance const current = currentInstance();
    // A retirement must not look at the file between its end and the word of it.
    TracedLock const ending(endings_);
    Instance lastInstance;
    NodeNumber freed;
    // A version that becomes the current one again by that has ended too, and is to say so.
    FileNode::Pointer older;
    Instance const newest = pointers_->currentInstance(id);
    if (newest && (newest == current || node.liveOnly()))
        older = passive_->get(pointers_->getInstance(id, newest));
    if (watch.any())
        return false;
    bool const fresh = pointers_->freeInstance(id, current, lastInstance);
    // A live-only version is in no snapshot, in whatever instance it was made.
    bool const unseen =
        fresh || (node.liveOnly() && pointers_->freeInstance(id, lastInstance, freed));
    if (watch.any())
        return false;
    if (unseen) {
        if (older)
            older->dropLinks();
        node.releaseVersion();
    } else if (!node.liveOnly()) {
        MORVA_TRACE(Verbose) << "Delete FileId" << id << "in instance" << current
                             << "record that instance" << lastInstance << "has expired";
        if (id_ && lastInstance)
            snapshots_->addEntry(id, lastInstance);
    }
    MORVA_TRACE(Verbose) << "File" << id << "has been deleted in instance" << current;
    if (!node.liveOnly() && indexSnapshots_ && event_ && node.notLinked() &&
        !event_->removed(id, key.link(), key.directoryId(), retired_->timeStamp()))
        MORVA_TRACE(Always) << "Failed to send delete event";
    if (retire && !node.isDirectory())
        retired_->retiredVersion(handle.version(), handle.fileNode(), false);
    return true;
}

Status Store::releaseFileNode(NodeNumber node, bool version) {
    MORVA_METHOD("releaseFileNode");
    Failures::Watch const watch;
    FileNode::Pointer const handle = passive_->get(node, MustExist::Yes);
    if (watch.any())
        return Status::failure(Status::Code::IoError, "release a version of", storePath_,
                               QStringLiteral("node %1 can't be read").arg(node.value));
    if (!handle) {
        Morva::LogLine(QStringLiteral("Repository"), Morva::LogLevelE::Error)
            << "Request to release a version that no longer exists";
        return {};
    }
    if (version)
        handle->releaseWeakVersion();
    else
        handle->releaseVersion();
    return {};
}

Status Store::dedupVersion(std::function<void()> const& checkForFreeze, NodeNumber node,
                           Morva::Extent& buffer) {
    MORVA_METHOD("dedupVersion");
    Failures::Watch const watch;
    FileNode::Pointer const handle = passive_->get(node);
    if (watch.any())
        return Status::failure(Status::Code::IoError, "deduplicate a version of", storePath_,
                               QStringLiteral("node %1 can't be read").arg(node.value));
    if (!handle)
        return {};
    DedupStatistics statistics;
    if (!handle->dedupStreams(checkForFreeze, statistics, buffer)) {
        MORVA_TRACE(Normal) << "Only fails if we are shuting down";
        return Status::failure(Status::Code::Stopped, "deduplicate a version of", storePath_);
    }
    statistics.trace();
    return {};
}

bool Store::dedupStream(std::function<void()> const& checkForFreeze, StreamId id,
                        DedupStatistics& statistics, Morva::Extent& buffer) {
    return !markedForDeletion() && streams_->dedupStream(checkForFreeze, id, statistics, buffer);
}

} // namespace Replication
