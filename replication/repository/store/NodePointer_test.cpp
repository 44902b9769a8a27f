#include "replication/repository/store/NodePointer.h"

#include "base/blocks/Blocks.h"
#include "replication/repository/store/Outcomes.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

namespace Replication {
namespace {

Instance in(std::uint32_t value) {
    return Instance{value};
}
NodeNumber node(std::uint64_t value) {
    return NodeNumber{value};
}

class NodePointerTest : public testing::Test {
protected:
    NodePointerTest() { reopen(true); }

    void reopen(bool create = false) {
        pointers = std::make_unique<NodePointer>(256);
        ASSERT_TRUE(create ? pointers->create(path()) : pointers->open(path()));
    }
    [[nodiscard]] QString path() const { return directory.filePath(QStringLiteral("files.ptrs")); }

    /// Changes bytes of the closed file.
    void patch(std::uint64_t entry, std::uint32_t offset, std::uint64_t value) {
        ASSERT_TRUE(pointers->close());
        QFile file(path() + QStringLiteral(".blocks"));
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.seek(static_cast<qint64>(entry * PointerEntry::size + offset)));
        ASSERT_EQ(file.write(reinterpret_cast<char const*>(&value), 8), 8);
        file.close();
        reopen();
    }
    [[nodiscard]] QByteArray entryBytes(std::uint64_t entry) {
        EXPECT_TRUE(pointers->flush(false));
        QFile file(path() + QStringLiteral(".blocks"));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        EXPECT_TRUE(file.seek(static_cast<qint64>(entry * PointerEntry::size)));
        return file.read(PointerEntry::size).toHex();
    }

