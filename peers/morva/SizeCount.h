#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>

namespace Morva {

/// Counts the bytes of what a command is about to read, on a thread of its own, so that its
/// progress line knows what is left. Only worth its reads where somebody watches.
class SizeCount {
public:
    /// Called with the size of an object; false ends the count.
    using Add = std::function<bool(std::uint64_t bytes)>;

    SizeCount() = default;
    ~SizeCount() { end(); }
    SizeCount(SizeCount const&) = delete;
    SizeCount& operator=(SizeCount const&) = delete;

    /// Calls `walk` on the thread, once; without one to be had there is no total.
    void start(std::function<void(Add const&)> walk);
    /// Waits for the end of the thread, which comes soon.
    void end();
    /// 0 as long as not all is counted.
    [[nodiscard]] std::uint64_t total() const { return total_.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t> total_{0};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace Morva
