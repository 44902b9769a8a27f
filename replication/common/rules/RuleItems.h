#pragma once

#include "base/messages/MsgRoute.h"
#include "base/messages/XmlList.h"

namespace Replication {

/// A machine as rule items describe it: "Name" and "OsType", both strings and both required.
struct RuleMachine {
    Morva::MachineName machine;
    QString osType;

    /// False, with a trace, if one of the two is missing or the name is empty.
    [[nodiscard]] bool read(Morva::XmlList const& list);
};

/// Reads the "Name" strings of a route item. False, with traces, if one isn't a string or is
/// empty, or there is none.
[[nodiscard]] bool readRuleRoute(Morva::XmlList const& list, Morva::MsgRoute& route);

} // namespace Replication
