#include "base/process/FixedPath.h"
#include "base/values/PosixText.h"
#include "peers/morva/RestoreFixture.h"
#include "peers/source/ExchangeLogger.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Directories.h"

#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/xattr.h>

#include <fstream>
#include <iomanip>
#include <random>
#include <sstream>

using namespace Morva;
using namespace Replication;
namespace fs = std::filesystem;

namespace {

/// All that a restore has to bring back of each object below a directory, by path.
using TreeState = std::map<std::string, std::string>;

std::string holesOf(std::string const& file, off_t size) {
    Descriptor const opened(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    std::ostringstream text;
    for (off_t at = 0; at < size;) {
        off_t const data = ::lseek(opened.get(), at, SEEK_DATA);
        if (data < 0)
            break;
        at = ::lseek(opened.get(), data, SEEK_HOLE);
        text << ' ' << data << '-' << at;
    }
    return text.str();
}

std::string attributesOf(std::string const& path) {
    std::map<std::string, std::string> all;
    std::string names(65536, '\0');
    auto const size = ::llistxattr(path.c_str(), names.data(), names.size());
    for (char const* name = names.data(); name < names.data() + std::max<ssize_t>(size, 0);
         name += std::strlen(name) + 1) {
        std::string value(65536, '\0');
        value.resize(static_cast<std::size_t>(
            std::max<ssize_t>(::lgetxattr(path.c_str(), name, value.data(), value.size()), 0)));
        all[name] = value;
    }
    std::string text;
    for (auto const& [name, value] : all)
        text += ' ' + name + '=' + QByteArray::fromStdString(value).toHex().toStdString();
    return text;
}

std::map<std::string, ino_t> inodesOf(std::string const& directory) {
    std::map<std::string, ino_t> all;
    for (auto const& entry : fs::recursive_directory_iterator(directory)) {
        struct stat status {};
        EXPECT_EQ(::lstat(entry.path().c_str(), &status), 0);
        if (!S_ISDIR(status.st_mode))
            all[fs::relative(entry.path(), directory).string()] = status.st_ino;
    }
    return all;
}

mode_t stateMode(std::string const& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

std::string contentOf(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string stateOf(std::string const& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0)
        return "missing";
    std::ostringstream text;
    text << std::oct << status.st_mode << std::dec << ' ' << status.st_uid << ':' << status.st_gid
         << " time " << FileTime::of(status.st_mtim).text();
    if (!S_ISDIR(status.st_mode))
        text << " links " << status.st_nlink << " size " << status.st_size << " device "
             << status.st_rdev;
    text << attributesOf(path);
    if (S_ISLNK(status.st_mode))
        text << " -> " << fs::read_symlink(path).string();
    if (S_ISREG(status.st_mode))
        text << " content " << std::hash<std::string>{}(contentOf(path)) << " at"
             << holesOf(path, status.st_size);
    return text.str();
}

TreeState treeState(std::string const& directory) {
    TreeState state{{".", stateOf(directory)}};
    for (auto const& entry : fs::recursive_directory_iterator(directory))
        state[entry.path().string().substr(directory.size() + 1)] = stateOf(entry.path().string());
    return state;
}

void setTime(std::string const& path, time_t seconds, long nanoseconds = 0) {
    timespec const times[2] = {{seconds, 0}, {seconds, nanoseconds}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

void write(std::string const& path, std::string const& content, off_t at = 0) {
    Descriptor const opened(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_EQ(::pwrite(opened.get(), content.data(), content.size(), at),
              static_cast<ssize_t>(content.size()))
        << path;
}

std::string noise(std::size_t size) {
    std::mt19937 random(static_cast<unsigned>(size));
    std::string text(size, '\0');
    for (auto& byte : text)
        byte = static_cast<char>(random());
    return text;
}

void makeFiles(std::string const& source) {
    // Around the sizes that a stream holds inline, in one block, and with each depth of its tree.
    for (std::size_t const size : {0, 1, 184, 185, 4095, 4096, 4097, 23 * 4096, 23 * 4096 + 1,
                                   1 << 20, (1 << 20) + 1, 3 << 20})
        write(source + "/size" + std::to_string(size), noise(size));
    fs::create_directory(source + "/holes");
    auto const holes = source + "/holes/";
    struct Sparse {
        char const* name;
        std::vector<std::pair<off_t, std::size_t>> data;
        off_t size;
    };
    for (auto const& [name, data, size] : std::initializer_list<Sparse>{
             {"none", {}, 1 << 20},
             {"odd", {}, 12345},
             {"front", {{8 << 20, 4096}}, (8 << 20) + 4096},
             {"back", {{0, 4096}}, 64 << 20},
             {"middle", {{0, 8192}, {40 << 20, 12288}}, (40 << 20) + 12288},
             {"many", {{4096, 4096}, {16384, 4096}, {3 << 20, 8192}, {5 << 20, 4096}}, 6 << 20}}) {
        write(holes + name, "");
        for (auto const& [at, count] : data)
            write(holes + name, noise(count), at);
        ASSERT_EQ(::truncate((holes + name).c_str(), size), 0);
    }
}

void makeNames(std::string const& source) {
    fs::create_directories(source + "/names/\xff\xfe"
                                    "dir");
    for (std::string const name :
         {"new\nline", "\x80\xc3", "na\xc3\xafve", "\xed\xa0\x80", "*?[", " ", "-rf", "..."})
        write(source + "/names/" + name, name);
    write(source + "/names/" + std::string(255, 'n'), "long");
    write(source + "/names/\xff\xfe"
                   "dir/in",
          "in");
    fs::create_symlink("\xfe/target", source + "/names/link");
}

void makeSpecials(std::string const& source) {
    fs::create_directories(source + "/special/private/deep");
    auto const special = source + "/special/";
    fs::create_symlink("/nowhere", special + "dangling");
    fs::create_symlink(std::string(3000, 't'), special + "long");
    ASSERT_EQ(::mkfifo((special + "fifo").c_str(), 0620), 0);
    ASSERT_EQ(::mknod((special + "socket").c_str(), S_IFSOCK | 0640, 0), 0);
    write(special + "setuid", "x");
    write(special + "unreadable", "secret");
    write(special + "private/deep/file", "f");
    ASSERT_EQ(::chmod((special + "setuid").c_str(), 06755), 0);
    ASSERT_EQ(::chmod((special + "unreadable").c_str(), 0), 0);
    ASSERT_EQ(::chmod((special + "private/deep").c_str(), 0500), 0);
    ASSERT_EQ(::chmod((special + "private").c_str(), 01777), 0);
    // A file with a name in each of three directories, and other objects with two names.
    fs::create_hard_link(special + "setuid", source + "/names/setuid");
    fs::create_hard_link(special + "setuid", source + "/holes/setuid");
    ASSERT_EQ(::link((special + "fifo").c_str(), (special + "fifo2").c_str()), 0);
    ASSERT_EQ(::link((special + "dangling").c_str(), (special + "dangling2").c_str()), 0);
    ASSERT_EQ(::setxattr((special + "unreadable").c_str(), "user.note", "a\0b", 3, 0), 0);
    ASSERT_EQ(::setxattr((special + "private").c_str(), "user.empty", "", 0, 0), 0);
    if (::geteuid() != 0)
        return;
    ASSERT_EQ(::mknod((special + "null").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    ASSERT_EQ(::mknod((special + "disk").c_str(), S_IFBLK | 0660, makedev(700, 70000)), 0);
    ASSERT_EQ(::lchown((special + "setuid").c_str(), 1234, 5678), 0);
    ASSERT_EQ(::chmod((special + "setuid").c_str(), 06755), 0);
    for (char const* name : {"dangling", "fifo", "private", "null"})
        ASSERT_EQ(::lchown((special + name).c_str(), 4000000000U, 77), 0);
    ASSERT_EQ(::lsetxattr((special + "dangling").c_str(), "trusted.of-link", "v", 1, 0), 0);
    // An access list: version 2; user rw-, user 1000 r--, group r--, mask r--, others ---.
    auto const list = QByteArray::fromHex("02000000"
                                          "01000600ffffffff"
                                          "02000400e8030000"
                                          "04000400ffffffff"
                                          "10000400ffffffff"
                                          "20000000ffffffff");
    auto const size = static_cast<std::size_t>(list.size());
    ASSERT_EQ(
        ::setxattr((source + "/size1").c_str(), "system.posix_acl_access", list.data(), size, 0),
        0);
    ASSERT_EQ(
        ::setxattr((special + "private").c_str(), "system.posix_acl_default", list.data(), size, 0),
        0);
}

/// Different times everywhere, the deepest first, so that no later change moves one: with and
/// without nanoseconds, before 1970 and beyond what 32 bits hold.
void setTimes(std::string const& source) {
    std::vector<std::string> paths{source};
    for (auto const& entry : fs::recursive_directory_iterator(source))
        paths.push_back(entry.path().string());
    std::sort(paths.begin(), paths.end(),
              [](auto const& a, auto const& b) { return a.size() > b.size(); });
    constexpr time_t from[] = {1, -2'000'000'000, time_t{1} << 31, time_t{1} << 32,
                               time_t{1} << 33};
    constexpr long nanoseconds[] = {0, 1, 123'456'789, 999'999'999};
    for (std::size_t i = 0; i < paths.size(); ++i)
        setTime(paths[i], from[i % std::size(from)] + static_cast<time_t>(98765 * i),
                nanoseconds[i % std::size(nanoseconds)]);
}

} // namespace

using RestorerTest = RestoreFixture;

TEST_F(RestorerTest, EveryKindOfObjectComesBackAsItWas) {
    makeFiles(source);
    makeNames(source);
    makeSpecials(source);
    setTimes(source);
    replicate();
    auto const instance = snapshot();
    FileTree const tree(*store(), instance);
    ASSERT_EQ(restore(tree, "", {}), Restorer::Result::Done);
    EXPECT_EQ(problems, "");
    EXPECT_EQ(treeState(target), treeState(source));

    // Again over itself, with every name taken, and with the live tree.
    RestoreOptions options;
    options.existing = ObjectWriter::Existing::Replace;
    options.workers = 3;
    ASSERT_EQ(restore(FileTree(*store(), {}), "", options), Restorer::Result::Done);
    EXPECT_EQ(problems, "");
    EXPECT_EQ(treeState(target), treeState(source));
}

TEST_F(RestorerTest, ADirectoryAFileAndALinkGetTheirTimesToTheNanosecond) {
    fs::create_directory(at("directory"));
    write(at("file"), "x");
    fs::create_symlink("target", at("link"));
    char const* const names[] = {"directory", "file", "link"};
    timespec const cases[] = {{-1, 999'999'999},
                              {0, 0},
                              {0, 1},
                              {time_t{1} << 31, 1},
                              {time_t{1} << 32, 0},
                              {(time_t{1} << 33) + 7, 5},
                              {1'700'000'000, 999'999'999}};
    for (auto const& modified : cases) {
        SCOPED_TRACE(FileTime::of(modified).text());
        timespec const both[2] = {{12345, 678}, modified};
        for (auto const* name : names)
            ASSERT_EQ(::utimensat(AT_FDCWD, at(name).c_str(), both, AT_SYMLINK_NOFOLLOW), 0);
        replicate();
        fs::remove_all(target);
        ASSERT_EQ(restore(FileTree(*store(), snapshot()), "", {}), Restorer::Result::Done);
        for (auto const* name : names) {
            struct stat status {};
            ASSERT_EQ(::lstat((target + '/' + name).c_str(), &status), 0);
            EXPECT_EQ(FileTime::of(status.st_mtim), FileTime::of(modified)) << name;
            EXPECT_EQ(FileTime::of(status.st_atim), FileTime::of(both[0])) << name;
        }
    }
}

TEST_F(RestorerTest, PartsOfATreeAreRestoredAlone) {
    fs::create_directories(source + "/a/b");
    write(at("a/b/one"), "1");
    write(at("a/two"), "2");
    write(at("three"), "3");
    setTimes(source);
    replicate();
    FileTree const tree(*store(), snapshot());
    ASSERT_EQ(restore(tree, "a", {}), Restorer::Result::Done);
    EXPECT_EQ(treeState(target), treeState(at("a")));
    target += "2";
    ASSERT_EQ(restore(tree, "a/b/one", {}), Restorer::Result::Done);
    EXPECT_EQ(stateOf(target + "/one"), stateOf(at("a/b/one")));
    EXPECT_EQ(problems, "");
}

TEST_F(RestorerTest, AnOlderVersionOfALinkedFileComesBackAsOneFile) {
    write(at("first"), "old");
    fs::create_hard_link(at("first"), at("second"));
    write(at("alone"), "old");
    setTimes(source);
    replicate();
    auto const instance = snapshot();
    auto const before = treeState(source);
    write(at("first"), "newer");
    write(at("alone"), "newer");
    replicate();
    static_cast<void>(snapshot());
    ASSERT_EQ(restore(FileTree(*store(), instance), "", {}), Restorer::Result::Done);
    EXPECT_EQ(problems, "");
    EXPECT_EQ(treeState(target), before);
}

TEST_F(RestorerTest, WhatIsInTheWayStaysWithoutOverwrite) {
    fs::create_directories(source + "/dir");
    write(at("dir/in"), "in");
    write(at("file"), "new");
    write(at("free"), "free");
    replicate();
    FileTree const tree(*store(), snapshot());
    fs::create_directories(target + "/file.d");
    write(target + "/file", "old");
    write(target + "/dir", "old");
    ASSERT_EQ(restore(tree, "", {}), Restorer::Result::Done);
    EXPECT_NE(problems.find("file: it can't be made: File exists"), std::string::npos);
    EXPECT_NE(problems.find("dir: it can't be made: File exists"), std::string::npos);
    EXPECT_EQ(contentOf(target + "/file") + contentOf(target + "/dir"), "oldold");
    EXPECT_EQ(contentOf(target + "/free"), "free");
}

TEST_F(RestorerTest, OverwritingFollowsNoLinkOutOfTheTarget) {
    auto const outside = path + "/outside";
    fs::create_directories(outside);
    write(outside + "/file", "outside");
    auto const before = treeState(outside);
    fs::create_directories(source + "/dir/sub");
    write(at("dir/in"), "in");
    write(at("file"), "inside");
    fs::create_hard_link(at("file"), at("file2"));
    replicate();
    fs::create_directories(target);
    fs::create_symlink(outside, target + "/dir");
    fs::create_symlink(outside + "/file", target + "/file");
    fs::create_hard_link(outside + "/file", target + "/file2");
    RestoreOptions options;
    options.existing = ObjectWriter::Existing::Replace;
    ASSERT_EQ(restore(FileTree(*store(), snapshot()), "", options), Restorer::Result::Done);
    EXPECT_EQ(problems, "");
    EXPECT_EQ(contentOf(outside + "/file"), "outside");
    EXPECT_EQ(treeState(outside), before);
    EXPECT_EQ(treeState(target), treeState(source));
}

TEST_F(RestorerTest, StreamsOfMailDescribeNoFile) {
    root->addSource("mail", "/mail", {}, SourceKind::Exchange);
    storeName = "mail";
    auto const forged =
        PosixSecurity{S_IFREG | 06777, 1234, 1234, 0, {{1, 1}, {2, 2}, {3, 3}}}.encode();
    PosixAttributes attributes;
    attributes.set("user.forged", "1");
    auto const extended = attributes.encode();
    apply<ExchangeLogger>([&](ExchangeLogger& logger) {
        ASSERT_TRUE(logger.createObject("s", "/mail/box/message"));
        for (auto const& [name, bytes] : {std::pair<char const*, QByteArray>{"Data", "text"},
                                          {"Security", forged},
                                          {"Link", "/etc/passwd"},
                                          {"Ea", extended}}) {
            ASSERT_TRUE(logger.createStream("s", name));
            ASSERT_TRUE(logger.writeStream("s", name, 0, Extent(bytes)));
        }
        ASSERT_TRUE(logger.closeObject("s"));
        // Nor does one that is no record of ours.
        ASSERT_TRUE(logger.createObject("s", "/mail/box/other"));
        ASSERT_TRUE(logger.createStream("s", "Data"));
        ASSERT_TRUE(logger.createStream("s", "Security"));
        ASSERT_TRUE(logger.writeStream("s", "Security", 0, Extent("anything", 8)));
    });
    FileTree const tree(*store(), snapshot());
    ASSERT_EQ(restore(tree, "box", {}), Restorer::Result::Done);
    EXPECT_EQ(problems, "");
    struct stat status {};
    ASSERT_EQ(::lstat((target + "/message").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & ~static_cast<mode_t>(0777), static_cast<mode_t>(S_IFREG));
    EXPECT_NE(status.st_uid, 1234U);
    EXPECT_EQ(attributesOf(target + "/message"), "");
    EXPECT_EQ(contentOf(target + "/message"), "text");
    EXPECT_TRUE(fs::exists(target + "/other"));
}

TEST_F(RestorerTest, HostileNamesReachNothingAndARingEnds) {
    apply([this](OperationLogger& logger) {
        std::uint32_t file = 0;
        ASSERT_TRUE(logger.create(source + "/good", S_IFREG | 0644, 0, 0, file));
        ASSERT_TRUE(logger.close(file));
        ASSERT_TRUE(logger.mkdir(source + "/dir", S_IFDIR | 0755, 0, 0));
    });
    // What no log can say, but a damaged or forged store can.
    auto& directories = store()->directories();
    auto const located = *directories.locate({"dir"}, PathMode::DoNotBuildPath);
    auto const good = *directories.locate({"good"}, PathMode::DoNotBuildPath);
    ASSERT_TRUE(located.found && good.found);
    auto const handle = *store()->activeHandles().get(located.key.fileId());
    auto const insert = [&](QString const& name, FileId id, std::uint32_t type) {
        auto key = directories.key(located.key.fileId(), name, type);
        key.fileId(id);
        ASSERT_TRUE(directories.insert(NotToBackup::eNothing, *handle, key, name));
    };
    insert("..", good.key.fileId(), fileType);
    insert(".", good.key.fileId(), fileType);
    insert("../../outside", good.key.fileId(), fileType);
    insert(QString(QChar(0)) + "nul", good.key.fileId(), fileType);
    insert("ring", store()->rootId(), directoryType);
    insert("stale", FileId{0x77700000123}, fileType);
    insert("notdir", good.key.fileId(), directoryType);
    FileTree const tree(*store(), {});
    ASSERT_EQ(restore(tree, "", {}), Restorer::Result::Done);
    for (char const* told : {"dir/..: it has no valid name", "dir/.: it has no valid name",
                             "outside: it has no valid name", "nul: it has no valid name",
                             "dir/ring: it is stored in two places", "dir/stale: ", "dir/notdir: "})
        EXPECT_NE(problems.find(told), std::string::npos) << told << " in\n" << problems;
    EXPECT_TRUE(fs::exists(target + "/good"));
    EXPECT_FALSE(fs::exists(path + "/outside"));
    EXPECT_FALSE(fs::exists(target + "/dir/ring"));
    std::size_t visited = 0;
    tree.walk(tree.root(), {}, [&](auto const&, auto const&) { return ++visited < 100; });
    EXPECT_LT(visited, 100U);
}

TEST_F(RestorerTest, LostContentIsReportedAndTheRestComesBack) {
    for (int i = 0; i < 40; ++i)
        write(at(("file" + std::to_string(100 + i)).c_str()), noise(50000));
    replicate();
    FileTree const tree(*store(), snapshot());
    auto const data = FixedPath::repositoryStreamData().toStdString() + "/data.blocks";
    ASSERT_TRUE(fs::exists(data));
    // The first files' blocks come first.
    fs::resize_file(data, 20 * 53248);
    ASSERT_EQ(restore(tree, "", {}), Restorer::Result::Done);
    int whole = 0;
    for (int i = 0; i < 40; ++i) {
        auto const name = "file" + std::to_string(100 + i);
        auto const same = contentOf(target + '/' + name) == contentOf(source + '/' + name);
        whole += same;
        EXPECT_EQ(same, problems.find(name) == std::string::npos) << name;
        EXPECT_EQ(fs::file_size(target + '/' + name), 50000U);
    }
    EXPECT_GT(whole, 10);
    EXPECT_LT(whole, 30);
}

TEST_F(RestorerTest, AStopLeavesNoHalfFile) {
    write(at("big"), noise(3 << 20));
    replicate();
    FileTree const tree(*store(), snapshot());
    RestoreOptions options;
    options.stop = [big = target + "/big"] {
        std::error_code error;
        return fs::exists(big, error) && fs::file_size(big, error) > 0;
    };
    EXPECT_EQ(restore(tree, "", options), Restorer::Result::Stopped);
    EXPECT_FALSE(fs::exists(target + "/big"));
    EXPECT_EQ(problems, "");
}

TEST_F(RestorerTest, ResumingKeepsWhatIsEqualAndMakesTheRestAsItWas) {
    makeFiles(source);
    setTimes(source);
    replicate();
    FileTree const tree(*store(), snapshot());
    ASSERT_EQ(restore(tree, "", {}), Restorer::Result::Done);
    auto const inodes = inodesOf(target);

    // As an interruption leaves it: files cut or not there, modes and times of their own.
    write(at("alone"), noise(300000));
    write(at("other"), noise(300000));
    setTimes(source);
    replicate();
    FileTree const later(*store(), snapshot());
    write(target + "/alone", contentOf(at("alone")));
    write(target + "/other", contentOf(at("other")).replace(299999, 1, "?"));
    ASSERT_EQ(::chmod((target + "/alone").c_str(), 0600), 0);
    auto const alone = inodesOf(target)["alone"];
    RestoreOptions options;
    options.existing = ObjectWriter::Existing::Resume;
    ASSERT_EQ(restore(later, "", options), Restorer::Result::Done);
    EXPECT_EQ(problems, "");
    EXPECT_EQ(treeState(target), treeState(source));
    auto const now = inodesOf(target);
    EXPECT_EQ(now.at("alone"), alone);
    std::size_t kept = 0;
    for (auto const& [name, inode] : inodes)
        kept += now.contains(name) && now.at(name) == inode;
    EXPECT_GT(kept, inodes.size() / 2);
}

TEST_F(RestorerTest, ResumingPartsFilesThatAreOneInTheTargetAlone) {
    write(at("one"), "same");
    write(at("two"), "same");
    replicate();
    fs::create_directories(target);
    write(target + "/one", "same");
    fs::create_hard_link(target + "/one", target + "/two");
    RestoreOptions options;
    options.existing = ObjectWriter::Existing::Resume;
    ASSERT_EQ(restore(FileTree(*store(), snapshot()), "", options), Restorer::Result::Done);
    EXPECT_EQ(fs::hard_link_count(target + "/one"), 1U);
    EXPECT_EQ(contentOf(target + "/one") + contentOf(target + "/two"), "samesame");
}

TEST_F(RestorerTest, OverwritingReplacesADirectoryWithAllThatIsInIt) {
    write(at("file"), "new");
    fs::create_symlink("target", at("link"));
    replicate();
    auto const outside = path + "/outside";
    fs::create_directories(outside);
    write(outside + "/stays", "outside");
    for (auto const* name : {"file", "link"}) {
        fs::create_directories(target + '/' + name + "/deep/er");
        write(target + '/' + name + "/deep/old", "old");
        fs::create_directory_symlink(outside, target + '/' + name + "/deep/out");
    }
    RestoreOptions options;
    options.existing = ObjectWriter::Existing::Replace;
    ASSERT_EQ(restore(FileTree(*store(), snapshot()), "", options), Restorer::Result::Done);
    EXPECT_EQ(problems, "");
    EXPECT_EQ(contentOf(target + "/file"), "new");
    EXPECT_TRUE(fs::is_symlink(target + "/link"));
    EXPECT_EQ(contentOf(outside + "/stays"), "outside");
}

TEST_F(RestorerTest, TheTargetIsClosedToOthersUntilItsEndAndAfterAStop) {
    for (int i = 0; i < 100; ++i)
        write(at(("file" + std::to_string(i)).c_str()), "text");
    ASSERT_EQ(::chmod(source.c_str(), 0755), 0);
    replicate();
    FileTree const tree(*store(), snapshot());
    auto const mode = [this] { return stateMode(target); };
    fs::create_directories(target);
    ASSERT_EQ(::chmod(target.c_str(), 0755), 0);
    std::atomic<bool> wasOpen = false;
    std::atomic<int> asked = 0;
    RestoreOptions options;
    options.stop = [&] {
        wasOpen = wasOpen || mode() != 0700;
        return ++asked == 20;
    };
    EXPECT_EQ(restore(tree, "", options), Restorer::Result::Stopped);
    EXPECT_EQ(mode(), 0700U);
    EXPECT_FALSE(wasOpen);
    options.existing = ObjectWriter::Existing::Resume;
    EXPECT_EQ(restore(tree, "", options), Restorer::Result::Done);
    EXPECT_EQ(mode(), 0755U);
    // A single object leaves the directory alone that it is put in.
    EXPECT_EQ(restore(tree, "file7", options), Restorer::Result::Done);
    EXPECT_EQ(mode(), 0755U);
}

TEST_F(RestorerTest, AUserWithoutPrivilegesGetsModesButNoForeignRights) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs to give privileges up";
    fs::create_directories(source + "/locked/in");
    write(at("locked/in/file"), "f");
    fs::create_hard_link(at("locked/in/file"), at("second"));
    write(at("setuid"), "s");
    ASSERT_EQ(::chmod(at("setuid").c_str(), 04755), 0);
    ASSERT_EQ(::chmod(at("locked/in").c_str(), 0), 0);
    ASSERT_EQ(::chmod(at("locked").c_str(), 0500), 0);
    setTimes(source);
    replicate();
    FileTree const tree(*store(), snapshot());
    fs::create_directories(target);
    constexpr uid_t nobody = 65534;
    for (auto const& entry : fs::recursive_directory_iterator(path))
        ASSERT_EQ(::lchown(entry.path().c_str(), nobody, nobody), 0);
    ASSERT_EQ(::chown(path.c_str(), nobody, nobody), 0);
    ASSERT_EQ(::seteuid(nobody), 0);
    auto const result = restore(tree, "", {});
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(result, Restorer::Result::Done);
    EXPECT_EQ(problems, "");
    auto const mode = [&](char const* name) {
        struct stat status {};
        EXPECT_EQ(::lstat((target + name).c_str(), &status), 0) << name;
        return status.st_mode & 07777;
    };
    EXPECT_EQ(mode("/locked"), 0500U);
    EXPECT_EQ(mode("/locked/in"), 0U);
    EXPECT_EQ(mode("/setuid"), 0755U);
    EXPECT_EQ(fs::hard_link_count(target + "/second"), 2U);
    EXPECT_EQ(fs::last_write_time(target + "/locked"), fs::last_write_time(at("locked")));
}
