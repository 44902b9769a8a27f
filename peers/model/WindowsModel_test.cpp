// Random operations of a Windows source against a plain tree in memory. MORVA_SEED repeats a run,
// MORVA_ROUNDS sets the number of operations of each.

#include "peers/model/Seeds.h"
#include "peers/model/WindowsPlayer.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <iostream>

namespace {

using Morva::Model::fromEnvironment;
using Morva::Model::WindowsPlayer;

class WindowsModel : public testing::TestWithParam<std::uint64_t> {};

TEST_P(WindowsModel, EveryStateAndEveryPathToBeAskedForComesBack) {
    auto const seed = GetParam();
    std::cout << "seed " << seed << std::endl;
    QTemporaryDir directory;
    WindowsPlayer player(directory.path() + "/root", seed);
    auto const operations = static_cast<int>(fromEnvironment("MORVA_ROUNDS", 6000));
    constexpr int batch = 1000;
    for (int done = 0; done < operations; done += batch) {
        player.play(batch);
        ASSERT_EQ(player.differences(), "") << "seed " << seed << " after " << done + batch;
        ASSERT_EQ(player.faults(), "") << "seed " << seed << " after " << done + batch;
    }
    for (auto const& [what, count] : player.counts())
        std::cout << what << ' ' << count << "; ";
    std::cout << std::endl;
}

INSTANTIATE_TEST_SUITE_P(Seeds, WindowsModel, testing::ValuesIn(Morva::Model::seeds()),
                         [](auto const& info) { return "Seed" + std::to_string(info.index); });

} // namespace
