#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace Replication {

/// The largest slot of each page of one directory, so that the first page with room is found in
/// the logarithm of the page count: a binary tree of maxima in an array, leaves last.
class DirectoryIndex {
public:
    DirectoryIndex() = default;
    explicit DirectoryIndex(std::vector<std::uint16_t> const& slots);

    [[nodiscard]] std::size_t pages() const { return pages_; }
    /// The first page whose largest slot is at least this; nothing when there is none.
    [[nodiscard]] std::optional<std::uint64_t> firstFit(std::uint32_t needed) const;
    void set(std::uint64_t page, std::uint16_t largestSlot);
    /// One page more at the end.
    void append(std::uint16_t largestSlot);

private:
    std::size_t pages_ = 0;
    std::size_t capacity_ = 0;
    /// Node i has the children 2i and 2i + 1; the leaf of page p is capacity_ + p.
    std::vector<std::uint16_t> maxima_;
};

} // namespace Replication
