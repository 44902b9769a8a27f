// Logs with values that no store can hold are left out, and block nothing.

#include "replication/repository/replay/PosixReplayFixture.h"
#include "replication/repository/replay/RepositoryExchange.h"
#include "replication/repository/replay/RepositoryWindows.h"

#include <string>

namespace Replication {
namespace {

/// 23 entries of a stream's record, each over three levels of 512, of blocks of 4096 bytes.
constexpr std::uint64_t largest = std::uint64_t{23} * 512 * 512 * 512 * 4096;

class UnsupportedPosix : public PosixReplayFixture {
protected:
    bool attribute(QByteArray const& name, QByteArray const& value) {
        return done(LogType::PosixSetEa, [&](LogBuilder& log) {
            log.text(F::File, "/src/a").text(F::EaName, {name.data(), std::size_t(name.size())});
            log.bytes(F::Data, Morva::Extent(value));
        });
    }
};

TEST_F(UnsupportedPosix, LogsAreLeftOutAndTheStreamGoesOn) {
    ASSERT_TRUE(make("/src/a", "a"));
    ASSERT_TRUE(open(1, "/src/a"));
    auto const nodes = usedNodes();
    std::string const longName = "/src/" + std::string(256, 'n');
    std::string longPath = "/src";
    while (longPath.size() < 400'000)
        longPath += "/d";
    std::string const longTarget(4096, 't');
    auto const file = [](std::string_view path) {
        return [path](LogBuilder& log) { log.text(F::File, path).number(F::FileId, 9); };
    };
    auto const mode = [](std::uint32_t mode) {
        return [mode](LogBuilder& log) { log.text(F::File, "/src/n").number(F::Mode, mode); };
    };
    auto const two = [](std::string_view from, std::string_view to) {
        return [=](LogBuilder& log) { log.text(F::From, from).text(F::To, to); };
    };
    auto const range = [](std::uint64_t offset, std::uint64_t length) {
        return [=](LogBuilder& log) {
            log.text(F::File, "/src/a").number(F::Offset, offset).number(F::Length, length);
        };
    };
    auto const size = [](std::string_view path, std::uint64_t size) {
        return [=](LogBuilder& log) {
            log.text(F::File, path).number(F::FileId, 1).number(F::Size, size);
        };
    };
    struct {
        char const* what;
        LogType type;
        Change change;
        char const* reason;
    } const cases[] = {
        {"name .", LogType::PosixCreate, file("/src/."), "\".\" or \"..\""},
        {"name ..", LogType::PosixOpen, file("/src/../etc"), "\".\" or \"..\""},
        {"long name", LogType::PosixCreate, file(longName), "longer than 255"},
        {"long path", LogType::PosixCreate, file(longPath), "longer than 4095"},
        {"long path removed", LogType::PosixUnlink, file(longPath), "longer than 4095"},
        {"long name linked", LogType::PosixLink, two("/src/a", longName), "longer than 255"},
        {"moved to ..", LogType::PosixRename, two("/src/a", "/src/.."), "\".\" or \"..\""},
        {"moved from long", LogType::PosixRename, two(longName, "/src/b"), "longer than 255"},
        {"no target", LogType::PosixSymlink, two("", "/src/l"), "target of the link is empty"},
        {"long target", LogType::PosixSymlink, two(longTarget, "/src/l"), "longer than 4095"},
        {"no type", LogType::PosixMknod, mode(0600), "no type"},
        {"a directory", LogType::PosixMknod, mode(S_IFDIR | 0700), "a type that it can't have"},
        {"a link", LogType::PosixMknod, mode(S_IFLNK | 0700), "a type that it can't have"},
        {"type 3", LogType::PosixMknod, mode(0030600), "a type that it can't have"},
        {"more bits", LogType::PosixMkdir, mode(0x80000000 | S_IFDIR), "unknown bits"},
        {"a device", LogType::PosixCreate, mode(S_IFCHR | 0600), "type of a device"},
        {"offset", LogType::PosixWritePath, range(largest + 1, 0), "larger than a stream"},
        {"end", LogType::PosixWritePath, range(largest, 1), "larger than a stream"},
        {"beyond 64 bits", LogType::PosixWritePath, range(5, ~std::uint64_t{0}), "larger"},
        {"size", LogType::PosixTruncate, size("/src/a", largest + 1), "larger than a stream"},
        {"size through a number", LogType::PosixTruncate, size("", largest + 1), "larger"},
    };
    for (auto const& each : cases) {
        SCOPED_TRACE(each.what);
        EXPECT_TRUE(done(each.type, each.change));
        EXPECT_TRUE(done(each.type, each.change));
        QStringList reasons; // of each path, the last
        for (auto const& [path, reason] : sink_->unsupported().paths()) {
            EXPECT_LE(path.size(), UnsupportedPaths::maximumText);
            reasons += reason;
        }
        EXPECT_FALSE(reasons.filter(each.reason).isEmpty()) << reasons.join(' ').toStdString();
    }
    // Each path was told once.
    EXPECT_EQ(static_cast<std::size_t>(said_.size()), sink_->unsupported().paths().size());
    EXPECT_EQ(sink_->leftOut(), 2 * std::size(cases));
    EXPECT_EQ(usedNodes(), nodes);
    EXPECT_EQ(content("a"), "a");
    EXPECT_FALSE(sink_->needsResync());
    EXPECT_TRUE(sink_->resyncPaths().isEmpty());
    // The number of a file that was left out is not that of another one.
    ASSERT_TRUE(create(1, longName.c_str()));
    EXPECT_TRUE(write(1, 0, "lost"));
    EXPECT_EQ(content("a"), "a");
}

TEST_F(UnsupportedPosix, WhatIsAtTheLimitIsTaken) {
    auto const name = "/src/" + std::string(255, 'n');
    ASSERT_TRUE(create(1, name.c_str()));
    EXPECT_TRUE(object(name.c_str() + 4));
    ASSERT_TRUE(done(LogType::PosixTruncate,
                     [](LogBuilder& log) { log.number(F::FileId, 1).number(F::Size, largest); }));
    EXPECT_EQ(*object(name.c_str() + 4)->size(dataStreamName), largest);
    ASSERT_TRUE(write(1, largest - 1, "x"));
    EXPECT_TRUE(sink_->unsupported().empty());
}

TEST_F(UnsupportedPosix, WhatLiesElsewhereIsNobodysLoss) {
    for (char const* path : {"/etc/..", "/srcfile/.", ".."})
        EXPECT_TRUE(create(1, path));
    ASSERT_TRUE(done(LogType::Write, [](LogBuilder& log) {
        log.number(F::FileId, 77).number(F::Offset, largest + 1);
    }));
    EXPECT_TRUE(sink_->unsupported().empty());
}

TEST_F(UnsupportedPosix, ExtendedAttributesBeyondTheirLimitAreToldAndTheOthersStay) {
    ASSERT_TRUE(make("/src/a", "a"));
    ASSERT_TRUE(attribute("user.small", "1"));
    QByteArray const large(9 << 20, 'x');
    ASSERT_TRUE(attribute("user.one", large));
    EXPECT_TRUE(sink_->unsupported().empty());
    EXPECT_TRUE(attribute("user.two", large));
    EXPECT_EQ(said_,
              QStringList("A change of /src/a on source node 'machine' can't be stored and is "
                          "left out: it has more than 16 MiB of extended attributes"));
    auto const record = content("a", PosixStream::attributes);
    auto const kept = PosixAttributes::decode(Morva::Extent(*record));
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->all(), (PosixAttributes::Map{{"user.small", "1"}, {"user.one", large}}));
    EXPECT_TRUE(attribute("", "1"));
    EXPECT_TRUE(attribute(QByteArray(256, 'n'), "1"));
    EXPECT_EQ(*content("a", PosixStream::attributes), *record);
}

TEST_F(UnsupportedPosix, MarksAreSavedAndBounded) {
    std::string path = "/src/" + std::string(300, 'n');
    for (std::size_t i = 0; i < UnsupportedPaths::maximumPaths + 5; ++i)
        ASSERT_TRUE(create(1, (path + std::to_string(i)).c_str()));
    EXPECT_EQ(sink_->unsupported().paths().size(), UnsupportedPaths::maximumPaths);
    EXPECT_EQ(sink_->unsupported().leftOut(), 5U);
    EXPECT_EQ(said_.size(), qsizetype{UnsupportedPaths::maximumPaths} + 1);
    auto const before = sink_->unsupported().paths();
    ASSERT_TRUE(sink_->handleShutdown());
    start();
    EXPECT_EQ(sink_->unsupported().paths(), before);
    EXPECT_EQ(sink_->unsupported().leftOut(), 5U);
}

TEST_F(UnsupportedPosix, MarksGoWhenTheirPathIsMadeAnew) {
    ASSERT_TRUE(make("/src/\xff", "a"));
    auto const cut = [](LogBuilder& log) {
        log.text(F::File, "/src/\xff").number(F::Size, largest + 1);
    };
    ASSERT_TRUE(done(LogType::PosixTruncate, cut));
    ASSERT_TRUE(sink_->handleShutdown());
    start();
    ASSERT_EQ(sink_->unsupported().paths().size(), 1U);
    EXPECT_EQ(sink_->unsupported().paths().begin()->first, "/src/" + QString(QChar(0xDCFF)));
    ASSERT_TRUE(create(1, "/src/\xff"));
    EXPECT_TRUE(sink_->unsupported().empty());
}

class UnsupportedWindows : public ReplayFixture<RepositoryWindows> {
protected:
    UnsupportedWindows() : ReplayFixture(SourceKind::Windows, QStringLiteral("C:\\Src\\")) {
        start();
    }
    bool create(std::uint32_t fileId, std::string_view text) {
        LogPath path;
        path.text = text;
        path.streamOffset = static_cast<std::uint32_t>(text.size());
        return done(LogType::WinCreate, [&](LogBuilder& log) {
            log.number(F::FileId, fileId).path(F::File, path);
            log.number(F::Options, static_cast<std::uint32_t>(WinDisposition::OpenIf)
                                       << winDispositionShift);
        });
    }
};

TEST_F(UnsupportedWindows, NamesAndSizesAreMarked) {
    ASSERT_TRUE(create(1, "C:\\Src\\a"));
    std::string const longName = "C:\\Src\\" + std::string(3000, 'n');
    for (std::string const& path : {std::string("C:\\Src\\..\\b"), longName})
        EXPECT_TRUE(create(2, path));
    EXPECT_EQ(sink_->unsupported().paths().size(), 2U);
    for (auto const type : {LogType::WinTruncate, LogType::WinSetValidLength})
        EXPECT_TRUE(done(
            type, [](LogBuilder& log) { log.number(F::FileId, 1).number(F::Size, largest + 1); }));
    EXPECT_EQ(sink_->unsupported().paths().size(), 3U);
    EXPECT_FALSE(sink_->needsResync());
    EXPECT_TRUE(object("a"));
}

class UnsupportedMail : public ReplayFixture<RepositoryExchange> {
protected:
    UnsupportedMail() : ReplayFixture(SourceKind::Exchange, QStringLiteral("/mail")) { start(); }
    bool log(LogType type, std::string_view path, std::string_view stream) {
        return done(type, [&](LogBuilder& log) {
            if (type != LogType::ExchangeDeleteObject)
                log.text(F::Sque, "s");
            if (type == LogType::ExchangeCreateStream)
                log.text(F::Stream, stream);
            else
                log.text(F::ObjectPath, path);
        });
    }
};

TEST_F(UnsupportedMail, ObjectsAndStreamsAreLeftOut) {
    using enum LogType;
    std::string const longName(2034, 'n');
    EXPECT_TRUE(log(ExchangeCreateObject, "/mail/" + longName, ""));
    // What is logged of such an object is swallowed.
    EXPECT_TRUE(log(ExchangeCreateStream, "", "Body"));
    EXPECT_TRUE(log(ExchangeCreateObject, "/mail/../a", ""));
    EXPECT_EQ(sink_->unsupported().paths().size(), 2U);
    EXPECT_TRUE(sink_->destinationEmpty());
    ASSERT_TRUE(log(ExchangeCreateObject, "/mail/a", ""));
    EXPECT_TRUE(log(ExchangeCreateStream, "", ""));
    EXPECT_TRUE(log(ExchangeCreateStream, "", longName));
    EXPECT_TRUE(sink_->unsupported().paths().contains(QStringLiteral("/mail/a")));
    EXPECT_FALSE(sink_->needsResync());
    EXPECT_TRUE(log(ExchangeDeleteObject, "/mail/a", ""));
    EXPECT_EQ(sink_->unsupported().paths().size(), 2U);
}

} // namespace
} // namespace Replication
