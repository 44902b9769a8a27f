// The records of a store.

#include "base/files/BufferedFile.h"
#include "base/files/RawFile.h"
#include "base/trees/BPlusTree.h"
#include "peers/check/BlockFile.h"
#include "peers/check/Inspector.h"
#include "peers/check/PointerTable.h"
#include "peers/check/Printable.h"
#include "peers/check/TreeReader.h"
#include "replication/repository/store/ControlBlock.h"
#include "replication/repository/store/DirectoryPage.h"
#include "replication/repository/store/NodeFile.h"
#include "replication/repository/store/NodeInfo.h"
#include "replication/repository/store/SnapshotFile.h"
#include "replication/repository/streams/DedupFile.h"
#include "replication/repository/streams/DedupStatistics.h"
#include "replication/repository/streams/StreamNode.h"

#include <array>
#include <set>

namespace Morva {

using Replication::ControlBlock;
using Replication::ControlFields;
using Replication::DedupFile;
using Replication::DirectoryEntry;
using Replication::DirKey;
using Replication::FileId;
using Replication::Instance;
using Replication::NodeBlock;
using Replication::NodeFile;
using Replication::NodeInfo;
using Replication::NodeStream;
using Replication::PageWalk;
using Replication::PointerEntry;
using Replication::SnapshotEntry;
using Replication::SnapshotFile;
using Replication::StreamId;
using Replication::StreamNode;
using Replication::TreeRecord;

namespace DirectoryPage = Replication::DirectoryPage;

namespace {

constexpr std::uint32_t cachePages = 256;
constexpr std::uint32_t pointerBlock = PointerEntry::size * PointerEntry::perBlock;

QString liveOnlyText(bool liveOnly) {
    return liveOnly ? QStringLiteral(", live-only") : QString();
}

} // namespace

void Inspector::stores(Words) {
    auto const names = FileSystem::inForce().names(paths_.stores, FileSystem::Kind::Directory);
    if (!names)
        return fault(names.status().text());
    for (QString const& name : *names) {
        say(QStringLiteral("store %1").arg(name.toULongLong(nullptr, 16)));
        std::vector<std::uint8_t> node, record;
        std::vector<std::uint8_t> block;
        PointerEntry root;
        Replication::StoreId const before =
            std::exchange(store_, Replication::StoreId{name.toULongLong(nullptr, 16)});
        if (pointer(PointerTable::rootId(), root, block) &&
            this->record(storePath() + "/files", NodeBlock::size, root.node().value, node))
            nodeInfo(node);
        store_ = before;
    }
}

void Inspector::control(Words) {
    QString const path = storePath();
    std::vector<std::uint8_t> bytes;
    if (path.isEmpty() || !record(path + "/files", NodeBlock::size, Blocks::firstBlock(), bytes))
        return;
    ControlFields f(bytes.data());
    if (f.version() > ControlFields::currentVersion)
        fault(QStringLiteral("version %1 isn't known").arg(f.version()));
    say(QStringLiteral("version %1, store %2, replay id %3")
            .arg(f.version())
            .arg(f.storeId().value)
            .arg(f.replayId().value));
    say(QStringLiteral("instance %1, before it %2%3, validate snapshot %4%5")
            .arg(f.instance().value)
            .arg(f.lastInstance().value)
            .arg(f.deleteLastInstance() ? QStringLiteral(" (to be retired)") : QString())
            .arg(f.validateInstance().value)
            .arg(f.deleteValidateInstance() ? QStringLiteral(" (to be retired)") : QString()));
    say(QStringLiteral("sequence %1, at the last close %2")
            .arg(f.sequence())
            .arg(f.lastSequence()));
    ControlFields::Counters const counters = f.counters();
    say(QStringLiteral("directories %1, files %2, dirty files %3, others %4 %5 %6 %7 %8")
            .arg(counters[0])
            .arg(counters[1])
            .arg(counters[2])
            .arg(counters[3])
            .arg(counters[4])
            .arg(counters[5])
            .arg(counters[6])
            .arg(counters[7]));
    say(QStringLiteral("filter type %1, generation %2").arg(f.filterType()).arg(f.generation()));
    QStringList marks;
    for (auto const& [set, text] :
         {std::pair{f.caseSensitive(), "case-sensitive"}, std::pair{f.active(), "active"},
          std::pair{f.markedForDeletion(), "marked for deletion"},
          std::pair{f.deletionSent(), "deletion sent"}, std::pair{f.openMark(), "open"},
          std::pair{f.batch(), "batch"}})
        if (set)
            marks.append(QLatin1String(text));
    say(marks.join(QStringLiteral(", ")));
}

// --- nodes

void Inspector::node(Words words) {
    QString const path = storePath();
    std::uint64_t wanted = 0;
    std::vector<std::uint8_t> bytes;
    if (!number(words[0], wanted) || path.isEmpty() ||
        !record(path + "/files", NodeBlock::size, wanted, bytes))
        return;
    NodeBlock const n = NodeBlock::readOnly(bytes.data());
    if (wanted <= Blocks::firstBlock() || n.number().value != wanted) {
        fault(QStringLiteral("block %1 is no node; its first word is %2")
                  .arg(wanted)
                  .arg(n.number().value));
        hexDump(bytes.data(), NodeBlock::recordAt);
    }
    say(QStringLiteral("node %1: type %2%3, links %4%5, next link %6")
            .arg(wanted)
            .arg(n.type())
            .arg(liveOnlyText(n.liveOnly()))
            .arg(n.linkCount())
            .arg(n.ended() ? QStringLiteral(" (ended)") : QString())
            .arg(n.nextLink()));
    say(QStringLiteral("  references %1, versions %2%3, instance %4")
            .arg(n.referenceCount())
            .arg(n.versionCount())
            .arg(n.versioned() ? QStringLiteral(" (versioned)") : QString())
            .arg(n.instance().value));
    Replication::NodeTimes const times = n.times();
    say(QStringLiteral("  created %1, modified %2; at the source created %3, modified %4")
            .arg(times.created)
            .arg(times.modified)
            .arg(times.createdSource)
            .arg(times.modifiedSource));
    tree(n.record(), TreeRecord::nodeSize);
    nodeInfo(bytes);
}

bool Inspector::readNodeRecord(std::vector<std::uint8_t> const& node,
                               std::vector<std::uint8_t>& record) {
    TreeRecord const tree = NodeBlock::readOnly(node.data()).record();
    if (tree.length() > NodeFile::maximumRecord) {
        fault(QStringLiteral("a record of %1 bytes is damage").arg(tree.length()));
        return false;
    }
    openReader();
    record.resize(tree.length());
    if (reader_->read(tree, TreeRecord::nodeSize, 0, record.data(),
                      static_cast<std::uint32_t>(record.size())))
        return true;
    fault(QStringLiteral("the record can't be read"));
    return false;
}

void Inspector::nodeInfo(std::vector<std::uint8_t> const& node) {
    std::vector<std::uint8_t> record;
    if (!readNodeRecord(node, record))
        return;
    NodeInfo const info(Qt::CaseSensitive, Extent(static_cast<void const*>(record.data()),
                                                  static_cast<std::uint32_t>(record.size())));
    if (info.type() == NodeInfo::Empty)
        fault(QStringLiteral("the packed record is damaged"));
    say(QStringLiteral("  record type %1%2, attributes %3, owner %4")
            .arg(info.type())
            .arg(info.placeHolder ? QStringLiteral(", placeholder") : QString(),
                 hexNumber(info.attributes), quoted(info.owner)));
    if (info.type() == NodeInfo::Root)
        say(QStringLiteral("  source machine %1, name %2")
                .arg(quoted(info.sourceMachine), quoted(info.name)));
    for (NodeStream const& stream : info.streams())
        say(QStringLiteral("  stream %1 %2%3%4%5")
                .arg(stream.id.value)
                .arg(quoted(stream.name), stream.dirty ? QStringLiteral(", dirty") : QString(),
                     stream.dedup ? QString() : QStringLiteral(", not deduplicated"),
                     stream.sparse ? QStringLiteral(", sparse") : QString()));
}

// --- ids

bool Inspector::pointer(FileId id, PointerEntry& entry, std::vector<std::uint8_t>& block) {
    QString const path = storePath();
    std::uint32_t const number = PointerTable::number(id);
    if (path.isEmpty() ||
        !record(path + "/files.ptrs.blocks", pointerBlock, number >> PointerEntry::slotBits, block))
        return false;
    entry = PointerEntry(block.data() + number % PointerEntry::perBlock * PointerEntry::size);
    return true;
}

void Inspector::pointerChain(Words words) {
    std::uint64_t value = 0;
    if (!number(words[0], value))
        return;
    std::set<std::uint64_t> met;
    for (FileId id{value}; id;) {
        std::vector<std::uint8_t> block;
        PointerEntry entry;
        if (!met.insert(id.value).second)
            return fault(QStringLiteral("the chain runs in a circle at %1").arg(id.value));
        if (!pointer(id, entry, block))
            return;
        say(QStringLiteral("id %1 (entry %2, generation %3): instance %4, node %5, older %6, "
                           "newer %7")
                .arg(id.value)
                .arg(PointerTable::number(id))
                .arg(entry.generation())
                .arg(entry.instance().value)
                .arg(entry.node().value)
                .arg(entry.previous().value)
                .arg(entry.next().value));
        if (entry.generation() != id.value >> 32)
            return fault(QStringLiteral("the id is stale"));
        if (!entry.node())
            return fault(QStringLiteral("the entry is free"));
        id = entry.previous();
    }
}

void Inspector::pointers(Words) {
    std::vector<std::uint8_t> block;
    PointerEntry entry;
    FileId const control{Blocks::firstBlock() * PointerEntry::perBlock};
    if (!pointer(control, entry, block))
        return;
    std::set<std::uint64_t> met;
    FileId id = entry.previous();
    say(QStringLiteral("the free list begins at %1").arg(id.value));
    while (id && lines_ < mostLines) {
        if (!met.insert(PointerTable::number(id)).second)
            return fault(QStringLiteral("the free list runs in a circle at %1").arg(id.value));
        if (!pointer(id, entry, block))
            return;
        if (entry.node() || entry.generation() != id.value >> 32)
            return fault(QStringLiteral("%1 is in the free list and isn't free").arg(id.value));
        say(QStringLiteral("  entry %1, generation %2")
                .arg(PointerTable::number(id))
                .arg(entry.generation()));
        id = entry.previous();
    }
}

// --- directories

void Inspector::directory(Words words) {
    std::uint64_t value = 0;
    std::uint64_t snapshot = 0;
    if (!number(words[0], value) || (words.size() > 1 && !number(words[1], snapshot)))
        return;
    std::vector<std::uint8_t> block;
    PointerEntry entry;
    std::set<std::uint64_t> met;
    FileId id{value};
    do {
        if (!met.insert(id.value).second || !pointer(id, entry, block) || !entry.node())
            return fault(QStringLiteral("%1 has no such version").arg(value));
        id = entry.previous();
    } while (snapshot != 0 && entry.instance().value >= snapshot);
    std::vector<std::uint8_t> node, info;
    std::uint64_t const nodeNumber = entry.node().value;
    say(QStringLiteral("node %1, entered in instance %2")
            .arg(nodeNumber)
            .arg(entry.instance().value));
    if (!record(storePath() + "/files", NodeBlock::size, nodeNumber, node) ||
        !readNodeRecord(node, info))
        return;
    if (NodeBlock::readOnly(node.data()).type() != Replication::directoryType)
        fault(QStringLiteral("node %1 is no directory").arg(nodeNumber));
    NodeInfo const unpacked(Qt::CaseSensitive, Extent(static_cast<void const*>(info.data()),
                                                      static_cast<std::uint32_t>(info.size())));
    if (NodeStream const* const stream = unpacked.find(Replication::dataStreamName))
        directoryPages(stream->id);
    else
        fault(QStringLiteral("there is no stream of pages"));
}

void Inspector::pages(Words words) {
    std::uint64_t id = 0;
    if (number(words[0], id))
        directoryPages(StreamId{id});
}

void Inspector::directoryPages(StreamId id) {
    std::vector<std::uint8_t> bytes;
    if (!record(paths_.streams + "/nodes", StreamNode::size, id.value, bytes))
        return;
    StreamNode const stream(bytes.data());
    if (stream.id() != id)
        fault(QStringLiteral("block %1 is no stream").arg(id.value));
    openReader();
    TreeRecord const tree = stream.record();
    say(QStringLiteral("stream %1, %2 bytes").arg(id.value).arg(tree.length()));
    if (tree.length() % DirectoryPage::size != 0)
        fault(QStringLiteral("that is no whole number of pages"));
    alignas(8) std::array<std::uint8_t, DirectoryPage::size> bytesOfPage;
    for (std::uint64_t at = 0; at < tree.length() && lines_ < mostLines;
         at += DirectoryPage::size) {
        if (!reader_->read(tree, TreeRecord::streamSize, at, bytesOfPage.data(),
                           bytesOfPage.size()))
            return fault(QStringLiteral("the page at %1 can't be read").arg(at));
        page(bytesOfPage.data(), at);
    }
}

void Inspector::page(std::uint8_t* bytes, std::uint64_t offset) {
    PageWalk walk(bytes);
    while (walk.next()) {
        DirectoryEntry const entry = walk.entry();
        QString const where =
            QStringLiteral("  %1 +%2").arg(offset + walk.offset()).arg(entry.entryLength());
        if (entry.free())
            say(where + QStringLiteral(" free"));
        else if (entry.nameLength() == 0)
            say(where + QStringLiteral(" parent %1").arg(entry.fileId().value));
        else
            say(where + QStringLiteral(" id %1 link %2 type %3%4 %5")
                            .arg(entry.fileId().value)
                            .arg(entry.linkId().value)
                            .arg(entry.type())
                            .arg(liveOnlyText(entry.liveOnly()), quoted(entry.name())));
    }
    if (!walk.invalid())
        return;
    fault(QStringLiteral("the entry at %1 can't be").arg(offset + walk.offset()));
    std::uint32_t const left = DirectoryPage::size - walk.offset();
    hexDump(bytes + walk.offset(), std::min<std::uint32_t>(left, 64));
}

void Inspector::nameTree(Words) {
    QString const path = storePath();
    BPlusTree names(cachePages);
    if (path.isEmpty() || !names.open(path + "/files.tree", RawFile::Mode::ReadOnly))
        return fault(QStringLiteral("files.tree is no sound tree"));
    say(QStringLiteral("%1 keys").arg(names.keyCount()));
    Morva::Status const whole = names.forEach([this](Extent const& stored) {
        auto const key = DirKey::decode(stored);
        if (!key)
            fault(QStringLiteral("a key of %1 bytes is damaged").arg(stored.size));
        else
            say(QStringLiteral("  directory %1 at %2: id %3 link %4 type %5%6 %7")
                    .arg(key->directoryId().value)
                    .arg(key->position())
                    .arg(key->fileId().value)
                    .arg(key->linkId().value)
                    .arg(key->type())
                    .arg(liveOnlyText(key->liveOnly()), quoted(key->name())));
        return lines_ < mostLines;
    });
    QStringList faults;
    if (!whole || !names.verify(faults))
        for (QString const& text : faults)
            fault(text);
}

// --- snapshots

void Inspector::snapshots(Words) {
    QString const path = storePath() + "/snapshot";
    auto const names = FileSystem::inForce().names(path, FileSystem::Kind::File);
    if (!names)
        return fault(names.status().text());
    for (QString const& name : *names)
        if (Instance const instance = SnapshotFile::fromFileName(name))
            snapshotHeader(path, instance, false);
}

void Inspector::snapshot(Words words) {
    std::uint64_t instance = 0;
    if (number(words[0], instance))
        snapshotHeader(storePath() + "/snapshot", Instance{static_cast<std::uint32_t>(instance)},
                       true);
}

void Inspector::snapshotHeader(QString const& directory, Instance instance, bool entries) {
    SnapshotFile file(directory, instance, SnapshotFile::ReadOnly{});
    if (!file.instance())
        return fault(QStringLiteral("snapshot %1 has no sound header: %2")
                         .arg(instance.value)
                         .arg(file.status().text()));
    QString const type = SnapshotFile::typeText(file.type());
    say(QStringLiteral("snapshot %1: type %2, version %3, before it %4, label %5")
            .arg(instance.value)
            .arg(type.isEmpty() ? QString::number(static_cast<std::uint32_t>(file.type())) : type)
            .arg(file.version())
            .arg(file.previousInstance().value)
            .arg(quoted(file.label())));
    say(QStringLiteral("  source time %1, time here %2, directories %3, files %4%5")
            .arg(file.sourceTime())
            .arg(file.repositoryTime())
            .arg(file.directoryCount())
            .arg(file.fileCount())
            .arg(file.analyzed() ? QStringLiteral(", analysed, %1 bytes").arg(file.logicalSize())
                                 : QString()));
    Replication::DedupStatistics const dedup = file.dedupStatistics();
    say(QStringLiteral("  dedup state %1 at %2: streams %3, unique %4, bytes %5, unique %6")
            .arg(static_cast<std::uint32_t>(file.dedupState()))
            .arg(file.dedupOffset())
            .arg(dedup.streams)
            .arg(dedup.uniqueStreams)
            .arg(dedup.dedupedSize)
            .arg(dedup.uniqueSize));
    say(QStringLiteral("  policy %1, operation %2, rule set %3%4%5%6%7%8")
            .arg(file.policy())
            .arg(file.opId())
            .arg(file.ruleSet())
            .arg(file.indexed() ? QStringLiteral(", indexed") : QString(),
                 file.needResync() ? QStringLiteral(", needs resync") : QString(),
                 file.markedForDeletion() ? QStringLiteral(", marked for deletion") : QString(),
                 file.retire() ? QStringLiteral(", to be retired") : QString(),
                 file.retired() ? QStringLiteral(", handed over") : QString()));
    if (!entries)
        return;
    if (!file.openForRead())
        return fault(QStringLiteral("its entries can't be read"));
    Morva::Result<std::optional<SnapshotEntry>> next = std::optional<SnapshotEntry>();
    while (lines_ < mostLines && (next = file.readEntry()) && *next)
        say(QStringLiteral("  ended: file %1, instance %2")
                .arg((*next)->id.value)
                .arg((*next)->instance.value));
    if (!next)
        fault(next.status().text());
    file.close();
}

void Inspector::dedupList(Words words) {
    std::uint64_t instance = 0;
    if (!words.isEmpty() && !number(words[0], instance))
        return;
    QString const name =
        DedupFile(storePath() + "/snapshot", Instance{static_cast<std::uint32_t>(instance)}).name();
    BufferedFile file(DedupFile::bufferSize);
    if (!file.open(name))
        return fault(name + QStringLiteral(" can't be opened"));
    std::array<std::uint8_t, DedupFile::entrySize> bytes;
    Morva::Result<std::uint32_t> got = 0U;
    while (lines_ < mostLines && (got = file.read(bytes.data(), bytes.size())) &&
           *got == bytes.size())
        say(QStringLiteral("stream %1").arg(loadLittle<std::uint64_t>(bytes.data())));
    if (!got)
        fault(got.status().text());
    else if (auto const length = file.length(); length && *length % DedupFile::entrySize != 0)
        fault(QStringLiteral("the last entry is torn"));
}

} // namespace Morva
