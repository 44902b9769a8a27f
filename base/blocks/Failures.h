#pragma once

#include <cstdint>

namespace Morva {

/// Counts what the disk refused: pages that can't be read, space that can't be had, and whatever
/// else their users note. Each thread counts for itself, so an operation sees its own failures and
/// nobody else's, and tells by them what isn't there from what can't be read.
class Failures {
public:
    /// Failures of the calling thread since it began.
    [[nodiscard]] static std::uint64_t here() { return count(); }
    static void note() { ++count(); }

    /// Whether something failed on this thread since the object was made.
    class Watch {
    public:
        [[nodiscard]] bool any() const { return count() != before_; }

    private:
        std::uint64_t const before_ = count();
    };

    /// Takes what fails in its scope out of the count: somebody sees to it that it is done again.
    class Pardon {
    public:
        Pardon() = default;
        ~Pardon() { count() = before_; }
        Pardon(Pardon const&) = delete;
        Pardon& operator=(Pardon const&) = delete;

    private:
        std::uint64_t const before_ = count();
    };

private:
    static std::uint64_t& count() {
        static thread_local constinit std::uint64_t failures = 0;
        return failures;
    }
};

} // namespace Morva
