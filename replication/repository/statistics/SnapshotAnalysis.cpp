#include "replication/repository/statistics/SnapshotAnalysis.h"

#include "base/trace/Trace.h"
#include "base/values/Extent.h"
#include "replication/repository/store/DirectoryScan.h"
#include "replication/repository/store/FileNode.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/OperationGate.h"

namespace Replication {

std::optional<FileHandle> SnapshotAnalysis::requested(Morva::Extent const& id) {
    FileHandle handle;
    if (id.size == FileHandle::packedSize && handle.decode(id) &&
        handle.kind == FileHandle::Snapshot)
        return handle;
    MORVA_TRACE(Always) << "Invalid handle";
    return std::nullopt;
}

SnapshotAnalysis::SnapshotAnalysis(FileHandle const& snapshot) : snapshot_(snapshot) {
    MORVA_TRACE(Normal) << "Analyze"
                        << "Id" << Morva::hex << snapshot.id << Morva::dec << "Store"
                        << snapshot.store << "Type" << snapshot.kind << "Instance"
                        << snapshot.instance << "Link" << snapshot.link;
    auto store = Store::open(snapshot.store, false);
    if (store) {
        store_ = *std::move(store);
        begin();
    } else {
        MORVA_TRACE(Always) << "Store is not available" << snapshot.store << store.status().text();
        end(State::Failed);
    }
}

SnapshotAnalysis::~SnapshotAnalysis() = default;

void SnapshotAnalysis::begin() {
    SnapshotList const& snapshots = store_->snapshots();
    known_ =
        snapshots.isSnapshotAnalyzed(logicalSize_, directoryCount_, fileCount_, snapshot_.instance);
    if (known_)
        return end(State::Done);
    if (snapshots.retireRequested(snapshot_.instance))
        return end(State::Failed);
    directories_.push_back(store_->rootId());
    counted_.insert(store_->rootId());
}

void SnapshotAnalysis::end(State state) {
    state_ = state;
    directories_ = {};
    counted_ = {};
    store_.reset();
}

SnapshotAnalysis::State SnapshotAnalysis::step() {
    if (state_ != State::Walking)
        return state_;
    FileId const directory = directories_.back();
    directories_.pop_back();
    bool const wanted =
        !store_->markedForDeletion() && !store_->snapshots().retireRequested(snapshot_.instance);
    if (!wanted || !countDirectory(directory))
        end(State::Failed);
    else if (directories_.empty())
        end(record() ? State::Done : State::Failed);
    return state_;
}

bool SnapshotAnalysis::countDirectory(FileId directory) {
    auto const found = store_->passiveHandle(directory, snapshot_.instance);
    if (!found)
        return false;
    FileNode::Pointer const& node = *found;
    if (!node || !node->isDirectory()) {
        MORVA_TRACE(Always) << (node ? "Not a directory" : "No longer exists") << Morva::hex
                            << directory << Morva::dec << "instance" << snapshot_.instance;
        return false;
    }
    DirectoryScan scan(*node, directory, "Analyze", snapshot_.instance);
    while (scan.nextName())
        if (!scan.entry().liveOnly() && !count(scan.entry()))
            return false;
    return !scan.failed();
}

bool SnapshotAnalysis::count(DirectoryEntry const& entry) {
    FileId const id = entry.fileId();
    if (entry.isDirectory()) {
        // Damage could have made a loop of the tree.
        if (!counted_.insert(id).second) {
            MORVA_TRACE(Always) << "Directory has two names" << Morva::hex << id;
            return false;
        }
        directories_.push_back(id);
        ++directoryCount_;
        return true;
    }
    auto const found = store_->passiveHandle(id, snapshot_.instance);
    if (!found)
        return false;
    FileNode::Pointer const& node = *found;
    if (!node) {
        MORVA_TRACE(Always) << "No longer exists" << Morva::hex << id << Morva::dec << "instance"
                            << snapshot_.instance;
        return false;
    }
    // Most files never had a second name, and needn't be remembered.
    if (!node->notLinked() && !counted_.insert(id).second)
        return true;
    auto const size = node->size();
    if (!size)
        return false;
    logicalSize_ += *size;
    ++fileCount_;
    return true;
}

bool SnapshotAnalysis::record() {
    OperationGate::Enter const gate;
    return store_->snapshots()
        .snapshotAnalyzed(snapshot_.instance, logicalSize_, directoryCount_, fileCount_)
        .ok();
}

} // namespace Replication
