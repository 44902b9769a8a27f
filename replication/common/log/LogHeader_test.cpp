#include "replication/common/log/LogHeader.h"

#include "base/values/LittleEndian.h"
#include "replication/common/log/LogBuilder.h"

#include <QBuffer>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace Replication {
namespace {

QByteArray packed(LogHeader& header) {
    QByteArray bytes;
    header.send(bytes);
    return bytes;
}

bool receive(LogHeader& header, QByteArray const& bytes) {
    Morva::Extent source(bytes);
    return header.receive(logIo(source));
}

LogHeader sample() {
    LogHeader header;
    header.ruleIds({5, 6, 7});
    header.sequenceNumber(0x0102030405060708);
    header.source(QStringLiteral("m\u00e4"));
    header.bodySize(100);
    return header;
}

TEST(LogHeader, GoldenBytesAlignFromTheMagic) {
    LogHeader header;
    header.ruleIds({5});
    header.sequenceNumber(9);
    header.source("ab");
    header.bodySize(3);
    // The sequence number stands at 16 of the record, which starts at the magic.
    EXPECT_EQ(packed(header).toHex(), "28000000"
                                      "ad45f3de"
                                      "e9030000"
                                      "01000000"
                                      "05000000"
                                      "0900000000000000"
                                      "04000000"
                                      "61006200"
                                      "03000000"
                                      "3fadde54");
    EXPECT_EQ(header.totalLength(), 44U + 3);
    LogHeader received;
    ASSERT_TRUE(receive(received, packed(header)));
    EXPECT_EQ(packed(received), packed(header));
    EXPECT_EQ(received.totalLength(), 44U + 3);
    header.ruleIds({5, 6});
    EXPECT_EQ(packed(header).size(), 52);

    LogHeader notification;
    notification.type(LogHeader::Notification);
    notification.name("x");
    EXPECT_EQ(packed(notification).toHex(), "14000000"
                                            "ad45f3de"
                                            "ea030000"
                                            "02000000"
                                            "78000000"
                                            "3fadde54");
    ASSERT_TRUE(receive(received, packed(notification)));
    EXPECT_EQ(packed(received), packed(notification));
    EXPECT_EQ(received.totalLength(), 24U);
}

TEST(LogHeader, TruncatedAndDamagedHeadersFail) {
    LogHeader header = sample();
    QByteArray const whole = packed(header);
    LogHeader received;
    for (qsizetype size = 0; size < whole.size(); ++size) {
        EXPECT_FALSE(receive(received, whole.left(size))) << size;
        // The size field bears out the cut, so that the fields themselves come short.
        if (size >= 16) {
            QByteArray cut = whole.left(size);
            Morva::storeLittle(cut.data(), static_cast<std::uint32_t>(size - 4));
            EXPECT_FALSE(receive(received, cut)) << size;
        }
    }
    struct Damage {
        qsizetype at;
        std::uint32_t value;
    };
    for (Damage const damage : {Damage{0, 11},
                                {0, 12},
                                {0, 0xFFFFFFFF},
                                {4, 0xDEF345AC},
                                {8, 1003},
                                {12, 4},
                                {12, 0xFFFFFFFF},
                                {36, 3},
                                {36, 0xFFFFFFFE},
                                {whole.size() - 4, 0x54DEAD3E}}) {
        QByteArray damaged = whole;
        Morva::storeLittle(damaged.data() + damage.at, damage.value);
        EXPECT_FALSE(receive(received, damaged)) << damage.at << " " << damage.value;
    }
}

/// One file of logs, read through every kind of source.
class LogSources : public testing::Test {
protected:
    static constexpr int logs = 300;

    void SetUp() override {
        LogBuilder builder;
        builder.source("s");
        for (int i = 0; i < logs; ++i) {
            data.fill('x', i * 37 % 9000);
            builder.begin(LogType::Write, static_cast<std::uint64_t>(i));
            builder.bytes(LogField::Data, Morva::Extent(data));
            LogExtents const extents = builder.encode();
            stream += extents.head.toByteArray() + extents.data.toByteArray();
        }
        name = dir.filePath("logs");
        QFile file(name);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(stream), stream.size());
    }

    void expectAll(LogIoRead const& source) {
        LogHeader header;
        LogEntry log;
        for (int i = 0; i < logs; ++i) {
            ASSERT_TRUE(header.receive(source)) << i;
            ASSERT_TRUE(log.receive(source, header)) << i;
            ASSERT_EQ(log.sequenceNumber(), static_cast<std::uint64_t>(i));
            ASSERT_EQ(log.data().size, static_cast<std::uint32_t>(i * 37 % 9000));
        }
        EXPECT_FALSE(header.receive(source));
    }

    QTemporaryDir dir;
    QString name;
    QByteArray data;
    QByteArray stream;
};

TEST_F(LogSources, AllGiveTheSameLogs) {
    Morva::Extent buffer(stream);
    expectAll(logIo(buffer));
    QFile file(name);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    expectAll(logIo(file));
    auto raw = Morva::RawFile::make();
    ASSERT_TRUE(raw->open(name, Morva::RawFile::Mode::ReadWrite));
    expectAll(logIo(*raw));
    ASSERT_TRUE(raw->setPosition(0, Morva::RawFile::Where::Start));
    LogReadAhead ahead(*raw);
    expectAll(ahead.io());
    EXPECT_TRUE(ahead.atEnd());
    EXPECT_EQ(ahead.position(), static_cast<std::uint64_t>(stream.size()));
}

TEST_F(LogSources, ReadAheadWorksWithABufferSmallerThanALogAndToldEnds) {
    int const descriptor = ::open(QFile::encodeName(name).constData(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(descriptor, 0);
    LogReadAhead ahead(descriptor, 64);
    EXPECT_FALSE(ahead.atEnd());
    expectAll(ahead.io());
    EXPECT_TRUE(ahead.atEnd());
    EXPECT_EQ(ahead.lastError(), 0);
    ::close(descriptor);
    LogReadAhead closed(-1);
    EXPECT_TRUE(closed.atEnd());
    EXPECT_EQ(closed.lastError(), EBADF);
}

TEST_F(LogSources, WrittenLogsReadBackTheSame) {
    Morva::Extent buffer(stream);
    LogHeader header;
    LogEntry log;
    QBuffer device;
    ASSERT_TRUE(device.open(QIODevice::WriteOnly));
    auto raw = Morva::RawFile::make();
    ASSERT_TRUE(raw->create(dir.filePath("copy"), Morva::RawFile::Mode::ReadWrite));
    for (int i = 0; i < logs; ++i) {
        ASSERT_TRUE(header.receive(logIo(buffer)));
        ASSERT_TRUE(log.receive(logIo(buffer), header));
        ASSERT_TRUE(log.write(device, header));
        ASSERT_TRUE(log.write(*raw, header));
    }
    EXPECT_EQ(device.data(), stream);
    QFile copy(dir.filePath("copy"));
    ASSERT_TRUE(copy.open(QIODevice::ReadOnly));
    EXPECT_EQ(copy.readAll(), stream);
    QBuffer closed;
    EXPECT_FALSE(header.write(closed));
}

} // namespace
} // namespace Replication
