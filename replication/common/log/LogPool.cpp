#include "replication/common/log/LogPool.h"

#include <cstddef>
#include <mutex>
#include <vector>

namespace Replication {

/// A log and the place for the control block of the pointer that hands it out.
struct LogPool::Node {
    static constexpr std::size_t controlSize = 96;

    LogEntry log;
    alignas(std::max_align_t) std::byte control[controlSize];
};

/// What logs in use hold on to. It is counted by hand, under the lock, as a shared pointer in
/// every control block would cost more than the allocation that the pool saves.
struct LogPool::State {
    explicit State(std::uint64_t maximum) : maximumIdleBytes(maximum) {}

    std::mutex lock;
    std::uint64_t const maximumIdleBytes;
    std::uint64_t idleBytes = 0;
    std::uint64_t inUse = 0;
    bool poolGone = false;
    std::vector<std::unique_ptr<Node>> idle;

    void giveBack(Node* raw) {
        std::unique_ptr<Node> node(raw);
        bool last;
        {
            std::scoped_lock const held(lock);
            std::uint64_t const bytes = node->log.capacity();
            if (!poolGone && idleBytes + bytes <= maximumIdleBytes) {
                idleBytes += bytes;
                idle.push_back(std::move(node));
            }
            last = --inUse == 0 && poolGone;
        }
        if (last)
            delete this;
    }
};

template <class T> struct LogPool::ControlAllocator {
    using value_type = T;

    State* state;
    Node* node;

    ControlAllocator(State* owner, Node* place) : state(owner), node(place) {}
    template <class U>
    ControlAllocator(ControlAllocator<U> const& other) : state(other.state), node(other.node) {}

    T* allocate(std::size_t) {
        static_assert(sizeof(T) <= Node::controlSize);
        return reinterpret_cast<T*>(node->control);
    }
    void deallocate(T*, std::size_t) { state->giveBack(node); }
    template <class U> bool operator==(ControlAllocator<U> const& other) const {
        return node == other.node;
    }
};

LogPool::LogPool(std::uint64_t maximumIdleBytes) : state_(new State(maximumIdleBytes)) {}

LogPool::~LogPool() {
    std::vector<std::unique_ptr<Node>> dropped;
    bool last;
    {
        std::scoped_lock const held(state_->lock);
        dropped.swap(state_->idle);
        state_->poolGone = true;
        last = state_->inUse == 0;
    }
    if (last)
        delete state_;
}

LogPointer LogPool::acquire() {
    std::unique_ptr<Node> node;
    {
        std::scoped_lock const held(state_->lock);
        ++state_->inUse;
        if (!state_->idle.empty()) {
            node = std::move(state_->idle.back());
            state_->idle.pop_back();
            state_->idleBytes -= node->log.capacity();
        }
    }
    if (!node)
        node = std::make_unique<Node>();
    Node* const raw = node.release();
    // The node goes back when the control block does, which is after the last pointer of any kind.
    return LogPointer(
        &raw->log, [](LogEntry*) {}, ControlAllocator<LogEntry>(state_, raw));
}

std::uint32_t LogPool::idle() const {
    std::scoped_lock const held(state_->lock);
    return static_cast<std::uint32_t>(state_->idle.size());
}

} // namespace Replication
