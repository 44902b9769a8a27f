// The power goes, or the process is killed, at any write: the repository is found as it was at its
// last checkpoint, whole, and goes on from there.

#include "base/files/FaultyFiles.h"
#include "peers/model/Player.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

namespace Morva::Model {

namespace {

/// Knows what the repository has to hold after a crash.
class CrashingPlayer : public Player {
public:
    using Player::Player;

    void checkpoint() {
        root_->checkpoint();
        mark();
    }
    void mark() { marked_ = State{clone(tree_), snapshots_}; }
    /// Plays until something fails, which the crash makes sure of.
    void playUntilCrash(FaultyFiles const& files) {
        while (!files.crashed()) {
            auto const reopened = counts_["reopen"];
            now_ = State{clone(tree_), snapshots_};
            try {
                play(1);
            } catch (std::exception const&) {
                return;
            }
            if (counts_["reopen"] != reopened)
                mark();
        }
    }
    /// The process is gone.
    void die() {
        open_.clear();
        replay_.reset();
        root_.reset();
    }
    /// Differences to the last checkpoint, and faults.
    [[nodiscard]] std::string comeBack() {
        adopt(marked_);
        open();
        auto result = differences();
        // The crash may have come when a new start had just made its checkpoint.
        if (!result.empty()) {
            adopt(now_);
            result = differences();
        }
        mark();
        return result + faults();
    }

private:
    struct State {
        ObjectPointer tree;
        std::map<std::uint32_t, ObjectPointer> snapshots;
    };

    void adopt(State const& state) {
        tree_ = clone(state.tree);
        snapshots_ = state.snapshots;
    }

    State marked_;
    State now_;
};

TEST(Crash, AtAnyWriteCostsWhatCameAfterTheLastCheckpoint) {
    auto const* const given = std::getenv("MORVA_SEED");
    auto const* const rounds = std::getenv("MORVA_ROUNDS");
    std::uint64_t const seed = given ? std::strtoull(given, nullptr, 0) : std::random_device{}();
    std::cout << "seed " << seed << std::endl;
    using Unsynced = FaultyFiles::Unsynced;
    std::mt19937_64 random(seed);
    FaultyFiles files;
    QTemporaryDir directory;
    CrashingPlayer player(directory.path() + "/root", seed);
    auto const end = rounds ? std::strtoull(rounds, nullptr, 0) : 9;
    for (std::uint64_t round = 0; round < end; ++round) {
        SCOPED_TRACE(testing::Message() << "seed " << seed << " round " << round);
        player.play(static_cast<int>(random() % 60));
        player.checkpoint();
        files.crashAtWrite(1 + random() % (random() % 2 ? 200 : 4000));
        player.playUntilCrash(files);
        player.die();
        files.restart(std::array{Unsynced::Lost, Unsynced::Kept, Unsynced::Random}[round % 3],
                      random());
        ASSERT_EQ(player.comeBack(), "");
    }
}

} // namespace

} // namespace Morva::Model
