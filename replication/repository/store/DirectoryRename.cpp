// Moving names within the live tree.

#include "base/blocks/Failures.h"
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

using Morva::Failures;

bool Directories::rename(NotToBackup::OpType opType, ActiveHandle& handle, DirKey& from, DirKey& to,
                         QString const& toName) {
    MORVA_METHOD("rename");
    WriterScope writer(writer_);
    if (!find(from)) {
        MORVA_TRACE(Always) << "Source does not exist"
                            << "From" << Morva::hex << from.directoryId() << from.name() << "To"
                            << to.directoryId() << to.name();
        // Whether the move has been made already can be seen from the trace; nothing is repaired.
        DirKey target(to.directoryId(), to.name(), 0);
        (void)findName(target);
        return false;
    }
    bool const sameName = to.sameName(from);
    if (sameName && spelling(from) == toName) {
        MORVA_TRACE(Normal) << "Already renamed" << to.name();
        return true;
    }
    if (from.isDirectory() && isBelow(to.directoryId(), from.fileId())) {
        MORVA_TRACE(Always) << "Cannot move a directory below itself" << from.name() << "To"
                            << Morva::hex << to.directoryId() << to.name();
        return false;
    }
    if (toName.isEmpty() || toName.size() > static_cast<qsizetype>(DirectoryPage::maximumName)) {
        MORVA_TRACE(Always) << "Name too long" << toName.size();
        return false;
    }
    DirKey existing(to.directoryId(), to.name(), 0);
    Failures::Watch const watch;
    bool const found = !sameName && find(existing);
    if (watch.any())
        return false;
    MORVA_TRACE(Debug) << "Check" << to.name() << "exists or not" << found;
    if (found) {
        MORVA_TRACE(Verbose) << "Destination already exists, delete it" << to.name();
        if (!removeLink(existing))
            return false;
    }
    DirKey target(to.directoryId(), to.name(), 0);
    target.fileId(from.fileId());
    target.linkId(from.link());
    target.liveOnly(to.liveOnly());
    target.type(from.type());
    if (!moveName(opType, handle, from, target, toName))
        return false;
    to = target;
    (void)handle.links().insert(to.link(), {to, toName});
    if (handle.fileNode() && handle.fileNode()->liveOnly() != to.liveOnly())
        store_.unfinished().finish([this, to] {
            Failures::Watch const watch;
            if (ActiveHandle::Pointer const moved = store_.activeHandles().get(to.fileId()))
                moved->liveOnly(to.link(), to.liveOnly());
            return !watch.any();
        });
    tellRenamed(handle, from.liveOnly(), to, toName);
    return scope.result(true);
}

QString Directories::spelling(DirKey const& key) {
    OpenDirectories::Pointer const open = open_.get(key.directoryId(), "rename");
    std::uint8_t* const entry = open ? entryOf(*open, key) : nullptr;
    return entry ? DirectoryEntry(entry).name().toString() : QString();
}

bool Directories::moveName(NotToBackup::OpType opType, ActiveHandle& handle, DirKey& from,
                           DirKey& to, QString const& toName) {
    // All that can be known to fail comes first: between the removal and the insertion the object
    // has no name.
    OpenDirectories::Pointer const source = open_.get(from.directoryId(), "rename");
    OpenDirectories::Pointer const target = open_.get(to.directoryId(), "rename");
    if (!source || !target)
        return false;
    std::uint8_t* const entry = entryOf(*source, from);
    if (!entry)
        return false;
    QString const fromName = DirectoryEntry(entry).name().toString();
    NotToBackup::OpType const fromType =
        from.liveOnly() ? NotToBackup::eLiveOnly : NotToBackup::eNothing;
    bool const moved = from.isDirectory() && from.directoryId() != to.directoryId();
    if (moved && !setParent(handle, to.directoryId()))
        return false;
    if (!remove(from, true)) {
        if (moved)
            finishParent(handle.id(), from.directoryId());
        return false;
    }
    count(from, false);
    if (insert(opType, target->handle(), to, toName))
        return true;
    MORVA_TRACE(Always) << "Failed to insert" << toName << "back to" << fromName;
    DirKey back(from, from.directoryId(), from.name());
    if (moved)
        finishParent(handle.id(), from.directoryId());
    finishInsert(fromType, back, fromName);
    return false;
}

bool Directories::isBelow(FileId directory, FileId ancestor) {
    std::unordered_set<FileId> seen;
    while (directory && directory != store_.rootId() && seen.insert(directory).second) {
        if (directory == ancestor)
            return true;
        ActiveHandle::Pointer const handle = store_.activeHandles().get(directory);
        if (!handle || !handle->fileNode())
            return false;
        directory = parentOf(*handle->fileNode());
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

bool Directories::rename(NotToBackup::OpType opType, NotToBackup const& rules, ActiveHandle& handle,
                         DirKey& from, QStringList const& path) {
    MORVA_METHOD("rename (Path)");
    WriterScope writer(writer_);
    if (path.isEmpty()) {
        MORVA_TRACE(Always) << "No destination path supplied";
        return false;
    }
    if (from.name().isEmpty()) {
        MORVA_TRACE(Always) << "Invalid handle supplied";
        return false;
    }
    Located const target = locate(path, PathMode::BuildPath);
    if (target.failed)
        return false;
    if (target.found && !target.key.sameName(from)) {
        MORVA_TRACE(Always) << "Destination path exists" << path.join(QLatin1Char('/'));
        return false;
    }
    if (!target.parentFound) {
        MORVA_TRACE(Always) << "Destination directory does not exist"
                            << path.join(QLatin1Char('/'));
        return false;
    }
    DirKey to = key(target.parent.fileId(), path.last());
    MORVA_TRACE(Debug) << "Look for" << to.name();
    if (!rename(opType, handle, from, to, path.last()))
        return false;
    // Without rules nothing that was moved has a mark to lose.
    if (to.isDirectory() && !rules.empty()) {
        // Moved it is, whatever becomes of the marks.
        Failures::Pardon const pardon;
        QStringList moved = path;
        checkOperations(rules, handle, moved);
    }
    return scope.result(true);
}

} // namespace Replication
