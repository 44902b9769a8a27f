#include "replication/common/rules/RuleItems.h"

#include "base/trace/Trace.h"

namespace Replication {

using Morva::MachineName;
using Morva::XmlList;
using Morva::XmlListIterator;

bool RuleMachine::read(XmlList const& list) {
    bool found = false;
    machine = MachineName(list.getString(nullptr, QStringLiteral("Name")));
    if (!machine) {
        MORVA_TRACE(Always) << "No or invalid machine name supplied";
        return false;
    }
    osType = list.getString(&found, QStringLiteral("OsType"));
    if (!found) {
        MORVA_TRACE(Always) << "No machine name supplied";
        return false;
    }
    MORVA_TRACE(Verbose) << "Stream uses node" << machine << "OS type" << osType;
    return true;
}

bool readRuleRoute(XmlList const& list, Morva::MsgRoute& route) {
    bool fine = true;
    for (XmlListIterator item(list); item; ++item) {
        if (item.name() != QLatin1String("Name")) {
            MORVA_TRACE(Normal) << "Ignore unexpected route item" << item.name();
            continue;
        }
        if (item.type() != XmlList::ValueTypeE::String) {
            MORVA_TRACE(Always) << "Unexpected/invalid node item type" << item.type()
                                << ", expected string";
            fine = false;
            continue;
        }
        auto const name = item.getString();
        if (name.isEmpty()) {
            MORVA_TRACE(Always) << "No or invalid route machine name supplied";
            fine = false;
            continue;
        }
        route.append(MachineName(name));
    }
    return fine && !route.empty();
}

} // namespace Replication
