#include "replication/repository/streams/ThreadFiles.h"

namespace Replication {

ThreadFiles& ThreadFiles::own() {
    thread_local ThreadFiles files;
    return files;
}

Morva::RawFile* ThreadFiles::add(Identity const& pool, std::unique_ptr<Morva::RawFile> file) {
    std::erase_if(slots_, [](Slot const& slot) { return slot.life.expired(); });
    slots_.push_back(Slot{pool.get(), pool, std::move(file)});
    return slots_.back().file.get();
}

void ThreadFiles::remove(Identity const& pool) {
    std::erase_if(slots_, [&pool](Slot const& slot) { return slot.name == pool.get(); });
}

} // namespace Replication
