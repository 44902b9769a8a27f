#include "replication/repository/store/NodePointer.h"

#include "base/blocks/Blocks.h"
#include "base/blocks/Failures.h"
#include "base/trace/Trace.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace Replication {

using Morva::BlockPin;
using Morva::Blocks;
using Morva::Failures;
using Morva::TracedLock;

namespace {

constexpr std::uint32_t blockBytes = PointerEntry::size * PointerEntry::perBlock;
constexpr std::uint32_t rootSlot = 1;

std::uint32_t numberOf(FileId id) {
    return static_cast<std::uint32_t>(id.value);
}
std::uint32_t generationOf(FileId id) {
    return static_cast<std::uint32_t>(id.value >> 32);
}
FileId makeId(std::uint64_t number, std::uint32_t generation) {
    return FileId{number | std::uint64_t{generation} << 32};
}
PointerEntry entryAt(void* block, std::uint32_t slot) {
    return PointerEntry(static_cast<std::uint8_t*>(block) + slot * PointerEntry::size);
}

} // namespace

/// One entry in its pinned block, with its id.
class NodePointer::Pin {
public:
    Pin() = default;
    Pin(BlockPin block, FileId id)
        : id_(id),
          entry_(entryAt(block.get(), numberOf(id) % PointerEntry::perBlock)),
          block_(std::move(block)) {}
    Pin(Pin&& other) noexcept
        : id_(other.id_),
          entry_(std::exchange(other.entry_, PointerEntry())),
          block_(std::move(other.block_)) {}
    Pin& operator=(Pin&& other) noexcept {
        id_ = other.id_;
        entry_ = std::exchange(other.entry_, PointerEntry());
        block_ = std::move(other.block_);
        return *this;
    }

    [[nodiscard]] explicit operator bool() const { return static_cast<bool>(entry_); }
    [[nodiscard]] FileId id() const { return id_; }
    [[nodiscard]] PointerEntry const* operator->() const { return &entry_; }
    [[nodiscard]] PointerEntry const& entry() const { return entry_; }
    /// The entry for a change; the block goes back as changed.
    [[nodiscard]] PointerEntry& change() {
        block_.changed();
        return entry_;
    }

private:
    FileId id_;
    PointerEntry entry_;
    BlockPin block_;
};

NodePointer::NodePointer(std::uint32_t entries)
    : lock_({"================ Lock Node Pointer ================",
             "================ Unlock Node Pointer ================"}),
      blocks_(std::make_unique<Blocks>(
          static_cast<std::uint32_t>((std::uint64_t{entries} + 127) >> PointerEntry::slotBits))) {}

NodePointer::~NodePointer() {
    close();
}

bool NodePointer::create(QString const& path) {
    MORVA_METHOD("create");
    TracedLock guard(lock_);
    QString const name = path + QStringLiteral(".blocks");
    if (!blocks_->create(name, blockBytes, 0, 0, Morva::RawFile::Mode::ReadWrite)) {
        MORVA_TRACE(Always) << "Failed to create block file" << name;
        return scope.result(false);
    }
    if (!setControl() || !getControl()) {
        MORVA_TRACE(Always) << "Failed to initialize block file" << name;
        (void)blocks_->close(); // of no use
        return scope.result(false);
    }
    valid_ = true;
    return scope.result(true);
}

bool NodePointer::open(QString const& path) {
    MORVA_METHOD("open");
    TracedLock guard(lock_);
    QString const name = path + QStringLiteral(".blocks");
    if (!blocks_->open(name, 0, Morva::RawFile::Mode::ReadWrite)) {
        MORVA_TRACE(Always) << "Failed to open NodePointer block file" << name;
        return scope.result(false);
    }
    if (blocks_->blockSize() != blockBytes || !getControl()) {
        MORVA_TRACE(Always) << "Failed to initialize NodePointer block file" << name;
        (void)blocks_->close(); // of no use
        return scope.result(false);
    }
    valid_ = true;
    return scope.result(true);
}

