// Names come, go and change: insert, remove, liveOnly, link, unlink.

#include "base/blocks/Failures.h"
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

bool Directories::insert(NotToBackup::OpType opType, ActiveHandle& directory, DirKey& key,
                         QString const& name) {
    MORVA_METHOD("insert");
    WriterScope writer(writer_);
    if (!directory.fileNode() || !directory.fileNode()->isDirectory()) {
        MORVA_TRACE(Always) << "Hande is not a directory";
        return false;
    }
    if (!store_.settle())
        return false;
    OpenDirectories::Pointer const open = open_.get(directory.id(), "insert");
    if (!open)
        return false;
    if (name.size() > static_cast<qsizetype>(DirectoryPage::maximumName)) {
        MORVA_TRACE(Always) << "Name too long" << name.size();
        return false;
    }
    if (name.isEmpty()) {
        MORVA_TRACE(Always) << "Empty name";
        return false;
    }
    std::uint32_t const needed = DirectoryPage::usedSize(static_cast<std::uint32_t>(name.size()));
    std::uint64_t position = 0;
    std::uint8_t* const slot = findSpace(*open, needed, position);
    if (!slot)
        return false;
    MORVA_TRACE(Debug) << "Found Slot" << position;
    key.linkId(key.link());
    key.liveOnly(opType == NotToBackup::eLiveOnly);
    key.position(position);
    DirectoryEntry(slot).fill(key, name);
    if (!writePage(*open))
        return false;
    if (!treeInsert(key)) {
        // Without its key the entry would only be found by a check.
        MORVA_TRACE(Always) << "!!!!!!! BTree failed to insert" << name;
        store_.unfinished().finish([this, key] { return takeEntryBack(key); });
        return false;
    }
    MORVA_TRACE(Debug) << "BTree insert" << name;
    count(key, true);
    return scope.result(true);
}

std::uint8_t* Directories::findSpace(OpenDirectory& directory, std::uint32_t needed,
                                     std::uint64_t& position) {
    std::optional<std::uint64_t> number;
    if (!directory.firstFit(needed, number))
        return nullptr;
    if (!number) {
        position = directory.pages() * DirectoryPage::size;
        return directory.newPage();
    }
    PageContext const context{"insert", directory.id(), *number, directory.pages(), {}};
    std::uint8_t* const page = directory.readPage(*number);
    if (!page) {
        DirectoryPage::traceFailedRead(context);
        return nullptr;
    }
    DirectoryPage::Slot const slot = DirectoryPage::takeSlot(page, needed);
    if (!slot.offset) {
        DirectoryPage::traceInvalid(context, page, slot.invalidAt);
        return nullptr;
    }
    position = *number * DirectoryPage::size + *slot.offset;
    return page + *slot.offset;
}

std::uint8_t* Directories::entryOf(OpenDirectory& directory, DirKey const& key) {
    std::uint8_t* const page = directory.readPage(DirectoryPage::pageOf(key.position()));
    if (!page) {
        MORVA_TRACE(Always) << "Failed to read whole page" << DirectoryPage::pageOf(key.position());
        return nullptr;
    }
    std::uint32_t const offset = DirectoryPage::offsetOf(key.position());
    DirectoryEntry const entry(page + offset);
    bool const valid = entry.valid(DirectoryPage::size - offset);
    if (valid && entry.fileId() == key.fileId() && sameEntryName(entry.name(), key.name()))
        return page + offset;
    MORVA_TRACE(Always) << "Id mismatch"
                        << "Key" << Morva::hex << key.fileId() << key.link() << key.typeWord()
                        << Morva::dec << key.position() << key.name() << "Entry"
                        << (valid ? entry.name().toString() : QStringLiteral("invalid"))
                        << Morva::hex << (valid ? entry.fileId() : FileId{});
    return nullptr;
}

bool Directories::remove(DirKey& key, bool force) {
    MORVA_METHOD("remove");
    WriterScope writer(writer_);
    if (!store_.settle())
        return false;
    if (!force && key.isDirectory() && !emptyDirectory(key)) {
        MORVA_TRACE(Normal) << "Cannot remove an non-empty directory" << key.name();
        return false;
    }
    OpenDirectories::Pointer const open = open_.get(key.directoryId(), "remove");
    if (!open)
        return false;
    std::uint8_t* const entry = entryOf(*open, key);
    if (!entry) {
        MORVA_TRACE(Always) << "!!!!!!! Failed to remove from directory" << key.name();
        return false;
    }
    std::uint32_t const offset = DirectoryPage::offsetOf(key.position());
    if (!DirectoryPage::removeEntry(entry - offset, offset)) {
        MORVA_TRACE(Always) << "!!!!!!! Failed to remove from directory" << key.name();
        return false;
    }
    if (!writePage(*open))
        return false;
    if (!finishKey(&Directories::treeRemove, key)) {
        MORVA_TRACE(Always) << "!!!!!!! BTree failed to remove" << key.name();
        return false;
    }
    MORVA_TRACE(Debug) << "BTree Removed" << key.name();
    return scope.result(true);
}

