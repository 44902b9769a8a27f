// A process ends at any write, with all that it has in memory: the repository is found again as it
// was at a checkpoint, and the rest of the logs leads to the same end.

#include "peers/model/FaultFixture.h"

#include <cstdlib>
#include <iostream>

namespace {

using namespace FaultFixture;
using Unsynced = FaultyFiles::Unsynced;

/// The count of logs that the live tree has, from the last checkpoint on; past the end if it is no
/// state between logs.
std::size_t logsIn(Target& target) {
    auto const& trees = expected().trees;
    auto const from = target.flushed == SIZE_MAX ? 0 : target.flushed;
    auto const found =
        std::find(trees.begin() + static_cast<std::ptrdiff_t>(from), trees.end(), target.live());
    return static_cast<std::size_t>(found - trees.begin());
}

/// Retires every snapshot but the last; no name of the live tree goes by that.
void retireAll(Target& target) {
    auto const before = target.live();
    auto const all = target.store().snapshots().all();
    for (std::size_t i = 0; i + 1 < all.size(); ++i)
        EXPECT_TRUE(target.store().snapshots().deleteSnapshot(all[i]->instance()));
    target.root().drain(true);
    EXPECT_EQ(difference(target.live(), before), "") << "after the retirement";
}

/// Whether the process was ended.
bool killedRun(std::uint64_t place, Unsynced unsynced) {
    FaultyFiles files;
    Target target;
    target.checkpoints = true;
    files.crashAtWrite(place);
    (void)target.run();
    if (!files.crashed())
        return false;
    (void)target.finish();
    files.restart(unsynced, place);
    auto const reached = target.applied;
    target.begin();
    target.applied = logsIn(target);
    EXPECT_LE(target.applied, reached) << "a live tree as it never was since the last checkpoint";
    target.applied = std::min(target.applied, reached);
    std::erase_if(target.snapshots,
                  [&](auto const& each) { return !target.store().snapshots().find(each.second); });
    compareSnapshots(target);
    target.flushed = SIZE_MAX;
    EXPECT_TRUE(target.run()) << target.message;
    EXPECT_EQ(difference(target.live(), expected().trees.back()), "") << "at the end";
    retireAll(target);
    EXPECT_EQ(target.finish(), "");
    EXPECT_EQ(Target::faults(), "");
    return true;
}

/// MORVA_ROUNDS sets the number of places, MORVA_PLACE the only one.
TEST(Kill, LeavesACheckpointFromWhichTheLogsGoOn) {
    auto const places = expected().writes;
    auto const* rounds = std::getenv("MORVA_ROUNDS");
    auto const* only = std::getenv("MORVA_PLACE");
    auto const step =
        std::max<std::uint64_t>(1, places / (rounds ? std::strtoull(rounds, nullptr, 0) : 12));
    std::uint64_t runs = 0, killed = 0;
    for (auto n = only ? std::strtoull(only, nullptr, 0) : 1; n <= places; n += step) {
        SCOPED_TRACE("at " + std::to_string(n) + " of " + std::to_string(places));
        // A kill leaves all that was written; of what a power cut leaves, all can be lost.
        killed += killedRun(n, runs++ % 2 == 0 ? Unsynced::Kept : Unsynced::Lost);
        if (HasFailure() || only)
            break;
    }
    EXPECT_GT(killed, runs / 2);
    std::cout << runs << " runs, " << killed << " killed" << std::endl;
}

} // namespace
