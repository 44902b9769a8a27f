#pragma once

#include <QHashFunctions>

#include <compare>
#include <cstdint>
#include <functional>

namespace Morva {

/// An integer that can't be mistaken for another kind of integer. 0 means none and tests false.
template <class Tag, class Rep> struct StrongId {
    using Value = Rep;
    Rep value = 0;

    constexpr StrongId() = default;
    constexpr explicit StrongId(Rep number) : value(number) {}
    constexpr explicit operator bool() const { return value != 0; }
    constexpr auto operator<=>(StrongId const&) const = default;
};

template <class Tag, class Rep> size_t qHash(StrongId<Tag, Rep> id, size_t seed = 0) {
    return ::qHash(id.value, seed);
}

} // namespace Morva

template <class Tag, class Rep> struct std::hash<Morva::StrongId<Tag, Rep>> {
    std::size_t operator()(Morva::StrongId<Tag, Rep> id) const noexcept {
        return std::hash<Rep>{}(id.value);
    }
};
