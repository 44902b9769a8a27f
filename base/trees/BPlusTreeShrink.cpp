#include "base/trace/Trace.h"
#include "base/trees/BPlusTree.h"
#include "base/trees/TreePage.h"

#include <algorithm>

// How a tree gives pages back, and the chains of pages that hold large stored forms.

namespace Morva {

/// Takes an empty leaf out of the tree, and the inner pages that it leaves empty.
void BPlusTree::dropEmpty(TreePath& path) {
    while (path.depth() > 1) {
        (void)path.leaf().pin.free(); // a tree page isn't marked as free, or it were unsound
        path.pop();
        TreePath::Step& step = path.leaf();
        TreePage page(step.pin.get(), blocks_.blockSize());
        page.removeChild(step.index);
        step.pin.changed();
        if (page.count() != 0)
            return;
    }
    TreePage(path.leaf().pin.get(), blocks_.blockSize()).init(0);
    height_ = 1;
}

/// After a removal: joins pages less than a quarter full with a neighbour, from the leaf upwards.
/// A neighbour that can't be read, or is damaged, isn't joined: the tree is sound without.
void BPlusTree::shrink(TreePath& path) {
    std::uint32_t const pageSize = blocks_.blockSize();
    if (path.depth() > 1 && TreePage(path.leaf().pin.get(), pageSize).count() == 0)
        dropEmpty(path);
    for (std::uint32_t depth = path.depth(); depth > 1; --depth) {
        TreePage const page(path.at(depth - 1).pin.get(), pageSize);
        bool const sparse = page.level() == 0 ? page.used() < page.capacity() / 4
                                              : page.count() < page.maximumChildren() / 4;
        if (!sparse || !join(path, depth - 1))
            break;
    }
    path.clear();
    collapseRoot();
}

/// Joins the path's page at a depth with the one before or behind it, if both fit one page.
bool BPlusTree::join(TreePath& path, std::uint32_t depth) {
    std::uint32_t const level = height_ - 1 - depth;
    TreePath::Step& up = path.at(depth - 1);
    TreePage parent(up.pin.get(), blocks_.blockSize());
    BlockPin& own = path.at(depth).pin;
    bool joined = false;
    if (up.index > 0) {
        auto left = BlockPin::get(blocks_, parent.child(up.index - 1));
        joined = left && left.get() != own.get() && joinPages(parent, up.index, left, own, level);
    }
    if (!joined && up.index + 1 < parent.count()) {
        auto right = BlockPin::get(blocks_, parent.child(up.index + 1));
        joined =
            right && right.get() != own.get() && joinPages(parent, up.index + 1, own, right, level);
    }
    if (joined)
        up.pin.changed();
    return joined;
}

/// Moves everything from the right page to the left one and frees the right one, which is the
/// parent's child `right`.
bool BPlusTree::joinPages(TreePage& parent, std::uint32_t right, BlockPin& leftPin,
                          BlockPin& rightPin, std::uint32_t level) {
    TreePage left(leftPin.get(), blocks_.blockSize());
    TreePage gone(rightPin.get(), blocks_.blockSize());
    if (!left.sound(level) || !gone.sound(level))
        return false;
    if (level == 0) {
        std::uint32_t const bytes = left.used() + gone.used();
        if (bytes > left.capacity() - left.capacity() / 8 || !left.soundCells() ||
            !gone.soundCells())
            return false;
        compact(left);
        std::memcpy(leftPin.get(), scratch_.data(), blocks_.blockSize());
        for (std::uint32_t i = 0; i < gone.count(); ++i) {
            TreeCell const cell = gone.cell(i);
            left.insertCell(left.count(), gone.hash(i), cell.data, cell.size, cell.chained);
        }
    } else {
        std::uint32_t const most = left.maximumChildren();
        if (left.count() + gone.count() > most - most / 8)
            return false;
        if (gone.count() > 0)
            gone.hash(0, parent.hash(right));
        gone.moveChildren(0, left);
    }
    leftPin.changed();
    parent.removeChild(right);
    (void)rightPin.free(); // a tree page isn't marked as free, or it were unsound
    return true;
}

void BPlusTree::collapseRoot() {
    while (height_ > 1) {
        auto pin = BlockPin::get(blocks_, root_);
        TreePage const page(pin.get(), blocks_.blockSize());
        if (!pin || !page.sound(height_ - 1) || page.count() != 1 ||
            page.child(0) >= blocks_.blockCount() || page.child(0) <= Blocks::firstBlock())
            return;
        root_ = page.child(0);
        --height_;
        (void)pin.free(); // a tree page isn't marked as free, or it were unsound
    }
}

// --- Chains -----------------------------------------------------------------------------------

Status BPlusTree::makeChain(std::uint8_t* cell, std::uint32_t size) {
    std::uint32_t const room = blocks_.blockSize() - TreeChain::headerSize;
    std::uint64_t next = 0;
    std::vector<BlockPin> made;
    for (std::uint32_t pages = (size + room - 1) / room; pages > 0; --pages) {
        std::uint64_t number = 0;
        auto pin = BlockPin::make(blocks_, number);
        if (!pin) {
            freePages(made);
            return pin.status();
        }
        std::uint32_t const from = (pages - 1) * room;
        storeLittle(pin.bytes(), TreeChain::mark);
        storeLittle(pin.bytes() + TreeChain::atNext, next);
        std::memcpy(pin.bytes() + TreeChain::headerSize, form_.data() + from,
                    std::min(room, size - from));
        pin.changed();
        made.push_back(std::move(pin));
        next = number;
    }
    TreeChain::store(cell, {size, next});
    return {};
}

/// Has all pages of a chain in order. Bounded by the largest form, whatever the file holds.
Status BPlusTree::pinChain(std::uint8_t const* cell, std::vector<BlockPin>& pins) const {
    auto [size, number] = TreeChain::load(cell);
    std::uint32_t const room = blocks_.blockSize() - TreeChain::headerSize;
    if (size > maximumStoredSize)
        return damaged(number, QStringLiteral("the chain of a stored key is damaged"));
    for (std::uint32_t from = 0; from < size; from += room) {
        auto pin = BlockPin::get(blocks_, number);
        if (!pin || !TreeChain::sound(pin.get())) {
            MORVA_TRACE(Always) << "Damaged chain of a stored key at page" << number;
            return pin ? damaged(number, QStringLiteral("the chain of a stored key is damaged"))
                       : pin.status();
        }
        number = TreeChain::next(pin.get());
        pins.push_back(std::move(pin));
    }
    return {};
}

Status BPlusTree::readChain(std::uint8_t const* cell, Extent& stored) const {
    auto [size, number] = TreeChain::load(cell);
    std::uint32_t const room = blocks_.blockSize() - TreeChain::headerSize;
    if (size > maximumStoredSize)
        return damaged(number, QStringLiteral("the chain of a stored key is damaged"));
    form_.resize(std::max<std::size_t>(form_.size(), size));
    for (std::uint32_t from = 0; from < size; from += room) {
        auto pin = BlockPin::get(blocks_, number);
        if (!pin || !TreeChain::sound(pin.get())) {
            MORVA_TRACE(Always) << "Damaged chain of a stored key at page" << number;
            return pin ? damaged(number, QStringLiteral("the chain of a stored key is damaged"))
                       : pin.status();
        }
        std::memcpy(form_.data() + from, pin.bytes() + TreeChain::headerSize,
                    std::min(room, size - from));
        number = TreeChain::next(pin.get());
    }
    stored = Extent(static_cast<void*>(form_.data()), size);
    return {};
}

/// Overwrites a chain with the form in `form_`, once all its pages are there.
Status BPlusTree::writeChain(std::uint8_t const* cell) {
    std::uint32_t const size = TreeChain::load(cell).size;
    std::uint32_t const room = blocks_.blockSize() - TreeChain::headerSize;
    std::vector<BlockPin> pins;
    MORVA_TRY(pinChain(cell, pins));
    std::uint32_t from = 0;
    for (BlockPin& pin : pins) {
        std::memcpy(pin.bytes() + TreeChain::headerSize, form_.data() + from,
                    std::min(room, size - from));
        pin.changed();
        from += room;
    }
    return {};
}

} // namespace Morva