    QTemporaryDir directory;
    std::unique_ptr<NodePointer> pointers;
};

TEST_F(NodePointerTest, FirstIdsOfANewFileLeaveTheFirstBlockToControlAndRoot) {
    EXPECT_EQ(pointers->rootId(), FileId{129});
    pointers->setRoot(node(2), in(1));
    EXPECT_EQ(value(pointers->newId(node(3), in(1))), FileId{256});
    EXPECT_EQ(value(pointers->newId(node(4), in(1))), FileId{257});
    EXPECT_EQ(value(pointers->getNode(pointers->rootId())), node(2));
    EXPECT_EQ(value(pointers->getNode(FileId{130})), NodeNumber{})
        << "an unused slot of the first block";
    EXPECT_EQ(value(pointers->getNode(FileId{128})), NodeNumber{}) << "the control entry";
}

TEST_F(NodePointerTest, EntriesOnDiskAreAsTheTableSays) {
    FileId const id = value(pointers->newId(node(0x1122), in(5)));
    EXPECT_EQ(value(pointers->newInstance(id, node(0x3344), in(7))), in(5));
    // The head takes the new version; entry 257 the old one, with its links.
    EXPECT_EQ(entryBytes(256), "00000000"
                               "07000000"
                               "4433000000000000"
                               "0101000000000000"
                               "0000000000000000");
    EXPECT_EQ(entryBytes(257), "00000000"
                               "05000000"
                               "2211000000000000"
                               "0000000000000000"
                               "0001000000000000");
    // The free list's head, which points at itself, and the control entry that names it.
    EXPECT_EQ(entryBytes(258), "00000000"
                               "00000000"
                               "0000000000000000"
                               "0301000000000000"
                               "0201000000000000");
    EXPECT_EQ(entryBytes(128), "00000000"
                               "00000000"
                               "0000000000000000"
                               "0201000000000000"
                               "0000000000000000");
}

/// What the chains should be: instance and node of each version, newest first.
using Model = std::map<FileId, std::vector<std::pair<Instance, NodeNumber>>>;

void compare(NodePointer const& pointers, Model const& model, std::uint32_t current) {
    std::set<FileId> inner;
    std::size_t used = 0, free = 0;
    EXPECT_TRUE(pointers.walk([&](NodePointer::Entry const& entry) {
        (entry.node ? used : free) += 1;
        return true;
    }));
    std::size_t versions = 0;
    for (auto const& [id, chain] : model) {
        versions += chain.size();
        ASSERT_EQ(value(pointers.getNode(id)), chain.front().second);
        ASSERT_EQ(value(pointers.currentInstance(id)), chain.front().first);
        for (std::uint32_t i = 1; i <= current + 1; ++i) {
            auto const found = std::find_if(chain.begin(), chain.end(),
                                            [&](auto const& v) { return v.first < in(i); });
            ASSERT_EQ(value(pointers.getInstance(id, in(i))),
                      found == chain.end() ? NodeNumber{} : found->second);
        }
        std::vector<Instance> const list = value(pointers.instanceList(id));
        ASSERT_TRUE(std::equal(list.rbegin(), list.rend(), chain.begin(), chain.end(),
                               [](Instance i, auto const& v) { return i == v.first; }));
    }
    std::vector<FileId> freeIds;
    ASSERT_TRUE(pointers.freeList(freeIds));
    EXPECT_EQ(used, versions);
    EXPECT_EQ(free, freeIds.size() + 1) << "the root's entry isn't set here";
}

TEST_F(NodePointerTest, RandomChangesMatchAModelOfTheChains) {
    std::uint32_t const seed = std::random_device{}();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    Model model;
    std::vector<FileId> stale;
    std::uint32_t current = 1;
    std::uint64_t nextNode = 1;
    auto pick = [&] { return std::next(model.begin(), random() % model.size()); };
    for (int step = 0; step < 6000; ++step) {
        switch (model.empty() ? 0 : random() % 8) {
        case 0:
        case 1: {
            FileId const id = value(pointers->newId(node(nextNode), in(current)));
            ASSERT_TRUE(id);
            ASSERT_TRUE(
                model.emplace(id, Model::mapped_type{{in(current), node(nextNode)}}).second);
            ++nextNode;
            break;
        }
        case 2:
        case 3: {
            auto& [id, chain] = *pick();
            ASSERT_EQ(value(pointers->newInstance(id, node(nextNode), in(current))),
                      chain.front().first);
            if (chain.front().first == in(current))
                chain.front().second = node(nextNode);
            else
                chain.insert(chain.begin(), {in(current), node(nextNode)});
            ++nextNode;
            break;
        }
        case 4: {
            auto const at = pick();
            bool const single = at->second.size() == 1;
            ASSERT_EQ(value(pointers->freeId(at->first)), single);
            if (single) {
                stale.push_back(at->first);
                model.erase(at);
            }
            break;
        }
        case 5:
        case 6: {
            auto const at = pick();
            auto& chain = at->second;
            // Mostly an instance that is there, else any.
            Instance const wanted =
                random() % 4 ? chain[random() % chain.size()].first : in(1 + random() % current);
            auto const found = std::find_if(chain.begin(), chain.end(),
                                            [&](auto const& v) { return v.first <= wanted; });
            bool const exact = found != chain.end() && found->first == wanted;
            if (random() % 2) {
                ASSERT_EQ(value(pointers->freeInstance(at->first, wanted)),
                          exact ? found->second : NodeNumber{});
            } else {
                Instance last;
                ASSERT_EQ(value(pointers->freeInstance(at->first, wanted, last)), exact);
                ASSERT_EQ(last, !exact && found != chain.end() ? found->first : Instance{});
            }
            if (exact)
                chain.erase(found);
            if (chain.empty()) {
                stale.push_back(at->first);
                model.erase(at);
            }
            break;
        }
        case 7:
            if (random() % 40 == 0)
                ++current;
            break;
        }
        if (step % 1500 == 1499) {
            compare(*pointers, model, current);
            ASSERT_TRUE(pointers->close());
            reopen();
            compare(*pointers, model, current);
        }
    }
    for (FileId id : stale)
        ASSERT_EQ(value(pointers->getNode(id)), NodeNumber{}) << id.value;
}

TEST_F(NodePointerTest, IdsOutsideTheFileAreStale) {
    (void)pointers->newId(node(1), in(1));
    for (std::uint64_t id :
         {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{127}, std::uint64_t{3 * 128},
          std::uint64_t{0xFFFFFFFF}, ~std::uint64_t{0}}) {
        EXPECT_EQ(value(pointers->getNode(FileId{id})), NodeNumber{}) << id;
        EXPECT_EQ(value(pointers->newInstance(FileId{id}, node(2), in(2))), Instance{}) << id;
        EXPECT_EQ(value(pointers->freeInstance(FileId{id}, in(1))), NodeNumber{}) << id;
    }
    // An entry that nobody took yet must not be taken for a file: it would break the free list.
    EXPECT_EQ(value(pointers->newInstance(FileId{300}, node(2), in(2))), Instance{});
    EXPECT_FALSE(value(pointers->freeId(FileId{300})));
}

TEST_F(NodePointerTest, DamagedChainsEndInsteadOfRunningOn) {
    FileId const id = value(pointers->newId(node(1), in(1)));
    for (std::uint32_t i = 2; i <= 4; ++i)
        EXPECT_EQ(value(pointers->newInstance(id, node(i), in(i))), in(i - 1));
    // Entry 259 holds instance 3; its `previous` becomes the head, then a number outside.
    for (std::uint64_t target : {id.value, std::uint64_t{0x7FFFFFFF}}) {
        patch(259, 16, target);
        EXPECT_EQ(value(pointers->instanceList(id)), (std::vector{in(3), in(4)}));
        EXPECT_EQ(value(pointers->getInstance(id, in(2))), NodeNumber{});
        EXPECT_EQ(value(pointers->freeInstance(id, in(1))), NodeNumber{});
    }
}

TEST_F(NodePointerTest, DamagedFreeListNeverGivesOutAnEntryInUse) {
    FileId const used = value(pointers->newId(node(1), in(1)));
    struct {
        char const* what;
        std::uint64_t head;
    } const cases[] = {{"an entry in use", used.value},
                       {"outside the file", 0x00FFFFFF},
                       {"another generation", 300 | std::uint64_t{9} << 32},
                       {"the control entry", 128}};
    std::set<FileId> given{used};
    for (auto const& c : cases) {
        patch(128, 16, c.head);
        std::vector<FileId> list;
        EXPECT_FALSE(pointers->freeList(list)) << c.what;
        for (int i = 0; i < 200; ++i)
            ASSERT_TRUE(given.insert(value(pointers->newId(node(2), in(1)))).second) << c.what;
        EXPECT_EQ(value(pointers->getNode(used)), node(1));
    }
    // A free list that runs in a circle.
    std::vector<FileId> list;
    ASSERT_TRUE(pointers->freeList(list));
    ASSERT_GE(list.size(), 2U);
    patch(list[1].value & 0xFFFFFFFF, 16, list[0].value);
    EXPECT_FALSE(pointers->freeList(list));
    for (int i = 0; i < 200; ++i)
        ASSERT_TRUE(given.insert(value(pointers->newId(node(3), in(1)))).second);
}

TEST(NodePointer, MissingOrForeignFileDoesNotOpen) {
    QTemporaryDir directory;
    NodePointer pointers(16);
    EXPECT_FALSE(pointers.open(directory.filePath(QStringLiteral("none"))));
    EXPECT_FALSE(QFile::exists(directory.filePath(QStringLiteral("none.blocks"))));
    QFile file(directory.filePath(QStringLiteral("junk.blocks")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(8192, 'x'));
    file.close();
    EXPECT_FALSE(pointers.open(directory.filePath(QStringLiteral("junk"))));
    EXPECT_FALSE(pointers.valid());
    EXPECT_EQ(value(pointers.getNode(pointers.rootId())), NodeNumber{});
    EXPECT_FALSE(pointers.newId(node(1), in(1)));
}

} // namespace
} // namespace Replication
