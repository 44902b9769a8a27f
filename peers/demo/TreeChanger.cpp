#include "peers/demo/TreeChanger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace Replication {

namespace {

void check(bool done, char const* what, std::filesystem::path const& path) {
    if (!done)
        throw std::system_error(errno, std::generic_category(), what + (" " + path.string()));
}

void logged(bool done) {
    if (!done)
        throw std::system_error(EIO, std::generic_category(), "the log");
}

struct stat statOf(std::filesystem::path const& path) {
    struct stat result {};
    check(::lstat(path.c_str(), &result) == 0, "stat", path);
    return result;
}

} // namespace

TreeChanger::TreeChanger(std::filesystem::path root, OperationLogger& logger, std::uint64_t seed)
    : root_(std::filesystem::canonical(root)), logger_(logger), random_(seed) {
    collect();
}

void TreeChanger::collect() {
    files_.clear();
    directories_ = {root_};
    for (auto const& entry : std::filesystem::recursive_directory_iterator(root_)) {
        if (entry.is_symlink())
            continue;
        if (entry.is_directory())
            directories_.push_back(entry.path());
        else if (entry.is_regular_file())
            files_.push_back(entry.path());
    }
    // The order of a directory's names is the file system's; the changes must follow the seed.
    std::sort(files_.begin(), files_.end());
    std::sort(directories_.begin(), directories_.end());
    check(!files_.empty(), "no files in", root_);
}

TreeChanger::Path const& TreeChanger::anyFile() {
    return files_[random_() % files_.size()];
}

TreeChanger::Path const& TreeChanger::anyDirectory() {
    return directories_[random_() % directories_.size()];
}

TreeChanger::Path TreeChanger::newName(char const* prefix) {
    return anyDirectory() / (prefix + std::to_string(++serial_));
}

void TreeChanger::logTimes(Path const& path) {
    auto const status = statOf(path);
    PosixAttrValues values;
    values.flags = posixAttrModificationTime | posixAttrChangeTime;
    values.times = FileTimes::of(status);
    logged(logger_.setAttr(path.native(), values));
}

void TreeChanger::write(Path const& file, std::uint64_t offset, std::string const& text) {
    auto const descriptor = ::open(file.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC);
    check(descriptor >= 0, "open", file);
    auto const size = ::pwrite(descriptor, text.data(), text.size(), static_cast<off_t>(offset));
    ::close(descriptor);
    check(size == static_cast<ssize_t>(text.size()), "write", file);
    logged(logger_.writePath(file.native(), offset,
                             Morva::Extent(static_cast<void const*>(text.data()),
                                           static_cast<std::uint32_t>(text.size()))));
    logTimes(file);
}

void TreeChanger::append() {
    auto const& file = anyFile();
    write(file, static_cast<std::uint64_t>(statOf(file).st_size),
          std::string(1 + random_() % 20000, 'a'));
}

void TreeChanger::overwrite() {
    auto const& file = anyFile();
    auto const size = static_cast<std::uint64_t>(statOf(file).st_size);
    if (size < 2)
        return append();
    auto const offset = random_() % (size / 2);
    write(file, offset, std::string(1 + random_() % (size - offset), 'o'));
}

void TreeChanger::truncate() {
    auto const& file = anyFile();
    auto const size = static_cast<std::uint64_t>(statOf(file).st_size);
    // Now and then it grows, which leaves a hole.
    auto const wanted = random_() % 4 == 0 ? size + 100000 : random_() % (size + 1);
    check(::truncate(file.c_str(), static_cast<off_t>(wanted)) == 0, "truncate", file);
    logged(logger_.truncate(file.native(), wanted));
    logTimes(file);
}

void TreeChanger::create() {
    auto const file = newName("new-");
    auto const descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
    check(descriptor >= 0, "create", file);
    ::close(descriptor);
    auto const status = statOf(file);
    std::uint32_t id = 0;
    logged(logger_.create(file.native(), status.st_mode, status.st_uid, status.st_gid, id));
    logged(logger_.close(id));
    write(file, 0, std::string(random_() % 50000, 'n') + "\n");
    logTimes(file.parent_path());
    files_.push_back(file);
}

void TreeChanger::renameFile() {
    auto const from = anyFile();
    auto const to = newName("moved-");
    check(::rename(from.c_str(), to.c_str()) == 0, "rename", from);
    logged(logger_.rename(from.native(), to.native()));
    logTimes(from.parent_path());
    logTimes(to.parent_path());
    std::replace(files_.begin(), files_.end(), from, to);
}

