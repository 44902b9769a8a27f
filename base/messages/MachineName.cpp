#include "base/messages/MachineName.h"

#include "base/messages/XmlList.h"
#include "base/trace/Log.h"
#include "base/trace/Trace.h"

#include <QHash>

namespace Morva {

MachineName::MachineName(XmlList const& list)
    : name_(list.getString(nullptr, QStringLiteral("Name"))),
      id_(list.getUint32(nullptr, QStringLiteral("Id"))) {}

XmlList MachineName::toXml() const {
    XmlList list;
    list.set(QStringLiteral("Name"), name_);
    list.set(QStringLiteral("Id"), id_);
    return list;
}

size_t qHash(MachineName const& machine, size_t seed) {
    return qHashMulti(seed, machine.name(), machine.id());
}

TraceLine& operator<<(TraceLine& line, MachineName const& machine) {
    line << machine.name();
    if (machine.id())
        line << pack << ":" << machine.id() << pack;
    return line;
}

Log& operator<<(Log& log, MachineName const& machine) {
    return log << machine.name();
}

} // namespace Morva
