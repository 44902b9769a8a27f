#pragma once

#include "base/values/Status.h"

#include <functional>

namespace Replication {

/// A point of a long work at which what was done so far can be made to stay: the work holds no lock
/// and not the operation gate, and everything open can be flushed. What it fails with ends the work
/// there; the work can be asked for again and goes on from there.
using SafePoint = std::function<Morva::Status()>;

} // namespace Replication
