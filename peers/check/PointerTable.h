#pragma once

#include "peers/check/CheckReport.h"
#include "replication/common/values/Ids.h"

#include <QString>

#include <cstdint>
#include <vector>

namespace Morva {

/// A store's pointer file in memory: every entry by its number. For one thread.
class PointerTable {
public:
    struct Entry {
        std::uint32_t generation = 0;
        Replication::Instance instance;
        Replication::NodeNumber node; ///< 0: the entry is free
        Replication::FileId previous;
        Replication::FileId next;
    };

    /// Reads the file and checks its free list and its chains. False when it doesn't open.
    [[nodiscard]] bool load(QString const& path, QString const& where,
                            Replication::Instance current, CheckReport& report);

    [[nodiscard]] static std::uint32_t number(Replication::FileId id) {
        return static_cast<std::uint32_t>(id.value);
    }
    [[nodiscard]] static Replication::FileId rootId();
    /// Entries by number; those below the root's are never used.
    [[nodiscard]] std::uint64_t size() const { return entries_.size(); }
    [[nodiscard]] Entry const& at(std::uint64_t number) const { return entries_[number]; }
    [[nodiscard]] Replication::FileId id(std::uint64_t number) const;
    /// The used entry of an id that isn't stale; null if there is none.
    [[nodiscard]] Entry const* used(Replication::FileId id) const;
    /// As `used`, for the head of a chain, which alone can be named from outside.
    [[nodiscard]] Entry const* head(Replication::FileId id) const;
    /// The next older version in a sound chain, or null.
    [[nodiscard]] Entry const* older(Entry const& entry) const;
    /// The newest version of an id that was entered before an instance, or null.
    [[nodiscard]] Entry const* before(Replication::FileId id, Replication::Instance instance) const;

private:
    void fault(std::uint64_t number, QString const& text) const;
    void checkFreeList(Replication::FileId head);
    void checkChains(Replication::Instance current) const;
    void checkLinks(std::uint64_t number) const;

    std::vector<Entry> entries_;
    QString where_;
    CheckReport* report_ = nullptr;
};

} // namespace Morva
