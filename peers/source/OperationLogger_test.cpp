#include "peers/source/OperationLogger.h"

#include <gtest/gtest.h>

namespace Replication {
namespace {

/// Keeps the text of each log.
class TextSink : public LogSink {
public:
    std::uint8_t* dataSpace(LogBuilder const& builder, std::uint32_t size) override {
        return log.dataSpace(builder, size);
    }
    bool put(LogBuilder& builder) override {
        if (failing || !log.build(builder))
            return false;
        std::string const text = log.toText();
        lines.push_back(text.substr(text.find('\n') + 1));
        times.push_back(log.time());
        return true;
    }
    bool flush() override { return !failing; }

    bool failing = false;
    std::vector<std::string> lines;
    std::vector<std::uint32_t> times;
    LogEntry log;
};

TEST(OperationLogger, EachOperationMakesItsLog) {
    TextSink sink;
    OperationLogger logger({.process = "p", .rules = {1, 2}, .firstSequenceNumber = 50}, sink);
    std::uint32_t file = 0;
    QByteArray const data("hello");
    ASSERT_TRUE(logger.create("/f", 0100644, 1, 2, file));
    ASSERT_TRUE(logger.write(file, 7, Morva::Extent(data)));
    EXPECT_EQ(sink.log.data().toByteArray(), data);
    ASSERT_TRUE(logger.truncateOpen(file, 9));
    ASSERT_TRUE(logger.close(file));
    ASSERT_TRUE(logger.writePath("/f", 1, Morva::Extent(data)));
    ASSERT_TRUE(logger.truncate("/f", 3));
    ASSERT_TRUE(logger.rename("/f", "/g"));
    EXPECT_EQ(sink.log.targetRuleCount(), 2U);
    ASSERT_TRUE(logger.link("/g", "/h"));
    ASSERT_TRUE(logger.symlink("target", "/s", 3, 4));
    ASSERT_TRUE(logger.mkdir("/d", 040700, 5, 6));
    ASSERT_TRUE(logger.mknod("/n", 020600, 7, 8, 0x103));
    ASSERT_TRUE(logger.setEa("/g", "user.a", Morva::Extent(data)));
    EXPECT_EQ(sink.log.data().toByteArray(), data);
    ASSERT_TRUE(logger.removeEa("/g", "user.a"));
    ASSERT_TRUE(logger.setAttr("/g", {.flags = 0x3F,
                                      .mode = 0600,
                                      .uid = 1,
                                      .gid = 2,
                                      .times = {{3, 0}, {4, 123456789}, {-1, 750000000}}}));
    ASSERT_TRUE(logger.unlink("/h"));
    ASSERT_TRUE(logger.rmdir("/d"));
    EXPECT_EQ(
        sink.lines,
        (std::vector<std::string>{
            "POSIX CREATE:: p SHC:0 FILEID:1 FILE:'/f' MODE:100644 UID:001 GID::002",
            "WRITE   :: p SHC:0 FILEID:1 OFFSET:7 LEN:5",
            "POSIX TRUNCATE:: p SHC:0 FILEID:1 FILE:'' SIZE:9 FLAGS:0x0000",
            "CLOSE   :: p SHC:0 FILEID:1", "POSIX WRITEPATH:: p SHC:0 FILE:'/f' OFFSET:1 LEN:5",
            "POSIX TRUNCATE:: p SHC:0 FILEID:4294967295 FILE:'/f' SIZE:3 FLAGS:0x0000",
            "POSIX RENAME:: p SHC:0 FROM:'/f' TO:'/g'", "LINK    :: p SHC:0 FROM:'/g' TO:'/h'",
            "POSIX SYMLINK:: p SHC:0 FROM:'target' TO:'/s' UID:003 GID::004",
            "POSIX MKDIR:: p SHC:0 FILE:'/d' MODE:040700 UID:005 GID::006",
            "POSIX MKNOD:: p SHC:0 FILE:'/n' MODE:020600 UID:007 GID::008 DEV:0x103",
            "SETEA   :: p SHC:0 FILE:'/g' EANAME'user.a' FLAGS:0x0000",
            "POSIX REMOVEEA:: p SHC:0 FILE:'/g' EANAME'user.a'",
            "POSIX SETATTR:: p SHC:0 FILE:'/g' MODE:000600 UID:001 GID::002 ATIME:3 MTIME:4 "
            "CTIME:0 FLAGS:0x003f TIMES:3.000000000,4.123456789,-0.250000000",
            "POSIX UNLINK:: p SHC:0 FILE:'/h'", "POSIX RMDIR:: p SHC:0 FILE:'/d'"}));
    EXPECT_EQ(logger.nextSequenceNumber(), 66U);
    sink.failing = true;
    EXPECT_FALSE(logger.rmdir("/d"));
    EXPECT_EQ(logger.nextSequenceNumber(), 66U);
}

TEST(OperationLogger, TimeOnlyMovesForwardAndFileTimesFit) {
    TextSink sink;
    std::vector<std::uint32_t> clock = {30, 20, 40};
    std::size_t next = 0;
    OperationLogger logger({.clock = [&] { return clock[next++]; }}, sink);
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(logger.unlink("/a"));
    EXPECT_EQ(sink.times, (std::vector<std::uint32_t>{30, 30, 40}));
    EXPECT_EQ(OperationLogger::seconds(-5), 0U);
    EXPECT_EQ(OperationLogger::seconds(std::time_t{1} << 33), 0xFFFFFFFFU);
}

} // namespace
} // namespace Replication
