#pragma once

#include "base/blocks/Failures.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <iterator>
#include <utility>

namespace Replication {

/// What operations on the live tree began and could not end, since the disk failed. An operation
/// that has passed the point of no return hands its last steps to `finish`; a step that fails stays
/// here and is done again before anything else changes the tree, and at each flush.
///
/// A step is a call without arguments whose result is bool: true when there is nothing left to do.
/// After false it is called again, later, in the state it is in then; it must go on from where it
/// stopped. It may hand on further steps. For the one writer of the live tree.
class Unfinished {
public:
    /// Does a step now, behind those that wait.
    template <class Step> void finish(Step&& step) {
        if (steps_.empty()) {
            Morva::Failures::Pardon const pardon;
            if (step())
                return;
        }
        steps_.emplace_back(std::forward<Step>(step));
    }
    /// Does all that is left, in its order; false when a step failed again. True within a step.
    [[nodiscard]] bool settle() {
        if (settling_ || steps_.empty()) [[likely]]
            return true;
        settling_ = true;
        bool done = true;
        while (done && !steps_.empty()) {
            std::function<bool()> step = std::move(steps_.front());
            steps_.pop_front();
            auto rest = std::exchange(steps_, {});
            done = step();
            // What the step has handed on comes before it, if it has to be done again.
            if (!done)
                steps_.push_back(std::move(step));
            std::ranges::move(rest, std::back_inserter(steps_));
        }
        settling_ = false;
        return done;
    }
    /// Forgets what is left; whether there was something.
    bool clear() { return !std::exchange(steps_, {}).empty(); }

private:
    std::deque<std::function<bool()>> steps_;
    bool settling_ = false;
};

} // namespace Replication
