#pragma once

#include "base/messages/MsgRoute.h"
#include "base/messages/XmlList.h"

#include <functional>

namespace Replication {

/// A machine as rule items describe it: "Name" and "OsType", both strings and both required.
struct RuleMachine {
    Morva::MachineName machine;
    QString osType;

    /// False, with a trace, if one of the two is missing or the name is empty.
    [[nodiscard]] bool read(Morva::XmlList const& list);
};

/// Hands the text of each item of the name `key` to `take`. Items of other names are passed over
/// with the trace `ignored`. False, with traces, if one isn't a string, is empty (`empty`) or isn't
/// taken; the good ones are taken all the same.
[[nodiscard]] bool readRuleTexts(Morva::XmlList const& list, char const* key, char const* ignored,
                                 char const* empty,
                                 std::function<bool(QString const&)> const& take);

/// Reads the "Name" strings of a route item. False, with traces, if one isn't a string or is
/// empty, or there is none.
[[nodiscard]] bool readRuleRoute(Morva::XmlList const& list, Morva::MsgRoute& route);

} // namespace Replication
