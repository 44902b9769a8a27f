#include "base/files/FaultyFiles.h"
#include "replication/common/intake/StateFile.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

namespace Replication {
namespace {

using Morva::FaultyFiles;

class StateFiles : public testing::Test {
protected:
    [[nodiscard]] QString path() const { return directory_.filePath("state-1"); }
    void put(QByteArray const& bytes) const {
        QFile file(path());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
    }
    [[nodiscard]] QByteArray get() const {
        QFile file(path());
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return file.readAll();
    }
    QTemporaryDir directory_;
};

/// A header of the given version and target size; sequence 7, bytes 8, flags 1, rule set 5.
QByteArray header(char version, int size, std::uint32_t targetSize) {
    QByteArray bytes(40, '\0');
    bytes[0] = 7;
    bytes[8] = 8;
    bytes[16] = version;
    bytes[20] = 1;
    bytes[24] = 5;
    bytes[28] = static_cast<char>(targetSize & 0xFF);
    bytes[29] = static_cast<char>(targetSize >> 8);
    return bytes.first(size);
}

TEST_F(StateFiles, HeaderHasItsGoldenBytes) {
    StateFile file(path());
    ASSERT_TRUE(file.create());
    QByteArray initial(40, '\0');
    initial[16] = 1;
    EXPECT_EQ(get(), initial);

    EXPECT_TRUE(file.sequenceNumber(0x0102030405060708, 0x1112131415161718));
    EXPECT_TRUE(file.flag(StateFile::resyncFlag, true));
    EXPECT_TRUE(file.ruleSet(0x21222324));
    EXPECT_TRUE(file.lastResync(0x31323334));
    EXPECT_TRUE(file.target(QStringLiteral("h\u00f6me")));
    EXPECT_EQ(get(), QByteArray::fromHex("0807060504030201"
                                         "1817161514131211"
                                         "01000000"
                                         "01000000"
                                         "24232221"
                                         "05000000"
                                         "34333231"
                                         "00000000"
                                         "68c3b66d65"));
    EXPECT_TRUE(file.flag(StateFile::resyncFlag, false));

    StateFile again(path());
    again.readHeader();
    EXPECT_TRUE(again.valid());
    EXPECT_EQ(again.sequenceNumber(), 0x0102030405060708U);
    EXPECT_EQ(again.bytesProcessed(), 0x1112131415161718U);
    EXPECT_EQ(again.flags(), 0U);
    EXPECT_EQ(again.ruleSet(), 0x21222324U);
    EXPECT_EQ(again.lastResync(), 0x31323334U);
    EXPECT_EQ(again.target(), QStringLiteral("h\u00f6me"));
}

TEST_F(StateFiles, OnlyWholeHeadersOfKnownVersionsAreValid) {
    struct {
        char const* what;
        QByteArray content;
        bool valid;
        QByteArray target;
    } const cases[] = {
        {"empty", {}, false, {}},
        {"less than its version", header(1, 23, 0), false, {}},
        {"torn header", header(1, 39, 0), false, {}},
        {"whole header", header(1, 40, 0), true, {}},
        {"later version", header(2, 40, 0), false, {}},
        {"torn old header", header(0, 31, 0), false, {}},
        {"old header", header(0, 32, 0), true, {}},
        {"old target loses its first 8 bytes", header(0, 32, 12) + "0123456789ab", true, "89ab"},
        {"largest target", header(1, 40, 3075) + QByteArray(3075, 't'), true,
         QByteArray(3075, 't')},
        {"too large a target", header(1, 40, 3076) + QByteArray(3076, 't'), false, {}},
        {"target cut short", header(1, 40, 9) + "abc", true, "abc"},
    };
    for (auto const& each : cases) {
        put(each.content);
        StateFile file(path());
        file.readHeader();
        EXPECT_EQ(file.valid(), each.valid) << each.what;
        if (!each.valid)
            continue;
        EXPECT_EQ(file.sequenceNumber(), 7U) << each.what;
        EXPECT_EQ(file.bytesProcessed(), 8U) << each.what;
        EXPECT_EQ(file.flags(), 1U) << each.what;
        EXPECT_EQ(file.ruleSet(), 5U) << each.what;
        EXPECT_EQ(file.target().toUtf8(), each.target) << each.what;
        EXPECT_EQ(get()[16], '\1') << each.what;
    }
}

TEST_F(StateFiles, DetailsStandBehindTheTargetAndGoWhenItIsCut) {
    QByteArray const details(500, 'd');
    StateFile file(path());
    ASSERT_TRUE(file.create());
    EXPECT_TRUE(file.details().isEmpty());
    ASSERT_TRUE(file.target(QStringLiteral("a long target")));
    ASSERT_TRUE(file.details(details));
    ASSERT_TRUE(file.sequenceNumber(3)); // leaves them alone
    {
        StateFile again(path());
        again.readHeader();
        EXPECT_EQ(again.details(), details);
    }
    ASSERT_TRUE(file.details("short"));
    EXPECT_EQ(get().size(), 40 + 13 + 4 + 5);
    ASSERT_TRUE(file.target(QStringLiteral("b")));
    EXPECT_EQ(get().size(), 41);
    EXPECT_TRUE(file.details().isEmpty());

    // A length that the file doesn't bear out.
    file.close();
    put(get() + QByteArray::fromHex("ffffff03") + "rest");
    StateFile torn(path());
    torn.readHeader();
    EXPECT_TRUE(torn.valid());
    EXPECT_TRUE(torn.details().isEmpty());
}

TEST_F(StateFiles, FailedWritesAreTold) {
    FaultyFiles files;
    StateFile file(path());
    files.failWritesAfter(1);
    EXPECT_FALSE(file.create()); // the header
    EXPECT_FALSE(QFile::exists(path()));
    files.heal();
    ASSERT_TRUE(file.create());

    struct {
        char const* what;
        bool (*write)(StateFile&);
    } const setters[] = {
        {"sequence", [](StateFile& f) { return f.sequenceNumber(5); }},
        {"sequence and bytes", [](StateFile& f) { return f.sequenceNumber(5, 6); }},
        {"last resync", [](StateFile& f) { return f.lastResync(5); }},
        {"flag", [](StateFile& f) { return f.flag(1, true); }},
        {"rule set", [](StateFile& f) { return f.ruleSet(5); }},
        {"target", [](StateFile& f) { return f.target(QStringLiteral("t")); }},
        {"details", [](StateFile& f) { return f.details("d"); }},
    };
    for (auto const& setter : setters) {
        files.shortWrite(1);
        EXPECT_FALSE(setter.write(file)) << setter.what;
        files.heal();
        EXPECT_TRUE(setter.write(file)) << setter.what;
    }
}

TEST_F(StateFiles, RemovedFileIsGoneAndInvalid) {
    StateFile file(path());
    ASSERT_TRUE(file.create());
    ASSERT_TRUE(file.sequenceNumber(9));
    EXPECT_TRUE(file.remove());
    EXPECT_FALSE(QFile::exists(path()));
    EXPECT_FALSE(file.valid());
    EXPECT_EQ(file.sequenceNumber(), 0U);
    EXPECT_FALSE(file.remove());
}

} // namespace
} // namespace Replication
