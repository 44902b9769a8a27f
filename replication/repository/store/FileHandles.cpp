// What the outside names a file by, turned into the store's own objects and back.

#include "base/trace/Trace.h"
#include "replication/repository/store/ControlBlock.h"
#include "replication/repository/store/FileNode.h"
#include "replication/repository/store/NodePointer.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/SnapshotDirectories.h"
#include "replication/repository/store/Store.h"

namespace Replication {

using Morva::Result;

Result<NodeNumber> Store::fileNode(FileId id, Instance instance) const {
    MORVA_METHOD("fileNode");
    if (!instance)
        return scope.result(pointers().getNode(id));
    if (instance > currentInstance())
        return NodeNumber{};
    return scope.result(pointers().getInstance(id, instance));
}

Result<FileNode::Pointer> Store::passiveHandle(FileId id, Instance instance) const {
    if (!id || !instance)
        return FileNode::Pointer();
    for (;;) {
        MORVA_TRY_LET(NodeNumber const number, fileNode(id, instance));
        MORVA_TRY_LET(FileNode::Pointer node, passiveHandles().get(number));
        // Between the two steps a retirement can have freed the node, and another file taken it.
        MORVA_TRY_LET(NodeNumber const still, fileNode(id, instance));
        if (still == number)
            return node;
    }
}

Result<FileNode::Pointer> Store::passiveHandle(QStringList const& path, Instance instance) const {
    FileId id = rootId();
    for (QString const& element : path) {
        MORVA_TRY_LET(id, snapshotDirectories().findName(id, instance, element));
        if (!id)
            return FileNode::Pointer();
    }
    return passiveHandle(id, instance);
}

Result<FileNode::Pointer> Store::passiveHandle(FileHandle const& handle) const {
    switch (handle.kind) {
    case FileHandle::Raw:
        return passiveHandles().get(handle.node());
    case FileHandle::Passive:
        return passiveHandle(handle.fileId(), handle.instance);
    case FileHandle::Snapshot:
        return passiveHandle(rootId(), handle.instance);
    case FileHandle::FileIdOnly:
        MORVA_TRACE(Verbose) << "FileId handle";
        return FileNode::Pointer();
    case FileHandle::Invalid:
        MORVA_TRACE(Verbose) << "Invalid handle";
        return FileNode::Pointer();
    default:
        MORVA_TRACE(Always) << "Corrupt handle" << handle.kind;
        return FileNode::Pointer();
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

Result<FileHandle> Store::fileHandle(FileId id, Instance instance, FileHandle::Kind kind) const {
    FileHandle result;
    switch (kind) {
    case FileHandle::Raw: {
        MORVA_TRY_LET(NodeNumber const node, pointers().getInstance(id, instance));
        result.id = node.value;
        break;
    }
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

Result<bool> Store::lookup(FileHandle& result, FileHandle const& directory,
                           QString const& name) const {
    MORVA_METHOD("lookup");
    FileId parent;
    switch (directory.kind) {
    case FileHandle::Invalid:
    case FileHandle::Raw:
    case FileHandle::FileIdOnly:
        MORVA_TRACE(Always) << "Cannot lookup a raw, sort or invalid handle";
        return false;
    case FileHandle::Passive:
        parent = directory.fileId();
        break;
    case FileHandle::Snapshot:
        parent = rootId();
        break;
    default:
        MORVA_TRACE(Always) << "Corrupt handle" << directory.kind;
        return false;
    }
    MORVA_TRY_LET(FileId const id,
                  snapshotDirectories().findName(parent, directory.instance, name));
    if (id) {
        MORVA_TRY_LET(result, fileHandle(id, directory.instance, FileHandle::Passive));
    }
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
        auto const node = passiveHandle(object);
        auto const parent = node && *node ? snapshotDirectories().parentId(**node) : FileId{};
        if (!parent || !*parent)
            return scope.result(DirectoryStatus::serverFault);
        auto const made = fileHandle(*parent, object.instance, FileHandle::Passive);
        if (!made)
            return scope.result(DirectoryStatus::serverFault);
        result = *made;
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
