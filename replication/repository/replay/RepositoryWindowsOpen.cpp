// Files are made, opened, closed and marked for deletion.

#include "base/trace/Trace.h"
#include "replication/common/log/SecurityText.h"
#include "replication/repository/replay/RepositoryWindows.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

namespace Replication {

bool RepositoryWindows::prepare(LogEntry const& log, Opening& opening, bool& failed) {
    opening.options = log.number(LogField::Options);
    opening.attributes = log.number(LogField::Attributes);
    opening.isDirectory = (log.flags() & logFlagDirectory) != 0;
    MORVA_TRACE(Debug) << "Attributes" << Morva::hex << opening.attributes << "Options"
                       << opening.options << "Disposition"
                       << static_cast<std::uint32_t>(opening.disposition());
    opening.target = target(log, opening.isDirectory);
    auto const& where = opening.target;
    failed = where.space == Space::Outside;
    if (failed) {
        MORVA_TRACE(Normal) << "Failed to translate path" << log.file();
        return false;
    }
    opening.answer = where.opType;
    if (where.space == Space::Excluded) {
        MORVA_TRACE(Debug) << "Excluded" << where.path.join(u'/');
        enterAbsent(log, SinkHandle::Excluded, opening.isDirectory);
        return false;
    }
    MORVA_TRACE(Debug) << "Open/Create file for" << where.path.join(u'/') << where.stream;
    opening.context = context(log, where.path, where.opType);
    return true;
}

bool RepositoryWindows::opCreateWin(LogEntry const& log) {
    MORVA_METHOD("opCreateWin");
    // A number that comes anew has been closed.
    if (!deletions_.empty())
        if (auto const before = removeHandle(log.fileId()))
            finishDeletionsAt(before.get());
    Opening opening;
    opening.exists = log.number(LogField::Exists) != 0;
    bool failed = false;
    bool const wanted = prepare(log, opening, failed);
    if (!wanted && !failed)
        return scope.result(true);
    SinkHandlePointer opened;
    if (wanted) {
        bool create = !opening.exists;
        if (!create)
            opened = openExisting(opening, create);
        if (!opened && create)
            opened = createNew(log, opening);
    }
    auto const tell = [&](auto&& line) {
        line << log.fileId() << "Exists" << opening.exists << "Disposition"
             << static_cast<std::uint32_t>(opening.disposition()) << "Options" << Morva::hex
             << opening.options << "Attributes" << opening.attributes;
    };
    if (opened) {
        if (Morva::Trace::enabled(Morva::TraceLevel::Debug))
            tell(Morva::TraceLine(Morva::TraceLevel::Debug, __FILE__, __LINE__) << "OpenSeqNo");
        insertHandle(log.fileId(), std::move(opened));
        return scope.result(true);
    }
    if (Morva::Trace::enabled(Morva::TraceLevel::Always)) {
        Morva::TraceLine line(Morva::TraceLevel::Always, __FILE__, __LINE__);
        tell(line << "Failed to create/open OpenSeqNo");
        line << "Operation" << Morva::dec << static_cast<std::int32_t>(opening.answer);
    }
    if (opening.exists && opening.answer == NotToBackup::eNothing)
        enterFailed(log, opening);
    else
        enterAbsent(log, SinkHandle::Unknown, opening.isDirectory);
    return scope.result(true);
}

void RepositoryWindows::enterFailed(LogEntry const& log, Opening const& opening) {
    askFor(opening.target.path);
    enterLost(log.fileId(), opening.target.path, opening.isDirectory ? directoryHandle : 0);
}

void RepositoryWindows::enterAbsent(LogEntry const& log, SinkHandle::Type type, bool isDirectory) {
    auto handle = std::make_shared<SinkHandle>(type);
    handle->flags = isDirectory ? directoryHandle : 0;
    insertHandle(log.fileId(), std::move(handle));
}

RepositoryWindows::SinkHandlePointer RepositoryWindows::openExisting(Opening const& opening,
                                                                     bool& create) {
    auto& paths = store().paths();
    auto const& where = opening.target;
    switch (opening.disposition()) {
    case WinDisposition::Open:
    case WinDisposition::Create:
    case WinDisposition::OpenIf:
        return valueOf(paths.openStream(opening.context, where.path, where.stream));
    case WinDisposition::Supersede:
    case WinDisposition::Overwrite:
    case WinDisposition::OverwriteIf:
        break;
    default:
        MORVA_TRACE(Always) << "Unknown disposition"
                            << static_cast<std::uint32_t>(opening.disposition());
        return nullptr;
    }
    auto const makes = opening.disposition() != WinDisposition::Overwrite;
    if (where.stream == dataStreamName) {
        auto opened = valueOf(paths.supersede(opening.context, where.path));
        create = !opened && makes;
        if (opened && opened->activeHandle.use_count() > 1)
            dropLostStreams(*opened->activeHandle);
        return opened;
    }
    auto opened = valueOf(paths.openStream(opening.context, where.path, where.stream));
    // A stream that is missing can be made; what else the file holds could not.
    create = !opened && makes &&
             valueOf(store().directories().locate(where.path, PathMode::DoNotBuildPath)).found;
    if (opened && !worked(paths.truncate(opening.context, *opened, 0, 0)))
        return nullptr;
    return opened;
}

PathOperations::NewFile RepositoryWindows::newFile(LogEntry const& log, Opening const& opening) {
    PathOperations::NewFile file;
    file.nodeType = opening.isDirectory ? directoryType : fileType;
    file.attributes = opening.attributes;
    if (opening.isDirectory)
        file.attributes = (file.attributes | winFileDirectory) & ~std::uint32_t{winFileNormal};
    if (auto const user = log.bytes(LogField::User); WindowsSecurity::validSid(user))
        file.owner = QString::fromStdString(sidText(user));
    else if (user.size != 0)
        MORVA_TRACE(Always) << "Damaged owner of OpenSeqNo" << log.fileId();
    MORVA_TRACE(Verbose) << "New file owned by" << file.owner;
    auto const security = log.bytes(LogField::Security);
    if (WindowsSecurity::valid(security)) {
        file.security = security.toByteArray();
    } else if (security.size != 0) {
        MORVA_TRACE(Always) << "Damaged security descriptor of OpenSeqNo" << log.fileId();
        askFor(opening.target.path);
    }
    // What the store still has under the name of a new file has gone at the source.
    file.replaces = state() != eRunningDuringSnapshot && opening.target.stream == dataStreamName;
    return file;
}

RepositoryWindows::SinkHandlePointer RepositoryWindows::createNew(LogEntry const& log,
                                                                  Opening& opening) {
    auto const& where = opening.target;
    // Of a plain new file nothing is asked that making it wouldn't find out.
    auto const asks = opening.isDirectory || where.stream != dataStreamName || !deletions_.empty();
    auto const there =
        asks ? valueOf(store().directories().locate(where.path, PathMode::DoNotBuildPath))
             : Directories::Located();
    if (there.found)
        finishDeletionsOf(there.key.fileId());
    auto file = newFile(log, opening);
    // A stream says nothing of what it is a stream of.
    if (there.found && where.stream != dataStreamName)
        file.nodeType = there.key.type();
    opening.context.user = file.owner;
    auto created =
        valueOf(store().paths().createStream(opening.context, where.path, where.stream, file));
    if (!created)
        return createAnyway(opening);
    auto const known = there.found && created->activeHandle->id() == there.key.fileId();
    if (!known || state() == eRunningDuringSnapshot)
        return created;
    // The directory was made by what came before it, or the stream is an old one.
    bool const done = where.stream != dataStreamName
                          ? worked(store().paths().truncate(opening.context, *created, 0, 0))
                          : describe(opening.context, *created, file);
    return done ? created : nullptr;
}

RepositoryWindows::SinkHandlePointer RepositoryWindows::createAnyway(Opening const& opening) {
    auto& paths = store().paths();
    auto const& where = opening.target;
    if (state() == eRunningDuringSnapshot)
        return valueOf(paths.openStream(opening.context, where.path, where.stream));
    if (opening.isDirectory || where.stream != dataStreamName)
        return nullptr;
    auto opened = valueOf(paths.supersede(opening.context, where.path));
    if (opened && !worked(paths.truncate(opening.context, *opened, 0, 0)))
        return nullptr;
    return opened;
}

bool RepositoryWindows::opReOpenWin(LogEntry const& log) {
    MORVA_METHOD("opReOpenWin");
    MORVA_TRACE(Debug) << "LFB:opReOpenWin" << log.fileId();
    if (handle(log.fileId())->type != SinkHandle::Unknown) {
        MORVA_TRACE(Debug) << "LFB::ReOpen - have handle" << log.fileId();
        return scope.result(true);
    }
    Opening opening;
    bool failed = false;
    SinkHandlePointer opened;
    if (prepare(log, opening, failed))
        opened = valueOf(store().paths().openStream(opening.context, opening.target.path,
                                                    opening.target.stream));
    else if (!failed)
        return scope.result(true);
    if (opened) {
        insertHandle(log.fileId(), std::move(opened));
        return scope.result(true);
    }
    MORVA_TRACE(Always) << "Failed to reopen OpenSeqNo" << log.fileId();
    if (opening.answer == NotToBackup::eNothing)
        enterFailed(log, opening);
    else
        enterAbsent(log, SinkHandle::Unknown, opening.isDirectory);
    return scope.result(true);
}

bool RepositoryWindows::opClose(LogEntry const& log) {
    auto const closed = closeOpen(log);
    if (!deletions_.empty())
        finishDeletionsAt(closed.get());
    return true;
}

bool RepositoryWindows::opUnlinkWin(LogEntry const& log) {
    auto const known = validHandle(log);
    if (!known)
        return true;
    if (known->activeHandle->id() == store().rootId() && !isNamed(*known)) {
        MORVA_TRACE(Always) << "Cannot unlink root directory"
                            << "Failed to unlink OpenSeqNo" << log.fileId();
        return false;
    }
    if (std::find(deletions_.begin(), deletions_.end(), known) == deletions_.end())
        deletions_.push_back(known);
    MORVA_TRACE(Debug) << "Unlinked" << log.fileId() << pathOf(*known).join(u'/');
    return true;
}

} // namespace Replication
