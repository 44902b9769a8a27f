#include "replication/repository/store/PassiveHandles.h"

#include "base/trace/Trace.h"
#include "replication/repository/store/NodeFile.h"
#include "replication/repository/store/SavedState.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/Streams.h"

#include <ctime>
#include <thread>

namespace Replication {

using Morva::Extent;
using Morva::Result;
using Morva::Status;
using Morva::TracedLock;

PassiveHandles::PassiveHandles(Store& store)
    : store_(store),
      lock_({"============== Lock Passive ==============",
             "============= Unlock Passive ============="}) {}

FileNode::Pointer PassiveHandles::enter(NodePin pin, NodeInfo info) {
    NodeNumber const number = pin.node().number();
    auto result = std::make_shared<FileNode>(store_, std::move(pin), std::move(info));
    nodes_[number] = result;
    return result;
}

Result<FileNode::Pointer> PassiveHandles::load(NodeNumber number, bool kept) {
    MORVA_TRACE(Debug) << "Create FileNode" << number;
    thread_local std::vector<std::uint8_t> record;
    MORVA_TRY_LET(NodePin pin, store_.nodes().getNode(number, record));
    if (!pin || (pin.node().claims() == 0 && !kept))
        return FileNode::Pointer();
    NodeInfo info(store_.caseSensitivity(), Extent(static_cast<void const*>(record.data()),
                                                   static_cast<std::uint32_t>(record.size())));
    return enter(std::move(pin), std::move(info));
}

Result<FileNode::Pointer> PassiveHandles::get(NodeNumber number, MustExist mustExist) {
    if (!number)
        return FileNode::Pointer();
    for (;;) {
        std::weak_ptr<FileNode> known;
        {
            TracedLock guard(lock_);
            auto const found = nodes_.find(number);
            if (found == nodes_.end()) {
                MORVA_TRY_LET(FileNode::Pointer result, load(number, false));
                MORVA_CHECK(result || mustExist == MustExist::No, "NeedNotExist == eExistance");
                return result;
            }
            MORVA_TRACE(Debug) << "Try to reuse FileNode" << number;
            known = found->second;
        }
        // Outside the lock: the node may be dying on a thread that needs it.
        if (FileNode::Pointer result = known.lock())
            return result;
        std::this_thread::yield();
    }
}

Result<FileNode::Pointer> PassiveHandles::restore(NodeNumber number) {
    if (!number)
        return FileNode::Pointer();
    std::weak_ptr<FileNode> known;
    {
        TracedLock guard(lock_);
        auto const found = nodes_.find(number);
        if (found == nodes_.end())
            return load(number, store_.saved().keeps(number));
        known = found->second;
    }
    MORVA_TRACE(Debug) << "Use exiting  FileNode" << number;
    return known.lock();
}

Result<FileNode::Pointer> PassiveHandles::create(std::uint32_t type, bool liveOnly,
                                                 std::uint32_t sourceTime, NodeInfo info) {
    thread_local Morva::PackBuffer buffer(1024);
    info.pack(buffer);
    auto const now = static_cast<std::uint32_t>(std::time(nullptr));
    std::uint32_t const word = (type & 0xFFFF) | (liveOnly ? NodeBlock::liveOnlyBit : 0);
    TracedLock guard(lock_);
    MORVA_TRY_LET(NodePin pin,
                  store_.nodes().newNode(store_.currentInstance(), word,
                                         NodeTimes{0, now, now, sourceTime, sourceTime},
                                         buffer.extentWithoutSize()));
    return enter(std::move(pin), std::move(info));
}

Result<FileNode::Pointer> PassiveHandles::copyOf(FileNode const& node) {
    NodeFile& nodes = store_.nodes();
    TracedLock guard(lock_);
    MORVA_TRY_LET(NodePin pin, nodes.newNode(store_.currentInstance()));
    NodeBlock const from = node.node_.node();
    NodeBlock to = pin.node();
    to.linkCount(from.linkCount());
    to.ended(from.ended());
    to.referenceCount(1);
    to.typeWord(from.typeWord());
    to.nextLink(from.nextLink());
    to.times(from.times());
    Status status = nodes.copyRecord(pin, node.node_);
    if (status)
        status = node.info_.duplicateStreamList(store_.streams());
    if (!status) {
        MORVA_TRACE(Always) << "Failed to copy record of node" << node.id();
        nodes.freeNode(std::move(pin));
        return status;
    }
    return enter(std::move(pin), node.info_);
}

void PassiveHandles::release(FileNode& node, bool keep) {
    TracedLock guard(lock_);
    nodes_.erase(node.id());
    if (node.node_.node().claims() == 0 && !keep)
        store_.nodes().freeNode(std::move(node.node_));
    else
        store_.nodes().returnNode(std::move(node.node_));
}

std::size_t PassiveHandles::size() const {
    TracedLock guard(lock_);
    return nodes_.size();
}

std::size_t PassiveHandles::size(NodeFileFigures& files) const {
    TracedLock guard(lock_);
    files = store_.nodes().figures();
    return nodes_.size();
}

Result<FileNode::Pointer> PassiveHandles::enterStale(NodeNumber number, bool unclaimed) {
    thread_local std::vector<std::uint8_t> record;
    TracedLock guard(lock_);
    if (unclaimed && (nodes_.contains(number) || store_.saved().keeps(number)))
        return FileNode::Pointer();
    MORVA_TRY_LET(NodePin pin, store_.nodes().getNode(number, record, true));
    if (!pin)
        return FileNode::Pointer();
    if (unclaimed && pin.node().claims() != 0) {
        store_.nodes().returnNode(std::move(pin));
        return FileNode::Pointer();
    }
    NodeInfo info(store_.caseSensitivity(), Extent(static_cast<void const*>(record.data()),
                                                   static_cast<std::uint32_t>(record.size())));
    return enter(std::move(pin), std::move(info));
}

Status PassiveHandles::erase(NodeNumber number) {
    MORVA_TRY_LET(FileNode::Pointer const node, enterStale(number, false));
    if (node)
        node->dropClaims();
    return {};
}

Status PassiveHandles::freeUnclaimed(NodeNumber number) {
    // Its only pointer goes, and with it the node.
    return enterStale(number, true).status();
}

} // namespace Replication
