#include "replication/repository/store/SnapshotDirectories.h"

#include "base/messages/XmlList.h"
#include "base/trace/Trace.h"
#include "base/trees/PagedList.h"
#include "replication/repository/store/SnapshotNames.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <QStringList>

#include <array>
#include <unordered_set>

namespace Replication {

using Morva::Extent;
using Morva::PagedList;
using Morva::Result;
using Morva::Status;
using Answer = DirectoryStatus;

namespace {

/// Below this a scan is cheaper than building a table.
constexpr std::uint64_t smallDirectoryPages = 4;

DirectoryItem itemOf(DirectoryEntry const& entry) {
    return {entry.fileId(), entry.link(), entry.type(), entry.liveOnly()};
}

Status notDirectory(FileId directory) {
    return Status::failure(Status::Code::InvalidArgument, "scan",
                           QStringLiteral("directory %1").arg(directory.value),
                           QStringLiteral("it is no directory"));
}

LinkId linkOr1(LinkId link) {
    return link ? link : LinkId{1};
}

} // namespace

SnapshotDirectories::SnapshotDirectories(Store& store)
    : store_(store), names_(std::make_unique<SnapshotNames>()) {}

SnapshotDirectories::~SnapshotDirectories() = default;

void SnapshotDirectories::forget() {
    names_->clear();
}

Result<FileId> SnapshotDirectories::findName(FileId directory, Instance instance,
                                             QString const& name) {
    MORVA_TRY_LET(auto const item, findItem(directory, instance, name));
    return item ? item->fileId : FileId{};
}

Result<std::optional<DirectoryItem>>
SnapshotDirectories::findItem(FileId directory, Instance instance, QString const& name) {
    MORVA_METHOD("findName");
    std::optional<DirectoryItem> const none;
    if (!instance || instance > store_.currentInstance())
        return none;
    MORVA_TRY_LET(FileNode::Pointer const node, store_.passiveHandle(directory, instance));
    if (!node) {
        MORVA_TRACE(Normal) << "Failed to get handle" << Morva::hex << directory;
        return none;
    }
    return findItem(*node, directory, instance, name);
}

Result<std::optional<DirectoryItem>> SnapshotDirectories::findItem(FileNode& node, FileId directory,
                                                                   Instance instance,
                                                                   QString const& name) {
    std::optional<DirectoryItem> found;
    if (!node.isDirectory()) {
        MORVA_TRACE(Normal) << "Not a directory" << Morva::hex << directory;
        return found;
    }
    Qt::CaseSensitivity const sensitivity = store_.caseSensitivity();
    // Success with nothing found at the end of the scan.
    auto const search = [&](DirectoryScan& scan) {
        while (scan.nextName())
            if (sameName(scan.entry().name(), name, sensitivity)) {
                found = itemOf(scan.entry());
                break;
            }
        return scan.status();
    };
    DirectoryScan scan(node, directory, "Snapshot findName", instance);
    // A node of the current instance, and a live-only one at any time, changes in place.
    bool const frozen = node.instance() < store_.currentInstance() && !node.liveOnly();
    if (scan.pages() <= smallDirectoryPages || !frozen) {
        MORVA_TRY(search(scan));
    } else {
        SnapshotNames::Id const id{directory, node.id(), node.instance()};
        SnapshotNames::Table table = names_->find(id);
        if (!table) {
            auto built = std::make_shared<NameTable>();
            while (scan.nextName())
                built->add(nameHash(scan.entry().name(), sensitivity), scan.page());
            MORVA_TRY(Status(scan.status()));
            built->sort();
            table = built;
            names_->insert(id, table);
        }
        for (std::uint64_t const page : table->pagesOf(nameHash(name, sensitivity))) {
            DirectoryScan one(node, directory, "Snapshot findName", instance, page, 1);
            MORVA_TRY(search(one));
            if (found)
                break;
        }
    }
    if (!found)
        MORVA_TRACE(Verbose) << "Failed to find" << name;
    return found;
}

Status SnapshotDirectories::dirscan(std::uint32_t& count, PagedList& list, FileNode& node,
                                    FileId directory, Instance instance) {
    MORVA_METHOD("Snapshot dirscan");
    if (!node.isDirectory()) {
        MORVA_TRACE(Always) << "Not a directory" << Morva::hex << directory;
        return notDirectory(directory);
    }
    DirectoryScan scan(node, directory, "Snapshot dirscan", instance);
    while (scan.nextName()) {
        MORVA_TRY(DirscanRecord::write(list, scan.entry()));
        ++count;
    }
    return scan.status();
}

Status SnapshotDirectories::validDirectory(FileNode& node, FileId directory, Instance instance) {
    MORVA_METHOD("Snapshot validDirectory");
    if (!node.isDirectory()) {
        MORVA_TRACE(Always) << "Not a directory" << Morva::hex << directory;
        return notDirectory(directory);
    }
    DirectoryScan scan(node, directory, "Snapshot validDirectory", instance);
    std::uint64_t entries = 0;
    std::uint64_t used = 0;
    while (scan.next()) {
        ++entries;
        if (!scan.entry().free())
            ++used;
    }
    if (!scan.failed())
        MORVA_TRACE(Verbose) << "Snapshot validDirectory" << entries << "entries"
                             << "Used" << used;
    return scan.status();
}

std::uint32_t SnapshotDirectories::objectName(QString& name, FileId& parent, FileId& object,
                                              LinkId& link, Instance instance) {
    auto const opened = store_.passiveHandle(parent, instance);
    if (!opened)
        return Answer::serverFault;
    FileNode::Pointer const node = *opened;
    if (!node) {
        MORVA_TRACE(Normal) << "Failed to get handle" << Morva::hex << parent;
        return Answer::stale;
    }
    if (!node->isDirectory()) {
        MORVA_TRACE(Normal) << "Not a directory" << Morva::hex << parent;
        return Answer::stale;
    }
    FileId nextParent;
    LinkId nextLink{1};
    DirectoryScan scan(*node, parent, "Snapshot objectName", instance);
    while (scan.next()) {
        DirectoryEntry const entry = scan.entry();
        if (entry.free())
            continue;
        if (entry.nameLength() == 0) {
            nextParent = entry.fileId();
            nextLink = entry.link();
        } else if (entry.fileId() == object && entry.link() == linkOr1(link)) {
            name = entry.name().toString();
            object = parent;
            parent = nextParent;
            link = nextLink;
            return Answer::ok;
        }
    }
    if (scan.failed())
        return Answer::serverFault;
    MORVA_TRACE(Normal) << "Failed to find" << Morva::hex << object << "in" << parent;
    return Answer::stale;
}

bool SnapshotDirectories::fits(FileHandle const& snapshot, FileHandle const& object) const {
    return snapshot.kind == FileHandle::Snapshot && object.kind == FileHandle::FileIdOnly &&
           snapshot.store == store_.id() && object.store == store_.id() && snapshot.instance &&
           snapshot.instance <= store_.currentInstance();
}

std::uint32_t SnapshotDirectories::objectName(QString& name, FileHandle const& object,
                                              FileHandle const& directory,
                                              FileHandle const& snapshot) {
    MORVA_METHOD("objectName");
    if (!fits(snapshot, object) || !fits(snapshot, directory)) {
        MORVA_TRACE(Always) << "Bad arguments";
        return Answer::badArguments;
    }
    FileId parent = directory.fileId();
    FileId id = object.fileId();
    LinkId link = object.link;
    return scope.result(objectName(name, parent, id, link, snapshot.instance));
}

std::uint32_t SnapshotDirectories::directoryPath(QString& path, FileHandle const& snapshot,
                                                 FileHandle const& object) {
    MORVA_METHOD("directoryPath");
    if (!fits(snapshot, object)) {
        MORVA_TRACE(Always) << "Bad arguments";
        return Answer::badArguments;
    }
    path.clear();
    FileId id = object.fileId();
    if (id == store_.rootId())
        return Answer::ok;
    auto const opened = store_.passiveHandle(id, snapshot.instance);
    if (!opened)
        return Answer::serverFault;
    FileNode::Pointer const node = *opened;
    if (!node) {
        MORVA_TRACE(Normal) << "No longer exists" << Morva::hex << id;
        return Answer::stale;
    }
    if (!node->isDirectory()) {
        MORVA_TRACE(Normal) << "Not a directory" << Morva::hex << id;
        return Answer::stale;
    }
    if (!node->exists(dataStreamName)) {
        MORVA_TRACE(Normal) << "No data steam" << Morva::hex << id;
        return Answer::stale;
    }
    auto const above = parentOf(*node);
    if (!above)
        return Answer::serverFault;
    FileId parent = *above;
    if (!parent)
        return Answer::stale;
    MORVA_TRACE(Debug) << "First parent" << Morva::hex << parent;
    QStringList names;
    LinkId link{1};
    std::unordered_set<FileId> seen;
    while (id != store_.rootId()) {
        // Damage could have made a loop of the tree.
        if (!seen.insert(id).second) {
            MORVA_TRACE(Always) << "Directory is its own parent" << Morva::hex << id;
            return Answer::stale;
        }
        QString name;
        std::uint32_t const status = objectName(name, parent, id, link, snapshot.instance);
        if (status != Answer::ok)
            return scope.result(status);
        names.prepend(name);
    }
    path = names.join(QLatin1Char('/'));
    return Answer::ok;
}

} // namespace Replication
