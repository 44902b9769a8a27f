#include "replication/repository/replay/SinkFactory.h"

#include "replication/repository/replay/RepositoryExchange.h"
#include "replication/repository/replay/RepositoryPosix.h"
#include "replication/repository/replay/RepositoryWindows.h"

#include <type_traits>

namespace Replication {

std::unique_ptr<Sink> makeSink(SourceKind kind, DataSink::Identity identity, ReplayId replayId,
                               StorePointer store, std::shared_ptr<Streams> streams) {
    auto const make = [&]<class Kind>(std::type_identity<Kind>) -> std::unique_ptr<Sink> {
        return std::make_unique<Kind>(std::move(identity), replayId, std::move(store),
                                      std::move(streams));
    };
    switch (kind) {
    case SourceKind::Windows:
        return make(std::type_identity<RepositoryWindows>{});
    case SourceKind::Exchange:
        return make(std::type_identity<RepositoryExchange>{});
    case SourceKind::Posix:
        break;
    }
    return make(std::type_identity<RepositoryPosix>{});
}

} // namespace Replication
