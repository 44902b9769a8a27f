#include "replication/repository/replay/PosixReplayFixture.h"
#include "replication/repository/store/SnapshotList.h"

#include <limits>

namespace Replication {
namespace {

class PosixReplay : public PosixReplayFixture {};

TEST_F(PosixReplay, WhatHasTheNameOfANewObjectGivesWay) {
    ASSERT_TRUE(make("/src/a", "old"));
    ASSERT_TRUE(moved(LogType::PosixLink, "/src/a", "/src/second"));
    auto const nodes = usedNodes();
    ASSERT_TRUE(create(1, "/src/a", 0600));
    EXPECT_EQ(content("a"), QByteArray());
    EXPECT_EQ(security("a")->mode, S_IFREG | 0600U);
    EXPECT_EQ(content("second"), "old");
    EXPECT_EQ(usedNodes(), nodes + 1);

    ASSERT_TRUE(mkdir("/src/a", 0700));
    EXPECT_EQ(security("a")->mode, S_IFDIR | 0700U);
    ASSERT_TRUE(make("/src/a/b", "below"));
    // A directory that is there stays, with what is in it.
    ASSERT_TRUE(mkdir("/src/a", 0711));
    EXPECT_EQ(security("a")->mode, S_IFDIR | 0711U);
    EXPECT_EQ(content("a/b"), "below");
    // The open number still means the file that is gone.
    ASSERT_TRUE(write(1, 0, "unseen"));
    ASSERT_TRUE(close(1));

    // What is in a directory doesn't go unasked, as it couldn't at the source.
    EXPECT_FALSE(moved(LogType::PosixSymlink, "target", "/src/a"));
    EXPECT_EQ(content("a/b"), "below");
    EXPECT_EQ(sink_->resyncPaths(), QSet<QString>{"a"});
    ASSERT_TRUE(named(LogType::PosixUnlink, "/src/a/b"));
    ASSERT_TRUE(moved(LogType::PosixSymlink, "target", "/src/a"));
    EXPECT_EQ(content("a", PosixStream::link), "target");
    ASSERT_TRUE(done(LogType::PosixMknod, [](LogBuilder& log) {
        log.text(F::File, "/src/a").number(F::Mode, S_IFCHR | 0600).number(F::Device, 0x501);
    }));
    EXPECT_EQ(security("a")->device, 0x501U);
    EXPECT_FALSE(content("a", PosixStream::link));
}

TEST_F(PosixReplay, LinksAndRenamesThatAreThereAlreadyAreDone) {
    ASSERT_TRUE(make("/src/a", "a"));
    ASSERT_TRUE(make("/src/b", "b"));
    EXPECT_TRUE(moved(LogType::PosixLink, "/src/a", "/src/l"));
    EXPECT_TRUE(moved(LogType::PosixLink, "/src/a", "/src/l"));
    EXPECT_TRUE(moved(LogType::PosixRename, "/src/a", "/src/l"));
    EXPECT_EQ(object("a")->linkCount(), 2U);
    EXPECT_TRUE(moved(LogType::PosixLink, "/src/b", "/src/l"));
    EXPECT_EQ(content("l"), "b");
    EXPECT_TRUE(named(LogType::PosixUnlink, "/src/none"));
    EXPECT_TRUE(named(LogType::PosixRmdir, "/src/none"));
    // These tell of a file that the store has lost.
    EXPECT_FALSE(moved(LogType::PosixLink, "/src/none", "/src/x"));
    EXPECT_FALSE(moved(LogType::PosixRename, "/src/none", "/src/x"));
    EXPECT_EQ(sink_->resyncPaths(), (QSet<QString>{"none", "x"}));
}

TEST_F(PosixReplay, PathsOutsideTheRootAreSwallowed) {
    // The source root is compared by whole elements.
    for (char const* path : {"/etc/a", "/srcfile", "/sr", "relative", ""}) {
        SCOPED_TRACE(path);
        EXPECT_TRUE(create(1, path));
        EXPECT_EQ(sink_->typeOf(1), SinkHandle::Excluded);
        EXPECT_TRUE(write(1, 0, "x"));
        EXPECT_TRUE(close(1));
        EXPECT_TRUE(open(2, path));
        EXPECT_EQ(sink_->typeOf(2), SinkHandle::Excluded);
        EXPECT_TRUE(mkdir(path));
        EXPECT_TRUE(writePath(path, "x"));
        for (auto const type : {LogType::PosixUnlink, LogType::PosixRmdir, LogType::PosixMknod,
                                LogType::PosixSetEa, LogType::PosixRemoveEa, LogType::PosixResync})
            EXPECT_TRUE(named(type, path)) << static_cast<std::uint32_t>(type);
        EXPECT_TRUE(done(LogType::PosixSetAttr, [&](LogBuilder& log) {
            log.text(F::File, path).number(F::Flags, posixAttrMode);
        }));
        EXPECT_TRUE(moved(LogType::PosixSymlink, "target", path));
        EXPECT_TRUE(moved(LogType::PosixLink, "/src/a", path));
    }
    EXPECT_TRUE(sink_->destinationEmpty());
    EXPECT_TRUE(sink_->resyncPaths().isEmpty());

    // An outside file that gets a name inside has never been logged here.
    EXPECT_TRUE(moved(LogType::PosixLink, "/etc/a", "/src/in"));
    EXPECT_EQ(sink_->resyncPaths(), QSet<QString>{"in"});
}

TEST_F(PosixReplay, RenameDependsOnWhichNamesAreInside) {
    Morva::XmlList details;
    NotToBackup::addEntry(details, "*.tmp", false, false);
    ASSERT_TRUE(message(DataSink::NotToBackupDetails, details));
    struct {
        char const* from;
        char const* to;
        bool applied;
        bool leaves;
        char const* wanted; ///< path of a partial resynchronisation
    } const cases[] = {
        {"/src/a", "/src/b", true, true, nullptr},
        {"/src/a", "/etc/b", true, true, nullptr},
        {"/src/a", "/src/b.tmp", true, true, nullptr},
        {"/etc/a", "/src/c", true, false, "c"},
        {"/src/a.tmp", "/src/b", true, false, "b"},
        {"/etc/a", "/etc/b", false, false, nullptr},
        {"/src/a.tmp", "/src/b.tmp", true, false, nullptr},
        {"/src/a.tmp", "/etc/b", true, false, nullptr},
    };
    for (auto const& each : cases) {
        SCOPED_TRACE(std::string(each.from) + " to " + each.to);
        named(LogType::PosixUnlink, "/src/b");
        ASSERT_TRUE(make("/src/a", "a"));
        auto const before = sink_->resyncPaths();
        EXPECT_EQ(moved(LogType::PosixRename, each.from, each.to), each.applied);
        EXPECT_EQ(content("a").has_value(), !each.leaves);
        EXPECT_EQ(content("b").has_value(), each.leaves && std::string_view(each.to) == "/src/b");
        EXPECT_FALSE(object("b.tmp"));
        auto asked = sink_->resyncPaths();
        asked -= before;
        EXPECT_EQ(asked, each.wanted ? QSet<QString>{each.wanted} : QSet<QString>{});
    }
}

TEST_F(PosixReplay, WritesOfAnotherLengthThanTheirDataAreIgnored) {
    ASSERT_TRUE(make("/src/a", "content"));
    ASSERT_TRUE(open(1, "/src/a"));
    said_.clear();
    for (auto const type : {LogType::Write, LogType::PosixWritePath}) {
        EXPECT_TRUE(done(type, [&](LogBuilder& log) {
            log.number(F::Length, 5).bytes(F::Data, Morva::Extent("xx", 2));
            if (type == LogType::Write)
                log.number(F::FileId, 1);
            else
                log.text(F::File, "/src/a");
        }));
    }
    EXPECT_EQ(said_.count("Filter on source node 'machine' logged an invalid write operation"), 2);
    EXPECT_EQ(content("a"), "content");
}

TEST_F(PosixReplay, ExcludedObjectsGoAndLiveOnlyOnesHaveNoPast) {
    ASSERT_TRUE(mkdir("/src/cache"));
    ASSERT_TRUE(make("/src/cache/x", "x"));
    ASSERT_TRUE(make("/src/a.tmp", "a"));
    ASSERT_TRUE(make("/src/a.log", "live"));
    ASSERT_TRUE(make("/src/keep", "k"));
    ASSERT_TRUE(mkdir("/src/dir.tmp"));

    Morva::XmlList details;
    NotToBackup::addEntry(details, "*.tmp", false, false);
    NotToBackup::addEntry(details, "/cache", true, false);
    NotToBackup::addEntry(details, "*.log", false, true);
    ASSERT_TRUE(message(DataSink::NotToBackupDetails, details));
    // What is stored obeys at once.
    EXPECT_FALSE(object("cache"));
    EXPECT_FALSE(object("a.tmp"));
    EXPECT_TRUE(object("keep"));
    EXPECT_EQ(content("a.log"), "live");

    // So does what comes.
    EXPECT_TRUE(create(1, "/src/cache/y"));
    EXPECT_EQ(sink_->typeOf(1), SinkHandle::Excluded);
    EXPECT_TRUE(mkdir("/src/cache"));
    EXPECT_TRUE(make("/src/b.tmp", "b"));
    EXPECT_FALSE(object("cache"));
    EXPECT_FALSE(object("b.tmp"));
    ASSERT_TRUE(make("/src/b.log", "live too"));
    auto const instance = snapshot();
    for (char const* path : {"a.log", "b.log"}) {
        EXPECT_FALSE(object(path)->version().versioned()) << path;
        EXPECT_TRUE(content(path)) << path;
    }
    EXPECT_EQ(contentAt("keep", instance), "k");

    // A pattern for files means no directory of such a name.
    ASSERT_TRUE(object("dir.tmp"));
    EXPECT_TRUE(done(LogType::PosixSetAttr, [](LogBuilder& log) {
        log.text(F::File, "/src/dir.tmp").number(F::Mode, 0700).number(F::Flags, posixAttrMode);
    }));
    EXPECT_EQ(security("dir.tmp")->mode, S_IFDIR | 0700U);
}

TEST_F(PosixReplay, NumbersMeanFilesUntilTheyAreClosed) {
    ASSERT_TRUE(create(1, "/src/a"));
    EXPECT_EQ(sink_->typeOf(1), SinkHandle::Valid);
    ASSERT_TRUE(moved(LogType::PosixRename, "/src/a", "/src/b"));
    EXPECT_TRUE(write(1, 0, "by number"));
    EXPECT_TRUE(done(LogType::PosixTruncate,
                     [](LogBuilder& log) { log.number(F::FileId, 1).number(F::Size, 2); }));
    EXPECT_EQ(content("b"), "by");
    EXPECT_TRUE(close(1));
    EXPECT_EQ(sink_->typeOf(1), 0U);
    EXPECT_TRUE(close(1)); // ignored

    // A number of no known open is unknown, and what is logged for it is passed over.
    EXPECT_TRUE(write(2, 0, "lost"));
    EXPECT_EQ(sink_->typeOf(2), SinkHandle::Unknown);
    EXPECT_TRUE(done(LogType::PosixReopen, [](LogBuilder& log) { log.number(F::FileId, 3); }));
    EXPECT_EQ(sink_->typeOf(3), SinkHandle::Unknown);
    // So is a file that the store hasn't got, and it is asked for.
    EXPECT_TRUE(open(4, "/src/none"));
    EXPECT_EQ(sink_->typeOf(4), SinkHandle::Unknown);
    EXPECT_EQ(sink_->resyncPaths(), QSet<QString>{"none"});

    // The number of no file is never entered.
    EXPECT_TRUE(create(0xFFFFFFFF, "/src/c"));
    EXPECT_TRUE(object("c"));
    EXPECT_TRUE(write(0xFFFFFFFF, 0, "x"));
    EXPECT_EQ(sink_->typeOf(0xFFFFFFFF), 0U);
    EXPECT_EQ(content("c"), QByteArray());
}

TEST_F(PosixReplay, ClosedNumbersComeBackWhenTheyAreUsed) {
    ASSERT_TRUE(create(1, "/src/a"));
    ASSERT_TRUE(create(2, "/src/b"));
    ASSERT_TRUE(create(3, "/src/c"));
    ASSERT_TRUE(message(DataSink::StartOfSnapshot));
    EXPECT_EQ(sink_->openHandles().size(), 0);
    EXPECT_EQ(sink_->closedHandles().size(), 3);
    EXPECT_TRUE(write(1, 0, "still open"));
    EXPECT_EQ(content("a"), "still open");
    EXPECT_EQ(sink_->typeOf(1), SinkHandle::Valid);
    EXPECT_TRUE(close(2));
    EXPECT_EQ(sink_->closedHandles().size(), 1);

    // A number that was given away again doesn't come back as what it was before.
    ASSERT_TRUE(create(3, "/src/d"));
    ASSERT_TRUE(close(3));
    EXPECT_TRUE(write(3, 0, "late"));
    EXPECT_EQ(content("c"), QByteArray());
    EXPECT_EQ(sink_->closedHandles().size(), 0);
}

TEST_F(PosixReplay, AttributesChangeAsTheirFlagsTell) {
    ASSERT_TRUE(make("/src/a", "a"));
    struct {
        std::uint32_t flags;
        PosixSecurity wanted;
    } const cases[] = {
        {posixAttrAccessTime, {S_IFREG | 0644, 0, 0, 0, {}}},
        {posixAttrUid, {S_IFREG | 0644, 10, 0, 0, {}}},
        {posixAttrGid, {S_IFREG | 0644, 10, 20, 0, {}}},
        {posixAttrMode, {S_IFREG | 04755, 10, 20, 0, {}}},
    };
    for (auto const& each : cases) {
        EXPECT_TRUE(done(LogType::PosixSetAttr, [&](LogBuilder& log) {
            log.text(F::File, "/src/a").number(F::Mode, S_IFDIR | 04755).number(F::Uid, 10);
            log.number(F::Gid, 20).number(F::Flags, each.flags);
        }));
        EXPECT_EQ(security("a"), each.wanted) << each.flags;
    }
    EXPECT_EQ(object("a")->owner(), "10");
    EXPECT_EQ(object("a")->fileNode()->attributes(), S_IFREG | 04755U);
    EXPECT_TRUE(done(LogType::PosixSetAttr, [](LogBuilder& log) {
        log.text(F::File, "/src/a").number(F::ModificationTime, 77).number(F::ChangeTime, 88);
        log.number(F::Flags, posixAttrModificationTime);
    }));
    EXPECT_EQ(object("a")->times().modifiedSource, 77U);
    EXPECT_NE(object("a")->times().createdSource, 88U);

    auto const attribute = [this](LogType type, char const* name, char const* value) {
        return done(type, [&](LogBuilder& log) {
            log.text(F::File, "/src/a").text(F::EaName, name);
            if (value)
                log.bytes(F::Data, Morva::Extent(value, static_cast<std::uint32_t>(strlen(value))));
        });
    };
    EXPECT_TRUE(attribute(LogType::PosixSetEa, "user.x", "1"));
    EXPECT_TRUE(attribute(LogType::PosixSetEa, "user.y", "2"));
    EXPECT_TRUE(attribute(LogType::PosixRemoveEa, "user.x", nullptr));
    EXPECT_TRUE(attribute(LogType::PosixRemoveEa, "user.x", nullptr));
    auto const record = content("a", PosixStream::attributes);
    ASSERT_TRUE(record);
    EXPECT_EQ(PosixAttributes::decode(Morva::Extent(*record))->all(),
              (PosixAttributes::Map{{"user.y", "2"}}));
    EXPECT_TRUE(attribute(LogType::PosixRemoveEa, "user.y", nullptr));
    EXPECT_FALSE(content("a", PosixStream::attributes));
}

/// Logs that bring exact times, and what the store makes of them.
class PosixTimes : public PosixReplay {
protected:
    static constexpr std::uint32_t allTimes =
        posixAttrAccessTime | posixAttrModificationTime | posixAttrChangeTime;