void TreeChanger::renameDirectory() {
    auto const from = anyDirectory();
    if (from == root_)
        return;
    auto const to = from.parent_path() / ("dir-" + std::to_string(++serial_));
    check(::rename(from.c_str(), to.c_str()) == 0, "rename", from);
    logged(logger_.rename(from.native(), to.native()));
    logTimes(from.parent_path());
    collect();
}

void TreeChanger::hardLink() {
    auto const& file = anyFile();
    auto const name = newName("link-");
    check(::link(file.c_str(), name.c_str()) == 0, "link", file);
    logged(logger_.link(file.native(), name.native()));
    logTimes(name.parent_path());
}

void TreeChanger::symlink() {
    auto const name = newName("symlink-");
    auto const target = anyFile().string();
    check(::symlink(target.c_str(), name.c_str()) == 0, "symlink", name);
    auto const status = statOf(name);
    logged(logger_.symlink(target, name.native(), status.st_uid, status.st_gid));
    logTimes(name);
    logTimes(name.parent_path());
}

void TreeChanger::remove() {
    if (files_.size() < 2)
        return;
    auto const file = anyFile();
    check(::unlink(file.c_str()) == 0, "unlink", file);
    logged(logger_.unlink(file.native()));
    logTimes(file.parent_path());
    std::erase(files_, file);
}

void TreeChanger::removeDirectory() {
    auto const directory = newName("short-lived-");
    check(::mkdir(directory.c_str(), 0755) == 0, "mkdir", directory);
    auto const status = statOf(directory);
    logged(logger_.mkdir(directory.native(), status.st_mode, status.st_uid, status.st_gid));
    check(::rmdir(directory.c_str()) == 0, "rmdir", directory);
    logged(logger_.rmdir(directory.native()));
    logTimes(directory.parent_path());
}

void TreeChanger::changeMode() {
    auto const& file = anyFile();
    auto const mode = static_cast<mode_t>(0400 | (random_() & 0377));
    check(::chmod(file.c_str(), mode) == 0, "chmod", file);
    auto const status = statOf(file);
    PosixAttrValues values;
    values.flags = posixAttrMode | posixAttrChangeTime;
    values.mode = status.st_mode;
    values.times = FileTimes::of(status);
    logged(logger_.setAttr(file.native(), values));
}

void TreeChanger::changeTime() {
    auto const& file = anyFile();
    auto const seconds = static_cast<time_t>(1000000000 + random_() % 600000000);
    auto const nanoseconds = static_cast<long>(random_() % FileTime::nanosecondsPerSecond);
    timespec const times[2] = {{seconds, 0}, {seconds, nanoseconds}};
    check(::utimensat(AT_FDCWD, file.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0, "utimens", file);
    logTimes(file);
}

void TreeChanger::changeAttribute() {
    auto const& file = anyFile();
    auto const value = "value " + std::to_string(++serial_);
    // A file system without extended attributes has none to keep.
    if (::lsetxattr(file.c_str(), "user.morva", value.data(), value.size(), 0) != 0 &&
        errno == ENOTSUP)
        return;
    logged(logger_.setEa(file.native(), "user.morva",
                         Morva::Extent(static_cast<void const*>(value.data()),
                                       static_cast<std::uint32_t>(value.size()))));
}

void TreeChanger::run(int rounds) {
    struct Kind {
        char const* name;
        void (TreeChanger::*change)();
    };
    static constexpr Kind kinds[] = {
        {"append", &TreeChanger::append},
        {"overwrite", &TreeChanger::overwrite},
        {"truncate", &TreeChanger::truncate},
        {"create", &TreeChanger::create},
        {"rename file", &TreeChanger::renameFile},
        {"rename directory", &TreeChanger::renameDirectory},
        {"hard link", &TreeChanger::hardLink},
        {"symlink", &TreeChanger::symlink},
        {"delete", &TreeChanger::remove},
        {"make and remove directory", &TreeChanger::removeDirectory},
        {"mode", &TreeChanger::changeMode},
        {"time", &TreeChanger::changeTime},
        {"attribute", &TreeChanger::changeAttribute},
    };
    for (int round = 0; round < rounds; ++round) {
        for (auto const& kind : kinds) {
            (this->*kind.change)();
            ++counts_[kind.name];
        }
    }
}

} // namespace Replication