bool NodePointer::close() {
    TracedLock guard(lock_);
    if (!control_)
        return true;
    valid_ = false;
    blocks_->returnBlock(std::exchange(control_, nullptr), false);
    return blocks_->close().ok();
}

bool NodePointer::flush(bool sync) {
    TracedLock guard(lock_);
    return control_ && blocks_->flush().ok() && (!sync || blocks_->sync().ok());
}

bool NodePointer::setControl() {
    std::uint64_t number = 0;
    auto const fresh = blocks_->newBlock(number);
    void* const block = fresh ? *fresh : nullptr;
    if (!block || number != Blocks::firstBlock()) {
        MORVA_TRACE(Always) << "Failed to intialize block file" << number;
        if (block)
            blocks_->returnBlock(block, false);
        return false;
    }
    return blocks_->returnBlock(block, true);
}

bool NodePointer::getControl() {
    auto const control = blocks_->getBlock(Blocks::firstBlock());
    control_ = control ? *control : nullptr;
    return control_ != nullptr;
}

FileId NodePointer::rootId() const {
    return FileId{Blocks::firstBlock() * PointerEntry::perBlock + rootSlot};
}

bool NodePointer::setRoot(NodeNumber node, Instance instance) {
    TracedLock guard(lock_);
    if (!control_)
        return false;
    PointerEntry root = entryAt(control_, rootSlot);
    root.generation(0);
    root.instance(instance);
    root.node(node);
    root.previous({});
    root.next({});
    return blocks_->updateBlock(control_);
}

NodePointer::Pin NodePointer::get(FileId id) const {
    std::uint64_t const block = numberOf(id) >> PointerEntry::slotBits;
    std::uint32_t const slot = numberOf(id) % PointerEntry::perBlock;
    if (!control_ || block < Blocks::firstBlock() || block >= blocks_->blockCount() ||
        (block == Blocks::firstBlock() && slot != rootSlot))
        return {};
    BlockPin pin = BlockPin::get(*blocks_, block);
    if (!pin || entryAt(pin.get(), slot).generation() != generationOf(id))
        return {};
    return {std::move(pin), id};
}

NodePointer::Pin NodePointer::getUsed(FileId id) const {
    Pin pin = get(id);
    return pin && pin->node() ? std::move(pin) : Pin();
}

NodePointer::Pin NodePointer::older(PointerEntry entry) const {
    Pin pin = entry.previous() ? getUsed(entry.previous()) : Pin();
    // Instances fall along a chain; one that doesn't has been linked into it by damage.
    return pin && pin->instance() < entry.instance() ? std::move(pin) : Pin();
}

FileId NodePointer::freeHead() const {
    return entryAt(control_, 0).previous();
}

void NodePointer::setFreeHead(FileId id) {
    entryAt(control_, 0).previous(id);
    blocks_->updateBlock(control_);
}

bool NodePointer::extend() {
    std::uint64_t number = 0;
    auto const fresh = blocks_->newBlock(number);
    void* const block = fresh ? *fresh : nullptr;
    std::uint64_t const first = number * PointerEntry::perBlock;
    if (!block || first > UINT32_MAX - PointerEntry::perBlock) {
        MORVA_TRACE(Always) << "Failed to get new entry block";
        if (block)
            (void)blocks_->freeBlock(block); // it was taken just now
        return false;
    }
    for (std::uint32_t slot = 0; slot < PointerEntry::perBlock; ++slot) {
        PointerEntry entry = entryAt(block, slot);
        bool const last = slot + 1 == PointerEntry::perBlock;
        entry.previous(last ? FileId{} : FileId{first + slot + 1});
        entry.next(slot == 0 ? FileId{Blocks::firstBlock() * PointerEntry::perBlock}
                             : FileId{first + slot - 1});
    }
    blocks_->returnBlock(block, true);
    setFreeHead(FileId{first});
    return true;
}

