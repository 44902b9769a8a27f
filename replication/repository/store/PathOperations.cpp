#include "replication/repository/store/PathOperations.h"

#include "base/trace/Trace.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

namespace Replication {

using Morva::Result;
using Morva::Status;

namespace {

Status misfit(char const* operation, QStringList const& path, char const* reason) {
    return Status::failure(Status::Code::InvalidArgument, operation, path.join(QLatin1Char('/')),
                           QString::fromLatin1(reason));
}

Status absent(char const* operation, QStringList const& path) {
    return Status::failure(Status::Code::NotFound, operation, path.join(QLatin1Char('/')));
}

LiveMode modeOf(FileContext const& context) {
    return context.opType == NotToBackup::eLiveOnly ? LiveMode::LiveOnly : LiveMode::Clear;
}

QString shown(QStringList const& path) {
    return path.join(QLatin1Char('/'));
}

bool isBelow(Directories const& directories, QStringList const& path, QStringList const& above) {
    if (path.size() <= above.size())
        return false;
    for (qsizetype i = 0; i < above.size(); ++i)
        if (directories.normal(path[i]) != directories.normal(above[i]))
            return false;
    return true;
}

} // namespace

PathOperations::PathOperations(Store& store) : store_(store) {}

bool PathOperations::isData(QString const& stream) const {
    return QString::compare(stream, dataStreamName, store_.caseSensitivity()) == 0;
}

Result<ActiveHandle::Pointer> PathOperations::handleOf(FileContext const& context,
                                                       QStringList const& path, DirKey& key) {
    MORVA_TRY_LET(ActiveHandle::Pointer handle, store_.activeHandles().get(key, modeOf(context)));
    handle->setVersion(key, path, context.user, context.process, context.ruleSet, context.rules);
    return handle;
}

Result<PathOperations::Found> PathOperations::find(FileContext const& context,
                                                   QStringList const& path) {
    Found result;
    MORVA_TRY_LET(Directories::Located located,
                  store_.directories().locate(path, PathMode::DoNotBuildPath));
    result.exists = located.found;
    if (!located.found)
        return result;
    result.key = std::move(located.key);
    Result<ActiveHandle::Pointer> handle = handleOf(context, path, result.key);
    if (!handle) {
        MORVA_TRACE(Always) << "Failed to open" << shown(path);
        return std::move(handle).status();
    }
    result.handle = *std::move(handle);
    return result;
}

Result<PathOperations::Found> PathOperations::open(FileContext const& context,
                                                   QStringList const& path) {
    MORVA_TRY_LET(Found found, find(context, path));
    if (!found.exists) {
        MORVA_TRACE(Always) << "File does not exist" << shown(path);
        return absent("open", path);
    }
    return found;
}

std::shared_ptr<SinkHandle> PathOperations::wrap(FileContext const& context, Found const& found,
                                                 QStringList const& path, QString const& stream,
                                                 std::shared_ptr<StreamHandle> streamHandle) {
    auto result = std::make_shared<SinkHandle>(SinkHandle::Valid);
    result->activeHandle = found.handle;
    result->streamHandle = std::move(streamHandle);
    if (!path.isEmpty()) {
        result->parent = path.first(path.size() - 1);
        result->name = path.last();
    }
    result->stream = stream;
    result->link = found.key.link();
    result->dedup = context.dedup;
    return result;
}

Result<std::shared_ptr<StreamHandle>> PathOperations::openOrMake(FileContext const& context,
                                                                 ActiveHandle& handle, LinkId link,
                                                                 QString const& stream) {
    if (handle.fileNode() && handle.fileNode()->exists(stream))
        return handle.openStream(link, stream, context.dedup);
    return handle.createStream(link, stream, context.dedup);
}

PathOperations::Handle PathOperations::openStream(FileContext const& context,
                                                  QStringList const& path, QString const& stream) {
    MORVA_METHOD("openStream");
    MORVA_TRY_LET(Found const found, open(context, path));
    // The pages of a directory aren't for the source to touch.
    if (found.key.isDirectory() && isData(stream))
        return wrap(context, found, path, stream, nullptr);
    MORVA_TRY_LET(std::shared_ptr<StreamHandle> opened,
                  found.handle->fileNode()->openStream(stream));
    if (!opened) {
        MORVA_TRACE(Always) << "Stream does not exist" << shown(path) << stream;
        return absent("open stream", path + QStringList(stream));
    }
    return wrap(context, found, path, stream, std::move(opened));
}

PathOperations::Handle PathOperations::supersede(FileContext const& context,
                                                 QStringList const& path) {
    MORVA_METHOD("supersede");
    MORVA_TRY_LET(std::shared_ptr<SinkHandle> result, openStream(context, path, dataStreamName));
    if (!result->streamHandle)
        return result;
    ActiveHandle& handle = *result->activeHandle;
    for (QString const& name : handle.namedAttributes())
        if (QString::compare(name, securityStreamName, store_.caseSensitivity()) != 0)
            MORVA_TRY(handle.removeStream(result->link, name));
    MORVA_TRY(handle.truncate(result->link, result->streamHandle, 0, 0, context.sourceTime));
    return result;
}

PathOperations::Handle PathOperations::addStream(FileContext const& context,
                                                 QStringList const& path, QString const& stream) {
    MORVA_METHOD("addStream");
    MORVA_TRY_LET(Found const found, open(context, path));
    if (stream.isEmpty())
        return misfit("make stream", path, "a stream needs a name");
    if (found.key.isDirectory() && isData(stream))
        return wrap(context, found, path, stream, nullptr);
    MORVA_TRY_LET(std::shared_ptr<StreamHandle> made,
                  openOrMake(context, *found.handle, found.key.link(), stream));
    return wrap(context, found, path, stream, std::move(made));
}

Status PathOperations::openOrCreate(FileContext const& context, QStringList const& path,
                                    NewFile const& file, Found& found) {
    MORVA_TRY_LET(Directories::Located located,
                  store_.directories().locate(path, PathMode::BuildPath));
    if (located.found && file.replaces &&
        !(located.key.isDirectory() && file.nodeType == directoryType)) {
        MORVA_TRY(makeRoom(context, path, located.key));
        located.found = false;
    }
    if (located.found) {
        found.exists = true;
        found.key = std::move(located.key);
        if (found.key.isDirectory() != (file.nodeType == directoryType)) {
            MORVA_TRACE(Always) << "Object has another type" << shown(path) << found.key.type();
            return misfit("open", path, "an object of another type is there");
        }
        MORVA_TRY_LET(found.handle, handleOf(context, path, found.key));
        return {};
    }
    if (!located.parentFound || path.isEmpty())
        return misfit("make", path, "its parent isn't a directory");
    found.key = store_.directories().key(located.parent.fileId(), path.last(), file.nodeType);
    NodeInfo info(store_.caseSensitivity());
    info.attributes = file.attributes;
    info.owner = file.owner;
    auto made = store_.activeHandles().create(found.key, path, modeOf(context), context.sourceTime,
                                              std::move(info));
    if (!made) {
        MORVA_TRACE(Always) << "Failed to create file" << shown(path);
        return std::move(made).status();
    }
    found.handle = *std::move(made);
    found.handle->setVersion(found.key, path, context.user, context.process, context.ruleSet,
                             context.rules);
    Status status = fillNew(context, found, file);
    if (!status) {
        found.handle = nullptr;
        store_.unfinished().finish([this, key = found.key]() mutable -> Status {
            MORVA_TRY_LET(bool const there, store_.directories().find(key));
            return there ? store_.directories().removeLink(key) : Status();
        });
    }
    return status;
}

Status PathOperations::makeRoom(FileContext const& context, QStringList const& path, DirKey& key) {
    if (key.isDirectory()) {
        // All that is in it would go unasked: the source and the store don't agree.
        MORVA_TRY_LET(bool const empty, store_.directories().emptyDirectory(key));
        if (!empty) {
            MORVA_TRACE(Always) << "A directory with names is in the way" << shown(path);
            return misfit("replace", path, "a directory that isn't empty is there");
        }
    }
    return unlinkKey(context, path, key);
}

Status PathOperations::fillNew(FileContext const& context, Found const& found,
                               NewFile const& file) {
    ActiveHandle& handle = *found.handle;
    LinkId const link = found.key.link();
    if (!file.security.isEmpty()) {
        MORVA_TRY(replaceContent(context, handle, link, securityStreamName, file.security));
        MORVA_TRACE(Verbose) << "Finished attempt to write security";
    }
    if (file.nodeType == directoryType)
        return {};
    MORVA_TRY(handle.createStream(link, dataStreamName, context.dedup));
    MORVA_TRACE(Verbose) << "Created empty data stream";
    return {};
}

PathOperations::Handle PathOperations::createStream(FileContext const& context,
                                                    QStringList const& path, QString const& stream,
                                                    NewFile const& file) {
    MORVA_METHOD("createStream");
    MORVA_TRACE(Verbose) << "IN:createStream" << context.ruleSet << shown(path) << stream
                         << file.nodeType << file.security.size()
                         << (context.dedup ? "Dedup" : "DoNotDedup");
    Found found;
    MORVA_TRY(openOrCreate(context, path, file, found));
    if (stream.isEmpty())
        return misfit("make stream", path, "a stream needs a name");
    if (file.nodeType == directoryType && isData(stream))
        return wrap(context, found, path, stream, nullptr);
    MORVA_TRACE(Verbose) << (isData(stream) ? "open stream" : "create stream") << stream;
    // A new object has got its data; that of an old one can only be lost, which must be told.
    LinkId const link = found.key.link();
    auto made = isData(stream) ? found.handle->openStream(link, stream, context.dedup)
                               : openOrMake(context, *found.handle, link, stream);
    if (!made) {
        MORVA_TRACE(Always) << "failed to create stream" << shown(path) << stream;
        return std::move(made).status();
    }
    return wrap(context, found, path, stream, *std::move(made));
}

PathOperations::Handle PathOperations::createObject(FileContext const& context,
                                                    QStringList const& path, NewFile const& file) {
    MORVA_METHOD("createObject");
    Found found;
    if (Status status = openOrCreate(context, path, file, found); !status) {
        MORVA_TRACE(Always) << (found.exists ? "Failed to open object" : "Failed to create object")
                            << shown(path);
        return status;
    }
    return wrap(context, found, path, QString(), nullptr);
}

PathOperations::Handle PathOperations::openFileRestore(FileContext const& context,
                                                       QStringList const& path,
                                                       NewFile const& file) {
    MORVA_METHOD("openFileRestore");
    MORVA_TRACE(Verbose) << "Versioning rules" << context.rules.size();
    MORVA_TRY_LET(std::shared_ptr<SinkHandle> result, createObject(context, path, file));
    MORVA_TRY(result->activeHandle->attr(result->link, false, 0, false, 0, true, file.attributes));
    return result;
}

Status PathOperations::link(FileContext const& context, QStringList const& from,
                            QStringList const& to) {
    MORVA_METHOD("link");
    MORVA_TRY_LET(Directories::Located located,
                  store_.directories().locate(from, PathMode::DoNotBuildPath));
    if (!located.found) {
        MORVA_TRACE(Always) << "Path" << shown(from) << "does not exists";
        return absent("link", from);
    }
    Status status = store_.directories().link(context.opType, located.key, to);
    if (!status)
        MORVA_TRACE(Always) << "Failed to link" << shown(from) << shown(to) << "Type"
                            << located.key.type() << "LiveOnly" << located.key.liveOnly();
    return status;
}

Status PathOperations::unlink(FileContext const& context, QStringList const& path) {
    MORVA_METHOD("unlink");
    MORVA_TRY_LET(Directories::Located located,
                  store_.directories().locate(path, PathMode::DoNotBuildPath));
    if (!located.found) {
        MORVA_TRACE(Normal) << "Path" << shown(path) << "does not exists";
        return {};
    }
    return unlinkKey(context, path, located.key);
}

Status PathOperations::unlinkKey(FileContext const& context, QStringList const& path, DirKey& key) {
    // Its live-only mark stays as it is: the name goes anyway.
    Result<ActiveHandle::Pointer> const handle = store_.activeHandles().open(key.fileId());
    Status status = handle.status();
    if (handle) {
        (*handle)->setVersion(key, path, context.user, context.process, context.ruleSet,
                              context.rules);
        status = store_.directories().unlink(key, **handle, dataStreamName);
    }
    if (!status)
        MORVA_TRACE(Always) << "Failed to unlink" << shown(path) << "Type" << key.type()
                            << "LiveOnly" << key.liveOnly();
    return status;
}

Status PathOperations::rename(FileContext const& context, NotToBackup const& exclusions,
                              QStringList const& from, QStringList const& to) {
    MORVA_METHOD("rename");
    Directories& directories = store_.directories();
    MORVA_TRY_LET(Directories::Located source, directories.locate(from, PathMode::DoNotBuildPath));
    if (!source.found || from.isEmpty()) {
        MORVA_TRACE(Always) << "Path" << shown(from) << "does not exists";
        return absent("rename", from);
    }
    // Before the destination is removed: it could hold the source, or lie in it.
    if (isBelow(directories, to, from) || isBelow(directories, from, to)) {
        MORVA_TRACE(Always) << "Cannot move a directory below itself" << shown(from) << shown(to);
        return misfit("rename", from, "it would lie below itself");
    }
    MORVA_TRY_LET(ActiveHandle::Pointer const handle,
                  store_.activeHandles().open(source.key.fileId()));
    MORVA_TRY_LET(Directories::Located target, directories.locate(to, PathMode::DoNotBuildPath));
    if (target.found && !target.key.sameName(source.key)) {
        // Two names of one file: nothing moves, as at the source.
        if (target.key.fileId() == source.key.fileId())
            return {};
        MORVA_TRY(makeRoom(context, to, target.key));
        MORVA_TRY_LET(bool const there, directories.find(source.key));
        if (!there)
            return absent("rename", from);
    }
    DirKey moved;
    if (Status status =
            directories.rename(context.opType, exclusions, *handle, source.key, to, moved);
        !status) {
        MORVA_TRACE(Always) << "Failed to rename" << shown(from) << shown(to);
        return status;
    }
    handle->rename(moved.directoryId(), to, context.user, context.process, context.ruleSet,
                   context.rules);
    return {};
}

Status PathOperations::write(FileContext const& context, QStringList const& path,
                             QString const& stream, std::uint64_t offset, void const* data,
                             std::uint32_t count, std::optional<std::uint32_t> attributes) {
    MORVA_METHOD("write");
    MORVA_TRY_LET(Found const found, find(context, path));
    if (!found.exists) {
        MORVA_TRACE(Normal) << "Failed to find file for write, ignore" << shown(path);
        return {};
    }
    LinkId const link = found.key.link();
    if (attributes)
        MORVA_TRY(found.handle->attr(link, false, 0, false, 0, true, *attributes));
    if (found.key.isDirectory() && isData(stream)) {
        MORVA_TRACE(Normal) << "Attempt to write to data stream of directory" << shown(path)
                            << "ignored";
        return {};
    }
    MORVA_TRY_LET(std::shared_ptr<StreamHandle> opened,
                  found.handle->openStream(link, stream, context.dedup));
    return found.handle->write(link, opened, offset, data, count, context.sourceTime);
}

Status PathOperations::truncate(FileContext const& context, QStringList const& path,
                                std::uint64_t size, std::uint32_t flags) {
    MORVA_METHOD("truncate");
    MORVA_TRY_LET(Found const found, find(context, path));
    if (!found.exists) {
        MORVA_TRACE(Normal) << "Failed to find file for truncate, ignore" << shown(path);
        return {};
    }
    if (found.key.isDirectory()) {
        MORVA_TRACE(Normal) << "Attempt to write to data stream of directory" << shown(path)
                            << "ignored";
        return {};
    }
    LinkId const link = found.key.link();
    MORVA_TRY_LET(std::shared_ptr<StreamHandle> opened,
                  found.handle->openStream(link, dataStreamName, context.dedup));
    return found.handle->truncate(link, opened, size, flags, context.sourceTime);
}

Status PathOperations::write(FileContext const& context, SinkHandle& handle, std::uint64_t offset,
                             void const* data, std::uint32_t count) {
    if (handle.type != SinkHandle::Valid || !handle.activeHandle)
        return misfit("write", {handle.name}, "the handle isn't open");
    ++handle.id;
    if (!handle.streamHandle)
        return ignoreDirectory(handle);
    return handle.activeHandle->write(handle.link, handle.streamHandle, offset, data, count,
                                      context.sourceTime);
}

Status PathOperations::truncate(FileContext const& context, SinkHandle& handle, std::uint64_t size,
                                std::uint32_t flags) {
    if (handle.type != SinkHandle::Valid || !handle.activeHandle)
        return misfit("truncate", {handle.name}, "the handle isn't open");
    if (!handle.streamHandle)
        return ignoreDirectory(handle);
    return handle.activeHandle->truncate(handle.link, handle.streamHandle, size, flags,
                                         context.sourceTime);
}

Status PathOperations::ignoreDirectory(SinkHandle const& handle) const {
    FileNode::Pointer const& node = handle.activeHandle->fileNode();
    if (!node || !node->isDirectory())
        return misfit("write", {handle.name}, "the handle has no stream");
    MORVA_TRACE(Normal) << "Attempt to write to data stream of directory" << handle.name
                        << "ignored";
    return {};
}

Status PathOperations::replaceContent(FileContext const& context, SinkHandle& handle,
                                      QString const& stream, QByteArray const& content) {
    if (handle.type != SinkHandle::Valid || !handle.activeHandle)
        return misfit("write", {handle.name}, "the handle isn't open");
    return replaceContent(context, *handle.activeHandle, handle.link, stream, content);
}

Status PathOperations::replaceContent(FileContext const& context, ActiveHandle& handle, LinkId link,
                                      QString const& stream, QByteArray const& content) {
    FileNode::Pointer const& node = handle.fileNode();
    if (!node || stream.isEmpty() || (node->isDirectory() && isData(stream)))
        return misfit("write", {stream}, "the object can't have such a stream");
    if (content.isEmpty())
        return node->exists(stream) ? handle.removeStream(link, stream) : Status();
    MORVA_TRY_LET(std::shared_ptr<StreamHandle> opened, openOrMake(context, handle, link, stream));
    auto const size = static_cast<std::uint32_t>(content.size());
    std::uint64_t const before = opened->length();
    // The same content again would cost a copy of the node and of the stream.
    if (before == size) {
        MORVA_TRY_LET(bool const same, sameContent(*opened, content));
        if (same)
            return {};
    }
    MORVA_TRY(handle.write(link, opened, 0, content.constData(), size, 0));
    return before <= size ? Status() : handle.truncate(link, opened, size, 0, 0);
}

Result<bool> PathOperations::sameContent(StreamHandle& stream, QByteArray const& content) {
    QByteArray present(content.size(), Qt::Uninitialized);
    auto const size = static_cast<std::uint32_t>(content.size());
    auto const count = stream.readWhole(0, present.data(), size);
    if (!count)
        return Status::failure(Status::Code::IoError, "read stream", QString());
    return *count == size && present == content;
}

} // namespace Replication
