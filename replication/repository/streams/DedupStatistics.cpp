#include "replication/repository/streams/DedupStatistics.h"

#include "base/trace/Trace.h"

namespace Replication {

DedupStatistics& DedupStatistics::operator+=(DedupStatistics const& other) {
    streams += other.streams;
    uniqueStreams += other.uniqueStreams;
    dedupedSize += other.dedupedSize;
    uniqueSize += other.uniqueSize;
    return *this;
}

void DedupStatistics::trace() const {
    MORVA_TRACE(Normal) << "Deduped    " << streams;
    MORVA_TRACE(Normal) << "Unique     " << uniqueStreams;
    MORVA_TRACE(Normal) << "DedupedSize" << dedupedSize;
    MORVA_TRACE(Normal) << "UniqueSize " << uniqueSize;
}

} // namespace Replication
