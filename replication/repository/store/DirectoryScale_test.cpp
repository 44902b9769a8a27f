#include "replication/repository/store/DirectoryScan.h"
#include "replication/repository/store/StoreFixture.h"

#include <algorithm>
#include <cstdlib>

using namespace Replication;

namespace {

/// MORVA_SCALE_NAMES=200000 for the full size.
std::size_t namesWanted() {
    char const* const given = std::getenv("MORVA_SCALE_NAMES");
    return given ? std::strtoull(given, nullptr, 10) : 20000;
}

/// Counts what operations cost in pages: of the directory tree, asked for, and of directories,
/// read.
class DirectoryScale : public StoreFixture {
protected:
    [[nodiscard]] std::uint64_t pages() const {
        Directories const& directories = store_->directories();
        return directories.cacheHits() + directories.cacheMisses() + directories.pagesRead();
    }
    bool make(QStringList const& path) {
        return store_->paths().createObject(writing(), path, {}).ok();
    }
};

} // namespace

TEST_F(DirectoryScale, NameInALargeDirectoryCostsNoMoreThanInASmallOne) {
    create();
    std::size_t const names = namesWanted();
    std::vector<QStringList> paths;
    for (std::size_t i = 0; i < names; ++i)
        paths.push_back({"directory", QStringLiteral("some file %1").arg(i)});
    // The most that one operation of a row visits: the tree gets deeper by a level or two, and
    // nothing else may grow.
    auto const most = [&](auto const& operation) {
        std::uint64_t result = 0;
        for (QStringList const& path : paths) {
            std::uint64_t const before = pages();
            if (!operation(path))
                ADD_FAILURE() << path.last().toStdString();
            result = std::max(result, pages() - before);
        }
        return result;
    };
    constexpr std::uint64_t toFind = 12; // two look-ups in a tree of up to six levels
    constexpr std::uint64_t toChange = 40;
    EXPECT_LE(most([&](auto const& path) { return make(path); }), toChange);
    Instance const taken = snapshot();
    EXPECT_LE(most([&](auto const& path) {
                  return value(store_->directories().locate(path, PathMode::DoNotBuildPath)).found;
              }),
              toFind);
    EXPECT_EQ(most([&](auto const& path) {
                  return value(store_->passiveHandle(path, taken)) != nullptr;
              }),
              0U)
        << "snapshots don't ask the live tree";
    EXPECT_LE(most([&](auto const& path) { return store_->paths().unlink(writing(), path).ok(); }),
              toChange);
}

TEST_F(DirectoryScale, ARoundOverManyDirectoriesCostsLittleMoreThanOneOverFew) {
    create();
    auto const round = [&](int directories, int number) {
        for (int i = 0; i < directories; ++i)
            ASSERT_TRUE(make({QStringLiteral("d%1").arg(i),
                              QStringLiteral("%1").arg(number, 800, 10, QLatin1Char('0'))}));
    };
    // Two names fill a page: a return to a directory mustn't read all it has.
    constexpr auto many = static_cast<int>(OpenDirectories::limit * 5 / 4);
    for (int number = 0; number < 8; ++number)
        round(many, number);
    std::uint64_t const before = store_->directories().pagesRead();
    for (int number = 8; number < 12; ++number)
        round(many, number);
    EXPECT_LE(store_->directories().pagesRead() - before, static_cast<std::uint64_t>(many) * 4)
        << "more than a page for each name";
}
