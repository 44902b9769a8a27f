#pragma once

#include "base/messages/MachineName.h"

#include <QList>

namespace Morva {

/// The ordered list of machines through which a message passes; the last one is its destination.
class MsgRoute {
public:
    MsgRoute() = default;
    explicit MsgRoute(MachineName const& machine) { append(machine); }
    /// Reads what `toXml` wrote, that is every "Name" in the list: machine names, or their text.
    explicit MsgRoute(XmlList const& list);

    void append(MachineName const& machine) { machines_.append(machine); }
    /// The way back from the last machine of this route to `machine`, where the route began: the
    /// machines between in reverse, then `machine`, with `id` if it has no id of its own.
    [[nodiscard]] MsgRoute returnRoute(MachineName const& machine, std::uint32_t id = 0) const;

    [[nodiscard]] QList<MachineName> const& machines() const { return machines_; }
    /// The last machine; an empty name for an empty route.
    [[nodiscard]] MachineName destination() const;
    [[nodiscard]] bool empty() const { return machines_.isEmpty(); }
    [[nodiscard]] XmlList toXml() const;

    [[nodiscard]] bool operator==(MsgRoute const&) const = default;

private:
    QList<MachineName> machines_;
};

[[nodiscard]] size_t qHash(MsgRoute const& route, size_t seed = 0);
TraceLine& operator<<(TraceLine& line, MsgRoute const& route);

} // namespace Morva
