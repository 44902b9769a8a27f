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
constexpr std::uint32_t handledFlags =
    securityFlags | posixAttrModificationTime | posixAttrChangeTime;

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
    auto const flags = log.bodyFlags();
    auto const link = handle.link;
    auto& active = *handle.activeHandle;
    if (flags & securityFlags) {
        auto security = readSecurity(handle);
        auto const before = security;
        // A default that was only assumed so far is now known.
        auto const assumed = !active.fileNode()->exists(QString::fromUtf16(PosixStream::security));
        if (flags & posixAttrMode)
            security.mode =
                (security.mode & S_IFMT) | (log.mode() & ~static_cast<std::uint32_t>(S_IFMT));
        if (flags & posixAttrUid)
            security.uid = log.uid();
        if (flags & posixAttrGid)
            security.gid = log.gid();
        if (assumed || security != before) {
            if (!store().paths().replaceContent(
                    context, handle, QString::fromUtf16(PosixStream::security), security.encode()))
                return false;
            active.owner(link, QString::number(security.uid));
            if (!active.attr(link, false, 0, false, 0, true, security.mode))
                return false;
        }
    }
    auto const setModified = (flags & posixAttrModificationTime) != 0;
    auto const setChanged = (flags & posixAttrChangeTime) != 0;
    return active.attr(link, setModified, log.modificationTime(), setChanged, log.changeTime(),
                       false, 0);
}

RepositoryPosix::Existing RepositoryPosix::existing(std::string_view path) {
    Existing result;
    QStringList parts;
    if (!translate(parts, path))
        return result;
    auto located = store().directories().locate(parts, PathMode::DoNotBuildPath);
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
    handle->activeHandle =
        located.key.isRoot()
            ? store().activeHandles().get(store().rootId())
            : store().activeHandles().get(located.key, located.key.liveOnly() ? LiveMode::LiveOnly
                                                                              : LiveMode::Clear);
    handle->link = located.key.link();
    if (handle->activeHandle)
        result.handle = std::move(handle);
    else
        MORVA_TRACE(Always) << "Failed to open" << result.place.path.join(u'/');
    return result;
}

PosixSecurity RepositoryPosix::readSecurity(SinkHandle const& handle) {
    auto const record = readWhole(handle, QString::fromUtf16(PosixStream::security));
    if (auto const security = PosixSecurity::decode(Morva::Extent(record)))
        return *security;
    // Only a directory that was made because a path needed it has none.
    return {handle.activeHandle->fileNode()->isDirectory() ? S_IFDIR | 0755u : S_IFREG | 0644u, 0,
            0, 0};
}

bool RepositoryPosix::changeAttributes(LogEntry const& log,
                                       std::function<void(PosixAttributes&)> const& change) {
    auto const object = existing(log.file());
    if (!object.exists)
        return true;
    if (!object.handle)
        return false;
    auto const& where = object.place;
    auto const record = readWhole(*object.handle, QString::fromUtf16(PosixStream::attributes));
    auto attributes = PosixAttributes::decode(Morva::Extent(record));
    if (!attributes) {
        MORVA_TRACE(Always) << "Damaged extended attributes of" << where.path.join(u'/');
        attributes.emplace();
    }
    change(*attributes);
    auto const encoded = attributes->encode();
    return encoded == record ||
           store().paths().replaceContent(context(log, where.path, where.opType), *object.handle,
                                          QString::fromUtf16(PosixStream::attributes), encoded);
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
    auto const located = fromSpace ? store().directories().locate(parts, PathMode::DoNotBuildPath)
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
        if (store().paths().rename(context(log, to.path, to.opType), notToBackup(), from.path,
                                   to.path))
            return true;
        MORVA_TRACE(Always) << "Failed to rename" << from.path.join(u'/') << to.path.join(u'/');
        return false;
    }
    if (from.space == Space::Inside) {
        MORVA_TRACE(Normal) << "Rename - only from in replication space, remove it";
        if (store().paths().unlink(context(log, from.path, from.opType), from.path))
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
