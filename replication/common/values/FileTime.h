#pragma once

#include "base/values/Extent.h"

#include <compare>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

struct stat;

namespace Replication {

/// A time of a POSIX file: seconds since 1970, which may be negative, and the nanoseconds behind
/// them. A node keeps a time as a word of 32 bits, clamped; what the word can't hold stands in the
/// object's "Security" record.
struct FileTime {
    static constexpr std::uint32_t nanosecondsPerSecond = 1'000'000'000;
    /// Nanoseconds of a time that isn't known.
    static constexpr std::uint32_t unknown = 0xFFFFFFFF;
    static constexpr std::uint32_t packedSize = 12;

    std::int64_t seconds = 0;
    std::uint32_t nanoseconds = unknown;

    [[nodiscard]] static constexpr FileTime wholeSeconds(std::int64_t seconds) {
        return {seconds, 0};
    }
    [[nodiscard]] static constexpr FileTime of(timespec const& time) {
        return {time.tv_sec, static_cast<std::uint32_t>(time.tv_nsec)};
    }

    [[nodiscard]] constexpr bool known() const { return nanoseconds < nanosecondsPerSecond; }
    /// The 32-bit word of this time: the nearest second that fits, 0 for what lies before 1970.
    [[nodiscard]] constexpr std::uint32_t word() const {
        constexpr std::int64_t most = 0xFFFFFFFF;
        return static_cast<std::uint32_t>(seconds < 0 ? 0 : seconds > most ? most : seconds);
    }
    /// Whether this is what `word` stands for: known, and it has that word.
    [[nodiscard]] constexpr bool counts(std::uint32_t word) const {
        return known() && this->word() == word;
    }
    /// This time as long as it counts for the word, else the word's whole seconds.
    [[nodiscard]] constexpr FileTime resolved(std::uint32_t word) const {
        return counts(word) ? *this : wholeSeconds(word);
    }
    /// Of a known time.
    [[nodiscard]] constexpr timespec system() const {
        return {seconds, static_cast<long>(nanoseconds)};
    }
    /// Seconds and nanoseconds as one decimal number, "-0.250000000"; "unknown".
    [[nodiscard]] std::string text() const;

    constexpr auto operator<=>(FileTime const&) const = default;
};

/// The exact times of one object, in logs and in its "Security" record:
///
///  off  size  field
///    0     8  access seconds          signed, since 1970
///    8     4  access nanoseconds      beyond 999,999,999: not known
///   12    12  modification, likewise
///   24    12  change, likewise
struct FileTimes {
    static constexpr std::uint32_t packedSize = 3 * FileTime::packedSize;

    FileTime access;
    FileTime modification;
    FileTime change;

    /// Those of an object on a disk.
    [[nodiscard]] static FileTimes of(struct stat const& status);
    /// Whether any of them is known.
    [[nodiscard]] bool known() const {
        return access.known() || modification.known() || change.known();
    }
    /// Writes `packedSize` bytes.
    void pack(void* destination) const;
    /// Nothing when there are too few bytes.
    [[nodiscard]] static std::optional<FileTimes> unpack(Morva::Extent const& bytes);

    bool operator==(FileTimes const&) const = default;
};

} // namespace Replication
