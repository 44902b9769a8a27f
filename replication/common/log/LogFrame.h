#pragma once

#include <cstdint>
#include <string_view>

namespace Replication {

/// A variable value of a decoded log: it points into the log's serialised bytes. The terminating
/// zero of a string is not counted.
struct LogView {
    std::uint8_t const* data = nullptr;
    std::uint32_t size = 0;

    [[nodiscard]] std::string_view text() const {
        return {reinterpret_cast<char const*>(data), size};
    }
};

/// A decoded log, the first 240 bytes of a log's memory. Behind it lies a copy of the rule ids,
/// and behind that the serialised body. In memory only: nothing of it is stored or sent.
///
/// The body's values stand in the order of their type's marshalling (LogMarshalling.h), each kind
/// in its own row.
struct LogFrame {
    static constexpr std::uint32_t numbersCount = 11;
    static constexpr std::uint32_t widesCount = 2;
    static constexpr std::uint32_t viewsCount = 8;

    std::uint32_t type = 0;
    std::uint32_t flags = 0;
    std::uint64_t sequenceNumber = 0;
    std::uint32_t time = 0;
    std::uint32_t ruleSet = 0;
    std::uint64_t shc = 0;
    std::uint32_t ruleCount = 0;
    std::uint32_t numbers[numbersCount] = {};
    std::uint64_t wides[widesCount] = {};
    LogView process;
    LogView views[viewsCount];
};
static_assert(sizeof(LogFrame) == 240);

} // namespace Replication
