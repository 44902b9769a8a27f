// The end of a store.

#include "base/blocks/Failures.h"
#include "base/files/RawFile.h"
#include "base/trace/Trace.h"
#include "replication/repository/store/NodeFile.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/OperationGate.h"
#include "replication/repository/streams/Streams.h"

#include <QDir>

#include <algorithm>

namespace Replication {

namespace {

/// Nodes freed in one hold of the operation gate.
constexpr std::uint64_t nodesInSlice = 64;

/// Removes the files of a directory, `last` after all others, and the directory itself. Goes on
/// where one can't be removed.
bool removeDirectory(QString const& path, QString const& last = {}) {
    QDir const directory(path);
    QStringList names = directory.entryList(QDir::Files | QDir::Hidden | QDir::System, QDir::Name);
    if (names.removeOne(last))
        names.append(last);
    MORVA_TRACE(Normal) << "Remove" << names.size() << "files from" << path;
    for (QString const& name : std::as_const(names)) {
        MORVA_TRACE(Verbose) << "Remove" << name;
        if (!Morva::RawFile::remove(path + QLatin1Char('/') + name))
            MORVA_TRACE(Always) << "Failed to remove" << name << "from" << path;
    }
    return directory.rmdir(path);
}

} // namespace

bool Store::erase() {
    MORVA_METHOD("erase");
    if (!open_ || !control_->deletionSent() || valid_) {
        MORVA_TRACE(Always) << "Invalid erase request";
        return scope.result(true);
    }
    MORVA_TRACE(Normal) << "Erasing store" << id_ << "ReplayId" << replayId() << "Location"
                        << storePath_;
    if (!QDir(snapshotPath_).exists())
        MORVA_TRACE(Normal) << "No snapshot directory";
    else if (!removeDirectory(snapshotPath_))
        MORVA_TRACE(Always) << "Failed to remove" << snapshotPath_;
    Morva::Failures::Watch const failures;
    eraseNodes();
    if (failures.any()) {
        // Without the files nobody would know any more what the store held in the pool.
        MORVA_TRACE(Always) << "Failed to free all nodes of store" << id_;
        return scope.result(false);
    }
    (void)nodes_->close();
    open_ = false;
    if (removeDirectory(storePath_, QStringLiteral("files")))
        return scope.result(true);
    MORVA_TRACE(Always) << "Failed to remove" << storePath_;
    return scope.result(false);
}

void Store::eraseNodes() {
    // Neither ids nor directories are needed: every node says itself what it holds.
    forEachNode(&PassiveHandles::erase);
}

void Store::freeUnclaimed() {
    forEachNode(&PassiveHandles::freeUnclaimed);
}

void Store::forEachNode(bool (PassiveHandles::*work)(NodeNumber)) {
    std::uint64_t const end = nodes_->totalBlocks();
    for (std::uint64_t number = nodes_->firstBlock() + 1; number < end;) {
        OperationGate::Enter const gate;
        std::uint64_t const sliceEnd = std::min(number + nodesInSlice, end);
        for (; number < sliceEnd; ++number)
            (passive_.get()->*work)(NodeNumber{number});
    }
}

} // namespace Replication
