#include "replication/repository/store/NodePointer.h"

#include "base/blocks/Blocks.h"
#include "base/trace/Trace.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace Replication {

using Morva::BlockPin;
using Morva::Blocks;
using Morva::Result;
using Morva::Status;
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
    (void)close(); // whoever has changed something has flushed it and knows the outcome
}

Status NodePointer::failed(char const* operation) const {
    return Status::failure(Status::Code::IoError, operation, path_,
                           QStringLiteral("the file isn't open"));
}

Status NodePointer::create(QString const& path) {
    MORVA_METHOD("create");
    TracedLock guard(lock_);
    path_ = path + QStringLiteral(".blocks");
    Status status = blocks_->create(path_, blockBytes, 0, 0, Morva::RawFile::Mode::ReadWrite);
    if (!status) {
        MORVA_TRACE(Always) << "Failed to create block file" << path_;
        return status;
    }
    status = setControl();
    if (status)
        status = getControl();
    if (!status) {
        MORVA_TRACE(Always) << "Failed to initialize block file" << path_;
        (void)blocks_->close(); // nothing of it is to stay
        return status;
    }
    valid_ = true;
    return {};
}

Status NodePointer::open(QString const& path) {
    MORVA_METHOD("open");
    TracedLock guard(lock_);
    path_ = path + QStringLiteral(".blocks");
    Status status = blocks_->open(path_, 0, Morva::RawFile::Mode::ReadWrite);
    if (!status) {
        MORVA_TRACE(Always) << "Failed to open NodePointer block file" << path_;
        return status;
    }
    status = blocks_->blockSize() == blockBytes
                 ? getControl()
                 : Status::corruption("open", path_, QStringLiteral("wrong block size"));
    if (!status) {
        MORVA_TRACE(Always) << "Failed to initialize NodePointer block file" << path_;
        (void)blocks_->close(); // nothing was changed
        return status;
    }
    valid_ = true;
    return {};
}

Status NodePointer::close() {
    TracedLock guard(lock_);
    if (!control_)
        return {};
    valid_ = false;
    blocks_->returnBlock(std::exchange(control_, nullptr), false);
    return blocks_->close();
}

Status NodePointer::flush(bool sync) {
    TracedLock guard(lock_);
    if (!control_)
        return failed("flush");
    MORVA_TRY(blocks_->flush());
    return sync ? blocks_->sync() : Status();
}

Status NodePointer::setControl() {
    std::uint64_t number = 0;
    MORVA_TRY_LET(void* const block, blocks_->newBlock(number));
    bool const first = number == Blocks::firstBlock();
    blocks_->returnBlock(block, first);
    if (first)
        return {};
    MORVA_TRACE(Always) << "Failed to intialize block file" << number;
    return Status::corruption("create", path_, QStringLiteral("the first block has another number"),
                              {Status::Unit::Block, number});
}

Status NodePointer::getControl() {
    MORVA_TRY_LET(control_, blocks_->getBlock(Blocks::firstBlock()));
    return {};
}

FileId NodePointer::rootId() const {
    return FileId{Blocks::firstBlock() * PointerEntry::perBlock + rootSlot};
}

void NodePointer::setRoot(NodeNumber node, Instance instance) {
    TracedLock guard(lock_);
    PointerEntry root = entryAt(control_, rootSlot);
    root.generation(0);
    root.instance(instance);
    root.node(node);
    root.previous({});
    root.next({});
    blocks_->updateBlock(control_);
}

Result<NodePointer::Pin> NodePointer::get(FileId id) const {
    std::uint64_t const block = numberOf(id) >> PointerEntry::slotBits;
    std::uint32_t const slot = numberOf(id) % PointerEntry::perBlock;
    if (!control_ || block < Blocks::firstBlock() || block >= blocks_->blockCount() ||
        (block == Blocks::firstBlock() && slot != rootSlot))
        return Pin();
    BlockPin pin = BlockPin::get(*blocks_, block);
    if (!pin)
        return pin.status();
    if (entryAt(pin.get(), slot).generation() != generationOf(id))
        return Pin();
    return Pin(std::move(pin), id);
}

Result<NodePointer::Pin> NodePointer::getUsed(FileId id) const {
    MORVA_TRY_LET(Pin pin, get(id));
    return pin && pin->node() ? std::move(pin) : Pin();
}

