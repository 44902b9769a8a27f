#include "replication/repository/store/ActiveHandles.h"

#include "base/trace/Trace.h"
#include "replication/repository/store/ControlBlock.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Event.h"
#include "replication/repository/store/NodePointer.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/Store.h"

namespace Replication {

using Morva::Result;
using Morva::Status;

ActiveHandles::ActiveHandles(Store& store) : store_(store) {}

ActiveHandle::Pointer ActiveHandles::enter(FileId id, FileNode::Pointer node) {
    auto result = std::make_shared<ActiveHandle>(store_, id, std::move(node));
    handles_.insert(id, result);
    if (auto const found = pending_.constFind(id); found != pending_.cend()) {
        std::uint32_t const type = result->version_.fileType;
        result->version_ = *found;
        result->version_.fileType = type;
        pending_.erase(found);
    }
    return result;
}

Result<ActiveHandle::Pointer> ActiveHandles::get(FileId id) {
    MORVA_METHOD("activeHandle");
    if (!id)
        return ActiveHandle::Pointer();
    if (auto const found = handles_.constFind(id); found != handles_.cend()) {
        MORVA_TRACE(Debug) << "Try to reuse ActiveHandle" << id;
        // A dead one is just being destroyed, further up on this thread: a new one takes its place.
        if (ActiveHandle::Pointer result = found->lock())
            return result;
    }
    MORVA_TRACE(Debug) << "Create ActiveHandle" << id;
    MORVA_TRY_LET(NodeNumber const number, store_.pointers().getNode(id));
    MORVA_TRY_LET(FileNode::Pointer node, store_.passiveHandles().get(number));
    if (!node)
        return ActiveHandle::Pointer();
    node->print(static_cast<int>(Morva::TraceLevel::Debug));
    return enter(id, std::move(node));
}

Result<ActiveHandle::Pointer> ActiveHandles::open(FileId id) {
    MORVA_TRY_LET(ActiveHandle::Pointer handle, get(id));
    if (!handle)
        return Status::corruption("open file", store_.path(),
                                  QStringLiteral("file %1 isn't there").arg(id.value));
    return handle;
}

Result<ActiveHandle::Pointer> ActiveHandles::get(DirKey& key, LiveMode mode) {
    MORVA_TRY_LET(ActiveHandle::Pointer handle, open(key.fileId()));
    handle->links().insert(key.link(), {key, key.name()});
    bool const wanted = mode == LiveMode::LiveOnly;
    if (key.liveOnly() == wanted)
        return handle;
    key.liveOnly(wanted);
    Status status = store_.directories().liveOnly(key);
    if (status) {
        status = handle->liveOnly(key.link(), wanted);
        if (status)
            return handle;
        // The entry and its key say again what the node says.
        key.liveOnly(!wanted);
        store_.unfinished().finish(
            [this, back = DirKey(key)]() mutable { return store_.directories().liveOnly(back); });
        return status;
    }
    key.liveOnly(!wanted);
    return status;
}

Result<ActiveHandle::Pointer> ActiveHandles::create(DirKey& key, QStringList const& path,
                                                    LiveMode mode, std::uint32_t sourceTime,
                                                    NodeInfo info) {
    MORVA_METHOD("activeHandle (Create)");
    bool const placeHolder = info.placeHolder;
    bool const liveOnly = mode == LiveMode::LiveOnly;
    MORVA_TRY_LET(FileNode::Pointer node, store_.passiveHandles().create(
                                              key.type(), liveOnly, sourceTime, std::move(info)));
    if (key.isRoot())
        return createRoot(key, std::move(node));

    Result<FileId> const made = store_.pointers().newId(node->id(), store_.currentInstance());
    if (!made) {
        node->releaseVersion();
        return made.status();
    }
    FileId const id = *made;
    key.fileId(id);
    key.linkId(LinkId{1});
    ActiveHandle::Pointer handle = enter(id, node);
    if (Status status = enterInDirectory(key, *handle, path, liveOnly); !status) {
        // With the last pointer the node goes, and with it what was made of its contents.
        store_.directories().forget(id);
        store_.unfinished().finish([this, id] { return store_.pointers().freeId(id).status(); });
        handle->fileNode()->releaseVersion();
        key.fileId({});
        return status;
    }
    if (!placeHolder && !key.liveOnly() && store_.indexSnapshots() && store_.event())
        (void)store_.event()->created(id, key.link(), key.directoryId(),
                                      path.isEmpty() ? key.name() : path.last(),
                                      sourceTime); // a gap in the sequence tells of it
    else
        MORVA_TRACE(Testing) << "#### Not New";
    handle->links().insert(key.link(), {key, key.name()});
    return handle;
}

Result<ActiveHandle::Pointer> ActiveHandles::createRoot(DirKey const& key, FileNode::Pointer node) {
    store_.pointers().setRoot(node->id(), store_.currentInstance());
    ActiveHandle::Pointer handle = enter(key.fileId(), std::move(node));
    MORVA_TRY(store_.directories().setParent(*handle, key.directoryId()));
    handle->links().insert(key.link(), {key, key.name()});
    return handle;
}

Status ActiveHandles::enterInDirectory(DirKey& key, ActiveHandle& handle, QStringList const& path,
                                       bool liveOnly) {
    // The parent's id first, so that no directory can be met without it.
    if (key.isDirectory())
        MORVA_TRY(store_.directories().setParent(handle, key.directoryId()));
    Result<ActiveHandle::Pointer> const parent = open(key.directoryId());
    if (!parent) {
        MORVA_TRACE(Always) << "Failed to open parent directory" << key.directoryId();
        return parent.status();
    }
    return store_.directories().insert(liveOnly ? NotToBackup::eLiveOnly : NotToBackup::eNothing,
                                       **parent, key, path.isEmpty() ? key.name() : path.last());
}

Result<ActiveHandle::Pointer> ActiveHandles::restore(FileId id, NodeNumber number) {
    if (!id)
        return ActiveHandle::Pointer();
    MORVA_TRY_LET(FileNode::Pointer node, store_.passiveHandles().restore(number));
    if (!node)
        return ActiveHandle::Pointer();
    if (ActiveHandle::Pointer known = handles_.value(id).lock())
        return known;
    return enter(id, std::move(node));
}

void ActiveHandles::release(FileId id) {
    MORVA_METHOD("releaseActiveHandle");
    auto const found = handles_.constFind(id);
    if (found != handles_.cend() && found->expired())
        handles_.erase(found);
}

bool ActiveHandles::loadHandle(std::uint32_t stateVersion, Morva::UnpackBuffer& record) {
    if (stateVersion < 1 || stateVersion > 3)
        return false;
    if (record.extent().size == 0)
        return true;
    FileId id;
    Version version;
    if (!record.take(id.value) || !version.unpack(stateVersion, record))
        return false;
    pending_.insert(id, version);
    return true;
}

std::vector<ActiveHandle::Pointer> ActiveHandles::all() const {
    std::vector<ActiveHandle::Pointer> result;
    result.reserve(static_cast<std::size_t>(handles_.size()));
    for (auto const& known : handles_)
        if (ActiveHandle::Pointer handle = known.lock())
            result.push_back(std::move(handle));
    return result;
}

} // namespace Replication
