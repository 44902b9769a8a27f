#include "replication/common/rules/SourceKind.h"

#include "replication/common/rules/DisRules.h"
#include "replication/common/rules/ReplayStream.h"

namespace Replication {

SourceKind sourceKind(ReplayStream const& stream) {
    if (stream.filterType() == eFilterExchange)
        return SourceKind::Exchange;
    return stream.osType().startsWith(QLatin1String("Win")) ? SourceKind::Windows
                                                            : SourceKind::Posix;
}

std::optional<SourceKind> sourceKind(DisRules const& rules, std::uint32_t replayId) {
    auto const stream = rules.valid() ? rules.replayStream(replayId) : nullptr;
    if (!stream)
        return std::nullopt;
    return sourceKind(*stream);
}

} // namespace Replication
