#include "base/trees/TreePage.h"

namespace Morva {

void TreePage::init(std::uint32_t level) {
    std::memset(bytes_, 0, pageSize_);
    storeLittle(bytes_, level == 0 ? leafMark : innerMark);
    put16(4, level);
    put16(8, pageSize_);
}

bool TreePage::sound(std::uint32_t wanted) const {
    if (loadLittle<std::uint32_t>(bytes_) != (wanted == 0 ? leafMark : innerMark) ||
        level() != wanted)
        return false;
    if (wanted != 0)
        return count() <= maximumChildren();
    return headerSize + count() * leafSlot <= get16(8) && get16(8) <= pageSize_ &&
           get16(10) <= pageSize_ - get16(8);
}

bool TreePage::soundCells() const {
    std::uint32_t bytes = 0;
    for (std::uint32_t i = 0; i < count(); ++i) {
        TreeCell const here = cell(i);
        if (!here.data || here.data < bytes_ + get16(8))
            return false;
        bytes += here.size;
    }
    return bytes + get16(10) == pageSize_ - get16(8);
}

std::uint32_t TreePage::lowerBound(KeyHash wanted) const {
    std::uint32_t low = 0;
    std::uint32_t high = count();
    while (low < high) {
        std::uint32_t const middle = (low + high) / 2;
        if (hash(middle) < wanted)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

TreeCell TreePage::cell(std::uint32_t index) const {
    std::uint8_t const* at = slot(index);
    std::uint32_t const offset = loadLittle<std::uint16_t>(at + 8);
    std::uint32_t size = loadLittle<std::uint16_t>(at + 10);
    bool const chained = size == chainedSize;
    if (chained)
        size = TreeChain::cellSize;
    if (offset < headerSize || offset + size > pageSize_)
        return {};
    return {bytes_ + offset, size, chained};
}

std::uint32_t TreePage::used() const {
    return pageSize_ - get16(8) - get16(10) + count() * leafSlot;
}

std::uint32_t TreePage::gap() const {
    return get16(8) - headerSize - count() * leafSlot;
}

std::uint8_t* TreePage::openSlot(std::uint32_t index, KeyHash value) {
    std::uint8_t* at = slot(index);
    std::memmove(at + slotSize(), at, (count() - index) * slotSize());
    put16(6, count() + 1);
    hash(index, value);
    return at;
}

void TreePage::closeSlot(std::uint32_t index) {
    std::uint8_t* at = slot(index);
    std::memmove(at, at + slotSize(), (count() - index - 1) * slotSize());
    put16(6, count() - 1);
}

void TreePage::insertCell(std::uint32_t index, KeyHash value, std::uint8_t const* data,
                          std::uint32_t size, bool chained) {
    std::uint32_t const offset = get16(8) - size;
    std::memcpy(bytes_ + offset, data, size);
    put16(8, offset);
    std::uint8_t* at = openSlot(index, value);
    storeLittle(at + 8, static_cast<std::uint16_t>(offset));
    storeLittle(at + 10, static_cast<std::uint16_t>(chained ? chainedSize : size));
}

void TreePage::removeCell(std::uint32_t index) {
    TreeCell const gone = cell(index);
    closeSlot(index);
    if (count() == 0) {
        put16(8, pageSize_);
        put16(10, 0);
    } else if (gone.data == bytes_ + get16(8)) {
        put16(8, get16(8) + gone.size);
    } else {
        put16(10, get16(10) + gone.size);
    }
}

std::uint32_t TreePage::childIndex(KeyHash wanted) const {
    std::uint32_t low = 1;
    std::uint32_t high = count();
    while (low < high) {
        std::uint32_t const middle = (low + high) / 2;
        if (hash(middle) <= wanted)
            low = middle + 1;
        else
            high = middle;
    }
    return low - 1;
}

void TreePage::hash(std::uint32_t index, KeyHash value) {
    storeLittle(slot(index), value.first);
    storeLittle(slot(index) + 4, value.second);
}

void TreePage::insertChild(std::uint32_t index, KeyHash value, std::uint64_t number) {
    storeLittle(openSlot(index, value) + 8, number);
}

void TreePage::removeChild(std::uint32_t index) {
    closeSlot(index);
}

void TreePage::moveChildren(std::uint32_t from, TreePage& target) {
    std::uint32_t const moved = count() - from;
    std::memcpy(target.slot(target.count()), slot(from), moved * innerSlot);
    target.put16(6, target.count() + moved);
    put16(6, from);
}

} // namespace Morva
