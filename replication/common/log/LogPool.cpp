#include "replication/common/log/LogPool.h"

#include <algorithm>
#include <array>
#include <bit>
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
    /// What a log without data takes; less is not worth a class of its own.
    static constexpr std::uint64_t smallest = 512;

    explicit State(std::uint64_t maximum) : maximumIdleBytes(maximum) {}

    std::mutex lock;
    std::uint64_t const maximumIdleBytes;
    std::uint64_t idleBytes = 0;
    std::uint64_t inUse = 0;
    bool poolGone = false;
    /// By the power of two that the memory reaches, so that a large log gets large memory and a
    /// small one doesn't keep it from others.
    std::array<std::vector<std::unique_ptr<Node>>, 33> idle;

    static std::size_t classOf(std::uint64_t capacity) {
        return capacity ? static_cast<std::size_t>(std::bit_width(capacity)) - 1 : 0;
    }

    std::unique_ptr<Node> take(std::uint64_t bytes) {
        constexpr std::size_t tooLarge = 3; // in classes
        std::size_t const first = classOf(std::bit_ceil(std::max(bytes, smallest)));
        for (std::size_t i = first; i < std::min(first + tooLarge, idle.size()); ++i) {
            if (idle[i].empty())
                continue;
            std::unique_ptr<Node> node = std::move(idle[i].back());
            idle[i].pop_back();
            idleBytes -= cost(*node);
            return node;
        }
        return nullptr;
    }

    static std::uint64_t cost(Node const& node) { return sizeof(Node) + node.log.capacity(); }

    void giveBack(Node* raw) {
        std::unique_ptr<Node> node(raw);
        bool last;
        {
            std::scoped_lock const held(lock);
            std::uint64_t const bytes = cost(*node);
            if (!poolGone && idleBytes + bytes <= maximumIdleBytes) {
                idleBytes += bytes;
                idle[classOf(node->log.capacity())].push_back(std::move(node));
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
    decltype(State::idle) dropped;
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

LogPointer LogPool::acquire(std::uint64_t bytes) {
    std::unique_ptr<Node> node;
    {
        std::scoped_lock const held(state_->lock);
        ++state_->inUse;
        node = state_->take(bytes);
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
    std::size_t count = 0;
    for (auto const& nodes : state_->idle)
        count += nodes.size();
    return static_cast<std::uint32_t>(count);
}

} // namespace Replication
