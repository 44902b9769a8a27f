#pragma once

#include "peers/check/LiveTreeCheck.h"
#include "peers/check/PoolCheck.h"
#include "peers/check/StoreState.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/NodeBlock.h"
#include "replication/repository/store/NodeInfo.h"

#include <QSet>
#include <QString>

#include <vector>

namespace Morva {

/// Checks one store, and counts at the pool what its nodes refer to.
class StoreCheck {
public:
    StoreCheck(Replication::StoreId id, QString const& directory, PoolCheck& pool)
        : store_(id, directory, pool), files_(cacheBlocks) {}
    void run();

private:
    static constexpr std::uint32_t cacheBlocks = 16;

    [[nodiscard]] bool checkControl();
    void findOwners();
    void findKept();
    void scanNodes();
    void checkNode(std::uint64_t number, std::uint8_t const* bytes);
    void checkClaims(std::uint64_t number, Replication::NodeBlock const& node);
    void readRecord(std::uint64_t number, Replication::NodeBlock const& node);
    void checkRecord(std::uint64_t number, Replication::NodeInfo const& info);
    void lost(std::uint64_t first, std::uint64_t end);

    StoreState store_;
    BlockFile files_;
    LiveTreeCheck::Counters counters_;
    bool going_ = false; // marked for deletion: parts can be gone
    /// Nodes that open files of a source hold, which the saved state names.
    QSet<Replication::NodeNumber> kept_;
    std::vector<std::uint8_t> record_;
};

} // namespace Morva