bool Directories::liveOnly(DirKey& key) {
    MORVA_METHOD("liveOnly");
    WriterScope writer(writer_);
    if (!store_.settle())
        return false;
    OpenDirectories::Pointer const open = open_.get(key.directoryId(), "liveOnly");
    if (!open)
        return false;
    std::uint8_t* const bytes = entryOf(*open, key);
    if (!bytes)
        return false;
    DirectoryEntry entry(bytes);
    bool const before = entry.liveOnly();
    entry.typeWord(key.typeWord() & (DirKey::liveOnlyBit | DirKey::typeMask));
    if (!writePage(*open))
        return false;
    if (before != key.liveOnly())
        store_.control().countName(key.type(), before);
    if (!finishKey(&Directories::treeUpdate, key)) {
        MORVA_TRACE(Always) << "!!!!!!! BTree failed to update" << key.name();
        return false;
    }
    MORVA_TRACE(Debug) << "BTree updated" << key.name();
    return scope.result(true);
}

bool Directories::emptyDirectory(DirKey const& key) {
    MORVA_METHOD("emptyDirectory");
    if (!key.isDirectory())
        return false;
    ActiveHandle::Pointer const handle = store_.activeHandles().get(key.fileId());
    if (!handle || !handle->fileNode()) {
        MORVA_TRACE(Always) << "Unable to open directory" << Morva::hex << key.fileId();
        return false;
    }
    Morva::Failures::Watch const watch;
    DirectoryScan scan(*handle->fileNode(), key.fileId(), "emptyDirectory");
    if (!scan.hasData() && !watch.any()) {
        MORVA_TRACE(Verbose) << "No directory data";
        return true;
    }
    if (scan.nextName()) {
        MORVA_TRACE(Verbose) << "Found" << scan.entry().name().toString();
        return false;
    }
    return scope.result(!watch.any());
}

void Directories::dropObject(DirKey const& key) {
    if (key.isDirectory())
        open_.drop(key.fileId());
    store_.removeFileId(key, true);
}

bool Directories::removeLink(DirKey& key) {
    MORVA_METHOD("removeLink");
    WriterScope writer(writer_);
    if (!remove(key, false))
        return false;
    dropObject(key);
    return scope.result(true);
}

bool Directories::unlink(DirKey& key, ActiveHandle& handle, QString const& stream) {
    MORVA_METHOD("unlink");
    WriterScope writer(writer_);
    // Before anything else, so that a refused or a smaller deletion doesn't empty a directory.
    if (!stream.isEmpty() && stream.compare(dataStreamName, store_.caseSensitivity()) != 0)
        return scope.result(handle.removeStream(key.link(), stream));
    if (key.isRoot() || handle.id() == store_.rootId()) {
        MORVA_TRACE(Always) << "Cannot unlink root directory";
        return false;
    }
    if (handle.fileNode() && handle.fileNode()->isDirectory() && !discardDirectory(handle))
        return false;
    DirKey current(key.directoryId(), key.name(), 0);
    Morva::Failures::Watch const watch;
    if (!find(current)) {
        if (watch.any())
            return false;
        MORVA_TRACE(Normal) << "Unable to find that file, be happy its gone" << key.name();
        return true;
    }
    if (current.fileId() != handle.id()) {
        MORVA_TRACE(Normal) << "Not the same file id, be happy its gone" << key.name();
        return true;
    }
    return scope.result(removeLink(current));
}

bool Directories::link(NotToBackup::OpType opType, DirKey& from, QStringList const& path) {
    MORVA_METHOD("link");
    WriterScope writer(writer_);
    if (from.isDirectory()) {
        MORVA_TRACE(Always) << "Cannot link to a directory";
        return false;
    }
    if (from.name().isEmpty()) {
        MORVA_TRACE(Always) << "Invalid handle supplied";
        return false;
    }
    if (path.isEmpty()) {
        MORVA_TRACE(Always) << "No destination address supplied";
        return false;
    }
    Located const target = locate(path, PathMode::BuildPath);
    if (target.failed)
        return false;
    if (target.found) {
        MORVA_TRACE(Always) << "Destination already exists" << path.join(QLatin1Char('/'));
        return false;
    }
    if (!target.parentFound) {
        MORVA_TRACE(Always) << "Parent not found" << path.join(QLatin1Char('/'));
        return false;
    }
    if (!find(from)) {
        MORVA_TRACE(Always) << "Failed to find from BTree entry" << from.name();
        return false;
    }
    if (from.isDirectory()) {
        MORVA_TRACE(Always) << "Cannot link to a directory";
        return false;
    }
    ActiveHandle::Pointer const source = store_.activeHandles().get(from.fileId());
    if (!source || !source->fileNode()) {
        MORVA_TRACE(Always) << "Failed to open from handle" << from.name();
        return false;
    }
    ActiveHandle::Pointer const parent = store_.activeHandles().get(target.parent.fileId());
    if (!parent) {
        MORVA_TRACE(Always) << "Failed to open parent directory";
        return false;
    }
    DirKey to = key(target.parent.fileId(), path.last(), source->fileNode()->type());
    to.fileId(from.fileId());
    LinkId const link = source->addLink(from.link(), opType == NotToBackup::eLiveOnly);
    if (!link) {
        MORVA_TRACE(Always) << "Failed to add a link to" << from.name();
        return false;
    }
    to.linkId(link);
    if (!insert(opType, *parent, to, path.last())) {
        MORVA_TRACE(Always) << "Failed to insert link file" << path.last();
        store_.unfinished().finish([source, link, left = source->linkCount() - 1] {
            return source->removeLink(link) == left;
        });
        return false;
    }
    if (store_.event() && store_.indexSnapshots() && to.link() == LinkId{2} && !from.liveOnly()) {
        MORVA_TRACE(Verbose)
            << "First link to the file, delete it from the metadatastore search index";
        store_.event()->removed(from.fileId(), from.link(), from.directoryId(),
                                store_.retired().timeStamp());
    }
    return scope.result(true);
}

} // namespace Replication
