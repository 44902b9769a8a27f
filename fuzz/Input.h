#pragma once

#include "base/trace/Trace.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace Morva::Fuzzing {

/// Decoders tell of damage in the trace, and what they say there is read from the damage: so the
/// trace is on.
inline bool const traced = (Trace::install(QStringLiteral("/dev/null")), true);

/// A fact that holds for every input; its breach ends the target as a crash does.
inline void require(bool fact, char const* what) {
    if (fact)
        return;
    std::fprintf(stderr, "broken: %s\n", what);
    std::abort();
}

/// Takes small values off the front of an input; behind its end all are 0.
class Input {
public:
    Input(std::uint8_t const* data, std::size_t size) : data_(data), size_(size) {}

    [[nodiscard]] std::uint8_t byte() {
        if (size_ == 0)
            return 0;
        --size_;
        return *data_++;
    }
    [[nodiscard]] std::uint32_t word() {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i)
            value |= std::uint32_t{byte()} << (8 * i);
        return value;
    }
    [[nodiscard]] std::uint8_t const* data() const { return data_; }
    [[nodiscard]] std::size_t size() const { return size_; }

private:
    std::uint8_t const* data_;
    std::size_t size_;
};

} // namespace Morva::Fuzzing
