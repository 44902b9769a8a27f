#include "replication/repository/store/Directories.h"

#include "base/blocks/Failures.h"
#include "base/trace/Trace.h"
#include "base/trees/PagedList.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/SnapshotDirectories.h"
#include "replication/repository/store/SnapshotNames.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/store/WriterScope.h"
#include "replication/repository/streams/StreamHandle.h"

namespace Replication {

using Morva::Failures;
using Morva::TracedLock;

namespace {

constexpr std::uint32_t treePageSize = 4096;

} // namespace

Directories::Directories(Store& store, std::uint32_t cachePages)
    : store_(store), tree_(cachePages), open_(store) {}

Directories::~Directories() = default;

namespace {

/// Damage and failing disks are counted; a key that isn't there is an answer.
bool noted(Morva::Status const& status) {
    if (!status && !status.is(Morva::Status::Code::NotFound))
        Failures::note();
    return status.ok();
}

} // namespace

bool Directories::create(QString const& path) {
    TracedLock guard(lock_);
    return tree_.create(path, treePageSize).ok();
}

bool Directories::open(QString const& path) {
    TracedLock guard(lock_);
    return tree_.open(path).ok();
}

bool Directories::flush() {
    TracedLock guard(lock_);
    return tree_.flush().ok();
}

bool Directories::close() {
    forget();
    TracedLock guard(lock_);
    return tree_.close().ok();
}

DirKey Directories::key(FileId directory, QString const& name, std::uint32_t type) const {
    return {directory, normal(name), type};
}

QString Directories::normal(QString const& name) const {
    return store_.caseSensitive() ? name : name.toLower();
}

bool Directories::find(DirKey& key) {
    TracedLock guard(lock_);
    auto const found = tree_.find(key);
    if (!found.ok())
        Failures::note();
    return found.ok() && *found;
}

bool Directories::treeInsert(DirKey& key) {
    TracedLock guard(lock_);
    return noted(tree_.insert(key));
}

bool Directories::treeRemove(DirKey const& key) {
    TracedLock guard(lock_);
    return noted(tree_.remove(key));
}

bool Directories::treeUpdate(DirKey const& key) {
    TracedLock guard(lock_);
    return noted(tree_.update(key));
}

// --- what the disk can refuse in the middle of a change

bool Directories::writePage(OpenDirectory& open) {
    if (open.writePage())
        return true;
    if (open.reached())
        finishImage(open.id(), open.pageNumber(), open.imageBefore());
    return false;
}

void Directories::finishPage(OpenDirectory& open) {
    Failures::Pardon const pardon;
    if (!open.writePage())
        finishImage(open.id(), open.pageNumber(), open.image());
}

void Directories::finishImage(FileId directory, std::uint64_t page,
                              OpenDirectory::Image const& image) {
    store_.unfinished().finish([this, directory, page, image] {
        Failures::Watch const watch;
        OpenDirectories::Pointer const open = open_.get(directory, "finishImage");
        return open ? open->writePage(page, image) : !watch.any();
    });
}

void Directories::finishParent(FileId directory, FileId parent) {
    store_.unfinished().finish([this, directory, parent] {
        Failures::Watch const watch;
        ActiveHandle::Pointer const handle = store_.activeHandles().get(directory);
        return (handle && setParent(*handle, parent)) || !watch.any();
    });
}

void Directories::finishInsert(NotToBackup::OpType opType, DirKey const& key, QString const& name) {
    store_.unfinished().finish([this, opType, key = DirKey(key), name]() mutable {
        Failures::Watch const watch;
        ActiveHandle::Pointer const parent = store_.activeHandles().get(key.directoryId());
        if (parent && insert(opType, *parent, key, name))
            return true;
        if (watch.any())
            return false;
        MORVA_TRACE(Always) << "!!!!!!! Lost name" << name << Morva::hex << key.fileId();
        return true;
    });
}

bool Directories::takeEntryBack(DirKey const& key) {
    Failures::Watch const watch;
    OpenDirectories::Pointer const open = open_.get(key.directoryId(), "insert");
    std::uint8_t* const page =
        open ? open->readPage(DirectoryPage::pageOf(key.position())) : nullptr;
    if (!page)
        return !watch.any();
    std::uint32_t const offset = DirectoryPage::offsetOf(key.position());
    DirectoryEntry const entry(page + offset);
    if (entry.valid(DirectoryPage::size - offset) && entry.fileId() == key.fileId() &&
        sameEntryName(entry.name(), key.name()) && DirectoryPage::removeEntry(page, offset))
        finishPage(*open);
    return true;
}

bool Directories::finishKey(bool (Directories::*change)(DirKey const&), DirKey const& key) {
    {
        Failures::Pardon const pardon;
        Failures::Watch const watch;
        if ((this->*change)(key))
            return true;
        if (!watch.any())
            return false;
    }
    store_.unfinished().finish([this, change, key] {
        Failures::Watch const watch;
        return (this->*change)(key) || !watch.any();
    });
    return true;
}

void Directories::count(DirKey const& key, bool added) {
    if (!key.liveOnly())
        store_.control().countName(key.type(), added);
}

Directories::Located Directories::locate(QStringList const& path, PathMode mode) {
    MORVA_METHOD("locate");
    Located result;
    Failures::Watch const watch;
    DirKey current = DirKey::root(store_.rootId());
    MORVA_TRACE(Debug) << "Root at" << Morva::hex << current.fileId();
    result.parent = current;
    for (qsizetype i = 0; i < path.size(); ++i) {
        bool const last = i + 1 == path.size();
        if (!current.isDirectory()) {
            MORVA_TRACE(Verbose) << "Element of path is not a directory" << current.name();
            return result;
        }
        result.parent = current;
        DirKey next = key(current.fileId(), path[i]);
        MORVA_TRACE(Debug) << "Find" << next.name();
        if (find(next)) {
            MORVA_TRACE(Debug) << "Found" << next.name() << Morva::hex << next.fileId();
        } else if (watch.any()) {
            MORVA_TRACE(Always) << "Failed to look for" << next.name();
            result.failed = true;
            return result;
        } else if (last) {
            MORVA_TRACE(Debug) << "Directory exists, but not file" << path[i];
            result.parentFound = true;
            return result;
        } else if (mode == PathMode::BuildPath) {
            next = buildElement(current, path.first(i + 1));
            if (!next.fileId())
                return result;
        } else {
            MORVA_TRACE(Verbose) << "Failed to find path element" << path[i];
            return result;
        }
        current = std::move(next);
    }
    result.found = true;
    result.parentFound = true;
    result.key = std::move(current);
    return result;
}

DirKey Directories::buildElement(DirKey const& parent, QStringList const& path) {
    DirKey element = key(parent.fileId(), path.last(), directoryType);
    NodeInfo info(store_.caseSensitivity());
    info.placeHolder = true;
    ActiveHandle::Pointer const made = store_.activeHandles().create(
        element, path, LiveMode::Clear, store_.retired().timeStamp(), std::move(info));
    if (!made) {
        MORVA_TRACE(Always) << "Failed to create directory" << path.join(QLatin1Char('/'));
        return {};
    }
    return element;
}

bool Directories::setParent(ActiveHandle& directory, FileId parent) {
    MORVA_METHOD("setParent");
    WriterScope writer(writer_);
    if (!directory.fileNode() || !store_.settle())
        return false;
    // Pages name ids of this one directory, so that deduplication would never find their like.
    if (!directory.fileNode()->exists(dataStreamName) &&
        !directory.createStream(LinkId{1}, dataStreamName, false))
        return false;
    OpenDirectories::Pointer const open = open_.get(directory.id(), "setParent");
    if (!open)
        return false;
    if (open->pages() == 0) {
        DirectoryPage::makeParent(open->newPage(), parent);
        return scope.result(writePage(*open));
    }
    std::uint8_t* const page = open->readPage(0);
    PageContext const context{"setParent", directory.id(), 0, open->pages(), {}};
    if (!page) {
        DirectoryPage::traceFailedRead(context);
        return false;
    }
    DirectoryEntry entry(page);
    if (!entry.valid(DirectoryPage::size) || entry.nameLength() != 0) {
        DirectoryPage::traceInvalid(context, page, 0);
        return false;
    }
    if (entry.fileId() == parent)
        return true;
    DirKey key({}, QString(), directoryType);
    key.fileId(parent);
    entry.fill(key, {});
    return scope.result(writePage(*open));
}

bool Directories::findName(DirKey& key) {
    MORVA_TRACE(Debug) << "IN:findName (Active)";
    ActiveHandle::Pointer const handle = store_.activeHandles().get(key.directoryId());
    if (!handle || !handle->fileNode() || !handle->fileNode()->isDirectory()) {
        MORVA_TRACE(Normal) << "Failed to get handle" << Morva::hex << key.directoryId();
        return false;
    }
    DirectoryScan scan(*handle->fileNode(), key.directoryId(), "findName");
    while (scan.nextName()) {
        DirectoryEntry const entry = scan.entry();
        if (!sameEntryName(entry.name(), key.name()))
            continue;
        key.fileId(entry.fileId());
        key.linkId(entry.link());
        key.type(entry.type());
        key.position(scan.position());
        MORVA_TRACE(Debug) << "Found";
        key.dump();
        return true;
    }
    return false;
}

bool Directories::sameEntryName(QStringView entry, QString const& wanted) const {
    if (sameName(entry, wanted, store_.caseSensitivity()))
        return true;
    // Lower case of a whole string and comparison by character differ for a few letters.
    return !store_.caseSensitive() && entry.toString().toLower() == wanted;
}

bool Directories::dirscan(std::uint32_t& count, Morva::PagedList& list, FileNode& node,
                          FileId directory) {
    MORVA_METHOD("dirscan");
    if (!node.isDirectory()) {
        MORVA_TRACE(Always) << "Not a directory" << Morva::hex << directory;
        return false;
    }
    DirectoryScan scan(node, directory, "dirscan");
    while (scan.nextName()) {
        if (!DirscanRecord::write(list, scan.entry()))
            return false;
        ++count;
    }
    return scope.result(!scan.failed());
}

bool Directories::matches(DirKey const& key, DirectoryEntry const& entry,
                          std::uint64_t position) const {
    return key.fileId() == entry.fileId() && key.type() == entry.type() &&
           key.link() == entry.link() && key.position() == position;
}

bool Directories::validDirectory(FileNode& node, FileId directory) {
    MORVA_METHOD("validDirectory");
    if (!node.isDirectory()) {
        MORVA_TRACE(Always) << "Not a directory" << Morva::hex << directory;
        return false;
    }
    DirectoryScan scan(node, directory, "validDirectory");
    std::uint64_t entries = 0;
    std::uint64_t used = 0;
    bool valid = true;
    while (scan.next()) {
        ++entries;
        DirectoryEntry const entry = scan.entry();
        if (!entry.free())
            ++used;
        if (!entry.inUse())
            continue;
        DirKey key = this->key(directory, entry.name().toString());
        bool const found = find(key);
        if (found && matches(key, entry, scan.position()))
            continue;
        valid = false;
        std::uint32_t const offset = DirectoryPage::offsetOf(scan.position());
        if (!found)
            MORVA_TRACE(Always) << "Entry at offset" << offset << "in page" << scan.page() << "of"
                                << scan.pages() << "in directory" << Morva::hex << directory
                                << "not in tree" << entry.name().toString() << "Entry file id"
                                << entry.fileId() << Morva::dec << "Entry link id" << entry.link()
                                << "Entry type" << entry.typeWord();
        else
            MORVA_TRACE(Always) << "Entry at offset" << offset << "in page" << scan.page() << "of"
                                << scan.pages() << "in directory" << Morva::hex << directory
                                << "mismatch with tree" << entry.name().toString()
                                << "Entry file id" << entry.fileId() << Morva::dec
                                << "Entry link id" << entry.link() << "Entry type"
                                << entry.typeWord() << "Entry position" << scan.position()
                                << "Key file id" << Morva::hex << key.fileId() << Morva::dec
                                << "Key link id" << key.link() << "Key type" << key.typeWord()
                                << "Key position" << key.position();
    }
    valid = valid && !scan.failed();
    if (valid)
        MORVA_TRACE(Verbose) << "validDirectory" << entries << "entries"
                             << "Used" << used;
    return scope.result(valid);
}

std::uint64_t Directories::cacheHits() const {
    TracedLock guard(lock_);
    return tree_.cache() ? tree_.cache()->hits() : 0;
}

std::uint64_t Directories::cacheMisses() const {
    TracedLock guard(lock_);
    return tree_.cache() ? tree_.cache()->misses() : 0;
}

std::uint32_t Directories::cacheSize() const {
    TracedLock guard(lock_);
    return tree_.cache() ? static_cast<std::uint32_t>(tree_.cache()->size()) : 0;
}

std::uint64_t Directories::keyCount() const {
    TracedLock guard(lock_);
    return tree_ ? tree_.keyCount() : 0;
}

bool Directories::forEachKey(
    std::function<bool(Morva::Extent const& stored)> const& callback) const {
    TracedLock guard(lock_);
    return tree_.forEach(callback).ok();
}

bool Directories::verify(QStringList& faults) const {
    TracedLock guard(lock_);
    return tree_.verify(faults);
}

} // namespace Replication
