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
using Morva::Result;
using Morva::Status;
using Morva::TracedLock;

namespace {

constexpr std::uint32_t treePageSize = 4096;

} // namespace

Directories::Directories(Store& store, std::uint32_t cachePages)
    : store_(store), tree_(cachePages), open_(store) {}

Directories::~Directories() = default;

Status Directories::create(QString const& path) {
    TracedLock guard(lock_);
    return tree_.create(path, treePageSize);
}

Status Directories::open(QString const& path) {
    TracedLock guard(lock_);
    return tree_.open(path);
}

Status Directories::flush() {
    TracedLock guard(lock_);
    return tree_.flush();
}

Status Directories::close() {
    forget();
    TracedLock guard(lock_);
    return tree_.close();
}

DirKey Directories::key(FileId directory, QString const& name, std::uint32_t type) const {
    return {directory, normal(name), type};
}

QString Directories::normal(QString const& name) const {
    return store_.caseSensitive() ? name : name.toLower();
}

Result<bool> Directories::find(DirKey& key) {
    TracedLock guard(lock_);
    return tree_.find(key);
}

Status Directories::treeInsert(DirKey& key) {
    TracedLock guard(lock_);
    return tree_.insert(key);
}

Status Directories::treeRemove(DirKey const& key) {
    TracedLock guard(lock_);
    return tree_.remove(key);
}

Status Directories::treeUpdate(DirKey const& key) {
    TracedLock guard(lock_);
    return tree_.update(key);
}

Status Directories::misfit(char const* operation, QString const& name, char const* reason) {
    return Status::failure(Status::Code::InvalidArgument, operation, name,
                           QString::fromLatin1(reason));
}

Status Directories::damaged(char const* operation, QString const& name, char const* reason) {
    return Status::corruption(operation, name, QString::fromLatin1(reason));
}

// --- what the disk can refuse in the middle of a change

Status Directories::writePage(OpenDirectory& open) {
    Status status = open.writePage();
    if (!status && open.reached())
        finishImage(open.id(), open.pageNumber(), open.imageBefore());
    return status;
}

void Directories::finishPage(OpenDirectory& open) {
    Failures::Pardon const pardon;
    if (!open.writePage())
        finishImage(open.id(), open.pageNumber(), open.image());
}

void Directories::finishImage(FileId directory, std::uint64_t page,
                              OpenDirectory::Image const& image) {
    store_.unfinished().finish([this, directory, page, image]() -> Status {
        MORVA_TRY_LET(OpenDirectories::Pointer const open, open_.get(directory, "finishImage"));
        return open->writePage(page, image);
    });
}

void Directories::finishParent(FileId directory, FileId parent) {
    store_.unfinished().finish([this, directory, parent]() -> Status {
        MORVA_TRY_LET(ActiveHandle::Pointer const handle, store_.activeHandles().open(directory));
        return setParent(*handle, parent);
    });
}

void Directories::finishInsert(NotToBackup::OpType opType, DirKey const& key, QString const& name) {
    store_.unfinished().finish([this, opType, key = DirKey(key), name]() mutable -> Status {
        MORVA_TRY_LET(ActiveHandle::Pointer const parent,
                      store_.activeHandles().open(key.directoryId()));
        return insert(opType, *parent, key, name);
    });
}

Status Directories::takeEntryBack(DirKey const& key) {
    MORVA_TRY_LET(OpenDirectories::Pointer const open, open_.get(key.directoryId(), "insert"));
    MORVA_TRY_LET(std::uint8_t* const page, open->readPage(DirectoryPage::pageOf(key.position())));
    std::uint32_t const offset = DirectoryPage::offsetOf(key.position());
    DirectoryEntry const entry(page + offset);
    if (entry.valid(DirectoryPage::size - offset) && entry.fileId() == key.fileId() &&
        sameEntryName(entry.name(), key.name()) && DirectoryPage::removeEntry(page, offset))
        finishPage(*open);
    return {};
}

Status Directories::finishKey(Status (Directories::*change)(DirKey const&), DirKey const& key) {
    {
        Failures::Pardon const pardon;
        Status status = (this->*change)(key);
        if (status)
            return status;
        if (status.is(Status::Code::NotFound))
            return damaged("change", key.name(), "the directory tree has no such key");
    }
    store_.unfinished().finish([this, change, key]() -> Status {
        Status status = (this->*change)(key);
        return status.is(Status::Code::NotFound) ? Status() : std::move(status);
    });
    return {};
}

void Directories::count(DirKey const& key, bool added) {
    if (!key.liveOnly())
        store_.control().countName(key.type(), added);
}

