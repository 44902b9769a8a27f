#include "base/files/BufferedFile.h"
#include "base/files/FaultyFiles.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Morva;

namespace {

using Mode = RawFile::Mode;
using Where = RawFile::Where;

/// Every kind of file keeps the same contract: the parameter tells whether the wrapper is there.
class RawFiles : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        if (GetParam())
            faulty_ = std::make_unique<FaultyFiles>();
    }
    QString path(char const* name) const { return dir_.filePath(QString::fromLatin1(name)); }
    static QByteArray contents(QString const& name) {
        QFile file(name);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return file.readAll();
    }
    static std::unique_ptr<RawFile> created(QString const& name, Mode mode = Mode::ReadWrite) {
        auto file = RawFile::make();
        EXPECT_TRUE(file->create(name, mode));
        return file;
    }

private:
    QTemporaryDir dir_;
    std::unique_ptr<FaultyFiles> faulty_;
};

INSTANTIATE_TEST_SUITE_P(Kinds, RawFiles, ::testing::Bool(), [](auto const& info) {
    return info.param ? std::string("Faulty") : std::string("Real");
});

} // namespace

TEST_P(RawFiles, OnlyRegularFilesThatAreThereOpen) {
    auto file = RawFile::make();
    EXPECT_TRUE(file->open(path("none"), Mode::ReadWrite).is(Status::Code::NotFound));
    EXPECT_EQ(file->lastError(), static_cast<std::uint32_t>(ENOENT));
    EXPECT_FALSE(static_cast<bool>(*file));
    EXPECT_FALSE(QFile::exists(path("none")));
    EXPECT_TRUE(file->close());
    EXPECT_FALSE(file->create(path("no/such/directory"), Mode::ReadWrite));

    // Only regular files open, and a pipe doesn't block.
    ASSERT_EQ(::mkfifo(QFile::encodeName(path("pipe")).constData(), 0600), 0);
    EXPECT_FALSE(file->open(path("pipe"), Mode::ReadWrite));
    EXPECT_FALSE(file->open(path("pipe"), Mode::ReadOnly));
    EXPECT_FALSE(file->open(QFileInfo(path("pipe")).path(), Mode::ReadOnly));
    EXPECT_EQ(file->lastError(), static_cast<std::uint32_t>(EISDIR));
    EXPECT_FALSE(file->isOpen());
}

TEST_P(RawFiles, ReadsAndWritesMoveThePositionAndPositionedCallsDoNot) {
    auto file = created(path("a"), Mode::Random);
    EXPECT_TRUE(file->write("hello world", 11));
    EXPECT_EQ(file->position(), 11);
    EXPECT_TRUE(file->writeAt(20, "end", 3));
    EXPECT_EQ(file->position(), 11);
    EXPECT_EQ(*file->length(), 23U);
    EXPECT_TRUE(file->setPosition(6, Where::Start));
    EXPECT_FALSE(file->setPosition(-1, Where::Start));
    char bytes[32] = {};
    EXPECT_EQ(*file->read(bytes, 5), 5U);
    EXPECT_EQ(QByteArray(bytes, 5), "world");
    EXPECT_EQ(file->position(), 11);
    EXPECT_EQ(*file->readAt(18, bytes, 32), 5U);
    EXPECT_EQ(QByteArray(bytes, 5), QByteArray("\0\0end", 5));
    EXPECT_EQ(*file->readAt(1000, bytes, 1), 0U);
    EXPECT_FALSE(file->readAt(~std::uint64_t{0} - 3, bytes, 32));
    EXPECT_EQ(file->readWhole(18, bytes, 6).code(), Status::Code::Corruption);
    EXPECT_TRUE(file->readWhole(18, bytes, 5));
    EXPECT_FALSE(file->writeAt(~std::uint64_t{0} - 3, bytes, 32));
    EXPECT_TRUE(file->setPosition(0, Where::Start));
    EXPECT_TRUE(file->write(Extent("HE", 2)));
    EXPECT_TRUE(file->sync());
    EXPECT_EQ(contents(path("a")).left(11), "HEllo world");

    ASSERT_EQ(*created(path("a"))->length(), 0U);
}

TEST_P(RawFiles, GrowingReservesTheSpaceAndShrinkingCuts) {
    auto file = created(path("a"));
    EXPECT_TRUE(file->write("abc", 3));
    EXPECT_TRUE(file->setLength(1 << 20));
    struct stat status {};
    ASSERT_EQ(::stat(QFile::encodeName(path("a")).constData(), &status), 0);
    EXPECT_EQ(status.st_size, 1 << 20);
    EXPECT_GE(status.st_blocks * 512, 1 << 20);
    EXPECT_FALSE(file->setLength(~std::uint64_t{0}));
    // More than any disk has: nothing may be left of the attempt.
    EXPECT_FALSE(file->setLength(std::uint64_t{1} << 50));
    EXPECT_EQ(*file->length(), std::uint64_t{1} << 20);
    EXPECT_TRUE(file->setLength(2));
    EXPECT_EQ(contents(path("a")), "ab");
}

