// What a sink had in memory is found again, whatever ended the process.

#include "replication/repository/replay/PosixReplayFixture.h"
#include "replication/repository/replay/RepositoryExchange.h"
#include "replication/repository/replay/RepositoryWindows.h"
#include "replication/repository/store/Event.h"
#include "replication/repository/store/RetireList.h"

#include <QFile>
#include <QFileInfo>

#include <string>

namespace Replication {
namespace {

class PosixState : public PosixReplayFixture, public testing::WithParamInterface<bool> {
protected:
    [[nodiscard]] static End end() { return GetParam() ? End::Stop : End::Kill; }
    [[nodiscard]] static QString statePath() { return Store::directoryOf(storeId) + "/state"; }
    static void damage(qint64 at) {
        QFile file(statePath());
        ASSERT_TRUE(file.open(QIODevice::ReadWrite) && file.seek(at));
        char byte = 0;
        ASSERT_TRUE(file.getChar(&byte) && file.seek(at) && file.putChar(byte ^ 1));
    }
};

INSTANTIATE_TEST_SUITE_P(Ends, PosixState, testing::Bool(),
                         [](auto const& info) { return info.param ? "Stop" : "Kill"; });

TEST_P(PosixState, LogsOnFilesThatWereOpenGoOn) {
    ASSERT_TRUE(make("/src/named", "named"));
    ASSERT_TRUE(open(1, "/src/named"));
    auto const nodes = usedNodes();
    ASSERT_TRUE(create(2, "/src/removed"));
    ASSERT_TRUE(write(2, 0, QByteArray(9000, 'r')));
    ASSERT_TRUE(named(LogType::PosixUnlink, "/src/removed"));
    // One that a snapshot has, and that gets a copy of its own after it.
    ASSERT_TRUE(make("/src/seen", "seen"));
    ASSERT_TRUE(open(3, "/src/seen"));
    snapshot();
    ASSERT_TRUE(named(LogType::PosixUnlink, "/src/seen"));
    ASSERT_TRUE(write(3, 0, "S"));
    ASSERT_TRUE(create(4, "/etc/outside"));
    auto const contentOf = [this](std::uint32_t id) {
        auto const handle = std::static_pointer_cast<SinkHandle>(sink_->openHandles().value(id));
        QByteArray bytes(static_cast<qsizetype>(handle->streamHandle->length()), '\0');
        (void)handle->streamHandle->read(0, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
        return bytes;
    };
    for (int round = 0; round < 2; ++round) {
        restart(end());
        ASSERT_TRUE(moved(LogType::PosixRename, round ? "/src/moved" : "/src/named",
                          round ? "/src/named" : "/src/moved"));
        EXPECT_TRUE(write(1, 5 + static_cast<std::uint64_t>(round), "!"));
        EXPECT_TRUE(write(2, 9000 + static_cast<std::uint64_t>(round), "!"));
        EXPECT_TRUE(write(3, 4 + static_cast<std::uint64_t>(round), "!"));
        EXPECT_TRUE(write(4, 0, "outside"));
    }
    EXPECT_EQ(content("named"), "named!!");
    EXPECT_EQ(contentOf(2), QByteArray(9000, 'r') + "!!");
    EXPECT_EQ(contentOf(3), "Seen!!");
    EXPECT_EQ(contentAt("seen", store_->currentInstance()), "seen");
    EXPECT_EQ(sink_->unknownHandleLogs(), 0U);
    EXPECT_FALSE(sink_->needsResync());
    EXPECT_TRUE(sink_->resyncPaths().isEmpty());

    // What only they held goes with them.
    for (std::uint32_t id = 1; id <= 4; ++id)
        EXPECT_TRUE(close(id));
    EXPECT_TRUE(checkpoint());
    EXPECT_EQ(usedNodes(), nodes + 3) << "what the snapshot has: the root and two files";
    restart(end());
    EXPECT_EQ(usedNodes(), nodes + 3);
    EXPECT_EQ(sink_->openHandles().size(), 0);
}

TEST_P(PosixState, RestOfTheStateIsTakenUpToo) {
    ASSERT_TRUE(make("/src/a", "a"));
    ASSERT_TRUE(open(1, "/src/a"));
    ASSERT_TRUE(message(DataSink::StartOfSnapshot)); // sets the handle aside
    ASSERT_TRUE(named(LogType::PosixResync, "/src/gone/\xff"));
    auto const position = sink_->position();
    restart(end());
    EXPECT_EQ(sink_->position(), position);
    EXPECT_EQ(sink_->closedHandles().size(), 1);
    EXPECT_EQ(sink_->resyncPaths().size(), 1);
    // A log that comes twice.
    --sequence_;
    EXPECT_EQ(apply(LogType::PosixUnlink, [](LogBuilder& log) { log.text(F::File, "/src/a"); }),
              Outcome::AlreadyReplicated);
    EXPECT_TRUE(write(1, 0, "A"));
    EXPECT_EQ(content("a"), "A");
    // The time of those that are set aside goes on.
    ASSERT_TRUE(message(DataSink::StartOfSnapshot));
    restart(end());
    time_ += 4000;
    ASSERT_TRUE(named(LogType::PosixRmdir, "/src/none"));
    EXPECT_EQ(sink_->closedHandles().size(), 0);
}

TEST_P(PosixState, TablesThatAreMissingOrDamagedAreDroppedAndAResyncIsRequired) {
    ASSERT_TRUE(make("/src/a", "a"));
    ASSERT_TRUE(open(1, "/src/a"));
    for (auto const& spoil : std::vector<std::function<void()>>{
             [] { ASSERT_TRUE(QFile::remove(statePath())); }, [] { damage(8); },
             [] { damage(QFileInfo(statePath()).size() - 3); },
             [] { ASSERT_TRUE(QFile::resize(statePath(), 60)); }}) {
        EXPECT_TRUE(open(1, "/src/a"));
        if (end() == End::Stop) {
            EXPECT_TRUE(sink_->handleShutdown());
        }
        ASSERT_TRUE(checkpoint());
        sink_.reset();
        store_.reset();
        closePool();
        spoil();
        openPool();
        auto opened = Store::open(storeId, false);
        ASSERT_TRUE(opened.ok());
        store_ = *std::move(opened);
        said_.clear();
        start();
        EXPECT_TRUE(said_.contains("A resynchronization of machine to home is required, The saved "
                                   "open files are missing or damaged"));
        EXPECT_EQ(sink_->openHandles().size(), 0);
        // The number means nothing any more, and that is told.
        auto const before = sink_->unknownHandleLogs();
        EXPECT_TRUE(write(1, 0, "lost"));
        EXPECT_EQ(sink_->unknownHandleLogs(), before + 1);
        EXPECT_TRUE(sink_->needsResync());
        EXPECT_EQ(content("a"), "a");
        sink_->needsResync(false);
    }
}

TEST_P(PosixState, LogsOnNumbersThatWereNeverOpenedAreToldAndBounded) {
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(write(7, 0, "x"));
    EXPECT_TRUE(close(8));
    EXPECT_EQ(sink_->unknownHandleLogs(), 3U);
    EXPECT_TRUE(sink_->needsResync());
    EXPECT_EQ(said_.filter("isn't known to be open, number 7").size(), 1);
    // One whose path could not be opened asks for that path.
    EXPECT_TRUE(open(9, "/src/none"));
    restart(end());
    EXPECT_TRUE(write(9, 0, "x"));
    EXPECT_TRUE(sink_->resyncPaths().contains("none"));
    EXPECT_EQ(sink_->unknownHandleLogs(), 1U);
    EXPECT_FALSE(sink_->needsResync());
    auto const lines = said_.size();
    for (std::uint32_t id = 100; id < 12000; ++id)
        EXPECT_TRUE(write(id, 0, "x"));
    EXPECT_EQ(sink_->unknownHandleLogs(), 11901U);
    EXPECT_LE(sink_->openHandles().size(), 10002);
    EXPECT_LE(said_.size(), lines + 101);
}

TEST_P(PosixState, SinkThatEndsWithoutSavingCanNotBeCommitted) {
    ASSERT_TRUE(make("/src/a", "a"));
    sink_.reset();
    EXPECT_FALSE(store_->flush());
    start();
    EXPECT_TRUE(store_->flush());
}

class PosixStateRecords : public PosixReplayFixture {
protected:
    [[nodiscard]] QByteArray record(SavedRecords::Section section, QByteArray const& key) {
        auto const* const body = store_->saved().records().find(section, Morva::Extent(key));
        return body ? body->toHex() : QByteArray("none");
    }
};

TEST_F(PosixStateRecords, HaveTheBytesOfTheirDescription) {
    sequence_ = 0x10;
    ASSERT_TRUE(create(5, "/etc/x"));
    ASSERT_TRUE(open(6, "/src/d/n"));
    time_ = 0x2000;
    ASSERT_TRUE(named(LogType::PosixRmdir, "/src/none"));
    ASSERT_TRUE(checkpoint());
    using Section = SavedRecords::Section;
    EXPECT_EQ(record(Section::Header, {}), "03000000"
                                           "01200000"
                                           "010101"
                                           "00"
                                           "00000000");
    EXPECT_EQ(record(Section::Sink, {}), "1300000000000000"
                                         "00000000");
    auto const none = QByteArray(8, '\0').toHex();
    auto const text = [](char16_t const* value) {
        auto const bytes =
            QByteArray(reinterpret_cast<char const*>(value),
                       static_cast<qsizetype>(std::char_traits<char16_t>::length(value) * 2));
        QByteArray size(4, '\0');
        size[0] = static_cast<char>(bytes.size());
        return (size + bytes).toHex();
    };
    // Number, file, link, no file, stream, its name, node, names, type, writes, state, flags, name.
    EXPECT_EQ(record(Section::Handle, QByteArray::fromHex("05000000")),
              "0500000000000000" + none + none + "0000000000000000" + none + "00000000" +
                  "00000000" + none +
                  "00000000"
                  "00000000"
                  "00000000" +
                  "02000000"
                  "00000000"
                  "02000000"
                  "00000000"
                  "00000000");
    EXPECT_EQ(record(Section::Handle, QByteArray::fromHex("06000000")),
              "0600000000000000" + none + none + "0000000000000000" + none + "00000000" +
                  "00000000" + none + text(u"n") + "0000" + text(u"d") + "0000" + text(u"n") +
                  "0000" +
                  "03000000"
                  "00000000"
                  "02000000"
                  "00000040"
                  "00000000");
    EXPECT_EQ(record(Section::ResyncPath, QByteArray::fromHex("64002f006e00")), "");
}

TEST_F(PosixStateRecords, VersionsThatWaitForRetirementAreSentOnceBeyondTheStop) {
    ASSERT_TRUE(create(1, "/src/a"));
    ASSERT_TRUE(write(1, 0, "a"));
    ASSERT_TRUE(close(1));
    ASSERT_TRUE(create(2, "/src/b"));
    EXPECT_EQ(store_->retired().size(), 1U);
    restart(End::Stop);
    EXPECT_EQ(channel_->count(EventRecord::VersionEnded), 0U);
    EXPECT_EQ(store_->retired().size(), 1U);
    // The one that was open is versioned as before, too.
    ASSERT_TRUE(write(2, 0, "b"));
    ASSERT_TRUE(close(2));
    EXPECT_EQ(store_->retired().size(), 2U);
    time_ += 10;
    ASSERT_TRUE(named(LogType::PosixRmdir, "/src/none"));
    EXPECT_EQ(channel_->count(EventRecord::VersionEnded), 2U);
    restart(End::Stop);
    time_ += 10;
    ASSERT_TRUE(named(LogType::PosixRmdir, "/src/none"));
    EXPECT_EQ(channel_->count(EventRecord::VersionEnded), 2U);
}

class WindowsState : public ReplayFixture<RepositoryWindows>,
                     public testing::WithParamInterface<bool> {
protected:
    WindowsState() : ReplayFixture(SourceKind::Windows, QStringLiteral("C:\\Src\\")) { start(); }
    [[nodiscard]] static End end() { return GetParam() ? End::Stop : End::Kill; }
    bool open(std::uint32_t fileId, std::string_view text, bool exists = false) {
        LogPath path;
        path.text = text;
        path.streamOffset = static_cast<std::uint32_t>(text.find(':', 3));
        if (path.streamOffset > text.size())
            path.streamOffset = static_cast<std::uint32_t>(text.size());
        return done(LogType::WinCreate, [&](LogBuilder& log) {
            log.number(F::FileId, fileId).path(F::File, path).number(F::Exists, exists);
            log.number(F::Options, static_cast<std::uint32_t>(WinDisposition::OpenIf)
                                       << winDispositionShift);
        });
    }
    bool of(LogType type, std::uint32_t fileId) {
        return done(type, [&](LogBuilder& log) { log.number(F::FileId, fileId); });
    }
    bool write(std::uint32_t fileId, QByteArray const& bytes) {
        return done(LogType::Write, [&](LogBuilder& log) {
            log.number(F::FileId, fileId).bytes(F::Data, Morva::Extent(bytes));
            log.number(F::Length, static_cast<std::uint64_t>(bytes.size()));
        });
    }
};

INSTANTIATE_TEST_SUITE_P(Ends, WindowsState, testing::Bool(),
                         [](auto const& info) { return info.param ? "Stop" : "Kill"; });

TEST_P(WindowsState, DeletionsWaitForTheLastCloseBeyondTheEnd) {
    ASSERT_TRUE(open(1, "C:\\Src\\a"));
    ASSERT_TRUE(open(2, "C:\\Src\\a", true));
    ASSERT_TRUE(of(LogType::WinUnlink, 1));
    ASSERT_TRUE(of(LogType::Close, 1));
    ASSERT_TRUE(open(3, "C:\\Src\\b"));
    ASSERT_TRUE(of(LogType::WinUnlink, 3));
    ASSERT_TRUE(open(4, "C:\\Src\\c:s"));
    restart(end());
    EXPECT_TRUE(object("a") && object("b"));
    EXPECT_TRUE(write(2, "a"));
    EXPECT_TRUE(write(4, "named"));
    EXPECT_EQ(content("c", ":s"), "named");
    EXPECT_TRUE(of(LogType::Close, 2));
    EXPECT_FALSE(object("a"));
    EXPECT_TRUE(of(LogType::Close, 3));
    EXPECT_FALSE(object("b"));
    EXPECT_EQ(sink_->unknownHandleLogs(), 0U);
    EXPECT_FALSE(sink_->needsResync());
}

TEST_P(WindowsState, NumberThatIsGivenAwayAgainIsClosed) {
    ASSERT_TRUE(open(1, "C:\\Src\\a"));
    ASSERT_TRUE(of(LogType::WinUnlink, 1));
    restart(end());
    EXPECT_TRUE(open(1, "C:\\Src\\b"));
    EXPECT_FALSE(object("a"));
    EXPECT_TRUE(write(1, "b"));
    EXPECT_EQ(content("b"), "b");
}

TEST_P(WindowsState, EntriesOfOpenFilesCanBeRenamed) {
    ASSERT_TRUE(open(1, "C:\\Src\\a"));
    restart(end());
    EXPECT_TRUE(done(LogType::WinRename, [](LogBuilder& log) {
        LogPath to;
        to.text = "C:\\Src\\d";
        to.streamOffset = static_cast<std::uint32_t>(to.text.size());
        log.number(F::FileId, 1).path(F::To, to).number(F::TargetRuleCount, 2);
    }));
    EXPECT_TRUE(object("d"));
    EXPECT_FALSE(object("a"));
    EXPECT_TRUE(sink_->resyncPaths().isEmpty());
}

class ExchangeState : public ReplayFixture<RepositoryExchange> {
protected:
    ExchangeState() : ReplayFixture(SourceKind::Exchange, QStringLiteral("/mail")) { start(); }
    bool log(LogType type, QByteArray const& bytes = {}) {
        return done(type, [&](LogBuilder& log) {
            log.text(F::Sque, "s").text(F::Stream, "Body").text(F::ObjectPath, "/mail/a");
            log.number(F::Length, static_cast<std::uint64_t>(bytes.size()));
            log.bytes(F::Data, Morva::Extent(bytes));
        });
    }
};

TEST_F(ExchangeState, OpenObjectsAreTakenUp) {
    ASSERT_TRUE(log(LogType::ExchangeCreateObject));
    ASSERT_TRUE(log(LogType::ExchangeCreateStream));
    for (auto const end : {End::Kill, End::Stop}) {
        restart(end);
        EXPECT_TRUE(log(LogType::ExchangeWriteStream, "body"));
    }
    EXPECT_EQ(content("a", "Body"), "body");
    ASSERT_TRUE(log(LogType::ExchangeCloseObject));
    restart(End::Stop);
    EXPECT_FALSE(log(LogType::ExchangeWriteStream, "body"));
}

} // namespace
} // namespace Replication
