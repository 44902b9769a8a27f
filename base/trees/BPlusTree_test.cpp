#include "base/trees/BPlusTree.h"

#include "base/blocks/TestSupport.h"
#include "base/files/FaultyFiles.h"
#include "base/values/LittleEndian.h"

#include <map>

namespace Morva {
namespace {

using Testing::Random;

/// Stored form: hash words, a value, the name.
struct NameKey : BPlusTree::Key {
    NameKey(std::uint32_t first, QByteArray text, std::uint32_t number = 0)
        : words{first, 0}, name(std::move(text)), value(number) {}

    void hash(BPlusTree::KeyHash const& chosen) override { words = chosen; }
    BPlusTree::KeyHash const& hash() const override { return words; }
    std::uint32_t size() const override { return static_cast<std::uint32_t>(12 + name.size()); }
    bool save(Extent& range) const override {
        storeLittle(range.bytes(), words.first);
        storeLittle(range.bytes() + 4, words.second);
        storeLittle(range.bytes() + 8, value);
        std::memcpy(range.bytes() + 12, name.constData(), static_cast<std::size_t>(name.size()));
        return true;
    }
    bool restore(Extent const& stored) override {
        words.second = loadLittle<std::uint32_t>(stored.bytes() + 4);
        value = loadLittle<std::uint32_t>(stored.bytes() + 8);
        return true;
    }
    bool equal(Extent const& stored) const override {
        return stored.size == size() && std::memcmp(stored.bytes() + 12, name.constData(),
                                                    static_cast<std::size_t>(name.size())) == 0;
    }

    BPlusTree::KeyHash words;
    QByteArray name;
    std::uint32_t value;
};

struct BPlusTreeTest : testing::Test {
    using Model = std::map<QByteArray, std::uint32_t>;

    QTemporaryDir dir;
    QString path = dir.filePath("x.tree");
    BPlusTree tree{8};
    std::uint32_t hashes = ~0u; // how many different first words there are

