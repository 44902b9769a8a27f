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

using Morva::Result;
using Morva::Status;
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

Result<FileNode::StreamPointer> FileNode::createStream(QString const& name, bool dedup) {
    Streams& pool = store_.streams();
    StreamId const id = pool.newStream();
    StreamPointer result = id ? pool.handle(id, false) : nullptr;
    if (!result) {
        if (id)
            pool.dropReference(id);
        MORVA_TRACE(Always) << "Failed to make stream" << name << "of node" << number_;
        return Status::failure(Status::Code::IoError, "make stream", name);
    }
    info_.addStream(name, id, false, dedup, false);
    info_.find(id)->handle = result;
    if (Status status = writeInfo(); !status) {
        (void)info_.remove(name); // it was just added
        result->releaseReference();
        return status;
    }
    askForDedup(name, id, dedup);
    return result;
}

Result<FileNode::StreamPointer> FileNode::createActiveStream(Pointer& copy, QString const& name,
                                                             bool dedup) {
    MORVA_METHOD("createActiveStream");
    if (name.isEmpty())
        return refused("make stream", name, QStringLiteral("a stream needs a name"));
    TracedLock guard(lock_);
    if (info_.exists(name)) {
        MORVA_TRACE(Always) << "Stream already exits" << name;
        return refused("make stream", name, QStringLiteral("it is there already"));
    }
    MORVA_TRY_LET(FileNode* const target, writable(copy));
    return target->createStream(name, dedup);
}

Result<FileNode::StreamPointer> FileNode::openActiveStream(Pointer& copy, QString const& name,
                                                           bool dedup) {
    MORVA_METHOD("openActiveStream");
    if (name.isEmpty())
        return refused("open stream", name, QStringLiteral("a stream needs a name"));
    TracedLock guard(lock_);
    if (info_.exists(name))
        return info_.streamHandle(store_.streams(), name);
    if (QString::compare(name, dataStreamName, info_.caseSensitivity()) == 0) {
        MORVA_TRACE(Always) << "Data stream does not exit" << number_;
        return missing("open stream", name);
    }
    MORVA_TRY_LET(FileNode* const target, writable(copy));
    return target->createStream(name, dedup);
}

template <class Change> Status FileNode::changeList(Change&& change) {
    NodeInfo before = info_;
    if (!change(info_))
        return {};
    if (Status status = writeInfo(); !status) {
        info_ = std::move(before);
        return status;
    }
    before.release(store_.streams(), info_);
    return {};
}

Status FileNode::removeStream(Pointer& copy, QString const& name) {
    MORVA_METHOD("removeStream");
    TracedLock guard(lock_);
    if (name.isEmpty() || !info_.exists(name))
        return missing("remove stream", name);
    MORVA_TRY_LET(FileNode* const target, writable(copy));
    return target->changeList([&](NodeInfo& list) { return list.remove(name); });
}

Status FileNode::renameEntry(Pointer& copy, QString const& from, QString const& to) {
    if (QString::compare(from, to, info_.caseSensitivity()) == 0)
        return refused("rename stream", from, QStringLiteral("it has that name"));
    MORVA_TRY_LET(FileNode* const target, writable(copy));
    return target->changeList([&](NodeInfo& list) { return list.rename(from, to); });
}

Status FileNode::renameStream(Pointer& copy, QString const& from, QString const& to) {
    MORVA_METHOD("renameStream");
    if (from.isEmpty() || to.isEmpty())
        return refused("rename stream", from, QStringLiteral("a stream needs a name"));
    TracedLock guard(lock_);
    if (!info_.exists(from)) {
        MORVA_TRACE(Always) << "Stream" << from << "not found";
        return missing("rename stream", from);
    }
    return renameEntry(copy, from, to);
}

Status FileNode::renameStream(Pointer& copy, StreamHandle const& stream, QString const& to) {
    MORVA_METHOD("renameStream");
    if (to.isEmpty())
        return refused("rename stream", to, QStringLiteral("a stream needs a name"));
    TracedLock guard(lock_);
    NodeStream const* entry = info_.find(stream.id());
    if (!entry) {
        MORVA_TRACE(Always) << "Stream not found" << stream.id();
        return missing("rename stream", to);
    }
    return renameEntry(copy, QString(entry->name), to);
}

Status FileNode::replaceStream(Pointer& copy, StreamHandle const& from, StreamPointer const& to) {
    MORVA_METHOD("replaceStream");
    TracedLock guard(lock_);
    if (!to || to->id() == from.id())
        return refused("replace stream", QString(), QStringLiteral("there is nothing to replace"));
    if (!info_.exists(from.id()))
        return lost("replace stream", from.id());
    MORVA_TRY_LET(FileNode* const target, writable(copy));
    NodeStream* const entry = target->info_.find(from.id());
    NodeStream const before = *entry;
    (void)target->info_.replace(*entry, to); // another id, as was seen above
    Status status = target->writeInfo();
    if (!status)
        *entry = before;
    return status;
}

