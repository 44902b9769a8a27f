// Files that are worked on in pinned pages, and the lists and queues: opened over damaged bytes,
// looked at, checked and changed.
//
// An input: the kind, the number of 4096-byte units of zeros behind the file's bytes (so that a
// file with reserved space needs none in the corpus), the file.

#include "base/blocks/Blocks.h"
#include "base/blocks/FreeList.h"
#include "base/blocks/ReferenceCount.h"
#include "base/trees/BPlusTree.h"
#include "base/trees/PagedList.h"
#include "base/trees/PagedQueue.h"
#include "fuzz/Input.h"
#include "fuzz/MemoryFiles.h"
#include "replication/repository/store/DirKey.h"
#include "replication/repository/streams/DedupFile.h"

using Morva::BlockPin;
using Morva::Blocks;
using Morva::BPlusTree;
using Morva::Extent;
using Morva::FreeList;
using Morva::PagedList;
using Morva::PagedQueue;
using Morva::RawFile;
using Morva::ReferenceCount;
using Morva::Fuzzing::MemoryFiles;
using Morva::Fuzzing::require;
using Replication::DirKey;
using Replication::FileId;

namespace {

auto const name = QStringLiteral("/memory/file");
constexpr std::uint32_t cachePages = 16;

/// What ends a walk that a damaged file would make long.
template <class... Values> auto upTo(std::uint64_t& left) {
    return [&left](Values...) { return left-- > 1; };
}

void tree() {
    {
        BPlusTree looked(cachePages);
        if (!looked.open(name, RawFile::Mode::ReadOnly))
            return;
        QStringList faults;
        (void)looked.verify(faults);
    }
    BPlusTree tree(cachePages);
    if (!tree.open(name))
        return;
    std::uint64_t left = 10000;
    (void)tree.forEach([&left](Extent const& stored) {
        (void)DirKey::decode(stored);
        return left-- > 1;
    });
    for (auto const* text : {"alpha", "beta", "a key of some length that is not there"}) {
        DirKey key(FileId{1}, QLatin1String(text), 1);
        if (auto const found = tree.find(key); found.ok() && *found) {
            (void)tree.update(key);
            (void)tree.remove(key);
        } else {
            (void)tree.insert(key);
        }
    }
    DirKey large(FileId{1}, QString(1500, u'x'), 1);
    auto const found = tree.find(large);
    if (found.ok() && !*found && tree.insert(large))
        (void)tree.remove(large);
    QStringList faults;
    (void)tree.verify(faults);
    (void)tree.close();
}

void blocks() {
    Blocks blocks(cachePages);
    if (!blocks.open(name, 65536, RawFile::Mode::ReadWrite))
        return;
    std::uint64_t left = 10000;
    (void)blocks.forEachFree(upTo<std::uint64_t>(left));
    for (std::uint64_t const number : {std::uint64_t{1}, std::uint64_t{3}, blocks.blockCount() - 1,
                                       blocks.blockCount(), UINT64_MAX}) {
        auto pin = BlockPin::get(blocks, number);
        (void)blocks.isFree(number);
        if (pin && number % 2 == 1)
            (void)pin.free();
    }
    for (int i = 0; i < 4; ++i) {
        std::uint64_t number = 0;
        if (auto pin = BlockPin::make(blocks, number)) {
            require(number >= Blocks::firstBlock() && number < blocks.blockCount(),
                    "a new block is one of the file");
            pin.changed();
        }
    }
    (void)blocks.close();
}

void freeList() {
    FreeList list(4);
    if (!list.open(name, 100000))
        return;
    std::uint64_t left = 10000;
    (void)list.forEach(upTo<std::uint64_t, std::uint64_t>(left));
    std::uint64_t number = 0;
    for (int i = 0; i < 20; ++i)
        if (auto const got = list.get(number, 99990); got.ok() && *got)
            require(number >= 1 && number < 99990, "a number below the limit");
    (void)list.put(17);
    (void)list.grow(20, 30);
    (void)list.close();
}

void references() {
    ReferenceCount counts(4);
    if (!counts.open(name, 100000, 0))
        return;
    std::uint64_t left = 10000;
    (void)counts.forEach(upTo<std::uint64_t, std::uint32_t>(left));
    for (std::uint64_t const number : {0, 1, 1500, 100000, 100001}) {
        std::uint32_t count = 0;
        (void)counts.count(count, number);
        (void)counts.increment(count, number);
        (void)counts.decrement(count, number);
        if (!counts.newId(number))
            (void)counts.releaseId(number);
    }
    (void)counts.close();
}

void queue() {
    {
        PagedQueue const looked(name, 4096, PagedQueue::ReadOnly());
        std::uint64_t left = 10000;
        if (looked)
            (void)looked.forEach(upTo<Extent const&>(left));
    }
    PagedQueue queue(name, 4096, 2);
    if (!queue)
        return;
    std::uint64_t count = 0;
    (void)queue.available(count);
    (void)queue.send(Extent("a record", 8));
    if (!queue.receiver())
        return;
    Extent record;
    for (int i = 0; i < 1000; ++i) {
        auto const got = queue.tryReceive(record);
        if (got.code() == Morva::Status::Code::Corruption)
            continue; // and then what is behind it
        if (!got.ok() || !*got || !queue.release())
            break;
    }
    require(queue.status().ok(), "a queue stays open");
}

void list(std::size_t bytes) {
    PagedList list(
        [](Extent const& a, Extent const& b) {
            auto const order = std::memcmp(a.data, b.data, std::min(a.size, b.size));
            auto const all = order != 0 ? order : a.size < b.size ? -1 : a.size > b.size;
            return all < 0   ? PagedList::CompareResult::Less
                   : all > 0 ? PagedList::CompareResult::Greater
                             : PagedList::CompareResult::Equal;
        },
        name, 256, 1024);
    if (!list.open())
        return;
    Extent record;
    std::uint64_t read = 0;
    auto const next = [&] {
        auto const got = list.read(record);
        return got.ok() && *got;
    };
    while (next())
        require(++read <= bytes, "a record takes bytes");
    list.setPosition(12);
    (void)next();
    (void)list.write(Extent("a record", 8));
    (void)list.sort();
    while (next() && read < 100000)
        ++read;
    (void)list.close();
}

void dedup(std::size_t size) {
    Replication::DedupFile file(QStringLiteral("/memory"), Replication::Instance{42});
    Replication::StreamId id;
    std::size_t count = 0;
    if (!file.openForRead())
        return;
    while (file.read(id))
        ++count;
    require(count == size / Replication::DedupFile::entrySize, "a torn entry doesn't count");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static MemoryFiles files;
    if (size < 2)
        return 0;
    MemoryFiles::Bytes bytes(data + 2, data + size);
    bytes.resize(bytes.size() + std::size_t{4096} * (data[1] % 64));
    files.clear();
    files.put(data[0] % 7 == 6 ? QStringLiteral("dedup0000000042") : name, bytes.data(),
              bytes.size());
    switch (data[0] % 7) {
    case 0:
        tree();
        break;
    case 1:
        blocks();
        break;
    case 2:
        freeList();
        break;
    case 3:
        references();
        break;
    case 4:
        queue();
        break;
    case 5:
        list(bytes.size());
        break;
    default:
        dedup(bytes.size());
    }
    return 0;
}