    std::uint32_t hashOf(QByteArray const& name) const {
        return static_cast<std::uint32_t>(qHash(name, 7)) % hashes;
    }
    NameKey key(QByteArray const& name, std::uint32_t value = 0) const {
        return {hashOf(name), name, value};
    }
    bool insert(QByteArray const& name, std::uint32_t value) {
        NameKey fresh = key(name, value);
        return tree.insert(fresh).ok();
    }
    bool found(NameKey& wanted) const {
        auto const result = tree.find(wanted);
        EXPECT_TRUE(result.ok()) << result.status().text().toStdString();
        return result.ok() && *result;
    }
    bool remove(QByteArray const& name) {
        NameKey wanted = key(name);
        return found(wanted) && tree.remove(wanted);
    }
    static QByteArray nameOf(std::uint64_t number, int padding = 0) {
        return "name " + QByteArray::number(number) + QByteArray(padding, 'x');
    }
    void verify(QByteArray const& where = {}) const {
        QStringList faults;
        EXPECT_TRUE(tree.verify(faults)) << where.toStdString() << faults.join('\n').toStdString();
    }
    void compare(Model const& model) const {
        Model stored;
        EXPECT_TRUE(tree.forEach([&](Extent const& form) {
            QByteArray const bytes = form.toByteArray();
            EXPECT_TRUE(
                stored.emplace(bytes.mid(12), loadLittle<std::uint32_t>(form.bytes() + 8)).second);
            return true;
        }));
        EXPECT_EQ(stored, model);
        EXPECT_EQ(tree.keyCount(), model.size());
        for (auto const& [name, value] : model) {
            NameKey wanted = key(name);
            ASSERT_TRUE(found(wanted));
            ASSERT_EQ(wanted.value, value);
        }
    }
    void randomWork(std::uint64_t seed, std::uint32_t pageSize, int longest, int steps);
};

void BPlusTreeTest::randomWork(std::uint64_t seed, std::uint32_t pageSize, int longest, int steps) {
    Random random(seed);
    Model model;
    ASSERT_TRUE(tree.create(path, pageSize));
    for (int step = 0; step < steps; ++step) {
        bool const filling = step / (steps / 4) % 2 == 0;
        std::uint64_t const number = random.below(3000);
        auto const padding = static_cast<int>(number * 7919 % static_cast<unsigned>(longest));
        QByteArray const name = nameOf(number, number % 10 == 0 ? padding : padding % 40);
        auto const value = static_cast<std::uint32_t>(random());
        std::uint64_t const what = random.below(1000);
        NameKey wanted = key(name);
        auto at = model.find(name);
        ASSERT_EQ(found(wanted), at != model.end());
        if (what == 0) {
            ASSERT_TRUE(tree.close() && tree.open(path));
        } else if (at == model.end()) {
            if (what < (filling ? 900 : 200)) {
                ASSERT_TRUE(insert(name, value));
                model.emplace(name, value);
            }
        } else if (what < 200) {
            ASSERT_EQ(wanted.value, at->second);
            wanted.value = at->second = value;
            ASSERT_TRUE(tree.update(wanted));
        } else if (what < (filling ? 400 : 950)) {
            ASSERT_TRUE(tree.remove(wanted));
            model.erase(at);
        }
        if (step % (steps / 8) == 0)
            verify();
    }
    compare(model);
    verify();
    while (!model.empty()) {
        ASSERT_TRUE(remove(model.begin()->first));
        model.erase(model.begin());
    }
    EXPECT_EQ(tree.pageCount(), 1u);
    verify();
}

TEST_F(BPlusTreeTest, RandomWorkAgreesWithAMap) {
    for (std::uint64_t seed = 1; seed <= 3; ++seed)
        randomWork(seed, 512, 3000, 12000);
    randomWork(4, 4096, 8000, 12000);
}

TEST_F(BPlusTreeTest, KeysOfFewHashesAgreeWithAMap) {
    hashes = 40;
    randomWork(5, 512, 300, 12000);
}

TEST_F(BPlusTreeTest, OnlyTheKeyWithBothWordsIsChanged) {
    ASSERT_TRUE(tree.create(path, 4096));
    ASSERT_TRUE(insert("a", 1));
    NameKey wanted = key("a", 9);
    EXPECT_FALSE(tree.update(wanted)); // second word still 0
    EXPECT_FALSE(tree.remove(wanted));
    ASSERT_TRUE(found(wanted));
    NameKey other(wanted.words.first, "b");
    other.words = wanted.words;
    EXPECT_EQ(tree.remove(other).code(), Status::Code::NotFound);
    EXPECT_NE(wanted.words.second, 0u);
    NameKey longer = wanted;
    longer.name = "aa";
    EXPECT_EQ(tree.update(longer).code(), Status::Code::NotFound);
    EXPECT_TRUE(tree.remove(wanted));
    EXPECT_FALSE(tree.remove(wanted));
}

TEST_F(BPlusTreeTest, FormsUpToTheLimitAreKept) {
    ASSERT_TRUE(tree.create(path, 4096));
    for (int size : {0, 990, 991, 992, 993, 1004, 4068, 4104, 8166, 65524}) {
        QByteArray const name(size, static_cast<char>('a' + size % 26));
        ASSERT_TRUE(insert(name, static_cast<std::uint32_t>(size))) << size;
        NameKey wanted = key(name);
        ASSERT_TRUE(found(wanted)) << size;
        EXPECT_EQ(wanted.value, static_cast<std::uint32_t>(size));
    }
    EXPECT_FALSE(insert(QByteArray(65525, 'q'), 1));
    verify();
}

TEST_F(BPlusTreeTest, PagesStayProportionalToKeys) {
    Random random(9);
    ASSERT_TRUE(tree.create(path, 4096));
    std::vector<std::uint64_t> alive;
    std::uint64_t next = 0;
    for (int step = 0; step < 20000; ++step) {
        if (alive.size() < 2000) {
            alive.push_back(next++);
            ASSERT_TRUE(insert(nameOf(alive.back(), 60), 1));
        } else {
            std::swap(alive[random.below(alive.size())], alive.back());
            ASSERT_TRUE(remove(nameOf(alive.back(), 60)));
            alive.pop_back();
        }
    }
    EXPECT_LT(tree.pageCount(), 2000 * 92 / 4096 * 3);
}

TEST_F(BPlusTreeTest, OpenAndCloseWithoutChangeWriteNothing) {
    EXPECT_EQ(tree.open(path).code(), Status::Code::NotFound);
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_EQ(tree.cache(), nullptr);
    ASSERT_TRUE(tree.create(path, 4096));
    ASSERT_TRUE(insert("a", 1));
    ASSERT_TRUE(tree.close());
    FaultyFiles files;
    ASSERT_TRUE(tree.open(path));
    NameKey wanted = key("a");
    EXPECT_TRUE(found(wanted));
    EXPECT_GT(tree.cache()->misses(), 0u);
    ASSERT_TRUE(tree.close());
    EXPECT_EQ(files.writes(), 0u);
}

TEST_F(BPlusTreeTest, FullDiskRefusesAKeyAndChangesNothing) {
    for (std::uint64_t budget = 1048576 + 4096; budget < 1048576 + 512 * 12; budget += 512) {
        FaultyFiles files;
        files.diskBudget(budget);
        ASSERT_TRUE(tree.create(path, 512));
        Model model;
        std::uint32_t refused = 0;
        for (std::uint32_t n = 0; refused < 300; ++n) {
            QByteArray const name = nameOf(n, n % 7 == 0 ? 1200 : 30);
            NameKey fresh = key(name, n);
            Status const inserted = tree.insert(fresh);
            if (inserted) {
                model.emplace(name, n);
            } else {
                ++refused;
                ASSERT_EQ(inserted.code(), Status::Code::NoSpace);
                ASSERT_EQ(fresh.words.second, 0u);
            }
        }
        verify();
        compare(model);
        ASSERT_TRUE(tree.close() && tree.open(path));
        compare(model);
        ASSERT_TRUE(remove(model.begin()->first));
        verify();
    }
}

TEST_F(BPlusTreeTest, FailedWritesAreTriedAgain) {
    FaultyFiles files;
    ASSERT_TRUE(tree.create(path, 512));
    Model model;
    for (std::uint32_t n = 0; n < 300; ++n) {
        ASSERT_TRUE(insert(nameOf(n), n));
        model[nameOf(n)] = n;
        if (n == 100)
            files.failWritesAfter(0);
    }
    EXPECT_FALSE(tree.flush());
    files.heal();
    ASSERT_TRUE(tree.close() && tree.open(path));
    compare(model);
    verify();
}

TEST_F(BPlusTreeTest, FailedReadIsNotAMissingKeyAndChangesNothing) {
    ASSERT_TRUE(tree.create(path, 512));
    Model model;
    for (std::uint32_t n = 0; n < 60; ++n) {
        QByteArray const name = nameOf(n, n % 9 == 0 ? 900 : 40);
        ASSERT_TRUE(insert(name, n));
        model[name] = n;
    }
    ASSERT_TRUE(tree.close());
    FaultyFiles files;
    std::uint64_t failures = 0;
    for (auto const& [name, value] : Model(model)) {
        for (int operation = 0; operation < 4; ++operation) {
            NameKey wanted = key(name, value);
            ASSERT_TRUE(tree.open(path)); // with an empty cache
            if (operation > 0) {
                ASSERT_TRUE(found(wanted));
                ASSERT_TRUE(tree.close() && tree.open(path));
            }
            NameKey fresh = key(name + "new", value);
            files.failReadsAfter(value % 3);
            Status const done = operation == 0   ? tree.find(wanted).status()
                                : operation == 1 ? tree.update(wanted)
                                : operation == 2 ? tree.insert(fresh)
                                                 : tree.remove(wanted);
            files.heal();
            ASSERT_TRUE(done.ok() || done.is(Status::Code::IoError));
            failures += !done.ok();
            if (operation == 2 && done) {
                model[name + "new"] = value;
            } else if (operation == 3 && done) {
                model.erase(name);
            }
            verify(name);
            ASSERT_TRUE(tree.close());
        }
    }
    EXPECT_GT(failures, 60u);
    ASSERT_TRUE(tree.open(path));
    compare(model);
}

TEST_F(BPlusTreeTest, DamagedPagesAndCellsAreNotMissingKeys) {
    hashes = 10; // many keys of one hash, over several pages
    ASSERT_TRUE(tree.create(path, 512));
    for (std::uint32_t n = 0; n < 100; ++n)
        ASSERT_TRUE(insert(nameOf(n), n));
    ASSERT_TRUE(tree.close());
    QByteArray const sound = Testing::contents(path);
    std::uint64_t told = 0;
    for (int page = 2; page < 12; ++page) {
        for (int cell = 0; cell < 2; ++cell) {
            // The mark of the page, or where the first cell of a leaf lies.
            Testing::damage(path, page * 512 + (cell ? 16 + 8 : 0), QByteArray(2, '\xFE'));
            if (tree.open(path)) {
                for (std::uint32_t n = 0; n < 100; ++n) {
                    NameKey wanted = key(nameOf(n));
                    auto const there = tree.find(wanted);
                    EXPECT_TRUE(there.ok() ? *there : there.code() == Status::Code::Corruption);
                    told += !there.ok();
                }
                ASSERT_TRUE(tree.close());
            }
            Testing::damage(path, 0, sound);
        }
    }
    EXPECT_GT(told, 100u);
}

TEST_F(BPlusTreeTest, DamageIsReportedAndSurvived) {
    hashes = 200;
    ASSERT_TRUE(tree.create(path, 512));
    for (std::uint32_t n = 0; n < 400; ++n)
        ASSERT_TRUE(insert(nameOf(n, n % 20 == 0 ? 700 : 10), n));
    for (std::uint32_t n = 0; n < 100; ++n)
        ASSERT_TRUE(remove(nameOf(n, n % 20 == 0 ? 700 : 10)));
    ASSERT_TRUE(tree.close());
    QByteArray const sound = Testing::contents(path);
    Random random(31);
    int found = 0;
    for (int round = 0; round < 400; ++round) {
        int const page = 1 + static_cast<int>(random.below(90));
        int const offset =
            round % 2 ? static_cast<int>(random.below(32)) : static_cast<int>(random.below(512));
        QByteArray const junk(1 + round % 8, static_cast<char>(random()));
        Testing::damage(path, page * 512 + offset, junk.left(512 - offset));
        if (tree.open(path)) {
            QStringList faults;
            found += !tree.verify(faults);
            EXPECT_LE(faults.size(), 200);
            std::uint64_t forms = 0;
            (void)tree.forEach([&](Extent const&) { return ++forms < 100000; });
            for (std::uint32_t n = 0; n < 400; n += 3) {
                NameKey wanted = key(nameOf(n, n % 20 == 0 ? 700 : 10));
                // What damage hides is told, or found out by the check of the file above.
                if (auto const there = tree.find(wanted); there.ok() && *there)
                    (void)(n % 2 ? tree.remove(wanted) : tree.update(wanted)); // it may be damaged
                else
                    (void)tree.insert(wanted); // it may be damaged
            }
            (void)tree.close(); // it may be damaged
        } else {
            ++found;
        }
        Testing::damage(path, 0, sound);
        ASSERT_TRUE(QFile::resize(path, sound.size()));
    }
    EXPECT_GT(found, 150);
    ASSERT_TRUE(tree.open(path));
    verify();
}

} // namespace
} // namespace Morva
