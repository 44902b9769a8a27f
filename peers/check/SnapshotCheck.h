#pragma once

#include "peers/check/StoreState.h"
#include "replication/repository/store/SnapshotFile.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace Morva {

/// Checks a store's snapshots: their files, their lists of ended versions against the pointer
/// chains, and that each one's tree can be walked to its last name. Needs the names counted by
/// `LiveTreeCheck`.
class SnapshotCheck {
public:
    explicit SnapshotCheck(StoreState& store) : store_(store) {}
    void run();

private:
    using File = std::shared_ptr<Replication::SnapshotFile>;

    void load();
    void checkHeader(Replication::SnapshotFile const& file, std::uint64_t bytes);
    void readEntries(Replication::SnapshotFile& file);
    void claim(Replication::SnapshotFile const& file, Replication::SnapshotEntry const& entry);
    [[nodiscard]] Replication::Instance newestUpTo(Replication::Instance instance) const;
    void checkClaims();
    void walk(Replication::SnapshotFile const& file, std::uint32_t mark);
    void checkDedupFiles();
    void checkRequests();
    void fault(FaultKind kind, Replication::Instance snapshot, QString const& text);

    StoreState& store_;
    std::vector<File> snapshots_;    // ascending
    std::vector<std::uint32_t> met_; // by pointer entry: the last walk that met the directory
};

} // namespace Morva
