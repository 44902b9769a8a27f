#include "replication/repository/store/SinkHandle.h"

#include "base/trace/Trace.h"
#include "replication/repository/streams/StreamHandle.h"

namespace Replication {

void SinkHandle::print() const {
    char const* const kind = type == Valid ? "Valid" : type == Excluded ? "Excluded" : "Unknown";
    MORVA_TRACE(Verbose) << "Handle" << kind << "Writes" << id << "FileId"
                         << (activeHandle ? activeHandle->id() : FileId{}) << "Link" << link
                         << "StreamId" << (streamHandle ? streamHandle->id() : StreamId{}) << "Path"
                         << parent.join(QLatin1Char('/')) << name << stream << "Flags" << flags;
}

} // namespace Replication
