#include "peers/morva/Leveller.h"

#include <sys/xattr.h>

#include <cerrno>
#include <functional>

namespace Morva {

using Replication::FileNode;
using Replication::FileTime;
using Replication::OperationLogger;

namespace {

FileTime storedTime(FileTime exact, std::uint32_t word) {
    return exact.counts(word) ? exact : FileTime{word, FileTime::unknown};
}

bool isSame(FileTime stored, timespec const& time) {
    auto const wanted = FileTime::of(time);
    return stored.known() ? stored == wanted : stored.word() == wanted.word();
}

} // namespace

Leveller::Leveller(FileTree const& live, std::string directory)
    : live_(live), directory_(std::move(directory)) {}

bool Leveller::run() {
    auto const root = live_.root();
    auto const node = live_.node(root.id);
    if (!node)
        return false;
    removeLostAttributes(*node, directory_);
    return level(root, directory_);
}

bool Leveller::logRemovals(OperationLogger& operations) const {
    for (auto const& removal : removals_) {
        auto const logged = !removal.attribute.empty()
                                ? operations.removeEa(removal.path, removal.attribute)
                            : removal.isDirectory ? operations.rmdir(removal.path)
                                                  : operations.unlink(removal.path);
        if (!logged)
            return false;
    }
    return true;
}

bool Leveller::level(FileTree::Entry const& directory, std::string const& path) {
    auto const node = live_.node(directory.id);
    std::vector<FileTree::Entry> entries;
    if (!node || !live_.list(*node, directory.id, entries))
        return false;
    for (auto const& entry : entries)
        if (!levelEntry(entry, path + '/' + nameBytes(entry.name).toStdString()))
            return false;
    return true;
}

bool Leveller::levelEntry(FileTree::Entry const& entry, std::string const& path) {
    struct stat status {};
    auto const there = ::lstat(path.c_str(), &status) == 0;
    if (!there && errno != ENOENT && errno != ENOTDIR) {
        files_ += !entry.isDirectory;
        return true; // The walk meets it too and tells the user.
    }
    if (!there || S_ISDIR(status.st_mode) != entry.isDirectory)
        return remove(entry, path);
    files_ += !entry.isDirectory;
    auto const node = live_.node(entry.id);
    if (!node)
        return true;
    if (!entry.isDirectory) {
        remember(*node, path);
        return true;
    }
    removeLostAttributes(*node, path);
    return level(entry, path);
}

bool Leveller::remove(FileTree::Entry const& entry, std::string const& path) {
    if (entry.isDirectory) {
        auto const node = live_.node(entry.id);
        std::vector<FileTree::Entry> entries;
        if (node && !live_.list(*node, entry.id, entries))
            return false;
        for (auto const& child : entries)
            if (!remove(child, path + '/' + nameBytes(child.name).toStdString()))
                return false;
    }
    if (!entry.isDirectory) {
        ++files_;
        ++removedFiles_;
    }
    removals_.push_back({path, entry.isDirectory, {}});
    return true;
}

void Leveller::removeLostAttributes(FileNode& node, std::string const& path) {
    auto const stored = FileTree::extendedAttributes(node);
    if (!stored)
        return;
    for (auto const& [name, value] : stored->all())
        if (::lgetxattr(path.c_str(), name.constData(), nullptr, 0) < 0 && errno == ENODATA)
            removals_.push_back({path, false, name.toStdString()});
}

void Leveller::remember(FileNode& node, std::string const& path) {
    auto const attributes = FileTree::attributes(node);
    if (!attributes)
        return;
    auto const times = node.times();
    auto const& exact = attributes->security.times;
    known_.insert_or_assign(std::hash<std::string_view>{}(path),
                            Known{FileTree::size(node, *attributes), attributes->security.mode,
                                  attributes->security.uid, attributes->security.gid,
                                  storedTime(exact.modification, times.modifiedSource),
                                  storedTime(exact.change, times.createdSource),
                                  std::max(times.created, times.modified)});
}

bool Leveller::unchanged(std::string_view path, struct stat const& status) const {
    auto const found = known_.find(std::hash<std::string_view>{}(path));
    if (found == known_.end())
        return false;
    auto const& known = found->second;
    auto const hasSize = S_ISREG(status.st_mode) || S_ISLNK(status.st_mode);
    return known.mode == status.st_mode && known.uid == status.st_uid &&
           known.gid == status.st_gid &&
           (!hasSize || known.size == static_cast<std::uint64_t>(status.st_size)) &&
           isSame(known.modified, status.st_mtim) && isSame(known.changed, status.st_ctim) &&
           status.st_ctim.tv_sec + 1 < known.stored;
}

} // namespace Morva
