// Logs with values that no store can hold are left out, and their paths marked.

#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "replication/repository/replay/LogCheck.h"
#include "replication/repository/replay/Sink.h"

namespace Replication {

using Morva::LogLevelE;
using Morva::LogLine;

namespace {

QStringView withoutSeparator(QStringView path) {
    while (path.endsWith(u'/') || path.endsWith(u'\\'))
        path.chop(1);
    return path;
}

} // namespace

bool Sink::leavesOut(LogEntry const& log) {
    auto const fault = unsupportedValue(log);
    if (!fault)
        return false;
    auto const path = fault->path.empty() ? openPath(log) : posixText(fault->path);
    // What isn't stored anyway is nobody's loss.
    if (fault->path.empty() ? path.isEmpty() : !isBelowRoot(path))
        return false;
    leaveOut(path, QString::fromUtf8(fault->reason));
    openNothing(log);
    return true;
}

bool Sink::isBelowRoot(QString const& path) const {
    auto const root = withoutSeparator(sourceRoot());
    auto const sensitivity = caseSensitive() ? Qt::CaseSensitive : Qt::CaseInsensitive;
    return path.startsWith(root, sensitivity) &&
           (path.size() == root.size() || path[root.size()] == u'/' || path[root.size()] == u'\\');
}

void Sink::leaveOut(QString const& path, QString const& reason) {
    MORVA_TRACE(Normal) << "Unsupported," << reason << path.left(UnsupportedPaths::maximumText);
    ++leftOut_;
    if (!unsupported_.add(path, reason))
        return;
    LogLine(QStringLiteral("Replication"), LogLevelE::Error)
        << "A change of %2s on source node '%1m' can't be stored and is left out: %3s"
        << identity().sourceMachine << path.left(UnsupportedPaths::maximumText) << reason;
}

void Sink::openNothing(LogEntry const& log) {
    if (log.type() == LogType::PosixCreate || log.type() == LogType::PosixOpen)
        insertHandle(log.fileId(), SinkHandle::Excluded);
}

QString Sink::openPath(LogEntry const& log) {
    auto const open = std::static_pointer_cast<SinkHandle>(openHandles().value(log.fileId()));
    if (!open || open->type != SinkHandle::Valid)
        return {};
    return withoutSeparator(sourceRoot()).toString() + u'/' +
           (open->parent + QStringList(open->name)).join(u'/');
}

/// A path that is made anew, or goes, is as at the source again.
void Sink::noLongerUnsupported(LogEntry const& log) {
    if (unsupported_.empty())
        return;
    switch (log.type()) {
    case LogType::PosixCreate:
    case LogType::PosixMkdir:
    case LogType::PosixMknod:
    case LogType::PosixUnlink:
    case LogType::PosixRmdir:
        return unsupported_.remove(posixText(log.file()));
    case LogType::PosixSymlink:
        return unsupported_.remove(posixText(log.to()));
    case LogType::ExchangeCreateObject:
    case LogType::ExchangeDeleteObject:
    case LogType::ExchangeDeleteObjectToo:
        return unsupported_.remove(posixText(log.text(LogField::ObjectPath)));
    default:
        return;
    }
}

} // namespace Replication
