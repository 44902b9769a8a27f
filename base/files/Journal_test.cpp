#include "base/files/Journal.h"

#include "base/files/FaultyFiles.h"
#include "base/values/PosixText.h"

#include <QDir>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace Morva {

namespace {

using Bytes = std::vector<std::uint8_t>;
using Tree = std::map<QString, Bytes>;

/// Random operations on some files of two guarded places, beside a model of what they hold.
class Player {
public:
    Player(QString const& root, std::uint64_t seed) : root_(root), random_(seed) {}

    [[nodiscard]] QStringList places() const { return {root_ + "/a", root_ + "/b"}; }
    [[nodiscard]] bool open() {
        auto journal = Journal::open(root_, places());
        if (journal)
            journal_ = *std::move(journal);
        return journal.ok();
    }
    void close() {
        open_.clear();
        journal_.reset();
    }
    [[nodiscard]] bool isBroken() const { return journal_->isBroken(); }
    [[nodiscard]] bool rollBack() {
        open_.clear();
        now = atCheckpoint;
        return journal_->rollBack().ok();
    }

    /// False at the first operation that fails.
    [[nodiscard]] bool step() {
        switch (below(12)) {
        case 0:
            return create(anyName());
        case 1:
            return remove(anyName());
        case 2:
            return rename(anyName(), anyName());
        case 3:
        case 4:
            return setLength(anyName());
        case 5:
            open_.clear();
            return true;
        case 6:
            return below(4) != 0 || checkpoint();
        default:
            return write(anyName());
        }
    }

    [[nodiscard]] bool checkpoint() {
        inCheckpoint = now;
        if (!journal_->checkpoint())
            return false;
        atCheckpoint = now;
        inCheckpoint.reset();
        return true;
    }

    /// What the files hold, read through the journal.
    [[nodiscard]] Tree found() {
        Tree result;
        for (QString const& place : places()) {
            auto const names = FileSystem::inForce().names(place, FileSystem::Kind::File);
            EXPECT_TRUE(names);
            for (QString const& name : names ? *names : QStringList()) {
                QString const path = place + u'/' + name;
                RawFile* const file = opened(path);
                if (!file)
                    continue;
                Bytes bytes(*file->length());
                auto const size = static_cast<std::uint32_t>(bytes.size());
                EXPECT_TRUE(file->readWhole(0, bytes.data(), size)) << path.toStdString();
                result.emplace(path, std::move(bytes));
            }
        }
        return result;
    }

    Tree now;
    Tree atCheckpoint;
    std::optional<Tree> inCheckpoint; ///< the checkpoint that failed, if the last thing was one

private:
    std::uint64_t below(std::uint64_t limit) { return random_() % limit; }
    QString anyName() {
        return root_ + (below(2) ? "/a/" : "/b/") + QChar(u'f' + static_cast<char16_t>(below(5)));
    }

    RawFile* opened(QString const& name) {
        auto& file = open_[name];
        if (!file) {
            file = RawFile::make();
            if (!file->open(name, RawFile::Mode::ReadWrite))
                file.reset();
        }
        return file.get();
    }

    [[nodiscard]] bool create(QString const& name) {
        open_.erase(name);
        auto file = RawFile::make();
        if (!file->create(name, RawFile::Mode::ReadWrite))
            return false;
        now[name] = {};
        open_[name] = std::move(file);
        return true;
    }

    [[nodiscard]] bool remove(QString const& name) {
        open_.erase(name);
        bool const wanted = now.erase(name) != 0;
        auto const status = RawFile::remove(name);
        return wanted ? status.ok() : status.is(Status::Code::NotFound);
    }

    [[nodiscard]] bool rename(QString const& from, QString const& to) {
        if (from == to || !now.contains(from))
            return true;
        open_.erase(from);
        open_.erase(to);
        if (!RawFile::rename(from, to))
            return false;
        now[to] = std::move(now[from]);
        now.erase(from);
        return true;
    }

