#include "peers/source/WindowsTreeWriter.h"

#include "peers/source/MailTreeWriter.h"
#include "peers/source/TreeLogger.h"
#include "peers/source/UnixSecurity.h"
#include "replication/common/log/SecurityText.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace Replication {
namespace {

/// Keeps a line for each log, told from the tree's top.
class LineSink : public LogSink {
public:
    std::uint8_t* dataSpace(LogBuilder const& builder, std::uint32_t size) override {
        return log_.dataSpace(builder, size);
    }
    bool put(LogBuilder& builder) override {
        if (!log_.build(builder))
            return false;
        lines.push_back(describe());
        return true;
    }
    bool flush() override { return true; }

    std::vector<std::string> lines;

private:
    [[nodiscard]] std::string describe() const {
        auto const number = std::to_string(log_.fileId());
        auto const data = log_.data().toByteArray().toStdString();
        auto const sque = std::string(log_.text(LogField::Sque));
        auto const stream = std::string(log_.text(LogField::Stream));
        switch (log_.type()) {
        case LogType::WinCreate:
            return "create " + number + ' ' + pathText() + " disposition " +
                   std::to_string(log_.number(LogField::Options) >> winDispositionShift) +
                   (log_.number(LogField::Exists) ? " exists" : "") + attributes();
        case LogType::Write:
            return "write " + number + ' ' + std::to_string(log_.offset()) + '+' +
                   std::to_string(log_.length());
        case LogType::WinTruncate:
            return "truncate " + number + ' ' + std::to_string(log_.size());
        case LogType::Close:
            return "close " + number;
        case LogType::WinLink:
            return "link " + number + ' ' + pathText();
        case LogType::WinSymlink:
            return "symlink " + number + ' ' + pathText() + ' ' +
                   log_.data().toByteArray().first(4).toHex().toStdString();
        case LogType::WinSetAttr:
            return "attr " + number + ' ' + std::to_string(log_.modificationTime());
        case LogType::ExchangeCreateObject:
            return "object " + sque + ' ' + std::string(log_.text(LogField::ObjectPath));
        case LogType::ExchangeCreateStream:
            return "stream " + sque + ' ' + stream;
        case LogType::ExchangeWriteStream:
            return "write " + sque + ' ' + stream + ' ' +
                   std::to_string(log_.number(LogField::Offset)) + ' ' + data;
        case LogType::ExchangeCloseObject:
            return "close " + sque;
        default:
            return "other";
        }
    }
    /// Both spellings, checked against each other.
    [[nodiscard]] std::string pathText() const {
        auto const path = log_.path();
        auto const file = path.text.substr(0, path.streamOffset);
        auto const name = file.substr(path.filenameOffset);
        auto const preserved = path.casePreserved.substr(0, path.casePreservedStreamOffset);
        EXPECT_EQ(QString::fromUtf8(preserved.data(), static_cast<qsizetype>(preserved.size()))
                      .toLower()
                      .toStdString(),
                  name);
        auto const stream = path.casePreserved.substr(path.casePreservedStreamOffset);
        EXPECT_EQ(path.text.size() - file.size(), stream.empty() ? 0 : stream.size() + 1);
        return std::string(file.substr(0, path.filenameOffset)).append(preserved) +
               (stream.empty() ? "" : ":" + std::string(stream));
    }
    [[nodiscard]] std::string attributes() const {
        auto const value = log_.number(LogField::Attributes);
        EXPECT_EQ((value & winFileDirectory) != 0, log_.flags() == logFlagDirectory);
        auto const descriptor = log_.bytes(LogField::Security);
        EXPECT_EQ(securityDescriptorText(descriptor)
                      .starts_with("O:" + sidText(log_.bytes(LogField::User))),
                  descriptor.size != 0);
        return std::string(value & winFileReadOnly ? " readonly" : "") +
               (value & windowsHidden ? " hidden" : "") + (value & windowsSparse ? " sparse" : "") +
               (value & windowsReparsePoint ? " reparse" : "");
    }

