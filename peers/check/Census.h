#pragma once

#include "peers/check/BlockFile.h"
#include "peers/check/CheckReport.h"
#include "replication/repository/streams/TreeRecord.h"

#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

namespace Morva {

/// Counts by number, one byte each as long as they are small.
class CountTable {
public:
    void resize(std::uint64_t numbers) { small_.resize(numbers); }
    [[nodiscard]] std::uint64_t size() const { return small_.size(); }
    /// Adds one; the new count.
    std::uint32_t add(std::uint64_t number);
    [[nodiscard]] std::uint32_t get(std::uint64_t number) const;

private:
    static constexpr std::uint8_t large = 0xFF;

    std::vector<std::uint8_t> small_;
    std::unordered_map<std::uint64_t, std::uint32_t> large_;
};

/// Tells who refers to something; made only when a fault needs it.
using Owner = std::function<QString()>;

/// Walks tree records and counts the references to data and indirect blocks that it finds. The
/// entries of an indirect block are counted once, however many name it: whoever shares the block
/// shares what is below.
class Census {
public:
    /// `nextBlock` ends the numbers of data blocks. Both objects must outlive the census.
    Census(std::uint64_t nextBlock, BlockFile& indirect, CheckReport& report);

    /// Counts what a record of `width` bytes names. A record that can't be is a fault.
    void add(Replication::TreeRecord record, std::uint32_t width, Owner const& owner);

    [[nodiscard]] CountTable const& data() const { return data_; }
    [[nodiscard]] CountTable const& indirect() const { return indirectCounts_; }

private:
    void addData(std::uint64_t block, Owner const& owner);
    void addIndirect(std::uint64_t block, std::uint32_t height, Owner const& owner);
    void fault(QString const& text, Owner const& owner);

    BlockFile& indirect_;
    CheckReport& report_;
    CountTable data_;
    CountTable indirectCounts_;
    std::vector<std::uint8_t> heights_; // of indirect blocks that were met
};

} // namespace Morva