TEST_P(RawFiles, AReadOnlyFileCannotBeChanged) {
    ASSERT_TRUE(created(path("a"))->write(Extent("abc", 3)));
    auto file = RawFile::make();
    ASSERT_TRUE(file->open(path("a"), Mode::ReadOnly));
    char bytes[3];
    EXPECT_EQ(*file->read(bytes, 3), 3U);
    EXPECT_FALSE(file->writeAt(0, "x", 1));
    EXPECT_FALSE(file->setLength(1));
    EXPECT_NE(file->lastError(), 0U);
    EXPECT_EQ(contents(path("a")), "abc");
}

TEST_P(RawFiles, ThreadFilesShareTheFileButNotThePosition) {
    auto file = created(path("a"));
    ASSERT_TRUE(file->setPosition(100, Where::Start));
    // The file itself, though another has its name now.
    ASSERT_TRUE(QFile::rename(path("a"), path("b")));
    ASSERT_TRUE(created(path("a"))->write(Extent("other", 5)));
    auto thread = file->threadFile(Mode::Random);
    ASSERT_TRUE(thread);
    auto other = *std::move(thread);
    EXPECT_EQ(other->position(), 0);
    EXPECT_TRUE(other->write(Extent("shared", 6)));
    EXPECT_EQ(file->position(), 100);
    EXPECT_TRUE(file->close());
    EXPECT_TRUE(other->write(Extent("!", 1)));
    other.reset();
    EXPECT_EQ(contents(path("b")), "shared!");
    EXPECT_FALSE(file->threadFile(Mode::ReadWrite));
}

TEST_P(RawFiles, DeleteOnCloseRemovesTheFileItself) {
    auto file = RawFile::make();
    EXPECT_FALSE(file->deleteOnClose());
    file = created(path("a"));
    EXPECT_TRUE(file->deleteOnClose());
    EXPECT_TRUE(QFile::exists(path("a")));
    EXPECT_TRUE(file->close());
    EXPECT_FALSE(QFile::exists(path("a")));
    EXPECT_TRUE(file->close());

    file = created(path("b"));
    EXPECT_TRUE(file->deleteOnClose());
    ASSERT_TRUE(QFile::rename(path("b"), path("c")));
    auto const other = created(path("b"));
    file.reset();
    EXPECT_TRUE(QFile::exists(path("b")));
}

TEST_P(RawFiles, NamesThatAreNotUtf8OpenTheRightFile) {
    QByteArray const bytes = QFile::encodeName(path("bad")) + "\xFF\xC3";
    int const descriptor = ::creat(bytes.constData(), 0600);
    ASSERT_GE(descriptor, 0);
    ASSERT_EQ(::write(descriptor, "here", 4), 4);
    ::close(descriptor);
    auto file = RawFile::make();
    QString const name = path("bad") + QChar(0xDCFF) + QChar(0xDCC3);
    ASSERT_TRUE(file->open(name, Mode::ReadWrite));
    EXPECT_EQ(*file->length(), 4U);
    EXPECT_TRUE(file->deleteOnClose());
    EXPECT_TRUE(file->close());
    EXPECT_NE(::access(bytes.constData(), F_OK), 0);
    EXPECT_FALSE(file->create(path("a") + QChar(0) + QLatin1Char('b'), Mode::ReadWrite));
    EXPECT_FALSE(QFile::exists(path("a")));
}

