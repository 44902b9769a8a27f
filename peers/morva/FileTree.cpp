#include "peers/morva/FileTree.h"

#include "base/trace/Trace.h"
#include "base/values/PosixText.h"
#include "peers/morva/ExitCode.h"
#include "replication/common/values/WindowsObject.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/DirectoryScan.h"
#include "replication/repository/store/NodePointer.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/SnapshotDirectories.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <sys/stat.h>

#include <algorithm>
#include <unordered_set>

namespace Morva {

using Replication::DirectoryScan;
using Replication::FileId;
using Replication::FileNode;
using Replication::LinkId;
using Replication::NodeNumber;
using Replication::PathMode;
using Replication::PosixAttributes;
using Replication::PosixSecurity;
using Replication::StreamHandle;

namespace {

QString const linkStreamName = QString::fromUtf16(Replication::PosixStream::link);
QString const attributesStreamName = QString::fromUtf16(Replication::PosixStream::attributes);

/// A larger stream of anything but content is damage: Linux bounds what one file can have.
constexpr std::uint64_t maximumSmallStream = PosixAttributes::maximumSize;

/// The value of a look-up; ends the command when it failed.
template <class Value> Value valueOf(Result<Value> result, QString const& what) {
    if (result.ok())
        return *std::move(result);
    throw CommandFailure(ExitCode::Failed, result.status().during(what).text() +
                                               QStringLiteral("; run \"morva check\""));
}

/// The whole of a small stream; empty when the object has none.
std::optional<QByteArray> readSmall(FileNode& node, QString const& name) {
    auto const opened = node.openStream(name);
    if (!opened)
        return std::nullopt;
    auto const& stream = *opened;
    if (!stream)
        return QByteArray();
    auto const length = stream->length();
    if (length > maximumSmallStream) {
        MORVA_TRACE(Always) << "Stream" << name << "of node" << node.id() << "is too long";
        return std::nullopt;
    }
    QByteArray bytes(static_cast<qsizetype>(length), Qt::Uninitialized);
    if (stream->readWhole(0, bytes.data(), static_cast<std::uint32_t>(length)) != length)
        return std::nullopt;
    return bytes;
}

} // namespace

FileTree::Entry FileTree::root() const {
    return {QString(), store_->rootId(), LinkId{1}, true};
}

NodeNumber FileTree::nodeNumber(FileId id) const {
    return id ? valueOf(store_->fileNode(id, instance_), QStringLiteral("look for a version"))
              : NodeNumber{};
}

FileNode::Pointer FileTree::node(FileId id) const {
    auto const number = id ? store_->fileNode(id, instance_) : NodeNumber{};
    auto const found = number ? store_->passiveHandles().get(*number) : FileNode::Pointer();
    return found ? *found : nullptr;
}

std::optional<FileTree::Entry> FileTree::find(QStringList const& path) const {
    auto parts = path;
    parts.removeAll(QStringLiteral("."));
    Entry at = root();
    auto const what = [&] { return QStringLiteral("look for ") + parts.join(u'/'); };
    if (live()) {
        auto const located =
            valueOf(store_->directories().locate(parts, PathMode::DoNotBuildPath), what());
        if (!located.found)
            return std::nullopt;
        if (!located.key.isRoot())
            at = {parts.last(), located.key.fileId(), located.key.link(),
                  located.key.isDirectory()};
        return at;
    }
    for (auto const& part : parts) {
        auto const item =
            valueOf(store_->snapshotDirectories().findItem(at.id, instance_, part), what());
        if (!item || item->liveOnly)
            return std::nullopt;
        at = {part, item->fileId, item->link, item->type == Replication::directoryType};
    }
    return at;
}

bool FileTree::forEach(FileNode& directory, FileId id,
                       std::function<bool(Entry const&)> const& visit) const {
    if (!directory.isDirectory())
        return false;
    DirectoryScan scan(directory, id, "FileTree", instance_);
    Entry item;
    while (scan.nextName()) {
        auto const entry = scan.entry();
        if (entry.liveOnly() && !live())
            continue;
        item.name = entry.name().toString();
        item.id = entry.fileId();
        item.link = entry.link();
        item.isDirectory = entry.isDirectory();
        if (!visit(item))
            return true;
    }
    // A directory that nothing was ever entered in has no pages.
    return !scan.failed() && (scan.hasData() || !directory.exists(Replication::dataStreamName));
}

bool FileTree::list(FileNode& directory, FileId id, std::vector<Entry>& entries) const {
    auto const first = static_cast<std::ptrdiff_t>(entries.size());
    auto const whole = forEach(directory, id, [&](Entry const& entry) {
        entries.push_back(entry);
        return true;
    });
    std::vector<std::pair<QByteArray, Entry>> sorted;
    sorted.reserve(entries.size());
    for (auto at = entries.begin() + first; at != entries.end(); ++at)
        sorted.emplace_back(nameBytes(at->name), std::move(*at));
    std::sort(sorted.begin(), sorted.end(),
              [](auto const& a, auto const& b) { return a.first < b.first; });
    std::transform(sorted.begin(), sorted.end(), entries.begin() + first,
                   [](auto& item) { return std::move(item.second); });
    return whole;
}

void FileTree::walk(Entry const& start, QByteArray const& path, Visitor const& visit) const {
    struct Ahead {
        QByteArray path;
        Entry entry;
    };
    std::vector<Ahead> ahead{{path, start}};
    std::vector<Entry> entries;
    std::unordered_set<FileId> seen;
    while (!ahead.empty()) {
        auto const at = std::move(ahead.back());
        ahead.pop_back();
        if (!visit(at.path, at.entry) || !at.entry.isDirectory)
            continue;
        entries.clear();
        auto const directory = node(at.entry.id);
        // A directory has one name. A damaged one that holds itself must not be walked for ever.
        if (!directory || !seen.insert(at.entry.id).second ||
            !list(*directory, at.entry.id, entries))
            static_cast<void>(visit(at.path, {}));
        for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry)
            ahead.push_back({joinPath(at.path, nameBytes(entry->name)), std::move(*entry)});
    }
}

