// The text forms of SIDs and security descriptors, read from an exact piece of memory.

#include "fuzz/Input.h"
#include "replication/common/log/SecurityText.h"

#include <cstring>
#include <memory>

using Morva::Extent;
using Morva::Fuzzing::require;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    auto const bytes = std::make_unique<std::uint8_t[]>(size);
    if (size != 0)
        std::memcpy(bytes.get(), data, size);
    Extent const range(static_cast<void const*>(bytes.get()), static_cast<std::uint32_t>(size));
    auto const sid = Replication::sidText(range);
    auto const descriptor = Replication::securityDescriptorText(range);
    require(sid.empty() == (size == 0), "only nothing has no text");
    // Every entry of a list takes bytes of its own, and its text a bounded number for each.
    require(descriptor.size() <= 256 + 64 * size * 4, "a text is in proportion");
    return 0;
}
