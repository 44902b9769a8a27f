#include "replication/repository/store/DirectoryScan.h"
#include "replication/repository/store/StoreFixture.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <vector>

using namespace Replication;

namespace {

constexpr std::size_t step = 1000;

/// Processor time of this thread for each thousand of a row of operations.
class StepClock {
public:
    void tick() {
        if (++count_ % step != 0)
            return;
        double const now = time();
        steps_.push_back(now - last_);
        last_ = now;
    }
    /// How much dearer the last thousands are than the first ones; of each, the median of a tenth.
    [[nodiscard]] double growth() const {
        auto const some = static_cast<std::ptrdiff_t>(std::max<std::size_t>(3, steps_.size() / 10));
        return median({steps_.end() - some, steps_.end()}) /
               median({steps_.begin(), steps_.begin() + some});
    }

private:
    static double time() {
        timespec now{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
    }
    static double median(std::vector<double> values) {
        std::ranges::sort(values);
        return values[values.size() / 2];
    }

    std::size_t count_ = 0;
    double last_ = time();
    std::vector<double> steps_;
};

/// MORVA_SCALE_NAMES=200000 for the full size.
std::size_t namesWanted() {
    char const* const given = std::getenv("MORVA_SCALE_NAMES");
    return given ? std::strtoull(given, nullptr, 10) : 20000;
}

} // namespace

TEST_F(StoreFixture, NameInALargeDirectoryCostsNoMoreThanInASmallOne) {
    constexpr double most = 2;
    create();
    std::size_t const names = namesWanted();
    std::vector<QStringList> paths;
    for (std::size_t i = 0; i < names; ++i)
        paths.push_back({"directory", QStringLiteral("some file %1").arg(i)});
    auto const growth = [&](auto const& operation) {
        StepClock clock;
        for (QStringList const& path : paths) {
            if (!operation(path))
                ADD_FAILURE() << path.last().toStdString();
            clock.tick();
        }
        return clock.growth();
    };
    EXPECT_LE(growth([&](auto const& path) {
                  return store_->paths().createObject(writing(), path, {}) != nullptr;
              }),
              most);
    Instance const taken = snapshot();
    EXPECT_LE(growth([&](auto const& path) {
                  return store_->directories().locate(path, PathMode::DoNotBuildPath).found;
              }),
              most);
    EXPECT_LE(
        growth([&](auto const& path) { return store_->passiveHandle(path, taken) != nullptr; }),
        most);
    FileId const id =
        store_->directories().locate({"directory"}, PathMode::DoNotBuildPath).key.fileId();
    auto const node = store_->passiveHandle(id, taken);
    ASSERT_TRUE(node);
    std::size_t listed = 0;
    StepClock clock;
    for (DirectoryScan scan(*node, id, "scan"); scan.nextName(); clock.tick())
        ++listed;
    EXPECT_EQ(listed, names);
    EXPECT_LE(clock.growth(), most);
    EXPECT_LE(growth([&](auto const& path) { return store_->paths().unlink(writing(), path); }),
              most);
}
