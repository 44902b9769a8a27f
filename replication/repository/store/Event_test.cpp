#include "replication/repository/store/EventSamples.h"
#include "replication/repository/store/FileEventChannel.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

namespace Replication {
namespace {

class RawChannel : public EventChannel {
public:
    bool send(Morva::Extent const& event) override {
        events.push_back(event.toByteArray());
        return !refuse;
    }
    [[nodiscard]] EventRecord last() const {
        auto const record = EventRecord::decode(Morva::Extent(events.back()));
        EXPECT_TRUE(record);
        return record.value_or(EventRecord{});
    }
    bool refuse = false;
    std::vector<QByteArray> events;
};

struct Sender {
    std::shared_ptr<RawChannel> channel = std::make_shared<RawChannel>();
    Event event{channel, StoreId{0x0807060504030201}, ReplayId{9}, 1, 1};
};

TEST(Event, NewHasItsGoldenBytes) {
    Sender sender;
    EXPECT_TRUE(
        sender.event.created(FileId{0x55}, LinkId{1}, FileId{0x66}, QStringLiteral("ab"), 0x77));
    EXPECT_EQ(QByteArray("04000000"
                         "09000000"
                         "0100000000000000"
                         "5500000000000000"
                         "0102030405060708"
                         "01000000"
                         "00000000"
                         "00000000"
                         "00000000"
                         "6600000000000000"
                         "0102030405060708"
                         "04000000"
                         "00000000"
                         "00000000"
                         "00000000"
                         "00000000"
                         "00000000"
                         "77000000"
                         "00000000"
                         "04000000"
                         "61006200"),
              sender.channel->events.back().toHex());
}

TEST(Event, SnapshotHasItsGoldenBytes) {
    Sender sender;
    EXPECT_TRUE(sender.event.snapshot(Instance{3}, 0x11, 0x12, 0x13, true, 0x14));
    EXPECT_EQ(QByteArray("02000000"
                         "09000000"
                         "0100000000000000"
                         "0000000000000000"
                         "0102030405060708"
                         "03000000"
                         "03000000"
                         "00000000"
                         "00000000") +
                  QByteArray(64, '0') +
                  QByteArray("11000000"
                             "00000000"
                             "00000000"
                             "00000000"
                             "12000000"
                             "13000000"
                             "01"
                             "000000"
                             "14000000"
                             "03000000"),
              sender.channel->events.back().toHex());
}

TEST(Event, NumbersBeginAnewAtEachOpeningAndCountLostEvents) {
    auto const channel = std::make_shared<RawChannel>();
    Event first(channel, StoreId{1}, ReplayId{1}, 1, 1);
    EXPECT_TRUE(first.snapshotDeduped(Instance{1}));
    EXPECT_EQ(1u, channel->last().sequence);
    channel->refuse = true;
    EXPECT_FALSE(first.snapshotDeduped(Instance{1}));
    channel->refuse = false;
    EXPECT_TRUE(first.snapshotDeduped(Instance{1}));
    EXPECT_EQ(3u, channel->last().sequence);
    Event second(channel, StoreId{1}, ReplayId{1}, 1, 3);
    EXPECT_TRUE(second.deleteSnapshot(Instance{1}));
    EXPECT_EQ((std::uint64_t{2} << 32) + 1, channel->last().sequence);
}

std::vector<EventRecord> everyKind(Sender& sender) {
    EXPECT_TRUE(sendEveryKind(sender.event));
    std::vector<EventRecord> result;
    for (QByteArray const& bytes : sender.channel->events)
        result.push_back(EventRecord::decode(Morva::Extent(bytes)).value_or(EventRecord{}));
    return result;
}

TEST(Event, KindsSayWhatTheirSenderMeant) {
    Sender sender;
    auto const events = everyKind(sender);
    std::vector<std::uint32_t> types;
    for (EventRecord const& event : events)
        types.push_back(event.type);
    EXPECT_EQ((std::vector<std::uint32_t>{1, 1024, 1024, 128, 2, 2048, 8192, 4, 8, 8, 16, 32, 64,
                                          4096, 16384}),
              types);
    EXPECT_EQ(QStringLiteral("a/bc"), events[0].path);
    EXPECT_EQ((std::vector<std::uint32_t>{7, 8}), events[0].rules);
    EXPECT_EQ(0x22u, events[0].second.id);
    EXPECT_EQ(LinkId{4}, events[0].second.link);
    EXPECT_EQ(0x123456789Au, events[0].metadata.size);
    EXPECT_EQ(FileHandle{}, events[1].second); // no version before
    EXPECT_EQ(QStringLiteral("label"), events[5].text);
    EXPECT_EQ(5u, events[8].source.id);
    EXPECT_EQ(FileHandle{}, events[9].second);
    EXPECT_EQ(FileHandle{}, events[9].source);
    EXPECT_EQ(ReplayId{88}, events[13].replayId);
    EXPECT_EQ(StoreId{99}, events[13].object.store);
    // A version without rules has its path directly behind the header.
    EXPECT_EQ(QByteArray::fromHex("0800000061002f0062006300"),
              sender.channel->events[1].mid(96, 12));
}

TEST(Event, RecordsComeBackAndEveryTruncationIsRefused) {
    Sender sender;
    auto const events = everyKind(sender);
    for (std::size_t i = 0; i < events.size(); ++i) {
        Morva::PackBuffer buffer;
        events[i].encode(buffer);
        QByteArray const& sent = sender.channel->events[i];
        EXPECT_EQ(sent.toHex(), buffer.extentWithoutSize().toByteArray().toHex());
        for (qsizetype size = 0; size < sent.size(); ++size) {
            QByteArray const cut = sent.left(size);
            auto const record = EventRecord::decode(Morva::Extent(cut));
            // The handle of a source may be missing.
            bool const whole = events[i].type == EventRecord::Copy && size == 96;
            EXPECT_EQ(whole, record.has_value()) << events[i].type << " at " << size;
        }
    }
    QByteArray damaged = sender.channel->events[0];
    damaged.replace(84, 4, QByteArray(4, '\xFF')); // more rules than there can be
    EXPECT_FALSE(EventRecord::decode(Morva::Extent(damaged)));
    damaged = sender.channel->events[12];
    damaged[0] = 3; // no type
    EXPECT_FALSE(EventRecord::decode(Morva::Extent(damaged)));
}

TEST(FileEventChannel, KeepsEventsOverARestartAndCutsATornOne) {
    QTemporaryDir directory;
    QString const path = directory.filePath("events");
    QByteArray const largest(EventChannel::maximumEvent, 'x');
    {
        FileEventChannel channel(path);
        ASSERT_TRUE(channel.valid());
        EXPECT_TRUE(channel.send(Morva::Extent(QByteArray("one"))));
        EXPECT_TRUE(channel.send(Morva::Extent(largest)));
        QByteArray const larger = largest + 'x';
        EXPECT_FALSE(channel.send(Morva::Extent(larger)));
    }
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::Append));
    file.write(QByteArray::fromHex("0500000061"));
    file.close();
    {
        FileEventChannel channel(path);
        EXPECT_TRUE(channel.send(Morva::Extent(QByteArray("two"))));
    }
    FileEventChannel::Reader reader(path);
    EXPECT_EQ(QByteArray("one"), reader.next());
    EXPECT_EQ(largest, reader.next());
    EXPECT_EQ(QByteArray("two"), reader.next());
    EXPECT_FALSE(reader.next());
    EXPECT_FALSE(FileEventChannel(directory.filePath("no/such")).valid());
}

} // namespace
} // namespace Replication
