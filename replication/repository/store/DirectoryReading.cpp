// How readers get a directory: `readDir` and `dirRead`, and the records of a directory scan.

#include "base/messages/XmlList.h"
#include "base/trace/Trace.h"
#include "base/trees/PagedList.h"
#include "base/values/PackBuffer.h"
#include "replication/common/values/RepMetadata.h"
#include "replication/repository/store/SnapshotDirectories.h"
#include "replication/repository/store/SnapshotNames.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <cstring>

namespace Replication {

using Morva::Extent;
using Morva::PackBuffer;
using Morva::PagedList;
using Morva::Result;
using Morva::Status;
using Answer = DirectoryStatus;

namespace {

constexpr std::uint32_t snapshotLevel = 1;

Status packEntry(PackBuffer& record, Store const& store, DirectoryEntry const& entry,
                 std::uint64_t position, Instance instance, bool attributes, bool fileHandles) {
    record.reset();
    record.append(position + entry.entryLength());
    record.append(entry.typeWord());
    record.append(entry.name().toString());
    if (fileHandles) {
        MORVA_TRY_LET(FileHandle handle,
                      store.fileHandle(entry.fileId(), instance, FileHandle::Passive));
        if (entry.link() > LinkId{1}) // link 1 goes out as 0, as in every handle
            handle.link = entry.link();
        auto const bytes = handle.encode();
        record.append(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    }
    if (attributes) {
        RepMetadata description;
        MORVA_TRY_LET(FileNode::Pointer const node, store.passiveHandle(entry.fileId(), instance));
        if (node)
            MORVA_TRY(node->metadata(snapshotLevel, description));
        description.serialize(record);
    }
    static constexpr std::uint8_t zeros[8] = {};
    record.append(zeros, (8 - record.size() % 8) % 8);
    return {};
}

} // namespace

std::uint32_t SnapshotDirectories::readDir(Morva::XmlList& reply, Extent& buffer,
                                           FileHandle const& directory, std::uint64_t cookie,
                                           std::uint32_t maximum, bool attributes,
                                           bool fileHandles) {
    MORVA_METHOD("readDir");
    switch (directory.kind) {
    case FileHandle::Invalid:
    case FileHandle::Raw:
    case FileHandle::FileIdOnly:
        MORVA_TRACE(Normal) << "Raw, Sort or invalid handle";
        return Answer::badHandle;
    case FileHandle::Passive:
    case FileHandle::Snapshot:
        break;
    default:
        MORVA_TRACE(Always) << "Corrupt handle";
        return Answer::ok;
    }
    auto const opened = store_.passiveHandle(directory);
    if (!opened)
        return Answer::serverFault;
    FileNode::Pointer const node = *opened;
    if (!node)
        return Answer::handleExpired;
    if (!node->isDirectory())
        return Answer::notDirectory;
    bool eof = true;
    FileId const id = directory.kind == FileHandle::Snapshot ? store_.rootId() : directory.fileId();
    std::uint32_t const status = dirRead(eof, buffer, *node, directory.instance, cookie, maximum,
                                         attributes, fileHandles, id);
    if (status == Answer::ok)
        reply.set(QStringLiteral("DirEOF"), eof);
    return scope.result(status);
}

std::uint32_t SnapshotDirectories::dirRead(bool& eof, Extent& buffer, FileNode& node,
                                           Instance instance, std::uint64_t cookie,
                                           std::uint32_t maximum, bool attributes, bool fileHandles,
                                           FileId directory) {
    MORVA_METHOD("dirRead");
    eof = true;
    std::uint32_t const space = buffer.size;
    buffer.size = buffer.available = 0;
    if (!node.isDirectory()) {
        MORVA_TRACE(Normal) << "Not a directory";
        return Answer::badHandle;
    }
    DirectoryScan scan(node, directory, "Snapshot readDir", instance,
                       DirectoryPage::pageOf(cookie));
    bool reached = DirectoryPage::offsetOf(cookie) == 0;
    std::uint32_t written = 0;
    std::uint32_t count = 0;
    PackBuffer record(1024);
    while (scan.next()) {
        if (!reached) {
            if (scan.position() < cookie)
                continue;
            if (scan.position() != cookie) {
                eof = false;
                return Answer::badCookie;
            }
            reached = true;
        }
        DirectoryEntry const entry = scan.entry();
        if (!entry.inUse() || entry.liveOnly())
            continue;
        if (!packEntry(record, store_, entry, scan.position(), instance, attributes, fileHandles)) {
            buffer.size = buffer.available = written;
            eof = false;
            return Answer::serverFault;
        }
        if (record.size() > space - written) {
            MORVA_TRACE(Debug) << "Stop no space available";
            eof = false;
            break;
        }
        std::memcpy(buffer.bytes() + written, record.extentWithoutSize().data, record.size());
        written += record.size();
        if (++count == maximum) {
            MORVA_TRACE(Debug) << "Stop enough entries";
            eof = false;
            break;
        }
    }
    buffer.size = buffer.available = written;
    if (scan.failed()) {
        eof = false;
        return Answer::serverFault;
    }
    if (!reached && DirectoryPage::pageOf(cookie) < scan.pages()) {
        eof = false;
        return Answer::badCookie;
    }
    return Answer::ok;
}

namespace {

constexpr std::uint32_t linkAt = 4;
constexpr std::uint32_t fileIdAt = 8;
constexpr std::uint32_t nameAt = 16;

} // namespace

bool DirscanRecord::decode(Extent const& record) {
    if (record.size < fixedSize || record.size % 2 != 0)
        return false;
    std::uint8_t const* const bytes = record.bytes();
    type = Morva::loadLittle<std::uint32_t>(bytes);
    link = LinkId{Morva::loadLittle<std::uint32_t>(bytes + linkAt)};
    fileId = FileId{Morva::loadLittle<std::uint64_t>(bytes + fileIdAt)};
    name.resize((record.size - fixedSize) / 2);
    std::memcpy(name.data(), bytes + nameAt, record.size - fixedSize);
    return true;
}

Status DirscanRecord::write(PagedList& list, DirectoryEntry const& entry) {
    alignas(8) std::uint8_t bytes[DirectoryPage::size];
    std::uint32_t const nameBytes = 2 * entry.nameLength();
    Morva::storeLittle(bytes, entry.type());
    Morva::storeLittle(bytes + linkAt, entry.link().value);
    Morva::storeLittle(bytes + fileIdAt, entry.fileId().value);
    std::memcpy(bytes + nameAt, entry.name().utf16(), nameBytes);
    Morva::storeLittle(bytes + nameAt + nameBytes, std::uint16_t{0});
    return list.write(Extent(static_cast<void const*>(bytes), nameBytes + fixedSize));
}

} // namespace Replication