Status FileNode::freeStreams(Pointer& copy) {
    TracedLock guard(lock_);
    bool const all = !isDirectory();
    bool const any = std::ranges::any_of(info_.streams(), [&](NodeStream const& entry) {
        return all || QString::compare(entry.name, dataStreamName, info_.caseSensitivity()) != 0;
    });
    if (!any)
        return {};
    MORVA_TRY_LET(FileNode* const target, writable(copy));
    return target->changeList([&](NodeInfo& list) { return list.removeAll(all); });
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

Result<FileNode*> FileNode::makeWritable(Pointer& copy, StreamPointer& stream) {
    if (!stream || !info_.exists(stream->id()))
        return lost("write", stream ? stream->id() : StreamId{});
    FileNode* target = copy.get();
    if (!target) {
        MORVA_TRY_LET(target, writable(copy));
    }
    StreamPointer fresh;
    if (!stream->copyOnWrite(fresh))
        return Status::failure(Status::Code::IoError, "copy stream", info_.streamName(stream->id()),
                               {}, {Status::Unit::Record, stream->id().value});
    if (!fresh)
        return target;
    NodeStream* const entry = target->info_.find(stream->id());
    (void)target->info_.replace(*entry, fresh); // a fresh stream has an id of its own
    if (Status status = target->writeInfo(); !status) {
        // The record names the old stream still, whose reference went to the new one.
        stream->addReference();
        (void)target->info_.replace(*entry, stream); // back again
        fresh->releaseReference();
        return status;
    }
    stream = fresh;
    target->askForDedup(entry->name, entry->id, entry->dedup);
    return target;
}

template <class Work>
Status FileNode::changeContent(Pointer& copy, StreamPointer& stream, std::uint32_t sourceTime,
                               Work const& work) {
    Morva::Failures::Watch const failures;
    // Deduplication may freeze the stream in between; then it gets a copy after all.
    for (;;) {
        MORVA_TRY_LET(FileNode* const target, makeWritable(copy, stream));
        bool const done = work(*stream);
        if (!done && stream->frozen())
            continue;
        if (!done || failures.any())
            return Status::failure(done ? Status::Code::IoError : Status::Code::InvalidArgument,
                                   "write", target->info_.streamName(stream->id()), {},
                                   {Status::Unit::Record, stream->id().value});
        target->touch(sourceTime);
        return {};
    }
}

Status FileNode::write(Pointer& copy, StreamPointer& stream, std::uint64_t offset, void const* data,
                       std::uint32_t count, std::uint32_t sourceTime) {
    TracedLock guard(lock_);
    if (count == 0)
        return {};
    return changeContent(copy, stream, sourceTime, [&](StreamHandle& writable) {
        return writable.writeUnlessFrozen(offset, data, count);
    });
}

Status FileNode::truncate(Pointer& copy, StreamPointer& stream, std::uint64_t size,
                          std::uint32_t flags, std::uint32_t sourceTime) {
    MORVA_METHOD("truncate");
    TracedLock guard(lock_);
    if (stream && info_.exists(stream->id())) {
        std::uint64_t const length = stream->length();
        if (length == size || ((flags & StreamHandle::growOnly) != 0 && length > size))
            return {};
    }
    return changeContent(copy, stream, sourceTime,
                         [&](StreamHandle& writable) { return writable.truncate(size, flags); });
}

Status FileNode::zeroData(Pointer& copy, StreamPointer& stream, std::uint64_t start,
                          std::uint64_t end, std::uint32_t sourceTime) {
    MORVA_METHOD("zeroData");
    TracedLock guard(lock_);
    if (start == end)
        return {};
    return changeContent(copy, stream, sourceTime,
                         [&](StreamHandle& writable) { return writable.zeroData(start, end); });
}

Status FileNode::dirty(Pointer& copy, StreamHandle const& stream) {
    MORVA_METHOD("dirty");
    TracedLock guard(lock_);
    if (!info_.exists(stream.id()))
        return lost("mark stream", stream.id());
    if (info_.dirty(stream.id()))
        return {};
    MORVA_TRY_LET(FileNode* const target, writable(copy));
    MORVA_TRY(target->changeList([&](NodeInfo& list) { return list.setDirty(stream.id()); }));
    store_.control().countDirty();
    return {};
}

Status FileNode::sparse(Pointer& copy, StreamHandle const& stream) {
    MORVA_METHOD("sparse");
    TracedLock guard(lock_);
    if (!info_.exists(stream.id()))
        return lost("mark stream", stream.id());
    if (info_.sparse(stream.id()))
        return {};
    MORVA_TRY_LET(FileNode* const target, writable(copy));
    return target->changeList([&](NodeInfo& list) { return list.setSparse(stream.id()); });
}

} // namespace Replication
