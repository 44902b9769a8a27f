// What the outside names a file by, turned into the store's own objects and back.

#include "base/trace/Trace.h"
#include "replication/repository/store/ControlBlock.h"
#include "replication/repository/store/FileNode.h"
#include "replication/repository/store/NodePointer.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/SnapshotDirectories.h"
#include "replication/repository/store/Store.h"

namespace Replication {

NodeNumber Store::fileNode(FileId id, Instance instance) const {
    MORVA_METHOD("fileNode");
    if (!instance)
        return scope.result(pointers().getNode(id));
    if (instance > currentInstance())
        return scope.result(NodeNumber{});
    return scope.result(pointers().getInstance(id, instance));
}

FileNode::Pointer Store::passiveHandle(FileId id, Instance instance) const {
    if (!id || !instance)
        return nullptr;
    for (;;) {
        NodeNumber const number = fileNode(id, instance);
        FileNode::Pointer node = passiveHandles().get(number);
        // Between the two steps a retirement can have freed the node, and another file taken it.
        if (fileNode(id, instance) == number)
            return node;
    }
}

FileNode::Pointer Store::passiveHandle(QStringList const& path, Instance instance) const {
    FileId id = rootId();
    for (QString const& element : path) {
        id = snapshotDirectories().findName(id, instance, element);
        if (!id)
            return nullptr;
    }
    return passiveHandle(id, instance);
}

FileNode::Pointer Store::passiveHandle(FileHandle const& handle) const {
    switch (handle.kind) {
    case FileHandle::Raw:
        return passiveHandles().get(handle.node());
    case FileHandle::Passive:
        return passiveHandle(handle.fileId(), handle.instance);
    case FileHandle::Snapshot:
        return passiveHandle(rootId(), handle.instance);
    case FileHandle::FileIdOnly:
        MORVA_TRACE(Verbose) << "FileId handle";
        return nullptr;
    case FileHandle::Invalid:
        MORVA_TRACE(Verbose) << "Invalid handle";
        return nullptr;
    default:
        MORVA_TRACE(Always) << "Corrupt handle" << handle.kind;
        return nullptr;
    }
}

std::uint32_t Store::mungeFh(FileHandle& handle, FileHandle const& mount) const {
    MORVA_METHOD("mungeFh");
    constexpr std::uint32_t invalidArgument = 22;
    constexpr std::uint32_t otherStore = 18;
    if (mount.kind != FileHandle::Snapshot)
        return scope.result(invalidArgument);
    if (handle.store != mount.store)
        return scope.result(otherStore);
    switch (handle.kind) {
    case FileHandle::Invalid:
        MORVA_TRACE(Verbose) << "Invalid handle";
        return scope.result(invalidArgument);
    case FileHandle::Raw:
        MORVA_TRACE(Verbose) << "Raw handle";
        break;
    case FileHandle::Passive:
        MORVA_TRACE(Verbose) << "Passive handle";
        handle.instance = mount.instance;
        break;
    case FileHandle::Snapshot:
        MORVA_TRACE(Verbose) << "Snapshot handle";
        handle.instance = mount.instance;
        break;
    case FileHandle::FileIdOnly:
        MORVA_TRACE(Verbose) << "FileId handle";
        handle.instance = mount.instance;
        handle.kind = FileHandle::Passive;
        break;
    default:
        MORVA_TRACE(Always) << "Corrupt handle" << handle.kind;
        break;
    }
    return scope.result(std::uint32_t{0});
}

FileHandle Store::fileHandle(FileId id, Instance instance, FileHandle::Kind kind) const {
    FileHandle result;
    switch (kind) {
    case FileHandle::Raw:
        result.id = pointers().getInstance(id, instance).value;
        break;
    case FileHandle::Passive:
    case FileHandle::Snapshot:
        result.id = id.value;
        result.instance = instance;
        break;
    case FileHandle::FileIdOnly:
        result.id = id.value;
        break;
    default:
        return result;
    }
    result.store = this->id();
    result.kind = kind;
    return result;
}

bool Store::lookup(FileHandle& result, FileHandle const& directory, QString const& name) const {
    MORVA_METHOD("lookup");
    FileId parent;
    switch (directory.kind) {
    case FileHandle::Invalid:
    case FileHandle::Raw:
    case FileHandle::FileIdOnly:
        MORVA_TRACE(Always) << "Cannot lookup a raw, sort or invalid handle";
        return scope.result(false);
    case FileHandle::Passive:
        parent = directory.fileId();
        break;
    case FileHandle::Snapshot:
        parent = rootId();
        break;
    default:
        MORVA_TRACE(Always) << "Corrupt handle" << directory.kind;
        return scope.result(false);
    }
    FileId const id = snapshotDirectories().findName(parent, directory.instance, name);
    if (id)
        result = fileHandle(id, directory.instance, FileHandle::Passive);
    return scope.result(static_cast<bool>(id));
}

std::uint32_t Store::lookupParent(FileHandle& result, FileHandle const& object) const {
    MORVA_METHOD("lookupParent");
    switch (object.kind) {
    case FileHandle::Invalid:
    case FileHandle::Raw:
    case FileHandle::FileIdOnly:
        MORVA_TRACE(Always) << "Raw, Sort or invalid handle";
        return scope.result(DirectoryStatus::badHandle);
    case FileHandle::Passive: {
        FileNode::Pointer const node = passiveHandle(object);
        FileId const parent = node ? snapshotDirectories().parentId(*node) : FileId{};
        if (!parent)
            return scope.result(DirectoryStatus::serverFault);
        result = fileHandle(parent, object.instance, FileHandle::Passive);
        return scope.result(DirectoryStatus::ok);
    }
    case FileHandle::Snapshot:
        result = object;
        return scope.result(DirectoryStatus::ok);
    default:
        MORVA_TRACE(Always) << "Corrupt handle" << object.kind;
        return scope.result(DirectoryStatus::badHandle);
    }
}

} // namespace Replication
