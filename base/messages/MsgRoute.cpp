#include "base/messages/MsgRoute.h"

#include "base/messages/XmlList.h"
#include "base/trace/Trace.h"

#include <QHash>

namespace Morva {

namespace {
QString const nameKey = QStringLiteral("Name");
} // namespace

MsgRoute::MsgRoute(XmlList const& list) {
    for (XmlListIterator entry(list, nameKey); entry; ++entry) {
        bool isMachine = false;
        auto const machine = entry.getMachine(&isMachine);
        append(isMachine ? machine : MachineName(entry.getString()));
    }
}

MsgRoute MsgRoute::returnRoute(MachineName const& machine, std::uint32_t id) const {
    MsgRoute back;
    for (qsizetype i = machines_.size() - 2; i >= 0; --i)
        back.append(machines_[i]);
    back.append(machine.id() ? machine : MachineName(machine.name(), id));
    return back;
}

MachineName MsgRoute::destination() const {
    return machines_.isEmpty() ? MachineName() : machines_.last();
}

XmlList MsgRoute::toXml() const {
    XmlList list;
    for (auto const& machine : machines_)
        list.set(nameKey, machine, XmlList::SetTypeE::Add);
    return list;
}

size_t qHash(MsgRoute const& route, size_t seed) {
    return qHashRange(route.machines().begin(), route.machines().end(), seed);
}

TraceLine& operator<<(TraceLine& line, MsgRoute const& route) {
    for (auto const& machine : route.machines())
        line << machine;
    return line;
}

} // namespace Morva
