#pragma once

#include "base/files/RawFile.h"

#include <memory>
#include <vector>

namespace Replication {

/// The calling thread's own handles on the data files of the pools it has read or written. They
/// close when the thread ends; those of a pool that is gone close at the thread's next miss.
class ThreadFiles {
public:
    /// Lives as long as the pool; names it among all that ever were.
    using Identity = std::shared_ptr<char>;

    [[nodiscard]] static ThreadFiles& own();

    /// Null when this thread has no handle for the pool yet.
    [[nodiscard]] Morva::RawFile* find(Identity const& pool) const {
        for (Slot const& slot : slots_) {
            if (slot.name == pool.get())
                return slot.file.get();
        }
        return nullptr;
    }
    Morva::RawFile* add(Identity const& pool, std::unique_ptr<Morva::RawFile> file);
    void remove(Identity const& pool);

private:
    struct Slot {
        char const* name;
        /// Keeps the address of `name` from being given to another pool.
        std::weak_ptr<char> life;
        std::unique_ptr<Morva::RawFile> file;
    };

    std::vector<Slot> slots_;
};

} // namespace Replication
