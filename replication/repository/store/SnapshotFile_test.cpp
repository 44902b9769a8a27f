#include "replication/repository/store/SnapshotFile.h"

#include "base/files/FaultyFiles.h"
#include "base/messages/XmlList.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/streams/DedupStatistics.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

namespace Replication {
namespace {

class SnapshotFiles : public testing::Test {
protected:
    [[nodiscard]] QString name(Instance instance = Instance{7}) const {
        return directory_.path() + QLatin1Char('/') + SnapshotFile::fileName(instance);
    }
    void put(QByteArray const& bytes) {
        QFile file(name());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(bytes.size(), file.write(bytes));
    }
    [[nodiscard]] QByteArray get() const {
        QFile file(name());
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return file.readAll();
    }
    [[nodiscard]] std::unique_ptr<SnapshotFile> open() const {
        return std::make_unique<SnapshotFile>(directory_.path(), Instance{7});
    }
    [[nodiscard]] static std::vector<SnapshotEntry> entries(SnapshotFile& file) {
        std::vector<SnapshotEntry> result;
        EXPECT_TRUE(file.openForRead());
        for (auto entry = file.readEntry(); entry && *entry; entry = file.readEntry())
            result.push_back(**entry);
        EXPECT_TRUE(file.close());
        return result;
    }
    QTemporaryDir directory_;
};

TEST_F(SnapshotFiles, NamesNameInstances) {
    EXPECT_EQ(QStringLiteral("snapshot0000000007"), SnapshotFile::fileName(Instance{7}));
    struct Case {
        QString name;
        std::uint32_t instance;
    };
    for (Case const& test :
         {Case{"snapshot0000000042", 42}, Case{"snapshot4294967295", 4294967295u},
          Case{"snapshot4294967296", 0}, Case{"snapshot0000000000", 0}, Case{"snapshot42", 0},
          Case{"Snapshot0000000042", 0}, Case{"snapshot00000000042", 0},
          Case{"snapshot000000004x", 0}, Case{"snapshot-000000042", 0}, Case{"dedup0000000042", 0}})
        EXPECT_EQ(Instance{test.instance}, SnapshotFile::fromFileName(test.name))
            << test.name.toStdString();
    EXPECT_FALSE(SnapshotFile(directory_.path(), Instance{}).instance());
}

TEST_F(SnapshotFiles, HeaderHasItsGoldenBytes) {
    {
        auto const file = open();
        file->setLength(0x0102030405060708);
        file->setCounters({1, 2, 3, 4, 5, 6, 7, 8});
        file->setDedupStatistics({99, 0x21, 0x22, 0x23, 0x24});
        file->setPolicy(0x31, 0x32, 0x33, true);
        file->setPreviousInstance(Instance{6});
        file->setDedupState(DedupState::Processing);
        file->setDedupOffset(0x41);
        file->setIndexed(true);
        file->setMarkedForDeletion(true);
        file->analyzed(0x51, 0x52, 0x53);
        file->setLabel(QStringLiteral("Aé"));
        ASSERT_TRUE(file->writeHeader());
        EXPECT_EQ(7u, file->instance().value);
    }
    QByteArray golden(4096, '\0');
    auto const word = [&](int at, std::uint32_t value) {
        Morva::storeLittle(golden.data() + at, value);
    };
    auto const wide = [&](int at, std::uint64_t value) {
        Morva::storeLittle(golden.data() + at, value);
    };
    wide(0, 0x0102030405060708);
    word(8, 1);
    wide(16, 0x52);
    wide(24, 0x53);
    for (int i = 2; i < 8; ++i)
        wide(16 + 8 * i, static_cast<std::uint64_t>(i + 1));
    for (int i = 0; i < 4; ++i)
        wide(88 + 8 * i, static_cast<std::uint64_t>(0x21 + i));
    word(120, 2);
    word(124, 1);
    word(128, 6);
    word(140, 0x31);
    word(144, 0x32);
    word(148, 0x33);
    word(152, 2);
    golden[158] = 1;
    wide(160, 0x41);
    wide(168, 4096);
    wide(176, 0x51);
    word(184, 2);
    golden[188] = golden[189] = golden[190] = 1;
    golden[320] = 'A';
    golden[322] = '\xE9';
    EXPECT_EQ(golden.toHex(), get().toHex());
    auto const again = open();
    EXPECT_EQ(QStringLiteral("Aé"), again->label());
    EXPECT_EQ(SnapshotType::Policy, again->type());
    EXPECT_EQ((DedupStatistics{0, 0x21, 0x22, 0x23, 0x24}), again->dedupStatistics());
}

TEST_F(SnapshotFiles, DamagedFilesAreRefused) {
    auto const withDeleteOffset = [](std::uint64_t offset) {
        QByteArray bytes(4096, '\0');
        Morva::storeLittle(bytes.data() + 168, offset);
        return bytes;
    };
    for (QByteArray const& bytes :
         {QByteArray(), QByteArray(511, '\0'), withDeleteOffset(5), withDeleteOffset(511)}) {
        put(bytes);
        auto const file = open();
        EXPECT_FALSE(file->instance());
        EXPECT_FALSE(file->writeHeader());
        EXPECT_FALSE(file->openForAppend());
        EXPECT_FALSE(file->openForRead());
        EXPECT_FALSE(file->remove());
        EXPECT_EQ(bytes, get());
    }
    // The entries would begin behind the end.
    put(withDeleteOffset(std::uint64_t{1} << 63));
    EXPECT_FALSE(open()->openForAppend());
}

TEST_F(SnapshotFiles, OldLayoutIsConverted) {
    QByteArray bytes(512, '\x11');
    Morva::storeLittle<std::uint64_t>(bytes.data() + 168, 0);
    Morva::storeLittle<std::uint32_t>(bytes.data() + 120, 0);
    for (std::uint32_t i = 1; i <= 2; ++i) {
        QByteArray entry(16, '\0');
        Morva::storeLittle(entry.data() + 4, i);
        Morva::storeLittle<std::uint64_t>(entry.data() + 8, 100 + i);
        bytes += entry;
    }
    put(bytes);
    auto const changed =
        static_cast<std::uint32_t>(QFileInfo(name()).lastModified().toSecsSinceEpoch());
    for (int opening = 0; opening < 2; ++opening) {
        auto const file = open();
        EXPECT_TRUE(file->instance());
        EXPECT_EQ(0u, file->version());
        EXPECT_EQ(512u, file->deleteOffset());
        EXPECT_EQ(changed, file->sourceTime());
        EXPECT_EQ(changed, file->repositoryTime());
        EXPECT_EQ(
            (std::vector<SnapshotEntry>{{Instance{1}, FileId{101}}, {Instance{2}, FileId{102}}}),
            entries(*file));
    }
    // A label must not run over the entries.
    auto const file = open();
    file->setType(SnapshotType::User, false);
    file->setLabel(QString(1000, QLatin1Char('x')));
    ASSERT_TRUE(file->writeHeader());
    EXPECT_EQ(2u, entries(*file).size());
}

TEST_F(SnapshotFiles, LabelIsCutAndReadBackOnlyOnceTaken) {
    {
        auto const file = open();
        file->setLabel(QString(1024, QLatin1Char('x')));
        EXPECT_EQ(1023, file->label().size());
        ASSERT_TRUE(file->writeHeader());
    }
    EXPECT_EQ('x', get()[320]);
    auto const file = open();
    EXPECT_EQ(QString(), file->label());
    file->setType(SnapshotType::User, false);
    file->setLabel(QString(1023, QLatin1Char('y')));
    ASSERT_TRUE(file->writeHeader());
    EXPECT_EQ(QString(1023, QLatin1Char('y')), open()->label());
    // A label size that is damage is not followed out of the label.
    QByteArray bytes = get();
    Morva::storeLittle<std::uint32_t>(bytes.data() + 184, 0xFFFFFFFF);
    put(bytes);
    EXPECT_EQ(1023, open()->label().size());
    // Too short for its label: the rest of the header counts.
    put(bytes.left(2367));
    EXPECT_EQ(QString(), open()->label());
    EXPECT_EQ(SnapshotType::User, open()->type());
}

TEST_F(SnapshotFiles, EntriesComeBackAndATornOneIsOverwritten) {
    auto const file = open();
    EXPECT_FALSE(file->addEntry(FileId{1}, Instance{1})); // not open
    ASSERT_TRUE(file->openForAppend());
    EXPECT_FALSE(file->openForRead());
    EXPECT_TRUE(file->addEntry(FileId{0x1122334455667788}, Instance{3}));
    EXPECT_TRUE(file->addEntry(FileId{2}, Instance{4}));
    file->setType(SnapshotType::User, false);
    EXPECT_TRUE(file->writeHeader()); // in between, without moving the end
    EXPECT_TRUE(file->addEntry(FileId{3}, Instance{5}));
    EXPECT_TRUE(file->close());
    EXPECT_FALSE(file->close());
    EXPECT_EQ(QByteArray::fromHex("00000000030000008877665544332211"), get().mid(4096, 16));
    put(get().left(4096 + 40));
    EXPECT_EQ((std::vector<SnapshotEntry>{{Instance{3}, FileId{0x1122334455667788}},
                                          {Instance{4}, FileId{2}}}),
              entries(*file));
    ASSERT_TRUE(file->openForAppend());
    EXPECT_TRUE(file->addEntry(FileId{9}, Instance{6}));
    file->close();
    auto const list = entries(*file);
    ASSERT_EQ(3u, list.size());
    EXPECT_EQ((SnapshotEntry{Instance{6}, FileId{9}}), list[2]);
    EXPECT_TRUE(file->remove());
    EXPECT_FALSE(QFile::exists(name()));
}

TEST_F(SnapshotFiles, StatisticsListWhatAUserCanSee) {
    struct Case {
        SnapshotType type;
        bool listed;
    };
    for (Case const& test :
         {Case{SnapshotType::Old, true}, Case{SnapshotType::Initial, false},
          Case{SnapshotType::Policy, true}, Case{SnapshotType::User, true},
          Case{SnapshotType::Synchronization, true}, Case{SnapshotType::Validate, false}}) {
        auto const file = open();
        file->setType(test.type, false);
        Morva::XmlList list;
        file->statistics(list, FileHandle{});
        EXPECT_EQ(test.listed, list.contains("SnapShotEntry"));
        bool found = false;
        Morva::XmlList const entry = list.getXmlList(&found, "SnapShotEntry");
        if (test.listed) {
            EXPECT_EQ(SnapshotFile::typeText(test.type), entry.getString(nullptr, "Type"));
            FileHandle handle;
            QByteArray const id = entry.getBuffer(nullptr, "Id");
            EXPECT_TRUE(handle.decode(Morva::Extent(id)));
            EXPECT_EQ(Instance{7}, handle.instance);
            EXPECT_EQ(test.type != SnapshotType::Old, entry.contains("DedupState"));
            EXPECT_EQ(test.type == SnapshotType::Policy, entry.contains("Ruleset"));
        }
        file->setRetire();
        Morva::XmlList none;
        file->statistics(none, FileHandle{});
        EXPECT_TRUE(none.empty());
    }
}

TEST_F(SnapshotFiles, NamedStatisticsKeepTheOrderOfTheirKeys) {
    auto const file = open();
    EXPECT_TRUE(file->snapshot({}, 500, Instance{6}, true));
    file->analyzed(1, 2, 3);
    file->setPolicy(3, 4, 5, false);
    file->setLabel("label");
    SnapshotFile::Origin origin;
    origin.replayId = ReplayId{9};
    SnapshotFile::NamedLists lists;
    struct {
        std::uint32_t from;
        std::uint32_t to;
        bool inside;
    } const ranges[] = {{0, 0, true}, {500, 500, true}, {501, 600, false}, {1, 499, false}};
    for (auto const& range : ranges) {
        lists.clear();
        file->statistics(lists, origin, range.from, range.to);
        EXPECT_EQ(lists.size(), range.inside) << range.from;
    }
    file->statistics(lists, origin, 0, 0);
    ASSERT_EQ(lists.size(), 1);
    EXPECT_EQ(lists.first().first, "Snapshot");
    QStringList keys;
    for (Morva::XmlListIterator key(lists.first().second); key; ++key)
        keys += key.name();
    EXPECT_EQ(keys.join(' '),
              "Destination Machine Store InstanceType Id ReplayId Type SourceTime RepositoryTime "
              "Analyzed LogicalSize MarkedForDeletion FileCount DirectoryCount DedupStreamCount "
              "UniqueStreamCount DedupSize UniqueSize NeedResync DedupState Policy OpId Ruleset "
              "Label Indexed");
    EXPECT_EQ(lists.first().second.getString(nullptr, "DedupState"), "Deduplication Pending");
    file->setType(SnapshotType::Synchronization, false);
    file->statistics(lists, origin, 0, 0);
    EXPECT_EQ(lists.last().second.getString(nullptr, "Type"), "Syncronization");
}

TEST_F(SnapshotFiles, FullDiskLeavesNoFileBehind) {
    Morva::FaultyFiles files;
    files.diskBudget(100);
    EXPECT_FALSE(open()->instance());
    EXPECT_FALSE(QFile::exists(name()));
}

} // namespace
} // namespace Replication
