#pragma once

#include "peers/check/Checker.h"

namespace Morva {

/// Reads all pages of all files that a journal guards, those of "data.blocks" only with `readData`,
/// and all checksums. Each page that doesn't fit its sum, and each file that doesn't open, is a
/// fault of the report with its name. Nobody may change the files meanwhile.
void checkPages(Journal& journal, CheckOptions const& options, CheckReport& report);

} // namespace Morva
