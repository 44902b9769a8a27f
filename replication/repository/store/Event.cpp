#include "replication/repository/store/Event.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"

#include <array>
#include <cstring>

namespace Replication {

using Morva::Extent;
using Morva::loadLittle;
using Morva::PackBuffer;
using Morva::storeLittle;
using Morva::TracedLock;
using Morva::UnpackBuffer;

namespace {

enum Offset : std::uint32_t {
    atType = 0,
    atReplay = 4,
    atSequence = 8,
    atObject = 16,
    atSecond = 48,
    atFirst = 80,
    atCount = 84,
    atTime = 88
};

/// On the wire a link id of 1 is 0.
FileHandle outward(FileHandle handle) {
    if (handle.link == LinkId{1})
        handle.link = {};
    return handle;
}

FileHandle inward(std::uint8_t const* bytes) {
    FileHandle handle;
    (void)handle.decode(Extent(bytes, FileHandle::packedSize));
    if (handle.kind == FileHandle::Raw || handle.kind == FileHandle::FileIdOnly)
        handle.link = handle.link ? handle.link : LinkId{1};
    return handle;
}

bool takeHandle(UnpackBuffer& record, FileHandle& handle) {
    std::array<std::uint8_t, FileHandle::packedSize> bytes;
    if (!record.take(bytes.data(), FileHandle::packedSize))
        return false;
    handle = inward(bytes.data());
    return true;
}

bool takeVariable(UnpackBuffer& record, EventRecord& event) {
    switch (event.type) {
    case EventRecord::VersionEnded:
    case EventRecord::VersionResync:
    case EventRecord::VersionWeak:
        return record.take(event.path) && record.take(event.user) && record.take(event.process) &&
               event.metadata.deserialize(record);
    case EventRecord::SnapshotTaken:
        return record.take(event.policy) && record.take(event.opId) &&
               record.take(event.needResync) && record.take(event.sourceTime) &&
               record.take(event.instance.value);
    case EventRecord::UserSnapshot:
        return record.take(event.needResync) && record.take(event.sourceTime) &&
               record.take(event.instance.value) && record.take(event.text);
    case EventRecord::ResyncSnapshot:
        return record.take(event.sourceTime) && record.take(event.instance.value);
    case EventRecord::New:
    case EventRecord::Rename:
        return record.take(event.text);
    case EventRecord::Copy:
        return record.extent().size == 0 || takeHandle(record, event.source);
    case EventRecord::Delete:
    case EventRecord::SnapshotDeduped:
    case EventRecord::DeleteStore:
    case EventRecord::DeleteSnapshot:
        return true;
    default:
        return false;
    }
}

} // namespace

// --- the codec

void EventRecord::encode(PackBuffer& buffer) const {
    std::array<std::uint8_t, headerSize> header{};
    storeLittle<std::uint32_t>(&header[atType], type);
    storeLittle<std::uint32_t>(&header[atReplay], replayId.value);
    storeLittle<std::uint64_t>(&header[atSequence], sequence);
    auto const objectBytes = outward(object).encode();
    std::memcpy(&header[atObject], objectBytes.data(), objectBytes.size());
    auto const secondBytes = outward(second).encode();
    std::memcpy(&header[atSecond], secondBytes.data(), secondBytes.size());
    storeLittle<std::uint32_t>(&header[atFirst], first);
    storeLittle<std::uint32_t>(&header[atCount], static_cast<std::uint32_t>(rules.size()));
    storeLittle<std::uint32_t>(&header[atTime], time);
    buffer.reset();
    buffer.append(header.data(), headerSize);
    for (std::uint32_t const rule : rules)
        buffer.append(rule);
    switch (type) {
    case VersionEnded:
    case VersionResync:
    case VersionWeak:
        buffer.append(path);
        buffer.append(user);
        buffer.append(process);
        metadata.serialize(buffer);
        break;
    case SnapshotTaken:
        buffer.append(policy);
        buffer.append(opId);
        buffer.append(needResync);
        buffer.append(sourceTime);
        buffer.append(instance.value);
        break;
    case UserSnapshot:
        buffer.append(needResync);
        buffer.append(sourceTime);
        buffer.append(instance.value);
        buffer.append(text);
        break;
    case ResyncSnapshot:
        buffer.append(sourceTime);
        buffer.append(instance.value);
        break;
    case New:
    case Rename:
        buffer.append(text);
        break;
    case Copy:
        if (source.kind != FileHandle::Invalid) {
            auto const bytes = outward(source).encode();
            buffer.append(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
        }
        break;
    default:
        break;
    }
}

std::optional<EventRecord> EventRecord::decode(Extent const& bytes) {
    if (bytes.size < headerSize)
        return {};
    EventRecord event;
    std::uint8_t const* const header = bytes.bytes();
    event.type = loadLittle<std::uint32_t>(header + atType);
    event.replayId = ReplayId{loadLittle<std::uint32_t>(header + atReplay)};
    event.sequence = loadLittle<std::uint64_t>(header + atSequence);
    event.object = inward(header + atObject);
    event.second = inward(header + atSecond);
    event.first = loadLittle<std::uint32_t>(header + atFirst);
    event.time = loadLittle<std::uint32_t>(header + atTime);
    std::uint32_t const count = loadLittle<std::uint32_t>(header + atCount);
    if (count > (bytes.size - headerSize) / sizeof(std::uint32_t))
        return {};
    UnpackBuffer record;
    record.fromRawData(bytes);
    std::array<std::uint8_t, headerSize> skipped;
    if (!record.take(skipped.data(), headerSize))
        return {};
    event.rules.resize(count);
    for (std::uint32_t& rule : event.rules)
        if (!record.take(rule))
            return {};
    if (!takeVariable(record, event))
        return {};
    return event;
}

// --- sending

Event::Event(std::shared_ptr<EventChannel> channel, StoreId store, ReplayId replay,
             std::uint32_t filterType, std::uint32_t opening)
    : channel_(std::move(channel)),
      store_(store),
      replay_(replay),
      filterType_(filterType),
      sequence_(opening ? std::uint64_t{opening - 1} << 32 : 0) {}

std::uint64_t Event::sequence() const {
    TracedLock lock(lock_);
    return sequence_;
}

EventRecord Event::record(EventRecord::Type type) const {
    EventRecord event;
    event.type = type;
    event.replayId = replay_;
    event.object.store = store_;
    return event;
}

EventRecord Event::ofSnapshot(EventRecord::Type type, Instance instance) const {
    EventRecord event = record(type);
    event.object.kind = FileHandle::Snapshot;
    event.object.instance = instance;
    return event;
}

EventRecord Event::ofFile(EventRecord::Type type, FileId file, LinkId link, FileId directory,
                          std::uint32_t time) const {
    EventRecord event = record(type);
    event.object.kind = FileHandle::Raw;
    event.object.id = file.value;
    event.object.link = link;
    if (directory) {
        event.second.kind = FileHandle::FileIdOnly;
        event.second.id = directory.value;
        event.second.store = store_;
        event.second.link = link;
    }
    event.time = time;
    return event;
}

bool Event::send(EventRecord& event, char const* word) {
    TracedLock lock(lock_);
    event.sequence = ++sequence_;
    MORVA_TRACE(Normal) << word << event.sequence << "Store" << store_ << event.object.id
                        << event.object.instance << "FilterType" << filterType_;
    if (!channel_)
        return false;
    event.encode(buffer_);
    return channel_->send(buffer_.extentWithoutSize());
}

bool Event::version(Version const& version, RepMetadata const& metadata, bool inResync) {
    bool const resync = inResync && version.resync;
    EventRecord event = record(resync         ? EventRecord::VersionResync
                               : version.weak ? EventRecord::VersionWeak
                                              : EventRecord::VersionEnded);
    event.object.kind = FileHandle::Raw;
    event.object.id = version.fileNode.value;
    event.object.link = version.link;
    if (version.prevFileNode) {
        event.second.kind = FileHandle::Raw;
        event.second.id = version.prevFileNode.value;
        event.second.store = store_;
        event.second.link = version.prevLink;
    }
    event.first = version.ruleSet;
    event.time = version.time;
    event.rules = version.rules;
    event.path = version.path.join(QLatin1Char('/'));
    event.user = version.user;
    event.process = version.process;
    event.metadata = metadata;
    return send(event, resync         ? "#### VersionResync"
                       : version.weak ? "#### VersionWeak"
                                      : "#### Version");
}

bool Event::snapshot(Instance instance, std::uint32_t ruleSet, std::uint32_t policy,
                     std::uint32_t opId, bool needResync, std::uint32_t sourceTime) {
    EventRecord event = ofSnapshot(EventRecord::SnapshotTaken, instance);
    event.first = ruleSet;
    event.policy = policy;
    event.opId = opId;
    event.needResync = needResync;
    event.sourceTime = sourceTime;
    event.instance = instance;
    return send(event, "#### Snapshot");
}

bool Event::userSnapshot(Instance instance, std::uint32_t opId, bool needResync,
                         std::uint32_t sourceTime, QString const& label) {
    EventRecord event = ofSnapshot(EventRecord::UserSnapshot, instance);
    event.first = opId;
    event.needResync = needResync;
    event.sourceTime = sourceTime;
    event.instance = instance;
    event.text = label;
    return send(event, "#### User Snapshot");
}

bool Event::resyncSnapshot(Instance instance, std::uint32_t opId, std::uint32_t sourceTime) {
    EventRecord event = ofSnapshot(EventRecord::ResyncSnapshot, instance);
    event.first = opId;
    event.sourceTime = sourceTime;
    event.instance = instance;
    return send(event, "#### Resync Snapshot");
}

bool Event::snapshotDeduped(Instance instance) {
    EventRecord event = ofSnapshot(EventRecord::SnapshotDeduped, instance);
    return send(event, "#### Snapshot Deduped");
}

bool Event::deleteSnapshot(Instance instance) {
    EventRecord event = ofSnapshot(EventRecord::DeleteSnapshot, instance);
    return send(event, "#### Delete Snapshot");
}

bool Event::deleteStore(ReplayId replay, StoreId store) {
    EventRecord event = record(EventRecord::DeleteStore);
    event.replayId = replay;
    event.object.kind = FileHandle::Raw;
    event.object.store = store;
    event.object.link = LinkId{1};
    return send(event, "#### Delete Store");
}

bool Event::created(FileId file, LinkId link, FileId directory, QString const& name,
                    std::uint32_t time) {
    EventRecord event = ofFile(EventRecord::New, file, link, directory, time);
    event.text = name;
    return send(event, "#### New");
}

bool Event::changed(FileId file, LinkId link, FileId directory, FileId source, std::uint32_t time) {
    EventRecord event = ofFile(EventRecord::Copy, file, link, directory, time);
    if (source) {
        event.source.kind = FileHandle::FileIdOnly;
        event.source.id = source.value;
        event.source.store = store_;
        event.source.link = LinkId{1};
    }
    return send(event, "#### Copy");
}

bool Event::removed(FileId file, LinkId link, FileId directory, std::uint32_t time) {
    EventRecord event = ofFile(EventRecord::Delete, file, link, directory, time);
    return send(event, "#### Delete");
}

bool Event::renamed(FileId file, LinkId link, FileId directory, QString const& newName,
                    std::uint32_t time) {
    EventRecord event = ofFile(EventRecord::Rename, file, link, directory, time);
    event.text = newName;
    return send(event, "#### Rename");
}

} // namespace Replication
