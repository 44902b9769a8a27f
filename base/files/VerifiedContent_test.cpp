#include "base/files/VerifiedContent.h"

#include "base/files/Crc32c.h"
#include "base/files/FaultyFiles.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <optional>
#include <random>
#include <thread>
#include <vector>

namespace Morva {
namespace {

constexpr std::uint32_t pageSize = PageSums::pageSize;
using Bytes = std::vector<std::uint8_t>;

std::uint64_t seedOfRun() {
    char const* const given = std::getenv("MORVA_SEED");
    std::uint64_t const seed = given ? std::stoull(given) : std::random_device()();
    std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
    return seed;
}

/// A file with sums, and what it should hold. No journal: `save` plays the checkpoint.
class Sample {
public:
    explicit Sample(std::uint64_t id = 7)
        : file(RawFile::make()), content(std::make_shared<PageSums>(id)), id_(id) {
        EXPECT_TRUE(file->create(name(), RawFile::Mode::ReadWrite));
    }

    [[nodiscard]] QString name() const { return directory_.filePath(QStringLiteral("file")); }
    [[nodiscard]] QString side() const { return PageSums::sideName(name()); }
    void write(std::uint64_t offset, Bytes const& bytes) {
        ASSERT_TRUE(content->writeAt(*file, offset, bytes.data(),
                                     static_cast<std::uint32_t>(bytes.size())));
        if (model.size() < offset + bytes.size())
            model.resize(offset + bytes.size());
        std::copy(bytes.begin(), bytes.end(), model.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    void setLength(std::uint64_t length) {
        ASSERT_TRUE(content->setLength(*file, length));
        model.resize(length);
    }
    /// Nothing when the read fails, whose outcome is in `status`.
    [[nodiscard]] std::optional<Bytes> read(std::uint64_t offset, std::uint32_t count) {
        Bytes bytes(count);
        auto const got = content->readAt(*file, offset, bytes.data(), count);
        status = got.status();
        if (!got)
            return std::nullopt;
        bytes.resize(*got);
        return bytes;
    }
    [[nodiscard]] Bytes expected(std::uint64_t offset, std::uint64_t count) const {
        std::uint64_t const from = std::min<std::uint64_t>(offset, model.size());
        std::uint64_t const to = std::min<std::uint64_t>(offset + count, model.size());
        return Bytes(model.begin() + static_cast<std::ptrdiff_t>(from),
                     model.begin() + static_cast<std::ptrdiff_t>(to));
    }
    [[nodiscard]] bool readsAsExpected() {
        return read(0, static_cast<std::uint32_t>(model.size()) + 10) == model;
    }
    void save() {
        ASSERT_TRUE(content->sums().flush(name(), RawFile::make));
        state = content->sums().state();
    }
    /// As after a start with what was saved.
    [[nodiscard]] Status reopen() {
        auto sums = PageSums::of(id_, state, name());
        MORVA_TRY(sums.status());
        MORVA_TRY((*sums)->open(name(), RawFile::make));
        content.emplace(*sums);
        return {};
    }

    std::unique_ptr<RawFile> file;
    std::optional<VerifiedContent> content;
    Bytes model;
    QByteArray state;
    Status status;

private:
    QTemporaryDir directory_;
    std::uint64_t id_;
};

void flipBit(QString const& name, std::uint64_t offset, unsigned bit) {
    auto const file = RawFile::make();
    std::uint8_t byte = 0;
    ASSERT_TRUE(file->open(name, RawFile::Mode::ReadWrite));
    ASSERT_TRUE(file->readWhole(offset, &byte, 1));
    byte ^= static_cast<std::uint8_t>(1U << bit);
    ASSERT_TRUE(file->writeAt(offset, &byte, 1));
}

Bytes randomBytes(std::mt19937_64& random, std::size_t count) {
    Bytes bytes(count);
    for (auto& byte : bytes)
        byte = static_cast<std::uint8_t>(random());
    return bytes;
}

TEST(Crc32c, FitsThePublishedVectorsAndGoesOn) {
    auto const standard = [](Bytes const& bytes) {
        return ~crc32c(~0U, bytes.data(), bytes.size());
    };
    Bytes const digits{'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(standard(digits), 0xE3069283U);
    EXPECT_EQ(standard(Bytes(32, 0)), 0x8A9136AAU); // RFC 3720, B.4
    EXPECT_EQ(standard(Bytes(32, 0xFF)), 0x62A8AB43U);
    EXPECT_EQ(~crc32c(crc32c(~0U, digits.data(), 4), digits.data() + 4, 5), 0xE3069283U);
    Bytes const zeros(10000, 0);
    EXPECT_EQ(crc32cOfZeros(5, zeros.size()), crc32c(5, zeros.data(), zeros.size()));
}

TEST(VerifiedContent, ReadsWhatWasWrittenWhateverTheOrderOfWritesAndLengths) {
    std::uint64_t const seed = seedOfRun();
    FaultyFiles const countsSyncs;
    for (std::uint64_t round = 0; round < 12; ++round) {
        SCOPED_TRACE(seed + round);
        std::mt19937_64 random(seed + round);
        auto const below = [&random](std::uint64_t bound) { return random() % bound; };
        // Some stay in the journal's table, some need a side file of several pages.
        std::uint64_t const limit = pageSize * (round % 3 == 0 ? 6 : round % 3 == 1 ? 90 : 1500);
        // Near the bounds of pages much more often than anywhere else.
        auto const place = [&] {
            std::uint64_t const at = below(limit);
            return below(3) == 0 ? at : at / pageSize * pageSize + below(3);
        };
        Sample sample;
        for (int i = 0; i < 250; ++i) {
            std::uint64_t const what = below(16);
            if (what < 2) {
                sample.setLength(place());
            } else if (what < 3) {
                sample.save();
                if (below(2) == 0) {
                    ASSERT_TRUE(sample.reopen());
                }
            } else if (what < 9) {
                std::uint64_t const at = below(3) == 0 ? sample.model.size() : place();
                sample.write(at, randomBytes(random, 1 + below(below(2) ? 200 : 4 * pageSize)));
            } else {
                std::uint64_t const at = place();
                std::uint32_t const count = static_cast<std::uint32_t>(below(5 * pageSize));
                ASSERT_EQ(sample.read(at, count), sample.expected(at, count))
                    << sample.status.text().toStdString();
            }
        }
        sample.save();
        ASSERT_TRUE(sample.reopen());
        EXPECT_TRUE(sample.readsAsExpected()) << sample.status.text().toStdString();
    }
}

TEST(VerifiedContent, ReadsAtMostThePageThatAWriteLeavesInPart) {
    FaultyFiles files;
    Sample sample;
    auto const reads = [&](std::uint64_t offset, std::size_t count) {
        std::uint64_t const before = files.reads();
        sample.write(offset, Bytes(count, 3));
        return files.reads() - before;
    };
    EXPECT_EQ(reads(0, 3 * pageSize), 0U);
    EXPECT_EQ(reads(3 * pageSize, 100), 0U) << "a new page";
    EXPECT_EQ(reads(3 * pageSize + 100, 5000), 0U) << "what is added";
    EXPECT_EQ(reads(pageSize, 2 * pageSize), 0U) << "whole pages";
    EXPECT_EQ(reads(6 * pageSize + 10, 20), 0U) << "behind a hole";
    EXPECT_EQ(reads(5 * pageSize + 10, 20), 0U) << "in the hole";
    EXPECT_EQ(reads(10, 20), 1U);
    EXPECT_EQ(reads(10, 2 * pageSize), 2U) << "the first and the last page";
    std::uint64_t const before = files.reads();
    sample.setLength(100 * pageSize);
    sample.setLength(3000 * std::uint64_t{pageSize});
    EXPECT_EQ(files.reads(), before) << "growth";
    EXPECT_TRUE(sample.readsAsExpected());
}

TEST(VerifiedContent, FindsEveryFlippedBitAndSaysWhere) {
    std::uint64_t const seed = seedOfRun();
    std::mt19937_64 random(seed);
    Sample sample;
    sample.write(0, randomBytes(random, 100 * pageSize + 77));
    sample.setLength(120 * pageSize);
    sample.save();
    for (int i = 0; i < 300; ++i) {
        std::uint64_t const at = random() % sample.model.size();
        unsigned const bit = random() % 8;
        flipBit(sample.name(), at, bit);
        EXPECT_FALSE(sample.read(at, 1));
        EXPECT_TRUE(sample.status.is(Status::Code::Corruption));
        EXPECT_EQ(sample.status.file(), sample.name());
        EXPECT_EQ(sample.status.place().number, at / pageSize);
        // A write to such a page would make it look right.
        if (at / pageSize < 100) {
            EXPECT_FALSE(sample.content->writeAt(*sample.file, at / pageSize * pageSize, "x", 1));
        }
        flipBit(sample.name(), at, bit);
    }
    EXPECT_TRUE(sample.readsAsExpected());
    // Each bit of a side file is one of a page that protects itself.
    for (int i = 0; i < 300; ++i) {
        std::uint64_t const at = random() % (2 * pageSize);
        unsigned const bit = random() % 8;
        flipBit(sample.side(), at, bit);
        Status const opened = sample.reopen();
        if (opened.ok()) {
            EXPECT_FALSE(sample.read(5, 1));
            int faults = 0;
            sample.content->sums().verifySide([&](Status const&) { ++faults; });
            EXPECT_EQ(faults, 1);
        }
        EXPECT_TRUE((opened.ok() ? sample.status : opened).is(Status::Code::Corruption));
        EXPECT_EQ((opened.ok() ? sample.status : opened).file(), sample.side());
        flipBit(sample.side(), at, bit);
    }
    ASSERT_TRUE(sample.reopen());
    EXPECT_TRUE(sample.readsAsExpected());
}

TEST(VerifiedContent, FindsAPageOfAnotherPlaceFileOrTime) {
    std::mt19937_64 random(1);
    Bytes const first = randomBytes(random, pageSize), second = randomBytes(random, pageSize);
    Sample sample(7), other(8);
    sample.write(0, first);
    sample.write(pageSize, second);
    other.write(0, first);
    ASSERT_TRUE(sample.file->writeAt(0, second.data(), pageSize));
    ASSERT_TRUE(sample.file->writeAt(pageSize, first.data(), pageSize));
    EXPECT_FALSE(sample.read(0, 1));
    EXPECT_FALSE(sample.read(pageSize, 1));
    // The same bytes at the same place, by the sums of another file.
    sample.save();
    other.state = sample.state;
    ASSERT_TRUE(other.reopen());
    EXPECT_FALSE(other.read(0, 1));
    // A page that was never written, and one whose bytes are gone.
    other.setLength(3 * pageSize);
    ASSERT_TRUE(other.file->writeAt(2 * pageSize, "x", 1));
    EXPECT_FALSE(other.read(2 * pageSize, 1));
    ASSERT_TRUE(sample.file->writeAt(0, Bytes(pageSize, 0).data(), pageSize));
    EXPECT_FALSE(sample.read(0, 1));
}

TEST(VerifiedContent, RefusesASideFileThatIsAbsentOrOfAnotherTimeOrFile) {
    std::mt19937_64 random(1);
    auto const expect = [](Sample& sample, char const* what) {
        Status const opened = sample.reopen();
        EXPECT_TRUE(opened.is(Status::Code::Corruption)) << what;
        EXPECT_EQ(opened.file(), sample.side()) << what;
    };
    Sample sample(7), other(8);
    for (Sample* each : {&sample, &other}) {
        each->write(0, randomBytes(random, 100 * pageSize));
        each->save();
    }
    QFile::copy(sample.side(), sample.side() + ".old");
    sample.write(5, Bytes{1, 2, 3});
    sample.save();
    ASSERT_TRUE(QFile::remove(sample.side()));
    expect(sample, "absent");
    ASSERT_TRUE(QFile::copy(sample.side() + ".old", sample.side()));
    expect(sample, "of another time");
    ASSERT_TRUE(QFile::remove(sample.side()));
    ASSERT_TRUE(QFile::copy(other.side(), sample.side()));
    expect(sample, "of another file");
    for (QByteArray const& state :
         {QByteArray(), QByteArray("\x02\x04\0\0", 4), QByteArray("\x01\x08\0\0", 4),
          QByteArray("\x01\x04\x02\0", 4), QByteArray("\x01\x04\x01\0", 4),
          QByteArray("\x01\x04\0\0xyz", 7)}) {
        sample.state = state;
        EXPECT_TRUE(sample.reopen().is(Status::Code::Corruption)) << state.toHex().toStdString();
    }
}

TEST(VerifiedContent, LeavesNoWrongBytesBehindAWriteThatFails) {
    for (bool isShort : {false, true})
        for (std::uint64_t offset :
             {std::uint64_t{0}, std::uint64_t{10}, std::uint64_t{2} * pageSize + 10,
              std::uint64_t{3} * pageSize}) {
            FaultyFiles files;
            Sample sample;
            sample.write(0, Bytes(2 * pageSize + 50, 1));
            Bytes const bytes(2 * pageSize, 2);
            isShort ? files.shortWrite(1) : files.failWrite(1);
            EXPECT_FALSE(sample.content->writeAt(*sample.file, offset, bytes.data(), 2 * pageSize));
            files.heal();
            // Each page is the old one, the new one, or refused.
            for (std::uint64_t at = 0; at < sample.model.size(); at += pageSize) {
                auto const page = sample.read(at, pageSize);
                if (!page)
                    continue;
                for (std::size_t i = 0; i < page->size(); ++i) {
                    bool const covered = at + i >= offset && at + i < offset + bytes.size();
                    EXPECT_TRUE((*page)[i] == 1 || (covered && (*page)[i] == 2)) << at + i;
                }
            }
            sample.write(offset, bytes);
            EXPECT_TRUE(sample.readsAsExpected()) << "the same write again, at " << offset;
        }
}

TEST(VerifiedContent, ReadersBesideAWriterNeverSeeAFault) {
    FaultyFiles const withoutSyncs;
    Sample sample;
    constexpr std::uint64_t pages = 80;
    sample.write(0, Bytes(pages * pageSize, 0));
    std::atomic<bool> ended = false;
    std::atomic<std::uint64_t> faults = 0;
    auto const read = [&](std::uint64_t seed) {
        std::mt19937_64 random(seed);
        Bytes bytes(3 * pageSize);
        while (!ended) {
            auto const count = static_cast<std::uint32_t>(1 + random() % bytes.size());
            auto const got = sample.content->readAt(*sample.file, random() % (pages * pageSize),
                                                    bytes.data(), count);
            faults += !got.ok();
        }
    };
    std::vector<std::thread> readers;
    for (std::uint64_t seed : {1, 2, 3})
        readers.emplace_back(read, seed);
    std::mt19937_64 random(4);
    for (int i = 0; i < 3000; ++i) {
        Bytes const bytes(1 + random() % (2 * pageSize), static_cast<std::uint8_t>(i));
        std::uint64_t const at = random() % ((pages + 2) * pageSize);
        if (i % 50 == 0)
            sample.setLength(pages * pageSize);
        sample.write(at, bytes);
        if (i % 200 == 0)
            sample.save();
    }
    ended = true;
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(faults, 0U);
    EXPECT_TRUE(sample.readsAsExpected());
}

} // namespace
} // namespace Morva
