#include "peers/morva/ObjectWriter.h"

#include "peers/morva/ContentWriter.h"
#include "replication/repository/streams/StreamHandle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

namespace Morva {

using Replication::FileNode;
using Replication::PosixAttributes;
using Replication::StreamHandle;

namespace {

constexpr char const* accessList = "system.posix_acl_access";
constexpr char const* defaultList = "system.posix_acl_default";

/// The process's file mode mask; the system has no way to ask for it alone.
mode_t processMask() {
    auto const mask = ::umask(077);
    ::umask(mask);
    return mask;
}

/// Access time, left as it is where it isn't known, and modification time.
struct Times {
    explicit Times(ObjectAttributes const& attributes) {
        values[0] =
            attributes.accessed.known() ? attributes.accessed.system() : timespec{0, UTIME_OMIT};
        values[1] = attributes.modified.system();
    }
    timespec values[2];
};

/// Gives an object its extended attributes by one of the system's calls.
template <class Set>
void setAttributes(PosixAttributes const& extended, WriteResult& result, Set&& set) {
    for (auto const& [name, value] : extended.all())
        if (name.contains('\0'))
            result.add(QStringLiteral("an extended attribute has no valid name"));
        else if (set(name.constData(), value.constData(), static_cast<std::size_t>(value.size())))
            result.add("an extended attribute can't be set", errno);
}

/// Extended attributes that the store doesn't have, of an object that is kept. Those of the system
/// ("system.", "security.") come and go with what else is set.
void removeOthers(int opened, PosixAttributes const& extended) {
    auto const size = ::flistxattr(opened, nullptr, 0);
    if (size <= 0)
        return;
    QByteArray names(static_cast<qsizetype>(size), Qt::Uninitialized);
    auto const got = ::flistxattr(opened, names.data(), static_cast<std::size_t>(size));
    for (auto const& name :
         names.left(static_cast<qsizetype>(std::max<ssize_t>(got, 0))).split('\0')) {
        auto const isStored = [&](auto const& each) { return each.first == name; };
        auto const& all = extended.all();
        if (name.startsWith("user.") && std::none_of(all.begin(), all.end(), isStored))
            ::fremovexattr(opened, name.constData());
    }
}

} // namespace

Descriptor::~Descriptor() {
    if (number_ >= 0)
        ::close(number_);
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        static_cast<void>(close());
        number_ = other.release();
    }
    return *this;
}

int Descriptor::release() {
    return std::exchange(number_, -1);
}

int Descriptor::close() {
    return number_ >= 0 && ::close(release()) != 0 ? errno : 0;
}

void WriteResult::addTaking(char const* what, int error) {
    fatal = fatal || error == ENOSPC || error == EDQUOT || error == EROFS;
    add(what, error);
}

void WriteResult::add(char const* what, int error) {
    add(QString::fromUtf8(what) + QStringLiteral(": ") +
        QString::fromLocal8Bit(std::strerror(error)));
}

void WriteResult::add(QString const& what) {
    if (reason.isEmpty())
        reason = what;
}

ObjectWriter::ObjectWriter(int root, Existing existing)
    : existing_(existing),
      privileged_(::geteuid() == 0),
      user_(::geteuid()),
      group_(::getegid()),
      mask_(processMask()) {
    struct stat status {};
    // A directory that is there already below the root may pass on what the root doesn't.
    inherits_ = existing != Existing::Refuse || ::fstat(root, &status) != 0 ||
                (status.st_mode & S_ISGID) != 0 || ::fgetxattr(root, defaultList, nullptr, 0) > 0;
}

bool ObjectWriter::changesOwner(ObjectAttributes const& attributes) const {
    auto const& security = attributes.security;
    return privileged_ && (inherits_ || security.uid != user_ || security.gid != group_);
}

mode_t ObjectWriter::finalMode(ObjectAttributes const& attributes) const {
    auto const& security = attributes.security;
    auto mode = security.mode & 07777;
    // The rights of another owner must not become those of this user.
    if (!privileged_ && security.uid != user_)
        mode &= ~static_cast<mode_t>(S_ISUID);
    if (!privileged_ && security.gid != group_ && !S_ISDIR(security.mode))
        mode &= ~static_cast<mode_t>(S_ISGID);
    return mode;
}

bool ObjectWriter::closes(mode_t mode) const {
    return !privileged_ && (mode & S_IRWXU) != S_IRWXU;
}

bool ObjectWriter::clear(int directory, QByteArray const& name) const {
    if (errno != EEXIST || existing_ == Existing::Refuse)
        return false;
    if (::unlinkat(directory, name.constData(), 0) == 0)
        return true;
    if (errno != EISDIR)
        return false;
    // No link is followed, neither the name itself nor any below it.
    std::error_code error;
    std::filesystem::remove_all(
        "/proc/self/fd/" + std::to_string(directory) + '/' + name.toStdString(), error);
    errno = error.value();
    return !error;
}

