#include "replication/repository/store/DirectoryIndex.h"
#include "replication/repository/store/DirectoryPage.h"

#include <QByteArray>
#include <QMap>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>

namespace Replication {
namespace {

struct Page {
    Page() { DirectoryPage::clear(bytes.data()); }
    DirectoryEntry at(std::uint32_t offset) { return DirectoryEntry(bytes.data() + offset); }
    void word(std::uint32_t offset, std::uint32_t value) {
        Morva::storeLittle(bytes.data() + offset, value);
    }
    /// The offset of the new entry, or -1.
    int put(QString const& name, std::uint64_t id, std::uint32_t type = 1) {
        auto const slot = DirectoryPage::takeSlot(
            bytes.data(), DirectoryPage::usedSize(static_cast<std::uint32_t>(name.size())));
        if (!slot.offset)
            return -1;
        DirKey key({}, name, type);
        key.fileId(FileId{id});
        at(*slot.offset).fill(key, name);
        return static_cast<int>(*slot.offset);
    }
    QStringList names() {
        QStringList result;
        for (PageWalk walk(bytes.data()); walk.next();)
            if (walk.entry().inUse())
                result.append(walk.entry().name().toString());
        return result;
    }
    alignas(8) std::array<std::uint8_t, DirectoryPage::size> bytes;
};

TEST(DirectoryPage, NamesTakeTheirSizeInWords) {
    struct {
        std::uint32_t characters, bytes;
    } const cases[] = {{0, 32}, {1, 32}, {2, 36}, {3, 36}, {4, 40}, {255, 540}, {2033, 4096}};
    for (auto const& one : cases)
        EXPECT_EQ(DirectoryPage::usedSize(one.characters), one.bytes) << one.characters;
}

TEST(DirectoryPage, EntryHasItsStoredForm) {
    Page page;
    DirectoryPage::makeParent(page.bytes.data(), FileId{0x99});
    ASSERT_EQ(page.put(QStringLiteral("Ab"), 0x1122334455667788, directoryType), 32);
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(page.bytes.data()), 62).toHex(),
              QByteArray("20000000"
                         "00000000"
                         "9900000000000000"
                         "01000000"
                         "02000000"
                         "00000000"
                         "00000000"
                         "e00f0000"
                         "02000000"
                         "8877665544332211"
                         "01000000"
                         "02000000"
                         "41006200"
                         "0000"));
}

TEST(DirectoryPage, TakesTheFirstSlotThatFits) {
    Page page;
    DirectoryPage::makeParent(page.bytes.data(), FileId{1});
    EXPECT_EQ(page.put(QStringLiteral("aaaa"), 2), 32);
    EXPECT_EQ(page.put(QStringLiteral("bbbb"), 3), 72);
    EXPECT_EQ(page.put(QStringLiteral("cccc"), 4), 112);
    // The space of the entry in the middle becomes slack of the one before it.
    ASSERT_TRUE(DirectoryPage::removeEntry(page.bytes.data(), 72));
    EXPECT_EQ(page.at(32).entryLength(), 80u);
    EXPECT_EQ(page.put(QStringLiteral("too long for that"), 5), 152);
    EXPECT_EQ(page.put(QStringLiteral("d"), 6), 72);
    EXPECT_EQ(page.names(), QStringList({"aaaa", "d", "cccc", "too long for that"}));
}

TEST(DirectoryPage, RemovedFirstEntryIsAFreeEntryTakenWhole) {
    Page page;
    EXPECT_EQ(page.put(QStringLiteral("long first name"), 2), 0);
    EXPECT_EQ(page.put(QStringLiteral("second"), 3), 60);
    ASSERT_TRUE(DirectoryPage::removeEntry(page.bytes.data(), 0));
    EXPECT_TRUE(page.at(0).free());
    EXPECT_EQ(page.at(0).nameLength(), 0u);
    EXPECT_EQ(page.at(0).linkId(), LinkId{1});
    EXPECT_EQ(page.put(QStringLiteral("x"), 4), 0);
    EXPECT_EQ(page.at(0).entryLength(), 60u);
}

