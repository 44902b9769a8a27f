#include "replication/repository/store/NodeFile.h"

#include "base/blocks/Blocks.h"
#include "base/trace/Trace.h"
#include "replication/repository/streams/Info.h"
#include "replication/repository/streams/Streams.h"

#include <array>
#include <cstring>

namespace Replication {

using Morva::Extent;
using Morva::Result;
using Morva::Status;
using Morva::TracedLock;

/// The block file with a way to bring one block to the file at once.
class NodeFile::File : public Morva::Blocks {
public:
    using Morva::Blocks::Blocks;
    [[nodiscard]] Morva::Status writeThrough(void const* block) {
        updateBlock(block);
        return cache_.writeNow(block);
    }
};

void NodePin::reset() {
    if (block_)
        std::exchange(file_, nullptr)->giveBack(std::exchange(block_, nullptr));
}

NodeFile::NodeFile(std::uint32_t cacheBlocks, Streams& pool)
    : pool_(pool),
      lock_({"================ Lock Node ================",
             "================ Unlock Node ================"}),
      blocks_(std::make_unique<File>(cacheBlocks)) {}

NodeFile::~NodeFile() {
    (void)close(); // whoever has changed something has flushed it and knows the outcome
}

Status NodeFile::failed(char const* operation, std::uint64_t block) const {
    return Status::failure(Status::Code::IoError, operation, path_, {},
                           {Status::Unit::Block, block});
}

Status NodeFile::create(QString const& path, std::uint64_t growSize, Morva::RawFile::Mode mode) {
    TracedLock guard(lock_);
    path_ = path;
    if (Status status = blocks_->create(path, blockSize, reservedBits, growSize, mode); !status) {
        MORVA_TRACE(Always) << "Failed to create blocks file" << path;
        return status;
    }
    std::uint64_t number = 0;
    Result<void*> const block = blocks_->newBlock(number);
    if (block && number == Morva::Blocks::firstBlock()) {
        control_ = *block;
        return {};
    }
    MORVA_TRACE(Always) << "Incorrect first block" << number;
    if (block)
        blocks_->returnBlock(*block, false);
    (void)blocks_->close(); // nothing of it is to stay
    return block ? failed("create", number) : block.status();
}

Status NodeFile::open(QString const& path, std::uint64_t growSize, Morva::RawFile::Mode mode) {
    TracedLock guard(lock_);
    path_ = path;
    if (Status status = blocks_->open(path, growSize, mode); !status) {
        MORVA_TRACE(Always) << "Failed to open blocks file" << path;
        return status;
    }
    Result<void*> const block =
        blocks_->blockSize() == blockSize
            ? blocks_->getBlock(Morva::Blocks::firstBlock())
            : Status::corruption("open", path, QStringLiteral("wrong block size"));
    if (block) {
        control_ = *block;
        return {};
    }
    MORVA_TRACE(Always) << "Failed to read control block" << path;
    (void)blocks_->close(); // nothing was changed
    return block.status();
}

Status NodeFile::close() {
    TracedLock guard(lock_);
    if (!control_)
        return {};
    blocks_->returnBlock(std::exchange(control_, nullptr), false);
    return blocks_->close();
}

Status NodeFile::flush(bool sync) {
    TracedLock guard(lock_);
    if (!control_)
        return failed("flush", 0);
    MORVA_TRY(blocks_->flush());
    return sync ? blocks_->sync() : Status();
}

Status NodeFile::writeControl() {
    return blocks_->writeThrough(control_);
}

Result<void*> NodeFile::allocate(Instance instance) {
    std::uint64_t number = 0;
    Result<void*> const block = control_ ? blocks_->newBlock(number) : failed("extend", 0);
    if (!block) {
        MORVA_TRACE(Always) << "Failed to get a node block";
        return block;
    }
    NodeBlock node(*block);
    node.number(NodeNumber{number});
    node.instance(instance);
    node.nextLink(NodeBlock::firstLink);
    return block;
}

Result<NodePin> NodeFile::newNode(Instance instance) {
    TracedLock guard(lock_);
    MORVA_TRY_LET(void* const block, allocate(instance));
    return NodePin(this, block);
}

Result<NodePin> NodeFile::newNode(Instance instance, std::uint32_t typeWord, NodeTimes const& times,
                                  Extent const& record) {
    TracedLock guard(lock_);
    MORVA_TRY_LET(void* const block, allocate(instance));
    NodeBlock node(block);
    node.linkCount(1);
    node.referenceCount(1);
    node.typeWord(typeWord);
    node.times(times);
    if (Status status = putRecord(block, record); !status) {
        (void)blocks_->freeBlock(block); // it was just taken
        return status;
    }
    blocks_->updateBlock(block);
    return NodePin(this, block);
}

Result<NodePin> NodeFile::getNode(NodeNumber number, std::vector<std::uint8_t>& record,
                                  bool allowStale) const {
    record.clear();
    TracedLock guard(lock_);
    if (!control_ || number.value <= Morva::Blocks::firstBlock() ||
        number.value >= blocks_->blockCount())
        return NodePin();
    MORVA_TRY_LET(void* const block, blocks_->getBlock(number.value));
    NodeBlock const node(block);
    std::uint64_t const stored = node.number().value;
    if ((allowStale ? stored & blocks_->mask() : stored) != number.value) {
        // Not `discardBlock`: a free block can carry a link of the free blocks' chain that isn't
        // in the file yet.
        blocks_->returnBlock(block, false);
        return NodePin();
    }
    Info info(&pool_.nodeTree(), node.record());
    if (info.length() > maximumRecord) {
        MORVA_TRACE(Always) << "Node record too long" << number << info.length();
        return NodePin(const_cast<NodeFile*>(this), block);
    }
    record.resize(info.length());
    auto const length = static_cast<std::uint32_t>(record.size());
    if (info.read(0, record.data(), length) != length || info.hasFailed()) {
        MORVA_TRACE(Always) << "Failed to read node record" << number;
        record.clear();
    }
    // Not a damaged record, but one that can't be read: it would leave its streams behind.
    if (info.hasFailed()) {
        blocks_->returnBlock(block, false);
        return failed("read record", number.value);
    }
    return NodePin(const_cast<NodeFile*>(this), block);
}

void NodeFile::update(NodePin const& node) {
    TracedLock guard(lock_);
    blocks_->updateBlock(node.block_);
}

Status NodeFile::putRecord(void* block, Extent const& record) {
    TreeParameters const& parameters = pool_.nodeTree();
    TreeRecord tree = NodeBlock(block).record();
    if (tree.depth() == 0 && record.size <= parameters.inlineSize()) {
        Info info(&parameters, tree);
        bool const done =
            info.truncate(record.size) && info.write(0, record.data, record.size, false);
        return done ? Status() : failed("write record", NodeBlock(block).number().value);
    }
    // Made beside the old one, so that a failure half-way leaves that in force.
    alignas(8) std::array<std::uint8_t, TreeRecord::nodeSize> fresh{};
    Info info(&parameters, TreeRecord(fresh.data()));
    if (!info.write(0, record.data, record.size, false) || info.hasFailed() ||
        info.length() != record.size) {
        MORVA_TRACE(Always) << "Failed to write node record" << NodeBlock(block).number();
        info.release();
        return failed("write record", NodeBlock(block).number().value);
    }
    if (tree.depth() != 0)
        parameters.decrementEntry(tree);
    std::memcpy(tree.bytes(), fresh.data(), fresh.size());
    return {};
}

Status NodeFile::writeRecord(NodePin const& node, Extent const& record) {
    TracedLock guard(lock_);
    MORVA_TRY(putRecord(node.block_, record));
    blocks_->updateBlock(node.block_);
    return {};
}

Status NodeFile::copyRecord(NodePin const& to, NodePin const& from) {
    TracedLock guard(lock_);
    if (!pool_.nodeTree().takeCopy(to.node().record(), from.node().record()))
        return failed("copy record", from.node().number().value);
    blocks_->updateBlock(to.block_);
    return {};
}

void NodeFile::returnNode(NodePin&& node) {
    node.reset();
}

void NodeFile::freeNode(NodePin&& node) {
    TracedLock guard(lock_);
    void* const block = std::exchange(node.block_, nullptr);
    node.file_ = nullptr;
    if (!block)
        return;
    Info info(&pool_.nodeTree(), NodeBlock(block).record());
    info.truncate(0);
    (void)blocks_->freeBlock(block); // one that is free already stays so, and is traced
}

void NodeFile::giveBack(void* block) {
    TracedLock guard(lock_);
    blocks_->returnBlock(block, false);
}

NodeFileFigures NodeFile::figures() const {
    TracedLock guard(lock_);
    if (!control_)
        return {};
    return {blocks_->blockCount(), blocks_->freeCount(), blocks_->hits(), blocks_->misses(),
            blocks_->size()};
}

std::uint64_t NodeFile::totalBlocks() const {
    TracedLock guard(lock_);
    return blocks_->blockCount();
}

std::uint64_t NodeFile::freeBlocks() const {
    TracedLock guard(lock_);
    return blocks_->freeCount();
}

std::uint64_t NodeFile::firstBlock() const {
    return Morva::Blocks::firstBlock();
}

} // namespace Replication
