#pragma once

#include "base/values/Status.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <iterator>
#include <utility>

namespace Replication {

/// What operations on the live tree began and could not end, since the disk failed. An operation
/// that has passed the point of no return, or has to take back what it did, hands its last steps
/// to `finish`; a step that fails stays here and is done again before anything else changes the
/// tree, and at each flush. As long as one is left, or after `fail`, nothing of the store may be
/// committed: `settle` says why.
///
/// A step is a call without arguments whose result is a `Status`: success when there is nothing
/// left to do. After a failure it is called again, later, in the state it is in then; it must go on
/// from where it stopped. It may hand on further steps. For the one writer of the live tree.
class Unfinished {
public:
    /// Does a step now, behind those that wait.
    template <class Step> void finish(Step&& step) {
        if (steps_.empty()) {
            Morva::Status status = step();
            if (status)
                return;
            latest_ = std::move(status);
        }
        steps_.emplace_back(std::forward<Step>(step));
    }
    /// Something that was begun can neither be ended nor taken back: the store can't be committed
    /// any more, and has to go back to its last checkpoint.
    void fail(Morva::Status&& status) { failed_.update(std::move(status)); }
    /// Does all that is left, in its order; the failure of the step that failed again. Success
    /// within a step.
    [[nodiscard]] Morva::Status settle() {
        if (settling_ || (steps_.empty() && failed_.ok())) [[likely]]
            return {};
        settling_ = true;
        Morva::Status status;
        while (status && !steps_.empty()) {
            std::function<Morva::Status()> step = std::move(steps_.front());
            steps_.pop_front();
            auto rest = std::exchange(steps_, {});
            status = step();
            // What the step has handed on comes before it, if it has to be done again.
            if (!status)
                steps_.push_back(std::move(step));
            std::ranges::move(rest, std::back_inserter(steps_));
        }
        settling_ = false;
        if (!status)
            latest_ = status;
        status.update(Morva::Status(failed_));
        return status;
    }
    /// Why the store can't be committed now; success when nothing is left.
    [[nodiscard]] Morva::Status pending() const {
        return !failed_.ok() ? failed_ : steps_.empty() ? Morva::Status() : latest_;
    }
    /// Forgets what is left; whether there was something.
    bool clear() {
        failed_ = {};
        return !std::exchange(steps_, {}).empty();
    }

private:
    std::deque<std::function<Morva::Status()>> steps_;
    Morva::Status latest_; // of the last step that failed
    Morva::Status failed_;
    bool settling_ = false;
};

} // namespace Replication