Result<NodePointer::Pin> NodePointer::older(PointerEntry entry) const {
    if (!entry.previous())
        return Pin();
    MORVA_TRY_LET(Pin pin, getUsed(entry.previous()));
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

Status NodePointer::extend() {
    std::uint64_t number = 0;
    Result<void*> const made = blocks_->newBlock(number);
    std::uint64_t const first = number * PointerEntry::perBlock;
    if (!made || first > UINT32_MAX - PointerEntry::perBlock) {
        MORVA_TRACE(Always) << "Failed to get new entry block";
        if (!made)
            return made.status();
        (void)blocks_->freeBlock(*made); // it was just taken
        return Status::failure(Status::Code::NoSpace, "extend", path_,
                               QStringLiteral("there are no more numbers for files"));
    }
    void* const block = *made;
    for (std::uint32_t slot = 0; slot < PointerEntry::perBlock; ++slot) {
        PointerEntry entry = entryAt(block, slot);
        bool const last = slot + 1 == PointerEntry::perBlock;
        entry.previous(last ? FileId{} : FileId{first + slot + 1});
        entry.next(slot == 0 ? FileId{Blocks::firstBlock() * PointerEntry::perBlock}
                             : FileId{first + slot - 1});
    }
    blocks_->returnBlock(block, true);
    setFreeHead(FileId{first});
    return {};
}

Result<NodePointer::Pin> NodePointer::takeFree() {
    Pin taken;
    if (freeHead()) {
        MORVA_TRY_LET(taken, get(freeHead()));
        if (!taken || taken->node()) {
            MORVA_TRACE(Always) << "Free list of node pointers is damaged at" << freeHead();
            taken = {};
        }
    }
    if (!taken) {
        MORVA_TRY(extend());
        MORVA_TRY_LET(taken, get(freeHead()));
    }
    FileId const head = taken->previous();
    Pin next;
    if (head) {
        MORVA_TRY_LET(next, get(head));
    }
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

Status NodePointer::release(Pin& pin) {
    // All that is read comes first, so that a failure leaves the chain as it was.
    Pin newer, third, free;
    if (pin->next()) {
        MORVA_TRY_LET(newer, getUsed(pin->next()));
    }
    MORVA_TRY_LET(Pin behind, older(pin.entry()));
    if (behind) {
        MORVA_TRY_LET(third, older(behind.entry()));
    }
    if (freeHead()) {
        MORVA_TRY_LET(free, get(freeHead()));
    }
    if (newer || !behind) {
        FileId const previous = pin->previous();
        FileId const next = pin->next();
        if (newer && newer->previous() == pin.id())
            newer.change().previous(previous);
        if (behind && behind->next() == pin.id())
            behind.change().next(next);
        putFree(pin, free);
        return {};
    }
    // The head's id has to stay valid: it takes over the older version, whose entry goes.
    PointerEntry& head = pin.change();
    if (third && third->next() == behind.id())
        third.change().next(pin.id());
    head.instance(behind->instance());
    head.node(behind->node());
    head.previous(behind->previous());
    putFree(behind, free);
    return {};
}

Result<FileId> NodePointer::newId(NodeNumber node, Instance instance) {
    TracedLock guard(lock_);
    if (!control_ || !node)
        return Status::failure(Status::Code::InvalidArgument, "make id", path_);
    MORVA_TRY_LET(Pin taken, takeFree());
    taken.change().instance(instance);
    taken.change().node(node);
    return taken.id();
}

Result<NodeNumber> NodePointer::getNode(FileId id) const {
    MORVA_METHOD("getNode");
    TracedLock guard(lock_);
    MORVA_TRY_LET(Pin const head, get(id));
    return scope.result(head ? head->node() : NodeNumber{});
}

Result<Instance> NodePointer::currentInstance(FileId id) const {
    MORVA_METHOD("currentInstance");
    TracedLock guard(lock_);
    MORVA_TRY_LET(Pin const head, getUsed(id));
    return scope.result(head ? head->instance() : Instance{});
}

Result<Instance> NodePointer::newInstance(FileId id, NodeNumber node, Instance instance) {
    TracedLock guard(lock_);
    if (!node)
        return Instance{};
    MORVA_TRY_LET(Pin head, getUsed(id));
    if (!head)
        return Instance{};
    if (head->instance() == instance) {
        head.change().node(node);
        return instance;
    }
    MORVA_TRY_LET(Pin behind, older(head.entry()));
    MORVA_TRY_LET(Pin version, takeFree());
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

Result<NodeNumber> NodePointer::getInstance(FileId id, Instance instance) const {
    MORVA_METHOD("getInstance");
    TracedLock guard(lock_);
    MORVA_TRY_LET(Pin entry, getUsed(id));
    while (entry && entry->instance() >= instance) {
        MORVA_TRY_LET(entry, older(entry.entry()));
    }
    return scope.result(entry ? entry->node() : NodeNumber{});
}

Result<NodePointer::Pin> NodePointer::newestUpTo(FileId id, Instance instance) const {
    MORVA_TRY_LET(Pin entry, getUsed(id));
    while (entry && entry->instance() > instance) {
        MORVA_TRY_LET(entry, older(entry.entry()));
    }
    return entry;
}

Result<std::optional<NodePointer::Version>> NodePointer::findInstance(FileId id,
                                                                      Instance instance) const {
    TracedLock guard(lock_);
    MORVA_TRY_LET(Pin const entry, newestUpTo(id, instance));
    std::optional<Version> result;
    if (entry && entry->instance() == instance)
        result = {entry->node(), entry.id() == id};
    return result;
}

Result<bool> NodePointer::freeId(FileId id) {
    TracedLock guard(lock_);
    MORVA_TRY_LET(Pin head, getUsed(id));
    if (!head || head->previous() || id == rootId())
        return false;
    MORVA_TRY(release(head));
    return true;
}

Result<NodeNumber> NodePointer::freeInstance(FileId id, Instance instance) {
    MORVA_METHOD("freeInstance (FileNode)");
    Instance unused;
    return freeVersion(id, instance, unused);
}

Result<bool> NodePointer::freeInstance(FileId id, Instance instance, Instance& lastInstance) {
    MORVA_METHOD("freeInstance (LastInstance)");
    MORVA_TRY_LET(NodeNumber const freed, freeVersion(id, instance, lastInstance));
    return scope.result(static_cast<bool>(freed));
}

Result<NodeNumber> NodePointer::freeVersion(FileId id, Instance instance, Instance& lastInstance) {
    TracedLock guard(lock_);
    MORVA_TRY_LET(Pin entry, newestUpTo(id, instance));
    if (!entry)
        return NodeNumber{};
    if (entry->instance() < instance) {
        lastInstance = entry->instance();
        return NodeNumber{};
    }
    // The root's entry itself never goes to the free list.
    if (entry.id() == rootId()) {
        MORVA_TRY_LET(Pin const behind, older(entry.entry()));
        if (!behind)
            return NodeNumber{};
    }
    NodeNumber const node = entry->node();
    MORVA_TRY(release(entry));
    return node;
}

Result<std::vector<Instance>> NodePointer::instanceList(FileId id) const {
    std::vector<Instance> list;
    TracedLock guard(lock_);
    MORVA_TRY_LET(Pin entry, getUsed(id));
    while (entry) {
        list.push_back(entry->instance());
        MORVA_TRY_LET(entry, older(entry.entry()));
    }
    std::reverse(list.begin(), list.end());
    return list;
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

Status NodePointer::walk(std::function<bool(Entry const&)> const& visit) const {
    Status status;
    std::array<std::uint8_t, blockBytes> copy;
    for (std::uint64_t block = Blocks::firstBlock();; ++block) {
        {
            TracedLock guard(lock_);
            if (!control_ || block >= blocks_->blockCount())
                return status;
            BlockPin const pin = BlockPin::get(*blocks_, block);
            if (!pin) {
                status.update(Status(pin.status()));
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
                return status;
        }
    }
}

Status NodePointer::freeList(std::vector<FileId>& list) const {
    list.clear();
    TracedLock guard(lock_);
    if (!control_)
        return {};
    std::uint64_t const most = blocks_->blockCount() * PointerEntry::perBlock;
    for (FileId id = freeHead(); id;) {
        MORVA_TRY_LET(Pin const entry, get(id));
        if (!entry || entry->node() || list.size() >= most)
            return Status::corruption("read free list", path_,
                                      QStringLiteral("the list is damaged"),
                                      {Status::Unit::Record, numberOf(id)});
        list.push_back(id);
        id = entry->previous();
    }
    return {};
}

} // namespace Replication