TEST(DirectoryPage, InvalidEntryEndsTheWalk) {
    struct {
        char const* what;
        std::uint32_t offset, value;
    } const cases[] = {
        {"length 0", 32, 0},
        {"length not a multiple of 4", 32, 42},
        {"length below the least", 32, 28},
        {"length past the page", 32, 4068},
        {"name past the entry", 36, 9},
        {"name past the page", 36, 2100},
        {"name of a wrapping size", 36, 0xFFFFFFFF},
    };
    for (auto const& one : cases) {
        Page page;
        ASSERT_EQ(page.put(QStringLiteral("a"), 2), 0);
        ASSERT_EQ(page.put(QStringLiteral("bbbb"), 3), 32);
        ASSERT_EQ(page.put(QStringLiteral("c"), 4), 72);
        page.word(one.offset, one.value);
        PageWalk walk(page.bytes.data());
        EXPECT_TRUE(walk.next());
        EXPECT_FALSE(walk.next()) << one.what;
        EXPECT_TRUE(walk.invalid());
        EXPECT_EQ(walk.offset(), 32u);
        EXPECT_FALSE(walk.next());
        EXPECT_EQ(DirectoryPage::largestSlot(page.bytes.data()), DirectoryPage::damaged);
        EXPECT_TRUE(DirectoryPage::takeSlot(page.bytes.data(), 64).invalid);
        EXPECT_FALSE(DirectoryPage::removeEntry(page.bytes.data(), 72));
        DirectoryPage::traceInvalid({"test", FileId{1}, 0, 1, {}}, page.bytes.data(), 32);
    }
}

TEST(DirectoryPage, RandomNamesComeAndGoAsInAModel) {
    std::uint32_t const seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    Page page;
    QMap<int, QString> model;
    for (int step = 0; step < 20000; ++step) {
        if (random() % 2 || model.isEmpty()) {
            QString const name(1 + random() % 40,
                               QLatin1Char(static_cast<char>('a' + random() % 26)));
            std::uint32_t const needed = DirectoryPage::usedSize(name.size());
            bool const fits = DirectoryPage::largestSlot(page.bytes.data()) >= needed;
            int const offset = page.put(name, step + 1);
            ASSERT_EQ(offset >= 0, fits);
            if (fits)
                model.insert(offset, name);
        } else {
            auto const victim = std::next(model.begin(), random() % model.size());
            ASSERT_TRUE(DirectoryPage::removeEntry(page.bytes.data(), victim.key()));
            model.erase(victim);
        }
        QMap<int, QString> found;
        PageWalk walk(page.bytes.data());
        while (walk.next())
            if (walk.entry().inUse())
                found.insert(walk.offset(), walk.entry().name().toString());
        ASSERT_FALSE(walk.invalid());
        ASSERT_EQ(found, model);
    }
}

TEST(DirectoryIndex, FindsTheFirstPageAsAScanDoes) {
    std::uint32_t const seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::vector<std::uint16_t> slots(random() % 20);
    for (auto& slot : slots)
        slot = random() % 4096;
    DirectoryIndex index(slots);
    for (int step = 0; step < 20000; ++step) {
        std::uint16_t const value = random() % 4097;
        if (slots.empty() || random() % 50 == 0) {
            index.append(value);
            slots.push_back(value);
        } else {
            std::size_t const page = random() % slots.size();
            index.set(page, value);
            slots[page] = value;
        }
        std::uint32_t const needed = 32 + random() % 4070;
        auto const first = std::find_if(slots.begin(), slots.end(),
                                        [&](std::uint16_t slot) { return slot >= needed; });
        auto const found = index.firstFit(needed);
        ASSERT_EQ(found.has_value(), first != slots.end());
        if (found) {
            ASSERT_EQ(*found, static_cast<std::uint64_t>(first - slots.begin()));
        }
    }
}

} // namespace
} // namespace Replication
