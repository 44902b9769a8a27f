#pragma once

#include <cstdint>
#include <random>

namespace Morva {

/// A number that nobody can foretell, from the system.
[[nodiscard]] inline std::uint64_t randomNumber() {
    std::random_device device;
    return std::uint64_t{device()} << 32 | device();
}

} // namespace Morva
