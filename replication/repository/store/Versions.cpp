// How versions of files begin and end in a store: see Store.h.

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

using Morva::Result;
using Morva::Status;
using Morva::TracedLock;

Status Store::updateFileId(std::uint32_t time, FileId id, FileNode& oldNode, FileNode& newNode) {
    MORVA_METHOD("updateFileId");
    if (newNode.names() == 0) {
        // A file that has lost its last name while it is open: its id is no longer the business
        // of the live tree, and the copy goes with the handle.
        newNode.releaseVersion();
        return {};
    }
    Instance const current = currentInstance();
    Result<Instance> const entered = pointers_->newInstance(id, newNode.id(), current);
    if (!entered || !*entered) {
        MORVA_TRACE(Always) << "Failed to enter a new version of" << id;
        newNode.releaseVersion();
        return !entered ? entered.status()
                        : Status::corruption("enter version", storePath_,
                                             QStringLiteral("file %1 isn't there").arg(id.value));
    }
    Instance const previous = *entered;
    if (!id_) {
        oldNode.releaseVersion();
        return {};
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
    return {};
}

void Store::removeFileId(DirKey const& key, bool retire) {
    MORVA_METHOD("removeFileId");
    if (!key.liveOnly())
        control_->countName(key.type(), false);
    unfinished_.finish([this, key, retire] { return dropLink(key, retire); });
}

Status Store::dropLink(DirKey const& key, bool retire) {
    MORVA_TRY_LET(auto const handle, active_->get(key.fileId()));
    if (!handle || !handle->fileNode()) {
        MORVA_TRACE(Always) << "Failed to find the file of" << key.fileId();
        return {};
    }
    if (handle->linkCount() == 0)
        return {};
    MORVA_TRY_LET(std::uint32_t const left, handle->removeLink(key.link()));
    if (left == 0)
        unfinished_.finish([=, this] { return dropLastLink(key, *handle, retire); });
    return {};
}

Status Store::dropLastLink(DirKey const& key, ActiveHandle& handle, bool retire) {
    FileNode& node = *handle.fileNode();
    FileId const id = key.fileId();
    Instance const current = currentInstance();
    // A retirement must not look at the file between its end and the word of it.
    TracedLock const ending(endings_);
    Instance lastInstance;
    // A version that becomes the current one again by that has ended too, and is to say so.
    FileNode::Pointer older;
    MORVA_TRY_LET(Instance const newest, pointers_->currentInstance(id));
    if (newest && (newest == current || node.liveOnly())) {
        MORVA_TRY_LET(NodeNumber const number, pointers_->getInstance(id, newest));
        MORVA_TRY_LET(older, passive_->get(number));
    }
    MORVA_TRY_LET(bool unseen, pointers_->freeInstance(id, current, lastInstance));
    // A live-only version is in no snapshot, in whatever instance it was made.
    if (!unseen && node.liveOnly()) {
        MORVA_TRY_LET(NodeNumber const freed, pointers_->freeInstance(id, lastInstance));
        unseen = static_cast<bool>(freed);
    }
    if (unseen) {
        if (older)
            older->end();
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
    return {};
}

Status Store::releaseFileNode(NodeNumber node, bool version) {
    MORVA_METHOD("releaseFileNode");
    MORVA_TRY_LET(FileNode::Pointer const handle, passive_->get(node, MustExist::Yes));
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
    MORVA_TRY_LET(FileNode::Pointer const handle, passive_->get(node));
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