Descriptor ObjectWriter::openKept(int directory, QByteArray const& name, StreamHandle& content,
                                  ObjectAttributes const& attributes, Buffer& buffer,
                                  Written const& written) const {
    if (existing_ != Existing::Resume)
        return Descriptor();
    Descriptor opened(
        ::openat(directory, name.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    // What has several names, here or in the store, is made anew: its other names may belong to
    // objects that are not the same in the store.
    auto const fits = opened && attributes.links == 1 && ::fstat(opened.get(), &status) == 0 &&
                      S_ISREG(status.st_mode) && status.st_nlink == 1 &&
                      holdsContent(opened.get(), content, buffer, written);
    return fits ? std::move(opened) : Descriptor();
}

bool ObjectWriter::keepsOther(int directory, QByteArray const& name,
                              ObjectAttributes const& attributes, QByteArray const& target) const {
    struct stat status {};
    auto const* const at = name.constData();
    auto const& security = attributes.security;
    if (existing_ != Existing::Resume || attributes.links != 1 ||
        ::fstatat(directory, at, &status, AT_SYMLINK_NOFOLLOW) != 0 || status.st_nlink != 1 ||
        (status.st_mode & S_IFMT) != (security.mode & S_IFMT))
        return false;
    if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode))
        return status.st_rdev == security.device;
    if (!S_ISLNK(status.st_mode))
        return true;
    QByteArray there(target.size() + 1, Qt::Uninitialized);
    auto const size =
        ::readlinkat(directory, at, there.data(), static_cast<std::size_t>(there.size()));
    return size == target.size() && there.startsWith(target);
}

void ObjectWriter::describe(int opened, ObjectAttributes const& attributes,
                            PosixAttributes const& extended, WriteResult& result) const {
    auto const& security = attributes.security;
    if (changesOwner(attributes) && ::fchown(opened, security.uid, security.gid) != 0)
        result.add("its owner can't be set", errno);
    if (inherits_) {
        ::fremovexattr(opened, accessList);
        if (S_ISDIR(security.mode))
            ::fremovexattr(opened, defaultList);
    }
    if (existing_ != Existing::Refuse)
        removeOthers(opened, extended);
    setAttributes(extended, result, [&](char const* name, char const* value, std::size_t size) {
        return ::fsetxattr(opened, name, value, size, 0);
    });
    if (::fchmod(opened, finalMode(attributes)) != 0)
        result.add("its mode can't be set", errno);
}

WriteResult ObjectWriter::make(int directory, QByteArray const& name, FileNode& node,
                               ObjectAttributes const& attributes, Buffer& buffer,
                               Written const& written) const {
    return S_ISREG(attributes.security.mode)
               ? file(directory, name, node, attributes, buffer, written)
               : other(directory, name, node, attributes);
}

WriteResult ObjectWriter::file(int directory, QByteArray const& name, FileNode& node,
                               ObjectAttributes const& attributes, Buffer& buffer,
                               Written const& written) const {
    WriteResult result;
    auto const content = FileTree::content(node);
    if (!content) {
        result.add(QStringLiteral("its content is lost"));
        return result;
    }
    auto const extended = FileTree::extendedAttributes(node);
    if (!extended)
        result.add(QStringLiteral("its extended attributes are damaged"));
    auto opened = openKept(directory, name, *content, attributes, buffer, written);
    if (!opened && !written(0)) {
        result.add(QStringLiteral("interrupted"));
        return result;
    }
    result.kept = static_cast<bool>(opened);
    if (result.kept && ::fchmod(opened.get(), 0600) != 0)
        result.add("its mode can't be set", errno);
    auto const mode = finalMode(attributes);
    // Most files need nothing beyond what they can be made with.
    auto const plain = !result.kept && !inherits_ && extended && extended->empty() &&
                       !changesOwner(attributes) && (mode & (mask_ | 07000)) == 0;
    auto const create = [&] {
        return Descriptor(::openat(directory, name.constData(),
                                   O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                   plain ? mode : 0600));
    };
    if (!result.kept)
        opened = create();
    if (!opened && clear(directory, name))
        opened = create();
    if (!opened) {
        result.addTaking("it can't be made", errno);
        return result;
    }
    if (!result.kept && !writeContent(opened.get(), *content, buffer, written, result)) {
        ::unlinkat(directory, name.constData(), 0);
        return result;
    }
    if (!plain)
        describe(opened.get(), attributes, extended.value_or(PosixAttributes()), result);
    if (::futimens(opened.get(), Times(attributes).values) != 0)
        result.add("its time can't be set", errno);
    if (auto const error = opened.close())
        result.addTaking("it can't be written", error);
    result.made = true;
    return result;
}