    LogEntry log_;
};

class TreeWriters : public testing::Test {
protected:
    [[nodiscard]] std::string at(std::string const& name) const {
        return directory_.path().toStdString() + "/top/" + name;
    }
    void SetUp() override { ASSERT_EQ(::mkdir(at("").c_str(), 0755), 0); }
    // Qt can't remove a name that is not UTF-8.
    void TearDown() override { std::filesystem::remove_all(directory_.path().toStdString()); }
    void write(std::string const& name, std::string const& content, off_t offset = 0) const {
        QDir().mkpath(QString::fromStdString(at(name.substr(0, name.rfind('/') + 1))));
        auto const file = ::open(at(name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        ASSERT_GE(file, 0) << name;
        ASSERT_EQ(::pwrite(file, content.data(), content.size(), offset),
                  static_cast<ssize_t>(content.size()));
        ::close(file);
    }
    void walk(TreeWriter& writer) {
        TreeOptions options;
        options.problem = [this](std::string_view path, int error, std::string_view what) {
            problems_.push_back(std::string(path.substr(at("").size())) + ' ' + std::string(what) +
                                ' ' + std::to_string(error));
        };
        TreeLogger tree(std::move(options), writer);
        EXPECT_EQ(tree.run(at("")), TreeLogger::Result::Done);
        skipped_ = tree.counts().skipped;
    }

    QTemporaryDir directory_;
    LineSink sink_;
    std::vector<std::string> problems_;
    std::uint64_t skipped_ = 0;
};

TEST_F(TreeWriters, AWindowsSourceLogsNamesStreamsLinksAndWhatItCanNotHave) {
    write("Dir/File One", "abc");
    ASSERT_EQ(::link(at("Dir/File One").c_str(), at("Dir/Zwei").c_str()), 0);
    if (::setxattr(at("Dir/File One").c_str(), "user.Note", "text", 4, 0) != 0 ||
        ::setxattr(at("Dir").c_str(), "user.empty", "", 0, 0) != 0)
        GTEST_SKIP() << "the file system has no extended attributes";
    write("a:b?. ", "");
    write("\xC3\x84\xFF", "");
    ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
    write("same", "first");
    write("Same", "second");
    ASSERT_EQ(::mkdir(at("SAME").c_str(), 0700), 0);
    write("SAME/inner", "");
    write(".hole", "x");
    ASSERT_EQ(::truncate(at(".hole").c_str(), 1 << 20), 0);
    ASSERT_EQ(::chmod(at(".hole").c_str(), 0444), 0);
    ASSERT_EQ(::symlink("../Else/where", at("sym").c_str()), 0);
    for (char const* name : {"Dir/File One", ".hole"}) {
        timespec const both[] = {{5, 0}, {6, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, at(name).c_str(), both, 0), 0);
    }

    WindowsLogger logger({}, sink_);
    WindowsTreeWriter writer(logger, WindowsPaths(at("x").substr(0, at("").size() - 1),
                                                  {.drive = "D", .top = "/Deep/Root/"}));
    walk(writer);
    auto& lines = sink_.lines;
    // Times that the test doesn't set.
    std::erase_if(
        lines, [](auto const& line) { return line.starts_with("attr ") && !line.ends_with(" 6"); });
    std::vector<std::string> const expected = {
        R"(create 1 d:\deep\Root disposition 2)",
        R"(create 2 d:\deep\root\.hole disposition 5 readonly hidden sparse)", "write 2 0+4096",
        "truncate 2 1048576", "attr 2 6", "close 2", R"(create 3 d:\deep\root\Dir disposition 2)",
        R"(create 4 d:\deep\root\Dir:empty disposition 2)", "close 4",
        R"(create 5 d:\deep\root\dir\File One disposition 5)", "write 5 0+3",
        R"(create 6 d:\deep\root\dir\File One:Note disposition 2)", "write 6 0+4", "close 6",
        "attr 5 6", "close 5", R"(create 7 d:\deep\root\dir\File One disposition 1 exists)",
        R"(link 7 d:\deep\root\dir\Zwei)", "close 7", "close 3",
        R"(create 8 d:\deep\root\SAME disposition 2)",
        R"(create 9 d:\deep\root\same\inner disposition 5)", "close 9", "close 8",
        // What a name can't have stands 0xF000 higher.
        "create 10 d:\\deep\\root\\a\xEF\x80\xBA"
        "b\xEF\x80\xBF.\xEF\x80\xA0 disposition 5",
        "close 10", R"(create 11 d:\deep\root\sym disposition 5 reparse)",
        R"(symlink 11 ..\else\where 0c0000a0)", "close 11",
        "create 12 d:\\deep\\root\\\xC3\x84\xEF\x83\xBF disposition 5", "close 12", "close 1"};
    EXPECT_EQ(problems_, (std::vector<std::string>{
                             "Same log a name that differs only in case 17",
                             "fifo log a device, fifo or socket " + std::to_string(ENOTSUP),
                             "same log a name that differs only in case 17"}));
    EXPECT_EQ(skipped_, 3U);
    EXPECT_EQ(lines, expected);
}

TEST_F(TreeWriters, AMaildirBecomesObjectsWithStreams) {
    write("new/1.host", "fresh");
    write("cur/2.host:2,FS", "seen");
    write("cur/1.host:2,", "twice");
    write("tmp/3.host", "half");
    write("dovecot-uidlist", "server's");
    write(".Lists.C++/cur/4.host:2,", "");
    write("Deep/er/new/2.host", std::string((1 << 20) + 1, 'x'));
    ASSERT_EQ(::link(at("new/1.host").c_str(), at(".Lists.C++/cur/5.host").c_str()), 0);
    ExchangeLogger logger({}, sink_);
    MailTreeWriter writer(logger);
    walk(writer);
    for (auto& line : sink_.lines) {
        if (auto const top = line.find(at("")); top != std::string::npos)
            line.erase(top, at("").size());
        if (line.size() > (1 << 20))
            line.resize(line.rfind(' '));
    }
    std::vector<std::string> const expected = {"object 1 .Lists.C++/4.host",
                                               "stream 1 Data",
                                               "stream 1 State",
                                               "write 1 State 0 cur",
                                               "close 1",
                                               "object 2 .Lists.C++/5.host",
                                               "stream 2 Data",
                                               "write 2 Data 0 fresh",
                                               "stream 2 State",
                                               "write 2 State 0 cur",
                                               "close 2",
                                               "object 3 Deep/er/2.host",
                                               "stream 3 Data",
                                               "write 3 Data 0",
                                               "write 3 Data 1048576 x",
                                               "stream 3 State",
                                               "write 3 State 0 new",
                                               "close 3",
                                               "object 4 1.host",
                                               "stream 4 Data",
                                               "write 4 Data 0 twice",
                                               "stream 4 State",
                                               "write 4 State 0 cur",
                                               "close 4",
                                               "object 5 2.host",
                                               "stream 5 Data",
                                               "write 5 Data 0 seen",
                                               "stream 5 State",
                                               "write 5 State 0 cur",
                                               "stream 5 Flags",
                                               "write 5 Flags 0 FS",
                                               "close 5"};
    EXPECT_EQ(sink_.lines, expected);
    EXPECT_EQ(problems_,
              (std::vector<std::string>{"new/1.host log a second message of the name 17"}));
}

TEST(UnixSecurity, TheAccessListSaysWhatTheModeSays) {
    struct {
        std::uint32_t mode;
        char const* text;
    } const cases[] = {
        {S_IFREG | 0640, "(A;;0x1f019f;;;S-1-22-1-1000)(A;;FR;;;S-1-22-2-50)(A;;0x120080;;;WD)"},
        // What others may do is denied to the owner first.
        {S_IFREG | 0077, "(D;;CCDCLCSWRPWP;;;S-1-22-1-1000)(A;;0x1f0180;;;S-1-22-1-1000)"
                         "(A;;0x1201bf;;;S-1-22-2-50)(A;;0x1201bf;;;WD)"},
        {S_IFDIR | 0705, "(A;;FA;;;S-1-22-1-1000)(D;;CCSWWP;;;S-1-22-2-50)"
                         "(A;;0x120080;;;S-1-22-2-50)(A;;0x1200a9;;;WD)"},
    };
    for (auto const& each : cases) {
        auto const descriptor = unixSecurity(1000, 50, each.mode);
        EXPECT_EQ(securityDescriptorText(Morva::Extent(descriptor)),
                  std::string("O:S-1-22-1-1000G:S-1-22-2-50D:P") + each.text)
            << each.mode;
    }
    EXPECT_EQ(sidText(Morva::Extent(unixGroup(7))), "S-1-22-2-7");
}

} // namespace
} // namespace Replication
