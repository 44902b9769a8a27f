#include "base/files/FaultyFiles.h"

#include <QFile>
#include <QTemporaryDir>

using namespace Morva;

namespace {

using Mode = RawFile::Mode;
using Unsynced = FaultyFiles::Unsynced;

class FaultyDisk : public ::testing::Test {
protected:
    QString path(char const* name = "a") const { return dir_.filePath(QString::fromLatin1(name)); }
    std::unique_ptr<RawFile> file(char const* name = "a") const {
        auto result = RawFile::make();
        EXPECT_TRUE(result->create(path(name), Mode::ReadWrite));
        return result;
    }
    QByteArray contents(char const* name = "a") const {
        QFile plain(path(name));
        EXPECT_TRUE(plain.open(QIODevice::ReadOnly));
        return plain.readAll();
    }

    FaultyFiles files;

private:
    QTemporaryDir dir_;
};

} // namespace

TEST_F(FaultyDisk, TheNthWriteFailsOnceOrAllBehindIt) {
    auto one = file();
    EXPECT_EQ(files.writes(), 1U);
    files.failWrite(2, EDQUOT);
    EXPECT_EQ(one->write("a", 1), 1U);
    EXPECT_EQ(one->write("b", 1), 0U);
    EXPECT_EQ(one->lastError(), static_cast<std::uint32_t>(EDQUOT));
    EXPECT_EQ(one->position(), 1);
    EXPECT_EQ(one->write("c", 1), 1U);
    EXPECT_EQ(contents(), "ac");

    files.failWritesAfter(1);
    EXPECT_TRUE(one->setLength(10));
    EXPECT_FALSE(one->setLength(20));
    EXPECT_EQ(one->writeAt(0, "x", 1), 0U);
    EXPECT_FALSE(RawFile::make()->create(path("b"), Mode::ReadWrite));
    EXPECT_FALSE(QFile::exists(path("b")));
    EXPECT_EQ(files.faults(), 4U);
    files.heal();
    EXPECT_EQ(one->writeAt(0, "x", 1), 1U);
}

TEST_F(FaultyDisk, AFullDiskTakesWhatFitsAndReservedSpaceStaysGood) {
    auto one = file(), two = file("b");
    files.diskBudget(10);
    EXPECT_TRUE(one->setLength(6));
    EXPECT_EQ(two->write("abcdefgh", 8), 4U);
    EXPECT_EQ(two->lastError(), static_cast<std::uint32_t>(ENOSPC));
    EXPECT_EQ(two->length(), 4U);
    EXPECT_FALSE(one->setLength(7));
    EXPECT_EQ(one->length(), 6U);
    EXPECT_EQ(two->write("x", 1), 0U);
    EXPECT_EQ(one->writeAt(0, "123456", 6), 6U);
    EXPECT_EQ(one->writeAt(5, "67", 2), 1U);
    EXPECT_TRUE(one->setLength(3));
    EXPECT_EQ(two->write("xyz!", 4), 3U);
    EXPECT_EQ(contents("b"), "abcdxyz");
    EXPECT_TRUE(two->deleteOnClose());
    two->close();
    EXPECT_TRUE(one->setLength(10));
}

TEST_F(FaultyDisk, ACrashTakesBackWhatWasNotSynced) {
    QByteArray const safe(10000, 's');
    auto one = file();
    ASSERT_TRUE(one->write(Extent(safe)));
    ASSERT_TRUE(one->sync());
    EXPECT_EQ(one->writeAt(5000, "torn", 4), 4U);
    EXPECT_TRUE(one->setLength(200));
    EXPECT_EQ(one->writeAt(20000, "far", 3), 3U);
    // Found again under another name, and through another handle.
    ASSERT_TRUE(QFile::rename(path(), path("moved")));
    auto again = RawFile::make();
    ASSERT_TRUE(again->open(path("moved"), Mode::ReadWrite));
    EXPECT_EQ(again->writeAt(0, "zero", 4), 4U);
    auto fresh = file("fresh");
    ASSERT_TRUE(fresh->write(Extent("unsynced", 8)));

    files.failSyncsAfter(0);
    EXPECT_FALSE(fresh->sync()); // and saves nothing
    files.crashAtWrite(2);
    EXPECT_EQ(one->writeAt(0, "x", 1), 1U);
    EXPECT_FALSE(files.crashed());
    EXPECT_EQ(one->writeAt(0, "x", 1), 0U);
    EXPECT_TRUE(files.crashed());
    EXPECT_FALSE(one->sync());
    EXPECT_EQ(one->threadFile(Mode::ReadWrite), nullptr);
    EXPECT_FALSE(RawFile::make()->open(path("moved"), Mode::ReadWrite));
    EXPECT_FALSE(RawFile::make()->create(path("moved"), Mode::ReadWrite));
    one->deleteOnClose();
    files.restart(Unsynced::Lost);
    EXPECT_EQ(one->writeAt(0, "x", 1), 0U) << "a file from before the crash is dead";
    one.reset();

    EXPECT_EQ(contents("moved"), safe);
    EXPECT_EQ(contents("fresh"), "");
    ASSERT_TRUE(RawFile::make()->open(path("moved"), Mode::ReadWrite));
}

TEST_F(FaultyDisk, RandomLossKeepsEachPageWholeAndObeysItsSeed) {
    auto outcome = [&](std::uint64_t seed) {
        auto one = file();
        EXPECT_TRUE(one->write(Extent(QByteArray(16 * 4096, 'o'))));
        EXPECT_TRUE(one->sync());
        EXPECT_EQ(one->writeAt(0, QByteArray(32 * 4096, 'n').constData(), 32 * 4096), 32U * 4096);
        files.crash();
        files.restart(Unsynced::Random, seed);
        return contents();
    };
    int kept = 0, lost = 0, shortened = 0;
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        QByteArray const after = outcome(seed);
        EXPECT_EQ(after, outcome(seed)) << seed;
        ASSERT_TRUE(after.size() == 16 * 4096 || after.size() == 32 * 4096) << seed;
        shortened += after.size() == 16 * 4096;
        for (int page = 0; page * 4096 < after.size(); ++page) {
            char const old = page < 16 ? 'o' : '\0';
            QByteArray const bytes = after.mid(page * 4096, 4096);
            ASSERT_TRUE(bytes == QByteArray(4096, 'n') || bytes == QByteArray(4096, old)) << seed;
            ++(bytes[0] == 'n' ? kept : lost);
        }
    }
    EXPECT_GT(kept, 50);
    EXPECT_GT(lost, 50);
    EXPECT_GT(shortened, 0);
    EXPECT_LT(shortened, 20);
}
