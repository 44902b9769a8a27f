#include "base/blocks/TestSupport.h"
#include "base/values/LittleEndian.h"
#include "peers/check/Inspector.h"
#include "peers/check/SampleRepository.h"
#include "replication/repository/store/NodeBlock.h"
#include "replication/repository/streams/StreamNode.h"

#include <QDirIterator>

#include <functional>
#include <vector>

namespace Morva {
namespace {

using Replication::NodeBlock;
using Replication::StreamNode;
using Replication::TreeRecord;
using Testing::SampleRepository;

constexpr char const* nodes = "streams/nodes";
constexpr char const* indirect = "streams/indirectdata.blocks";
constexpr char const* indirectRefs = "streams/indirectdata.refs";
constexpr char const* dedupTree = "streams/dedup.tree";
constexpr char const* cleanupQueue = "streams/cleanupqueue";
constexpr char const* dataBlocks = "streamdata/data.blocks";
constexpr char const* dataRefs = "streamdata/data.refs";
constexpr char const* dataFree = "streamdata/data.free";
constexpr char const* files = "stores/0000000000000001/files";
constexpr char const* pointers = "stores/0000000000000001/files.ptrs.blocks";
constexpr char const* nameTree = "stores/0000000000000001/files.tree";
constexpr char const* snapshot2 = "stores/0000000000000001/snapshot/snapshot0000000002";
constexpr char const* snapshot4 = "stores/0000000000000001/snapshot/snapshot0000000004";
constexpr char const* dedupList = "stores/0000000000000001/snapshot/dedup";

QByteArray word(std::uint32_t value) {
    QByteArray bytes(4, '\0');
    storeLittle(bytes.data(), value);
    return bytes;
}

QByteArray wide(std::uint64_t value) {
    QByteArray bytes(8, '\0');
    storeLittle(bytes.data(), value);
    return bytes;
}

/// The number of the first block from 2 on that a test accepts.
qint64 find(QByteArray& file, qint64 size, std::function<bool(std::uint8_t*, qint64)> const& test) {
    auto* const bytes = reinterpret_cast<std::uint8_t*>(file.data());
    for (qint64 number = 2; (number + 1) * size <= file.size(); ++number)
        if (test(bytes + number * size, number))
            return number;
    ADD_FAILURE() << "no such record in the sample";
    return 2;
}

/// Damages a closed sample repository, place by place, and mends it again.
class Damage : public ::testing::Test {
protected:
    static SampleRepository& sample() { return *sample_; }
    static void SetUpTestSuite() {
        sample_ = new SampleRepository;
        sample_->fill();
        sample_->close();
    }
    static void TearDownTestSuite() {
        delete sample_;
        sample_ = nullptr;
    }

    static QString path(char const* file) { return sample().path(file); }
    static QByteArray read(char const* file) { return Testing::contents(path(file)); }
    static void write(QString const& name, QByteArray const& bytes) {
        QFile file(name);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(file.write(bytes), bytes.size());
    }

    /// Expects a fault of that kind with `bytes` at `offset`.
    static CheckReport expect(FaultKind kind, char const* what, char const* file, qint64 offset,
                              QByteArray const& bytes, bool readData = false) {
        QByteArray const before = read(file).mid(offset, bytes.size());
        EXPECT_EQ(before.size(), bytes.size()) << what;
        EXPECT_NE(before, bytes) << what << " changes nothing";
        Testing::damage(path(file), offset, bytes);
        QByteArray const damaged = read(file);
        CheckReport report = SampleRepository::check(readData);
        EXPECT_GT(report.count(kind), 0U)
            << what << ": no fault " << faultName(kind).toStdString() << " in\n"
            << report.lines().join(u'\n').toStdString();
        EXPECT_EQ(read(file), damaged) << what;
        Testing::damage(path(file), offset, before);
        return report;
    }