NodePointer::Pin NodePointer::takeFree() {
    Failures::Watch const watch;
    Pin taken = freeHead() ? get(freeHead()) : Pin();
    if (watch.any())
        return {};
    if (freeHead() && (!taken || taken->node())) {
        MORVA_TRACE(Always) << "Free list of node pointers is damaged at" << freeHead();
        taken = {};
    }
    if (!taken) {
        if (!extend())
            return {};
        taken = get(freeHead());
        if (!taken)
            return {};
    }
    FileId const head = taken->previous();
    Pin next = head ? get(head) : Pin();
    if (watch.any())
        return {};
    setFreeHead(head);
    if (next && !next->node())
        next.change().next(head);
    PointerEntry& entry = taken.change();
    entry.instance({});
    entry.node({});
    entry.previous({});
    entry.next({});
    return taken;
}

void NodePointer::putFree(Pin& pin, Pin& next) {
    FileId const oldHead = freeHead();
    PointerEntry& entry = pin.change();
    entry.generation(entry.generation() + 1);
    entry.instance({});
    entry.node({});
    entry.previous(oldHead);
    entry.next(oldHead);
    FileId const head = makeId(numberOf(pin.id()), entry.generation());
    if (next && !next->node())
        next.change().next(head);
    setFreeHead(head);
}

bool NodePointer::release(Pin& pin) {
    // All that is read comes first, so that a failure leaves the chain as it was.
    Failures::Watch const watch;
    Pin newer = pin->next() ? getUsed(pin->next()) : Pin();
    Pin behind = older(pin.entry());
    Pin third = behind ? older(behind.entry()) : Pin();
    Pin free = freeHead() ? get(freeHead()) : Pin();
    if (watch.any())
        return false;
    if (newer || !behind) {
        FileId const previous = pin->previous();
        FileId const next = pin->next();
        if (newer && newer->previous() == pin.id())
            newer.change().previous(previous);
        if (behind && behind->next() == pin.id())
            behind.change().next(next);
        putFree(pin, free);
        return true;
    }
    // The head's id has to stay valid: it takes over the older version, whose entry goes.
    PointerEntry& head = pin.change();
    if (third && third->next() == behind.id())
        third.change().next(pin.id());
    head.instance(behind->instance());
    head.node(behind->node());
    head.previous(behind->previous());
    putFree(behind, free);
    return true;
}

FileId NodePointer::newId(NodeNumber node, Instance instance) {
    TracedLock guard(lock_);
    Pin taken = control_ && node ? takeFree() : Pin();
    if (!taken)
        return {};
    taken.change().instance(instance);
    taken.change().node(node);
    return taken.id();
}

NodeNumber NodePointer::getNode(FileId id) const {
    MORVA_METHOD("getNode");
    TracedLock guard(lock_);
    Pin const head = get(id);
    return scope.result(head ? head->node() : NodeNumber{});
}

Instance NodePointer::currentInstance(FileId id) const {
    MORVA_METHOD("currentInstance");
    TracedLock guard(lock_);
    Pin const head = getUsed(id);
    return scope.result(head ? head->instance() : Instance{});
}

Instance NodePointer::newInstance(FileId id, NodeNumber node, Instance instance) {
    TracedLock guard(lock_);
    Pin head = node ? getUsed(id) : Pin();
    if (!head)
        return {};
    if (head->instance() == instance) {
        head.change().node(node);
        return instance;
    }
    Failures::Watch const watch;
    Pin behind = older(head.entry());
    Pin version = watch.any() ? Pin() : takeFree();
    if (!version)
        return {};
    Instance const before = head->instance();
    PointerEntry& entry = version.change();
    entry.instance(before);
    entry.node(head->node());
    entry.next(id);
    entry.previous(head->previous());
    if (behind)
        behind.change().next(version.id());
    head.change().instance(instance);
    head.change().node(node);
    head.change().previous(version.id());
    return before;
}

NodeNumber NodePointer::getInstance(FileId id, Instance instance) const {
    MORVA_METHOD("getInstance");
    TracedLock guard(lock_);
    for (Pin entry = getUsed(id); entry; entry = older(entry.entry()))
        if (entry->instance() < instance)
            return scope.result(entry->node());
    return scope.result(NodeNumber{});
}

