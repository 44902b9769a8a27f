#pragma once

#include "base/trace/TracedLock.h"
#include "replication/common/values/Ids.h"

#include <QString>
#include <QStringView>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

namespace Replication {

class FileNode;

/// Compares a name of a page with one that is looked for, in a store's case setting.
[[nodiscard]] bool sameName(QStringView entry, QStringView wanted, Qt::CaseSensitivity sensitivity);
/// A hash that is equal for names that `QStringView::compare` finds equal. Not stored anywhere.
[[nodiscard]] std::uint32_t nameHash(QStringView name, Qt::CaseSensitivity sensitivity);

/// Where the names of one directory's version stand: the pages that hold a name of a hash.
class NameTable {
public:
    void add(std::uint32_t hash, std::uint64_t page) {
        slots_.push_back({hash, static_cast<std::uint32_t>(page)});
    }
    /// To be called once, after the last `add`.
    void sort();
    /// The pages that can hold the name, ascending, each once.
    [[nodiscard]] std::vector<std::uint64_t> pagesOf(std::uint32_t hash) const;
    [[nodiscard]] std::size_t size() const { return slots_.size(); }

private:
    struct Slot {
        std::uint32_t hash;
        std::uint32_t page;
        auto operator<=>(Slot const&) const = default;
    };
    std::vector<Slot> slots_;
};

/// The name tables of directory versions looked into last, bounded by the number of names.
///
/// A version is told by file id, node and the node's instance: a node number can come back for
/// another version once a snapshot has gone, but not with the same file id and instance.
///
/// Thread-safe, under a leaf lock.
class SnapshotNames {
public:
    struct Id {
        FileId directory;
        NodeNumber node;
        Instance instance;
        bool operator==(Id const&) const = default;
    };
    using Table = std::shared_ptr<NameTable const>;
    /// Names held at most, 8 bytes each; one table of any size is always held.
    static constexpr std::size_t limit = 4U << 20;
    static constexpr std::size_t tableLimit = 64;

    /// Null when there is none.
    [[nodiscard]] Table find(Id const& id);
    void insert(Id const& id, Table table);
    void clear();

private:
    struct Item {
        Id id;
        Table table;
    };

    Morva::TracedMutex lock_{{"Lock Snapshot Names", "Unlock Snapshot Names"}};
    std::list<Item> items_ MORVA_GUARDED_BY(lock_); // the one used last in front
    std::size_t names_ MORVA_GUARDED_BY(lock_) = 0;
};

} // namespace Replication
