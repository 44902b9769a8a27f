// Names come, go and change: insert, remove, liveOnly, link, unlink.

#include "base/trace/Trace.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/DirectoryScan.h"
#include "replication/repository/store/Event.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/store/WriterScope.h"

#include <optional>

namespace Replication {

using Morva::Result;
using Morva::Status;

Status Directories::insert(NotToBackup::OpType opType, ActiveHandle& directory, DirKey& key,
                           QString const& name) {
    MORVA_METHOD("insert");
    WriterScope writer(writer_);
    if (!directory.fileNode() || !directory.fileNode()->isDirectory()) {
        MORVA_TRACE(Always) << "Hande is not a directory";
        return misfit("insert", name, "the parent is no directory");
    }
    MORVA_TRY(store_.settle());
    MORVA_TRY_LET(OpenDirectories::Pointer const open, open_.get(directory.id(), "insert"));
    if (name.size() > static_cast<qsizetype>(DirectoryPage::maximumName)) {
        MORVA_TRACE(Always) << "Name too long" << name.size();
        return misfit("insert", name, "the name is too long");
    }
    if (name.isEmpty()) {
        MORVA_TRACE(Always) << "Empty name";
        return misfit("insert", name, "the name is empty");
    }
    std::uint32_t const needed = DirectoryPage::usedSize(static_cast<std::uint32_t>(name.size()));
    std::uint64_t position = 0;
    MORVA_TRY_LET(std::uint8_t* const slot, findSpace(*open, needed, position));
    MORVA_TRACE(Debug) << "Found Slot" << position;
    key.linkId(key.link());
    key.liveOnly(opType == NotToBackup::eLiveOnly);
    key.position(position);
    DirectoryEntry(slot).fill(key, name);
    MORVA_TRY(writePage(*open));
    if (Status status = treeInsert(key); !status) {
        // Without its key the entry would only be found by a check.
        MORVA_TRACE(Always) << "!!!!!!! BTree failed to insert" << name;
        store_.unfinished().finish([this, key] { return takeEntryBack(key); });
        return status;
    }
    MORVA_TRACE(Debug) << "BTree insert" << name;
    count(key, true);
    return {};
}

Result<std::uint8_t*> Directories::findSpace(OpenDirectory& directory, std::uint32_t needed,
                                             std::uint64_t& position) {
    MORVA_TRY_LET(std::optional<std::uint64_t> const number, directory.firstFit(needed));
    if (!number) {
        position = directory.pages() * DirectoryPage::size;
        return directory.newPage();
    }
    PageContext const context{"insert", directory.id(), *number, directory.pages(), {}};
    Result<std::uint8_t*> const page = directory.readPage(*number);
    if (!page) {
        DirectoryPage::traceFailedRead(context);
        return page;
    }
    DirectoryPage::Slot const slot = DirectoryPage::takeSlot(*page, needed);
    if (!slot.offset) {
        DirectoryPage::traceInvalid(context, *page, slot.invalidAt);
        return damaged("insert", QStringLiteral("directory %1").arg(directory.id().value),
                       "an entry is invalid");
    }
    position = *number * DirectoryPage::size + *slot.offset;
    return *page + *slot.offset;
}

Result<std::uint8_t*> Directories::entryOf(OpenDirectory& directory, DirKey const& key) {
    Result<std::uint8_t*> const page = directory.readPage(DirectoryPage::pageOf(key.position()));
    if (!page) {
        MORVA_TRACE(Always) << "Failed to read whole page" << DirectoryPage::pageOf(key.position());
        return page;
    }
    std::uint32_t const offset = DirectoryPage::offsetOf(key.position());
    DirectoryEntry const entry(*page + offset);
    bool const valid = entry.valid(DirectoryPage::size - offset);
    if (valid && entry.fileId() == key.fileId() && sameEntryName(entry.name(), key.name()))
        return *page + offset;
    MORVA_TRACE(Always) << "Id mismatch"
                        << "Key" << Morva::hex << key.fileId() << key.link() << key.typeWord()
                        << Morva::dec << key.position() << key.name() << "Entry"
                        << (valid ? entry.name().toString() : QStringLiteral("invalid"))
                        << Morva::hex << (valid ? entry.fileId() : FileId{});
    return damaged("find entry", key.name(), "the directory tree doesn't match the entry");
}

Status Directories::remove(DirKey& key, bool force) {
    MORVA_METHOD("remove");
    WriterScope writer(writer_);
    MORVA_TRY(store_.settle());
    if (!force && key.isDirectory()) {
        MORVA_TRY_LET(bool const empty, emptyDirectory(key));
        if (!empty) {
            MORVA_TRACE(Normal) << "Cannot remove an non-empty directory" << key.name();
            return misfit("remove", key.name(), "the directory isn't empty");
        }
    }
    MORVA_TRY_LET(OpenDirectories::Pointer const open, open_.get(key.directoryId(), "remove"));
    Result<std::uint8_t*> const entry = entryOf(*open, key);
    if (!entry) {
        MORVA_TRACE(Always) << "!!!!!!! Failed to remove from directory" << key.name();
        return entry.status();
    }
    std::uint32_t const offset = DirectoryPage::offsetOf(key.position());
    if (!DirectoryPage::removeEntry(*entry - offset, offset)) {
        MORVA_TRACE(Always) << "!!!!!!! Failed to remove from directory" << key.name();
        return damaged("remove", key.name(), "the entries before it are invalid");
    }
    MORVA_TRY(writePage(*open));
    if (Status status = finishKey(&Directories::treeRemove, key); !status) {
        MORVA_TRACE(Always) << "!!!!!!! BTree failed to remove" << key.name();
        return status;
    }
    MORVA_TRACE(Debug) << "BTree Removed" << key.name();
    return {};
}

Status Directories::liveOnly(DirKey& key) {
    MORVA_METHOD("liveOnly");
    WriterScope writer(writer_);
    MORVA_TRY(store_.settle());
    MORVA_TRY_LET(OpenDirectories::Pointer const open, open_.get(key.directoryId(), "liveOnly"));
    MORVA_TRY_LET(std::uint8_t* const bytes, entryOf(*open, key));
    DirectoryEntry entry(bytes);
    bool const before = entry.liveOnly();
    entry.typeWord(key.typeWord() & (DirKey::liveOnlyBit | DirKey::typeMask));
    MORVA_TRY(writePage(*open));
    if (before != key.liveOnly())
        store_.control().countName(key.type(), before);
    if (Status status = finishKey(&Directories::treeUpdate, key); !status) {
        MORVA_TRACE(Always) << "!!!!!!! BTree failed to update" << key.name();
        return status;
    }
    MORVA_TRACE(Debug) << "BTree updated" << key.name();
    return {};
}

Result<bool> Directories::emptyDirectory(DirKey const& key) {
    MORVA_METHOD("emptyDirectory");
    if (!key.isDirectory())
        return false;
    auto const handle = store_.activeHandles().open(key.fileId());
    if (!handle) {
        MORVA_TRACE(Always) << "Unable to open directory" << Morva::hex << key.fileId();
        return handle.status();
    }
    DirectoryScan scan(*(*handle)->fileNode(), key.fileId(), "emptyDirectory");
    if (scan.nextName()) {
        MORVA_TRACE(Verbose) << "Found" << scan.entry().name().toString();
        return false;
    }
    // What can't be read isn't the end.
    MORVA_TRY(Status(scan.status()));
    if (!scan.hasData())
        MORVA_TRACE(Verbose) << "No directory data";
    return scope.result(true);
}

void Directories::dropObject(DirKey const& key) {
    if (key.isDirectory())
        open_.drop(key.fileId());
    store_.removeFileId(key, true);
}

Status Directories::removeLink(DirKey& key) {
    MORVA_METHOD("removeLink");
    WriterScope writer(writer_);
    MORVA_TRY(remove(key, false));
    dropObject(key);
    return {};
}

Status Directories::unlink(DirKey& key, ActiveHandle& handle, QString const& stream) {
    MORVA_METHOD("unlink");
    WriterScope writer(writer_);
    // Before anything else, so that a refused or a smaller deletion doesn't empty a directory.
    if (!stream.isEmpty() && stream.compare(dataStreamName, store_.caseSensitivity()) != 0)
        return handle.removeStream(key.link(), stream);
    if (key.isRoot() || handle.id() == store_.rootId()) {
        MORVA_TRACE(Always) << "Cannot unlink root directory";
        return misfit("remove", QString(), "it is the root");
    }
    if (handle.fileNode() && handle.fileNode()->isDirectory())
        MORVA_TRY(discardDirectory(handle));
    DirKey current(key.directoryId(), key.name(), 0);
    MORVA_TRY_LET(bool const found, find(current));
    if (!found) {
        MORVA_TRACE(Normal) << "Unable to find that file, be happy its gone" << key.name();
        return {};
    }
    if (current.fileId() != handle.id()) {
        MORVA_TRACE(Normal) << "Not the same file id, be happy its gone" << key.name();
        return {};
    }
    return removeLink(current);
}

Status Directories::link(NotToBackup::OpType opType, DirKey& from, QStringList const& path) {
    MORVA_METHOD("link");
    WriterScope writer(writer_);
    if (from.isDirectory()) {
        MORVA_TRACE(Always) << "Cannot link to a directory";
        return misfit("link", from.name(), "it is a directory");
    }
    if (from.name().isEmpty()) {
        MORVA_TRACE(Always) << "Invalid handle supplied";
        return misfit("link", QString(), "the handle has no name");
    }
    if (path.isEmpty()) {
        MORVA_TRACE(Always) << "No destination address supplied";
        return misfit("link", from.name(), "no destination was given");
    }
    MORVA_TRY_LET(Located const target, locate(path, PathMode::BuildPath));
    if (target.found) {
        MORVA_TRACE(Always) << "Destination already exists" << path.join(QLatin1Char('/'));
        return misfit("link", path.join(QLatin1Char('/')), "it is there already");
    }
    if (!target.parentFound) {
        MORVA_TRACE(Always) << "Parent not found" << path.join(QLatin1Char('/'));
        return misfit("link", path.join(QLatin1Char('/')), "its parent isn't a directory");
    }
    MORVA_TRY_LET(bool const found, find(from));
    if (!found) {
        MORVA_TRACE(Always) << "Failed to find from BTree entry" << from.name();
        return Status::failure(Status::Code::NotFound, "link", from.name());
    }
    if (from.isDirectory()) {
        MORVA_TRACE(Always) << "Cannot link to a directory";
        return misfit("link", from.name(), "it is a directory");
    }
    auto const opened = store_.activeHandles().open(from.fileId());
    if (!opened) {
        MORVA_TRACE(Always) << "Failed to open from handle" << from.name();
        return opened.status();
    }
    ActiveHandle::Pointer const source = *opened;
    auto const parent = store_.activeHandles().open(target.parent.fileId());
    if (!parent) {
        MORVA_TRACE(Always) << "Failed to open parent directory";
        return parent.status();
    }
    DirKey to = key(target.parent.fileId(), path.last(), source->fileNode()->type());
    to.fileId(from.fileId());
    Result<LinkId> const link = source->addLink(from.link(), opType == NotToBackup::eLiveOnly);
    if (!link) {
        MORVA_TRACE(Always) << "Failed to add a link to" << from.name();
        return link.status();
    }
    to.linkId(*link);
    if (Status status = insert(opType, **parent, to, path.last()); !status) {
        MORVA_TRACE(Always) << "Failed to insert link file" << path.last();
        store_.unfinished().finish(
            [source, number = *link] { return source->removeLink(number).status(); });
        return status;
    }
    if (store_.event() && store_.indexSnapshots() && to.link() == LinkId{2} && !from.liveOnly()) {
        MORVA_TRACE(Verbose)
            << "First link to the file, delete it from the metadatastore search index";
        store_.event()->removed(from.fileId(), from.link(), from.directoryId(),
                                store_.retired().timeStamp());
    }
    return {};
}

} // namespace Replication
