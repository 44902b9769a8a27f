#include "replication/repository/store/PathOperations.h"

#include "base/blocks/Failures.h"
#include "base/trace/Trace.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

namespace Replication {

namespace {

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

ActiveHandle::Pointer PathOperations::handleOf(FileContext const& context, QStringList const& path,
                                               DirKey& key) {
    ActiveHandle::Pointer handle = store_.activeHandles().get(key, modeOf(context));
    if (handle)
        handle->setVersion(key, path, context.user, context.process, context.ruleSet,
                           context.rules);
    return handle;
}

PathOperations::Found PathOperations::find(FileContext const& context, QStringList const& path) {
    Found result;
    Directories::Located located = store_.directories().locate(path, PathMode::DoNotBuildPath);
    result.exists = located.found;
    result.failed = located.failed;
    if (!located.found)
        return result;
    result.key = std::move(located.key);
    result.handle = handleOf(context, path, result.key);
    if (!result.handle)
        MORVA_TRACE(Always) << "Failed to open" << shown(path);
    return result;
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

std::shared_ptr<StreamHandle> PathOperations::openOrMake(FileContext const& context,
                                                         ActiveHandle& handle, LinkId link,
                                                         QString const& stream) {
    if (handle.fileNode() && handle.fileNode()->exists(stream))
        return handle.openStream(link, stream, context.dedup);
    return handle.createStream(link, stream, context.dedup);
}

std::shared_ptr<SinkHandle> PathOperations::openStream(FileContext const& context,
                                                       QStringList const& path,
                                                       QString const& stream) {
    MORVA_METHOD("openStream");
    Found found = find(context, path);
    if (!found.exists)
        MORVA_TRACE(Always) << "File does not exist" << shown(path);
    if (!found.handle)
        return nullptr;
    // The pages of a directory aren't for the source to touch.
    if (found.key.isDirectory() && isData(stream))
        return wrap(context, found, path, stream, nullptr);
    std::shared_ptr<StreamHandle> opened = found.handle->fileNode()->openStream(stream);
    if (!opened) {
        MORVA_TRACE(Always) << "Stream does not exist" << shown(path) << stream;
        return nullptr;
    }
    return wrap(context, found, path, stream, std::move(opened));
}

std::shared_ptr<SinkHandle> PathOperations::supersede(FileContext const& context,
                                                      QStringList const& path) {
    MORVA_METHOD("supersede");
    std::shared_ptr<SinkHandle> result = openStream(context, path, dataStreamName);
    if (!result || !result->streamHandle)
        return result;
    ActiveHandle& handle = *result->activeHandle;
    for (QString const& name : handle.namedAttributes())
        if (QString::compare(name, securityStreamName, store_.caseSensitivity()) != 0 &&
            !handle.removeStream(result->link, name))
            return nullptr;
    if (!handle.truncate(result->link, result->streamHandle, 0, 0, context.sourceTime))
        return nullptr;
    return result;
}

std::shared_ptr<SinkHandle> PathOperations::addStream(FileContext const& context,
                                                      QStringList const& path,
                                                      QString const& stream) {
    MORVA_METHOD("addStream");
    Found found = find(context, path);
    if (!found.exists)
        MORVA_TRACE(Always) << "File does not exist" << shown(path);
    if (!found.handle || stream.isEmpty())
        return nullptr;
    if (found.key.isDirectory() && isData(stream))
        return wrap(context, found, path, stream, nullptr);
    std::shared_ptr<StreamHandle> made =
        openOrMake(context, *found.handle, found.key.link(), stream);
    return made ? wrap(context, found, path, stream, std::move(made)) : nullptr;
}

PathOperations::Found PathOperations::openOrCreate(FileContext const& context,
                                                   QStringList const& path, NewFile const& file) {
    Found result;
    Directories::Located located = store_.directories().locate(path, PathMode::BuildPath);
    if (located.found && file.replaces &&
        !(located.key.isDirectory() && file.nodeType == directoryType)) {
        if (!unlinkKey(context, path, located.key))
            return result;
        located.found = false;
    }
    if (located.found) {
        result.exists = true;
        result.key = std::move(located.key);
        if (result.key.isDirectory() != (file.nodeType == directoryType)) {
            MORVA_TRACE(Always) << "Object has another type" << shown(path) << result.key.type();
            return result;
        }
        result.handle = handleOf(context, path, result.key);
        return result;
    }
    if (!located.parentFound || path.isEmpty())
        return result;
    result.key = store_.directories().key(located.parent.fileId(), path.last(), file.nodeType);
    NodeInfo info(store_.caseSensitivity());
    info.attributes = file.attributes;
    info.owner = file.owner;
    result.handle = store_.activeHandles().create(result.key, path, modeOf(context),
                                                  context.sourceTime, std::move(info));
    if (!result.handle) {
        MORVA_TRACE(Always) << "Failed to create file" << shown(path);
        return result;
    }
    result.handle->setVersion(result.key, path, context.user, context.process, context.ruleSet,
                              context.rules);
    if (!fillNew(context, result, file)) {
        result.handle = nullptr;
        (void)store_.directories().removeLink(result.key);
    }
    return result;
}

bool PathOperations::fillNew(FileContext const& context, Found const& found, NewFile const& file) {
    ActiveHandle& handle = *found.handle;
    LinkId const link = found.key.link();
    if (!file.security.isEmpty()) {
        if (!replaceContent(context, handle, link, securityStreamName, file.security))
            return false;
        MORVA_TRACE(Verbose) << "Finished attempt to write security";
    }
    if (file.nodeType == directoryType)
        return true;
    if (!handle.createStream(link, dataStreamName, context.dedup))
        return false;
    MORVA_TRACE(Verbose) << "Created empty data stream";
    return true;
}

std::shared_ptr<SinkHandle> PathOperations::createStream(FileContext const& context,
                                                         QStringList const& path,
                                                         QString const& stream,
                                                         NewFile const& file) {
    MORVA_METHOD("createStream");
    MORVA_TRACE(Verbose) << "IN:createStream" << context.ruleSet << shown(path) << stream
                         << file.nodeType << file.security.size()
                         << (context.dedup ? "Dedup" : "DoNotDedup");
    Found const found = openOrCreate(context, path, file);
    if (!found.handle || stream.isEmpty())
        return nullptr;
    if (file.nodeType == directoryType && isData(stream))
        return wrap(context, found, path, stream, nullptr);
    MORVA_TRACE(Verbose) << (isData(stream) ? "open stream" : "create stream") << stream;
    // A new object has got its data; that of an old one can only be lost, which must be told.
    LinkId const link = found.key.link();
    std::shared_ptr<StreamHandle> made = isData(stream)
                                             ? found.handle->openStream(link, stream, context.dedup)
                                             : openOrMake(context, *found.handle, link, stream);
    if (!made) {
        MORVA_TRACE(Always) << "failed to create stream" << shown(path) << stream;
        return nullptr;
    }
    return wrap(context, found, path, stream, std::move(made));
}

std::shared_ptr<SinkHandle> PathOperations::createObject(FileContext const& context,
                                                         QStringList const& path,
                                                         NewFile const& file) {
    MORVA_METHOD("createObject");
    Found const found = openOrCreate(context, path, file);
    if (!found.handle) {
        MORVA_TRACE(Always) << (found.exists ? "Failed to open object" : "Failed to create object")
                            << shown(path);
        return nullptr;
    }
    return wrap(context, found, path, QString(), nullptr);
}

std::shared_ptr<SinkHandle> PathOperations::openFileRestore(FileContext const& context,
                                                            QStringList const& path,
                                                            NewFile const& file) {
    MORVA_METHOD("openFileRestore");
    MORVA_TRACE(Verbose) << "Versioning rules" << context.rules.size();
    std::shared_ptr<SinkHandle> result = createObject(context, path, file);
    if (result &&
        !result->activeHandle->attr(result->link, false, 0, false, 0, true, file.attributes))
        return nullptr;
    return result;
}

bool PathOperations::link(FileContext const& context, QStringList const& from,
                          QStringList const& to) {
    MORVA_METHOD("link");
    Directories::Located located = store_.directories().locate(from, PathMode::DoNotBuildPath);
    if (!located.found) {
        MORVA_TRACE(Always) << "Path" << shown(from) << "does not exists";
        return scope.result(false);
    }
    if (store_.directories().link(context.opType, located.key, to))
        return scope.result(true);
    MORVA_TRACE(Always) << "Failed to link" << shown(from) << shown(to) << "Type"
                        << located.key.type() << "LiveOnly" << located.key.liveOnly();
    return scope.result(false);
}

bool PathOperations::unlink(FileContext const& context, QStringList const& path) {
    MORVA_METHOD("unlink");
    Directories::Located located = store_.directories().locate(path, PathMode::DoNotBuildPath);
    if (located.failed)
        return scope.result(false);
    if (!located.found) {
        MORVA_TRACE(Normal) << "Path" << shown(path) << "does not exists";
        return scope.result(true);
    }
    return scope.result(unlinkKey(context, path, located.key));
}

bool PathOperations::unlinkKey(FileContext const& context, QStringList const& path, DirKey& key) {
    // Its live-only mark stays as it is: the name goes anyway.
    ActiveHandle::Pointer const handle = store_.activeHandles().get(key.fileId());
    if (handle) {
        handle->setVersion(key, path, context.user, context.process, context.ruleSet,
                           context.rules);
        if (store_.directories().unlink(key, *handle, dataStreamName))
            return true;
    }
    MORVA_TRACE(Always) << "Failed to unlink" << shown(path) << "Type" << key.type() << "LiveOnly"
                        << key.liveOnly();
    return false;
}

bool PathOperations::rename(FileContext const& context, NotToBackup const& exclusions,
                            QStringList const& from, QStringList const& to) {
    MORVA_METHOD("rename");
    Directories& directories = store_.directories();
    Directories::Located source = directories.locate(from, PathMode::DoNotBuildPath);
    if (!source.found || from.isEmpty()) {
        MORVA_TRACE(Always) << "Path" << shown(from) << "does not exists";
        return scope.result(false);
    }
    // Before the destination is removed: it could hold the source, or lie in it.
    if (isBelow(directories, to, from) || isBelow(directories, from, to)) {
        MORVA_TRACE(Always) << "Cannot move a directory below itself" << shown(from) << shown(to);
        return scope.result(false);
    }
    ActiveHandle::Pointer const handle = store_.activeHandles().get(source.key.fileId());
    if (!handle)
        return scope.result(false);
    Directories::Located target = directories.locate(to, PathMode::DoNotBuildPath);
    if (target.failed)
        return scope.result(false);
    if (target.found && !target.key.sameName(source.key)) {
        // Two names of one file: nothing moves, as at the source.
        if (target.key.fileId() == source.key.fileId())
            return scope.result(true);
        if (!unlinkKey(context, to, target.key) || !directories.find(source.key))
            return scope.result(false);
    }
    if (!directories.rename(context.opType, exclusions, *handle, source.key, to)) {
        MORVA_TRACE(Always) << "Failed to rename" << shown(from) << shown(to);
        return scope.result(false);
    }
    // Moved it is: done again, the source would be missing.
    Morva::Failures::Pardon const pardon;
    target = directories.locate(to, PathMode::DoNotBuildPath);
    if (target.found)
        handle->rename(target.key.directoryId(), to, context.user, context.process, context.ruleSet,
                       context.rules);
    return scope.result(true);
}

bool PathOperations::write(FileContext const& context, QStringList const& path,
                           QString const& stream, std::uint64_t offset, void const* data,
                           std::uint32_t count, std::optional<std::uint32_t> attributes) {
    MORVA_METHOD("write");
    Found const found = find(context, path);
    if (!found.exists) {
        if (found.failed)
            return scope.result(false);
        MORVA_TRACE(Normal) << "Failed to find file for write, ignore" << shown(path);
        return scope.result(true);
    }
    if (!found.handle)
        return scope.result(false);
    LinkId const link = found.key.link();
    if (attributes && !found.handle->attr(link, false, 0, false, 0, true, *attributes))
        return scope.result(false);
    if (found.key.isDirectory() && isData(stream)) {
        MORVA_TRACE(Normal) << "Attempt to write to data stream of directory" << shown(path)
                            << "ignored";
        return scope.result(true);
    }
    std::shared_ptr<StreamHandle> opened = found.handle->openStream(link, stream, context.dedup);
    return scope.result(opened &&
                        found.handle->write(link, opened, offset, data, count, context.sourceTime));
}

bool PathOperations::truncate(FileContext const& context, QStringList const& path,
                              std::uint64_t size, std::uint32_t flags) {
    MORVA_METHOD("truncate");
    Found const found = find(context, path);
    if (!found.exists) {
        if (found.failed)
            return scope.result(false);
        MORVA_TRACE(Normal) << "Failed to find file for truncate, ignore" << shown(path);
        return scope.result(true);
    }
    if (!found.handle)
        return scope.result(false);
    if (found.key.isDirectory()) {
        MORVA_TRACE(Normal) << "Attempt to write to data stream of directory" << shown(path)
                            << "ignored";
        return scope.result(true);
    }
    LinkId const link = found.key.link();
    std::shared_ptr<StreamHandle> opened =
        found.handle->openStream(link, dataStreamName, context.dedup);
    return scope.result(opened &&
                        found.handle->truncate(link, opened, size, flags, context.sourceTime));
}

bool PathOperations::write(FileContext const& context, SinkHandle& handle, std::uint64_t offset,
                           void const* data, std::uint32_t count) {
    if (handle.type != SinkHandle::Valid || !handle.activeHandle)
        return false;
    ++handle.id;
    if (!handle.streamHandle)
        return ignoreDirectory(handle);
    return handle.activeHandle->write(handle.link, handle.streamHandle, offset, data, count,
                                      context.sourceTime);
}

bool PathOperations::truncate(FileContext const& context, SinkHandle& handle, std::uint64_t size,
                              std::uint32_t flags) {
    if (handle.type != SinkHandle::Valid || !handle.activeHandle)
        return false;
    if (!handle.streamHandle)
        return ignoreDirectory(handle);
    return handle.activeHandle->truncate(handle.link, handle.streamHandle, size, flags,
                                         context.sourceTime);
}

bool PathOperations::ignoreDirectory(SinkHandle const& handle) const {
    FileNode::Pointer const& node = handle.activeHandle->fileNode();
    if (!node || !node->isDirectory())
        return false;
    MORVA_TRACE(Normal) << "Attempt to write to data stream of directory" << handle.name
                        << "ignored";
    return true;
}

bool PathOperations::replaceContent(FileContext const& context, SinkHandle& handle,
                                    QString const& stream, QByteArray const& content) {
    if (handle.type != SinkHandle::Valid || !handle.activeHandle)
        return false;
    return replaceContent(context, *handle.activeHandle, handle.link, stream, content);
}

bool PathOperations::replaceContent(FileContext const& context, ActiveHandle& handle, LinkId link,
                                    QString const& stream, QByteArray const& content) {
    FileNode::Pointer const& node = handle.fileNode();
    if (!node || stream.isEmpty() || (node->isDirectory() && isData(stream)))
        return false;
    if (content.isEmpty())
        return !node->exists(stream) || handle.removeStream(link, stream);
    std::shared_ptr<StreamHandle> opened = openOrMake(context, handle, link, stream);
    if (!opened)
        return false;
    auto const size = static_cast<std::uint32_t>(content.size());
    std::uint64_t const before = opened->length();
    // The same content again would cost a copy of the node and of the stream.
    if (before == size && sameContent(*opened, content))
        return true;
    return handle.write(link, opened, 0, content.constData(), size, 0) &&
           (before <= size || handle.truncate(link, opened, size, 0, 0));
}

bool PathOperations::sameContent(StreamHandle& stream, QByteArray const& content) {
    QByteArray present(content.size(), Qt::Uninitialized);
    auto const size = static_cast<std::uint32_t>(content.size());
    return stream.read(0, present.data(), size) == size && present == content;
}

} // namespace Replication
