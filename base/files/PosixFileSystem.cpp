#include "base/files/PosixFileSystem.h"

#include "base/files/PosixFile.h"
#include "base/trace/Trace.h"
#include "base/values/PosixText.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Morva {

namespace {

/// The bytes of a name; EINVAL when it has a zero byte, at which the system would cut it.
Result<QByteArray> bytesOf(QString const& name, char const* operation) {
    auto bytes = encodePosixText(name);
    if (bytes.contains('\0'))
        return Status::fromErrno(EINVAL, operation, name);
    return bytes;
}

FileSystem::Kind kindOf(mode_t mode) {
    if (S_ISREG(mode))
        return FileSystem::Kind::File;
    return S_ISDIR(mode) ? FileSystem::Kind::Directory : FileSystem::Kind::Other;
}

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

/// Not all file systems tell the kind in the listing.
Result<FileSystem::Kind> kindOf(DIR* directory, dirent const& entry, QString const& path) {
    if (entry.d_type == DT_REG)
        return FileSystem::Kind::File;
    if (entry.d_type == DT_DIR)
        return FileSystem::Kind::Directory;
    if (entry.d_type != DT_UNKNOWN)
        return FileSystem::Kind::Other;
    struct stat found {};
    if (::fstatat(::dirfd(directory), entry.d_name, &found, AT_SYMLINK_NOFOLLOW) != 0)
        return Status::fromErrno(errno, "list", path + u'/' + decodePosixText(entry.d_name));
    return kindOf(found.st_mode);
}

} // namespace

std::unique_ptr<RawFile> PosixFileSystem::make() {
    return std::make_unique<PosixFile>();
}

Result<std::optional<FileSystem::Information>> PosixFileSystem::stat(QString const& name) {
    MORVA_TRY_LET(auto const path, bytesOf(name, "stat"));
    struct stat found {};
    if (::lstat(path.constData(), &found) != 0) {
        if (errno == ENOENT)
            return std::optional<Information>();
        return Status::fromErrno(errno, "stat", name);
    }
    return std::optional(Information{kindOf(found.st_mode),
                                     static_cast<std::uint64_t>(found.st_size),
                                     found.st_mtim.tv_sec, found.st_uid});
}

Result<std::vector<FileSystem::Entry>> PosixFileSystem::list(QString const& directory) {
    MORVA_TRY_LET(auto const path, bytesOf(directory, "list"));
    std::unique_ptr<DIR, CloseDirectory> const open(::opendir(path.constData()));
    if (!open)
        return Status::fromErrno(errno, "list", directory);
    std::vector<Entry> entries;
    for (;;) {
        errno = 0;
        dirent const* const entry = ::readdir(open.get());
        if (!entry)
            break;
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        auto const kind = kindOf(open.get(), *entry, directory);
        if (kind.code() == Status::Code::NotFound)
            continue; // removed since it was listed
        if (!kind)
            return kind.status();
        entries.push_back({decodePosixText(entry->d_name), *kind});
    }
    if (errno != 0)
        return Status::fromErrno(errno, "list", directory);
    std::sort(entries.begin(), entries.end(),
              [](Entry const& a, Entry const& b) { return a.name < b.name; });
    return entries;
}

Status PosixFileSystem::makeDirectory(QString const& path) {
    MORVA_TRY_LET(auto const whole, bytesOf(path, "make directory"));
    int error = ::mkdir(whole.constData(), 0777) == 0 ? 0 : errno;
    if (error == ENOENT) {
        // Those above it first.
        for (qsizetype slash = whole.indexOf('/', 1); slash > 0;
             slash = whole.indexOf('/', slash + 1))
            if (::mkdir(whole.left(slash).constData(), 0777) != 0 && errno != EEXIST)
                return Status::fromErrno(errno, "make directory",
                                         decodePosixText(whole.left(slash)));
        error = ::mkdir(whole.constData(), 0777) == 0 ? 0 : errno;
    }
    struct stat found {};
    if (error == EEXIST && ::stat(whole.constData(), &found) == 0 && S_ISDIR(found.st_mode))
        return {};
    return error == 0 ? Status() : Status::fromErrno(error, "make directory", path);
}

Status PosixFileSystem::removeDirectory(QString const& path) {
    MORVA_TRY_LET(auto const whole, bytesOf(path, "remove directory"));
    return ::rmdir(whole.constData()) == 0 ? Status()
                                           : Status::fromErrno(errno, "remove directory", path);
}

Status PosixFileSystem::rename(QString const& from, QString const& to) {
    MORVA_TRY_LET(auto const old, bytesOf(from, "rename"));
    MORVA_TRY_LET(auto const fresh, bytesOf(to, "rename"));
    if (std::rename(old.constData(), fresh.constData()) == 0)
        return {};
    int const error = errno;
    MORVA_TRACE(Always) << "Failed to rename file" << from << "to" << to << TraceErrorCode{error};
    return Status::fromErrno(error, "rename", from);
}

Status PosixFileSystem::remove(QString const& name) {
    MORVA_TRY_LET(auto const path, bytesOf(name, "remove"));
    if (::unlink(path.constData()) == 0)
        return {};
    int const error = errno;
    if (error != ENOENT)
        MORVA_TRACE(Always) << "Failed to remove file" << name << TraceErrorCode{error};
    return Status::fromErrno(error, "remove", name);
}

Status PosixFileSystem::syncDirectory(QString const& path) {
    MORVA_TRY_LET(auto const name, bytesOf(path, "sync"));
    int const descriptor = ::open(name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int const error = descriptor < 0 || ::fsync(descriptor) != 0 ? errno : 0;
    if (descriptor >= 0)
        ::close(descriptor);
    // Some file systems can't sync a directory, and need not.
    if (error == 0 || (descriptor >= 0 && error == EINVAL))
        return {};
    MORVA_TRACE(Always) << "Failed to sync directory" << path << TraceErrorCode{error};
    return Status::fromErrno(error, "sync", path);
}

} // namespace Morva
