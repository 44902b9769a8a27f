#include "replication/repository/store/DirectoryIndex.h"

#include <algorithm>
#include <bit>

namespace Replication {

DirectoryIndex::DirectoryIndex(std::vector<std::uint16_t> const& slots) : pages_(slots.size()) {
    capacity_ = std::bit_ceil(std::max<std::size_t>(slots.size(), 1));
    maxima_.assign(2 * capacity_, 0);
    std::copy(slots.begin(), slots.end(), maxima_.begin() + static_cast<std::ptrdiff_t>(capacity_));
    for (std::size_t node = capacity_ - 1; node > 0; --node)
        maxima_[node] = std::max(maxima_[2 * node], maxima_[2 * node + 1]);
}

std::optional<std::uint64_t> DirectoryIndex::firstFit(std::uint32_t needed) const {
    if (pages_ == 0 || maxima_[1] < needed)
        return std::nullopt;
    std::size_t node = 1;
    while (node < capacity_) {
        node *= 2;
        if (maxima_[node] < needed)
            ++node;
    }
    return node - capacity_;
}

void DirectoryIndex::set(std::uint64_t page, std::uint16_t largestSlot) {
    std::size_t node = capacity_ + page;
    maxima_[node] = largestSlot;
    for (node /= 2; node > 0; node /= 2) {
        std::uint16_t const maximum = std::max(maxima_[2 * node], maxima_[2 * node + 1]);
        if (maxima_[node] == maximum)
            return;
        maxima_[node] = maximum;
    }
}

void DirectoryIndex::append(std::uint16_t largestSlot) {
    if (pages_ == capacity_) {
        std::vector<std::uint16_t> slots;
        slots.reserve(pages_ + 1);
        if (pages_ > 0)
            slots.assign(maxima_.begin() + static_cast<std::ptrdiff_t>(capacity_), maxima_.end());
        slots.push_back(largestSlot);
        *this = DirectoryIndex(slots);
        return;
    }
    set(pages_++, largestSlot);
}

} // namespace Replication
