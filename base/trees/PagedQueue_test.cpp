#include "base/trees/PagedQueue.h"

#include "base/blocks/TestSupport.h"
#include "base/files/FaultyFiles.h"
#include "base/values/LittleEndian.h"

#include <deque>
#include <thread>

#include <sys/eventfd.h>
#include <unistd.h>

namespace Morva {
namespace {

using Code = Status::Code;
using Testing::Random;

struct PagedQueueTest : testing::Test {
    QTemporaryDir dir;
    QString path = dir.filePath("queue");

    static QByteArray text(std::uint64_t n) {
        return "record " + QByteArray::number(n) + QByteArray(static_cast<int>(n % 90), '.');
    }
    static Status send(PagedQueue& queue, QByteArray const& bytes) {
        return queue.send(Extent(bytes));
    }
    static std::deque<QByteArray> all(PagedQueue const& queue) {
        std::deque<QByteArray> records;
        EXPECT_TRUE(queue.forEach([&](Extent const& r) {
            records.push_back(r.toByteArray());
            return true;
        }));
        std::uint64_t count = 0;
        EXPECT_TRUE(queue.available(count));
        EXPECT_EQ(count, records.size());
        return records;
    }
};

TEST_F(PagedQueueTest, UnreleasedRecordIsReceivedAgainAfterReopening) {
    {
        PagedQueue queue(path, 4096, 2);
        Extent record;
        EXPECT_EQ(queue.tryReceive(record).code(), Code::InvalidArgument); // nobody is the receiver
        ASSERT_TRUE(queue.receiver());
        EXPECT_FALSE(*queue.tryReceive(record));
        EXPECT_EQ(queue.release().code(), Code::InvalidArgument);
        for (char const* bytes : {"one", "two", ""})
            ASSERT_TRUE(send(queue, bytes));
        ASSERT_TRUE(queue.receivePolled(record));
        ASSERT_TRUE(queue.release());
        ASSERT_TRUE(queue.receivePolled(record));
        ASSERT_TRUE(queue.receivePolled(record));
        EXPECT_EQ(record.toByteArray(), "two");
        EXPECT_EQ(send(queue, QByteArray(4081, 'x')).code(), Code::InvalidArgument);
    }
    PagedQueue queue(path, 4096, 2);
    ASSERT_TRUE(queue);
    EXPECT_EQ(all(queue), (std::deque<QByteArray>{"two", ""}));
}

TEST_F(PagedQueueTest, RandomWorkAgreesWithADeque) {
    for (std::uint64_t seed = 1; seed <= 3; ++seed) {
        Random random(seed);
        QFile::remove(path);
        auto queue = std::make_unique<PagedQueue>(path, 4096, 1);
        std::deque<QByteArray> model;
        Extent record;
        std::uint64_t next = 0;
        ASSERT_TRUE(queue->receiver());
        for (int step = 0; step < 6000; ++step) {
            std::uint64_t const what = random.below(1000);
            if (what < 2) {
                queue = std::make_unique<PagedQueue>(path, 4096, 1);
                ASSERT_TRUE(queue->receiver());
            } else if (what < (step / 1000 % 2 ? 300 : 600)) {
                model.push_back(text(next++));
                ASSERT_TRUE(send(*queue, model.back()));
            } else {
                ASSERT_EQ(*queue->tryReceive(record), !model.empty());
                if (!model.empty() && what % 5 != 0) {
                    ASSERT_EQ(record.toByteArray(), model.front());
                    ASSERT_TRUE(queue->release());
                    model.pop_front();
                }
            }
        }
        EXPECT_EQ(all(*queue), model);
    }
}

TEST_F(PagedQueueTest, SendersAndReceiverMeet) {
    constexpr std::uint32_t senders = 4, each = 3000;
    PagedQueue queue(path, 65536, 4);
    std::vector<std::thread> threads;
    for (std::uint32_t s = 0; s < senders; ++s)
        threads.emplace_back([&queue, s] {
            for (std::uint32_t n = 0; n < each; ++n) {
                std::uint32_t const bytes[2] = {s, n};
                EXPECT_TRUE(queue.send(Extent(static_cast<void const*>(bytes), 8)));
            }
        });
    std::vector<std::uint32_t> next(senders);
    ASSERT_TRUE(queue.receiver());
    for (std::uint32_t i = 0; i < senders * each; ++i) {
        Extent record;
        ASSERT_TRUE(queue.receivePolled(record));
        ASSERT_EQ(record.size, 8u);
        auto const sender = loadLittle<std::uint32_t>(record.data);
        EXPECT_EQ(loadLittle<std::uint32_t>(record.bytes() + 4), next[sender]++);
        ASSERT_TRUE(queue.release());
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(all(queue).empty());
    EXPECT_LT(QFileInfo(path).size(), 66000); // an empty queue gives its space back
}

TEST_F(PagedQueueTest, StopAndInterruptEndAWait) {
    int const event = ::eventfd(0, EFD_CLOEXEC);
    PagedQueue queue(path, 4096, 1);
    Extent record;
    ASSERT_TRUE(queue.receiver(event));
    std::thread other([&] { ASSERT_EQ(::eventfd_write(event, 1), 0); });
    EXPECT_EQ(queue.receivePolled(record).code(), Code::Stopped);
    other.join();
    ASSERT_TRUE(send(queue, "waits"));
    EXPECT_EQ(queue.receivePolled(record).code(), Code::Stopped);
    eventfd_t value;
    ASSERT_EQ(::eventfd_read(event, &value), 0);
    EXPECT_TRUE(queue.receivePolled(record));
    ASSERT_TRUE(queue.release());
    std::thread stopper([&] { queue.stop(); });
    EXPECT_EQ(queue.receivePolled(record).code(), Code::Stopped);
    stopper.join();
    EXPECT_EQ(queue.tryReceive(record).code(), Code::Stopped);
    ::close(event);
}

/// All that a receiver gets, and how often it was told of damage.
struct Received {
    std::deque<QByteArray> records;
    int damaged = 0;
};

Received drain(PagedQueue& queue) {
    Received received;
    EXPECT_TRUE(queue.receiver());
    for (Extent record;;) {
        auto const got = queue.tryReceive(record);
        if (!got.ok()) {
            EXPECT_EQ(got.code(), Code::Corruption);
            ++received.damaged;
            continue;
        }
        if (!*got)
            return received;
        received.records.push_back(record.toByteArray());
        EXPECT_TRUE(queue.release());
    }
}

TEST_F(PagedQueueTest, TornTailEndsTheQueueOrIsTold) {
    {
        PagedQueue queue(path, 4096, 1);
        for (std::uint64_t n = 0; n < 5; ++n)
            ASSERT_TRUE(send(queue, text(n)));
    }
    QByteArray const sound = Testing::contents(path);
    qsizetype const lastStart = sound.size() - 16 - text(4).size();
    for (qsizetype length = lastStart; length < sound.size(); ++length) {
        QFile::resize(path, 0);
        Testing::damage(path, 0, sound.left(length) + QByteArray(40, '\0'));
        PagedQueue queue(path, 4096, 1);
        ASSERT_TRUE(send(queue, text(9)));
        PagedQueue again(path, 4096, 1);
        Received const received = drain(again);
        EXPECT_EQ(received.records,
                  (std::deque<QByteArray>{text(0), text(1), text(2), text(3), text(9)}));
        // With its size and word there it was a record, else bytes that never were one.
        EXPECT_EQ(received.damaged, length - lastStart >= 8) << length;
        EXPECT_EQ(drain(again).damaged, 0);
    }
}

TEST_F(PagedQueueTest, DamagedRecordIsToldAndWhatIsBehindItIsReceived) {
    std::vector<qsizetype> starts{128};
    {
        PagedQueue queue(path, 4096, 1);
        for (std::uint64_t n = 0; n < 6; ++n) {
            ASSERT_TRUE(send(queue, text(n)));
            starts.push_back(starts.back() + 16 + text(n).size());
        }
    }
    QByteArray const sound = Testing::contents(path);
    for (std::uint64_t hurt : {0, 1, 4, 5}) {
        // Its size, its check, and its first byte; also as an earlier program wrote it.
        for (qsizetype offset : {0, 3, 9, 16}) {
            for (bool earlier : {false, true}) {
                QByteArray broken = sound;
                for (qsizetype start : starts)
                    if (earlier && start < broken.size())
                        storeLittle(broken.data() + start + 4, std::uint32_t{0});
                char& byte = broken[starts[hurt] + offset];
                byte = static_cast<char>(byte ^ 0x10);
                // A last record whose frame is damaged can't be told from bytes of a time before.
                bool const isTail = hurt == 5 && (earlier || offset < 8);
                Testing::damage(path, 0, broken);
                ASSERT_TRUE(QFile::resize(path, broken.size()));
                std::deque<QByteArray> expected;
                for (std::uint64_t n = 0; n < 6; ++n)
                    if (n != hurt)
                        expected.push_back(text(n));
                PagedQueue queue(path, 4096, 1);
                std::uint64_t waiting = 0;
                ASSERT_TRUE(queue.available(waiting));
                EXPECT_EQ(waiting, expected.size()) << hurt << ' ' << offset;
                ASSERT_TRUE(send(queue, "new"));
                PagedQueue again(path, 4096, 1); // the send has cut nothing off
                Received const received = drain(again);
                expected.push_back("new");
                EXPECT_EQ(received.records, expected) << hurt << ' ' << offset;
                EXPECT_EQ(received.damaged, isTail ? 0 : 1) << hurt << ' ' << offset;
                PagedQueue empty(path, 4096, 1); // and has started over
                EXPECT_EQ(drain(empty).damaged, 0);
            }
        }
    }
}

TEST_F(PagedQueueTest, DamageOfALongQueueLosesNothingElse) {
    Random random(77);
    for (int round = 0; round < 30; ++round) {
        QFile::remove(path);
        std::deque<QByteArray> all;
        PagedQueue queue(path, 4096, 2);
        for (std::uint64_t n = 0; n < 1000; ++n) {
            all.push_back(text(n));
            ASSERT_TRUE(send(queue, all.back()));
        }
        auto const size = static_cast<std::uint64_t>(QFileInfo(path).size());
        auto const at = 128 + random.below(size - 128 - 20);
        // Half of them while the queue is open.
        Testing::damage(path, static_cast<qint64>(at), QByteArray(1 + round % 20, '\x5A'));
        auto again = std::make_unique<PagedQueue>(path, 4096, 2);
        Received const received = drain(round % 2 ? *again : queue);
        EXPECT_GE(received.records.size(), 997u) << round;
        EXPECT_LE(received.damaged, 1);
        EXPECT_EQ(received.damaged == 0, received.records.size() == 1000u) << round;
        auto next = all.begin();
        for (QByteArray const& record : received.records) {
            next = std::find(next, all.end(), record);
            ASSERT_NE(next, all.end());
            ++next;
        }
    }
}

TEST_F(PagedQueueTest, BytesThatLookLikeFramesCostBoundedWork) {
    { PagedQueue queue(path, 10485760, 1); }
    // Each eight bytes claim a record of a megabyte, as an earlier program framed it.
    QByteArray bytes(8388608, '\0');
    for (qsizetype at = 0; at < bytes.size(); at += 8)
        storeLittle(bytes.data() + at, std::uint32_t{1048576});
    Testing::damage(path, 128, bytes);
    PagedQueue queue(path, 10485760, 1);
    EXPECT_TRUE(all(queue).empty()); // a million of them would be a terabyte to hash
}

TEST_F(PagedQueueTest, FailedReadIsNotTheEnd) {
    FaultyFiles files;
    { PagedQueue queue(path, 4096, 1); }
    for (std::uint64_t n = 0; n < 3; ++n) {
        files.failReadsAfter(n);
        QByteArray const before = Testing::contents(path);
        PagedQueue queue(path, 4096, 1);
        if (queue.status().ok())
            break;
        EXPECT_EQ(queue.status().code(), Code::IoError) << n;
        EXPECT_EQ(send(queue, "x").code(), Code::IoError);
        files.heal();
        EXPECT_EQ(Testing::contents(path), before);
        ASSERT_LT(n, 2u);
    }
    files.heal();
    PagedQueue queue(path, 4096, 1);
    ASSERT_TRUE(send(queue, "one") && queue.receiver());
    files.failReadsAfter(0);
    Extent record;
    EXPECT_EQ(queue.receivePolled(record).code(), Code::IoError);
    files.heal();
    ASSERT_TRUE(queue.receivePolled(record));
    EXPECT_EQ(record.toByteArray(), "one");
    EXPECT_EQ(PagedQueue(path + "2", 4096, 1, PagedQueue::Missing::Fail).status().code(),
              Code::NotFound);
    EXPECT_FALSE(QFile::exists(path + "2"));
}

TEST_F(PagedQueueTest, DamagedHeaderIsNotReplaced) {
    { PagedQueue queue(path, 4096, 1); }
    QByteArray const sound = Testing::contents(path);
    for (int offset : {0, 8, 64, 80}) {
        Testing::damage(path, offset, "damage");
        QByteArray const broken = Testing::contents(path);
        PagedQueue queue(path, 4096, 1);
        EXPECT_FALSE(queue) << offset;
        EXPECT_EQ(send(queue, "x").code(), Code::Corruption);
        EXPECT_EQ(Testing::contents(path), broken);
        Testing::damage(path, 0, sound);
    }
    PagedQueue noPlace(dir.filePath("missing/queue"), 4096, 1);
    EXPECT_FALSE(noPlace);
}

TEST_F(PagedQueueTest, NoCrashLosesOrRepeatsARecord) {
    bool crashed = true;
    for (std::uint64_t n = 1; crashed; ++n) {
        FaultyFiles files;
        QFile::remove(path);
        std::uint64_t sent = 0;
        std::uint64_t released = 0;
        {
            PagedQueue queue(path, 128, 1);
            files.crashAtWrite(n);
            (void)queue.receiver(); // after a crash nothing works, which is the point
            Extent record;
            // Grows, then keeps its length while the file starts over again and again, then ends.
            for (int step = 0; step < 80; ++step) {
                if (step < 8 || (step < 60 && step % 2 == 0))
                    sent += send(queue, text(sent)).ok();
                else if (auto const got = queue.tryReceive(record); got.ok() && *got)
                    released += queue.release().ok();
            }
            crashed = files.crashed();
        }
        files.restart(FaultyFiles::Unsynced::Kept);
        PagedQueue queue(path, 128, 1);
        auto const records = all(queue);
        ASSERT_EQ(records.size(), sent - released) << n;
        for (std::size_t i = 0; i < records.size(); ++i)
            ASSERT_EQ(records[i], text(released + i)) << n;
    }
}

TEST_F(PagedQueueTest, FileOfAQueueThatNeverRunsEmptyStaysBounded) {
    constexpr std::uint64_t waiting = 50;
    FaultyFiles files;
    PagedQueue queue(path, 256, 1);
    ASSERT_TRUE(queue.receiver());
    qint64 longest = 0;
    Extent record;
    for (std::uint64_t n = 0; n < 4000; ++n) {
        ASSERT_TRUE(send(queue, text(n)));
        if (n < waiting)
            continue;
        // A copy that fails must neither fail the release nor leave anything behind.
        if (n % 100 == 0)
            files.failReadsAfter(1);
        ASSERT_TRUE(*queue.tryReceive(record));
        ASSERT_EQ(record.toByteArray(), text(n - waiting));
        ASSERT_TRUE(queue.release());
        files.heal();
        longest = std::max(longest, QFileInfo(path).size());
    }
    EXPECT_LT(longest, 5 * waiting * (16 + 100));
    PagedQueue again(path, 256, 1);
    auto const records = all(again);
    ASSERT_EQ(records.size(), waiting);
    EXPECT_EQ(records.front(), text(4000 - waiting));
    EXPECT_EQ(records.back(), text(3999));
}

TEST_F(PagedQueueTest, FileWhoseMakingWasCutShortIsMadeAnew) {
    for (qsizetype length : {0, 60, 128}) {
        QFile::remove(path);
        Testing::damage(path, 0, QByteArray(length, '\0'));
        PagedQueue queue(path, 4096, 1);
        ASSERT_TRUE(queue) << length;
        EXPECT_TRUE(send(queue, "x"));
        PagedQueue again(path, 4096, 1);
        EXPECT_EQ(all(again), (std::deque<QByteArray>{"x"}));
    }
}

TEST_F(PagedQueueTest, FailedSendLeavesTheQueueAsItWas) {
    FaultyFiles files;
    PagedQueue queue(path, 4096, 1);
    ASSERT_TRUE(send(queue, text(1)));
    files.shortWrite(1);
    EXPECT_EQ(send(queue, text(80)).code(), Code::IoError);
    EXPECT_TRUE(send(queue, text(2)));
    EXPECT_EQ(all(queue), (std::deque<QByteArray>{text(1), text(2)}));
    files.diskBudget(0);
    EXPECT_EQ(send(queue, text(3)).code(), Code::NoSpace);
    EXPECT_EQ(all(queue).size(), 2u);
}

} // namespace
} // namespace Morva
