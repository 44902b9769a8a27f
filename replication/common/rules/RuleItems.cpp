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

bool readRuleTexts(XmlList const& list, char const* key, char const* ignored, char const* empty,
                   std::function<bool(QString const&)> const& take) {
    bool fine = true;
    for (XmlListIterator item(list); item; ++item) {
        if (item.name() != QLatin1String(key)) {
            MORVA_TRACE(Normal) << ignored << item.name();
            continue;
        }
        if (item.type() != XmlList::ValueTypeE::String) {
            MORVA_TRACE(Always) << "Unexpected/invalid node item type" << item.type()
                                << ", expected string";
            fine = false;
            continue;
        }
        auto const text = item.getString();
        if (text.isEmpty())
            MORVA_TRACE(Always) << empty;
        fine = !text.isEmpty() && take(text) && fine;
    }
    return fine;
}

bool readRuleRoute(XmlList const& list, Morva::MsgRoute& route) {
    auto const fine =
        readRuleTexts(list, "Name", "Ignore unexpected route item",
                      "No or invalid route machine name supplied", [&route](QString const& name) {
                          route.append(MachineName(name));
                          return true;
                      });
    return fine && !route.empty();
}

} // namespace Replication
