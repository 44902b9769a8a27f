#pragma once

#include "base/values/Status.h"
#include "peers/morva/ExitCode.h"

namespace Morva {

/// The end of a command by a failure of what is below it: "DOING: what failed, on which file, what
/// the system said; what to do next". The one place where a failure gets its advice. `doing` says
/// what the user asked for, as "can't store log 7".
[[nodiscard]] CommandFailure commandFailure(QString const& doing, Status const& status);

/// What a user can do about a failure; empty when there is nothing to say.
[[nodiscard]] QString adviceOn(Status const& status);

} // namespace Morva
