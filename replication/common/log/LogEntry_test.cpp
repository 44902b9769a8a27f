#include "replication/common/log/LogEntry.h"

#include "base/values/LittleEndian.h"
#include "replication/common/log/LogBuilder.h"
#include "replication/common/log/LogHeader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <optional>

namespace Replication {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes joined(LogExtents const& extents) {
    Bytes bytes(extents.head.bytes(), extents.head.bytes() + extents.head.size);
    bytes.insert(bytes.end(), extents.data.bytes(), extents.data.bytes() + extents.data.size);
    return bytes;
}

Bytes bodyOf(LogEntry const& log) {
    return {log.body().bytes(), log.body().bytes() + log.body().size};
}

bool receive(LogEntry& log, Bytes const& body, LogDecode mode = LogDecode::Whole) {
    Morva::Extent source(static_cast<void const*>(body.data()),
                         static_cast<std::uint32_t>(body.size()));
    return log.receive(logIo(source), source.size, mode);
}

void append32(Bytes& bytes, std::uint32_t value) {
    for (int i = 0; i < 4; ++i)
        bytes.push_back(static_cast<std::uint8_t>(value >> 8 * i));
}

/// A body of the given streams, the first of which is stream 1.
Bytes bodyOfStreams(std::vector<Bytes> const& streams) {
    Bytes body;
    auto const count = static_cast<std::uint32_t>(streams.size() + 1);
    append32(body, count);
    append32(body, 4 * count + 4);
    for (Bytes const& stream : streams)
        append32(body, static_cast<std::uint32_t>(stream.size()));
    for (Bytes const& stream : streams)
        body.insert(body.end(), stream.begin(), stream.end());
    return body;
}

Bytes commonPart(LogType type, std::size_t size = 32) {
    Bytes stream;
    append32(stream, static_cast<std::uint32_t>(type));
    stream.resize(size);
    return stream;
}

/// Values that tell themselves apart: the n-th value of a type holds something made from n.
class SampleLog {
public:
    explicit SampleLog(LogShape const& shape) : shape_(shape) {
        std::uint32_t const rules[] = {7, 11};
        builder.source("source");
        builder.rules(rules);
        builder.process("daemon");
        builder.ruleSet(3);
        builder.begin(shape.type, 0x123456789).flags(0x55).time(86400 + 3661).shc(99);
        for (std::size_t i = 0; i < shape.values.size(); ++i)
            set(shape.values[i], i);
    }

    void set(LogValue const& value, std::size_t i) {
        texts_.push_back("value " + std::to_string(i));
        std::string const& text = texts_.back();
        switch (value.kind) {
        case LogKind::U32:
            builder.number(value.field, number(value.field, i));
            break;
        case LogKind::U64:
            builder.number(value.field, 0x100000000 * (i + 1) + i);
            break;
        case LogKind::Text:
            builder.text(value.field, text);
            break;
        case LogKind::Bytes:
            builder.bytes(value.field, {text.data(), static_cast<std::uint32_t>(text.size())});
            break;
        }
    }

    void expectIn(LogEntry const& log) const {
        EXPECT_EQ(log.type(), shape_.type);
        EXPECT_EQ(log.sequenceNumber(), 0x123456789U);
        EXPECT_EQ(log.flags(), 0x55U);
        EXPECT_EQ(log.time(), 86400U + 3661);
        EXPECT_EQ(log.ruleSet(), 3U);
        EXPECT_EQ(log.shc(), 99U);
        EXPECT_EQ(log.process(), "daemon");
        ASSERT_EQ(log.rules().size(), 2U);
        EXPECT_EQ(log.rules()[1], 11U);
        for (std::size_t i = 0; i < shape_.values.size(); ++i) {
            LogField const field = shape_.values[i].field;
            switch (shape_.values[i].kind) {
            case LogKind::U32:
                EXPECT_EQ(log.number(field), number(field, i));
                break;
            case LogKind::U64:
                EXPECT_EQ(log.wide(field), 0x100000000 * (i + 1) + i);
                break;
            case LogKind::Text:
                EXPECT_EQ(log.text(field), texts_[i]);
                break;
            case LogKind::Bytes:
                EXPECT_EQ(log.bytes(field).toByteArray().toStdString(), texts_[i]);
                break;
            }
        }
    }

