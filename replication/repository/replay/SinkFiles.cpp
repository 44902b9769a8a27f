// What the sinks of file systems do alike to files.

#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "replication/repository/replay/Sink.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

namespace Replication {

namespace {

/// A larger "Ea" or "Security" stream is damage: no system lets one file have as much.
constexpr std::uint64_t maximumSmallStream = 16 * 1024 * 1024;

} // namespace

Sink::Place Sink::place(QStringList path, bool isDirectory) const {
    Place result;
    result.path = std::move(path);
    result.opType = operation(result.path, isDirectory);
    result.space = result.opType == NotToBackup::eExcluded ? Space::Excluded : Space::Inside;
    return result;
}

FileContext Sink::through(LogEntry const& log) {
    FileContext result;
    result.sourceTime = log.time();
    return result;
}

bool Sink::validWrite(LogEntry const& log) const {
    if (log.length() == log.data().size)
        return true;
    MORVA_TRACE(Always) << "mismatching write lengths" << log.length() << log.data().size
                        << "Failed to write to OpenSeqNo" << log.fileId();
    Morva::LogLine(QStringLiteral("Replication"), Morva::LogLevelE::Error)
        << "Filter on source node '%1m' logged an invalid write operation"
        << identity().sourceMachine;
    return false;
}

bool Sink::writeOpen(LogEntry const& log) {
    if (!validWrite(log))
        return true;
    auto const data = log.data();
    auto const known = handle(log.fileId());
    noteUnknown(log, *known);
    if (known->type != SinkHandle::Valid ||
        worked(store().paths().write(through(log), *known, log.offset(), data.data, data.size)))
        return true;
    MORVA_TRACE(Always) << "Failed to write to OpenSeqNo" << log.fileId();
    return false;
}

Sink::SinkHandlePointer Sink::closeOpen(LogEntry const& log) {
    auto closed = removeHandle(log.fileId());
    if (closed)
        MORVA_TRACE(Debug) << "Close OpenSeqNo" << log.fileId() << "Writes" << closed->id;
    else
        MORVA_TRACE(Normal) << "Failed to close OpenSeqNo, but ignore" << log.fileId();
    return closed;
}

QByteArray Sink::readWhole(SinkHandle const& handle, QString const& name) {
    auto const stream = valueOf(handle.activeHandle->fileNode()->openStream(name));
    auto const length = stream ? stream->length() : 0;
    if (length == 0 || length > maximumSmallStream)
        return {};
    QByteArray bytes(static_cast<qsizetype>(length), '\0');
    auto const count = stream->read(0, bytes.data(), static_cast<std::uint32_t>(length));
    bytes.truncate(static_cast<qsizetype>(count));
    return bytes;
}

bool Sink::describe(FileContext const& context, SinkHandle& handle,
                    PathOperations::NewFile const& file) {
    if (!worked(handle.activeHandle->attributes(handle.link, file.attributes)) ||
        (!file.owner.isEmpty() && !worked(handle.activeHandle->owner(handle.link, file.owner))))
        return false;
    return file.security.isEmpty() || worked(store().paths().replaceContent(
                                          context, handle, securityStreamName, file.security));
}

Sink::Name Sink::freeName(FileContext const& context, QStringList const& path, FileId file) {
    auto const there = store().directories().locate(path, PathMode::DoNotBuildPath);
    if (!worked(there.status()))
        return Name::Failed;
    if (!there->found)
        return Name::Free;
    if (file && there->key.fileId() == file)
        return Name::Present;
    return worked(store().paths().unlink(context, path)) ? Name::Free : Name::Failed;
}

} // namespace Replication
