#include "peers/check/SnapshotCheck.h"

#include "base/files/BufferedFile.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/store/SnapshotRequests.h"
#include "replication/repository/streams/DedupFile.h"

#include <algorithm>

namespace Morva {

using Replication::DedupFile;
using Replication::DedupState;
using Replication::DirectoryEntry;
using Replication::FileId;
using Replication::Instance;
using Replication::SnapshotEntry;
using Replication::SnapshotFile;
using Replication::SnapshotType;
using Replication::StreamId;

namespace {

constexpr std::uint64_t oldHeader = 512, header = 4096;

} // namespace

void SnapshotCheck::fault(FaultKind kind, Instance snapshot, QString const& text) {
    store_.fault(kind, QStringLiteral("snapshot %1 %2").arg(snapshot.value).arg(text));
}

void SnapshotCheck::run() {
    store_.claims.assign(store_.pointers.size(), 0);
    met_.assign(store_.pointers.size(), 0);
    load();
    for (File const& file : snapshots_)
        readEntries(*file);
    checkClaims();
    std::uint32_t mark = 0;
    for (File const& file : snapshots_)
        if (!file->retire())
            walk(*file, ++mark);
    checkDedupFiles();
    checkRequests();
    store_.report.figures.snapshots += snapshots_.size();
}

// --- files and headers

void SnapshotCheck::load() {
    QString const path = store_.path + "/snapshot";
    auto& files = FileSystem::inForce();
    auto const names = files.names(path, FileSystem::Kind::File);
    if (!names)
        return store_.fault(FaultKind::Unreadable, names.status().text());
    for (QString const& name : *names) {
        Instance const instance = SnapshotFile::fromFileName(name);
        if (!instance)
            continue;
        auto file = std::make_shared<SnapshotFile>(path, instance, SnapshotFile::ReadOnly{});
        if (!file->instance()) {
            fault(FaultKind::Snapshot, instance,
                  QStringLiteral("has no sound header: %1").arg(file->status().text()));
            continue;
        }
        auto const found = files.stat(path + "/" + name);
        if (!found || !*found) {
            fault(FaultKind::Unreadable, instance, QStringLiteral("can't be looked at"));
            continue;
        }
        checkHeader(*file, (*found)->length);
        snapshots_.push_back(std::move(file));
    }
    if (snapshots_.empty() || snapshots_.back()->instance() != store_.instance)
        store_.fault(FaultKind::Snapshot, QStringLiteral("the file of the active snapshot %1 is "
                                                         "missing")
                                              .arg(store_.instance.value));
}

void SnapshotCheck::checkHeader(SnapshotFile const& file, std::uint64_t bytes) {
    Instance const instance = file.instance();
    auto const tell = [&](QString const& text) { fault(FaultKind::Snapshot, instance, text); };
    if (instance > store_.instance)
        tell(QStringLiteral("is of no instance that the store has reached"));
    bool const old = file.type() == SnapshotType::Old;
    if (file.type() > SnapshotType::Validate)
        tell(QStringLiteral("has type %1").arg(static_cast<std::uint32_t>(file.type())));
    if (file.version() > 1)
        tell(QStringLiteral("has version %1").arg(file.version()));
    if (file.dedupState() > DedupState::Deduplicated)
        tell(QStringLiteral("has dedup state %1")
                 .arg(static_cast<std::uint32_t>(file.dedupState())));
    if (file.previousInstance() >= instance)
        tell(QStringLiteral("names %1 as the one before it").arg(file.previousInstance().value));
    std::uint64_t const first = file.deleteOffset();
    // A retirement that has begun moves it forward.
    std::uint64_t const usual = old ? oldHeader : header;
    bool const moved =
        file.retire() && first > usual && (first - usual) % SnapshotEntry::packedSize == 0;
    if (first != header && !(old && first == oldHeader) && !moved)
        tell(QStringLiteral("has its first entry at %1").arg(first));
    if (bytes < first)
        tell(QStringLiteral("ends at %1, before its entries").arg(bytes));
    else if ((bytes - first) % SnapshotEntry::packedSize != 0)
        store_.report.note(QStringLiteral("%1: the list of snapshot %2 ends with a torn entry")
                               .arg(store_.where())
                               .arg(instance.value));
    if (file.retired() && !file.retire())
        tell(QStringLiteral("is retired, but nobody asked for it"));
    if (file.dedupOffset() % DedupFile::entrySize != 0)
        tell(QStringLiteral("goes on in its dedup list at %1").arg(file.dedupOffset()));
}

// --- entries

void SnapshotCheck::readEntries(SnapshotFile& file) {
    if (!file.openForRead()) {
        fault(FaultKind::Unreadable, file.instance(), QStringLiteral("can't be read"));
        return;
    }
    auto entry = file.readEntry();
    for (; entry && *entry; entry = file.readEntry())
        claim(file, **entry);
    if (!entry)
        fault(FaultKind::Unreadable, file.instance(),
              QStringLiteral("can't be read to the end of its entries: %1")
                  .arg(entry.status().text()));
    file.close();
}

/// The newest snapshot with a number up to this one, but for those that hand on what they have.
Instance SnapshotCheck::newestUpTo(Instance instance) const {
    auto above =
        std::upper_bound(snapshots_.begin(), snapshots_.end(), instance,
                         [](Instance value, File const& file) { return value < file->instance(); });
    while (above != snapshots_.begin() && (*(above - 1))->handedOn().to)
        --above;
    return above == snapshots_.begin() ? Instance{} : (*(above - 1))->instance();
}

void SnapshotCheck::claim(SnapshotFile const& file, SnapshotEntry const& entry) {
    Instance const snapshot = file.instance();
    auto const tell = [&](QString const& text) {
        // A retirement that was cut short has freed versions whose entries are still there.
        if (!file.retire())
            fault(FaultKind::SnapshotEntry, snapshot,
                  QStringLiteral("has an entry of file %1, instance %2, %3")
                      .arg(entry.id.value)
                      .arg(entry.instance.value)
                      .arg(text));
    };
    PointerTable::Entry const* version = store_.pointers.head(entry.id);
    Instance newer; // when the version ended; 0 for the last one of a deleted file
    while (version && version->instance > entry.instance) {
        newer = version->instance;
        version = store_.pointers.older(*version);
    }
    if (!version || version->instance != entry.instance)
        return tell(QStringLiteral("which doesn't exist"));
    auto const number = static_cast<std::uint64_t>(version - &store_.pointers.at(0));
    if (store_.claims[number] < 0xFF)
        ++store_.claims[number];
    if (store_.claims[number] == 2)
        tell(QStringLiteral("which has another entry"));
    if (entry.instance >= snapshot)
        tell(QStringLiteral("which it can't have seen"));
    else if (newer && newestUpTo(newer) != snapshot)
        tell(QStringLiteral("which belongs to snapshot %1").arg(newestUpTo(newer).value));
}

/// What is no live file's current version is kept for a snapshot, which has an entry for it.
void SnapshotCheck::checkClaims() {
    std::uint64_t const root = PointerTable::number(PointerTable::rootId());
    for (std::uint64_t number = root; number < store_.pointers.size(); ++number) {
        PointerTable::Entry const& entry = store_.pointers.at(number);
        if (!entry.node)
            continue;
        bool const live = !entry.next && (store_.names[number] != 0 || number == root);
        bool const claimed = store_.claims[number] != 0;
        if (live && claimed)
            store_.fault(FaultKind::SnapshotEntry,
                         QStringLiteral("the current version of file %1 is in the list of a "
                                        "snapshot")
                             .arg(store_.pointers.id(number).value));
        else if (!live && !claimed)
            store_.fault(FaultKind::Orphan,
                         QStringLiteral("%1 %2 (instance %3, node %4) is kept for nothing")
                             .arg(entry.next ? QStringLiteral("the older version")
                                             : QStringLiteral("the deleted file"))
                             .arg(store_.pointers.id(number).value)
                             .arg(entry.instance.value)
                             .arg(entry.node.value));
    }
}

// --- trees

void SnapshotCheck::walk(SnapshotFile const& file, std::uint32_t mark) {
    struct Work {
        FileId directory;
        FileId parent;
        PointerTable::Entry const* version;
    };
    Instance const snapshot = file.instance();
    FileId const root = PointerTable::rootId();
    std::vector<Work> work;
    // The first snapshot is of the time before there was a root.
    if (PointerTable::Entry const* const version = store_.pointers.before(root, snapshot))
        work.push_back({root, root, version});
    else if (snapshot != Instance{1})
        fault(FaultKind::Snapshot, snapshot, QStringLiteral("has no root"));
    while (!work.empty()) {
        Work const here = work.back();
        work.pop_back();
        NodeState const* const node = store_.node(here.version->node);
        if (!node)
            continue; // told of with the pointer file
        store_.readDirectory(
            here.version->node, here.directory, here.parent,
            [&](DirectoryEntry entry, std::uint64_t position) {
                if (entry.liveOnly())
                    return;
                auto const tell = [&](char const* text) {
                    fault(FaultKind::Snapshot, snapshot,
                          QStringLiteral("has an entry at %1 of directory %2 that %3")
                              .arg(position)
                              .arg(here.directory.value)
                              .arg(QLatin1String(text)));
                };
                auto const* const version = store_.pointers.before(entry.fileId(), snapshot);
                NodeState const* const child = version ? store_.node(version->node) : nullptr;
                if (!version || !child)
                    return tell("names a file which it has no version of");
                if (child->type != entry.type())
                    return tell("tells another type than the node");
                if (!entry.isDirectory())
                    return;
                std::uint32_t& met = met_[PointerTable::number(entry.fileId())];
                if (met == mark)
                    return tell("names a directory that has another name");
                met = mark;
                work.push_back({entry.fileId(), here.directory, version});
            });
    }
}

// --- lists of streams

void SnapshotCheck::checkDedupFiles() {
    QString const path = store_.path + "/snapshot";
    auto const names = FileSystem::inForce().names(path, FileSystem::Kind::File);
    if (!names)
        return store_.fault(FaultKind::Unreadable, names.status().text());
    for (QString const& name : *names) {
        if (!name.startsWith(QLatin1String("dedup")))
            continue;
        auto const digits = QStringLiteral("snapshot") + name.mid(5);
        if (SnapshotFile::fromFileName(digits) > store_.instance)
            store_.fault(
                FaultKind::DedupFile,
                QStringLiteral("%1 is of no instance that the store has reached").arg(name));
        BufferedFile file(DedupFile::bufferSize);
        if (!file.open(path + "/" + name)) {
            store_.fault(FaultKind::Unreadable, QStringLiteral("%1 can't be opened").arg(name));
            continue;
        }
        std::uint64_t bytes = 0;
        std::array<std::uint8_t, DedupFile::entrySize> entry;
        Result<std::uint32_t> got = 0U;
        while ((got = file.read(entry.data(), entry.size())) && *got == entry.size()) {
            StreamId const id{loadLittle<std::uint64_t>(entry.data())};
            // The stream may have gone since, or never have reached the disk.
            if (id.value <= Blocks::firstBlock())
                store_.fault(FaultKind::DedupFile, QStringLiteral("entry %1 of %2 can't be a "
                                                                  "stream: %3")
                                                       .arg(bytes / entry.size())
                                                       .arg(name)
                                                       .arg(id.value));
            bytes += entry.size();
        }
        if (!got)
            store_.fault(FaultKind::Unreadable, got.status().text());
        else if (*got != 0)
            store_.report.note(
                QStringLiteral("%1: %2 ends with a torn entry").arg(store_.where(), name));
    }
}

// --- what background work has still to do

void SnapshotCheck::checkRequests() {
    Replication::SnapshotRequests requests;
    Status const read = requests.read(store_.path + "/snapshot");
    // Without a sound file the next opening makes one from the headers.
    if (!read && !read.is(Status::Code::NotFound))
        store_.fault(FaultKind::Snapshot, read.text());
    for (auto const& [key, reason] : requests.all())
        if (!reason.isEmpty())
            store_.report.note(QStringLiteral("%1: the background work on snapshot %2 has failed "
                                              "and is tried again: %3")
                                   .arg(store_.where())
                                   .arg(key.instance.value)
                                   .arg(reason));
}

} // namespace Morva
