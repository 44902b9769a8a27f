#pragma once

#include "peers/check/StoreState.h"

#include <cstdint>
#include <vector>

namespace Morva {

class BPlusTree;

/// Walks a store's live tree from the root and compares it with the tree of names, both ways, and
/// with the counters of the control block. Counts the names of each id in `StoreState::names`.
class LiveTreeCheck {
public:
    struct Counters {
        std::uint64_t directories = 0;
        std::uint64_t files = 0;
    };

    explicit LiveTreeCheck(StoreState& store) : store_(store) {}
    /// `expected` are the counters of the control block.
    void run(Counters const& expected);

private:
    /// A name that a page has: a fingerprint of directory and name, one of what the page says of
    /// it, and where it stands.
    struct Name {
        std::uint64_t identity;
        std::uint64_t content;
        std::uint64_t directory;
        std::uint64_t position;
        bool keyed;
    };
    struct Work {
        Replication::FileId directory;
        Replication::FileId parent;
    };

    void walk();
    void visit(Replication::FileId directory, Replication::DirectoryEntry entry,
               std::uint64_t position);
    void note(Replication::FileId directory, Replication::DirectoryEntry entry,
              std::uint64_t position);
    void findTwins();
    void compareTree();
    void compareKey(Extent const& stored, BPlusTree const& tree);
    void compareLinks();
    void fault(FaultKind kind, Name const& name, char const* text);

    StoreState& store_;
    std::vector<Work> work_;
    std::vector<bool> met_; // directories, by pointer entry
    std::vector<Name> names_;
    Counters found_;
};

} // namespace Morva
