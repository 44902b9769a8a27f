#include "replication/repository/replay/RepositoryWindows.h"

#include "replication/repository/replay/ReplayFixture.h"
#include "replication/repository/replay/SinkFactory.h"

namespace Replication {
namespace {

using F = LogField;

/// A store of the source directory C:\Src. What the model of a Windows source does at random isn't
/// done again here.
class WindowsReplay : public ReplayFixture<RepositoryWindows> {
protected:
    WindowsReplay() : ReplayFixture(SourceKind::Windows, QStringLiteral("C:\\Src\\")) { start(); }

    /// A path as it stands, without a stream.
    static LogPath path(std::string_view text) {
        LogPath result;
        result.text = text;
        result.streamOffset = static_cast<std::uint32_t>(text.size());
        return result;
    }
    bool open(std::uint32_t fileId, LogPath const& path, bool exists,
              WinDisposition disposition = WinDisposition::OpenIf,
              QByteArray const& security = {}) {
        return done(LogType::WinCreate, [&](LogBuilder& log) {
            log.number(F::FileId, fileId).path(F::File, path).number(F::Exists, exists);
            log.number(F::Options, static_cast<std::uint32_t>(disposition) << winDispositionShift);
            log.bytes(F::Security, Morva::Extent(security));
        });
    }
    bool write(std::uint32_t fileId, QByteArray const& bytes, int lie = 0) {
        return done(LogType::Write, [&](LogBuilder& log) {
            log.number(F::FileId, fileId).bytes(F::Data, Morva::Extent(bytes));
            log.number(F::Length, static_cast<std::uint64_t>(bytes.size() + lie));
        });
    }
    bool rename(std::uint32_t fileId, std::string_view to, std::uint32_t rules = 2) {
        return done(LogType::WinRename, [&](LogBuilder& log) {
            log.number(F::FileId, fileId).path(F::To, path(to)).number(F::TargetRuleCount, rules);
        });
    }
};

TEST_F(WindowsReplay, PathsBecomeNamesAndStreams) {
    auto const lengthy = "C:\\Src\\" + std::string(2034, 'x');
    auto const deep = "C:\\Src" + [] {
        std::string text;
        while (text.size() < 33000)
            text += "\\a";
        return text;
    }();
    struct {
        std::string_view text;
        std::uint32_t streamOffset;
        std::string_view preserved;
        std::uint32_t preservedOffset;
        char const* name; ///< null: nothing is made, and the number is unknown
        char const* stream = "Data";
    } const cases[] = {
        {"c:\\sRC\\DIR\\FILE", 15, "File", 4, "dir/File"},
        {"C:/Src/other", 12, "", 0, "other"},
        {"C:\\Src\\A", 8, "a::$DATA", 1, "a"},
        {"C:\\Src\\B:S", 8, "b:s:$data", 1, "b", ":s"},
        {"C:\\Src\\C", 8, "c:$data", 1, "c"},
        {"C:\\Src\\D:", 9, "d:s", 2, "d", ":s"}, // the offsets lie behind the colon
        {"C:\\Src\\D2::$DATA", 10, "d2::$data", 3, "d2"},
        {"C:\\Src\\E:s:$Data", 8, "", 0, "E", ":s"},
        {"C:\\Src\\F:data", 8, "", 0, "F", ":data"}, // no stream of the store's own
        {"C:\\Src\\G\xff", 9, "g\xff", 2, "g\xff"},
        {"C:\\Srcs\\h", 9, "", 0, nullptr},
        {"D:\\Src\\h", 8, "", 0, nullptr},
        {"C:\\Src\\h", 0, "", 0, nullptr},
        {"", 0, "", 0, nullptr},
        {"C:\\Src\\h", 8, "..\\..\\h", 7, nullptr},
        {"C:\\Src\\..\\h", 11, "", 0, nullptr},
        {"C:\\Src\\h:a\\b", 8, "", 0, nullptr},
        {lengthy, static_cast<std::uint32_t>(lengthy.size()), "", 0, nullptr},
        {deep, static_cast<std::uint32_t>(deep.size()), "", 0, nullptr},
    };
    std::uint32_t fileId = 0;
    for (auto const& each : cases) {
        SCOPED_TRACE(each.text.substr(0, 40));
        LogPath const path{false,          each.text,           0, each.streamOffset,
                           each.preserved, each.preservedOffset};
        EXPECT_TRUE(open(++fileId, path, false));
        EXPECT_TRUE(write(fileId, "content"));
        EXPECT_EQ(sink_->typeOf(fileId), each.name ? SinkHandle::Valid : SinkHandle::Unknown);
        if (!each.name)
            continue;
        auto const parts = Morva::decodePosixText(each.name).split(u'/');
        auto const located = value(store_->directories().locate(parts, PathMode::DoNotBuildPath));
        ASSERT_TRUE(located.found) << each.name;
        auto const node = value(store_->activeHandles().get(located.key.fileId()))->fileNode();
        EXPECT_EQ(value(node->size(QString::fromUtf8(each.stream))), 7U);
    }
    EXPECT_TRUE(sink_->resyncPaths().isEmpty());
    EXPECT_FALSE(object("h"));
}

TEST_F(WindowsReplay, AFileThatTheStoreHasLostIsAskedForAndNamed) {
    EXPECT_TRUE(open(1, path("C:\\Src\\Dir\\none"), true));
    EXPECT_TRUE(rename(2, "C:\\Src\\in"));
    EXPECT_EQ(said_, (QStringList{"Partial resynchronization of machine to home required Dir/none",
                                  "Partial resynchronization of machine to home required in"}));
    EXPECT_EQ(sink_->resyncPaths(), (QSet<QString>{"Dir/none", "in"}));
    // A snapshot of the source takes what fails upon itself.
    said_.clear();
    sink_->state(DataSink::eRunningDuringSnapshot);
    EXPECT_TRUE(open(3, path("C:\\Src\\lost"), true));
    EXPECT_EQ(said_, QStringList());
    EXPECT_EQ(sink_->typeOf(3), SinkHandle::Unknown);
}

TEST_F(WindowsReplay, DuringASnapshotWhatIsThereStays) {
    ASSERT_TRUE(open(1, path("C:\\Src\\a"), false));
    ASSERT_TRUE(write(1, "content"));
    sink_->state(DataSink::eRunningDuringSnapshot);
    EXPECT_TRUE(open(2, path("C:\\Src\\A"), false));
    EXPECT_TRUE(write(2, "C"));
    EXPECT_EQ(content("a"), "Content");
    sink_->state(DataSink::eRunning);
    EXPECT_TRUE(open(3, path("C:\\Src\\A"), false));
    EXPECT_TRUE(write(1, "late")); // to the file that is gone
    EXPECT_EQ(content("a"), "");
}

TEST_F(WindowsReplay, RulesOfTheNewNameVersionARenamedFile) {
    ASSERT_TRUE(open(1, path("C:\\Src\\a"), false));
    EXPECT_EQ(object("a")->version().rules, std::vector<std::uint32_t>{1});
    ASSERT_TRUE(rename(1, "C:\\Src\\b", 1));
    EXPECT_EQ(object("b")->version().rules, std::vector<std::uint32_t>{1});
    ASSERT_TRUE(rename(1, "C:\\Src\\c", 0));
    EXPECT_FALSE(object("c")->version().versioned());
}

TEST_F(WindowsReplay, ExclusionsTakeFilesFromUnderTheirNumbers) {
    ASSERT_TRUE(open(1, path("C:\\Src\\a.tmp"), false));
    ASSERT_TRUE(open(2, path("C:\\Src\\a.live"), false));
    Morva::XmlList details;
    NotToBackup::addEntry(details, "*.TMP", false, false);
    NotToBackup::addEntry(details, "*.Live", false, true);
    auto const bytes = details.toBinary();
    ASSERT_TRUE(done(LogType::Message, [&](LogBuilder& log) {
        log.number(F::MessageType, DataSink::NotToBackupDetails);
        log.bytes(F::Data, Morva::Extent(bytes));
    }));
    EXPECT_EQ(sink_->typeOf(1), SinkHandle::Excluded);
    EXPECT_EQ(sink_->typeOf(2), SinkHandle::Valid);
    EXPECT_FALSE(object("a.tmp"));
    EXPECT_TRUE(rename(1, "C:\\Src\\a.txt"));
    EXPECT_EQ(sink_->resyncPaths(), QSet<QString>{"a.txt"});
    // The exclusions of files don't hold for a directory, wherever it comes from.
    ASSERT_TRUE(done(LogType::WinCreate, [](LogBuilder& log) {
        log.flags(logFlagDirectory).number(F::FileId, 4).path(F::File, path("D:\\dir"));
    }));
    EXPECT_TRUE(rename(4, "C:\\Src\\dir.tmp"));
    EXPECT_TRUE(sink_->resyncPaths().contains("dir.tmp"));
    // A live-only file is stored, without versions.
    ASSERT_TRUE(open(3, path("C:\\Src\\b.live"), false));
    EXPECT_FALSE(object("b.live")->version().versioned());
    EXPECT_TRUE(object("b.live")->fileNode()->liveOnly());
}

TEST_F(WindowsReplay, DamagedValuesCostTheirPathAndNothingElse) {
    QByteArray const torn = QByteArray::fromHex("0100048014000000");
    EXPECT_TRUE(open(1, path("C:\\Src\\a"), false, WinDisposition::Create, torn));
    EXPECT_EQ(sink_->typeOf(1), SinkHandle::Valid);
    EXPECT_FALSE(object("a")->fileNode()->exists(securityStreamName));
    EXPECT_EQ(sink_->resyncPaths(), QSet<QString>{"a"});
    EXPECT_TRUE(write(1, "xx", 3));
    EXPECT_TRUE(
        said_.contains("Filter on source node 'machine' logged an invalid write operation"));
    EXPECT_EQ(content("a"), "");
    // These alone may fail: they name no file that could be asked for.
    EXPECT_FALSE(
        done(LogType::WinWritePath, [&](LogBuilder& log) { log.path(F::File, path("D:\\x")); }));
    EXPECT_FALSE(sink_->resyncPaths().contains("x"));
    ASSERT_TRUE(open(2, path("C:\\Src"), true));
    EXPECT_FALSE(done(LogType::WinUnlink, [](LogBuilder& log) { log.number(F::FileId, 2); }));
}

TEST_F(WindowsReplay, LogsThatChangeNothingAndForeignOnesAreDone) {
    for (auto const& shape : logShapes()) {
        if (shape.type < LogType::Close || shape.type == LogType::WinWritePath)
            continue;
        EXPECT_TRUE(done(shape.type, [](LogBuilder&) {})) << shape.name;
    }
    EXPECT_TRUE(done(static_cast<LogType>(322), [](LogBuilder&) {}));
    EXPECT_TRUE(sink_->destinationEmpty());
}

TEST_F(WindowsReplay, StorageFailureFailsTheLog) {
    ASSERT_TRUE(open(1, path("C:\\Src\\a"), false));
    files_.diskBudget(0);
    EXPECT_FALSE(write(1, QByteArray(3 << 20, 'x')));
    EXPECT_EQ(sink_->resyncPaths(), QSet<QString>{"a"});
    files_.heal();
    EXPECT_TRUE(write(1, "after"));
}

TEST(SourceKinds, FollowFromTheRules) {
    QTemporaryDir root;
    ASSERT_TRUE(Morva::FixedPath::setRoot(root.path()));
    QList<SourceRules> sources;
    for (auto const kind : {SourceKind::Posix, SourceKind::Windows, SourceKind::Exchange}) {
        SourceRules source;
        source.kind = kind;
        source.replayId = source.firstRule = static_cast<std::uint32_t>(sources.size() + 1);
        source.storeName = QString::number(source.replayId);
        sources += source;
    }
    auto const files = RuleFiles::make(sources);
    ASSERT_TRUE(files && files->write(1));
    DisRules const rules(1);
    for (auto const& source : sources)
        EXPECT_EQ(sourceKind(rules, source.replayId), source.kind);
    EXPECT_FALSE(sourceKind(rules, 9));
    Morva::FixedPath::setRoot({});
}

} // namespace
} // namespace Replication
