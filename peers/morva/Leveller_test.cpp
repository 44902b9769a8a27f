#include "peers/morva/Leveller.h"

#include "peers/morva/RestoreFixture.h"

#include <fstream>
#include <optional>
#include <vector>

namespace Morva {
namespace {

using Replication::FileTime;
using Replication::FileTimes;

/// Nothing can be made to have changed long ago, so the store is told that it had, and the walk
/// too.
class LevellerTest : public RestoreFixture {
protected:
    void make(std::string const& name, timespec modified) const {
        std::ofstream(at(name.c_str())) << name;
        timespec const times[2] = {{0, UTIME_OMIT}, modified};
        ASSERT_EQ(::utimensat(AT_FDCWD, at(name.c_str()).c_str(), times, 0), 0);
    }
    static struct stat aged(struct stat status) {
        status.st_ctim.tv_sec -= 1000;
        return status;
    }
    [[nodiscard]] struct stat statusOf(char const* name) const {
        struct stat status {};
        EXPECT_EQ(::lstat(at(name).c_str(), &status), 0);
        return aged(status);
    }
    void replicateAged(std::vector<char const*> const& names) {
        replicate();
        apply([&](Replication::OperationLogger& logger) {
            for (auto const* name : names)
                ASSERT_TRUE(logger.setAttr(at(name), {.flags = Replication::posixAttrChangeTime,
                                                      .times = FileTimes::of(statusOf(name))}));
        });
    }
    /// Logs what changed; `logs` and `unchanged` count.
    void replicateChanges() {
        auto const store = this->store();
        FileTree const live(*store, {});
        Leveller leveller(live, source);
        ASSERT_TRUE(leveller.run());
        apply([&](Replication::OperationLogger& logger) {
            ASSERT_TRUE(leveller.logRemovals(logger));
            Replication::TreeOptions options;
            options.unchanged = [&](std::string_view path, struct stat const& status) {
                return leveller.unchanged(path, aged(status));
            };
            Replication::TreeLogger walker(options, logger);
            ASSERT_EQ(walker.run(source), Replication::TreeLogger::Result::Done);
            logs = walker.counts().logs;
            unchanged = walker.counts().unchanged;
        });
    }
    [[nodiscard]] std::optional<ObjectAttributes> stored(char const* name) {
        auto const store = this->store();
        FileTree const tree(*store, {});
        auto const entry = tree.find({QString::fromUtf8(name)});
        auto const node = entry ? tree.node(entry->id) : nullptr;
        return node ? FileTree::attributes(*node) : std::nullopt;
    }

    std::uint64_t logs = 0;
    std::uint64_t unchanged = 0;
};

TEST_F(LevellerTest, AnUnchangedTreeWithNanosecondsSendsNothing) {
    std::filesystem::create_directory(at("d"));
    make("d/a", {-5, 1});
    make("b", {1'700'000'000, 999'999'999});
    make("c", {(time_t{1} << 32) + 1, 123'456'789});
    std::filesystem::create_symlink("target", at("link"));
    replicateAged({"d/a", "b", "c", "link"});
    auto const instance = snapshot();
    replicateChanges();
    EXPECT_EQ(unchanged, 4U);
    EXPECT_EQ(logs, 4U); // two for each directory
    // Nor do those write anything: the snapshot's nodes are still the live ones.
    auto const store = this->store();
    FileTree const before(*store, instance);
    FileTree const now(*store, {});
    for (auto const& id : {now.root().id, now.find({QStringLiteral("d")})->id})
        EXPECT_EQ(now.nodeNumber(id).value, before.nodeNumber(id).value);
}

TEST_F(LevellerTest, AChangeInNanosecondsAloneIsSeen) {
    make("exact", {1'700'000'000, 5});
    make("seconds", {1'700'000'000, 5});
    make("late", {time_t{1} << 33, 5});
    replicateAged({"exact", "late"});
    apply([&](Replication::OperationLogger& logger) {
        // Words alone, as from a source that knows no more.
        auto const status = statusOf("seconds");
        ASSERT_TRUE(logger.setAttr(
            at("seconds"),
            {.flags = Replication::posixAttrModificationTime | Replication::posixAttrChangeTime,
             .times = {{},
                       {status.st_mtim.tv_sec, FileTime::unknown},
                       {status.st_ctim.tv_sec, FileTime::unknown}}}));
    });
    auto const store = this->store();
    FileTree const live(*store, {});
    Leveller leveller(live, source);
    ASSERT_TRUE(leveller.run());
    struct {
        char const* name;
        long timespec::*part;
        timespec stat::*time;
        bool seen;
    } const cases[] = {
        {"exact", &timespec::tv_nsec, &stat::st_mtim, true},
        {"exact", &timespec::tv_nsec, &stat::st_ctim, true},
        {"exact", &timespec::tv_sec, &stat::st_mtim, true},
        {"late", &timespec::tv_nsec, &stat::st_mtim, true},
        {"late", &timespec::tv_sec, &stat::st_mtim, true}, // its word is the same
        {"seconds", &timespec::tv_nsec, &stat::st_mtim, false},
        {"seconds", &timespec::tv_sec, &stat::st_mtim, true},
    };
    for (auto const& each : cases) {
        SCOPED_TRACE(each.name);
        auto status = statusOf(each.name);
        EXPECT_TRUE(leveller.unchanged(at(each.name), status));
        ++(status.*each.time.*each.part);
        EXPECT_EQ(leveller.unchanged(at(each.name), status), !each.seen);
    }
    // And it comes into the store.
    make("exact", {1'700'000'000, 6});
    replicateChanges();
    EXPECT_EQ(stored("exact")->modified, (FileTime{1'700'000'000, 6}));
    EXPECT_EQ(stored("late")->modified, (FileTime{std::int64_t{1} << 33, 5}));
}

} // namespace
} // namespace Morva
