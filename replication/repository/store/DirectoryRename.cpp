// Moving names within the live tree.

#include "base/trace/Trace.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/DirectoryScan.h"
#include "replication/repository/store/Event.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/store/WriterScope.h"

#include <unordered_set>

namespace Replication {

using Morva::Result;
using Morva::Status;

Status Directories::rename(NotToBackup::OpType opType, ActiveHandle& handle, DirKey& from,
                           DirKey& to, QString const& toName) {
    MORVA_METHOD("rename");
    WriterScope writer(writer_);
    MORVA_TRY_LET(bool const there, find(from));
    if (!there) {
        MORVA_TRACE(Always) << "Source does not exist"
                            << "From" << Morva::hex << from.directoryId() << from.name() << "To"
                            << to.directoryId() << to.name();
        // Whether the move has been made already can be seen from the trace; nothing is repaired.
        DirKey target(to.directoryId(), to.name(), 0);
        (void)findName(target); // for the trace alone
        return Status::failure(Status::Code::NotFound, "rename", from.name());
    }
    bool const sameName = to.sameName(from);
    if (sameName) {
        MORVA_TRY_LET(QString const spelled, spelling(from));
        if (spelled == toName) {
            MORVA_TRACE(Normal) << "Already renamed" << to.name();
            to = from;
            return {};
        }
    }
    if (from.isDirectory()) {
        MORVA_TRY_LET(bool const below, isBelow(to.directoryId(), from.fileId()));
        if (below) {
            MORVA_TRACE(Always) << "Cannot move a directory below itself" << from.name() << "To"
                                << Morva::hex << to.directoryId() << to.name();
            return misfit("rename", from.name(), "it would lie below itself");
        }
    }
    if (toName.isEmpty() || toName.size() > static_cast<qsizetype>(DirectoryPage::maximumName)) {
        MORVA_TRACE(Always) << "Name too long" << toName.size();
        return misfit("rename", toName, "the name is too long");
    }
    DirKey existing(to.directoryId(), to.name(), 0);
    bool found = false;
    if (!sameName) {
        MORVA_TRY_LET(found, find(existing));
    }
    MORVA_TRACE(Debug) << "Check" << to.name() << "exists or not" << found;
    if (found) {
        MORVA_TRACE(Verbose) << "Destination already exists, delete it" << to.name();
        MORVA_TRY(removeLink(existing));
    }
    DirKey target(to.directoryId(), to.name(), 0);
    target.fileId(from.fileId());
    target.linkId(from.link());
    target.liveOnly(to.liveOnly());
    target.type(from.type());
    MORVA_TRY(moveName(opType, handle, from, target, toName));
    to = target;
    (void)handle.links().insert(to.link(), {to, toName}); // an iterator
    if (handle.fileNode() && handle.fileNode()->liveOnly() != to.liveOnly())
        store_.unfinished().finish([this, to]() -> Status {
            MORVA_TRY_LET(auto const moved, store_.activeHandles().open(to.fileId()));
            return moved->liveOnly(to.link(), to.liveOnly());
        });
    tellRenamed(handle, from.liveOnly(), to, toName);
    return {};
}

Result<QString> Directories::spelling(DirKey const& key) {
    MORVA_TRY_LET(OpenDirectories::Pointer const open, open_.get(key.directoryId(), "rename"));
    MORVA_TRY_LET(std::uint8_t* const entry, entryOf(*open, key));
    return DirectoryEntry(entry).name().toString();
}

Status Directories::moveName(NotToBackup::OpType opType, ActiveHandle& handle, DirKey& from,
                             DirKey& to, QString const& toName) {
    // All that can be known to fail comes first: between the removal and the insertion the object
    // has no name.
    MORVA_TRY_LET(OpenDirectories::Pointer const source, open_.get(from.directoryId(), "rename"));
    MORVA_TRY_LET(OpenDirectories::Pointer const target, open_.get(to.directoryId(), "rename"));
    MORVA_TRY_LET(std::uint8_t* const entry, entryOf(*source, from));
    QString const fromName = DirectoryEntry(entry).name().toString();
    NotToBackup::OpType const fromType =
        from.liveOnly() ? NotToBackup::eLiveOnly : NotToBackup::eNothing;
    bool const moved = from.isDirectory() && from.directoryId() != to.directoryId();
    if (moved)
        MORVA_TRY(setParent(handle, to.directoryId()));
    if (Status status = remove(from, true); !status) {
        if (moved)
            finishParent(handle.id(), from.directoryId());
        return status;
    }
    count(from, false);
    Status status = insert(opType, target->handle(), to, toName);
    if (status)
        return status;
    MORVA_TRACE(Always) << "Failed to insert" << toName << "back to" << fromName;
    DirKey back(from, from.directoryId(), from.name());
    if (moved)
        finishParent(handle.id(), from.directoryId());
    finishInsert(fromType, back, fromName);
    return status;
}

Result<bool> Directories::isBelow(FileId directory, FileId ancestor) {
    std::unordered_set<FileId> seen;
    while (directory && directory != store_.rootId() && seen.insert(directory).second) {
        if (directory == ancestor)
            return true;
        MORVA_TRY_LET(ActiveHandle::Pointer const handle, store_.activeHandles().open(directory));
        MORVA_TRY_LET(directory, parentOf(*handle->fileNode()));
    }
    return directory == ancestor;
}

void Directories::tellRenamed(ActiveHandle const& handle, bool wasLiveOnly, DirKey const& to,
                              QString const& toName) {
    if (wasLiveOnly != to.liveOnly())
        tellLiveOnly(handle, to, toName);
    else if (store_.event() && store_.indexSnapshots() && !to.liveOnly() && handle.notLinked())
        store_.event()->renamed(to.fileId(), to.link(), to.directoryId(), toName,
                                store_.retired().timeStamp());
}

void Directories::tellLiveOnly(ActiveHandle const& handle, DirKey const& key, QString const& name) {
    if (!store_.event() || !store_.indexSnapshots() || !handle.notLinked())
        return;
    std::uint32_t const time = store_.retired().timeStamp();
    if (key.liveOnly())
        store_.event()->removed(key.fileId(), key.link(), key.directoryId(), time);
    else
        store_.event()->created(key.fileId(), key.link(), key.directoryId(), name, time);
}

Status Directories::rename(NotToBackup::OpType opType, NotToBackup const& rules,
                           ActiveHandle& handle, DirKey& from, QStringList const& path,
                           DirKey& to) {
    MORVA_METHOD("rename (Path)");
    WriterScope writer(writer_);
    if (path.isEmpty()) {
        MORVA_TRACE(Always) << "No destination path supplied";
        return misfit("rename", from.name(), "no destination was given");
    }
    if (from.name().isEmpty()) {
        MORVA_TRACE(Always) << "Invalid handle supplied";
        return misfit("rename", QString(), "the handle has no name");
    }
    MORVA_TRY_LET(Located const target, locate(path, PathMode::BuildPath));
    if (target.found && !target.key.sameName(from)) {
        MORVA_TRACE(Always) << "Destination path exists" << path.join(QLatin1Char('/'));
        return misfit("rename", path.join(QLatin1Char('/')), "it is there already");
    }
    if (!target.parentFound) {
        MORVA_TRACE(Always) << "Destination directory does not exist"
                            << path.join(QLatin1Char('/'));
        return misfit("rename", path.join(QLatin1Char('/')), "its parent isn't a directory");
    }
    to = key(target.parent.fileId(), path.last());
    MORVA_TRACE(Debug) << "Look for" << to.name();
    MORVA_TRY(rename(opType, handle, from, to, path.last()));
    // Without rules nothing that was moved has a mark to lose.
    if (to.isDirectory() && !rules.empty()) {
        QStringList moved = path;
        (void)checkOperations(rules, handle, moved); // moved it is; the next pass sets the marks
    }
    return {};
}

} // namespace Replication
