// Compares a stored tree with the model's.

#include "peers/model/Player.h"

#include "peers/morva/FileTree.h"
#include "replication/repository/statistics/SnapshotAnalysis.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <set>
#include <sstream>
#include <unordered_map>

namespace Morva::Model {

using Replication::FileId;
using Replication::FileTime;
using Replication::Instance;
using Replication::SnapshotAnalysis;

namespace {

class Comparison {
public:
    Comparison(FileTree const& reader, std::string title)
        : reader_(reader), title_(std::move(title)) {}

    void run(Object const& tree, QStringList const& top) {
        auto const entry = reader_.find(top);
        if (!entry)
            return differs("", "the top is missing");
        directory(tree, *entry, {});
    }
    [[nodiscard]] std::string text() const { return text_.str(); }

private:
    void differs(QByteArray const& path, std::string const& what) {
        if (++count_ <= 10)
            text_ << title_ << ": " << path.toPercentEncoding("/").toStdString() << ": " << what
                  << '\n';
    }
    template <class T>
    void same(QByteArray const& path, char const* what, T const& wanted, T const& stored) {
        if (!(wanted == stored))
            differs(path, std::string(what) + " is " + std::to_string(stored) + ", not " +
                              std::to_string(wanted));
    }

    void sameTime(QByteArray const& path, FileTime wanted, FileTime stored) {
        if (wanted != stored)
            differs(path, "time is " + stored.text() + ", not " + wanted.text());
    }

    void directory(Object const& wanted, FileTree::Entry const& entry, QByteArray const& path) {
        auto const node = reader_.node(entry.id);
        std::vector<FileTree::Entry> entries;
        if (!node || !reader_.list(*node, entry.id, entries))
            return differs(path, "can't be listed");
        std::map<QByteArray, FileTree::Entry> stored;
        for (auto const& each : entries)
            stored.emplace(nameBytes(each.name), each);
        same(path, "number of names", wanted.names.size(), entries.size());
        for (auto const& [name, object] : wanted.names) {
            auto const found = stored.find(name);
            if (found == stored.end())
                differs(path + '/' + name, "is missing");
            else
                compare(object, found->second, path + '/' + name);
        }
        for (auto const& [name, each] : stored)
            if (!wanted.names.contains(name))
                differs(path + '/' + name, "should not be there");
    }

    void compare(ObjectPointer const& wanted, FileTree::Entry const& entry,
                 QByteArray const& path) {
        auto const node = reader_.node(entry.id);
        if (!node)
            return differs(path, "has no node");
        auto const known = ids_.try_emplace(wanted.get(), entry.id);
        if (known.first->second != entry.id)
            differs(path, "is another file than its other name");
        if (known.second && !seen_.insert(entry.id).second)
            differs(path, "is a name of another file");
        attributes(*wanted, *node, path);
        if (wanted->kind == Kind::Directory)
            directory(*wanted, entry, path);
        else if (wanted->kind == Kind::File && known.second)
            content(wanted->content, *node, path);
    }

    void attributes(Object const& wanted, Replication::FileNode& node, QByteArray const& path) {
        auto const stored = FileTree::attributes(node);
        if (!stored)
            return differs(path, "has no attributes");
        same(path, "mode", wanted.mode, stored->security.mode);
        same(path, "uid", wanted.uid, stored->security.uid);
        same(path, "gid", wanted.gid, stored->security.gid);
        same(path, "device", wanted.device, stored->security.device);
        if (wanted.modifiedKnown)
            sameTime(path, wanted.modified, stored->modified);
        if (wanted.kind != Kind::Directory)
            same(path, "links", wanted.links, stored->links);
        auto const extended = FileTree::extendedAttributes(node);
        if (!extended || extended->all() != wanted.attributes)
            differs(path, "extended attributes");
        if (wanted.kind == Kind::Symlink && FileTree::linkTarget(node) != wanted.target)
            differs(path, "target");
    }

    void content(Content const& wanted, Replication::FileNode& node, QByteArray const& path) {
        auto const stream = FileTree::content(node);
        if (!stream)
            return differs(path, "has no content");
        if (auto const what = difference(wanted, *stream); !what.empty())
            differs(path, what);
    }

    FileTree const& reader_;
    std::string title_;
    std::unordered_map<Object const*, FileId> ids_;
    std::set<FileId> seen_;
    std::ostringstream text_;
    int count_ = 0;
};

/// The analysis of a snapshot against a count of the model's names.
std::string compareFigures(Replication::Store const& store, std::uint32_t instance,
                           ObjectPointer const& tree) {
    std::uint64_t size = 0;
    std::uint64_t directories = 1; // the top
    std::set<Object const*> files;
    for (auto const& name : allNames(tree)) {
        if (name.object->kind == Kind::Directory)
            ++directories;
        else if (files.insert(name.object.get()).second)
            size += name.object->content.size();
    }
    SnapshotAnalysis analysis(
        *store.fileHandle(store.rootId(), Instance{instance}, Replication::FileHandle::Snapshot));
    while (analysis.step() == SnapshotAnalysis::State::Walking)
        continue;
    if (analysis.state() == SnapshotAnalysis::State::Done && analysis.logicalSize() == size &&
        analysis.directoryCount() == directories && analysis.fileCount() == files.size())
        return {};
    std::ostringstream text;
    text << "analysis of snapshot " << instance << ": " << analysis.logicalSize() << " bytes, "
         << analysis.directoryCount() << " directories, " << analysis.fileCount()
         << " files, and not " << size << ", " << directories << ", " << files.size() << '\n';
    return text.str();
}

} // namespace

std::string difference(Content const& wanted, Replication::StreamHandle& stored) {
    if (stored.length() != wanted.size())
        return "size is " + std::to_string(stored.length()) + ", not " +
               std::to_string(wanted.size());
    std::uint64_t at = 0;
    for (auto const& [number, block] : wanted.blocks()) {
        auto const start = number * blockSize;
        auto const count = std::min(blockSize, wanted.size() - start);
        if (at < start && !stored.isZero(at, start))
            return "is not zero before " + std::to_string(start);
        Block bytes{};
        if (stored.read(start, bytes.data(), static_cast<std::uint32_t>(count)) != count ||
            !std::equal(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count),
                        block.begin()))
            return "content at " + std::to_string(start);
        at = start + count;
    }
    return at < wanted.size() && !stored.isZero(at, wanted.size()) ? "is not zero at its end" : "";
}

std::string Player::differences() {
    auto const store = root_->store(root_->source("model"));
    auto const compare = [&](Instance instance, ObjectPointer const& tree, std::string title) {
        FileTree const reader(*store, instance);
        Comparison comparison(reader, std::move(title));
        comparison.run(*tree, {QStringLiteral("r")});
        return comparison.text();
    };
    auto result = unknownNumbers() + compare(Instance{0}, stored(), "live");
    for (auto const& [instance, tree] : snapshots_) {
        // The one before anything was done has no top yet.
        if (instance == firstSnapshot_)
            continue;
        auto const title = "snapshot " + std::to_string(instance);
        result += compare(Instance{instance}, tree, title) + compareFigures(*store, instance, tree);
    }
    return result;
}

} // namespace Morva::Model
