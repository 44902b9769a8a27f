#include "base/files/FaultyFiles.h"

#include <QFile>
#include <QTemporaryDir>

#include <filesystem>

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
    EXPECT_TRUE(one->write("a", 1));
    EXPECT_FALSE(one->write("b", 1));
    EXPECT_EQ(one->lastError(), static_cast<std::uint32_t>(EDQUOT));
    EXPECT_EQ(one->position(), 1);
    EXPECT_TRUE(one->write("c", 1));
    EXPECT_EQ(contents(), "ac");

    files.failWritesAfter(1);
    EXPECT_TRUE(one->setLength(10));
    EXPECT_FALSE(one->setLength(20));
    EXPECT_FALSE(one->writeAt(0, "x", 1));
    EXPECT_FALSE(RawFile::make()->create(path("b"), Mode::ReadWrite));
    EXPECT_FALSE(QFile::exists(path("b")));
    EXPECT_EQ(files.faults(), 4U);
    files.heal();
    EXPECT_TRUE(one->writeAt(0, "x", 1));
}

TEST_F(FaultyDisk, AFullDiskTakesWhatFitsAndReservedSpaceStaysGood) {
    auto one = file(), two = file("b");
    files.diskBudget(10);
    EXPECT_TRUE(one->setLength(6));
    auto const full = two->write("abcdefgh", 8);
    EXPECT_TRUE(full.is(Status::Code::NoSpace));
    EXPECT_EQ(two->position(), 0);
    EXPECT_EQ(two->lastError(), static_cast<std::uint32_t>(ENOSPC));
    EXPECT_EQ(*two->length(), 4U);
    EXPECT_FALSE(one->setLength(7));
    EXPECT_EQ(*one->length(), 6U);
    EXPECT_FALSE(two->writeAt(4, "x", 1));
    EXPECT_TRUE(one->writeAt(0, "123456", 6));
    EXPECT_FALSE(one->writeAt(5, "67", 2));
    EXPECT_TRUE(one->setLength(3));
    EXPECT_FALSE(two->writeAt(4, "xyz!", 4));
    EXPECT_EQ(contents("b"), "abcdxyz");
    EXPECT_TRUE(two->deleteOnClose());
    EXPECT_TRUE(two->close());
    EXPECT_TRUE(one->setLength(10));
}

TEST_F(FaultyDisk, ACrashTakesBackWhatWasNotSynced) {
    QByteArray const safe(10000, 's');
    auto one = file();
    ASSERT_TRUE(one->write(Extent(safe)));
    ASSERT_TRUE(one->sync());
    EXPECT_TRUE(one->writeAt(5000, "torn", 4));
    EXPECT_TRUE(one->setLength(200));
    EXPECT_TRUE(one->writeAt(20000, "far", 3));
    // Found again under another name, and through another handle.
    ASSERT_TRUE(QFile::rename(path(), path("moved")));
    auto again = RawFile::make();
    ASSERT_TRUE(again->open(path("moved"), Mode::ReadWrite));
    EXPECT_TRUE(again->writeAt(0, "zero", 4));
    auto fresh = file("fresh");
    ASSERT_TRUE(fresh->write(Extent("unsynced", 8)));

    files.failSyncsAfter(0);
    EXPECT_FALSE(fresh->sync()); // and saves nothing
    files.crashAtWrite(2);
    EXPECT_TRUE(one->writeAt(0, "x", 1));
    EXPECT_FALSE(files.crashed());
    EXPECT_FALSE(one->writeAt(0, "x", 1));
    EXPECT_TRUE(files.crashed());
    EXPECT_FALSE(one->sync());
    EXPECT_FALSE(one->threadFile(Mode::ReadWrite));
    EXPECT_FALSE(RawFile::make()->open(path("moved"), Mode::ReadWrite));
    EXPECT_FALSE(RawFile::make()->create(path("moved"), Mode::ReadWrite));
    one->deleteOnClose();
    files.restart(Unsynced::Lost);
    EXPECT_FALSE(one->writeAt(0, "x", 1)) << "a file from before the crash is dead";
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
        EXPECT_TRUE(one->writeAt(0, QByteArray(32 * 4096, 'n').constData(), 32 * 4096));
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

TEST_F(FaultyDisk, AFailedSyncForgetsWhatWasWrittenAndTheNextSucceeds) {
    auto one = file();
    ASSERT_TRUE(one->write(Extent("old", 3)));
    ASSERT_TRUE(one->sync());
    ASSERT_TRUE(one->writeAt(0, "newer", 5));
    files.failSync(1);
    EXPECT_TRUE(one->sync().is(Status::Code::IoError));
    EXPECT_EQ(contents(), QByteArray("old\0\0", 5));
    EXPECT_TRUE(one->sync());
    files.crash();
    files.restart(Unsynced::Lost);
    EXPECT_EQ(contents(), QByteArray("old\0\0", 5));
}

TEST_F(FaultyDisk, EachKindOfCallFailsOnceAndASweepMeetsThemAll) {
    using Call = FaultyFiles::Call;
    auto const calls = [&] {
        auto& disk = FileSystem::inForce();
        QString const below = path("below");
        auto one = RawFile::make();
        char byte = 0;
        return disk.makeDirectory(below) && one->create(below + "/a", Mode::ReadWrite) &&
               one->write("x", 1) && one->sync() && one->readAt(0, &byte, 1) && one->length() &&
               one->close() && one->open(below + "/a", Mode::ReadWrite) && one->close() &&
               disk.rename(below + "/a", below + "/b") && disk.stat(below + "/b") &&
               disk.list(below) && disk.syncDirectory(below) && disk.remove(below + "/b") &&
               disk.removeDirectory(below);
    };
    auto const cleanUp = [&] { std::filesystem::remove_all(path("below").toStdString()); };
    ASSERT_TRUE(calls());
    auto const total = files.count(Call::Any);
    for (std::uint64_t n = 1; n <= total; ++n) {
        auto const before = files.faults();
        files.failCall(n);
        EXPECT_FALSE(calls()) << n;
        EXPECT_EQ(files.faults(), before + 1) << n;
        files.heal();
        cleanUp();
    }
    for (auto const kind :
         {Call::Open, Call::Read, Call::Write, Call::Length, Call::Sync, Call::SyncDirectory,
          Call::List, Call::Stat, Call::MakeDirectory, Call::Rename, Call::Remove}) {
        files.fail(kind, 1, ENOSPC);
        EXPECT_FALSE(calls()) << static_cast<int>(kind);
        cleanUp();
        EXPECT_TRUE(calls()) << static_cast<int>(kind);
    }
    files.crashAtCall(1);
    EXPECT_FALSE(calls());
    EXPECT_FALSE(FileSystem::inForce().list(path("")));
    files.restart(Unsynced::Kept);
}
