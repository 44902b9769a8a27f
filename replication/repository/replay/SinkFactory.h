#pragma once

#include "replication/common/rules/SourceKind.h"
#include "replication/repository/replay/Sink.h"

#include <memory>

namespace Replication {

/// The sink that replays logs of that kind of source; to be started by the caller. The store's
/// names must compare as the kind's do (`caseSensitive`).
[[nodiscard]] std::unique_ptr<Sink> makeSink(SourceKind kind, DataSink::Identity identity,
                                             ReplayId replayId, StorePointer store,
                                             std::shared_ptr<Streams> streams);

} // namespace Replication
