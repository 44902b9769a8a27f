#include "base/trees/PagedList.h"

#include "base/blocks/TestSupport.h"
#include "base/files/FaultyFiles.h"
#include "base/values/LittleEndian.h"

#include <QDir>

#include <algorithm>

namespace Morva {
namespace {

using Testing::Random;
using Order = PagedList::CompareResult;

/// By the first four bytes only, so that equal records can be told apart.
Order byNumber(Extent const& a, Extent const& b) {
    auto const left = loadLittle<std::uint32_t>(a.data);
    auto const right = loadLittle<std::uint32_t>(b.data);
    return left < right ? Order::Less : left > right ? Order::Greater : Order::Equal;
}

struct PagedListTest : testing::Test {
    QTemporaryDir dir;
    QString path = dir.filePath("list");

    static QByteArray record(std::uint32_t number, std::uint32_t serial, int padding) {
        QByteArray bytes(8 + padding, 'p');
        storeLittle(bytes.data(), number);
        storeLittle(bytes.data() + 4, serial);
        return bytes;
    }
    static std::vector<QByteArray> all(PagedList& list) {
        std::vector<QByteArray> records;
        Extent record;
        list.setPositionStart();
        while (*list.read(record))
            records.push_back(record.toByteArray());
        EXPECT_FALSE(*list.read(record));
        return records;
    }
    static std::vector<QByteArray> fill(PagedList& list, Random& random, std::uint32_t count) {
        std::vector<QByteArray> records;
        for (std::uint32_t i = 0; i < count; ++i) {
            records.push_back(record(static_cast<std::uint32_t>(random.below(count / 2 + 1)), i,
                                     static_cast<int>(random.below(60))));
            EXPECT_TRUE(list.write(Extent(records.back())));
        }
        return records;
    }
    static void order(std::vector<QByteArray>& records) {
        std::ranges::stable_sort(records, [](auto const& a, auto const& b) {
            return byNumber(Extent(a), Extent(b)) == Order::Less;
        });
    }
};

TEST_F(PagedListTest, SortsWhateverTheSizes) {
    struct Case {
        std::uint32_t records, pageSize;
        std::uint64_t memory;
    };
    for (auto [count, pageSize, memory] : {Case{0, 4096, 4096},
                                           {1, 4096, 4096},
                                           {50, 65536, 4096},
                                           {3000, 4096, 1000000},
                                           {3000, 4096, 20000},
                                           {5000, 256, 1000},
                                           {2000, 64, 1}}) {
        Random random(count + memory);
        PagedList list(byNumber, path, pageSize, memory);
        list.deleteOnClose();
        auto records = fill(list, random, count);
        EXPECT_EQ(all(list), records);
        ASSERT_TRUE(list.sort());
        order(records);
        EXPECT_EQ(list.getPosition(), 0u);
        EXPECT_EQ(all(list), records);
        auto more = fill(list, random, 10);
        records.insert(records.end(), more.begin(), more.end());
        EXPECT_EQ(all(list), records);
        EXPECT_EQ(list.count(), records.size());
        ASSERT_TRUE(list.close());
        EXPECT_TRUE(QDir(dir.path()).isEmpty());
    }
}

TEST_F(PagedListTest, PositionsLeadBackToTheirRecords) {
    Random random(3);
    PagedList list(path, 512);
    std::vector<std::uint64_t> positions;
    std::vector<QByteArray> records;
    for (std::uint32_t i = 0; i < 500; ++i) {
        positions.push_back(list.getPosition());
        records.push_back(record(i, i, static_cast<int>(random.below(1500))));
        ASSERT_TRUE(list.write(Extent(records.back())));
        std::uint64_t const end = list.getPosition();
        auto const back = random.below(records.size());
        Extent found;
        list.setPosition(positions[back]);
        ASSERT_TRUE(*list.read(found));
        ASSERT_EQ(found.toByteArray(), records[back]);
        if (back + 1 < positions.size()) {
            ASSERT_EQ(list.getPosition(), positions[back + 1]);
        }
        list.setPosition(end);
        ASSERT_FALSE(*list.read(found));
        ASSERT_EQ(list.getPosition(), end);
    }
    Extent found;
    list.setPosition(positions[7] + 1); // not a record's
    if (auto const read = list.read(found); read.ok()) {
        EXPECT_LE(found.size, list.getPosition());
    } else {
        EXPECT_EQ(read.code(), Status::Code::Corruption);
    }
    list.setPosition(~0ull);
    EXPECT_FALSE(*list.read(found));
}

TEST_F(PagedListTest, SmallTemporaryListNeverTouchesTheDisk) {
    FaultyFiles files;
    PagedList list(byNumber, path);
    list.deleteOnClose();
    Random random(1);
    fill(list, random, 1000);
    ASSERT_TRUE(list.sort());
    EXPECT_EQ(all(list).size(), 1000u);
    ASSERT_TRUE(list.close());
    EXPECT_EQ(files.writes(), 0u);
}

TEST_F(PagedListTest, ClosedListIsTakenOverByOpen) {
    Random random(2);
    std::vector<QByteArray> records;
    {
        PagedList list(path, 1024);
        EXPECT_EQ(list.open().code(), Status::Code::NotFound);
        EXPECT_FALSE(QFile::exists(path));
        records = fill(list, random, 300);
    }
    {
        PagedList list(path, 1024);
        EXPECT_TRUE(list.empty());
        ASSERT_TRUE(list.open());
        EXPECT_EQ(all(list), records);
        PagedList copy(list, path + "2", true);
        EXPECT_EQ(all(copy), records);
        PagedList fresh(list, path + "3", false);
        EXPECT_TRUE(fresh.empty());
        list.deleteOnClose();
    }
    EXPECT_FALSE(QFile::exists(path));
    QByteArray const sound = Testing::contents(path + "2");
    for (int offset = 0; offset < 40; ++offset) {
        Testing::damage(path, 0, sound);
        Testing::damage(path, offset, QByteArray(1, static_cast<char>(sound[offset] ^ 0x81)));
        PagedList list(path);
        EXPECT_EQ(list.open().code(), Status::Code::Corruption) << offset;
    }
    Testing::damage(path, 0, sound);
    Testing::damage(path, 40, QByteArray(4, '\xFF')); // the first record's size
    PagedList list(path);
    ASSERT_TRUE(list.open());
    Extent found;
    EXPECT_EQ(list.read(found).code(), Status::Code::Corruption);
    EXPECT_EQ(list.status().code(), Status::Code::Corruption);
    Testing::damage(path, 0, sound);
    ASSERT_TRUE(list.open());
    {
        FaultyFiles files;
        PagedList faulty(path);
        ASSERT_TRUE(faulty.open());
        files.failReadsAfter(0);
        EXPECT_EQ(faulty.read(found).code(), Status::Code::IoError) << "and not the end";
        EXPECT_EQ(PagedList(faulty, path + "4", true).status().code(), Status::Code::IoError);
        files.heal();
        EXPECT_TRUE(*faulty.read(found));
    }
    ASSERT_TRUE(QFile::resize(path, sound.size() - 1));
    EXPECT_FALSE(list.open());
}

TEST_F(PagedListTest, FullDiskLeavesTheListAsItWas) {
    for (std::uint64_t budget = 0; budget < 90000; budget += 7919) {
        FaultyFiles files;
        PagedList list(byNumber, path, 4096, 8192);
        list.deleteOnClose();
        std::vector<QByteArray> records;
        files.diskBudget(budget);
        for (std::uint32_t i = 0; i < 1000; ++i) {
            QByteArray const bytes = record(1000 - i, i, 20);
            if (list.write(Extent(bytes)))
                records.push_back(bytes);
            else
                EXPECT_FALSE(list);
        }
        EXPECT_EQ(all(list), records);
        if (list.sort())
            order(records);
        EXPECT_EQ(all(list), records) << budget;
        list.clear();
        EXPECT_TRUE(list);
        ASSERT_TRUE(list.close());
        EXPECT_TRUE(QDir(dir.path()).isEmpty());
    }
}

} // namespace
} // namespace Morva
