// The streams in which a POSIX object keeps its security and its extended attributes.

#include "fuzz/Input.h"
#include "replication/common/values/PosixObject.h"

using Morva::Extent;
using Morva::Fuzzing::require;
using Replication::PosixAttributes;
using Replication::PosixSecurity;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Extent const record(data, static_cast<std::uint32_t>(size));
    if (auto const security = PosixSecurity::decode(record)) {
        auto const again = security->encode();
        require(PosixSecurity::decode(Extent(again)) == security, "security comes back");
    }
    if (auto const attributes = PosixAttributes::decode(record)) {
        auto const again = attributes->encode();
        auto const second = PosixAttributes::decode(Extent(again));
        require(second && second->all() == attributes->all(), "attributes come back");
    }
    return 0;
}
