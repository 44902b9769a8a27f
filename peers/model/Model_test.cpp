// Random operations against a plain tree in memory. MORVA_SEED repeats a run, MORVA_ROUNDS sets the
// number of operations of each.

#include "peers/model/Player.h"
#include "peers/model/Seeds.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <iostream>

namespace {

using Morva::Model::fromEnvironment;
using Morva::Model::Player;
using Morva::Model::seeds;

class Model : public testing::TestWithParam<std::uint64_t> {};

TEST_P(Model, EveryStateComesBackAndNothingIsLostOrCountedTwice) {
    auto const seed = GetParam();
    std::cout << "seed " << seed << std::endl;
    QTemporaryDir directory;
    Player player(directory.path() + "/root", seed);
    auto const operations = static_cast<int>(fromEnvironment("MORVA_ROUNDS", 7500));
    constexpr int batch = 1500;
    for (int done = 0; done < operations; done += batch) {
        player.play(batch);
        ASSERT_EQ(player.differences(), "") << "seed " << seed << " after " << done + batch;
        ASSERT_EQ(player.faults(), "") << "seed " << seed << " after " << done + batch;
    }
    // Away with it: one by one, or all at once with every version and snapshot.
    if (seed % 2 == 0) {
        player.removeEverything();
        EXPECT_EQ(player.poolInUse(), player.poolAtStart()) << "seed " << seed;
    } else {
        player.eraseStore();
        EXPECT_EQ(player.poolInUse(), player.poolWithoutStore()) << "seed " << seed;
    }
    EXPECT_EQ(player.faults(), "") << "seed " << seed << " at the end";
    for (auto const& [what, count] : player.counts())
        std::cout << what << ' ' << count << "; ";
    std::cout << std::endl;
}

INSTANTIATE_TEST_SUITE_P(Seeds, Model, testing::ValuesIn(seeds()),
                         [](auto const& info) { return "Seed" + std::to_string(info.index); });

} // namespace