    static qint64 streamWith(std::function<bool(StreamNode)> const& test) {
        QByteArray file = read(nodes);
        return find(file, StreamNode::size, [&](std::uint8_t* bytes, qint64 number) {
            StreamNode const node(bytes);
            return node.id().value == static_cast<std::uint64_t>(number) && test(node);
        });
    }
    /// Whether a pointer entry is that of a file with one name and one version.
    static bool isLive(QByteArray const& table, QByteArray const& nodeFile, qint64 entry) {
        auto const field = [&](qint64 at) {
            return loadLittle<std::uint64_t>(table.data() + entry * 32 + at);
        };
        if (field(8) == 0 || field(16) != 0 || field(24) != 0)
            return false;
        NodeBlock const node =
            NodeBlock::readOnly(nodeFile.data() + static_cast<qint64>(field(8)) * 1024);
        return node.type() == 1 && node.names() == 1;
    }
    /// The current node of such a file.
    static qint64 liveNode() {
        QByteArray const table = read(pointers), nodeFile = read(files);
        for (qint64 entry = 256; entry < table.size() / 32; ++entry)
            if (isLive(table, nodeFile, entry))
                return static_cast<qint64>(
                    loadLittle<std::uint64_t>(table.data() + entry * 32 + 8));
        ADD_FAILURE() << "no live file";
        return 2;
    }

private:
    static SampleRepository* sample_;
};

SampleRepository* Damage::sample_ = nullptr;

TEST_F(Damage, OfStreamsIsFound) {
    qint64 const plain = streamWith([](StreamNode n) { return n.record().depth() == 1; }) * 256;
    qint64 const deep = streamWith([](StreamNode n) { return n.record().depth() == 2; }) * 256;
    qint64 const indexed = streamWith([](StreamNode n) { return n.indexed(); }) * 256;
    qint64 const last = 0x7FFFFFFF;
    expect(FaultKind::StreamCount, "count of a stream", nodes, plain + 8, word(7));
    expect(FaultKind::LostStream, "a stream loses its name", nodes, plain, wide(0));
    expect(FaultKind::LostSpace, "a stream loses its name", nodes, plain, wide(0));
    expect(FaultKind::TreeRecord, "length beyond the depth", nodes, plain + 56, wide(1ULL << 40));
    expect(FaultKind::TreeRecord, "depth that can't be", nodes, plain + 64, word(9));
    expect(FaultKind::TreeRecord, "data block that isn't there", nodes, plain + 72, wide(last));
    expect(FaultKind::TreeRecord, "indirect block that isn't there", nodes, deep + 72, wide(last));
    expect(FaultKind::ReferenceCount, "hole instead of a block", nodes, plain + 72, wide(0));
    expect(FaultKind::ReferenceCount, "hole instead of a subtree", nodes, deep + 72, wide(0));
    expect(FaultKind::DedupIndex, "digest of an indexed stream", nodes, indexed + 20, wide(1));
    expect(FaultKind::DedupIndex, "indexed mark gone", nodes, indexed + 48, QByteArray(1, '\0'));
    expect(FaultKind::Stream, "indexed but not frozen", nodes, indexed + 49, QByteArray(1, '\0'));
    expect(FaultKind::Stream, "digest of no type", nodes, plain + 12, word(5));
    expect(FaultKind::Control, "indexed streams of the pool", nodes, 256 + 16, wide(99));
    expect(FaultKind::Control, "bytes of the pool's keys", nodes, 256 + 40, wide(99));
}

TEST_F(Damage, OfBlocksAndCountsIsFound) {
    QByteArray const counts = read(dataRefs);
    auto const blocks = loadLittle<std::uint64_t>(read(dataBlocks).constData());
    qint64 used = 0, unused = 0;
    for (qint64 block = 1; block < static_cast<qint64>(blocks); ++block)
        (loadLittle<std::uint32_t>(counts.data() + 4096 + block * 4) != 0 ? used : unused) = block;
    ASSERT_NE(used, 0);
    ASSERT_NE(unused, 0);
    // A run of several numbers in the free list.
    QByteArray const list = read(dataFree);
    qint64 run = 4096;
    while (run < 4096 + 256 * 16 && loadLittle<std::uint64_t>(list.data() + run + 8) < 2)
        run += 16;
    expect(FaultKind::ReferenceCount, "count too high", dataRefs, 4096 + used * 4, word(300));
    expect(FaultKind::ReferenceCount, "count gone", dataRefs, 4096 + used * 4, word(0));
    expect(FaultKind::FreeList, "count of a free block", dataRefs, 4096 + unused * 4, word(1));
    expect(FaultKind::ReferenceCount, "count beyond the file", dataRefs, 4096 + 60000, word(1));
    expect(FaultKind::Unreadable, "header of the counts", dataRefs, 16, wide(5));
    expect(FaultKind::Unreadable, "header of the free list", dataFree, 24, wide(5));
    expect(FaultKind::FreeList, "run of used blocks", dataFree, run,
           wide(static_cast<std::uint64_t>(used)) + wide(1));
    expect(FaultKind::LostSpace, "run cut short", dataFree, run + 8, wide(1));
    expect(FaultKind::FreeList, "run of no numbers", dataFree, run, wide(0));
    expect(FaultKind::BlockFile, "next block", dataBlocks, 0, wide(1ULL << 40));
    expect(FaultKind::BlockFile, "block size", dataBlocks, 24, word(512));
    qint64 const deep = streamWith([](StreamNode n) { return n.record().depth() == 2; });
    QByteArray node = read(nodes).mid(deep * 256, 256);
    auto const block = static_cast<qint64>(StreamNode(node.data()).record().entry(0));
    expect(FaultKind::ReferenceCount, "entry of an indirect block", indirect, block * 4096 + 8,
           wide(0));
    expect(FaultKind::TreeRecord, "entry that isn't there", indirect, block * 4096 + 8,
           wide(1ULL << 50));
    expect(FaultKind::ReferenceCount, "count of an indirect block", indirectRefs, 4096 + block * 4,
           word(9));
    expect(FaultKind::ReferenceCount, "indirect count gone", indirectRefs, 4096 + block * 4,
           word(0));
    for (char const* file : {nodes, indirect, files, pointers})
        expect(FaultKind::BlockFile, "header of a block file", file, 24, wide(3));
    for (char const* file : {dedupTree, nameTree})
        expect(FaultKind::Unreadable, "header of a tree", file, 24, wide(77));
    qint64 const known =
        streamWith([](StreamNode n) { return n.digestType() == 1 && n.record().depth() == 1; });
    QByteArray stream = read(nodes).mid(known * 256, 256);
    expect(FaultKind::Data, "contents", dataBlocks,
           static_cast<qint64>(StreamNode(stream.data()).record().entry(0)) * 4096 + 17,
           QByteArray("not this"), true);
}

TEST_F(Damage, OfTreesAndQueuesIsFound) {
    // Leaves begin with "LEAF"; the cell that was stored last lies at their end.
    auto const leaf = [](QByteArray const& file) {
        for (qint64 at = 4096; at < file.size(); at += 4096)
            if (file.mid(at, 4) == "LEAF" && loadLittle<std::uint16_t>(file.data() + at + 6) != 0)
                return at;
        ADD_FAILURE() << "no leaf";
        return qint64{0};
    };
    QByteArray const index = read(dedupTree);
    qint64 const page = leaf(index);
    qint64 const key = page + 4096 - 264;
    expect(FaultKind::DedupIndex, "count of a key", dedupTree, key + 56, word(77));
    expect(FaultKind::DedupIndex, "length of a key", dedupTree, key, wide(77));
    expect(FaultKind::DedupIndex, "blocks of a key", dedupTree, key + 64 + 16, wide(1));
    expect(FaultKind::DedupIndex, "mark of a page", dedupTree, page, word(0));
    expect(FaultKind::DedupIndex, "slots of a page", dedupTree, page + 6, QByteArray(2, '\xff'));
    QByteArray const names = read(nameTree);
    qint64 const leafOfNames = leaf(names);
    qint64 const cell =
        leafOfNames + loadLittle<std::uint16_t>(names.data() + leafOfNames + 16 + 8);
    expect(FaultKind::DirectoryTree, "position of a key", nameTree, cell, wide(4));
    expect(FaultKind::DirectoryTree, "id of a key", nameTree, cell + 8, wide(4));
    expect(FaultKind::DirectoryTree, "type of a key", nameTree, cell + 20, word(7));
    expect(FaultKind::DirectoryTree, "name of a key", nameTree, cell + 48, QByteArray("Z"));
    expect(FaultKind::DirectoryTree, "length of a key's name", nameTree, cell + 32, word(900));
    expect(FaultKind::DirectoryTree, "order of a page", nameTree, leafOfNames + 16, wide(0));
    // The request behind the head is lost, and with it what it would have freed.
    QByteArray const queue = read(cleanupQueue);
    std::uint64_t const head = std::max(loadLittle<std::uint64_t>(queue.data() + 32 + 16),
                                        loadLittle<std::uint64_t>(queue.data() + 64 + 16));
    expect(FaultKind::StreamCount, "entry of the cleanup queue", cleanupQueue,
           static_cast<qint64>(head) + 16, word(9));
    expect(FaultKind::Unreadable, "head of the cleanup queue", cleanupQueue, 0, wide(0));
}

TEST_F(Damage, OfStoresIsFound) {
    qint64 const at = liveNode() * 1024;
    expect(FaultKind::Node, "links", files, at + 12, word(5));
    expect(FaultKind::Node, "references", files, at + 16, word(5));
    expect(FaultKind::Node, "no references", files, at + 16, word(0));
    expect(FaultKind::Node, "no type", files, at + 24, word(0));
    expect(FaultKind::Directory, "another type", files, at + 24, word(2));
    expect(FaultKind::Node, "instance to come", files, at + 28, word(999));
    expect(FaultKind::Directory, "links never given", files, at + 32, word(0));
    expect(FaultKind::Pointer, "a node loses its name", files, at, wide(0));
    expect(FaultKind::Node, "type of the record", files, at + 80, word(9));
    expect(FaultKind::TreeRecord, "length of the record", files, at + 64, wide(1ULL << 60));
    QByteArray record = read(files).mid(at + 80, 200);
    qsizetype const name = record.indexOf(QByteArray("S\0e\0c\0u\0", 8));
    ASSERT_GT(name, 0);
    expect(FaultKind::LostStream, "stream of a node", files, at + 80 + name + 16, wide(1 << 20));
    qint64 const control = 1024;
    expect(FaultKind::Control, "version", files, control, word(77));
    expect(FaultKind::Control, "store id", files, control + 24, wide(77));
    expect(FaultKind::Control, "no instance", files, control + 4, word(0));
    expect(FaultKind::Snapshot, "another instance", files, control + 4, word(9));
    expect(FaultKind::Counter, "directories", files, control + 48, wide(77));
    expect(FaultKind::Counter, "files", files, control + 56, wide(77));
}

TEST_F(Damage, OfPointersIsFound) {
    QByteArray const table = read(pointers), nodeFile = read(files);
    auto const entry = [&](qint64 number, qint64 field) {
        return loadLittle<std::uint64_t>(table.data() + number * 32 + field);
    };
    qint64 head = 0, older = 0, last = 0, free = 0;
    for (qint64 number = 256; number < table.size() / 32; ++number) {
        if (entry(number, 8) == 0)
            free = free == 0 && number != static_cast<qint64>(entry(128, 16) & 0xFFFFFFFF) ? number
                                                                                           : free;
        else if (entry(number, 24) != 0)
            older = number;
        else if (entry(number, 16) != 0)
            head = number;
        else if (isLive(table, nodeFile, number))
            last = number;
    }
    ASSERT_TRUE(head != 0 && older != 0 && last != 0 && free != 0);
    expect(FaultKind::Pointer, "older version that isn't there", pointers, head * 32 + 16, wide(3));
    expect(FaultKind::Orphan, "chain cut", pointers, head * 32 + 16, wide(0));
    expect(FaultKind::Pointer, "newer version that isn't there", pointers, older * 32 + 24,
           wide(3));
    expect(FaultKind::Pointer, "instances that rise", pointers, older * 32 + 4, word(4));
    expect(FaultKind::Pointer, "no instance", pointers, last * 32 + 4, word(0));
    expect(FaultKind::Directory, "generation", pointers, last * 32, word(5));
    expect(FaultKind::Pointer, "node that isn't there", pointers, last * 32 + 8, wide(1 << 20));
    expect(FaultKind::Pointer, "node of another", pointers, last * 32 + 8, wide(entry(head, 8)));
    expect(FaultKind::Orphan, "node let go", pointers, last * 32 + 8, wide(0));
    expect(FaultKind::Pointer, "head of the free list", pointers, 128 * 32 + 16,
           wide(static_cast<std::uint64_t>(last)));
    expect(FaultKind::LostSpace, "free list cut", pointers, 128 * 32 + 16, wide(0));
    expect(FaultKind::Pointer, "free list in a circle", pointers, free * 32 + 16,
           wide(entry(128, 16)));
    expect(FaultKind::Pointer, "free entry in use", pointers, free * 32 + 8, wide(2));
    expect(FaultKind::Pointer, "root", pointers, 129 * 32 + 8, wide(0));
}

TEST_F(Damage, OfDirectoriesIsFound) {
    // The page that has the names which fill pages.
    QByteArray const data = read(dataBlocks);
    QString const wanted = QStringLiteral("a name that fills pages 37");
    QByteArray const name(reinterpret_cast<char const*>(wanted.utf16()), wanted.size() * 2);
    int found = 0;
    // Older versions of the page are there as well: each is of the live tree or of a snapshot.
    for (qsizetype at = data.indexOf(name); at > 0; at = data.indexOf(name, at + 1), ++found) {
        CheckReport const report =
            expect(FaultKind::Directory, "length of an entry", dataBlocks, at - 24, word(31));
        EXPECT_FALSE(report.clean());
        QByteArray const before = data.mid(at - 16, 8);
        Testing::damage(path(dataBlocks), at - 16, wide(0x1234567));
        CheckReport const other = SampleRepository::check();
        EXPECT_GT(other.count(FaultKind::Directory) + other.count(FaultKind::Snapshot), 0U);
        Testing::damage(path(dataBlocks), at - 16, before);
    }
    EXPECT_GT(found, 0);
    // Of the live page alone there are keys: one has no entry then, and one entry no key.
    int live = 0;
    for (qsizetype at = data.indexOf(name); at > 0; at = data.indexOf(name, at + 1)) {
        Testing::damage(path(dataBlocks), at, "b");
        live += SampleRepository::check().count(FaultKind::DirectoryTree) == 2;
        Testing::damage(path(dataBlocks), at, "a");
    }
    EXPECT_EQ(live, 1);
}

TEST_F(Damage, OfSnapshotsIsFound) {
    ASSERT_GT(read(snapshot2).size(), 4096 + 16);
    expect(FaultKind::Snapshot, "type", snapshot2, 120, word(9));
    expect(FaultKind::Snapshot, "version", snapshot2, 8, word(9));
    expect(FaultKind::Snapshot, "the one before", snapshot2, 128, word(9));
    expect(FaultKind::Snapshot, "dedup state", snapshot2, 152, word(9));
    expect(FaultKind::Snapshot, "first entry", snapshot2, 168, wide(8192));
    expect(FaultKind::SnapshotEntry, "file of an entry", snapshot2, 4096 + 8, wide(99999));
    expect(FaultKind::SnapshotEntry, "instance of an entry", snapshot2, 4096 + 4, word(99));
    expect(FaultKind::Orphan, "instance of an entry", snapshot2, 4096 + 4, word(99));
    QByteArray const twice = read(snapshot2).mid(4096, 16);
    expect(FaultKind::SnapshotEntry, "entry twice", snapshot2, 4096 + 16, twice);
    ASSERT_GE(read(dedupList).size(), 8);
    expect(FaultKind::DedupFile, "list of streams", dedupList, 0, wide(0));
    QByteArray const file = read(snapshot4);
    ASSERT_TRUE(QFile::remove(path(snapshot4)));
    EXPECT_GT(SampleRepository::check().count(FaultKind::Snapshot), 0U);
    write(path(snapshot4), file);
}

TEST_F(Damage, OfAWholeFileIsFound) {
    for (char const* file : {nodes, indirect, indirectRefs, dedupTree, cleanupQueue, dataBlocks,
                             dataRefs, dataFree, files, pointers, nameTree, snapshot2}) {
        QByteArray const before = read(file);
        for (qsizetype size : {qsizetype{0}, qsizetype{100}, before.size() / 2}) {
            // The second half of some files is reserve.
            bool const reserve = size == before.size() / 2;
            write(path(file), before.left(size));
            CheckReport const report = SampleRepository::check(true);
            EXPECT_TRUE(reserve || !report.clean()) << file << " cut to " << size;
        }
        ASSERT_TRUE(QFile::remove(path(file)));
        EXPECT_FALSE(SampleRepository::check().clean()) << file << " is gone";
        write(path(file), before);
    }
    CheckReport const mended = SampleRepository::check(true);
    EXPECT_TRUE(mended.clean()) << mended.lines().join(u'\n').toStdString();
}

/// What is damaged at random is at worst told of: nothing may crash or hang.
TEST_F(Damage, AtRandomNeverEndsACheckOrALook) {
    Testing::Random random(20261122);
    char const* const all[] = {nodes,     indirect,  indirectRefs, dedupTree, cleanupQueue,
                               dataRefs,  dataFree,  files,        pointers,  nameTree,
                               snapshot2, dedupList, dataBlocks};
    for (int round = 0; round < 120; ++round) {
        char const* const file = all[random.below(std::size(all))];
        QByteArray const before = read(file);
        QByteArray damaged = before;
        auto const used =
            std::min<std::uint64_t>(static_cast<std::uint64_t>(before.size()), 1 << 19);
        for (std::uint64_t i = 1 + random.below(20); i > 0 && used > 0; --i) {
            auto const at = static_cast<qsizetype>(random.below(used));
            for (qsizetype k = at; k < std::min<qsizetype>(at + 8, damaged.size()); ++k)
                damaged[k] = static_cast<char>(random.below(4) == 0 ? 0xFF : random());
        }
        write(path(file), damaged);
        (void)SampleRepository::check(true);
        for (auto const& words :
             std::vector<QStringList>{{"headers"},
                                      {"pool"},
                                      {"keys"},
                                      {"free"},
                                      {"control"},
                                      {"tree"},
                                      {"pointers"},
                                      {"snapshots"},
                                      {"snapshot", "2"},
                                      {"dir", "129"},
                                      {"dir", "129", "3"},
                                      {"queue", "cleanup"},
                                      {"dedup"},
                                      {"node", "3"},
                                      {"stream", "5"},
                                      {"id", QString::number(256 + random.below(200))},
                                      {"stream", QString::number(2 + random.below(200))},
                                      {"node", QString::number(2 + random.below(200))},
                                      {"indirect", "1"},
                                      {"data", "1"}}) {
            std::uint64_t lines = 0;
            Inspector inspector(RepositoryPaths::current(), {}, [&](QString const&) { ++lines; });
            EXPECT_NE(inspector.inspect(words), Inspector::Result::Usage);
            EXPECT_GT(lines, 0U) << words.join(u' ').toStdString();
        }
        write(path(file), before);
    }
    EXPECT_TRUE(SampleRepository::check(true).clean());
}

} // namespace
} // namespace Morva