WriteResult ObjectWriter::other(int directory, QByteArray const& name, FileNode& node,
                                ObjectAttributes const& attributes) const {
    WriteResult result;
    auto const& security = attributes.security;
    auto const isLink = S_ISLNK(security.mode);
    auto const target = isLink ? FileTree::linkTarget(node) : QByteArray();
    if (!target) {
        result.add(QStringLiteral("its target is lost"));
        return result;
    }
    auto const* const at = name.constData();
    auto const create = [&] {
        return isLink ? ::symlinkat(target->constData(), directory, at)
                      : ::mknodat(directory, at, (security.mode & S_IFMT) | 0600, security.device);
    };
    result.kept = keepsOther(directory, name, attributes, *target);
    if (!result.kept && create() != 0 && (!clear(directory, name) || create() != 0)) {
        result.addTaking("it can't be made", errno);
        return result;
    }
    result.made = true;
    if (changesOwner(attributes) &&
        ::fchownat(directory, at, security.uid, security.gid, AT_SYMLINK_NOFOLLOW) != 0)
        result.add("its owner can't be set", errno);
    auto const extended = FileTree::extendedAttributes(node);
    if (!extended)
        result.add(QStringLiteral("its extended attributes are damaged"));
    // There is no call that takes a directory and a name.
    auto const path = "/proc/self/fd/" + QByteArray::number(directory) + '/' + name;
    if (extended)
        setAttributes(*extended, result, [&](char const* key, char const* value, std::size_t size) {
            return ::lsetxattr(path.constData(), key, value, size, 0);
        });
    if (!isLink && ::fchmodat(directory, at, finalMode(attributes), AT_SYMLINK_NOFOLLOW) != 0)
        result.add("its mode can't be set", errno);
    if (::utimensat(directory, at, Times(attributes).values, AT_SYMLINK_NOFOLLOW) != 0)
        result.add("its time can't be set", errno);
    return result;
}

namespace {

/// Leaves errno as it is.
bool isSameObject(int fromDirectory, QByteArray const& from, int directory,
                  QByteArray const& name) {
    struct stat one {};
    struct stat other {};
    auto const error = errno;
    auto const same = ::fstatat(fromDirectory, from.constData(), &one, AT_SYMLINK_NOFOLLOW) == 0 &&
                      ::fstatat(directory, name.constData(), &other, AT_SYMLINK_NOFOLLOW) == 0 &&
                      one.st_dev == other.st_dev && one.st_ino == other.st_ino;
    errno = error;
    return same;
}

} // namespace

WriteResult ObjectWriter::link(int fromDirectory, QByteArray const& from, int directory,
                               QByteArray const& name, bool& impossible) const {
    WriteResult result;
    auto const create = [&] {
        return ::linkat(fromDirectory, from.constData(), directory, name.constData(), 0);
    };
    result.made = create() == 0;
    result.kept = !result.made && existing_ == Existing::Resume && errno == EEXIST &&
                  isSameObject(fromDirectory, from, directory, name);
    result.made = result.made || result.kept || (clear(directory, name) && create() == 0);
    impossible = !result.made &&
                 (errno == EMLINK || errno == EPERM || errno == EXDEV || errno == EOPNOTSUPP);
    if (!result.made)
        result.add("it can't be linked", errno);
    return result;
}

bool ObjectWriter::openExisting(int directory, QByteArray const& name, Descriptor& opened) const {
    auto const* const at = name.constData();
    struct stat status {};
    if (::fstatat(directory, at, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(status.st_mode))
        return false;
    // One that was restored before may be closed to its owner by its mode.
    if (closes(status.st_mode))
        (void)::fchmodat(directory, at, 0700, 0); // the opening tells if that was needed
    opened = Descriptor(::openat(directory, at, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return static_cast<bool>(opened);
}

WriteResult ObjectWriter::makeDirectory(int directory, QByteArray const& name,
                                        Descriptor& opened) const {
    WriteResult result;
    auto const* const at = name.constData();
    auto const open = [&] {
        return Descriptor(::openat(directory, at, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    };
    if (::mkdirat(directory, at, 0700) != 0) {
        auto const error = errno;
        if (error == EEXIST && existing_ != Existing::Refuse &&
            openExisting(directory, name, opened)) {
            result.made = true;
            return result;
        }
        errno = error;
        if (!clear(directory, name) || ::mkdirat(directory, at, 0700) != 0) {
            result.addTaking("it can't be made", errno);
            return result;
        }
    }
    opened = open();
    result.made = static_cast<bool>(opened);
    if (!opened)
        result.add("it can't be opened", errno);
    return result;
}

WriteResult ObjectWriter::finishDirectory(int opened, FileNode& node,
                                          ObjectAttributes const& attributes) const {
    WriteResult result;
    result.made = true;
    auto const extended = FileTree::extendedAttributes(node);
    if (!extended)
        result.add(QStringLiteral("its extended attributes are damaged"));
    describe(opened, attributes, extended.value_or(PosixAttributes()), result);
    if (::futimens(opened, Times(attributes).values) != 0)
        result.add("its time can't be set", errno);
    return result;
}

} // namespace Morva
