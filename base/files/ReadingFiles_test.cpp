#include "base/files/FaultyFiles.h"
#include "base/files/Journal.h"
#include "base/files/ReadingFiles.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <sstream>

namespace Morva {
namespace {

class ReadingFilesTest : public testing::Test {
protected:
    QString at(char const* name) const { return directory.path() + '/' + name; }
    void put(char const* name, std::string const& text) const {
        std::ofstream(at(name).toStdString(), std::ios::binary) << text;
    }
    std::string onDisk(char const* name) const {
        std::ifstream file(at(name).toStdString(), std::ios::binary);
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }
    static std::string read(QString const& name) {
        auto const file = FileSystem::inForce().make();
        if (!file->open(name, RawFile::Mode::ReadOnly))
            return "missing";
        std::string text(*file->length(), '\0');
        EXPECT_TRUE(file->readWhole(0, text.data(), static_cast<std::uint32_t>(text.size())));
        return text;
    }
    static std::unique_ptr<RawFile> opened(QString const& name) {
        auto file = FileSystem::inForce().make();
        EXPECT_TRUE(file->open(name, RawFile::Mode::ReadWrite));
        return file;
    }
    QStringList names() const {
        return *FileSystem::inForce().names(directory.path(), FileSystem::Kind::File);
    }

    QTemporaryDir directory;
};

TEST_F(ReadingFilesTest, WritesAreReadBackAndLeaveTheDiskAlone) {
    std::string model(20000, 'a');
    put("file", model);
    auto const before = model;
    ReadingFiles files;
    auto const file = opened(at("file"));
    auto const other = opened(at("file"));
    std::mt19937 random(7);
    for (int i = 0; i < 300; ++i) {
        auto const place = random() % 25000;
        if (random() % 5 == 0) {
            model.resize(place);
            ASSERT_TRUE(file->setLength(place));
        } else {
            std::string const text(random() % 9000, static_cast<char>('b' + i % 20));
            model.resize(std::max(model.size(), place + text.size()));
            model.replace(place, text.size(), text);
            ASSERT_TRUE(file->writeAt(place, text.data(), static_cast<std::uint32_t>(text.size())));
        }
        ASSERT_EQ(*other->length(), model.size());
        ASSERT_TRUE(read(at("file")) == model) << i;
    }
    EXPECT_EQ(onDisk("file"), before);
}

TEST_F(ReadingFilesTest, NamesChangeInMemoryAlone) {
    put("one", "1");
    put("two", "2");
    {
        ReadingFiles files;
        ASSERT_TRUE(RawFile::rename(at("one"), at("three")));
        ASSERT_TRUE(RawFile::remove(at("two")));
        auto const made = FileSystem::inForce().make();
        ASSERT_TRUE(made->create(at("four"), RawFile::Mode::ReadWrite));
        ASSERT_TRUE(made->write("4", 1));
        ASSERT_TRUE(FileSystem::inForce().makeDirectory(at("new/deep")));
        ASSERT_TRUE(made->sync());
        EXPECT_EQ(names(), (QStringList{"four", "three"}));
        EXPECT_EQ(read(at("three")) + read(at("four")), "14");
        EXPECT_EQ(read(at("one")), "missing");
        EXPECT_TRUE(RawFile::remove(at("two")).is(Status::Code::NotFound));
        EXPECT_TRUE(*FileSystem::inForce().exists(at("new/deep")));
        EXPECT_FALSE(FileSystem::inForce().removeDirectory(at("new")));
        EXPECT_TRUE(FileSystem::inForce().removeDirectory(at("new/deep")));
    }
    EXPECT_EQ(names(), (QStringList{"one", "two"}));
    EXPECT_EQ(read(at("one")) + read(at("two")), "12");
}

TEST_F(ReadingFilesTest, AJournalRecoversInMemoryWhatAKillLeft) {
    auto const root = at("root");
    ASSERT_TRUE(QDir().mkpath(root + "/place"));
    auto const begin = [&] { return Journal::open(root, {root + "/place"}); };
    auto const name = root + "/place/file";
    {
        FaultyFiles faulty;
        {
            auto journal = begin();
            ASSERT_TRUE(journal);
            auto const file = FileSystem::inForce().make();
            ASSERT_TRUE(file->create(name, RawFile::Mode::ReadWrite));
            ASSERT_TRUE(file->write("first", 5));
            ASSERT_TRUE((*journal)->checkpoint());
            ASSERT_TRUE(file->writeAt(0, "other, and longer", 17));
            faulty.crash();
        }
        faulty.restart(FaultyFiles::Unsynced::Kept);
    }
    auto const disk = onDisk("root/place/file");
    for (int i = 0; i < 2; ++i) {
        ReadingFiles files;
        auto journal = begin();
        ASSERT_TRUE(journal) << journal.status().text().toStdString();
        EXPECT_EQ(read(name), "first");
    }
    EXPECT_EQ(onDisk("root/place/file"), disk);
}

} // namespace
} // namespace Morva
