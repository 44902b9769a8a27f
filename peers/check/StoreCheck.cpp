#include "peers/check/StoreCheck.h"

#include "peers/check/SnapshotCheck.h"
#include "replication/repository/store/ControlBlock.h"
#include "replication/repository/store/NodeFile.h"
#include "replication/repository/store/SavedState.h"

#include <cstring>

namespace Morva {

using Replication::ControlBlock;
using Replication::ControlFields;
using Replication::Instance;
using Replication::NodeBlock;
using Replication::NodeFile;
using Replication::NodeInfo;
using Replication::NodeNumber;
using Replication::NodeStream;
using Replication::SavedRecords;
using Replication::StreamId;
using Replication::TreeRecord;

void StoreCheck::run() {
    ++store_.report.figures.stores;
    if (!files_.open(store_.path + "/files", store_.where() + "/files", NodeBlock::size,
                     store_.report) ||
        !checkControl())
        return;
    store_.nodes.resize(files_.count());
    bool const pointers = !going_ && store_.pointers.load(store_.path + "/files.ptrs.blocks",
                                                          store_.where() + "/files.ptrs.blocks",
                                                          store_.instance, store_.report);
    if (pointers)
        findOwners();
    findKept();
    scanNodes();
    if (!pointers)
        return;
    LiveTreeCheck(store_).run(counters_);
    if (store_.id)
        SnapshotCheck(store_).run();
}

bool StoreCheck::checkControl() {
    auto const tell = [this](QString const& text) { store_.fault(FaultKind::Control, text); };
    BlockPin const pin = files_.pin(Blocks::firstBlock());
    if (!pin) {
        tell(QStringLiteral("the control block can't be read"));
        return false;
    }
    ControlBlock::Image image;
    std::memcpy(image.data(), pin.bytes(), image.size());
    ControlFields fields(image.data());
    if (fields.version() > ControlFields::currentVersion) {
        tell(QStringLiteral("the control block has version %1").arg(fields.version()));
        return false;
    }
    if (fields.version() < ControlFields::currentVersion)
        fields.upgrade();
    if (fields.storeId() != store_.id)
        tell(QStringLiteral("the control block is of store %1").arg(fields.storeId().value));
    if (!fields.instance() || fields.lastInstance() >= fields.instance() ||
        fields.validateInstance() > fields.instance())
        tell(QStringLiteral("the control block has instance %1, the last one %2, that of the "
                            "validate snapshot %3")
                 .arg(fields.instance().value)
                 .arg(fields.lastInstance().value)
                 .arg(fields.validateInstance().value));
    if (fields.lastSequence() > fields.sequence())
        tell(QStringLiteral("the control block has sequence %1, but closed at %2")
                 .arg(fields.sequence())
                 .arg(fields.lastSequence()));
    if (fields.filterType() > 2)
        tell(QStringLiteral("the control block has filter type %1").arg(fields.filterType()));
    if (fields.openMark())
        store_.report.note(store_.where() + QStringLiteral(" was not closed"));
    going_ = fields.markedForDeletion();
    if (going_)
        store_.report.note(store_.where() + QStringLiteral(" is to be erased"));
    store_.caseSensitive = fields.caseSensitive();
    store_.instance = fields.instance();
    counters_ = {fields.directories(), fields.files()};
    return true;
}

void StoreCheck::findOwners() {
    for (std::uint64_t number = 0; number < store_.pointers.size(); ++number) {
        std::uint64_t const node = store_.pointers.at(number).node.value;
        if (node == 0 || number < PointerTable::number(PointerTable::rootId()))
            continue;
        if (node <= Blocks::firstBlock() || node >= store_.nodes.size()) {
            store_.fault(FaultKind::Pointer,
                         QStringLiteral("id %1 has node %2, which doesn't exist")
                             .arg(store_.pointers.id(number).value)
                             .arg(node));
            continue;
        }
        std::uint32_t& owner = store_.nodes[node].owner;
        if (owner != 0)
            store_.fault(FaultKind::Pointer, QStringLiteral("ids %1 and %2 have the same node %3")
                                                 .arg(store_.pointers.id(owner).value)
                                                 .arg(store_.pointers.id(number).value)
                                                 .arg(node));
        owner = static_cast<std::uint32_t>(number);
    }
}

void StoreCheck::findKept() {
    if (going_)
        return;
    SavedRecords records(store_.path + "/state");
    auto read = records.load();
    if (read)
        read = Replication::SavedState::keptNodes(records, kept_);
    QSet<Replication::StreamId> streams;
    if (read)
        read = Replication::SavedState::keptStreams(records, streams);
    for (auto const id : std::as_const(streams))
        store_.pool.keepStream(id);
    if (!read)
        store_.fault(FaultKind::SavedState,
                     QStringLiteral("the source's open files can't be known: %1").arg(read.text()));
}

void StoreCheck::lost(std::uint64_t first, std::uint64_t end) {
    store_.report.fault(
        FaultKind::LostSpace, files_.where(),
        QStringLiteral("blocks %1 to %2 are neither nodes nor free").arg(first).arg(end - 1));
}

void StoreCheck::scanNodes() {
    std::uint64_t lostFrom = 0;
    files_.scan(Blocks::firstBlock() + 1, store_.report,
                [&](std::uint64_t number, std::uint8_t const* bytes) {
                    bool const isNode = NodeBlock::readOnly(bytes).number().value == number;
                    bool const isFree = files_.isFree(number);
                    if (isNode)
                        checkNode(number, bytes);
                    else if (store_.nodes[number].owner != 0)
                        store_.fault(FaultKind::Pointer,
                                     QStringLiteral("id %1 has block %2, which is no node")
                                         .arg(store_.pointers.id(store_.nodes[number].owner).value)
                                         .arg(number));
                    bool const isLost = !isNode && !isFree;
                    if (isLost && lostFrom == 0)
                        lostFrom = number;
                    else if (!isLost && lostFrom != 0)
                        lost(std::exchange(lostFrom, 0), number);
                });
    if (lostFrom != 0)
        lost(lostFrom, files_.count());
}

void StoreCheck::checkNode(std::uint64_t number, std::uint8_t const* bytes) {
    NodeBlock const node = NodeBlock::readOnly(bytes);
    if (files_.isFree(number)) {
        store_.report.fault(FaultKind::BlockFile, files_.where(),
                            QStringLiteral("block %1 is free and holds a node").arg(number));
        return;
    }
    ++store_.report.figures.nodes;
    NodeState& state = store_.nodes[number];
    state.flags = NodeState::IsNode;
    if (node.liveOnly())
        state.flags |= NodeState::LiveOnly;
    state.linkCount = node.names();
    state.nextLink = node.nextLink();
    state.instance = node.instance();
    state.type = static_cast<std::uint16_t>(node.type());
    checkClaims(number, node);
    store_.pool.addNodeRecord(node.record(), [this, number] {
        return QStringLiteral("%1, node %2").arg(store_.where()).arg(number);
    });
    readRecord(number, node);
}

void StoreCheck::checkClaims(std::uint64_t number, NodeBlock const& node) {
    auto const tell = [&](QString const& text) {
        store_.fault(FaultKind::Node, QStringLiteral("node %1 %2").arg(number).arg(text));
    };
    auto const kept = kept_.contains(NodeNumber{number});
    if (node.claims() == 0 && !kept)
        tell(QStringLiteral("has no claims and wasn't freed"));
    if (node.nextLink() < NodeBlock::firstLink)
        tell(QStringLiteral("would give link number %1 next").arg(node.nextLink()));
    if ((node.typeWord() & ~(NodeBlock::liveOnlyBit | 0xFFFFu)) != 0 || node.type() == 0)
        tell(QStringLiteral("has type %1").arg(node.typeWord()));
    if (!node.instance() || node.instance() > store_.instance)
        tell(QStringLiteral("is of instance %1, the store is at %2")
                 .arg(node.instance().value)
                 .arg(store_.instance.value));
    if (going_)
        return;
    std::uint32_t const owner = store_.nodes[number].owner;
    if (node.referenceCount() != (owner != 0 ? 1U : 0U))
        tell(QStringLiteral("has %1 references, but %2 id")
                 .arg(node.referenceCount())
                 .arg(owner != 0 ? QStringLiteral("one") : QStringLiteral("no")));
    if (owner == 0 && node.versionCount() == 0 && !kept)
        store_.fault(
            FaultKind::Orphan,
            QStringLiteral("node %1 belongs to no id and is no retained version").arg(number));
    else if (owner != 0 && node.instance() < store_.pointers.at(owner).instance)
        tell(QStringLiteral("is of instance %1, its id entered it in %2")
                 .arg(node.instance().value)
                 .arg(store_.pointers.at(owner).instance.value));
}

void StoreCheck::readRecord(std::uint64_t number, NodeBlock const& node) {
    TreeRecord const tree = node.record();
    if (!TreeReader::sound(tree, TreeRecord::nodeSize))
        return; // told of by the census
    auto const length = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(tree.length(), NodeFile::maximumRecord + 1));
    record_.resize(length);
    if (length > NodeFile::maximumRecord ||
        !store_.pool.reader().read(tree, TreeRecord::nodeSize, 0, record_.data(), length)) {
        store_.fault(FaultKind::Node, QStringLiteral("the record of node %1, %2 bytes, can't be "
                                                     "read")
                                          .arg(number)
                                          .arg(tree.length()));
        return;
    }
    checkRecord(number, NodeInfo(store_.caseSensitive ? Qt::CaseSensitive : Qt::CaseInsensitive,
                                 Extent(static_cast<void const*>(record_.data()), length)));
}

void StoreCheck::checkRecord(std::uint64_t number, NodeInfo const& info) {
    auto const tell = [&](QString const& text) {
        store_.fault(FaultKind::Node,
                     QStringLiteral("the record of node %1 %2").arg(number).arg(text));
    };
    std::uint32_t const root = PointerTable::number(PointerTable::rootId());
    if (info.type() == NodeInfo::Empty)
        tell(QStringLiteral("is damaged"));
    else if (info.type() != NodeInfo::Root && store_.nodes[number].owner == root)
        tell(QStringLiteral("is the root's and has type %1").arg(info.type()));
    for (NodeStream const& stream : info.streams()) {
        store_.pool.addStreamReference(stream.id, [this, number] {
            return QStringLiteral("%1, node %2").arg(store_.where()).arg(number);
        });
        if (stream.name.isEmpty() || info.find(stream.name) != &stream)
            tell(QStringLiteral("has two streams named \"%1\"").arg(stream.name));
    }
    if (store_.nodes[number].type != Replication::directoryType)
        return;
    if (NodeStream const* const pages = info.find(Replication::dataStreamName))
        store_.pages[number] = pages->id;
}

} // namespace Morva
