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

using Result = PagedQueue::Result;
using Testing::Random;

struct PagedQueueTest : testing::Test {
    QTemporaryDir dir;
    QString path = dir.filePath("queue");

    static QByteArray text(std::uint64_t n) {
        return "record " + QByteArray::number(n) + QByteArray(static_cast<int>(n % 90), '.');
    }
    static Result send(PagedQueue& queue, QByteArray const& bytes) {
        return queue.send(Extent(bytes));
    }
    static std::deque<QByteArray> all(PagedQueue const& queue) {
        std::deque<QByteArray> records;
        EXPECT_TRUE(queue.forEach([&](Extent const& r) {
            records.push_back(r.toByteArray());
            return true;
        }));
        std::uint64_t count = 0;
        EXPECT_EQ(queue.available(count), Result::Success);
        EXPECT_EQ(count, records.size());
        return records;
    }
};

TEST_F(PagedQueueTest, UnreleasedRecordIsReceivedAgainAfterReopening) {
    {
        PagedQueue queue(path, 4096, 2);
        Extent record;
        EXPECT_EQ(queue.tryReceive(record), Result::Failed); // nobody is the receiver
        ASSERT_EQ(queue.receiver(), Result::Success);
        EXPECT_EQ(queue.tryReceive(record), Result::Empty);
        EXPECT_EQ(queue.release(), Result::Failed);
        for (char const* bytes : {"one", "two", ""})
            ASSERT_EQ(send(queue, bytes), Result::Success);
        ASSERT_EQ(queue.receivePolled(record), Result::Success);
        ASSERT_EQ(queue.release(), Result::Success);
        ASSERT_EQ(queue.receivePolled(record), Result::Success);
        ASSERT_EQ(queue.receivePolled(record), Result::Success);
        EXPECT_EQ(record.toByteArray(), "two");
        EXPECT_EQ(send(queue, QByteArray(4081, 'x')), Result::TooLarge);
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
        ASSERT_EQ(queue->receiver(), Result::Success);
        for (int step = 0; step < 6000; ++step) {
            std::uint64_t const what = random.below(1000);
            if (what < 2) {
                queue = std::make_unique<PagedQueue>(path, 4096, 1);
                ASSERT_EQ(queue->receiver(), Result::Success);
            } else if (what < (step / 1000 % 2 ? 300 : 600)) {
                model.push_back(text(next++));
                ASSERT_EQ(send(*queue, model.back()), Result::Success);
            } else {
                ASSERT_EQ(queue->tryReceive(record),
                          model.empty() ? Result::Empty : Result::Success);
                if (!model.empty() && what % 5 != 0) {
                    ASSERT_EQ(record.toByteArray(), model.front());
                    ASSERT_EQ(queue->release(), Result::Success);
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
                EXPECT_EQ(queue.send(Extent(static_cast<void const*>(bytes), 8)), Result::Success);
            }
        });
    std::vector<std::uint32_t> next(senders);
    ASSERT_EQ(queue.receiver(), Result::Success);
    for (std::uint32_t i = 0; i < senders * each; ++i) {
        Extent record;
        ASSERT_EQ(queue.receivePolled(record), Result::Success);
        ASSERT_EQ(record.size, 8u);
        auto const sender = loadLittle<std::uint32_t>(record.data);
        EXPECT_EQ(loadLittle<std::uint32_t>(record.bytes() + 4), next[sender]++);
        ASSERT_EQ(queue.release(), Result::Success);
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
    ASSERT_EQ(queue.receiver(event), Result::Success);
    std::thread other([&] { ASSERT_EQ(::eventfd_write(event, 1), 0); });
    EXPECT_EQ(queue.receivePolled(record), Result::Interrupted);
    other.join();
    ASSERT_EQ(send(queue, "waits"), Result::Success);
    EXPECT_EQ(queue.receivePolled(record), Result::Interrupted);
    eventfd_t value;
    ASSERT_EQ(::eventfd_read(event, &value), 0);
    EXPECT_EQ(queue.receivePolled(record), Result::Success);
    ASSERT_EQ(queue.release(), Result::Success);
    std::thread stopper([&] { queue.stop(); });
    EXPECT_EQ(queue.receivePolled(record), Result::Interrupted);
    stopper.join();
    EXPECT_EQ(queue.tryReceive(record), Result::Interrupted);
    ::close(event);
}

TEST_F(PagedQueueTest, TornTailEndsTheQueueAndIsOverwritten) {
    {
        PagedQueue queue(path, 4096, 1);
        for (std::uint64_t n = 0; n < 5; ++n)
            ASSERT_EQ(send(queue, text(n)), Result::Success);
    }
    QByteArray const sound = Testing::contents(path);
    qsizetype const lastStart = sound.size() - 16 - text(4).size();
    for (qsizetype length = lastStart; length < sound.size(); ++length) {
        QFile::resize(path, 0);
        Testing::damage(path, 0, sound.left(length) + QByteArray(40, '\0'));
        PagedQueue queue(path, 4096, 1);
        ASSERT_TRUE(queue);
        ASSERT_EQ(all(queue).size(), 4u) << length;
        ASSERT_EQ(send(queue, text(9)), Result::Success);
        PagedQueue again(path, 4096, 1);
        ASSERT_EQ(all(again).back(), text(9));
    }
    for (qsizetype offset : {128, 132 + 4, 128 + 16, 128 + 16 + 5}) { // in the first record
        QByteArray broken = sound;
        broken[offset] = static_cast<char>(broken[offset] ^ 0x10);
        Testing::damage(path, 0, broken);
        PagedQueue queue(path, 4096, 1);
        EXPECT_TRUE(all(queue).empty()) << offset;
    }
}

TEST_F(PagedQueueTest, DamagedHeaderIsNotReplaced) {
    { PagedQueue queue(path, 4096, 1); }
    QByteArray const sound = Testing::contents(path);
    for (int offset : {0, 8, 64, 80}) {
        Testing::damage(path, offset, "damage");
        QByteArray const broken = Testing::contents(path);
        PagedQueue queue(path, 4096, 1);
        EXPECT_FALSE(queue) << offset;
        EXPECT_EQ(send(queue, "x"), Result::Failed);
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
            (void)queue.receiver();
            Extent record;
            // Grows, then keeps its length while the file starts over again and again, then ends.
            for (int step = 0; step < 80; ++step) {
                if (step < 8 || (step < 60 && step % 2 == 0))
                    sent += send(queue, text(sent)) == Result::Success;
                else if (queue.tryReceive(record) == Result::Success)
                    released += queue.release() == Result::Success;
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
    ASSERT_EQ(queue.receiver(), Result::Success);
    qint64 longest = 0;
    Extent record;
    for (std::uint64_t n = 0; n < 4000; ++n) {
        ASSERT_EQ(send(queue, text(n)), Result::Success);
        if (n < waiting)
            continue;
        // A copy that fails must neither fail the release nor leave anything behind.
        if (n % 100 == 0)
            files.failReadsAfter(1);
        ASSERT_EQ(queue.tryReceive(record), Result::Success);
        ASSERT_EQ(record.toByteArray(), text(n - waiting));
        ASSERT_EQ(queue.release(), Result::Success);
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
        EXPECT_EQ(send(queue, "x"), Result::Success);
        PagedQueue again(path, 4096, 1);
        EXPECT_EQ(all(again), (std::deque<QByteArray>{"x"}));
    }
}

TEST_F(PagedQueueTest, FailedSendLeavesTheQueueAsItWas) {
    FaultyFiles files;
    PagedQueue queue(path, 4096, 1);
    ASSERT_EQ(send(queue, text(1)), Result::Success);
    files.shortWrite(1);
    EXPECT_EQ(send(queue, text(80)), Result::Failed);
    EXPECT_EQ(send(queue, text(2)), Result::Success);
    EXPECT_EQ(all(queue), (std::deque<QByteArray>{text(1), text(2)}));
    files.diskBudget(0);
    EXPECT_EQ(send(queue, text(3)), Result::Failed);
    EXPECT_EQ(all(queue).size(), 2u);
}

} // namespace
} // namespace Morva
