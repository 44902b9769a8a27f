#include "replication/repository/replay/RepositoryExchange.h"

#include "replication/repository/replay/ReplayFixture.h"

namespace Replication {
namespace {

/// A store of the mail under /mail.
class ExchangeReplay : public ReplayFixture<RepositoryExchange> {
protected:
    ExchangeReplay() : ReplayFixture(SourceKind::Exchange, QStringLiteral("/mail")) { start(); }

    bool open(char const* sequence, char const* path) {
        return done(LogType::ExchangeCreateObject, [&](LogBuilder& log) {
            log.text(F::Sque, sequence).text(F::ObjectPath, path);
        });
    }
    bool stream(char const* sequence, char const* name) {
        return done(LogType::ExchangeCreateStream,
                    [&](LogBuilder& log) { log.text(F::Sque, sequence).text(F::Stream, name); });
    }
    bool write(char const* sequence, char const* name, std::uint32_t offset,
               QByteArray const& bytes) {
        return done(LogType::ExchangeWriteStream, [&](LogBuilder& log) {
            log.text(F::Sque, sequence).text(F::Stream, name).number(F::Offset, offset);
            log.bytes(F::Data, Morva::Extent(bytes));
        });
    }
    bool close(char const* sequence) {
        return done(LogType::ExchangeCloseObject,
                    [&](LogBuilder& log) { log.text(F::Sque, sequence); });
    }
    bool remove(char const* path, LogType type = LogType::ExchangeDeleteObject) {
        return done(type, [&](LogBuilder& log) { log.text(F::ObjectPath, path); });
    }
};

TEST_F(ExchangeReplay, ObjectsHoldTheStreamsThatWereWrittenUnderTheirSequence) {
    ASSERT_TRUE(open("one", "/mail/Inbox/1"));
    ASSERT_TRUE(open("two", "/Mail/inbox/2"));
    ASSERT_TRUE(stream("one", "Body"));
    ASSERT_TRUE(stream("two", "Body"));
    ASSERT_TRUE(stream("one", "Flags"));
    ASSERT_TRUE(write("one", "Body", 0, "first"));
    ASSERT_TRUE(write("two", "Body", 0, "second"));
    ASSERT_TRUE(write("one", "body", 5, " message"));
    ASSERT_TRUE(write("one", "Flags", 0, "S"));
    EXPECT_EQ(content("inbox/1", "Body"), "first message");
    EXPECT_EQ(content("inbox/1", "Flags"), "S");
    EXPECT_EQ(content("inbox/2", "Body"), "second");
    ASSERT_TRUE(close("one"));

    // What a snapshot saw stays, while the object goes on under the same number or a new one.
    auto const before = snapshot();
    ASSERT_TRUE(write("two", "Body", 0, "SEC"));
    ASSERT_TRUE(open("one", "/mail/Inbox/1"));
    ASSERT_TRUE(write("one", "Body", 0, "FIRST"));
    EXPECT_EQ(content("inbox/1", "Body"), "FIRST message");
    EXPECT_EQ(content("inbox/2", "Body"), "SECond");
    auto const old = value(store_->passiveHandle({"inbox", "2"}, before));
    ASSERT_TRUE(old);
    EXPECT_EQ(value(old->openStream("Body"))->length(), 6U);
    char text[6];
    EXPECT_EQ(value(old->openStream("Body"))->read(0, text, 6), 6U);
    EXPECT_EQ(std::string(text, 6), "second");
}

TEST_F(ExchangeReplay, DeletedObjectsAreGoneWhicheverLogTellsIt) {
    for (auto const type : {LogType::ExchangeDeleteObject, LogType::ExchangeDeleteObjectToo}) {
        ASSERT_TRUE(open("s", "/mail/a/b"));
        ASSERT_TRUE(stream("s", "Body") && write("s", "Body", 0, "text"));
        EXPECT_TRUE(remove("/mail/a/b", type));
        EXPECT_FALSE(content("a/b", "Body"));
        // Written to while it is gone; nobody sees it.
        EXPECT_TRUE(write("s", "Body", 4, "more"));
        EXPECT_TRUE(close("s"));
        EXPECT_FALSE(content("a/b", "Body"));
        EXPECT_TRUE(remove("/mail/a/b", type)) << "gone already";
    }
    ASSERT_TRUE(open("s", "/mail/a/c") && close("s"));
    EXPECT_TRUE(remove("/mail/a")) << "a folder goes with what is in it";
    EXPECT_EQ(usedNodes(), 1U);
}

TEST_F(ExchangeReplay, WhatIsOutsideOrExcludedIsSwallowedWhole) {
    Morva::XmlList details;
    NotToBackup::addEntry(details, "/spam", true, false);
    ASSERT_TRUE(message(DataSink::NotToBackupDetails, details));
    for (char const* path : {"/mailing/1", "/other", "", "mail/1", "/mail/Spam/1"}) {
        SCOPED_TRACE(path);
        EXPECT_TRUE(open("s", path));
        EXPECT_TRUE(stream("s", "Body"));
        EXPECT_TRUE(write("s", "Body", 0, "text"));
        EXPECT_TRUE(write("s", "Never made", 0, "text"));
        EXPECT_TRUE(close("s"));
        EXPECT_TRUE(remove(path));
    }
    EXPECT_EQ(usedNodes(), 1U);
    EXPECT_TRUE(close("s")) << "a sequence that is not known is closed already";
    for (auto const type : {LogType::PosixCreate, LogType::WinUnlink, LogType::Write})
        EXPECT_TRUE(done(type, [](LogBuilder& log) { log.number(F::FileId, 1); }));
    EXPECT_FALSE(sink_->needsResync());
}

TEST_F(ExchangeReplay, WhatWouldBeLostAsksForAResynchronization) {
    // Nothing is known of the object that these are about.
    EXPECT_FALSE(stream("s", "Body"));
    EXPECT_FALSE(write("s", "Body", 0, "text"));
    ASSERT_TRUE(open("s", "/mail/a/b"));
    EXPECT_FALSE(write("s", "Body", 0, "text")) << "no stream of that name";
    EXPECT_TRUE(sink_->needsResync());
    EXPECT_FALSE(open("t", "/mail/a")) << "a folder has the name";
    EXPECT_TRUE(write("t", "Body", 0, "text")) << "told already";
    // A source that starts again has nothing open.
    ASSERT_TRUE(stream("s", "Body"));
    ASSERT_TRUE(message(DataSink::SourceStarted));
    EXPECT_FALSE(write("s", "Body", 0, "text"));

    EXPECT_TRUE(sink_->resyncPaths().contains("a/b")) << "of the object whose log failed";
    EXPECT_TRUE(done(LogType::WinResync,
                     [](LogBuilder& log) { log.path(F::File, {.text = "/mail/a/c"}); }));
    EXPECT_TRUE(sink_->resyncPaths().contains("a/c"));
    EXPECT_TRUE(said_.contains("Exchange Filter on source node 'machine' has requested a "
                               "resynchronization for file /mail/a/c"));
}

} // namespace
} // namespace Replication