    /// The log's words are those of `times`; without `exact` they are all that it brings.
    bool setTimes(char const* path, FileTimes const& times, std::uint32_t flags = allTimes,
                  bool exact = true) {
        std::uint8_t packed[FileTimes::packedSize];
        times.pack(packed);
        return done(LogType::PosixSetAttr, [&](LogBuilder& log) {
            log.text(F::File, path).number(F::Flags, flags);
            log.number(F::AccessTime, times.access.word());
            log.number(F::ModificationTime, times.modification.word());
            log.number(F::ChangeTime, times.change.word());
            if (exact)
                log.bytes(F::ExactTimes, {static_cast<void const*>(packed), sizeof packed});
        });
    }
    /// What counts: the modification and the change time as a reader sees them.
    [[nodiscard]] FileTime modified(char const* path) {
        return security(path)->times.modification.resolved(object(path)->times().modifiedSource);
    }
    [[nodiscard]] FileTime changed(char const* path) {
        return security(path)->times.change.resolved(object(path)->times().createdSource);
    }
};

TEST_F(PosixTimes, AreKeptToTheNanosecond) {
    constexpr std::int64_t seconds[] = {std::numeric_limits<std::int64_t>::min(),
                                        -1,
                                        0,
                                        1,
                                        std::int64_t{1} << 31,
                                        (std::int64_t{1} << 32) - 1,
                                        std::int64_t{1} << 32,
                                        std::numeric_limits<std::int64_t>::max()};
    ASSERT_TRUE(make("/src/a", "a"));
    for (auto const second : seconds)
        for (std::uint32_t const nanosecond : {0, 1, 999'999'999}) {
            FileTime const time{second, nanosecond};
            SCOPED_TRACE(time.text());
            ASSERT_TRUE(setTimes("/src/a", {time, time, time}));
            EXPECT_EQ(object("a")->times().modifiedSource, time.word());
            EXPECT_EQ(object("a")->times().createdSource, time.word());
            EXPECT_EQ(modified("a"), time);
            EXPECT_EQ(changed("a"), time);
            EXPECT_EQ(security("a")->times.access, time);
        }
    EXPECT_EQ(security("a")->mode, S_IFREG | 0644U);
}

TEST_F(PosixTimes, AWordThatIsSetAloneMeansWholeSeconds) {
    FileTimes const exact{{5, 1}, {1000, 2}, {2000, 3}};
    auto const reset = [&] { return setTimes("/src/a", exact); };
    ASSERT_TRUE(make("/src/a", "a"));

    ASSERT_TRUE(reset());
    ASSERT_TRUE(setTimes("/src/a", {{}, {1001, 0}, {}}, posixAttrModificationTime, false));
    EXPECT_EQ(modified("a"), FileTime::wholeSeconds(1001));
    EXPECT_EQ(changed("a"), exact.change);

    // The same second again, too.
    ASSERT_TRUE(reset());
    ASSERT_TRUE(setTimes("/src/a", exact, allTimes, false));
    EXPECT_EQ(modified("a"), FileTime::wholeSeconds(1000));
    EXPECT_EQ(changed("a"), FileTime::wholeSeconds(2000));

    ASSERT_TRUE(reset());
    ASSERT_TRUE(writePath("/src/a", "later"));
    EXPECT_EQ(modified("a"), FileTime::wholeSeconds(time_));

    // A log whose exact time isn't that of its word is believed by its word.
    ASSERT_TRUE(reset());
    std::uint8_t packed[FileTimes::packedSize]; // outlives the lambda, as the log needs it
    FileTimes{{}, {7, 7}, {8, FileTime::nanosecondsPerSecond}}.pack(packed);
    ASSERT_TRUE(done(LogType::PosixSetAttr, [&](LogBuilder& log) {
        log.text(F::File, "/src/a").number(F::Flags, allTimes);
        log.number(F::ModificationTime, 1000).number(F::ChangeTime, 8);
        log.bytes(F::ExactTimes, {static_cast<void const*>(packed), sizeof packed});
    }));
    EXPECT_EQ(modified("a"), FileTime::wholeSeconds(1000));
    EXPECT_EQ(changed("a"), FileTime::wholeSeconds(8));
}

TEST_F(PosixTimes, StayWithWhatElseTheRecordHas) {
    FileTimes const exact{{5, 1}, {1000, 2}, {2000, 3}};
    ASSERT_TRUE(make("/src/a", "a"));
    ASSERT_TRUE(setTimes("/src/a", exact));
    ASSERT_TRUE(done(LogType::PosixSetAttr, [](LogBuilder& log) {
        log.text(F::File, "/src/a").number(F::Mode, 0600).number(F::Flags, posixAttrMode);
    }));
    EXPECT_EQ(security("a")->mode, S_IFREG | 0600U);
    EXPECT_EQ(modified("a"), exact.modification);

    // A directory that was made because a path needed it gets no owner by a time.
    ASSERT_TRUE(create(1, "/src/new/b"));
    ASSERT_TRUE(setTimes("/src/new", exact));
    EXPECT_FALSE(security("new"));
    EXPECT_EQ(object("new")->times().modifiedSource, 1000U);
}

TEST_F(PosixTimes, OnesThatAreThereAlreadyCostNoWrite) {
    FileTimes exact{{5, 1}, {1000, 2}, {2000, 3}};
    auto const makeDirectory = [&] {
        std::uint8_t packed[FileTimes::packedSize];
        exact.pack(packed);
        return done(LogType::PosixMkdir, [&](LogBuilder& log) {
            log.text(F::File, "/src/d").number(F::Mode, 0755);
            log.bytes(F::ExactTimes, {static_cast<void const*>(packed), sizeof packed});
        });
    };
    ASSERT_TRUE(makeDirectory());
    EXPECT_EQ(security("d")->times, exact);
    ASSERT_TRUE(setTimes("/src/d", exact));
    EXPECT_EQ(modified("d"), exact.modification);
    // With a snapshot that sees the directory, any write would copy its node.
    ASSERT_TRUE(store_->snapshots().userSnapshot(0, 1, QString()));
    auto const nodes = usedNodes();
    exact.access = {6, 7};
    ASSERT_TRUE(makeDirectory());
    ASSERT_TRUE(setTimes("/src/d", exact));
    ASSERT_TRUE(mkdir("/src/d"));
    EXPECT_EQ(usedNodes(), nodes);
    EXPECT_EQ(modified("d"), exact.modification);
    exact.modification.nanoseconds = 4;
    ASSERT_TRUE(setTimes("/src/d", exact));
    EXPECT_EQ(usedNodes(), nodes + 1);
    EXPECT_EQ(security("d")->times, exact);
}

TEST_F(PosixReplay, LogsOfOtherSourcesDoNothing) {
    for (auto const type : {LogType::Read, LogType::PosixGetEa, LogType::PosixGetAttr,
                            LogType::WinCreate, LogType::WinUnlink, LogType::ExchangeDeleteObject})
        EXPECT_TRUE(done(type, [](LogBuilder&) {})) << static_cast<std::uint32_t>(type);
    EXPECT_TRUE(sink_->destinationEmpty());
}

TEST_F(PosixReplay, FilterMayAskForAFileToBeResynchronised) {
    EXPECT_TRUE(named(LogType::PosixResync, "/src/d/a"));
    EXPECT_EQ(sink_->resyncPaths(), QSet<QString>{"d/a"});
    EXPECT_TRUE(said_.contains("Filter on source node 'machine' has requested a resynchronization "
                               "for file /src/d/a"));
}

TEST_F(PosixReplay, StorageFailureFailsTheLog) {
    ASSERT_TRUE(make("/src/a", "before"));
    ASSERT_TRUE(open(1, "/src/a"));
    files_.diskBudget(0);
    EXPECT_FALSE(write(1, 0, QByteArray(3 << 20, 'x')));
    EXPECT_EQ(sink_->resyncPaths(), QSet<QString>{"a"});
    EXPECT_TRUE(said_.contains("A resynchronization of machine to home is required, "
                               "File operation failed"));
    files_.heal();
    EXPECT_TRUE(writePath("/src/a", "after!"));
    EXPECT_EQ(content("a")->first(6), "after!");
}

} // namespace
} // namespace Replication