bool NodePointer::findInstance(FileId id, Instance instance, NodeNumber& node,
                               bool& current) const {
    TracedLock guard(lock_);
    Pin entry = getUsed(id);
    while (entry && entry->instance() > instance)
        entry = older(entry.entry());
    if (!entry || entry->instance() != instance)
        return false;
    node = entry->node();
    current = entry.id() == id;
    return true;
}

bool NodePointer::freeId(FileId id) {
    TracedLock guard(lock_);
    Pin head = getUsed(id);
    if (!head || head->previous() || id == rootId())
        return false;
    return release(head);
}

bool NodePointer::freeInstance(FileId id, Instance instance, NodeNumber& node) {
    MORVA_METHOD("freeInstance (FileNode)");
    Instance unused;
    return scope.result(freeVersion(id, instance, node, unused));
}

bool NodePointer::freeInstance(FileId id, Instance instance, Instance& lastInstance) {
    MORVA_METHOD("freeInstance (LastInstance)");
    NodeNumber unused;
    return scope.result(freeVersion(id, instance, unused, lastInstance));
}

bool NodePointer::freeVersion(FileId id, Instance instance, NodeNumber& node,
                              Instance& lastInstance) {
    TracedLock guard(lock_);
    Pin entry = getUsed(id);
    while (entry && entry->instance() > instance)
        entry = older(entry.entry());
    if (!entry)
        return false;
    if (entry->instance() < instance) {
        lastInstance = entry->instance();
        return false;
    }
    // The root's entry itself never goes to the free list.
    if (entry.id() == rootId() && !older(entry.entry()))
        return false;
    node = entry->node();
    return release(entry);
}

bool NodePointer::instanceList(FileId id, std::vector<Instance>& list) const {
    list.clear();
    TracedLock guard(lock_);
    for (Pin entry = getUsed(id); entry; entry = older(entry.entry()))
        list.push_back(entry->instance());
    std::reverse(list.begin(), list.end());
    return !list.empty();
}

std::uint64_t NodePointer::hits() const {
    TracedLock guard(lock_);
    return blocks_->hits();
}

std::uint64_t NodePointer::misses() const {
    TracedLock guard(lock_);
    return blocks_->misses();
}

std::uint32_t NodePointer::size() const {
    TracedLock guard(lock_);
    return blocks_->size();
}

bool NodePointer::walk(std::function<bool(Entry const&)> const& visit) const {
    bool whole = true;
    std::array<std::uint8_t, blockBytes> copy;
    for (std::uint64_t block = Blocks::firstBlock();; ++block) {
        {
            TracedLock guard(lock_);
            if (!control_)
                return false;
            if (block >= blocks_->blockCount())
                return whole;
            BlockPin const pin = BlockPin::get(*blocks_, block);
            if (!pin) {
                whole = false;
                continue;
            }
            std::memcpy(copy.data(), pin.get(), copy.size());
        }
        bool const isFirst = block == Blocks::firstBlock();
        std::uint32_t const end = isFirst ? rootSlot + 1 : PointerEntry::perBlock;
        for (std::uint32_t slot = isFirst ? rootSlot : 0; slot < end; ++slot) {
            PointerEntry const entry = entryAt(copy.data(), slot);
            FileId const id = makeId(block * PointerEntry::perBlock + slot, entry.generation());
            if (!visit({id, entry.instance(), entry.node(), entry.previous(), entry.next()}))
                return whole;
        }
    }
}

bool NodePointer::freeList(std::vector<FileId>& list) const {
    list.clear();
    TracedLock guard(lock_);
    if (!control_)
        return false;
    std::uint64_t const most = blocks_->blockCount() * PointerEntry::perBlock;
    for (FileId id = freeHead(); id;) {
        Pin const entry = get(id);
        if (!entry || entry->node() || list.size() >= most)
            return false;
        list.push_back(id);
        id = entry->previous();
    }
    return true;
}

} // namespace Replication
