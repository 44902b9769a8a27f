#include "peers/check/PointerTable.h"

#include "base/blocks/Blocks.h"
#include "peers/check/BlockFile.h"
#include "replication/repository/store/NodePointer.h"

namespace Morva {

using Replication::FileId;
using Replication::Instance;
using Replication::PointerEntry;

namespace {

constexpr std::uint32_t cacheBlocks = 16;
constexpr std::uint32_t blockBytes = PointerEntry::size * PointerEntry::perBlock;
constexpr std::uint64_t firstEntry = Blocks::firstBlock() * PointerEntry::perBlock;
constexpr std::uint64_t rootEntry = firstEntry + 1;
/// The first block has the control entry and the root's alone.
constexpr std::uint64_t firstFree = firstEntry + PointerEntry::perBlock;

} // namespace

FileId PointerTable::rootId() {
    return FileId{rootEntry};
}

FileId PointerTable::id(std::uint64_t number) const {
    return FileId{std::uint64_t{entries_[number].generation} << 32 | number};
}

void PointerTable::fault(std::uint64_t number, QString const& text) const {
    report_->fault(FaultKind::Pointer, where_, QStringLiteral("entry %1 %2").arg(number).arg(text));
}

bool PointerTable::load(QString const& path, QString const& where, Instance current,
                        CheckReport& report) {
    where_ = where;
    report_ = &report;
    BlockFile file(cacheBlocks);
    if (!file.open(path, where, blockBytes, report))
        return false;
    entries_.assign(file.count() * PointerEntry::perBlock, Entry());
    file.scan(Blocks::firstBlock(), report, [&](std::uint64_t number, std::uint8_t const* bytes) {
        for (std::uint32_t slot = 0; slot < PointerEntry::perBlock; ++slot) {
            PointerEntry const view(const_cast<std::uint8_t*>(bytes) + slot * PointerEntry::size);
            entries_[number * PointerEntry::perBlock + slot] = {
                view.generation(), view.instance(), view.node(), view.previous(), view.next()};
        }
    });
    if (entries_.size() <= rootEntry)
        return false;
    for (std::uint64_t block = Blocks::firstBlock(); block < file.count(); ++block)
        if (file.isFree(block))
            report.fault(
                FaultKind::BlockFile, where,
                QStringLiteral("block %1 is free, but blocks of entries stay for good").arg(block));
    checkFreeList(entries_[firstEntry].previous);
    checkChains(current);
    return true;
}

/// Every entry that isn't used must be met once on the way from the list's head.
void PointerTable::checkFreeList(FileId head) {
    std::vector<bool> met(entries_.size());
    FileId before;
    for (FileId at = head; at; at = entries_[number(at)].previous) {
        std::uint64_t const here = number(at);
        if (here < firstFree || here >= entries_.size() || id(here) != at || entries_[here].node) {
            report_->fault(
                FaultKind::Pointer, where_,
                QStringLiteral("the free list names %1, which is no free entry").arg(at.value));
            break;
        }
        if (met[here]) {
            fault(here, QStringLiteral("is in the free list twice"));
            break;
        }
        met[here] = true;
        if (before && entries_[here].next != before)
            fault(here, QStringLiteral("of the free list doesn't know the one before it"));
        before = at;
    }
    std::uint64_t lost = 0;
    for (std::uint64_t here = firstFree; here < entries_.size(); ++here)
        if (!entries_[here].node && !met[here])
            ++lost;
    if (lost != 0)
        report_->fault(FaultKind::LostSpace, where_,
                       QStringLiteral("%1 entries are neither in use nor free").arg(lost));
}

void PointerTable::checkChains(Instance current) const {
    for (std::uint64_t here = rootEntry; here < entries_.size(); ++here) {
        Entry const& entry = entries_[here];
        if (!entry.node)
            continue;
        if (here > rootEntry && here < firstFree) {
            fault(here, QStringLiteral("is in use, but belongs to the control entry's block"));
            continue;
        }
        if (!entry.instance || entry.instance > current)
            fault(here, QStringLiteral("is of instance %1, the store is at %2")
                            .arg(entry.instance.value)
                            .arg(current.value));
        checkLinks(here);
    }
    if (!entries_[rootEntry].node)
        fault(rootEntry, QStringLiteral("is the root's and is free"));
}

void PointerTable::checkLinks(std::uint64_t here) const {
    Entry const& entry = entries_[here];
    if (entry.previous) {
        Entry const* const older = used(entry.previous);
        if (!older)
            fault(here, QStringLiteral("names %1 as its older version, which doesn't exist")
                            .arg(entry.previous.value));
        else if (older->next != id(here))
            fault(here,
                  QStringLiteral("has an older version that belongs to %1").arg(older->next.value));
        else if (older->instance >= entry.instance)
            fault(here, QStringLiteral("of instance %1 has an older version of instance %2")
                            .arg(entry.instance.value)
                            .arg(older->instance.value));
    }
    if (!entry.next)
        return;
    Entry const* const newer = used(entry.next);
    if (!newer || newer->previous != id(here))
        fault(here, QStringLiteral("is an older version of %1, which doesn't name it")
                        .arg(entry.next.value));
}

PointerTable::Entry const* PointerTable::used(FileId id) const {
    std::uint64_t const at = number(id);
    if (at >= entries_.size() || at < rootEntry || (at > rootEntry && at < firstFree))
        return nullptr;
    Entry const& entry = entries_[at];
    return entry.node && entry.generation == id.value >> 32 ? &entry : nullptr;
}

PointerTable::Entry const* PointerTable::head(FileId id) const {
    Entry const* const entry = used(id);
    return entry && !entry->next ? entry : nullptr;
}

PointerTable::Entry const* PointerTable::older(Entry const& entry) const {
    Entry const* const result = entry.previous ? used(entry.previous) : nullptr;
    return result && result->instance < entry.instance ? result : nullptr;
}

PointerTable::Entry const* PointerTable::before(FileId id, Instance instance) const {
    Entry const* entry = used(id);
    while (entry && entry->instance >= instance)
        entry = older(*entry);
    return entry;
}

} // namespace Morva
