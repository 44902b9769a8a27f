#pragma once

#include "base/values/Extent.h"

#include <string>

namespace Replication {

/// The string forms of Windows security values, as the published grammar has them ([MS-DTYP]
/// 2.4.2.1 "SID String Format", 2.5.1.1 "SDDL Syntax"). Nothing outside the given range is read.

/// "S-1-5-32-544". Empty for an empty range, "invalid SID" for a damaged one.
[[nodiscard]] std::string sidText(Morva::Extent const& sid);

/// "O:BAG:SYD:PAI(A;OICI;FA;;;WD)S:(ML;;NW;;;LW)" of a self-relative descriptor. Well-known SIDs
/// are abbreviated, but not those relative to a domain, as the abbreviation would lose which
/// domain. An entry's conditional expression or resource attribute is shown as its bytes in
/// hexadecimal behind '#'. Empty for an empty range, "invalid security descriptor" for a damaged
/// one.
[[nodiscard]] std::string securityDescriptorText(Morva::Extent const& descriptor);

} // namespace Replication
