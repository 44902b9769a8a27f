#include "base/messages/MsgAddress.h"

#include "base/messages/XmlList.h"
#include "base/trace/Trace.h"

#include <QHash>

namespace Morva {

namespace {
QString const routeKey = QStringLiteral("Route");
QString const nameKey = QStringLiteral("Name");
QString const idKey = QStringLiteral("Id");

QString wellKnownName(MsgAddress::WellKnownE endpoint) {
    switch (endpoint) {
    case MsgAddress::WellKnownE::Hub:
        return QStringLiteral("Hub");
    case MsgAddress::WellKnownE::NodeManager:
        return QStringLiteral("NodeManager");
    case MsgAddress::WellKnownE::MetadataStore:
        return QStringLiteral("MetadataStore");
    case MsgAddress::WellKnownE::Logging:
        return QStringLiteral("Logging");
    }
    return {};
}
} // namespace

MsgAddress::MsgAddress(QString name, QString id) : name_(std::move(name)), id_(std::move(id)) {}

MsgAddress::MsgAddress(MachineName const& machine, QString name, QString id)
    : route_(machine), name_(std::move(name)), id_(std::move(id)) {}

MsgAddress::MsgAddress(MsgRoute route, QString name, QString id)
    : route_(std::move(route)), name_(std::move(name)), id_(std::move(id)) {}

MsgAddress::MsgAddress(WellKnownE endpoint)
    : name_(wellKnownName(endpoint)), id_(QString::number(static_cast<std::uint32_t>(endpoint))) {}

MsgAddress::MsgAddress(XmlList const& list)
    : route_(list.getXmlList(nullptr, routeKey)),
      name_(list.getString(nullptr, nameKey)),
      id_(list.getString(nullptr, idKey)) {}

std::uint32_t MsgAddress::id() const {
    return id_.toUInt();
}

XmlList MsgAddress::toXml() const {
    XmlList list;
    if (!route_.empty())
        list.set(routeKey, route_.toXml());
    list.set(nameKey, name_);
    list.set(idKey, id_);
    return list;
}

size_t qHash(MsgAddress const& address, size_t seed) {
    return qHashMulti(seed, address.route(), address.name(), address.idText());
}

TraceLine& operator<<(TraceLine& line, MsgAddress const& address) {
    return line << address.route() << address.name() << address.idText();
}

} // namespace Morva