namespace {

/// A POSIX file has its mode in its node too. An object of a mail store has nothing there: what
/// its streams are called is the sender's choice, and means nothing here. Directories of a mail
/// store have no streams.
bool isMail(FileNode const& node) {
    return !node.isDirectory() && (node.attributes() & S_IFMT) == 0;
}

/// Whether an object has nothing of a POSIX source: it is that of a Windows machine or a mail
/// store, or a directory that was made because a path needed it.
bool isForeign(FileNode const& node, QByteArray const& security) {
    if (isMail(node))
        return true;
    return security.isEmpty() ? node.isDirectory()
                              : Replication::WindowsSecurity::valid(Extent(security));
}

} // namespace

std::optional<ObjectAttributes> FileTree::attributes(FileNode& node) {
    auto const record = readSmall(node, Replication::securityStreamName);
    if (!record)
        return std::nullopt;
    ObjectAttributes result;
    // Versions that ended under older programs count no names.
    result.links = node.linkCount() == 0 && node.notLinked() ? 1 : node.linkCount();
    auto const security = PosixSecurity::decode(Extent(*record));
    if (security && !isMail(node))
        result.security = *security;
    else if (isForeign(node, *record)) {
        result.security.mode = node.isDirectory() ? S_IFDIR | 0755 : S_IFREG | 0644;
        result.described = false;
    } else
        return std::nullopt;
    auto const words = node.times();
    auto const& times = result.security.times;
    result.modified = times.modification.resolved(words.modifiedSource);
    result.changed = times.change.resolved(words.createdSource);
    if (times.modification.counts(words.modifiedSource))
        result.accessed = times.access;
    switch (result.security.mode & S_IFMT) {
    case S_IFDIR:
        return node.isDirectory() ? std::optional(result) : std::nullopt;
    case S_IFREG:
    case S_IFLNK:
    case S_IFIFO:
    case S_IFSOCK:
    case S_IFCHR:
    case S_IFBLK:
        return node.isDirectory() ? std::nullopt : std::optional(result);
    default:
        return std::nullopt;
    }
}

std::optional<QByteArray> FileTree::linkTarget(FileNode& node) {
    auto target = readSmall(node, linkStreamName);
    if (target && (target->isEmpty() || target->contains('\0')))
        return std::nullopt;
    return target;
}

std::optional<PosixAttributes> FileTree::extendedAttributes(FileNode& node) {
    if (isMail(node))
        return PosixAttributes();
    auto const record = readSmall(node, attributesStreamName);
    return record ? PosixAttributes::decode(Extent(*record)) : std::nullopt;
}

std::shared_ptr<StreamHandle> FileTree::content(FileNode& node) {
    auto const opened = node.openStream(Replication::dataStreamName);
    return opened ? *opened : nullptr;
}

std::uint64_t FileTree::size(FileNode& node, ObjectAttributes const& attributes) {
    if (S_ISREG(attributes.security.mode))
        return valueOf(node.size(), QStringLiteral("read a size"));
    return S_ISLNK(attributes.security.mode)
               ? valueOf(node.size(linkStreamName), QStringLiteral("read a size"))
               : 0;
}

QByteArray nameBytes(QString const& name) {
    return encodePosixText(name);
}

QByteArray joinPath(QByteArray const& directory, QByteArray const& name) {
    return directory.isEmpty() ? name : directory + '/' + name;
}

bool isFileName(QByteArray const& name) {
    return !name.isEmpty() && name != "." && name != ".." && !name.contains('/') &&
           !name.contains('\0');
}

} // namespace Morva
