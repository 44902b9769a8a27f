#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Replication {

/// The one gate of the process between work on the files and a state of them that is whole. It
/// stands outside every lock. One log applied, one order, one slice of cleanup, one result of
/// deduplication each hold it shared; the flush of a freeze holds it exclusively. Nobody holds it
/// while waiting on a channel, a queue or a message.
///
/// Shared use is recursive in a thread, and is free of charge within exclusive use. A waiting
/// exclusive entry keeps new shared ones out, so that a busy process can't starve a flush.
class OperationGate {
public:
    OperationGate(OperationGate const&) = delete;
    OperationGate& operator=(OperationGate const&) = delete;

    /// The gate of the process.
    [[nodiscard]] static OperationGate& process();

    /// Holds the gate shared for its scope.
    class Enter {
    public:
        explicit Enter(OperationGate& gate = process()) : gate_(gate) { gate_.enter(); }
        ~Enter() { gate_.leave(); }
        Enter(Enter const&) = delete;
        Enter& operator=(Enter const&) = delete;

    private:
        OperationGate& gate_;
    };

    /// Holds the gate alone for its scope. A thread that holds it shared must not ask: that is
    /// traced as a fault, and its own share is then not waited for.
    class EnterAlone {
    public:
        explicit EnterAlone(OperationGate& gate = process()) : gate_(gate) { gate_.enterAlone(); }
        ~EnterAlone() { gate_.leaveAlone(); }
        EnterAlone(EnterAlone const&) = delete;
        EnterAlone& operator=(EnterAlone const&) = delete;

    private:
        OperationGate& gate_;
    };

private:
    OperationGate() = default;

    void enter();
    void leave();
    void enterAlone();
    void leaveAlone();

    std::mutex lock_;
    std::condition_variable changed_;
    std::uint32_t sharers_ = 0;      // guarded by lock_
    std::uint32_t waitingAlone_ = 0; // guarded by lock_
    bool alone_ = false;             // guarded by lock_
};

} // namespace Replication
