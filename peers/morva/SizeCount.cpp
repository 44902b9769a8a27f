#include "peers/morva/SizeCount.h"

#include <system_error>
#include <utility>

namespace Morva {

void SizeCount::end() {
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
}

void SizeCount::start(std::function<void(Add const&)> walk) {
    auto const count = [this, walk = std::move(walk)] {
        std::uint64_t bytes = 0;
        walk([&](std::uint64_t size) {
            bytes += size;
            return !stop_.load(std::memory_order_relaxed);
        });
        if (!stop_)
            total_ = bytes;
    };
    try {
        thread_ = std::thread(count);
    } catch (std::system_error const&) {
        // The progress line goes without a total.
    }
}

} // namespace Morva