Result<Directories::Located> Directories::locate(QStringList const& path, PathMode mode) {
    MORVA_METHOD("locate");
    Located result;
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
        Result<bool> const found = find(next);
        if (!found.ok()) {
            MORVA_TRACE(Always) << "Failed to look for" << next.name();
            return found.status();
        }
        if (*found) {
            MORVA_TRACE(Debug) << "Found" << next.name() << Morva::hex << next.fileId();
        } else if (last) {
            MORVA_TRACE(Debug) << "Directory exists, but not file" << path[i];
            result.parentFound = true;
            return result;
        } else if (mode == PathMode::BuildPath) {
            MORVA_TRY_LET(next, buildElement(current, path.first(i + 1)));
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

Result<DirKey> Directories::buildElement(DirKey const& parent, QStringList const& path) {
    DirKey element = key(parent.fileId(), path.last(), directoryType);
    NodeInfo info(store_.caseSensitivity());
    info.placeHolder = true;
    auto const made = store_.activeHandles().create(element, path, LiveMode::Clear,
                                                    store_.retired().timeStamp(), std::move(info));
    if (!made) {
        MORVA_TRACE(Always) << "Failed to create directory" << path.join(QLatin1Char('/'));
        return made.status();
    }
    return element;
}

Status Directories::setParent(ActiveHandle& directory, FileId parent) {
    MORVA_METHOD("setParent");
    WriterScope writer(writer_);
    if (!directory.fileNode())
        return misfit("set parent", QString(), "the directory has no node");
    MORVA_TRY(store_.settle());
    // Pages name ids of this one directory, so that deduplication would never find their like.
    if (!directory.fileNode()->exists(dataStreamName))
        MORVA_TRY(directory.createStream(LinkId{1}, dataStreamName, false));
    MORVA_TRY_LET(OpenDirectories::Pointer const open, open_.get(directory.id(), "setParent"));
    if (open->pages() == 0) {
        DirectoryPage::makeParent(open->newPage(), parent);
        return writePage(*open);
    }
    Result<std::uint8_t*> const page = open->readPage(0);
    PageContext const context{"setParent", directory.id(), 0, open->pages(), {}};
    if (!page) {
        DirectoryPage::traceFailedRead(context);
        return page.status();
    }
    DirectoryEntry entry(*page);
    if (!entry.valid(DirectoryPage::size) || entry.nameLength() != 0) {
        DirectoryPage::traceInvalid(context, *page, 0);
        return damaged("set parent", QStringLiteral("directory %1").arg(directory.id().value),
                       "invalid parent entry");
    }
    if (entry.fileId() == parent)
        return {};
    DirKey key({}, QString(), directoryType);
    key.fileId(parent);
    entry.fill(key, {});
    return writePage(*open);
}

Result<bool> Directories::findName(DirKey& key) {
    MORVA_TRACE(Debug) << "IN:findName (Active)";
    MORVA_TRY_LET(ActiveHandle::Pointer const handle,
                  store_.activeHandles().get(key.directoryId()));
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
    MORVA_TRY(Status(scan.status()));
    return false;
}

bool Directories::sameEntryName(QStringView entry, QString const& wanted) const {
    if (sameName(entry, wanted, store_.caseSensitivity()))
        return true;
    // Lower case of a whole string and comparison by character differ for a few letters.
    return !store_.caseSensitive() && entry.toString().toLower() == wanted;
}

Status Directories::dirscan(std::uint32_t& count, Morva::PagedList& list, FileNode& node,
                            FileId directory) {
    MORVA_METHOD("dirscan");
    if (!node.isDirectory()) {
        MORVA_TRACE(Always) << "Not a directory" << Morva::hex << directory;
        return misfit("scan", QStringLiteral("directory %1").arg(directory.value),
                      "it is no directory");
    }
    DirectoryScan scan(node, directory, "dirscan");
    while (scan.nextName()) {
        MORVA_TRY(DirscanRecord::write(list, scan.entry()));
        ++count;
    }
    return scan.status();
}

bool Directories::matches(DirKey const& key, DirectoryEntry const& entry,
                          std::uint64_t position) const {
    return key.fileId() == entry.fileId() && key.type() == entry.type() &&
           key.link() == entry.link() && key.position() == position;
}

Status Directories::validDirectory(FileNode& node, FileId directory) {
    MORVA_METHOD("validDirectory");
    if (!node.isDirectory()) {
        MORVA_TRACE(Always) << "Not a directory" << Morva::hex << directory;
        return misfit("check", QStringLiteral("directory %1").arg(directory.value),
                      "it is no directory");
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
        MORVA_TRY_LET(bool const found, find(key));
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
    MORVA_TRY(Status(scan.status()));
    if (!valid)
        return damaged("check", QStringLiteral("directory %1").arg(directory.value),
                       "its entries don't match the tree");
    MORVA_TRACE(Verbose) << "validDirectory" << entries << "entries"
                         << "Used" << used;
    return {};
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

Status
Directories::forEachKey(std::function<bool(Morva::Extent const& stored)> const& callback) const {
    TracedLock guard(lock_);
    return tree_.forEach(callback);
}

bool Directories::verify(QStringList& faults) const {
    TracedLock guard(lock_);
    return tree_.verify(faults);
}

} // namespace Replication
