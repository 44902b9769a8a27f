#pragma once

#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

namespace Morva::Model {

/// A number that the environment sets, or another.
[[nodiscard]] inline std::uint64_t fromEnvironment(char const* name, std::uint64_t otherwise) {
    auto const* text = std::getenv(name);
    return text ? std::strtoull(text, nullptr, 0) : otherwise;
}

/// Two seeds that stay, so that a machine sees the same each time, and one that is new each time;
/// MORVA_SEED alone if it is set.
[[nodiscard]] inline std::vector<std::uint64_t> seeds() {
    if (std::getenv("MORVA_SEED"))
        return {fromEnvironment("MORVA_SEED", 0)};
    return {1, 2, std::random_device{}()};
}

} // namespace Morva::Model
