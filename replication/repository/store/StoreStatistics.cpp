// The three reports on a store.

#include "base/process/Context.h"
#include "base/trace/Trace.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/NodeFile.h"
#include "replication/repository/store/NodePointer.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StatisticsRow.h"

namespace Replication {

using Morva::XmlList;

namespace {

struct CacheFigures {
    std::uint64_t hits = 0;
    std::uint64_t misses = 0;
    std::uint32_t size = 0;
};

void setCache(XmlList& list, char const* prefix, CacheFigures const& cache) {
    QString const name = QLatin1String(prefix);
    list.set(name + QLatin1String("Hits"), cache.hits);
    list.set(name + QLatin1String("Misses"), cache.misses);
    list.set(name + QLatin1String("Size"), cache.size);
}

void addRow(QString& html, char const* label, std::uint64_t value) {
    html += statisticsRow(QLatin1String(label), QString::number(value));
}

void addRow(QString& html, char const* label, bool value) {
    html += statisticsRow(QLatin1String(label),
                          value ? QStringLiteral("true") : QStringLiteral("false"));
}

void addCacheRows(QString& html, char const* cache, CacheFigures const& figures) {
    QString const name = QLatin1String(cache);
    addRow(html, qPrintable(name + QLatin1String(" Hits")), figures.hits);
    addRow(html, qPrintable(name + QLatin1String(" Misses")), figures.misses);
    addRow(html, qPrintable(name + QLatin1String(" Size")), std::uint64_t{figures.size});
}

} // namespace

struct Store::Figures {
    std::uint64_t directories = 0;
    std::uint64_t files = 0;
    std::uint64_t dirtyFiles = 0;
    std::uint32_t openFiles = 0;
    std::uint64_t totalData = 0; ///< bytes, as the next
    std::uint64_t usedData = 0;
    CacheFigures directoryCache, nodeCache, pointerCache;
};

Store::Figures Store::figures() const {
    Figures result;
    ControlFields::Counters const counters = control_->counters();
    result.directories = counters[0];
    result.files = counters[1];
    result.dirtyFiles = counters[2];
    NodeFileFigures files;
    result.openFiles = static_cast<std::uint32_t>(passive_->size(files));
    result.totalData = files.blocks * NodeFile::blockSize;
    result.usedData = (files.blocks - files.freeBlocks) * NodeFile::blockSize;
    result.nodeCache = {files.hits, files.misses, files.cacheSize};
    result.directoryCache = {directories_->cacheHits(), directories_->cacheMisses(),
                             directories_->cacheSize()};
    if (pointers_->valid())
        result.pointerCache = {pointers_->hits(), pointers_->misses(), pointers_->size()};
    return result;
}

void Store::statistics(QString& html) const {
    MORVA_METHOD("statistics (Html)");
    html = QStringLiteral("<TABLE>");
    if (open_) {
        addRow(html, "StoreId", id_.value);
        if (markedForDeletion() && !valid_) {
            addRow(html, "Waiting for Deletion", true);
        } else {
            Figures const figures = this->figures();
            addRow(html, "Active", active());
            addRow(html, "Marked for Deletion", markedForDeletion());
            addRow(html, "Directories", figures.directories);
            addRow(html, "Files", figures.files);
            addRow(html, "Dirty Files", figures.dirtyFiles);
            addRow(html, "Open Files", std::uint64_t{figures.openFiles});
            addCacheRows(html, "Directory Cache", figures.directoryCache);
            addRow(html, "File Node Total Data", figures.totalData);
            addRow(html, "File Node Used Data", figures.usedData);
            addCacheRows(html, "File Node Cache", figures.nodeCache);
            addCacheRows(html, "File Pointer Cache", figures.pointerCache);
            addRow(html, "Snapshots", std::uint64_t{snapshots_->all().size()});
        }
    }
    html += QStringLiteral("</Table>");
}

void Store::statistics(XmlList& result) const {
    MORVA_METHOD("statistics (Binary)");
    Figures const figures = this->figures();
    result.set("StoreId", id_.value);
    result.set("ReplayId", replayId().value);
    result.set("StoreActive", active());
    result.set("StoreMarkedForDeletion", markedForDeletion());
    // Spelled so by all that read it.
    result.set("StoreDirecoryCount", figures.directories);
    result.set("StoreFileCount", figures.files);
    result.set("StoreFileDirtyCount", figures.dirtyFiles);
    result.set("StoreFileTotalData", figures.totalData);
    result.set("StoreFileUsedData", figures.usedData);
    result.set("StoreFileOpenCount", figures.openFiles);
    setCache(result, "StoreDirectoryCache", figures.directoryCache);
    setCache(result, "StoreNodeCache", figures.nodeCache);
    setCache(result, "StorePointerCache", figures.pointerCache);
    setWaiting(result);
    FileHandle root = rootHandle_;
    root.kind = FileHandle::Snapshot;
    XmlList snapshots;
    snapshots_->forEach([&](SnapshotFile const& file) { file.statistics(snapshots, root); });
    result.set("SnapShotList", snapshots);
}

/// Retirements that wait and background work that failed, with its reasons; nothing where there is
/// none.
void Store::setWaiting(XmlList& result) const {
    auto const waiting = snapshots_->waiting();
    if (waiting.empty())
        return;
    result.set("StoreWaitingWork", static_cast<std::uint32_t>(waiting.size()));
    QStringList failed;
    for (auto const& [key, reason] : waiting)
        if (!reason.isEmpty())
            failed += QStringLiteral("snapshot %1: %2").arg(key.instance.value).arg(reason);
    if (!failed.isEmpty())
        result.set("StoreFailedWork", failed.join(QStringLiteral("; ")));
}

void Store::statistics(XmlList& result, QString const& machine, QString const& store,
                       std::uint32_t from, std::uint32_t to) const {
    MORVA_TRACE(Debug) << "IN:statistics (RepStat)";
    Figures const figures = this->figures();
    XmlList common;
    common.set("Destination", Morva::Context::machineName().name());
    common.set("Machine", machine);
    common.set("Store", store);
    common.set("InstanceType", type());
    common.set("StoreId", id_.value);
    common.set("ReplayId", replayId().value);
    common.set("Active", active());
    common.set("MarkedForDeletion", markedForDeletion());
    common.set("DirectoryCount", figures.directories);
    common.set("FileCount", figures.files);
    setCache(common, "DirectoryCache", figures.directoryCache);
    common.set("TotalNodeData", figures.totalData);
    common.set("UsedNodeData", figures.usedData);
    setCache(common, "NodeCache", figures.nodeCache);
    setCache(common, "PointerCache", figures.pointerCache);
    SnapshotFile::Origin origin{machine, store, type(), replayId(), rootHandle_};
    origin.root.kind = FileHandle::Snapshot;
    snapshots_->forEach([&](SnapshotFile const& file) {
        SnapshotFile::NamedLists told;
        file.statistics(told, origin, from, to);
        for (auto const& [name, figuresOfSnapshot] : told) {
            XmlList entry = common.clone();
            entry.set("Instance", file.instance().value);
            entry.set(name, figuresOfSnapshot);
            result.set(name, entry, XmlList::SetTypeE::Add);
        }
    });
    MORVA_TRACE(Debug) << "OUT:statistics (RepStats)";
}

} // namespace Replication
