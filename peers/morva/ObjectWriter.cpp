#include "peers/morva/ObjectWriter.h"

#include "replication/repository/streams/StreamHandle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
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

bool writeAll(int file, std::uint8_t const* bytes, std::uint64_t count, std::uint64_t offset) {
    while (count > 0) {
        auto const done = ::pwrite(file, bytes, count, static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        bytes += done;
        offset += static_cast<std::uint64_t>(done);
        count -= static_cast<std::uint64_t>(done);
    }
    return true;
}

/// Writes the content and leaves its holes out. False when the file can't be used.
bool writeContent(int file, StreamHandle& content, ObjectWriter::Buffer& buffer,
                  ObjectWriter::Written const& written, WriteResult& result) {
    auto const length = content.length();
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    std::uint64_t reached = 0;
    while (content.findData(start, end)) {
        for (; start < end; start = reached) {
            auto const count = static_cast<std::uint32_t>(
                std::min<std::uint64_t>(end - start, ObjectWriter::Buffer::size));
            if (content.readWhole(start, buffer.bytes(), count) != count)
                result.add(QStringLiteral("parts of its content can't be read and are zeros"));
            if (!writeAll(file, buffer.bytes(), count, start)) {
                result.addTaking("it can't be written", errno);
                return false;
            }
            reached = start + count;
            if (!written(count)) {
                result.add(QStringLiteral("interrupted"));
                return false;
            }
        }
    }
    if (reached < length && ::ftruncate(file, static_cast<off_t>(length)) != 0) {
        result.addTaking("it can't get its size", errno);
        return false;
    }
    return true;
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

ObjectWriter::ObjectWriter(int root, bool overwrite)
    : overwrite_(overwrite),
      privileged_(::geteuid() == 0),
      user_(::geteuid()),
      group_(::getegid()),
      mask_(processMask()) {
    struct stat status {};
    // A directory that is there already below the root may pass on what the root doesn't.
    inherits_ = overwrite || ::fstat(root, &status) != 0 || (status.st_mode & S_ISGID) != 0 ||
                ::fgetxattr(root, defaultList, nullptr, 0) > 0;
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
    return errno == EEXIST && overwrite_ && ::unlinkat(directory, name.constData(), 0) == 0;
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
    auto const mode = finalMode(attributes);
    // Most files need nothing beyond what they can be made with.
    auto const plain = !inherits_ && extended && extended->empty() && !changesOwner(attributes) &&
                       (mode & (mask_ | 07000)) == 0;
    auto const create = [&] {
        return Descriptor(::openat(directory, name.constData(),
                                   O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                   plain ? mode : 0600));
    };
    auto opened = create();
    if (!opened && clear(directory, name))
        opened = create();
    if (!opened) {
        result.addTaking("it can't be made", errno);
        return result;
    }
    if (!writeContent(opened.get(), *content, buffer, written, result)) {
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
    if (create() != 0 && (!clear(directory, name) || create() != 0)) {
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

WriteResult ObjectWriter::link(int fromDirectory, QByteArray const& from, int directory,
                               QByteArray const& name, bool& impossible) const {
    WriteResult result;
    auto const create = [&] {
        return ::linkat(fromDirectory, from.constData(), directory, name.constData(), 0);
    };
    result.made = create() == 0 || (clear(directory, name) && create() == 0);
    impossible = !result.made &&
                 (errno == EMLINK || errno == EPERM || errno == EXDEV || errno == EOPNOTSUPP);
    if (!result.made)
        result.add("it can't be linked", errno);
    return result;
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
        if (error == EEXIST && overwrite_) {
            opened = open();
            if (opened) {
                result.made = true;
                return result;
            }
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
