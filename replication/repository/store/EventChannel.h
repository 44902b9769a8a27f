#pragma once

#include "base/values/Extent.h"

namespace Replication {

/// The way by which this process gives events to the metadata store. One event goes in one
/// buffer of at most `maximumEvent` bytes. Shared by all stores; implementations are thread-safe.
class EventChannel {
public:
    static constexpr std::uint32_t maximumEvent = 32768;

    virtual ~EventChannel() = default;
    /// False when the event could not be handed over; it is lost then.
    [[nodiscard]] virtual bool send(Morva::Extent const& event) = 0;
};

} // namespace Replication
