#pragma once

#include "base/messages/MsgRoute.h"

namespace Morva {

/// The address of one endpoint: the route to its machine, its name and its id text. An address
/// with neither name nor id is not set. Without a route it is on this machine.
class MsgAddress {
public:
    /// The endpoints that every hub has; their numbers are their ids and stay below 10.
    enum class WellKnownE : std::uint32_t {
        Hub = 1,
        NodeManager = 2,
        MetadataStore = 3,
        Logging = 4
    };

    MsgAddress() = default;
    MsgAddress(QString name, QString id);
    MsgAddress(MachineName const& machine, QString name, QString id);
    MsgAddress(MsgRoute route, QString name, QString id);
    explicit MsgAddress(WellKnownE endpoint);
    /// Reads what `toXml` wrote; not set if that isn't there.
    explicit MsgAddress(XmlList const& list);

    /// The machine of the endpoint, which is the last of the route.
    [[nodiscard]] MachineName machine() const { return route_.destination(); }
    [[nodiscard]] MsgRoute const& route() const { return route_; }
    [[nodiscard]] QString const& name() const { return name_; }
    /// The id as a number; 0 for an id text that isn't a decimal number.
    [[nodiscard]] std::uint32_t id() const;
    [[nodiscard]] QString const& idText() const { return id_; }
    [[nodiscard]] explicit operator bool() const { return !name_.isEmpty() || !id_.isEmpty(); }
    void clear() { *this = MsgAddress(); }
    [[nodiscard]] XmlList toXml() const;

    [[nodiscard]] bool operator==(MsgAddress const&) const = default;

private:
    MsgRoute route_;
    QString name_;
    QString id_;
};

[[nodiscard]] size_t qHash(MsgAddress const& address, size_t seed = 0);
TraceLine& operator<<(TraceLine& line, MsgAddress const& address);

} // namespace Morva
