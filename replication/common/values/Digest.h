#pragma once

#include <array>
#include <cstdint>

namespace Replication {

/// The digest of a stream's content, as it travels between the parts of the system.
///
///  off  size  field
///    0     4  type    0 none, 1 SHA-1
///    4    32  value   SHA-1 fills the first 20 bytes, the rest is zero
struct Digest {
    enum Type : std::uint32_t { eRepDigestInvalid = 0, eRepDigestSha1 = 1 };
    static constexpr std::uint32_t packedSize = 36;
    static constexpr std::uint32_t sha1Size = 20;

    std::uint32_t type = eRepDigestInvalid;
    std::array<std::uint8_t, 32> value{};

    bool operator==(Digest const&) const = default;
};
static_assert(sizeof(Digest) == Digest::packedSize);

} // namespace Replication