    LogBuilder builder;

private:
    static std::uint32_t number(LogField field, std::size_t i) {
        bool const offset = field == LogField::FilenameOffset || field == LogField::StreamOffset ||
                            field == LogField::CasePreservedStreamOffset;
        return static_cast<std::uint32_t>(offset ? 1 + i % 5 : 1000 + i);
    }

    LogShape const& shape_;
    std::deque<std::string> texts_;
};

TEST(LogEntry, EveryTypeSurvivesEncodingAndDecoding) {
    LogEntry received;
    LogEntry built;
    LogHeader header;
    for (LogShape const& shape : logShapes()) {
        SCOPED_TRACE(shape.name);
        SampleLog sample(shape);
        Bytes const bytes = joined(sample.builder.encode());
        Morva::Extent source(static_cast<void const*>(bytes.data()),
                             static_cast<std::uint32_t>(bytes.size()));
        ASSERT_TRUE(header.receive(logIo(source)));
        EXPECT_EQ(header.sequenceNumber(), 0x123456789U);
        EXPECT_EQ(header.totalLength(), bytes.size());
        ASSERT_TRUE(received.receive(logIo(source), header));
        EXPECT_EQ(source.available, 0U);
        EXPECT_EQ(received.usedSize(), 240 + header.bodySize() + 8);
        sample.expectIn(received);
        ASSERT_TRUE(built.build(sample.builder));
        sample.expectIn(built);
        EXPECT_EQ(bodyOf(built), bodyOf(received));
    }
}

TEST(LogEntry, EveryTruncationAndEveryWrongBodySizeFails) {
    LogEntry log;
    for (LogShape const& shape : logShapes()) {
        SCOPED_TRACE(shape.name);
        SampleLog sample(shape);
        LogEntry whole;
        ASSERT_TRUE(whole.build(sample.builder));
        Bytes const body = bodyOf(whole);
        for (std::uint32_t size = 0; size < body.size(); ++size) {
            // An exact allocation, so that the sanitizer sees a read beyond it.
            auto const cut = std::make_unique<std::uint8_t[]>(size);
            std::memcpy(cut.get(), body.data(), size);
            Morva::Extent source(static_cast<void const*>(cut.get()), size);
            ASSERT_FALSE(log.receive(logIo(source), static_cast<std::uint32_t>(body.size())));
            EXPECT_NE(log.error(), 0U);
            EXPECT_EQ(log.body().size, 0U);
            Morva::Extent shorter(static_cast<void const*>(body.data()), size);
            ASSERT_FALSE(log.receive(logIo(shorter), size));
        }
        Bytes longer = body;
        longer.push_back(0);
        EXPECT_FALSE(receive(log, longer));
    }
}

TEST(LogEntry, GoldenBytesOfAClose) {
    LogBuilder builder;
    std::uint32_t const rules[] = {0x0A};
    builder.rules(rules);
    builder.process("p");
    builder.begin(LogType::Close, 2).time(0x10).number(LogField::FileId, 0x22);
    LogEntry log;
    ASSERT_TRUE(log.build(builder));
    Bytes const golden = {4,    0, 0, 0, 20,  0, 0, 0, 36,   0, 0, 0, 4, 0, 0, 0,
                          2,    0, 0, 0,                                          // table
                          100,  0, 0, 0, 0,   0, 0, 0,                            // type, flags
                          2,    0, 0, 0, 0,   0, 0, 0, 16,   0, 0, 0, 0, 0, 0, 0, // seq, time, set
                          0,    0, 0, 0, 0,   0, 0, 0, 0x22, 0, 0, 0,             // shc, FILEID
                          0x0A, 0, 0, 0, 'p', 0};
    EXPECT_EQ(bodyOf(log), golden);
}

TEST(LogEntry, StreamCountsAndLengthsAtTheirLimits) {
    LogEntry log;
    Bytes const empty;
    Bytes const zero = {0};
    ASSERT_TRUE(receive(log, bodyOfStreams({commonPart(LogType::Close, 36)})));
    EXPECT_TRUE(log.rules().empty());
    EXPECT_TRUE(log.process().empty());

    std::vector<Bytes> streams(62, empty);
    streams[0] = commonPart(LogType::Close, 256);
    streams[2] = zero;
    EXPECT_TRUE(receive(log, bodyOfStreams(streams)));
    streams[0] = commonPart(LogType::Close, 257);
    EXPECT_FALSE(receive(log, bodyOfStreams(streams)));
    EXPECT_EQ(log.error(), 3U);
    streams[0] = commonPart(LogType::Close, 36);
    streams.push_back(empty);
    EXPECT_FALSE(receive(log, bodyOfStreams(streams)));
    EXPECT_EQ(log.error(), 2U);
    Bytes const one = {1, 0, 0, 0, 8, 0, 0, 0};
    EXPECT_FALSE(receive(log, one));
    EXPECT_EQ(log.error(), 2U);
}

TEST(LogEntry, DamagedValuesAreRefused) {
    struct Case {
        char const* what;
        std::vector<Bytes> streams;
        bool good;
    };
    Bytes const close = commonPart(LogType::Close, 36);
    Bytes const rmdir = commonPart(LogType::PosixRmdir);
    Bytes const write = commonPart(LogType::WinWritePath, 32 + 16 + 16);
    auto const withOffsets = [&](std::uint32_t name, std::uint32_t stream,
                                 std::uint32_t preserved) {
        Bytes fixed = write;
        Morva::storeLittle(fixed.data() + 36, name);
        Morva::storeLittle(fixed.data() + 40, stream);
        Morva::storeLittle(fixed.data() + 44, preserved);
        return std::vector<Bytes>{fixed, {}, {0}, {'a', 'b', 0}, {'c', 0}, {}};
    };
    Case const cases[] = {
        {"sound", {rmdir, {}, {0}, {'a', 0}}, true},
        {"an empty string is one byte", {rmdir, {}, {0}, {0}}, true},
        {"string of no bytes", {rmdir, {}, {0}, {}}, false},
        {"string without its end", {rmdir, {}, {0}, {'a'}}, false},
        {"zero within a string", {rmdir, {}, {0}, {'a', 0, 'b', 0}}, false},
        {"stream of a string missing", {rmdir, {}, {0}}, false},
        {"process without its end", {rmdir, {}, {'x'}, {'a', 0}}, false},
        {"no process", {close, {}}, true},
        {"half a rule", {close, {1, 2}, {0}}, false},
        {"common part too short", {commonPart(LogType::Close, 31)}, false},
        {"fixed value missing", {commonPart(LogType::Close, 35)}, false},
        {"unknown type", {commonPart(static_cast<LogType>(9999)), {1, 0, 0, 0}, {0}, {1, 2}}, true},
        {"path offsets at the end", withOffsets(2, 2, 1), true},
        {"name offset beyond", withOffsets(3, 2, 1), false},
        {"stream offset beyond", withOffsets(2, 3, 1), false},
        {"preserved offset beyond", withOffsets(2, 2, 2), false},
    };
    LogEntry log;
    for (Case const& one : cases) {
        SCOPED_TRACE(one.what);
        EXPECT_EQ(receive(log, bodyOfStreams(one.streams)), one.good);
        EXPECT_EQ(log.error() == 0, one.good);
    }
}

TEST(LogEntry, AnEmptyBufferIsNullAndAForeignFieldIsEmpty) {
    LogBuilder builder;
    builder.begin(LogType::Write, 1).number(LogField::FileId, 8).number(LogField::Offset, 9);
    LogEntry log;
    ASSERT_TRUE(log.build(builder));
    EXPECT_EQ(log.data().data, nullptr);
    EXPECT_EQ(log.data().size, 0U);
    EXPECT_FALSE(log.has(LogField::Mode));
    EXPECT_EQ(log.mode(), 0U);
    EXPECT_EQ(log.size(), 0U);
    EXPECT_EQ(log.file(), "");
    EXPECT_EQ(log.number(LogField::Data), 0U);
    EXPECT_EQ(log.bytes(LogField::Offset).size, 0U);
}

TEST(LogEntry, AnnouncedSizesAreNotBelieved) {
    LogEntry log;
    Bytes body = bodyOfStreams({commonPart(LogType::Close, 36), {}, {0}});
    Morva::storeLittle(body.data() + 12, std::uint32_t{0xFFFFFFF0});
    EXPECT_FALSE(receive(log, body));
    EXPECT_EQ(log.capacity(), 0U);
    Morva::Extent source(static_cast<void const*>(body.data()),
                         static_cast<std::uint32_t>(body.size()));
    EXPECT_FALSE(log.receive(logIo(source), 0xFFFFFFFF));
    EXPECT_EQ(log.capacity(), 0U);
}

TEST(LogEntry, TheStreamGoesOnBehindADamagedBody) {
    Bytes bytes = bodyOfStreams({commonPart(LogType::PosixRmdir), {}, {0}, {'a'}});
    auto const damagedSize = static_cast<std::uint32_t>(bytes.size());
    Bytes wrongCount = bodyOfStreams({commonPart(LogType::Close, 36)});
    auto const wrongSize = static_cast<std::uint32_t>(wrongCount.size());
    wrongCount[0] = 200;
    bytes.insert(bytes.end(), wrongCount.begin(), wrongCount.end());
    Bytes const good = bodyOfStreams({commonPart(LogType::Close, 36)});
    bytes.insert(bytes.end(), good.begin(), good.end());
    Morva::Extent source(static_cast<void const*>(bytes.data()),
                         static_cast<std::uint32_t>(bytes.size()));
    LogEntry log;
    EXPECT_FALSE(log.receive(logIo(source), damagedSize));
    EXPECT_FALSE(log.receive(logIo(source), wrongSize));
    EXPECT_TRUE(log.receive(logIo(source), static_cast<std::uint32_t>(good.size())));
}

TEST(LogEntry, AddedRulesStandBehindTheOldOnes) {
    SampleLog sample(*logShape(static_cast<std::uint32_t>(LogType::PosixSetEa)));
    LogEntry log;
    ASSERT_TRUE(log.build(sample.builder));
    std::uint32_t const sizeBefore = log.body().size;
    std::uint32_t const more[] = {20, 21, 22};
    ASSERT_TRUE(log.addRules(more));
    EXPECT_EQ(log.body().size, sizeBefore + 12);
    EXPECT_EQ(std::vector<std::uint32_t>(log.rules().begin(), log.rules().end()),
              (std::vector<std::uint32_t>{7, 11, 20, 21, 22}));
    EXPECT_EQ(log.eaName(), "value 1");
    EXPECT_EQ(log.data().toByteArray(), "value 3");
    LogEntry again;
    ASSERT_TRUE(receive(again, bodyOf(log)));
    EXPECT_EQ(again.rules().size(), 5U);

    ASSERT_TRUE(receive(log, bodyOfStreams({commonPart(LogType::Close, 36)})));
    ASSERT_TRUE(log.addRules(more));
    EXPECT_EQ(log.rules().size(), 3U);
    ASSERT_TRUE(receive(again, bodyOf(log)));
    EXPECT_EQ(again.rules()[2], 22U);

    LogEntry empty;
    EXPECT_FALSE(empty.addRules(more));
}

TEST(LogEntry, StreamsBehindThoseOfATypeAreCarried) {
    FileTimes const times{{-1, 999'999'999}, {std::int64_t{1} << 40, 1}, {3, 0}};
    Bytes packed(FileTimes::packedSize);
    times.pack(packed.data());
    Bytes const path = {'/', 'a', 0};
    Bytes const later = {1, 2, 3};
    Bytes const setAttr = commonPart(LogType::PosixSetAttr, 32 + 7 * 4);
    struct {
        char const* what;
        std::vector<Bytes> streams;
        std::optional<FileTimes> times;
    } const cases[] = {
        {"none", {setAttr, {}, {0}, path}, {}},
        {"times", {setAttr, {}, {0}, path, packed}, times},
        {"times and one more", {setAttr, {}, {0}, path, packed, later}, times},
        {"too short for times", {setAttr, {}, {0}, path, later}, {}},
        {"a type that has none", {commonPart(LogType::PosixUnlink), {}, {0}, path, packed}, {}},
    };
    std::uint32_t const more[] = {20, 21};
    LogEntry log;
    for (auto const& one : cases) {
        SCOPED_TRACE(one.what);
        auto const body = bodyOfStreams(one.streams);
        ASSERT_TRUE(receive(log, body));
        EXPECT_EQ(log.file(), "/a");
        EXPECT_EQ(log.exactTimes(), one.times);
        EXPECT_EQ(bodyOf(log), body);
        EXPECT_EQ(log.toText().find(" TIMES:") != std::string::npos, one.times.has_value());
        ASSERT_TRUE(log.addRules(more));
        EXPECT_EQ(log.exactTimes(), one.times);
        auto streams = one.streams;
        streams[1] = {20, 0, 0, 0, 21, 0, 0, 0};
        EXPECT_EQ(bodyOf(log), bodyOfStreams(streams));
    }
}

TEST(LogEntry, AnOptionalStreamThatIsEmptyIsLeftOut) {
    LogBuilder builder;
    builder.begin(LogType::PosixMkdir, 1).text(LogField::File, "/a");
    auto const without = builder.bodySize();
    LogEntry log;
    ASSERT_TRUE(log.build(builder));
    EXPECT_EQ(log.body().size, without);
    EXPECT_FALSE(log.exactTimes());
    Bytes packed(FileTimes::packedSize);
    builder.bytes(LogField::ExactTimes, {static_cast<void const*>(packed.data()),
                                         static_cast<std::uint32_t>(packed.size())});
    EXPECT_EQ(builder.bodySize(), without + 4 + FileTimes::packedSize);
    ASSERT_TRUE(log.build(builder));
    EXPECT_EQ(log.exactTimes(), (FileTimes{{0, 0}, {0, 0}, {0, 0}}));
}

TEST(LogEntry, TheBodyCanBeDecodedAfterTheHeader) {
    SampleLog sample(*logShape(static_cast<std::uint32_t>(LogType::PosixCreate)));
    LogEntry whole;
    ASSERT_TRUE(whole.build(sample.builder));
    LogEntry log;
    ASSERT_TRUE(receive(log, bodyOf(whole), LogDecode::HeaderOnly));
    EXPECT_EQ(log.process(), "daemon");
    EXPECT_EQ(log.file(), "");
    EXPECT_EQ(log.toText().substr(log.toText().find('\n')),
              "\nHEADER ONLY:: daemon SHC:99 MESSAGE:200");
    ASSERT_TRUE(log.decode(LogDecode::BodyOnly));
    sample.expectIn(log);
}

TEST(LogEntry, DataReadIntoItsPlaceIsNotCopied) {
    LogBuilder builder;
    builder.begin(LogType::Write, 5).number(LogField::FileId, 1).number(LogField::Offset, 8192);
    LogEntry log;
    std::uint8_t* const space = log.dataSpace(builder, 1 << 20);
    ASSERT_NE(space, nullptr);
    std::memset(space, 0xAB, 5000);
    builder.bytes(LogField::Data, {space, 5000}).number(LogField::Length, 5000);
    ASSERT_TRUE(log.build(builder));
    EXPECT_EQ(log.data().data, space);
    EXPECT_EQ(log.offset(), 8192U);
    LogEntry received;
    ASSERT_TRUE(receive(received, bodyOf(log)));
    EXPECT_EQ(received.data().toByteArray(), QByteArray(5000, '\xAB'));
    // Large data goes out as a range of its own.
    EXPECT_EQ(builder.encode().data.data, space);
    EXPECT_EQ(log.dataSpace(builder, LogLayout::maximumBodySize), nullptr);
}

} // namespace
} // namespace Replication
