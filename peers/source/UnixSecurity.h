#pragma once

#include <QByteArray>

#include <cstdint>

namespace Replication {

/// Windows security values that say what the owner, the group and the mode of a POSIX object say.
/// Layouts: [MS-DTYP] 2.4.2.2 "SID--Packet Representation", 2.4.6 "SECURITY_DESCRIPTOR".

/// S-1-22-1-uid, as Samba names users that Windows doesn't know.
[[nodiscard]] QByteArray unixUser(std::uint32_t uid);
/// S-1-22-2-gid.
[[nodiscard]] QByteArray unixGroup(std::uint32_t gid);

/// A self-relative descriptor: owner, group, and an access list with what owner, group and everyone
/// may do. Since Windows adds up what all entries give, what the mode withholds from owner or group
/// but gives to others is denied first.
[[nodiscard]] QByteArray unixSecurity(std::uint32_t uid, std::uint32_t gid, std::uint32_t mode);

} // namespace Replication
