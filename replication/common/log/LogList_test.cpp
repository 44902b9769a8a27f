#include "replication/common/log/LogList.h"

#include "base/messages/XmlList.h"
#include "replication/common/log/LogBuilder.h"
#include "replication/common/log/LogPool.h"
#include "replication/common/log/ResyncRequiredBody.h"

#include <gtest/gtest.h>

#include <thread>

namespace Replication {
namespace {

TEST(LogList, StallsAtAHundredAndGoesOnBelowFiftyOne) {
    LogList list;
    EXPECT_EQ(list.add(nullptr), 0U);
    EXPECT_EQ(list.peek(), nullptr);
    EXPECT_EQ(list.take(), nullptr);
    for (std::uint32_t i = 1; i <= 99; ++i)
        EXPECT_EQ(list.add(std::make_shared<LogEntry>()), i);
    EXPECT_FALSE(list.highWaterReached());
    LogPointer const first = list.peek();
    EXPECT_EQ(list.add(std::make_shared<LogEntry>()), 100U);
    EXPECT_TRUE(list.highWaterReached());
    EXPECT_EQ(list.take(), first);
    while (list.count() > 51)
        EXPECT_NE(list.take(), nullptr);
    EXPECT_TRUE(list.highWaterReached());
    EXPECT_FALSE(list.lowWaterReached());
    EXPECT_NE(list.take(), nullptr);
    EXPECT_TRUE(list.lowWaterReached());
    EXPECT_FALSE(list.lowWaterReached());
    EXPECT_FALSE(list.highWaterReached());
}

TEST(LogPool, MemoryComesBackAndOutlivesThePool) {
    LogBuilder builder;
    builder.begin(LogType::Close, 1);
    LogPointer kept;
    {
        LogPool pool;
        LogPointer log = pool.acquire();
        LogEntry const* const address = log.get();
        ASSERT_TRUE(log->build(builder));
        std::weak_ptr<LogEntry> watcher = log;
        log.reset();
        EXPECT_EQ(pool.idle(), 0U);
        EXPECT_TRUE(watcher.expired());
        watcher.reset();
        EXPECT_EQ(pool.idle(), 1U);
        kept = pool.acquire();
        EXPECT_EQ(kept.get(), address);
        EXPECT_GT(kept->capacity(), 0U);
    }
    ASSERT_TRUE(kept->build(builder));
    EXPECT_EQ(kept->type(), LogType::Close);
}

TEST(LogPool, IdleMemoryIsBounded) {
    LogPool pool(10000);
    LogBuilder builder;
    QByteArray const data(3000, 'x');
    builder.begin(LogType::Write, 1).bytes(LogField::Data, Morva::Extent(data));
    std::vector<LogPointer> logs;
    for (int i = 0; i < 5; ++i) {
        logs.push_back(pool.acquire());
        ASSERT_TRUE(logs.back()->build(builder));
    }
    logs.clear();
    EXPECT_EQ(pool.idle(), 2U);
    // Large memory is kept for a log that can use it.
    EXPECT_LT(pool.acquire()->capacity(), 3000U);
    EXPECT_GE(pool.acquire(3000)->capacity(), 3000U);
}

TEST(LogPool, LogsMayBeDroppedOnAnotherThread) {
    LogPool pool;
    LogList list;
    constexpr std::uint64_t count = 20000;
    std::thread reader([&] {
        for (std::uint64_t next = 0; next < count;) {
            LogPointer const log = list.take();
            if (!log) {
                std::this_thread::yield();
                continue;
            }
            ASSERT_EQ(log->sequenceNumber(), next);
            ++next;
        }
    });
    LogBuilder builder;
    for (std::uint64_t i = 0; i < count; ++i) {
        builder.begin(LogType::Close, i);
        LogPointer log = pool.acquire();
        ASSERT_TRUE(log->build(builder));
        list.add(std::move(log));
    }
    reader.join();
}

TEST(ResyncRequiredBody, SurvivesTheMessageAndMerges) {
    Morva::XmlList body;
    ResyncRequiredBody({3, 4}, "source", "broken").append(body);
    ResyncRequiredBody read(body);
    EXPECT_EQ(read.policies(), (std::vector<std::uint32_t>{3, 4}));
    EXPECT_EQ(read.source(), "source");
    EXPECT_EQ(read.reason(), "broken");
    read.add(ResyncRequiredBody({4, 5, 5}, "other", "another"));
    EXPECT_EQ(read.policies(), (std::vector<std::uint32_t>{3, 4, 5}));
    EXPECT_EQ(read.reason(), "broken");
    EXPECT_EQ(read.source(), "source");
    ResyncRequiredBody empty;
    empty.add(read);
    EXPECT_EQ(empty.reason(), "broken");
}

TEST(ResyncRequiredBody, ForeignAndUnreadableEntriesAreLeftOut) {
    Morva::XmlList list;
    list.set("ResyncRequiredPolicy", std::uint32_t{1}, Morva::XmlList::SetTypeE::Add);
    list.set("Foreign", std::uint32_t{2}, Morva::XmlList::SetTypeE::Add);
    list.set("ResyncRequiredPolicy", "text", Morva::XmlList::SetTypeE::Add);
    list.set("ResyncRequiredPolicy", std::uint32_t{3}, Morva::XmlList::SetTypeE::Add);
    Morva::XmlList body;
    body.set("ResyncRequiredList", list);
    EXPECT_EQ(ResyncRequiredBody(body).policies(), (std::vector<std::uint32_t>{1, 3}));
    EXPECT_TRUE(ResyncRequiredBody(Morva::XmlList()).policies().empty());
}

} // namespace
} // namespace Replication
