#include "replication/repository/replay/RepositoryPosix.h"

#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <sys/stat.h>

namespace Replication {

using Morva::LogLevelE;
using Morva::LogLine;

namespace {

QString streamName(char16_t const* name) {
    return QString::fromUtf16(name);
}

/// What a log that makes an object says of it. Its times don't count until a log sets them.
PosixSecurity securityOf(LogEntry const& log, std::uint32_t mode) {
    return {mode, log.uid(), log.gid(), log.device(), log.exactTimes().value_or(FileTimes{})};
}

} // namespace

bool RepositoryPosix::replayBody(LogEntry const& log) {
    MORVA_TRACE(Debug) << "Process packet" << static_cast<std::uint32_t>(log.type());
    switch (log.type()) {
    case LogType::Close:
        return CloseOp(log);
    case LogType::Write:
        return writeOp(log);
    case LogType::PosixCreate:
        return opCreatePosix(log);
    case LogType::PosixOpen:
    case LogType::PosixReopen:
        return opOopenPosix(log);
    case LogType::PosixMkdir:
        return opMkdirPosix(log);
    case LogType::PosixMknod:
        return opMknodPosix(log);
    case LogType::PosixRename:
        return opRename(log);
    case LogType::PosixSymlink:
        return opSymlinkPosix(log);
    case LogType::PosixRmdir:
        return opRmdirPosix(log);
    case LogType::PosixSetEa:
        return opEaSetPosix(log);
    case LogType::PosixRemoveEa:
        return opEaRemovePosix(log);
    case LogType::PosixSetAttr:
        return opAttrSet(log);
    case LogType::PosixLink:
        return opLinkPosix(log);
    case LogType::PosixUnlink:
        return opUnlinkPosix(log);
    case LogType::PosixWritePath:
        return opWritePath(log);
    case LogType::PosixTruncate:
        return opTruncatePosix(log);
    case LogType::PosixResync:
        return opResyncPosix(log);
    default:
        break;
    }
    if (log.type() >= LogType::ExchangeCreateObject)
        MORVA_TRACE(Normal) << "Do not handle Exchange logs";
    else if (log.type() >= LogType::WinCreate)
        MORVA_TRACE(Normal) << "Do not handle Windows logs";
    return true;
}

bool RepositoryPosix::translate(QStringList& parts, std::string_view path) const {
    auto const text = posixText(path);
    MORVA_TRACE(Debug) << "source" << sourceRoot() << "translate" << text;
    QStringView rest(text);
    QStringView root(sourceRoot());
    while (root.endsWith(u'/'))
        root.chop(1);
    if (!rest.startsWith(root))
        return false;
    rest = rest.mid(root.size());
    if (!rest.isEmpty() && rest.front() != u'/')
        return false;
    parts.clear();
    for (auto const part : rest.split(u'/', Qt::SkipEmptyParts))
        parts += part.toString();
    return true;
}

RepositoryPosix::Place RepositoryPosix::place(std::string_view path, bool isDirectory) const {
    QStringList parts;
    return translate(parts, path) ? place(std::move(parts), isDirectory) : Place{};
}

QList<QStringList> RepositoryPosix::pathsOf(LogEntry const& log) {
    QList<QStringList> paths;
    for (auto const text : {log.file(), log.from(), log.to()}) {
        // The first name of a symlink is what it leads to.
        if (text.empty() || (log.type() == LogType::PosixSymlink && text == log.from()))
            continue;
        if (auto const where = place(text, false); where.space == Space::Inside)
            paths += where.path;
    }
    return paths;
}

RepositoryPosix::SinkHandlePointer RepositoryPosix::makeObject(LogEntry const& log,
                                                               Place const& place,
                                                               PosixSecurity const& security) {
    auto& paths = store().paths();
    auto const context = this->context(log, place.path, place.opType);
    auto const wantsDirectory = S_ISDIR(security.mode);
    PathOperations::NewFile file;
    file.nodeType = wantsDirectory ? directoryType : fileType;
    file.attributes = security.mode;
    file.owner = QString::number(security.uid);
    file.security = security.encode();
    file.replaces = true;
    auto const askIfMisfit = [&](PathOperations::Handle const& made) {
        // Something is in the way that the source didn't have there any more.
        if (made.code() == Morva::Status::Code::InvalidArgument)
            addResyncPath(place.path.join(u'/'), false);
    };
    if (!wantsDirectory) {
        auto made = paths.createStream(context, place.path, streamName(PosixStream::data), file);
        askIfMisfit(made);
        return valueOf(std::move(made));
    }
    auto const located =
        valueOf(store().directories().locate(place.path, PathMode::DoNotBuildPath));
    auto made = paths.createObject(context, place.path, file);
    askIfMisfit(made);
    auto handle = valueOf(std::move(made));
    if (handle && located.found && located.key.isDirectory() &&
        !describeAgain(context, *handle, std::move(file), security))
        return nullptr;
    return handle;
}

bool RepositoryPosix::opCreatePosix(LogEntry const& log) {
    auto const where = place(log.file(), false);
    if (where.space != Space::Inside) {
        insertHandle(log.fileId(), SinkHandle::Excluded);
        return true;
    }
    // A logged mode without type bits is that of a regular file.
    auto const mode = (log.mode() & S_IFMT) ? log.mode() : log.mode() | S_IFREG;
    auto handle = makeObject(log, where, securityOf(log, mode));
    if (!handle) {
        MORVA_TRACE(Always) << "Failed to create file" << where.path.join(u'/');
        return false;
    }
    insertHandle(log.fileId(), std::move(handle));
    return true;
}

bool RepositoryPosix::opOopenPosix(LogEntry const& log) {
    if (log.type() == LogType::PosixReopen) {
        [[maybe_unused]] auto const known = handle(log.fileId());
        return true;
    }
    auto const where = place(log.file(), false);
    if (where.space != Space::Inside) {
        insertHandle(log.fileId(), SinkHandle::Excluded);
        return true;
    }
    auto handle = valueOf(store().paths().openStream(context(log, where.path, where.opType),
                                                     where.path, streamName(PosixStream::data)));
    if (handle) {
        insertHandle(log.fileId(), std::move(handle));
        return true;
    }
    MORVA_TRACE(Always) << "Failed to open file" << where.path.join(u'/');
    addResyncPath(where.path.join(u'/'), false);
    enterLost(log.fileId(), where.path);
    return true;
}

bool RepositoryPosix::opMkdirPosix(LogEntry const& log) {
    auto const where = place(log.file(), true);
    if (where.space != Space::Inside)
        return true;
    auto const mode = (log.mode() & ~static_cast<std::uint32_t>(S_IFMT)) | S_IFDIR;
    if (makeObject(log, where, securityOf(log, mode)))
        return true;
    MORVA_TRACE(Always) << "Failed to mkdir" << where.path.join(u'/');
    return false;
}

bool RepositoryPosix::opMknodPosix(LogEntry const& log) {
    auto const where = place(log.file(), false);
    if (where.space != Space::Inside)
        return true;
    if (!S_ISDIR(log.mode()) && makeObject(log, where, securityOf(log, log.mode())))
        return true;
    MORVA_TRACE(Always) << "Failed to mknod" << where.path.join(u'/');
    return false;
}

bool RepositoryPosix::opSymlinkPosix(LogEntry const& log) {
    auto const where = place(log.to(), false);
    if (where.space != Space::Inside)
        return true;
    auto const handle = makeObject(log, where, securityOf(log, S_IFLNK | 0777));
    auto const target = log.from();
    if (handle &&
        worked(store().paths().replaceContent(
            context(log, where.path, where.opType), *handle, streamName(PosixStream::link),
            QByteArray(target.data(), static_cast<qsizetype>(target.size())))))
        return true;
    MORVA_TRACE(Always) << "in opSymlinkPosix"
                        << "Failed to create symlink" << where.path.join(u'/');
    return false;
}

bool RepositoryPosix::opLinkPosix(LogEntry const& log) {
    auto const from = place(log.from(), false);
    auto const to = place(log.to(), false);
    if (to.space != Space::Inside)
        return true;
    if (from.space != Space::Inside) {
        // Its contents were never logged here, so they must be asked for.
        addResyncPath(to.path.join(u'/'), false);
        return true;
    }
    auto const context = this->context(log, to.path, to.opType);
    auto const source = valueOf(store().directories().locate(from.path, PathMode::DoNotBuildPath));
    // Before the name is freed: what has it stays when there is nothing to link.
    auto const name = source.found ? freeName(context, to.path, source.key.fileId()) : Name::Failed;
    if (name == Name::Present ||
        (name == Name::Free && worked(store().paths().link(context, from.path, to.path))))
        return true;
    MORVA_TRACE(Always) << "Failed to link" << from.path.join(u'/') << to.path.join(u'/');
    return false;
}

bool RepositoryPosix::opUnlinkPosix(LogEntry const& log) {
    auto const where = place(log.file(), false);
    if (where.space != Space::Inside ||
        worked(store().paths().unlink(context(log, where.path, where.opType), where.path)))
        return true;
    MORVA_TRACE(Always) << "Failed to unlink" << where.path.join(u'/');
    return false;
}

bool RepositoryPosix::opRmdirPosix(LogEntry const& log) {
    auto const where = place(log.file(), true);
    if (where.space != Space::Inside ||
        worked(store().paths().unlink(context(log, where.path, where.opType), where.path)))
        return true;
    MORVA_TRACE(Always) << "Failed to rmdir" << where.path.join(u'/');
    return false;
}

bool RepositoryPosix::opTruncatePosix(LogEntry const& log) {
    auto const known = log.file().empty() ? handle(log.fileId()) : nullptr;
    if (known) {
        noteUnknown(log, *known);
        if (known->type != SinkHandle::Valid)
            return true;
        return worked(store().paths().truncate(through(log), *known, log.size(), log.bodyFlags()));
    }
    auto const where = place(log.file(), false);
    return where.space != Space::Inside ||
           worked(store().paths().truncate(context(log, where.path, where.opType), where.path,
                                           log.size(), log.bodyFlags()));
}

bool RepositoryPosix::opWritePath(LogEntry const& log) {
    if (!validWrite(log))
        return true;
    auto const where = place(log.file(), false);
    if (where.space == Space::Outside)
        MORVA_TRACE(Normal) << "Failed to translate name" << posixText(log.file());
    if (where.space != Space::Inside)
        return true;
    return worked(store().paths().write(context(log, where.path, where.opType), where.path,
                                        streamName(PosixStream::data), log.offset(),
                                        log.data().data, log.data().size));
}

bool RepositoryPosix::writeOp(LogEntry const& log) {
    return writeOpen(log);
}

bool RepositoryPosix::opResyncPosix(LogEntry const& log) {
    auto const where = place(log.file(), false);
    if (where.space != Space::Inside)
        return true;
    if (addResyncPath(where.path.join(u'/'), false))
        LogLine(QStringLiteral("Replication"), LogLevelE::Notice)
            << "Filter on source node '%1m' has requested a resynchronization for file %2s"
            << identity().sourceMachine << posixText(log.file());
    return true;
}

bool RepositoryPosix::CloseOp(LogEntry const& log) {
    closeOpen(log);
    return true;
}

} // namespace Replication
