#include "replication/repository/store/NodeFile.h"

#include "base/blocks/Blocks.h"
#include "base/blocks/Failures.h"
#include "base/trace/Trace.h"
#include "replication/repository/streams/Info.h"
#include "replication/repository/streams/Streams.h"

#include <array>
#include <cstring>

namespace Replication {

using Morva::Extent;
using Morva::TracedLock;

/// The block file with a way to bring one block to the file at once.
class NodeFile::File : public Morva::Blocks {
public:
    using Morva::Blocks::Blocks;
    [[nodiscard]] bool writeThrough(void const* block) {
        return updateBlock(block) && cache_.writeNow(block).ok();
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
    close();
}

bool NodeFile::create(QString const& path, std::uint64_t growSize, Morva::RawFile::Mode mode) {
    TracedLock guard(lock_);
    if (!blocks_->create(path, blockSize, reservedBits, growSize, mode)) {
        MORVA_TRACE(Always) << "Failed to create blocks file" << path;
        return false;
    }
    std::uint64_t number = 0;
    auto const control = blocks_->newBlock(number);
    control_ = control ? *control : nullptr;
    if (control_ && number == Morva::Blocks::firstBlock())
        return true;
    MORVA_TRACE(Always) << "Incorrect first block" << number;
    if (control_)
        blocks_->returnBlock(std::exchange(control_, nullptr), false);
    (void)blocks_->close(); // of no use
    return false;
}

bool NodeFile::open(QString const& path, std::uint64_t growSize, Morva::RawFile::Mode mode) {
    TracedLock guard(lock_);
    if (!blocks_->open(path, growSize, mode)) {
        MORVA_TRACE(Always) << "Failed to open blocks file" << path;
        return false;
    }
    if (blocks_->blockSize() == blockSize)
        if (auto const control = blocks_->getBlock(Morva::Blocks::firstBlock()))
            control_ = *control;
    if (control_)
        return true;
    MORVA_TRACE(Always) << "Failed to read control block" << path;
    (void)blocks_->close(); // of no use
    return false;
}

bool NodeFile::close() {
    TracedLock guard(lock_);
    if (!control_)
        return true;
    blocks_->returnBlock(std::exchange(control_, nullptr), false);
    return blocks_->close().ok();
}

bool NodeFile::flush(bool sync) {
    TracedLock guard(lock_);
    return control_ && blocks_->flush().ok() && (!sync || blocks_->sync().ok());
}

bool NodeFile::writeControl() {
    return blocks_->writeThrough(control_);
}

void* NodeFile::allocate(Instance instance) {
    std::uint64_t number = 0;
    void* block = nullptr;
    if (control_)
        if (auto const fresh = blocks_->newBlock(number))
            block = *fresh;
    if (!block) {
        MORVA_TRACE(Always) << "Failed to get a node block";
        return nullptr;
    }
    NodeBlock node(block);
    node.number(NodeNumber{number});
    node.instance(instance);
    node.nextLink(NodeBlock::firstLink);
    return block;
}

NodePin NodeFile::newNode(Instance instance) {
    TracedLock guard(lock_);
    return {this, allocate(instance)};
}

NodePin NodeFile::newNode(Instance instance, std::uint32_t typeWord, NodeTimes const& times,
                          Extent const& record) {
    TracedLock guard(lock_);
    void* const block = allocate(instance);
    if (!block)
        return {};
    NodeBlock node(block);
    node.linkCount(1);
    node.referenceCount(1);
    node.typeWord(typeWord);
    node.times(times);
    if (!putRecord(block, record)) {
        (void)blocks_->freeBlock(block); // it was taken just now
        return {};
    }
    blocks_->updateBlock(block);
    return {this, block};
}

NodePin NodeFile::getNode(NodeNumber number, std::vector<std::uint8_t>& record,
                          bool allowStale) const {
    record.clear();
    TracedLock guard(lock_);
    if (!control_ || number.value <= Morva::Blocks::firstBlock())
        return {};
    auto const found = blocks_->getBlock(number.value);
    if (!found)
        return {};
    void* const block = *found;
    NodeBlock const node(block);
    std::uint64_t const stored = node.number().value;
    if ((allowStale ? stored & blocks_->mask() : stored) != number.value) {
        // Not `discardBlock`: a free block can carry a link of the free blocks' chain that isn't
        // in the file yet.
        blocks_->returnBlock(block, false);
        return {};
    }
    Info info(&pool_.nodeTree(), node.record());
    Morva::Failures::Watch const failures;
    if (info.length() > maximumRecord) {
        MORVA_TRACE(Always) << "Node record too long" << number << info.length();
    } else {
        record.resize(info.length());
        auto const length = static_cast<std::uint32_t>(record.size());
        if (info.read(0, record.data(), length) != length) {
            MORVA_TRACE(Always) << "Failed to read node record" << number;
            record.clear();
        }
        // Not a damaged record, but one that can't be read: it would leave its streams behind.
        if (failures.any()) {
            blocks_->returnBlock(block, false);
            return {};
        }
    }
    return {const_cast<NodeFile*>(this), block};
}

bool NodeFile::update(NodePin const& node) {
    TracedLock guard(lock_);
    return blocks_->updateBlock(node.block_);
}

bool NodeFile::putRecord(void* block, Extent const& record) {
    TreeParameters const& parameters = pool_.nodeTree();
    TreeRecord tree = NodeBlock(block).record();
    if (tree.depth() == 0 && record.size <= parameters.inlineSize()) {
        Info info(&parameters, tree);
        return info.truncate(record.size) && info.write(0, record.data, record.size, false);
    }
    // Made beside the old one, so that a failure half-way leaves that in force.
    alignas(8) std::array<std::uint8_t, TreeRecord::nodeSize> fresh{};
    Morva::Failures::Watch const failures;
    Info info(&parameters, TreeRecord(fresh.data()));
    if (!info.write(0, record.data, record.size, false) || failures.any() ||
        info.length() != record.size) {
        MORVA_TRACE(Always) << "Failed to write node record" << NodeBlock(block).number();
        info.release();
        return false;
    }
    if (tree.depth() != 0)
        parameters.decrementEntry(tree);
    std::memcpy(tree.bytes(), fresh.data(), fresh.size());
    return true;
}

bool NodeFile::writeRecord(NodePin const& node, Extent const& record) {
    TracedLock guard(lock_);
    return putRecord(node.block_, record) && blocks_->updateBlock(node.block_);
}

bool NodeFile::copyRecord(NodePin const& to, NodePin const& from) {
    TracedLock guard(lock_);
    return pool_.nodeTree().takeCopy(to.node().record(), from.node().record()) &&
           blocks_->updateBlock(to.block_);
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
    (void)blocks_->freeBlock(block); // a node in use isn't marked as free
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
