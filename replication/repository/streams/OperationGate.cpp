#include "replication/repository/streams/OperationGate.h"

#include "base/trace/Trace.h"

namespace Replication {

namespace {

/// What the calling thread holds of the gate.
struct Held {
    std::uint32_t shared = 0;
    std::uint32_t alone = 0;
};
thread_local Held held;

} // namespace

OperationGate& OperationGate::process() {
    static OperationGate gate;
    return gate;
}

void OperationGate::enter() {
    if (held.alone == 0 && held.shared == 0) {
        std::unique_lock lock(lock_);
        changed_.wait(lock, [this] { return !alone_ && waitingAlone_ == 0; });
        ++sharers_;
    }
    ++held.shared;
}

void OperationGate::leave() {
    --held.shared;
    if (held.alone != 0 || held.shared != 0)
        return;
    bool wake = false;
    {
        std::lock_guard lock(lock_);
        --sharers_;
        wake = waitingAlone_ != 0;
    }
    if (wake)
        changed_.notify_all();
}

void OperationGate::enterAlone() {
    MORVA_CHECK(held.shared == 0 || held.alone != 0, "gate held shared");
    if (held.alone++ != 0)
        return;
    std::uint32_t const own = held.shared != 0 ? 1 : 0;
    std::unique_lock lock(lock_);
    ++waitingAlone_;
    changed_.wait(lock, [this, own] { return !alone_ && sharers_ == own; });
    --waitingAlone_;
    alone_ = true;
}

void OperationGate::leaveAlone() {
    if (--held.alone != 0)
        return;
    {
        std::lock_guard lock(lock_);
        alone_ = false;
    }
    changed_.notify_all();
}

} // namespace Replication
