#pragma once

#include "base/trace/TracedLock.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/SnapshotFile.h"

#include <QString>

#include <functional>
#include <memory>
#include <vector>

namespace Morva {
class XmlList;
}

namespace Replication {

class Store;
struct DedupStatistics;

/// The snapshots of a store, oldest first; the last is the active one, which collects the
/// versions that end during the current instance.
///
/// Thread-safe under `snapshotLock`; the active snapshot is changed by the live tree's writer
/// alone. On store 0 every operation does nothing and reports success.
class SnapshotList {
public:
    explicit SnapshotList(Store& store);

    /// A new store: the snapshot file of instance 1, of type Initial.
    [[nodiscard]] bool create(QString const& snapshotPath);
    /// Reads the snapshot directory; true when the active snapshot was found.
    [[nodiscard]] bool load(QString const& snapshotPath, bool upgraded);
    void close();

    [[nodiscard]] bool snapshot(std::uint32_t sourceTime, bool needResync, std::uint32_t policy,
                                std::uint32_t opId, std::uint32_t ruleSet, QString const& machine,
                                QString const& label);
    [[nodiscard]] bool userSnapshot(std::uint32_t opId, std::uint32_t time, QString const& label);
    [[nodiscard]] bool resyncSnapshot(std::uint32_t time, QString const& label);
    Instance validateSnapshot();
    bool updateSnapshot(Instance instance, std::uint32_t policy, std::uint32_t opId,
                        std::uint32_t ruleSet, std::uint32_t time, QString const& label);
    bool deleteSnapshot(Instance instance);
    void deleteValidateSnapshot();
    [[nodiscard]] bool markSnapshot(QString& reason, Instance instance);
    /// Frees what only this snapshot held and removes its file. Run by background work.
    bool retireSnapshot(Instance instance);
    bool snapshotAnalyzed(Instance instance, std::uint64_t logicalSize, std::uint64_t directories,
                          std::uint64_t files);
    [[nodiscard]] bool isSnapshotAnalyzed(std::uint64_t& logicalSize, std::uint64_t& directories,
                                          std::uint64_t& files, Instance instance) const;
    [[nodiscard]] bool retireRequested(Instance instance) const;
    /// Deduplicates the streams made before the snapshot; false when stopped before the end.
    bool dedupSnapshot(std::function<void()> const& checkForFreeze, Instance instance,
                       Morva::Extent& buffer);

    /// Enters (id, instance) in the active snapshot: that version has ended.
    void addEntry(FileId id, Instance instance);
    /// A new stream, to be deduplicated after the next snapshot.
    void addToDedup(StreamId id);

    [[nodiscard]] std::shared_ptr<SnapshotFile> find(Instance instance) const;
    [[nodiscard]] std::shared_ptr<SnapshotFile> active() const;
    /// A copy of the list, the active one last.
    [[nodiscard]] std::vector<std::shared_ptr<SnapshotFile>> all() const;
    void statistics(Morva::XmlList& result) const;

private:
    struct Private;
    std::unique_ptr<Private> p_;

public:
    ~SnapshotList();
};

} // namespace Replication
