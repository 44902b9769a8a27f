#pragma once

#include "peers/check/CheckReport.h"
#include "peers/check/PointerTable.h"
#include "peers/check/PoolCheck.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/DirectoryPage.h"

#include <QString>

#include <array>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

namespace Morva {

/// What the check of a store knows of one node.
struct NodeState {
    enum Flag : std::uint8_t {
        IsNode = 1,
        LiveOnly = 2,
        PagesTold = 4 ///< faults of its pages are in the report
    };
    std::uint32_t owner = 0; ///< number of the pointer entry that names it
    std::uint32_t linkCount = 0;
    std::uint32_t nextLink = 0;
    Replication::Instance instance;
    std::uint16_t type = 0;
    std::uint8_t flags = 0;
};

/// What the parts of the check of one store share. For one thread.
struct StoreState {
    StoreState(Replication::StoreId storeId, QString directory, PoolCheck& thePool)
        : id(storeId), path(std::move(directory)), pool(thePool), report(thePool.report()) {}

    Replication::StoreId id;
    QString path;
    PoolCheck& pool;
    CheckReport& report;
    bool caseSensitive = true;
    Replication::Instance instance; ///< the current one

    PointerTable pointers;
    std::vector<NodeState> nodes;
    /// The stream of the pages of each directory's node.
    std::unordered_map<std::uint64_t, Replication::StreamId> pages;
    /// By pointer entry: names in the live tree, entries in lists of snapshots.
    std::vector<std::uint32_t> names;
    std::vector<std::uint8_t> claims;

    [[nodiscard]] QString where() const { return QStringLiteral("store %1").arg(id.value); }
    void fault(FaultKind kind, QString const& text) { report.fault(kind, where(), text); }
    [[nodiscard]] NodeState const* node(Replication::NodeNumber number) const {
        return number.value < nodes.size() && (nodes[number.value].flags & NodeState::IsNode) != 0
                   ? &nodes[number.value]
                   : nullptr;
    }

    /// Calls back for each entry that names something, in the pages of one version of a
    /// directory. Checks pages and parent entry; their faults are told once for each node.
    using EntryVisitor =
        std::function<void(Replication::DirectoryEntry entry, std::uint64_t position)>;
    void readDirectory(Replication::NodeNumber node, Replication::FileId directory,
                       Replication::FileId parent, EntryVisitor const& visit);
};

} // namespace Morva
