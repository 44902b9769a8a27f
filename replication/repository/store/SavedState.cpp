#include "replication/repository/store/SavedState.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "base/values/PackBuffer.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/OperationGate.h"
#include "replication/repository/streams/Streams.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Replication {

using Morva::Extent;
using Morva::PackBuffer;
using Morva::Status;
using Morva::UnpackBuffer;
using Section = SavedRecords::Section;

namespace {

constexpr std::uint32_t currentForm = 3;

/// An id or a place in a list as a key.
class NumberKey {
public:
    explicit NumberKey(std::uint64_t number) { Morva::storeLittle(bytes_.data(), number); }
    [[nodiscard]] Extent extent() const {
        return {static_cast<void const*>(bytes_.data()), std::uint32_t{sizeof bytes_}};
    }

private:
    std::array<std::uint8_t, 8> bytes_{};
};

/// The part of a file's record that stands before its links.
struct FileRecord {
    FileId id;
    Version version;
    NodeNumber node;
    bool nameless = false;
    std::uint32_t links = 0;

    [[nodiscard]] bool take(UnpackBuffer& record) {
        return record.take(id.value) && version.unpack(currentForm, record) &&
               record.take(node.value) && record.take(nameless) && record.take(links);
    }
};

Status damage(char const* what) {
    return Status::corruption("read saved state", {}, QString::fromLatin1(what));
}

} // namespace

SavedState::SavedState(Store& store, QString const& path)
    : store_(store), path_(path), records_(path) {}

// --- opening

Status SavedState::load() {
    MORVA_METHOD("loadSavedState");
    auto read = records_.load();
    if (read)
        read = readRecords();
    damaged_ = read.is(Status::Code::Corruption);
    if (!damaged_)
        return read;
    MORVA_TRACE(Always) << "The saved state of store" << store_.id() << read.text();
    drop();
    damaged_ = true;
    return {};
}

Status SavedState::keptNodes(SavedRecords const& records, QSet<NodeNumber>& nodes) {
    UnpackBuffer record;
    MORVA_TRY(records.forEach(Section::File, [&](Extent, Extent body) -> Status {
        record.fromRawData(body);
        FileRecord file;
        if (!file.take(record))
            return damage("an open file");
        if (file.nameless)
            nodes.insert(file.node);
        return {};
    }));
    return records.forEach(Section::Retired, [&](Extent, Extent body) -> Status {
        record.fromRawData(body);
        QString name;
        NodeNumber node;
        if (!record.take(name) || !record.take(node.value))
            return damage("a retired version");
        if (node)
            nodes.insert(node);
        return {};
    });
}

Status SavedState::keptStreams(SavedRecords const& records, QSet<StreamId>& streams) {
    return records.forEach(Section::Stream, [&](Extent key, Extent) -> Status {
        if (key.size != sizeof(std::uint64_t))
            return damage("a stream");
        streams.insert(StreamId{Morva::loadLittle<std::uint64_t>(key.bytes())});
        return {};
    });
}

Status SavedState::readRecords() {
    QSet<NodeNumber> nodes;
    MORVA_TRY(keptNodes(records_, nodes));
    MORVA_TRY(keptStreams(records_, streamsKept_));
    for (auto const id : std::as_const(streamsKept_))
        store_.streams().saveStream(id);
    std::lock_guard const guard(lock_);
    nodesKept_ = std::move(nodes);
    return {};
}

void SavedState::drop() {
    records_.clear();
    damaged_ = false;
}

bool SavedState::keeps(NodeNumber node) const {
    std::lock_guard const guard(lock_);
    return nodesKept_.contains(node);
}

Morva::Result<std::shared_ptr<ActiveHandle>> SavedState::open(FileId id) {
    auto const* const body = records_.find(Section::File, NumberKey(id.value).extent());
    UnpackBuffer record;
    FileRecord file;
    if (!body)
        return damage("an open file has no record");
    record.fromRawData(Extent(*body));
    if (!store_.activeHandles().loadHandle(currentForm, record))
        return damage("an open file");
    record.fromRawData(Extent(*body));
    if (!file.take(record))
        return damage("an open file");
    MORVA_TRY_LET(auto handle, file.nameless ? store_.activeHandles().restore(id, file.node)
                                             : store_.activeHandles().get(id));
    for (; handle && file.links != 0; --file.links) {
        LinkId link;
        FileId directory;
        std::uint32_t type = 0;
        QString name;
        if (!record.take(link.value) || !record.take(directory.value) || !record.take(type) ||
            !record.take(name))
            return damage("the names of an open file");
        DirKey key(directory, name, type);
        key.fileId(id);
        key.linkId(link);
        handle->links().insert(link, {key, name});
    }
    return handle;
}

Status SavedState::takeUp() {
    store_.retired().stateSaved(false);
    auto const* const header = records_.find(Section::Header, {});
    if (!header)
        return {};
    UnpackBuffer record;
    record.fromRawData(Extent(*header));
    std::uint32_t form = 0, clock = 0;
    if (!record.take(form) || form != currentForm || !record.take(clock))
        return damage("its header");
    // Nothing waits yet, so that nothing is sent by this.
    store_.retired().timeStamp(clock);
    return takeUpRetired();
}

