// Attributes, extended attributes and renames of POSIX objects.

#include "replication/repository/replay/RepositoryPosix.h"

#include "base/trace/Trace.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <sys/stat.h>

namespace Replication {

namespace {

constexpr std::uint32_t securityFlags = posixAttrMode | posixAttrUid | posixAttrGid;
constexpr std::uint32_t timeFlags = posixAttrModificationTime | posixAttrChangeTime;
constexpr std::uint32_t handledFlags = securityFlags | timeFlags;

/// What a log that sets a time by its word, and perhaps exactly, leaves in the record. A log
/// without the exact time means whole seconds.
void setTime(FileTime& stored, std::uint32_t word, FileTime exact) {
    if (exact.counts(word))
        stored = exact;
    else if (stored.counts(word) && stored != FileTime::wholeSeconds(word))
        stored = FileTime{};
}

void setTimes(FileTimes& stored, LogEntry const& log) {
    auto const exact = log.exactTimes().value_or(FileTimes{});
    auto const flags = log.bodyFlags();
    if (flags & posixAttrModificationTime)
        setTime(stored.modification, log.modificationTime(), exact.modification);
    if (flags & posixAttrChangeTime)
        setTime(stored.change, log.changeTime(), exact.change);
    if ((flags & posixAttrAccessTime) && exact.access.counts(log.accessTime()))
        stored.access = exact.access;
}

} // namespace

bool RepositoryPosix::opAttrSet(LogEntry const& log) {
    MORVA_TRACE(Debug) << "Flags are" << log.bodyFlags();
    if ((log.bodyFlags() & handledFlags) == 0) {
        MORVA_TRACE(Debug) << "Nothing to do";
        return true;
    }
    auto const object = existing(log.file());
    if (!object.exists)
        return true;
    return object.handle &&
           setAttributes(log, context(log, object.place.path, object.place.opType), *object.handle);
}

bool RepositoryPosix::setAttributes(LogEntry const& log, FileContext const& context,
                                    SinkHandle& handle) {
    if (!setSecurity(log, context, handle))
        return false;
    auto const flags = log.bodyFlags();
    return worked(handle.activeHandle->attr(
        handle.link, (flags & posixAttrModificationTime) != 0, log.modificationTime(),
        (flags & posixAttrChangeTime) != 0, log.changeTime(), false, 0));
}

bool RepositoryPosix::setSecurity(LogEntry const& log, FileContext const& context,
                                  SinkHandle& handle) {
    auto const flags = log.bodyFlags();
    auto const link = handle.link;
    auto& active = *handle.activeHandle;
    auto const name = QString::fromUtf16(PosixStream::security);
    // A default that is only assumed so far becomes known, but not by a time.
    auto const assumed = !active.fileNode()->exists(name);
    if (assumed && (flags & securityFlags) == 0)
        return true;
    auto const stored = readSecurity(handle);
    if (!stored) {
        // The rest of a record that can't be read must not become a default.
        MORVA_TRACE(Always) << "The security of node" << active.fileNode()->id() << "can't be read";
        return (flags & securityFlags) == 0;
    }
    auto const& before = *stored;
    auto security = before;
    if (flags & posixAttrMode)
        security.mode =
            (security.mode & S_IFMT) | (log.mode() & ~static_cast<std::uint32_t>(S_IFMT));
    if (flags & posixAttrUid)
        security.uid = log.uid();
    if (flags & posixAttrGid)
        security.gid = log.gid();
    setTimes(security.times, log);
    if (!assumed && security.sameButAccess(before))
        return true;
    if (!worked(store().paths().replaceContent(context, handle, name, security.encode())))
        return false;
    if (!assumed && security.sameButTimes(before))
        return true;
    return worked(active.owner(link, QString::number(security.uid))) &&
           worked(active.attr(link, false, 0, false, 0, true, security.mode));
}

bool RepositoryPosix::describeAgain(FileContext const& context, SinkHandle& handle,
                                    PathOperations::NewFile file, PosixSecurity security) {
    if (auto const before = readSecurity(handle)) {
        if (!security.times.known())
            security.times = before->times;
        // A directory that is as it was costs no write.
        if (security.sameButAccess(*before))
            security.times.access = before->times.access;
    }
    file.security = security.encode();
    return describe(context, handle, file);
}

RepositoryPosix::Existing RepositoryPosix::existing(std::string_view path) {
    Existing result;
    QStringList parts;
    if (!translate(parts, path))
        return result;
    auto located = valueOf(store().directories().locate(parts, PathMode::DoNotBuildPath));
    if (!located.found) {
        MORVA_TRACE(Normal) << "Failed to find file, ignore" << parts.join(u'/');
        return result;
    }
    // Exclusions for files don't hold for a directory of such a name.
    result.place = place(std::move(parts), located.key.isDirectory());
    if (result.place.space != Space::Inside)
        return result;
    result.exists = true;
    auto handle = std::make_shared<SinkHandle>(SinkHandle::Valid);
    handle->activeHandle = valueOf(
        located.key.isRoot()
            ? store().activeHandles().get(store().rootId())
            : store().activeHandles().get(located.key, located.key.liveOnly() ? LiveMode::LiveOnly
                                                                              : LiveMode::Clear));
    handle->link = located.key.link();
    if (handle->activeHandle)
        result.handle = std::move(handle);
    else
        MORVA_TRACE(Always) << "Failed to open" << result.place.path.join(u'/');
    return result;
}

std::optional<PosixSecurity> RepositoryPosix::readSecurity(SinkHandle const& handle) {
    auto const& node = handle.activeHandle->fileNode();
    auto const name = QString::fromUtf16(PosixStream::security);
    // Only a directory that was made because a path needed it has none.
    if (!node->exists(name))
        return PosixSecurity{node->isDirectory() ? S_IFDIR | 0755u : S_IFREG | 0644u, 0, 0, 0, {}};
    auto const record = readWhole(handle, name);
    return PosixSecurity::decode(Morva::Extent(record));
}

bool RepositoryPosix::changeAttributes(LogEntry const& log,
                                       std::function<void(PosixAttributes&)> const& change) {
    auto const object = existing(log.file());
    if (!object.exists)
        return true;
    if (!object.handle)
        return false;
    auto const& where = object.place;
    auto const name = QString::fromUtf16(PosixStream::attributes);
    auto const tooMany = [&] {
        leaveOut(posixText(log.file()),
                 QStringLiteral("it has more than 16 MiB of extended attributes"));
        return true;
    };
    auto const size = object.handle->activeHandle->size(name);
    if (!worked(size.status()))
        return false;
    if (*size > PosixAttributes::maximumSize)
        return tooMany();
    auto const record = readWhole(*object.handle, name);
    auto attributes = PosixAttributes::decode(Morva::Extent(record));
    if (!attributes || static_cast<std::uint64_t>(record.size()) != *size) {
        // What can't be read must not be replaced by the one attribute that is known.
        MORVA_TRACE(Always) << "Damaged extended attributes of" << where.path.join(u'/');
        return false;
    }
    change(*attributes);
    auto const encoded = attributes->encode();
    if (encoded.size() > qsizetype{PosixAttributes::maximumSize})
        return tooMany();
    return encoded == record ||
           worked(store().paths().replaceContent(context(log, where.path, where.opType),
                                                 *object.handle, name, encoded));
}

bool RepositoryPosix::opEaSetPosix(LogEntry const& log) {
    MORVA_TRACE(Debug) << "Data" << log.data().size << "Flags" << log.bodyFlags();
    auto const name = log.eaName();
    return changeAttributes(log, [&](PosixAttributes& attributes) {
        attributes.set(QByteArray(name.data(), static_cast<qsizetype>(name.size())),
                       log.data().toByteArray());
    });
}

bool RepositoryPosix::opEaRemovePosix(LogEntry const& log) {
    auto const name = log.eaName();
    return changeAttributes(log, [&](PosixAttributes& attributes) {
        attributes.remove(QByteArray(name.data(), static_cast<qsizetype>(name.size())));
    });
}

bool RepositoryPosix::opRename(LogEntry const& log) {
    QStringList parts;
    auto const fromSpace = translate(parts, log.from());
    auto const located =
        fromSpace ? valueOf(store().directories().locate(parts, PathMode::DoNotBuildPath))
                  : Directories::Located{};
    auto const isDirectory = located.found && located.key.isDirectory();
    auto from = fromSpace ? place(std::move(parts), isDirectory) : Place{};
    auto to = place(log.to(), isDirectory);
    if (!located.found) {
        // What was never stored may be a directory, unless that would have been stored.
        auto const asDirectory = fromSpace ? place(log.from(), true).space : Space::Outside;
        auto const certain = from.space == Space::Inside && asDirectory == Space::Excluded;
        if (asDirectory != Space::Inside && (certain || to.space == Space::Excluded))
            to = place(log.to(), true);
        from.space = certain ? Space::Excluded : from.space;
    }
    if (from.space == Space::Outside && to.space == Space::Outside)
        return false;
    if (from.space == Space::Inside && to.space == Space::Inside) {
        MORVA_TRACE(Normal) << "Rename - from and to both in replication space";
        if (worked(store().paths().rename(context(log, to.path, to.opType), notToBackup(),
                                          from.path, to.path)))
            return true;
        MORVA_TRACE(Always) << "Failed to rename" << from.path.join(u'/') << to.path.join(u'/');
        return false;
    }
    if (from.space == Space::Inside) {
        MORVA_TRACE(Normal) << "Rename - only from in replication space, remove it";
        if (worked(store().paths().unlink(context(log, from.path, from.opType), from.path)))
            return true;
        MORVA_TRACE(Always) << "Failed to delete file" << from.path.join(u'/');
        return false;
    }
    if (to.space == Space::Inside) {
        MORVA_TRACE(Normal) << "Rename - only to in replication space";
        // Its contents were never logged here, so they must be asked for.
        addResyncPath(to.path.join(u'/'), false);
    }
    return true;
}

} // namespace Replication
