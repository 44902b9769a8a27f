#pragma once

#include "base/blocks/Blocks.h"
#include "base/trees/BPlusTree.h"
#include "base/values/LittleEndian.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace Morva {

/// What a slot of a leaf says of one stored key.
struct TreeCell {
    std::uint8_t* data = nullptr; ///< null when the slot points outside its page
    std::uint32_t size = 0;
    bool chained = false; ///< the cell is a `TreeChain::Cell`, not the stored form
};

/// A page of a tree, leaf or inner, in the buffer of a pinned block. Little-endian.
///
///  off  size  field    meaning
///    0     4  mark     "LEAF" or "INNR"
///    4     2  level    0 for a leaf
///    6     2  count    slots
///    8     2  heap     leaf: offset of the lowest cell; the page size if there is none
///   10     2  garbage  leaf: bytes between `heap` and the page's end that no cell uses
///   12     4  zero
///   16        slots, ascending by hash
///
///  slot of a leaf, 12 bytes:   0 4 first, 4 4 second, 8 2 offset of the cell, 10 2 its size;
///                              size 0xFFFF: a cell of 12 bytes that names a chain
///  slot of an inner page, 16:  0 4 first, 4 4 second, 8 8 child; the hash is a lower bound of the
///                              child's, and that of slot 0 counts as the lowest of all
///
/// Readers must have asked `sound` first; `cell` checks each cell by itself, and operations that
/// move cells ask for `soundCells`.
class TreePage {
public:
    using KeyHash = BPlusTree::KeyHash;
    static constexpr std::uint32_t headerSize = 16, leafSlot = 12, innerSlot = 16;
    static constexpr std::uint32_t chainedSize = 0xFFFF;

    TreePage(void* bytes, std::uint32_t pageSize)
        : bytes_(static_cast<std::uint8_t*>(bytes)), pageSize_(pageSize) {}

    void init(std::uint32_t level);
    /// Whether this is a page of that level with a count and a heap that are possible.
    [[nodiscard]] bool sound(std::uint32_t level) const;
    /// Whether all cells lie in the heap and fill it, but for the garbage.
    [[nodiscard]] bool soundCells() const;

    [[nodiscard]] std::uint32_t count() const { return get16(6); }
    [[nodiscard]] std::uint32_t level() const { return get16(4); }
    [[nodiscard]] KeyHash hash(std::uint32_t index) const {
        std::uint8_t const* at = slot(index);
        return {loadLittle<std::uint32_t>(at), loadLittle<std::uint32_t>(at + 4)};
    }
    /// The first slot whose hash isn't below.
    [[nodiscard]] std::uint32_t lowerBound(KeyHash hash) const;

    [[nodiscard]] TreeCell cell(std::uint32_t index) const;
    /// Bytes of slots and cells, and what a leaf can hold of them.
    [[nodiscard]] std::uint32_t used() const;
    [[nodiscard]] std::uint32_t capacity() const { return pageSize_ - headerSize; }
    /// Bytes between the slots and the heap.
    [[nodiscard]] std::uint32_t gap() const;
    /// Inserts where `gap` has room for the slot and the cell.
    void insertCell(std::uint32_t index, KeyHash hash, std::uint8_t const* data, std::uint32_t size,
                    bool chained);
    void removeCell(std::uint32_t index);

    /// The slot of the child that a hash belongs to.
    [[nodiscard]] std::uint32_t childIndex(KeyHash hash) const;
    [[nodiscard]] std::uint64_t child(std::uint32_t index) const {
        return loadLittle<std::uint64_t>(slot(index) + 8);
    }
    [[nodiscard]] std::uint32_t maximumChildren() const {
        return (pageSize_ - headerSize) / innerSlot;
    }
    void insertChild(std::uint32_t index, KeyHash hash, std::uint64_t child);
    void removeChild(std::uint32_t index);
    /// Moves the slots from `from` on to the end of another page.
    void moveChildren(std::uint32_t from, TreePage& target);
    void hash(std::uint32_t index, KeyHash value);

private:
    static constexpr std::uint32_t leafMark = 0x4641454C, innerMark = 0x524E4E49;

    [[nodiscard]] std::uint32_t get16(std::uint32_t at) const {
        return loadLittle<std::uint16_t>(bytes_ + at);
    }
    void put16(std::uint32_t at, std::uint32_t value) {
        storeLittle(bytes_ + at, static_cast<std::uint16_t>(value));
    }
    [[nodiscard]] std::uint32_t slotSize() const { return level() == 0 ? leafSlot : innerSlot; }
    [[nodiscard]] std::uint8_t* slot(std::uint32_t index) const {
        return bytes_ + headerSize + index * slotSize();
    }
    std::uint8_t* openSlot(std::uint32_t index, KeyHash hash);
    void closeSlot(std::uint32_t index);

    std::uint8_t* bytes_;
    std::uint32_t pageSize_;
};

/// A stored form too large for a leaf lies in a chain of pages. Little-endian.
///
///  page:  0 4 mark "CHAN", 4 4 zero, 8 8 next page (0 = last), 16 bytes of the form
///  cell:  0 4 size of the form, 4 8 first page
namespace TreeChain {
constexpr std::uint32_t mark = 0x4E414843;
constexpr std::uint32_t atNext = 8, headerSize = 16;
constexpr std::uint32_t cellSize = 12;

struct Cell {
    std::uint32_t size;
    std::uint64_t first;
};
inline Cell load(std::uint8_t const* cell) {
    return {loadLittle<std::uint32_t>(cell), loadLittle<std::uint64_t>(cell + 4)};
}
inline void store(std::uint8_t* cell, Cell value) {
    storeLittle(cell, value.size);
    storeLittle(cell + 4, value.first);
}
inline bool sound(void const* page) {
    return loadLittle<std::uint32_t>(page) == mark;
}
inline std::uint64_t next(void const* page) {
    return loadLittle<std::uint64_t>(static_cast<std::uint8_t const*>(page) + atNext);
}
} // namespace TreeChain

/// The pages from the root to a leaf, pinned, with the slot taken in each.
class TreePath {
public:
    static constexpr std::uint32_t maximumHeight = 16;

    struct Step {
        BlockPin pin;
        std::uint32_t index = 0;
    };

    Step& push(BlockPin pin, std::uint32_t index) {
        steps_[depth_] = {std::move(pin), index};
        return steps_[depth_++];
    }
    void pop() { steps_[--depth_].pin.reset(); }
    void clear() {
        while (depth_ > 0)
            pop();
    }
    [[nodiscard]] std::uint32_t depth() const { return depth_; }
    [[nodiscard]] Step& at(std::uint32_t depth) { return steps_[depth]; }
    [[nodiscard]] Step& leaf() { return steps_[depth_ - 1]; }

private:
    std::array<Step, maximumHeight> steps_;
    std::uint32_t depth_ = 0;
};

} // namespace Morva