TEST_P(RawFiles, BufferedReadsGiveTheBytesOfThePlace) {
    unsigned const seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    QByteArray bytes(5000, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    ASSERT_TRUE(created(path("a"))->write(Extent(bytes)));

    BufferedFile file(64);
    EXPECT_FALSE(file.setPosition(0));
    EXPECT_FALSE(file.open(path("none")));
    EXPECT_EQ(file.lastError(), static_cast<std::uint32_t>(ENOENT));
    ASSERT_TRUE(file.open(path("a")));
    EXPECT_FALSE(file.open(path("a")));
    EXPECT_EQ(*file.length(), 5000U);
    std::int64_t position = 0;
    for (int round = 0; round < 3000; ++round) {
        if (random() % 5 == 0) {
            position = static_cast<std::int64_t>(random() % 5100);
            ASSERT_TRUE(file.setPosition(position));
        }
        std::uint32_t const count = random() % (random() % 4 ? 20 : 200);
        QByteArray read(count, 0);
        std::uint32_t const got = *file.read(read.data(), count);
        ASSERT_EQ(read.left(got), bytes.mid(position, count)) << position << " " << count;
        position += got;
        ASSERT_EQ(file.position(), position);
    }
    EXPECT_TRUE(file.deleteOnClose());
    EXPECT_TRUE(file.close());
    EXPECT_TRUE(file.close());
    EXPECT_FALSE(QFile::exists(path("a")));
    char byte = 0;
    EXPECT_FALSE(file.read(&byte, 1));
    EXPECT_FALSE(file.deleteOnClose());
}

TEST(BufferedFile, ManySmallReadsAreFewCallsOnTheFile) {
    QTemporaryDir dir;
    FaultyFiles files;
    QString const name = dir.filePath(QStringLiteral("a"));
    {
        auto file = RawFile::make();
        ASSERT_TRUE(file->create(name, Mode::ReadWrite));
        ASSERT_TRUE(file->write(Extent(QByteArray(65536, 'x'))));
    }
    BufferedFile file(32768);
    ASSERT_TRUE(file.open(name));
    char entry[16];
    while (*file.read(entry, sizeof entry) == sizeof entry) {
    }
    EXPECT_EQ(file.position(), 65536);
    EXPECT_EQ(files.reads(), 3U);
    // An end of the file is not kept: what is added can be read.
    auto writer = RawFile::make();
    ASSERT_TRUE(writer->open(name, Mode::ReadWrite));
    ASSERT_TRUE(writer->writeAt(65536, "0123456789abcdef", 16));
    EXPECT_EQ(*file.read(entry, sizeof entry), 16U);
    EXPECT_EQ(QByteArray(entry, 16), "0123456789abcdef");
}

TEST_P(RawFiles, NamesAreListedAndChangedAndAbsentIsNoFailure) {
    auto& files = FileSystem::inForce();
    QString const above = path("one"), below = above + "/two/three";
    EXPECT_TRUE(files.makeDirectory(below));
    EXPECT_TRUE(files.makeDirectory(below));
    EXPECT_TRUE(created(below + "/b")->write(Extent("abc", 3)));
    (void)created(below + "/.a"); // closed at once
    EXPECT_TRUE(files.makeDirectory(below + "/c"));
    EXPECT_EQ(*files.names(below, FileSystem::Kind::File), QStringList({".a", "b"}));
    EXPECT_EQ(*files.names(below, FileSystem::Kind::Directory), QStringList("c"));
    EXPECT_TRUE(files.names(above + "/none", FileSystem::Kind::File)->isEmpty());
    EXPECT_TRUE(files.list(above + "/none").status().is(Status::Code::NotFound));

    auto const found = files.stat(below + "/b");
    ASSERT_TRUE(found && *found);
    EXPECT_EQ((*found)->length, 3U);
    EXPECT_EQ((*found)->owner, ::getuid());
    EXPECT_GT((*found)->modified, 0);
    EXPECT_FALSE(*files.exists(below + "/none"));
    EXPECT_FALSE(files.exists(below + "/b/none").ok())
        << "a path through a file can't be looked at";
    EXPECT_FALSE(files.exists(below + QChar(0)).ok());
    EXPECT_FALSE(files.makeDirectory(below + "/b"));

    EXPECT_TRUE(files.rename(below + "/b", below + "/.a"));
    EXPECT_EQ(contents(below + "/.a"), "abc");
    EXPECT_TRUE(files.remove(below + "/b").is(Status::Code::NotFound));
    EXPECT_TRUE(files.removeIfThere(below + "/b"));
    EXPECT_FALSE(files.removeDirectory(below));
    EXPECT_TRUE(files.remove(below + "/.a"));
    EXPECT_TRUE(files.removeDirectory(below + "/c"));
    EXPECT_TRUE(files.removeDirectory(below));
    EXPECT_TRUE(files.syncDirectory(above));
}

TEST(RawFile, VolumeIsTheMountPointAlsoOfPathsToCome) {
    EXPECT_EQ(RawFile::volume(QStringLiteral("/")), QStringLiteral("/"));
    EXPECT_EQ(RawFile::volume(QStringLiteral("/proc/self/nothing/here")), QStringLiteral("/proc"));
    QTemporaryDir dir;
    QString const volume = RawFile::volume(dir.path());
    EXPECT_FALSE(volume.isEmpty());
    EXPECT_EQ(RawFile::volume(dir.filePath(QStringLiteral("not/yet"))), volume);
    EXPECT_FALSE(RawFile::volume(QStringLiteral("relative/not/there")).isEmpty());
}
