#include "replication/repository/store/NodeInfo.h"

#include "base/blocks/Failures.h"
#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "replication/common/values/RepMetadata.h"
#include "replication/repository/streams/StreamHandle.h"
#include "replication/repository/streams/Streams.h"

#include <algorithm>

namespace Replication {

using Morva::Extent;
using Morva::LogLevelE;
using Morva::LogLine;
using Morva::PackBuffer;
using Morva::Result;
using Morva::Status;
using Morva::TraceLevel;
using Morva::TraceLine;
using Morva::UnpackBuffer;

using StreamPointer = std::shared_ptr<StreamHandle>;

void reportLostStream(StreamId id) {
    MORVA_TRACE(Always) << "Lost stream" << id;
    LogLine("Repository", LogLevelE::Warning) << "Internal Error: lost stream";
}

NodeInfo::NodeInfo(Qt::CaseSensitivity caseSensitivity, std::uint32_t type)
    : type_(type), caseSensitivity_(caseSensitivity) {}

NodeInfo::NodeInfo(Qt::CaseSensitivity caseSensitivity, Extent const& record)
    : type_(Empty), caseSensitivity_(caseSensitivity) {
    UnpackBuffer reader;
    reader.fromRawData(record);
    std::uint32_t type = Empty;
    if (!reader.take(type) || type == Empty)
        return;
    if (type == Root) {
        if (unpackRoot(reader))
            type_ = Root;
        else
            MORVA_TRACE(Always) << "Failed to unpack root node info";
    } else if (type == OldFile || type == File) {
        if (unpackFile(reader, type))
            type_ = File;
        else
            MORVA_TRACE(Always) << "Failed to unpack node info";
    } else {
        MORVA_TRACE(Always) << "Invalid Node Info type" << type;
    }
}

bool NodeInfo::unpackRoot(UnpackBuffer& record) {
    return record.take(placeHolder) && record.take(sourceMachine) && record.take(name) &&
           unpackStreams(record, false);
}

bool NodeInfo::unpackFile(UnpackBuffer& record, std::uint32_t type) {
    return record.take(placeHolder) && record.take(attributes) && record.take(owner) &&
           unpackStreams(record, type == File);
}

bool NodeInfo::unpackStreams(UnpackBuffer& record, bool withSparse) {
    std::uint32_t count = 0;
    if (!record.take(count))
        return false;
    // The count can be damaged: it is not a size to allocate.
    streams_.reserve(std::min<std::uint32_t>(count, 4));
    for (; count != 0; --count) {
        NodeStream entry;
        if (!record.take(entry.name) || !record.take(entry.id.value) || !record.take(entry.dirty) ||
            !record.take(entry.dedup) || (withSparse && !record.take(entry.sparse)))
            return false;
        streams_.push_back(std::move(entry));
    }
    return true;
}

void NodeInfo::pack(PackBuffer& buffer) const {
    buffer.reset();
    std::uint32_t const type = type_ == OldFile ? File : type_;
    buffer.append(type);
    if (type == Empty)
        return;
    buffer.append(placeHolder);
    if (type == Root) {
        buffer.append(sourceMachine);
        buffer.append(name);
    } else {
        buffer.append(attributes);
        buffer.append(owner);
    }
    buffer.append(static_cast<std::uint32_t>(streams_.size()));
    for (NodeStream const& entry : streams_) {
        buffer.append(entry.name);
        buffer.append(entry.id.value);
        buffer.append(entry.dirty);
        buffer.append(entry.dedup);
        if (type == File)
            buffer.append(entry.sparse);
    }
}

void NodeInfo::addStream(QString const& streamName, StreamId id, bool dirty, bool dedup,
                         bool sparse) {
    streams_.push_back(NodeStream{streamName, id, dirty, dedup, sparse, {}});
}

NodeStream const* NodeInfo::find(QString const& streamName) const {
    for (NodeStream const& entry : streams_)
        if (QString::compare(entry.name, streamName, caseSensitivity_) == 0)
            return &entry;
    return nullptr;
}

NodeStream* NodeInfo::find(QString const& streamName) {
    return const_cast<NodeStream*>(std::as_const(*this).find(streamName));
}

NodeStream const* NodeInfo::find(StreamId id) const {
    for (NodeStream const& entry : streams_)
        if (entry.id == id)
            return &entry;
    return nullptr;
}

NodeStream* NodeInfo::find(StreamId id) {
    return const_cast<NodeStream*>(std::as_const(*this).find(id));
}

bool NodeInfo::dirty(StreamId id) const {
    NodeStream const* entry = find(id);
    return entry && entry->dirty;
}

bool NodeInfo::sparse(StreamId id) const {
    NodeStream const* entry = find(id);
    return entry && entry->sparse;
}

bool NodeInfo::setDirty(StreamId id) {
    NodeStream* entry = find(id);
    if (entry)
        entry->dirty = true;
    return entry;
}

bool NodeInfo::setSparse(StreamId id) {
    NodeStream* entry = find(id);
    if (entry)
        entry->sparse = true;
    return entry;
}

QString NodeInfo::streamName(StreamId id) const {
    NodeStream const* entry = find(id);
    return entry ? entry->name : QString();
}

std::vector<StreamId> NodeInfo::idList() const {
    std::vector<StreamId> result;
    result.reserve(streams_.size());
    for (NodeStream const& entry : streams_)
        result.push_back(entry.id);
    return result;
}

Result<StreamPointer> NodeInfo::open(Streams& pool, NodeStream const& entry) {
    StreamPointer result = entry.handle.lock();
    if (result)
        return result;
    Morva::Failures::Watch const failures;
    if (entry.id)
        result = pool.handle(entry.id, true);
    if (!result && failures.any())
        return Status::failure(Status::Code::IoError, "open stream", entry.name, {},
                               {Status::Unit::Record, entry.id.value});
    if (!result)
        reportLostStream(entry.id);
    entry.handle = result;
    return result;
}

Result<StreamPointer> NodeInfo::openWhole(Streams& pool, NodeStream const* entry) {
    if (!entry)
        return StreamPointer();
    MORVA_TRY_LET(StreamPointer result, open(pool, *entry));
    if (!result)
        return Status::corruption("open stream", entry->name, QStringLiteral("its content is lost"),
                                  {Status::Unit::Record, entry->id.value});
    return result;
}

Result<std::uint64_t> NodeInfo::sizeOf(Streams& pool, NodeStream const* entry) {
    if (!entry)
        return std::uint64_t{0};
    MORVA_TRY_LET(StreamPointer const stream, open(pool, *entry));
    return stream ? stream->length() : 0;
}

Result<StreamPointer> NodeInfo::streamHandle(Streams& pool, QString const& streamName) const {
    return openWhole(pool, find(streamName));
}

Result<StreamPointer> NodeInfo::streamHandle(Streams& pool, StreamId id) const {
    return openWhole(pool, find(id));
}

Result<std::uint64_t> NodeInfo::size(Streams& pool, QString const& streamName) const {
    return sizeOf(pool, find(streamName));
}

Result<std::uint64_t> NodeInfo::size(Streams& pool, StreamId id) const {
    return sizeOf(pool, find(id));
}

Result<std::vector<StreamRecord>> NodeInfo::streamList(Streams& pool,
                                                       std::uint32_t fileType) const {
    std::vector<StreamRecord> result;
    result.reserve(streams_.size());
    for (NodeStream const& entry : streams_) {
        if (fileType == directoryType &&
            QString::compare(entry.name, dataStreamName, caseSensitivity_) == 0)
            continue;
        MORVA_TRY_LET(std::uint64_t const size, sizeOf(pool, &entry));
        result.push_back({entry.id, size, entry.name});
    }
    return result;
}

bool NodeInfo::replace(NodeStream& entry, std::shared_ptr<StreamHandle> const& to) {
    if (entry.id == to->id())
        return false;
    entry.id = to->id();
    entry.handle = to;
    return true;
}

Status NodeInfo::duplicateStreamList(Streams& pool) const {
    MORVA_METHOD("duplicateStreamList");
    std::vector<StreamPointer> streams;
    for (NodeStream const& entry : streams_) {
        MORVA_TRACE(Debug) << "IN:duplicate" << entry.id;
        // One that can't be read now is not lost: it would have one reference too few for ever.
        MORVA_TRY_LET(StreamPointer stream, open(pool, entry));
        if (stream)
            streams.push_back(std::move(stream));
    }
    for (auto const& stream : streams)
        stream->addReference();
    return {};
}

bool NodeInfo::remove(QString const& streamName) {
    NodeStream const* entry = find(streamName);
    if (!entry)
        return false;
    streams_.erase(streams_.begin() + (entry - streams_.data()));
    return true;
}

bool NodeInfo::rename(QString const& from, QString const& to) {
    if (QString::compare(from, to, caseSensitivity_) == 0 || !exists(from))
        return false;
    (void)remove(to);
    find(from)->name = to;
    return true;
}

bool NodeInfo::removeAll(bool all) {
    return std::erase_if(streams_, [&](NodeStream const& entry) {
               return all || QString::compare(entry.name, dataStreamName, caseSensitivity_) != 0;
           }) != 0;
}

void NodeInfo::release(Streams& pool, NodeInfo const& later) const {
    for (NodeStream const& entry : streams_) {
        if (later.exists(entry.id))
            continue;
        if (std::shared_ptr<StreamHandle> const stream = entry.handle.lock())
            stream->releaseReference();
        else if (!entry.id || !pool.dropReference(entry.id))
            reportLostStream(entry.id);
    }
}

Status NodeInfo::metadata(Streams& pool, RepMetadata& result, std::uint32_t level) const {
    for (NodeStream const& entry : streams_) {
        bool const isData = QString::compare(entry.name, dataStreamName, caseSensitivity_) == 0;
        if (level == RepMetadata::eSnapshot && !isData)
            continue;
        StreamInfo info;
        MORVA_TRY_LET(StreamPointer const stream, open(pool, entry));
        if (stream)
            stream->info(info);
        if (level == RepMetadata::eSnapshot) {
            result.size = info.length;
            result.deduped = info.indexed;
            result.digest = info.digest;
        } else {
            result.streams.push_back(
                {entry.name, entry.id.value, info.length, info.indexed, info.digest});
        }
    }
    return {};
}

void NodeInfo::print(int traceLevel) const {
    auto const level = static_cast<TraceLevel>(traceLevel);
    if (!Morva::Trace::enabled(level))
        return;
    std::vector<NodeStream const*> sorted;
    sorted.reserve(streams_.size());
    for (NodeStream const& entry : streams_)
        sorted.push_back(&entry);
    std::sort(sorted.begin(), sorted.end(),
              [](NodeStream const* a, NodeStream const* b) { return a->id < b->id; });
    TraceLine(level, __FILE__, __LINE__) << "Stream List Start";
    for (NodeStream const* entry : sorted)
        TraceLine(level, __FILE__, __LINE__)
            << entry->id << entry->name << (entry->dirty ? "Dirty" : "Clean")
            << (entry->dedup ? "Dedup" : "DoNotDedup") << (entry->sparse ? "Sparse" : "");
    TraceLine(level, __FILE__, __LINE__) << "Stream List End";
}

} // namespace Replication
