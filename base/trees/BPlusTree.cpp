#include "base/trees/BPlusTree.h"

#include "base/trace/Trace.h"
#include "base/trees/TreePage.h"

#include <algorithm>
#include <bit>

namespace Morva {

namespace {

/// The control page of a tree, block 1 of its file, little-endian, 48 bytes.
///  off  size  field      meaning
///    0     8  magic      "MORVATRE"
///    8     4  version    1
///   12     4  page size
///   16     8  root       page
///   24     4  height     levels of pages
///   28     4  zero
///   32     8  keys       stored keys
namespace Control {
constexpr char magic[] = "MORVATRE";
constexpr std::uint32_t version = 1;
constexpr std::uint32_t atVersion = 8, atPageSize = 12, atRoot = 16, atHeight = 24, atKeys = 32;
} // namespace Control

constexpr std::uint32_t reservedBits = 16;
constexpr std::uint32_t smallestPage = 512;

bool validPageSize(std::uint32_t size) {
    return size >= smallestPage && size <= Blocks::maximumBlockSize && std::has_single_bit(size);
}

} // namespace

TraceLine& operator<<(TraceLine& line, BPlusTree::KeyHash const& hash) {
    return line << hex << hash.first << hash.second << dec;
}

BPlusTree::BPlusTree(std::uint32_t cachePages) : blocks_(cachePages) {}

BPlusTree::~BPlusTree() {
    (void)close(); // traced; who needs to know closes before
}

void BPlusTree::giveUp() {
    if (control_)
        blocks_.returnBlock(control_, false);
    control_ = nullptr;
    (void)blocks_.close(); // the tree is of no use; why has been told
}

Status BPlusTree::notOpen(char const* operation) const {
    return Status::failure(Status::Code::InvalidArgument, operation, {},
                           QStringLiteral("the tree isn't open"));
}

Status BPlusTree::damaged(std::uint64_t page, QString const& reason) const {
    return Status::corruption("read", blocks_.name(), reason, {Status::Unit::Page, page});
}

Status BPlusTree::create(QString const& name, std::uint32_t pageSize) {
    MORVA_METHOD("create");
    MORVA_TRY(close());
    if (!validPageSize(pageSize)) {
        MORVA_TRACE(Always) << "Invalid page size" << pageSize;
        return scope.result(Status::failure(Status::Code::InvalidArgument, "create", name,
                                            QStringLiteral("no such page size")));
    }
    MORVA_TRY(
        scope.result(blocks_.create(name, pageSize, reservedBits, 0, RawFile::Mode::ReadWrite)));
    Status begun = begin();
    if (!begun)
        giveUp();
    return scope.result(std::move(begun));
}

/// Gives a new file its control page and an empty root.
Status BPlusTree::begin() {
    std::uint64_t number = 0;
    MORVA_TRY_LET(void* const control, blocks_.newBlock(number));
    control_ = static_cast<std::uint8_t*>(control);
    auto root = BlockPin::make(blocks_, root_);
    if (!root)
        return root.status();
    TreePage(root.get(), blocks_.blockSize()).init(0);
    root.changed();
    root.reset();
    height_ = 1;
    keys_ = 0;
    storeControl();
    return flush();
}

Status BPlusTree::open(QString const& name, RawFile::Mode mode) {
    MORVA_METHOD("open");
    MORVA_TRY(close());
    MORVA_TRY(scope.result(blocks_.open(name, 0, mode)));
    Status read = readControl();
    if (!read) {
        MORVA_TRACE(Always) << "Invalid tree control page in" << name;
        giveUp();
    }
    return scope.result(std::move(read));
}

Status BPlusTree::readControl() {
    auto const unsound = QStringLiteral("its control page is damaged");
    if (!validPageSize(blocks_.blockSize()) || blocks_.blockCount() < 3)
        return damaged(Blocks::firstBlock(), unsound);
    MORVA_TRY_LET(void* const control, blocks_.getBlock(Blocks::firstBlock()));
    control_ = static_cast<std::uint8_t*>(control);
    root_ = loadLittle<std::uint64_t>(control_ + Control::atRoot);
    height_ = loadLittle<std::uint32_t>(control_ + Control::atHeight);
    keys_ = loadLittle<std::uint64_t>(control_ + Control::atKeys);
    bool const sound =
        std::memcmp(control_, Control::magic, 8) == 0 &&
        loadLittle<std::uint32_t>(control_ + Control::atVersion) == Control::version &&
        loadLittle<std::uint32_t>(control_ + Control::atPageSize) == blocks_.blockSize() &&
        root_ > Blocks::firstBlock() && root_ < blocks_.blockCount() && height_ > 0 &&
        height_ <= TreePath::maximumHeight;
    return sound ? Status() : damaged(Blocks::firstBlock(), unsound);
}

void BPlusTree::storeControl() {
    std::memcpy(control_, Control::magic, 8);
    storeLittle(control_ + Control::atVersion, Control::version);
    storeLittle(control_ + Control::atPageSize, blocks_.blockSize());
    storeLittle(control_ + Control::atRoot, root_);
    storeLittle(control_ + Control::atHeight, height_);
    storeLittle(control_ + Control::atKeys, keys_);
    blocks_.updateBlock(control_);
}

Status BPlusTree::close() {
    if (!control_)
        return {};
    MORVA_METHOD("close");
    blocks_.returnBlock(control_, false);
    control_ = nullptr;
    return scope.result(blocks_.close());
}

Status BPlusTree::flush() {
    return control_ ? blocks_.flush() : notOpen("flush");
}

Status BPlusTree::sync() {
    return control_ ? blocks_.sync() : notOpen("sync");
}

std::uint64_t BPlusTree::keyCount() const {
    return control_ ? keys_ : 0;
}

std::uint64_t BPlusTree::pageCount() const {
    return control_ ? blocks_.blockCount() - 1 - Blocks::firstBlock() - blocks_.freeCount() : 0;
}

// --- Finding ----------------------------------------------------------------------------------

/// Goes on from a page one level below the path's end, down to the leaf that a hash belongs to.
Status BPlusTree::descendFrom(TreePath& path, std::uint64_t number, KeyHash const& hash) const {
    while (path.depth() < height_) {
        std::uint32_t const level = height_ - 1 - path.depth();
        auto pin = BlockPin::get(blocks_, number);
        TreePage const page(pin.get(), blocks_.blockSize());
        if (!pin || !page.sound(level) || (level != 0 && page.count() == 0)) [[unlikely]] {
            MORVA_TRACE(Always) << "Damaged tree page" << number << "at level" << level;
            return pin ? damaged(number,
                                 QStringLiteral("it is no tree page of level %1").arg(level))
                       : pin.status();
        }
        std::uint32_t const index = level != 0 ? page.childIndex(hash) : page.lowerBound(hash);
        if (level != 0)
            number = page.child(index);
        path.push(std::move(pin), index);
    }
    return {};
}

Status BPlusTree::descend(TreePath& path, KeyHash const& hash) const {
    path.clear();
    return control_ ? descendFrom(path, root_, hash) : notOpen("read");
}

/// Moves to the first slot of the leaf to the right; false when there is none.
Result<bool> BPlusTree::nextLeaf(TreePath& path) const {
    path.pop();
    while (path.depth() > 0) {
        TreePath::Step& step = path.leaf();
        TreePage const page(step.pin.get(), blocks_.blockSize());
        if (step.index + 1 < page.count()) {
            MORVA_TRY(descendFrom(path, page.child(++step.index), {}));
            return true;
        }
        path.pop();
    }
    return false;
}

Status BPlusTree::storedForm(TreeCell const& cell, Extent& stored) const {
    if (!cell.data) {
        MORVA_TRACE(Always) << "Damaged cell in a tree page";
        return Status::corruption("read", blocks_.name(),
                                  QStringLiteral("a cell of a tree page is damaged"));
    }
    if (cell.chained)
        return readChain(cell.data, stored);
    stored = Extent(cell.data, cell.size);
    return {};
}

Result<bool> BPlusTree::find(Key& key) const {
    std::uint32_t const first = key.hash().first;
    TreePath path;
    MORVA_TRY(descend(path, {first, 0}));
    Status unread; // of a key with the same hash, which could be this one
    for (;;) {
        TreePath::Step& step = path.leaf();
        TreePage const page(step.pin.get(), blocks_.blockSize());
        if (step.index >= page.count()) {
            MORVA_TRY_LET(bool const more, nextLeaf(path));
            if (more)
                continue;
            break;
        }
        if (page.hash(step.index).first != first)
            break;
        Extent stored;
        if (Status got = storedForm(page.cell(step.index), stored); !got) [[unlikely]] {
            unread.update(std::move(got));
        } else if (key.equal(stored)) {
            if (key.restore(stored))
                return true;
            return damaged(blocks_.number(step.pin.get()),
                           QStringLiteral("a stored key can't be taken over"));
        }
        ++step.index;
    }
    if (!unread) [[unlikely]]
        return unread;
    return false;
}

/// The slot of the stored key with this very hash, if it is this key.
Status BPlusTree::locate(TreePath& path, Key const& key, Extent& stored) const {
    MORVA_TRY(descend(path, key.hash()));
    TreePath::Step const& step = path.leaf();
    TreePage const page(step.pin.get(), blocks_.blockSize());
    bool found = step.index < page.count() && page.hash(step.index) == key.hash();
    if (found) {
        MORVA_TRY(storedForm(page.cell(step.index), stored));
        found = key.equal(stored);
    }
    return found ? Status()
                 : Status::failure(Status::Code::NotFound, "find a key in", blocks_.name(),
                                   QStringLiteral("no such key is stored"));
}

// --- Inserting --------------------------------------------------------------------------------

/// The lowest second word from 1 on that no stored key with this first word has, and the slot
/// where it belongs.
Status BPlusTree::chooseSecond(TreePath& path, KeyHash& hash) const {
    hash.second = 1;
    MORVA_TRY(descend(path, hash));
    bool moved = false;
    while (hash.second != 0) {
        TreePath::Step& step = path.leaf();
        TreePage const page(step.pin.get(), blocks_.blockSize());
        if (step.index >= page.count()) {
            moved = true;
            MORVA_TRY_LET(bool const more, nextLeaf(path));
            if (!more)
                break;
        } else if (page.hash(step.index) == hash) {
            ++hash.second;
            ++step.index;
        } else {
            break;
        }
    }
    if (hash.second == 0)
        return Status::failure(Status::Code::NoSpace, "insert into", blocks_.name(),
                               QStringLiteral("no hash is left for the key"));
    return moved ? descend(path, hash) : Status();
}

Status BPlusTree::insert(Key& key) {
    MORVA_METHOD("insert");
    std::uint32_t const size = key.size();
    KeyHash const before = key.hash();
    KeyHash hash = before;
    TreePath path;
    Status inserted;
    if (size > maximumStoredSize)
        inserted = Status::failure(Status::Code::InvalidArgument, "insert into", blocks_.name(),
                                   QStringLiteral("the key is too large"));
    else
        inserted = chooseSecond(path, hash);
    if (inserted) {
        key.hash(hash);
        inserted = store(path, key, hash);
    }
    if (!inserted) {
        MORVA_TRACE(Always) << "Failed to insert a key of size" << size << hash;
        key.hash(before);
        return scope.result(std::move(inserted));
    }
    ++keys_;
    storeControl();
    return scope.result(std::move(inserted));
}

/// Puts the key's form at the path's slot, or in a chain that is named there.
Status BPlusTree::store(TreePath& path, Key& key, KeyHash const& hash) {
    std::uint32_t const size = key.size();
    form_.resize(std::max<std::size_t>(form_.size(), size));
    Extent range(static_cast<void*>(form_.data()), size);
    if (!key.save(range))
        return Status::failure(Status::Code::InvalidArgument, "insert into", blocks_.name(),
                               QStringLiteral("the key can't be stored"));
    if (size <= (blocks_.blockSize() - TreePage::headerSize) / 4 - TreePage::leafSlot)
        return place(path, hash, TreeCell{form_.data(), size, false});
    std::uint8_t chain[TreeChain::cellSize];
    MORVA_TRY(makeChain(chain, size));
    Status placed = place(path, hash, TreeCell{chain, TreeChain::cellSize, true});
    std::vector<BlockPin> pins;
    if (!placed && pinChain(chain, pins)) // else its pages are lost until a repair
        freePages(pins);
    return placed;
}

/// Puts the page together without garbage, in `scratch_`.
void BPlusTree::compact(TreePage const& page) const {
    scratch_.resize(blocks_.blockSize());
    TreePage copy(scratch_.data(), blocks_.blockSize());
    copy.init(0);
    for (std::uint32_t i = 0; i < page.count(); ++i) {
        TreeCell const cell = page.cell(i);
        copy.insertCell(i, page.hash(i), cell.data, cell.size, cell.chained);
    }
}

Status BPlusTree::place(TreePath& path, KeyHash const& hash, TreeCell const& cell) {
    TreePath::Step& step = path.leaf();
    TreePage page(step.pin.get(), blocks_.blockSize());
    std::uint32_t const needed = cell.size + TreePage::leafSlot;
    if (page.gap() < needed) {
        if (!page.soundCells()) {
            MORVA_TRACE(Always) << "Damaged cells in tree page" << blocks_.number(step.pin.get());
            return damaged(blocks_.number(step.pin.get()), QStringLiteral("its cells are damaged"));
        }
        if (page.capacity() - page.used() < needed)
            return split(path, hash, cell);
        compact(page);
        std::memcpy(step.pin.get(), scratch_.data(), blocks_.blockSize());
    }
    page.insertCell(step.index, hash, cell.data, cell.size, cell.chained);
    step.pin.changed();
    return {};
}

/// Takes all the pages that a split of the path's leaf can need, so that it can't fail half-way.
Status BPlusTree::takeSpare(TreePath& path, std::vector<BlockPin>& spare) {
    std::uint32_t wanted = 1;
    std::uint32_t depth = path.depth() - 1;
    for (; depth > 0; --depth, ++wanted) {
        TreePage const page(path.at(depth - 1).pin.get(), blocks_.blockSize());
        if (page.count() < page.maximumChildren())
            break;
    }
    if (depth == 0 && ++wanted && height_ == TreePath::maximumHeight)
        return Status::failure(Status::Code::NoSpace, "insert into", blocks_.name(),
                               QStringLiteral("the tree can't grow higher"));
    while (spare.size() < wanted) {
        std::uint64_t number = 0;
        auto pin = BlockPin::make(blocks_, number);
        if (!pin) {
            freePages(spare);
            return pin.status();
        }
        spare.push_back(std::move(pin));
    }
    return {};
}

/// Pages that were just taken, or of a chain that nothing names any more.
void BPlusTree::freePages(std::vector<BlockPin>& pins) {
    for (BlockPin& pin : pins)
        (void)pin.free(); // fails for a page that is free already alone: then it is where it should
}

Status BPlusTree::split(TreePath& path, KeyHash const& hash, TreeCell const& cell) {
    std::vector<BlockPin> spare;
    MORVA_TRY(takeSpare(path, spare));
    TreePath::Step& step = path.leaf();
    std::uint32_t const pageSize = blocks_.blockSize();
    TreePage left(step.pin.get(), pageSize);
    BlockPin rightPin = std::move(spare.back());
    spare.pop_back();
    TreePage right(rightPin.get(), pageSize);
    scratch_.assign(step.pin.bytes(), step.pin.bytes() + pageSize);
    TreePage const old(scratch_.data(), pageSize);
    std::uint32_t const half = (old.used() + TreePage::leafSlot + cell.size) / 2;
    left.init(0);
    right.init(0);
    std::uint32_t bytes = 0;
    for (std::uint32_t i = 0; i <= old.count(); ++i) {
        bool const added = i == step.index;
        std::uint32_t const from = i - (i > step.index);
        TreeCell const here = added ? cell : old.cell(from);
        TreePage& target = bytes < half && (i == 0 || i < old.count()) ? left : right;
        target.insertCell(target.count(), added ? hash : old.hash(from), here.data, here.size,
                          here.chained);
        bytes += TreePage::leafSlot + here.size;
    }
    step.pin.changed();
    rightPin.changed();
    raise(path, right.hash(0), blocks_.number(rightPin.get()), spare);
    return {};
}

/// Enters a new page behind the one that the path leads to, and splits the inner pages that are
/// full for that.
void BPlusTree::raise(TreePath& path, KeyHash hash, std::uint64_t child,
                      std::vector<BlockPin>& spare) {
    std::uint32_t const pageSize = blocks_.blockSize();
    for (std::uint32_t depth = path.depth() - 1; depth > 0; --depth) {
        TreePath::Step& step = path.at(depth - 1);
        TreePage page(step.pin.get(), pageSize);
        std::uint32_t const index = step.index + 1;
        step.pin.changed();
        if (page.count() < page.maximumChildren()) {
            page.insertChild(index, hash, child);
            return;
        }
        BlockPin rightPin = std::move(spare.back());
        spare.pop_back();
        TreePage right(rightPin.get(), pageSize);
        right.init(page.level());
        std::uint32_t const middle = page.count() / 2;
        page.moveChildren(middle, right);
        if (index <= middle)
            page.insertChild(index, hash, child);
        else
            right.insertChild(index - middle, hash, child);
        rightPin.changed();
        hash = right.hash(0);
        child = blocks_.number(rightPin.get());
    }
    TreePage root(spare.back().get(), pageSize);
    root.init(height_++);
    root.insertChild(0, {}, root_);
    root.insertChild(1, hash, child);
    root_ = blocks_.number(spare.back().get());
    spare.back().changed();
}

// --- Changing and removing --------------------------------------------------------------------

Status BPlusTree::update(Key const& key) {
    MORVA_METHOD("update");
    TreePath path;
    Extent stored;
    std::uint32_t const size = key.size();
    Status located = locate(path, key, stored);
    if (located && stored.size != size)
        located = Status::failure(Status::Code::NotFound, "update a key in", blocks_.name(),
                                  QStringLiteral("the stored key has another size"));
    if (!located) {
        MORVA_TRACE(Always) << "No stored key to update" << key.hash();
        return scope.result(std::move(located));
    }
    form_.resize(std::max<std::size_t>(form_.size(), size));
    Extent range(static_cast<void*>(form_.data()), size);
    if (!key.save(range))
        return scope.result(Status::failure(Status::Code::InvalidArgument, "update a key in",
                                            blocks_.name(),
                                            QStringLiteral("the key can't be stored")));
    TreePath::Step& step = path.leaf();
    TreeCell const cell = TreePage(step.pin.get(), blocks_.blockSize()).cell(step.index);
    if (cell.chained)
        return scope.result(writeChain(cell.data));
    std::memcpy(cell.data, form_.data(), size);
    step.pin.changed();
    return {};
}

Status BPlusTree::remove(Key const& key) {
    MORVA_METHOD("remove");
    TreePath path;
    Extent stored;
    if (Status located = locate(path, key, stored); !located) {
        MORVA_TRACE(Always) << "No stored key to remove" << key.hash();
        return scope.result(std::move(located));
    }
    TreePath::Step& step = path.leaf();
    TreePage page(step.pin.get(), blocks_.blockSize());
    if (!page.soundCells()) {
        MORVA_TRACE(Always) << "Damaged cells in tree page" << blocks_.number(step.pin.get());
        return scope.result(
            damaged(blocks_.number(step.pin.get()), QStringLiteral("its cells are damaged")));
    }
    TreeCell const cell = page.cell(step.index);
    std::vector<BlockPin> chain;
    if (cell.chained)
        MORVA_TRY(scope.result(pinChain(cell.data, chain)));
    freePages(chain);
    page.removeCell(step.index);
    step.pin.changed();
    keys_ -= keys_ != 0;
    shrink(path);
    storeControl();
    return {};
}

} // namespace Morva
