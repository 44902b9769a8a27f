// The end of a store.

#include "base/files/RawFile.h"
#include "base/trace/Trace.h"
#include "replication/repository/store/NodeFile.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/OperationGate.h"
#include "replication/repository/streams/Streams.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Replication {

using Morva::Status;

namespace {

/// Nodes freed in one hold of the operation gate.
constexpr std::uint64_t nodesInSlice = 64;

/// Removes the files of a directory, `last` after all others, and the directory itself. Goes on
/// where one can't be removed, but for `last`, which stays then.
Status removeDirectory(QString const& path, QString const& last = {}) {
    auto names = Morva::FileSystem::inForce().names(path, Morva::FileSystem::Kind::File);
    if (!names.ok())
        return names.status();
    bool const hasLast = names->removeOne(last);
    MORVA_TRACE(Normal) << "Remove" << names->size() + hasLast << "files from" << path;
    Status result;
    auto const remove = [&](QString const& name) {
        MORVA_TRACE(Verbose) << "Remove" << name;
        Status gone = Morva::FileSystem::inForce().removeIfThere(path + QLatin1Char('/') + name);
        if (!gone)
            MORVA_TRACE(Always) << "Failed to remove" << name << "from" << path << gone.text();
        result.update(std::move(gone));
    };
    for (QString const& name : std::as_const(*names))
        remove(name);
    MORVA_TRY(std::move(result));
    if (hasLast)
        remove(last);
    MORVA_TRY(std::move(result));
    Status gone = Morva::FileSystem::inForce().removeDirectory(path);
    return gone.is(Status::Code::NotFound) ? Status() : gone;
}

} // namespace

Status Store::erase(SafePoint const& safePoint) {
    MORVA_METHOD("erase");
    if (!open_ || !control_->deletionSent() || valid_) {
        MORVA_TRACE(Always) << "Invalid erase request";
        return {};
    }
    MORVA_TRACE(Normal) << "Erasing store" << id_ << "ReplayId" << replayId() << "Location"
                        << storePath_;
    if (auto const there = Morva::FileSystem::inForce().exists(snapshotPath_);
        there.ok() && !*there)
        MORVA_TRACE(Normal) << "No snapshot directory";
    Status snapshots = removeDirectory(snapshotPath_);
    // Neither ids nor directories are needed: every node says itself what it holds.
    if (Status freed = forEachNode(&PassiveHandles::erase, safePoint); !freed) {
        // Without the files nobody would know any more what the store held in the pool.
        MORVA_TRACE(Always) << "Failed to free all nodes of store" << id_ << freed.text();
        return freed;
    }
    // "files" is the last to go: as long as anything is there, it says that it is to be erased.
    MORVA_TRY(std::move(snapshots));
    Status result = nodes_->close();
    open_ = false;
    MORVA_TRY(std::move(result));
    Status removed = removeDirectory(storePath_, QStringLiteral("files"));
    if (!removed)
        MORVA_TRACE(Always) << "Failed to remove" << storePath_ << removed.text();
    return removed;
}

Status Store::freeUnclaimed() {
    return forEachNode(&PassiveHandles::freeUnclaimed, {});
}

Status Store::forEachNode(Status (PassiveHandles::*work)(NodeNumber), SafePoint const& safePoint) {
    Status status;
    std::uint64_t const end = nodes_->totalBlocks();
    for (std::uint64_t number = nodes_->firstBlock() + 1; number < end;) {
        {
            OperationGate::Enter const gate;
            std::uint64_t const sliceEnd = std::min(number + nodesInSlice, end);
            for (; number < sliceEnd; ++number)
                status.update((passive_.get()->*work)(NodeNumber{number}));
        }
        if (safePoint)
            MORVA_TRY(safePoint());
    }
    return status;
}

} // namespace Replication