    [[nodiscard]] bool write(QString const& name) {
        if (!now.contains(name))
            return true;
        RawFile* const file = opened(name);
        Bytes& bytes = now[name];
        std::uint64_t const offset = below(2) ? bytes.size() : below(bytes.size() + 5000);
        // Now and then so much that the file needs a side file for its sums.
        Bytes piece(1 + below(below(3) ? 200 : below(8) ? 30000 : 400000));
        std::generate(piece.begin(), piece.end(), [this] { return std::uint8_t(random_()); });
        auto const size = static_cast<std::uint32_t>(piece.size());
        if (!file || !file->writeAt(offset, piece.data(), size))
            return false;
        bytes.resize(std::max<std::size_t>(bytes.size(), offset + size));
        std::copy(piece.begin(), piece.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
        return true;
    }

    [[nodiscard]] bool setLength(QString const& name) {
        if (!now.contains(name))
            return true;
        RawFile* const file = opened(name);
        Bytes& bytes = now[name];
        std::uint64_t const length = below(bytes.size() * 3 / 2 + 100);
        if (!file || !file->setLength(length))
            return false;
        bytes.resize(length);
        return true;
    }

    QString root_;
    std::mt19937_64 random_;
    std::unique_ptr<Journal> journal_;
    std::map<QString, std::unique_ptr<RawFile>> open_;
};

std::uint64_t seedOfRun() {
    char const* const given = std::getenv("MORVA_SEED");
    std::uint64_t const seed = given ? std::stoull(given) : std::random_device()();
    std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
    return seed;
}

/// One run of random operations in a new directory.
struct Scene {
    explicit Scene(std::uint64_t seed) : player(directory.path(), seed) {
        for (QString const& place : player.places())
            EXPECT_TRUE(QDir().mkpath(place));
    }
    QTemporaryDir directory;
    Player player;
};

TEST(Journal, FilesReadAsTheyWereWrittenAndComeBackFromTheLastCheckpoint) {
    std::uint64_t const seed = seedOfRun();
    FaultyFiles const withoutSyncs;
    for (std::uint64_t round = 0; round < 20; ++round) {
        SCOPED_TRACE(seed + round);
        Scene run(seed + round);
        ASSERT_TRUE(run.player.open());
        for (int i = 0; i < 300; ++i) {
            ASSERT_TRUE(run.player.step()) << i;
            if (i % 50 == 0) {
                ASSERT_EQ(run.player.found(), run.player.now) << i;
            }
        }
        if (round % 2) {
            run.player.close();
            ASSERT_TRUE(run.player.open());
        } else {
            ASSERT_TRUE(run.player.rollBack());
        }
        ASSERT_EQ(run.player.found(), run.player.atCheckpoint);
    }
}

/// Opening is swept, too: the power goes again while the last crash is put in order.
TEST(Journal, ALossOfPowerAtAnyWriteCostsWhatWasNotInACheckpoint) {
    std::uint64_t const seed = seedOfRun();
    using Unsynced = FaultyFiles::Unsynced;
    std::mt19937_64 random(seed);
    char const* const rounds = std::getenv("MORVA_ROUNDS");
    std::uint64_t const end = rounds ? std::stoull(rounds) : 300;
    for (std::uint64_t at = 1; at < end; at += 1 + random() % (rounds ? 2 : 8)) {
        SCOPED_TRACE(testing::Message() << "seed " << seed << " write " << at);
        auto const unsynced = std::array{Unsynced::Lost, Unsynced::Kept, Unsynced::Random}[at % 3];
        FaultyFiles files;
        Scene run(seed + at / 40);
        ASSERT_TRUE(run.player.open());
        files.crashAtWrite(at);
        for (int i = 0; i < 250 && run.player.step(); ++i)
            ;
        run.player.close();
        files.restart(unsynced, at);
        for (std::uint64_t again = 1;; ++again) {
            files.crashAtWrite(again);
            bool const opened = run.player.open();
            run.player.close();
            bool const crashed = files.crashed();
            files.restart(unsynced, at + again);
            if (!crashed) {
                ASSERT_TRUE(opened);
                break;
            }
        }
        ASSERT_TRUE(run.player.open());
        auto const found = run.player.found();
        auto const& pending = run.player.inCheckpoint;
        ASSERT_TRUE(found == run.player.atCheckpoint || (pending && found == *pending));
        run.player.close();
    }
}

TEST(Journal, ADiskThatFailsForATimeFailsACheckpointAndLosesNothing) {
    std::uint64_t const seed = seedOfRun();
    for (std::uint64_t after = 0; after < 40; ++after) {
        SCOPED_TRACE(testing::Message() << "seed " << seed << " after " << after);
        FaultyFiles files;
        Scene run(seed);
        Player& player = run.player;
        ASSERT_TRUE(player.open());
        for (int i = 0; i < 150; ++i)
            ASSERT_TRUE(player.step());
        ASSERT_EQ(player.found(), player.now);
        files.failWritesAfter(after);
        bool const done = player.checkpoint();
        files.heal();
        ASSERT_EQ(player.found(), player.now);
        // One that was made and could not be applied is applied by the next opening.
        ASSERT_TRUE(done || player.checkpoint() || player.isBroken());
        ASSERT_EQ(player.found(), player.now);
        player.close();
        ASSERT_TRUE(player.open());
        ASSERT_EQ(player.found(), player.now);
    }
}

TEST(Journal, ThreadsReadAndWriteWhileCheckpointsAreMade) {
    FaultyFiles const withoutSyncs;
    QTemporaryDir directory;
    auto const opened = Journal::open(directory.path(), {directory.path()});
    ASSERT_TRUE(opened);
    auto const& journal = *opened;
    auto const file = RawFile::make();
    ASSERT_TRUE(file->create(directory.path() + "/file", RawFile::Mode::ReadWrite));
    constexpr std::uint32_t record = 1000;
    constexpr std::uint64_t records = 60;
    // Each record of a writer holds one number all over, which rises with every round.
    auto const write = [&](std::uint64_t writer) {
        for (std::uint8_t round = 1; round < 20; ++round)
            for (std::uint64_t i = writer; i < records; i += 2) {
                Bytes const bytes(record, round);
                EXPECT_TRUE(file->writeAt(i * record, bytes.data(), record));
            }
    };
    std::atomic<bool> ended = false;
    auto const read = [&] {
        Bytes bytes(record);
        std::vector<std::uint8_t> seen(records);
        while (!ended)
            for (std::uint64_t i = 0; i < records; ++i) {
                if (!file->readWhole(i * record, bytes.data(), record))
                    continue;
                auto const oldest = std::min(bytes.front(), bytes.back());
                EXPECT_GE(oldest, seen[i]);
                seen[i] = oldest;
            }
    };
    std::thread reader(read);
    std::thread first(write, 0);
    std::thread second(write, 1);
    for (int i = 0; i < 30; ++i)
        EXPECT_TRUE(journal->checkpoint());
    first.join();
    second.join();
    ended = true;
    reader.join();
    ASSERT_TRUE(journal->checkpoint());
    Bytes bytes(record);
    for (std::uint64_t i = 0; i < records; ++i) {
        ASSERT_TRUE(file->readWhole(i * record, bytes.data(), record));
        ASSERT_EQ(bytes, Bytes(record, 19)) << i;
    }
}

TEST(Journal, ADamagedJournalIsRefused) {
    Scene run(1);
    ASSERT_TRUE(run.player.open());
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(run.player.step());
    ASSERT_TRUE(run.player.checkpoint());
    run.player.close();
    auto const file = RawFile::make();
    ASSERT_TRUE(file->open(run.directory.path() + "/journal", RawFile::Mode::ReadWrite));
    std::uint8_t byte = 0;
    ASSERT_TRUE(file->readWhole(60, &byte, 1));
    byte ^= 0x10;
    ASSERT_TRUE(file->writeAt(60, &byte, 1));
    EXPECT_FALSE(run.player.open());
}

} // namespace

} // namespace Morva