Status SavedState::takeUpRetired() {
    UnpackBuffer record;
    for (std::uint64_t place = 0;; ++place) {
        auto const* const body = records_.find(Section::Retired, NumberKey(place).extent());
        if (!body)
            return {};
        record.fromRawData(Extent(*body));
        QString name;
        NodeNumber number;
        std::uint32_t expire = 0;
        Version version;
        if (!record.take(name) || !record.take(number.value) || !record.take(expire) ||
            !version.unpack(currentForm, record))
            return damage("a retired version");
        // Null for 0.
        MORVA_TRY_LET(auto node, store_.passiveHandles().restore(number));
        if (number && !node)
            return damage("a retired version has no node");
        store_.retired().restore(name, std::move(node), expire, version);
    }
}

// --- saving

void SavedState::attach(Part& part) {
    part_ = &part;
    unsaved_ = false;
}

void SavedState::detach(Part const& part, bool saved) {
    if (part_ != &part)
        return;
    part_ = nullptr;
    unsaved_ = !saved;
}

Status SavedState::save() {
    MORVA_METHOD("saveState");
    if (unsaved_)
        return Status::failure(Status::Code::Stopped, "save state", path_,
                               QStringLiteral("its sink has ended without saving"));
    if (!part_)
        return {};
    OperationGate::Enter const entered;
    filesPut_.clear();
    nodesPut_.clear();
    streamsPut_.clear();
    records_.begin();
    saveHeader();
    saveRetired();
    MORVA_TRY(part_->save(*this));
    MORVA_TRY(records_.commit());
    damaged_ = false;
    keepPut();
    return {};
}

void SavedState::durable() {
    if (part_)
        part_->durable();
}

void SavedState::saveHeader() {
    PackBuffer record;
    record.append(currentForm);
    record.append(store_.retired().timeStamp());
    record.append(store_.indexSnapshots());
    record.append(store_.dedupSnapshots());
    record.append(store_.dedupVersions());
    record.append(std::uint32_t{0});
    records_.put(Section::Header, {}, record.extentWithoutSize());
}

void SavedState::saveRetired() {
    PackBuffer record;
    std::uint64_t place = 0;
    store_.retired().forEach([&](QString const& name, FileNode::Pointer const& node,
                                 std::uint32_t expire, Version const& version) {
        record.reset();
        record.append(name);
        record.append(node ? node->id().value : std::uint64_t{0});
        record.append(expire);
        version.pack(record);
        records_.put(Section::Retired, NumberKey(place++).extent(), record.extentWithoutSize());
        if (node)
            nodesPut_.insert(node->id());
    });
}

void SavedState::file(ActiveHandle& handle) {
    if (!handle.fileNode() || filesPut_.contains(handle.id()))
        return;
    filesPut_.insert(handle.id());
    auto const nameless = handle.linkCount() == 0;
    if (nameless)
        nodesPut_.insert(handle.fileNode()->id());
    PackBuffer record;
    handle.saveHandle(record);
    record.append(handle.fileNode()->id().value);
    record.append(nameless);
    auto const& links = handle.links();
    record.append(static_cast<std::uint32_t>(links.size()));
    // In one order, so that the record is the same as long as they are.
    auto numbers = links.keys();
    std::sort(numbers.begin(), numbers.end());
    for (auto const link : numbers) {
        auto const& key = links[link].key;
        record.append(link.value);
        record.append(key.directoryId().value);
        record.append(key.typeWord());
        record.append(key.name());
    }
    records_.put(Section::File, NumberKey(handle.id().value).extent(), record.extentWithoutSize());
}

void SavedState::stream(StreamId id) {
    streamsPut_.insert(id);
    records_.put(Section::Stream, NumberKey(id.value).extent(), {});
}

void SavedState::keepPut() {
    // One that is open goes with its last handle, which asks `keeps`.
    auto before = std::exchange(unkept_, {});
    {
        std::lock_guard const guard(lock_);
        for (auto const node : std::as_const(nodesKept_))
            if (!nodesPut_.contains(node))
                before.push_back(node);
        nodesKept_ = std::exchange(nodesPut_, {});
    }
    for (auto const node : before)
        if (auto const freed = store_.passiveHandles().freeUnclaimed(node); !freed)
            unkept_.push_back(node); // the next save tries again
    for (auto const id : std::as_const(streamsPut_))
        if (!streamsKept_.contains(id))
            store_.streams().saveStream(id);
    for (auto const id : std::as_const(streamsKept_))
        if (!streamsPut_.contains(id))
            store_.streams().forgetStream(id);
    streamsKept_ = std::exchange(streamsPut_, {});
}

Status SavedState::stop(Part const& part) {
    OperationGate::Enter const entered;
    MORVA_TRY(save());
    store_.retired().stateSaved(true);
    if (store_.id())
        MORVA_TRY(store_.snapshots().deleteValidateSnapshot());
    // What was saved is not sent again by the end of its handle.
    for (auto const& handle : store_.activeHandles().all())
        handle->version().clear();
    store_.retired().clear();
    detach(part, true);
    return {};
}

} // namespace Replication
