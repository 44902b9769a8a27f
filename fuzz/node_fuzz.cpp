// The records of a node: the packed description of a file version, and the block that holds it.

#include "fuzz/Input.h"
#include "peers/check/TreeReader.h"
#include "replication/repository/store/NodeBlock.h"
#include "replication/repository/store/NodeInfo.h"

#include <array>
#include <cstring>

using Morva::Extent;
using Morva::PackBuffer;
using Morva::TreeReader;
using Morva::Fuzzing::require;
using Replication::NodeBlock;
using Replication::NodeInfo;
using Replication::TreeRecord;

namespace {

void info(Extent const& record) {
    NodeInfo const read(Qt::CaseInsensitive, record);
    PackBuffer packed;
    for (auto const& stream : read.streams())
        require(read.find(stream.id) && read.find(stream.name), "a stream is found");
    if (read.type() == NodeInfo::Empty)
        return;
    read.pack(packed);
    NodeInfo const again(Qt::CaseInsensitive, packed.extentWithoutSize());
    require(again.type() == read.type() && again.attributes == read.attributes &&
                again.owner == read.owner && again.name == read.name &&
                again.sourceMachine == read.sourceMachine &&
                again.streams().size() == read.streams().size(),
            "a packed record comes back");
}

void block(std::uint8_t const* data, std::size_t size) {
    std::array<std::uint8_t, NodeBlock::size> bytes{};
    std::memcpy(bytes.data(), data, std::min(size, bytes.size()));
    NodeBlock node(bytes.data());
    auto const times = node.times();
    node.times(times);
    node.typeWord(node.typeWord());
    require(node.times() == times, "times");
    require(node.claims() >= node.referenceCount(), "claims don't wrap");
    // The checker's reader meets such records without a pool.
    Morva::BlockFile indirect(4);
    TreeReader reader(nullptr, 0, indirect);
    auto const record = node.record();
    std::array<std::uint8_t, 2048> buffer{};
    for (auto const offset : {std::uint64_t{0}, record.length() / 2, record.length() - 1})
        (void)reader.read(record, TreeRecord::nodeSize, offset, buffer.data(), 2048);
    // Only of sound records are single blocks asked for.
    if (record.depth() == 0 || !TreeReader::sound(record, TreeRecord::nodeSize))
        return;
    std::uint64_t number = 0;
    for (std::uint64_t const at : {std::uint64_t{0}, record.length() / 2, record.length()})
        if (at < record.length())
            (void)reader.blockAt(record, at / TreeReader::blockSize, number);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0)
        return 0;
    if (data[0] % 2 == 0)
        info(Extent(data + 1, static_cast<std::uint32_t>(size - 1)));
    else
        block(data + 1, size - 1);
    return 0;
}
