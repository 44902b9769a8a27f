// The streams of a file's version: their list and their contents.

#include "base/blocks/Failures.h"
#include "base/trace/Trace.h"
#include "replication/repository/store/FileNode.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"
#include "replication/repository/streams/Streams.h"

#include <algorithm>

namespace Replication {

using Morva::TracedLock;

// --- the list of streams

void FileNode::askForDedup(QString const& name, StreamId id, bool dedup) {
    if (!dedupOn_) {
        MORVA_TRACE(Debug) << "FileNode flagged for no dedup";
    } else if (!dedup) {
        MORVA_TRACE(Debug) << "Stream" << name << "flagged for no dedup";
    } else {
        store_.snapshots().addToDedup(id);
    }
}

std::shared_ptr<StreamHandle> FileNode::createStream(QString const& name, bool dedup) {
    Streams& pool = store_.streams();
    StreamId const id = pool.newStream();
    std::shared_ptr<StreamHandle> result = id ? pool.handle(id, false) : nullptr;
    if (!result) {
        if (id)
            pool.dropReference(id);
        MORVA_TRACE(Always) << "Failed to make stream" << name << "of node" << number_;
        return nullptr;
    }
    info_.addStream(name, id, false, dedup, false);
    info_.find(id)->handle = result;
    if (!writeInfo()) {
        (void)info_.remove(name);
        result->releaseReference();
        return nullptr;
    }
    askForDedup(name, id, dedup);
    return result;
}

std::shared_ptr<StreamHandle> FileNode::createActiveStream(Pointer& copy, QString const& name,
                                                           bool dedup) {
    MORVA_METHOD("createActiveStream");
    if (name.isEmpty())
        return nullptr;
    TracedLock guard(lock_);
    if (info_.exists(name)) {
        MORVA_TRACE(Always) << "Stream already exits" << name;
        return nullptr;
    }
    FileNode* const target = writable(copy);
    return target ? target->createStream(name, dedup) : nullptr;
}

std::shared_ptr<StreamHandle> FileNode::openActiveStream(Pointer& copy, QString const& name,
                                                         bool dedup) {
    MORVA_METHOD("openActiveStream");
    if (name.isEmpty())
        return nullptr;
    TracedLock guard(lock_);
    if (info_.exists(name))
        return info_.streamHandle(store_.streams(), name);
    if (QString::compare(name, dataStreamName, info_.caseSensitivity()) == 0) {
        MORVA_TRACE(Always) << "Data stream does not exit" << number_;
        return nullptr;
    }
    FileNode* const target = writable(copy);
    return target ? target->createStream(name, dedup) : nullptr;
}

template <class Change> bool FileNode::changeList(Change&& change) {
    NodeInfo const before = info_;
    if (!change(info_))
        return false;
    if (!writeInfo()) {
        info_ = before;
        return false;
    }
    before.release(store_.streams(), info_);
    return true;
}

bool FileNode::removeStream(Pointer& copy, QString const& name) {
    MORVA_METHOD("removeStream");
    TracedLock guard(lock_);
    if (name.isEmpty() || !info_.exists(name))
        return scope.result(false);
    FileNode* const target = writable(copy);
    if (!target)
        return scope.result(false);
    return scope.result(target->changeList([&](NodeInfo& list) { return list.remove(name); }));
}

bool FileNode::renameEntry(Pointer& copy, QString const& from, QString const& to) {
    if (QString::compare(from, to, info_.caseSensitivity()) == 0)
        return false;
    FileNode* const target = writable(copy);
    return target && target->changeList([&](NodeInfo& list) { return list.rename(from, to); });
}

bool FileNode::renameStream(Pointer& copy, QString const& from, QString const& to) {
    MORVA_METHOD("renameStream");
    if (from.isEmpty() || to.isEmpty())
        return scope.result(false);
    TracedLock guard(lock_);
    if (!info_.exists(from)) {
        MORVA_TRACE(Always) << "Stream" << from << "not found";
        return scope.result(false);
    }
    return scope.result(renameEntry(copy, from, to));
}

bool FileNode::renameStream(Pointer& copy, StreamHandle const& stream, QString const& to) {
    MORVA_METHOD("renameStream");
    if (to.isEmpty())
        return scope.result(false);
    TracedLock guard(lock_);
    NodeStream const* entry = info_.find(stream.id());
    if (!entry) {
        MORVA_TRACE(Always) << "Stream not found" << stream.id();
        return scope.result(false);
    }
    return scope.result(renameEntry(copy, QString(entry->name), to));
}

bool FileNode::replaceStream(Pointer& copy, StreamHandle const& from,
                             std::shared_ptr<StreamHandle> const& to) {
    MORVA_METHOD("replaceStream");
    TracedLock guard(lock_);
    if (!to || to->id() == from.id())
        return scope.result(false);
    if (!info_.exists(from.id())) {
        reportLostStream(from.id());
        return scope.result(false);
    }
    FileNode* const target = writable(copy);
    if (!target)
        return scope.result(false);
    NodeStream* const entry = target->info_.find(from.id());
    NodeStream const before = *entry;
    (void)target->info_.replace(*entry, to);
    if (target->writeInfo())
        return scope.result(true);
    *entry = before;
    return scope.result(false);
}

bool FileNode::freeStreams(Pointer& copy) {
    TracedLock guard(lock_);
    bool const all = !isDirectory();
    bool const any = std::ranges::any_of(info_.streams(), [&](NodeStream const& entry) {
        return all || QString::compare(entry.name, dataStreamName, info_.caseSensitivity()) != 0;
    });
    if (!any)
        return true;
    FileNode* const target = writable(copy);
    return target && target->changeList([&](NodeInfo& list) { return list.removeAll(all); });
}

bool FileNode::dedupStreams(std::function<void()> const& checkForFreeze,
                            DedupStatistics& statistics, Morva::Extent& buffer) {
    // Without the lock, since hashing a stream can take long.
    std::vector<StreamId> const ids = streamIds();
    return std::ranges::all_of(ids, [&](StreamId id) {
        return store_.dedupStream(checkForFreeze, id, statistics, buffer);
    });
}

// --- contents

bool FileNode::makeWritable(Pointer& copy, std::shared_ptr<StreamHandle>& stream,
                            FileNode*& target) {
    if (!stream || !info_.exists(stream->id())) {
        reportLostStream(stream ? stream->id() : StreamId{});
        return false;
    }
    target = writable(copy);
    if (!target)
        return false;
    std::shared_ptr<StreamHandle> fresh;
    if (!stream->copyOnWrite(fresh))
        return false;
    if (!fresh)
        return true;
    NodeStream* const entry = target->info_.find(stream->id());
    (void)target->info_.replace(*entry, fresh);
    if (!target->writeInfo()) {
        // The record names the old stream still, whose reference went to the new one.
        stream->addReference();
        (void)target->info_.replace(*entry, stream);
        fresh->releaseReference();
        return false;
    }
    stream = fresh;
    target->askForDedup(entry->name, entry->id, entry->dedup);
    return true;
}

template <class Work>
bool FileNode::changeContent(Pointer& copy, std::shared_ptr<StreamHandle>& stream,
                             std::uint32_t sourceTime, Work const& work) {
    Morva::Failures::Watch const failures;
    FileNode* target = nullptr;
    // Deduplication may freeze the stream in between; then it gets a copy after all.
    do {
        if (!makeWritable(copy, stream, target))
            return false;
        if (work(*stream)) {
            target->touch(sourceTime);
            return !failures.any();
        }
    } while (stream->frozen());
    return false;
}

bool FileNode::write(Pointer& copy, std::shared_ptr<StreamHandle>& stream, std::uint64_t offset,
                     void const* data, std::uint32_t count, std::uint32_t sourceTime) {
    TracedLock guard(lock_);
    if (count == 0)
        return true;
    return changeContent(copy, stream, sourceTime, [&](StreamHandle& writable) {
        return writable.writeUnlessFrozen(offset, data, count);
    });
}

bool FileNode::truncate(Pointer& copy, std::shared_ptr<StreamHandle>& stream, std::uint64_t size,
                        std::uint32_t flags, std::uint32_t sourceTime) {
    MORVA_METHOD("truncate");
    TracedLock guard(lock_);
    if (stream && info_.exists(stream->id())) {
        std::uint64_t const length = stream->length();
        if (length == size || ((flags & StreamHandle::growOnly) != 0 && length > size))
            return scope.result(true);
    }
    return scope.result(changeContent(copy, stream, sourceTime, [&](StreamHandle& writable) {
        return writable.truncate(size, flags);
    }));
}

bool FileNode::zeroData(Pointer& copy, std::shared_ptr<StreamHandle>& stream, std::uint64_t start,
                        std::uint64_t end, std::uint32_t sourceTime) {
    MORVA_METHOD("zeroData");
    TracedLock guard(lock_);
    if (start == end)
        return scope.result(true);
    return scope.result(changeContent(copy, stream, sourceTime, [&](StreamHandle& writable) {
        return writable.zeroData(start, end);
    }));
}

bool FileNode::dirty(Pointer& copy, StreamHandle const& stream) {
    MORVA_METHOD("dirty");
    TracedLock guard(lock_);
    if (!info_.exists(stream.id())) {
        reportLostStream(stream.id());
        return scope.result(false);
    }
    if (info_.dirty(stream.id()))
        return scope.result(true);
    FileNode* const target = writable(copy);
    if (!target || !target->changeList([&](NodeInfo& list) { return list.setDirty(stream.id()); }))
        return scope.result(false);
    store_.control().countDirty();
    return scope.result(true);
}

bool FileNode::sparse(Pointer& copy, StreamHandle const& stream) {
    MORVA_METHOD("sparse");
    TracedLock guard(lock_);
    if (!info_.exists(stream.id())) {
        reportLostStream(stream.id());
        return scope.result(false);
    }
    if (info_.sparse(stream.id()))
        return scope.result(true);
    FileNode* const target = writable(copy);
    return scope.result(
        target && target->changeList([&](NodeInfo& list) { return list.setSparse(stream.id()); }));
}

} // namespace Replication
