#include "base/files/VerifiedFile.h"

#include "base/files/FaultyFiles.h"
#include "base/files/Journal.h"
#include "base/files/JournalTable.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>

namespace Morva {
namespace {

constexpr std::uint32_t pageSize = PageSums::pageSize;
using Mode = RawFile::Mode;

QByteArray randomBytes(std::mt19937_64& random, qsizetype count) {
    QByteArray bytes(count, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

/// Files below a journal, and what they should hold: two large ones with side files and two small
/// ones, each with two checkpoints behind it.
class VerifiedFiles : public ::testing::Test {
protected:
    VerifiedFiles() { EXPECT_TRUE(QDir().mkpath(place())); }

    [[nodiscard]] QString place() const { return directory_.path() + QStringLiteral("/place"); }
    [[nodiscard]] QString path(QString const& name) const { return place() + u'/' + name; }

    Status open(Journal::Format format = Journal::Format::Newest) {
        journal.reset();
        auto opened = Journal::open(directory_.path(), {place()}, format);
        if (opened)
            journal = *std::move(opened);
        return opened.status();
    }
    void write(QString const& name, std::uint64_t offset, QByteArray const& bytes) {
        auto const file = RawFile::make();
        ASSERT_TRUE(model.contains(name) ? file->open(path(name), Mode::ReadWrite)
                                         : file->create(path(name), Mode::ReadWrite));
        ASSERT_TRUE(
            file->writeAt(offset, bytes.constData(), static_cast<std::uint32_t>(bytes.size())));
        QByteArray& expected = model[name];
        auto const end = static_cast<qsizetype>(offset) + bytes.size();
        if (expected.size() < end)
            expected.append(end - expected.size(), '\0');
        expected.replace(static_cast<qsizetype>(offset), bytes.size(), bytes);
    }
    void fill() {
        ASSERT_TRUE(open());
        write("data", 0, randomBytes(random, 100 * pageSize + 50));
        write("nodes", 0, randomBytes(random, 80 * pageSize));
        write("queue", 0, randomBytes(random, 5 * pageSize));
        write("state", 0, randomBytes(random, 77));
        ASSERT_TRUE(journal->checkpoint());
        copyAll(older_);
        for (QString const& name : model.keys())
            write(name, 10, randomBytes(random, 50));
        ASSERT_TRUE(journal->checkpoint());
        journal.reset();
        copyAll(newer_);
    }
    void copyAll(std::map<QString, QByteArray>& copies) {
        for (QString const& name : QDir(place()).entryList(QDir::Files)) {
            QFile file(path(name));
            ASSERT_TRUE(file.open(QIODevice::ReadOnly));
            copies[name] = file.readAll();
        }
    }
    void put(QString const& name, QByteArray const& bytes) {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(file.write(bytes), bytes.size());
    }
    /// The names of files that don't read as they should; a wrong byte fails the test.
    [[nodiscard]] QStringList unreadable(char const* what) {
        QStringList result;
        if (!open()) {
            return model.keys();
        }
        for (auto const& name : model.keys()) {
            auto const file = RawFile::make();
            QByteArray bytes(model[name].size() + 10, '\0');
            auto const opened = file->open(path(name), Mode::ReadWrite);
            auto const got =
                opened ? file->readAt(0, bytes.data(), static_cast<std::uint32_t>(bytes.size()))
                       : Result<std::uint32_t>(opened);
            if (got) {
                EXPECT_EQ(bytes.left(*got), model[name]) << what << ": wrong bytes";
                continue;
            }
            EXPECT_TRUE(got.status().file().startsWith(path(name))) << what;
            result.append(name);
        }
        journal.reset();
        return result;
    }
    /// Damages some files, expects exactly those to be refused, and mends them.
    void expect(char const* what, QStringList const& hurt, std::function<void()> const& damage) {
        damage();
        QStringList const found = unreadable(what);
        EXPECT_EQ(found, hurt) << what;
        for (auto const& [name, bytes] : newer_)
            put(name, bytes);
    }

    std::mt19937_64 random{20261123};
    QMap<QString, QByteArray> model;
    std::map<QString, QByteArray> older_, newer_;
    std::unique_ptr<Journal> journal;

private:
    FaultyFiles withoutSyncs_;
    QTemporaryDir directory_;
};

TEST_F(VerifiedFiles, NoDamageEverReadsAsContent) {
    fill();
    ASSERT_TRUE(newer_.contains("data.sums"));
    ASSERT_TRUE(newer_.contains("nodes.sums"));
    ASSERT_FALSE(newer_.contains("queue.sums"));
    expect("nothing", {}, [] {});
    for (auto const& [name, bytes] : newer_) {
        SCOPED_TRACE(name.toStdString());
        QString const hurt = name.section('.', 0, 0);
        for (qsizetype page = 0; page * pageSize < bytes.size();
             page += 1 + static_cast<qsizetype>(random() % 15)) {
            qsizetype const size = std::min<qsizetype>(pageSize, bytes.size() - page * pageSize);
            QByteArray flipped = bytes, zeroed = bytes;
            flipped[page * pageSize + static_cast<qsizetype>(random() % size)] ^=
                static_cast<char>(1 << random() % 8);
            zeroed.replace(page * pageSize, size, QByteArray(size, '\0'));
            expect("a bit", {hurt}, [&] { put(name, flipped); });
            expect("a page of zeros", {hurt}, [&] { put(name, zeroed); });
        }
        if (bytes.size() >= 2 * pageSize) {
            QByteArray const swapped =
                bytes.mid(pageSize, pageSize) + bytes.left(pageSize) + bytes.mid(2 * pageSize);
            expect("two pages swapped", {hurt}, [&] { put(name, swapped); });
        }
        expect("cut", {hurt}, [&] { put(name, bytes.left(bytes.size() / 2)); });
        expect("empty", {hurt}, [&] { put(name, {}); });
        expect("absent", {hurt}, [&] { QFile::remove(path(name)); });
        expect("an older copy", {hurt}, [&] { put(name, older_[name]); });
    }
    expect("older copies of a file and its side file", {"data"}, [&] {
        put("data", older_["data"]);
        put("data.sums", older_["data.sums"]);
    });
    expect("the files of another", {"data", "nodes"}, [&] {
        put("data", newer_["nodes"]);
        put("data.sums", newer_["nodes.sums"]);
        put("nodes", newer_["data"]);
        put("nodes.sums", newer_["data.sums"]);
    });
    expect("a file that the journal doesn't know", {}, [&] { put("stranger", "bytes"); });
    ASSERT_TRUE(open());
    EXPECT_TRUE(
        RawFile::make()->open(path("stranger"), Mode::ReadOnly).is(Status::Code::Corruption));
}

TEST_F(VerifiedFiles, SumsFollowAFileToItsNewNameAndGoWithIt) {
    fill();
    ASSERT_TRUE(open());
    auto const names = [&] { return QDir(place()).entryList(QDir::Files); };
    ASSERT_TRUE(RawFile::rename(path("data"), path("nodes")));
    ASSERT_TRUE(RawFile::rename(path("queue"), path("list")));
    model["nodes"] = model.take("data");
    model["list"] = model.take("queue");
    EXPECT_EQ(*FileSystem::inForce().names(place(), FileSystem::Kind::File),
              QStringList({"list", "nodes", "state"}));
    ASSERT_TRUE(journal->checkpoint());
    EXPECT_EQ(names(), QStringList({"list", "nodes", "nodes.sums", "state"}));
    write("nodes", 3 * pageSize, "abc");
    model["nodes"] = newer_["data"]; // What no checkpoint has seen is taken back.
    EXPECT_EQ(unreadable("renamed"), QStringList());
    ASSERT_TRUE(open());
    ASSERT_TRUE(RawFile::remove(path("nodes")));
    model.remove("nodes");
    ASSERT_TRUE(journal->checkpoint());
    EXPECT_EQ(names(), QStringList({"list", "state"}));
    // A small file of the name needs none, and a large one gets another one.
    write("nodes", 0, "small");
    ASSERT_TRUE(journal->checkpoint());
    EXPECT_EQ(names(), QStringList({"list", "nodes", "state"}));
    write("nodes", 0, randomBytes(random, 70 * pageSize));
    EXPECT_EQ(names(), QStringList({"list", "nodes", "state"})) << "only with a checkpoint";
    ASSERT_TRUE(journal->checkpoint());
    EXPECT_EQ(names(), QStringList({"list", "nodes", "nodes.sums", "state"}));
    EXPECT_EQ(unreadable("at the end"), QStringList());
}

TEST_F(VerifiedFiles, AnOlderFormatIsRefusedUntilItIsConvertedWhichCanBeStopped) {
    fill();
    // The files as a version without sums has left them.
    JournalTable table;
    table.sequence = 9;
    table.format = 1;
    table.applied = true;
    for (QString const& name : model.keys())
        table.files.push_back(
            {path(name), static_cast<std::uint64_t>(model[name].size()), {}, 0, {}});
    QFile::remove(path("data.sums"));
    QFile::remove(path("nodes.sums"));
    QString const base = QFileInfo(QFileInfo(place()).path()).path();
    QFile file(QFileInfo(place()).path() + "/journal");
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(table.encode(base));
    file.close();
    EXPECT_TRUE(open().is(Status::Code::InvalidArgument));
    int steps = 0;
    auto const stopsAt = [&](int end) {
        return [&steps, end](QString const& name) {
            return ++steps == end ? Status::failure(Status::Code::Stopped, "convert", name)
                                  : Status();
        };
    };
    ASSERT_TRUE(open(Journal::Format::ToConvert));
    EXPECT_TRUE(journal->convert(stopsAt(3)).is(Status::Code::Stopped));
    EXPECT_TRUE(open().is(Status::Code::InvalidArgument)) << "half of it";
    ASSERT_TRUE(open(Journal::Format::ToConvert));
    steps = 0;
    EXPECT_TRUE(journal->convert(stopsAt(99)));
    EXPECT_EQ(steps, 2) << "what was converted is not read again";
    EXPECT_EQ(unreadable("converted"), QStringList());
    copyAll(newer_);
    QByteArray damaged = newer_["data"];
    damaged[5000] ^= 1;
    expect("a bit", {"data"}, [&] { put("data", damaged); });
    table.format = JournalTable::newestFormat + 1;
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(table.encode(base));
    file.close();
    EXPECT_TRUE(open().is(Status::Code::InvalidArgument)) << "a newer one";
    EXPECT_TRUE(open(Journal::Format::ToConvert).is(Status::Code::InvalidArgument));
}

} // namespace
} // namespace Morva
