#include "peers/check/Census.h"

#include "base/values/LittleEndian.h"
#include "peers/check/TreeReader.h"

namespace Morva {

using Replication::TreeRecord;

std::uint32_t CountTable::add(std::uint64_t number) {
    if (small_[number] < large - 1)
        return ++small_[number];
    if (small_[number] == large)
        return ++large_[number];
    small_[number] = large;
    return large_[number] = large;
}

std::uint32_t CountTable::get(std::uint64_t number) const {
    if (number >= small_.size())
        return 0;
    return small_[number] == large ? large_.at(number) : small_[number];
}

Census::Census(std::uint64_t nextBlock, BlockFile& indirect, CheckReport& report)
    : indirect_(indirect), report_(report) {
    data_.resize(nextBlock);
    indirectCounts_.resize(indirect.count());
    heights_.resize(indirect.count());
}

void Census::fault(QString const& text, Owner const& owner) {
    report_.fault(FaultKind::TreeRecord, owner(), text);
}

void Census::add(TreeRecord record, std::uint32_t width, Owner const& owner) {
    if (!TreeReader::sound(record, width)) {
        fault(QStringLiteral("its tree record has depth %1 and length %2")
                  .arg(record.depth())
                  .arg(record.length()),
              owner);
        return;
    }
    if (record.depth() == 0)
        return;
    for (std::uint32_t i = 0; i < TreeReader::entries(width); ++i) {
        std::uint64_t const block = record.entry(i);
        if (block == 0)
            continue;
        if (record.depth() == 1)
            addData(block, owner);
        else
            addIndirect(block, record.depth() - 1, owner);
    }
}

void Census::addData(std::uint64_t block, Owner const& owner) {
    if (block < data_.size())
        data_.add(block);
    else
        fault(QStringLiteral("its tree names data block %1, which doesn't exist").arg(block),
              owner);
}

void Census::addIndirect(std::uint64_t block, std::uint32_t height, Owner const& owner) {
    if (!indirect_.exists(block)) {
        fault(QStringLiteral("its tree names indirect block %1, which doesn't exist").arg(block),
              owner);
        return;
    }
    if (indirectCounts_.add(block) > 1) {
        if (heights_[block] != height)
            fault(QStringLiteral("indirect block %1 stands at level %2 of its tree and at level "
                                 "%3 of another")
                      .arg(block)
                      .arg(height)
                      .arg(heights_[block]),
                  owner);
        return;
    }
    heights_[block] = static_cast<std::uint8_t>(height);
    BlockPin const pin = indirect_.pin(block);
    if (!pin) {
        report_.fault(FaultKind::Unreadable, indirect_.where(),
                      QStringLiteral("block %1 can't be read").arg(block));
        return;
    }
    ++report_.figures.blocksRead;
    report_.figures.bytesRead += TreeReader::blockSize;
    for (std::uint32_t i = 0; i < TreeReader::fanOut; ++i) {
        auto const child = loadLittle<std::uint64_t>(pin.bytes() + i * 8);
        if (child == 0)
            continue;
        if (height == 1)
            addData(child, owner);
        else
            addIndirect(child, height - 1, owner);
    }
}

} // namespace Morva
