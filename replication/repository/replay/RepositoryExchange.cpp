#include "replication/repository/replay/RepositoryExchange.h"

#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

namespace Replication {

using Morva::LogLevelE;
using Morva::LogLine;
using Morva::Status;

Status RepositoryExchange::dropHandles() {
    openObjects_.clear();
    return Sink::dropHandles();
}

void RepositoryExchange::forgetHandles() {
    openObjects_.clear();
    Sink::forgetHandles();
}

void RepositoryExchange::saveMore(SavedHandles& handles) {
    // Their streams are opened again as they are used.
    for (auto const& [sequence, open] : openObjects_)
        handles.object(sequence, *open.object, open.writes);
}

Status RepositoryExchange::takeUpMore(SavedHandles& handles) {
    return handles.objects(
        [this](std::string_view sequence, SinkHandlePointer object, std::uint32_t writes) {
            if ((object->flags & SinkHandle::lost) != 0)
                addResyncPath(pathOf(*object).join(u'/'), false);
            openObjects_.insert_or_assign(std::string(sequence),
                                          OpenObject{std::move(object), {}, writes});
        });
}

QList<QStringList> RepositoryExchange::pathsOf(LogEntry const& log) {
    QList<QStringList> paths;
    QStringList parts;
    auto const path = log.text(LogField::ObjectPath);
    if (auto const open = openObjects_.find(log.text(LogField::Sque)); open != openObjects_.end()) {
        if (!open->second.object->name.isEmpty())
            paths += pathOf(*open->second.object);
    } else if (!path.empty() && translateAsList(parts, path)) {
        paths += parts;
    }
    return paths;
}

bool RepositoryExchange::replayBody(LogEntry const& log) {
    switch (log.type()) {
    case LogType::ExchangeCreateObject:
        return createObject(log);
    case LogType::ExchangeCreateStream:
        return createStream(log);
    case LogType::ExchangeWriteStream:
        return writeStream(log);
    case LogType::ExchangeCloseObject:
        return closeObject(log);
    case LogType::ExchangeDeleteObject:
    case LogType::ExchangeDeleteObjectToo:
        return deleteObject(log);
    case LogType::PosixResync:
    case LogType::WinResync:
        return resync(log);
    default:
        break;
    }
    if (log.type() >= LogType::WinCreate && log.type() <= LogType::WinSetValidLength)
        MORVA_TRACE(Normal) << "Do not handle Windows logs";
    else if (log.type() >= LogType::Close && log.type() <= LogType::PosixReopen)
        MORVA_TRACE(Normal) << "Do not handle Posix logs";
    return true;
}

bool RepositoryExchange::translateAsList(QStringList& parts, std::string_view path) const {
    MORVA_METHOD("translateAsList");
    auto const text = posixText(path);
    QStringView rest(text);
    QStringView root(sourceRoot());
    while (root.endsWith(u'/'))
        root.chop(1);
    // The root ends where an element of the path does.
    auto const inside = rest.startsWith(root, Qt::CaseInsensitive) &&
                        (rest.size() == root.size() || rest[root.size()] == u'/');
    if (!inside) {
        MORVA_TRACE(Normal) << text << "does not start with" << sourceRoot();
        return scope.result(false);
    }
    rest = rest.mid(root.size());
    MORVA_TRACE(Debug) << "Translated to" << rest.toString();
    parts.clear();
    for (auto const part : rest.split(u'/', Qt::SkipEmptyParts))
        parts += part.toString();
    return scope.result(true);
}

RepositoryExchange::OpenObject* RepositoryExchange::openObject(LogEntry const& log) {
    auto const open = openObjects_.find(log.text(LogField::Sque));
    if (open != openObjects_.end())
        return &open->second;
    MORVA_TRACE(Always) << "No object is open for sequence" << posixText(log.text(LogField::Sque));
    return nullptr;
}

void RepositoryExchange::enter(std::string_view sequence, OpenObject open) {
    MORVA_TRACE(Debug) << "Object sequence" << posixText(sequence) << open.object->type;
    openObjects_.insert_or_assign(std::string(sequence), std::move(open));
}

void RepositoryExchange::openNothing(LogEntry const& log) {
    if (log.type() != LogType::ExchangeCreateObject)
        return;
    OpenObject open;
    open.object = std::make_shared<SinkHandle>(SinkHandle::Excluded);
    enter(log.text(LogField::Sque), std::move(open));
}

QString RepositoryExchange::openPath(LogEntry const& log) {
    auto const* const open = openObject(log);
    if (!open || open->object->type != SinkHandle::Valid)
        return {};
    auto const& object = *open->object;
    return sourceRoot() + u'/' + (object.parent + QStringList(object.name)).join(u'/');
}

bool RepositoryExchange::createObject(LogEntry const& log) {
    MORVA_METHOD("createObject");
    auto const sequence = log.text(LogField::Sque);
    auto const path = log.text(LogField::ObjectPath);
    OpenObject open;
    QStringList parts;
    auto opType = NotToBackup::eExcluded;
    if (translateAsList(parts, path))
        opType = operation(parts, false);
    else
        MORVA_TRACE(Normal) << "Failed to translate path" << posixText(path);
    if (opType == NotToBackup::eExcluded) {
        open.object = std::make_shared<SinkHandle>(SinkHandle::Excluded);
        enter(sequence, std::move(open));
        return scope.result(true);
    }
    FileContext context;
    context.sourceTime = log.time();
    context.opType = opType;
    context.dedup = opType != NotToBackup::eLiveOnly && dedupAllowed(parts);
    open.object = valueOf(store().paths().createObject(context, parts, {}));
    auto const made = open.object != nullptr;
    if (!made) {
        MORVA_TRACE(Always) << "Failed to create object" << posixText(path);
        MORVA_TRACE(Always) << "Failed to create Object sequence" << posixText(sequence);
        open.object = std::make_shared<SinkHandle>(SinkHandle::Unknown);
    }
    enter(sequence, std::move(open));
    return scope.result(made);
}

RepositoryExchange::SinkHandlePointer
RepositoryExchange::stream(OpenObject& open, QString const& name, MakeStream make) {
    auto const normal = store().directories().normal(name);
    if (auto const known = open.streams.find(normal); known != open.streams.end())
        return known->second;
    auto& object = *open.object->activeHandle;
    auto const& node = object.fileNode();
    if (name.isEmpty() || !node)
        return nullptr;
    auto result = std::make_shared<SinkHandle>(SinkHandle::Valid);
    if (node->exists(name))
        result->streamHandle =
            valueOf(object.openStream(open.object->link, name, open.object->dedup));
    else if (make == MakeStream::Yes)
        result->streamHandle =
            valueOf(object.createStream(open.object->link, name, open.object->dedup));
    if (!result->streamHandle)
        return nullptr;
    result->activeHandle = open.object->activeHandle;
    result->parent = open.object->parent;
    result->name = open.object->name;
    result->stream = name;
    result->link = open.object->link;
    result->dedup = open.object->dedup;
    open.streams.emplace(normal, result);
    return result;
}

bool RepositoryExchange::createStream(LogEntry const& log) {
    MORVA_METHOD("createStream");
    auto const name = posixText(log.text(LogField::Stream));
    auto* const open = openObject(log);
    if (open && open->object->type != SinkHandle::Valid)
        return scope.result(true);
    if (open && stream(*open, name, MakeStream::Yes))
        return scope.result(true);
    MORVA_TRACE(Always) << "Failed to create stream" << name << "for sequence"
                        << posixText(log.text(LogField::Sque));
    return scope.result(false);
}

bool RepositoryExchange::writeStream(LogEntry const& log) {
    MORVA_METHOD("writeStream");
    auto const name = posixText(log.text(LogField::Stream));
    auto* const open = openObject(log);
    if (open && open->object->type != SinkHandle::Valid)
        return scope.result(true);
    auto const into = open ? stream(*open, name, MakeStream::No) : nullptr;
    if (into) {
        ++open->writes;
        FileContext through;
        through.sourceTime = log.time();
        auto const data = log.data();
        if (worked(store().paths().write(through, *into, log.number(LogField::Offset), data.data,
                                         data.size)))
            return scope.result(true);
    }
    MORVA_TRACE(Always) << "Failed to write to stream" << name << "of sequence"
                        << posixText(log.text(LogField::Sque));
    return scope.result(false);
}

bool RepositoryExchange::closeObject(LogEntry const& log) {
    auto const sequence = log.text(LogField::Sque);
    auto const open = openObjects_.find(sequence);
    if (open == openObjects_.end()) {
        MORVA_TRACE(Normal) << "Failed to close Sequence, but ignore" << posixText(sequence);
        return true;
    }
    MORVA_TRACE(Debug) << "Close Sequence" << posixText(sequence) << "Writes"
                       << open->second.writes;
    openObjects_.erase(open);
    return true;
}

bool RepositoryExchange::deleteObject(LogEntry const& log) {
    auto const path = log.text(LogField::ObjectPath);
    QStringList parts;
    if (!translateAsList(parts, path)) {
        MORVA_TRACE(Normal) << "Failed to translate path" << posixText(path);
        return true;
    }
    FileContext context;
    context.sourceTime = log.time();
    context.opType = operation(parts, false);
    if (context.opType == NotToBackup::eExcluded)
        return true;
    if (worked(store().paths().unlink(context, parts))) {
        MORVA_TRACE(Debug) << "Unlinked" << posixText(path);
        return true;
    }
    MORVA_TRACE(Always) << "Failed to unlink" << posixText(path);
    return false;
}

bool RepositoryExchange::resync(LogEntry const& log) {
    auto const path = log.type() == LogType::WinResync ? log.path().text : log.text(LogField::File);
    QStringList parts;
    if (!translateAsList(parts, path) || operation(parts, false) == NotToBackup::eExcluded)
        return true;
    if (addResyncPath(parts.join(u'/'), false))
        LogLine(QStringLiteral("Replication"), LogLevelE::Notice)
            << "Exchange Filter on source node '%1m' has requested a resynchronization for file %2s"
            << identity().sourceMachine << posixText(path);
    return true;
}

} // namespace Replication
