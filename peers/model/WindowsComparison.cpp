// Compares a stored tree of a Windows source with the model's.

#include "base/values/LittleEndian.h"
#include "peers/model/WindowsPlayer.h"
#include "peers/model/WindowsValues.h"
#include "peers/morva/FileTree.h"
#include "replication/common/log/SecurityText.h"
#include "replication/common/values/WindowsObject.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <sstream>
#include <unordered_map>

namespace Morva::Model {

using Replication::FileId;
using Replication::FileNode;
using Replication::Instance;

QByteArray lower(QByteArray const& text) {
    return QString::fromUtf8(text).toLower().toUtf8();
}

std::map<QByteArray, ObjectPointer>::iterator findName(Object& directory, QByteArray const& name) {
    auto const key = lower(name);
    return std::find_if(directory.names.begin(), directory.names.end(),
                        [&](auto const& entry) { return lower(entry.first) == key; });
}

QByteArray sid(char number) {
    auto bytes = QByteArray::fromHex("010200000000000515000000");
    return bytes + number + QByteArray(3, '\0');
}

QByteArray descriptor(QByteArray const& parts) {
    QByteArray bytes(20, '\0');
    bytes[0] = 1;
    std::uint16_t control = 0x8000;
    auto const put = [&bytes](qsizetype at, QByteArray const& part) {
        storeLittle(bytes.data() + at, static_cast<std::uint32_t>(bytes.size()));
        bytes += part;
    };
    if (parts[0] != '0')
        put(4, sid(parts[0]));
    if (parts[1] != '0')
        put(8, sid(parts[1]));
    if (parts[2] != '0') {
        control |= 4;
        auto const who = sid(parts[2]);
        put(16, QByteArray::fromHex("0200200001000000000018 00ff011f00") + who);
    }
    storeLittle(bytes.data() + 2, control);
    return bytes;
}

namespace {

class Comparison {
public:
    Comparison(FileTree const& reader, std::string title)
        : reader_(reader), title_(std::move(title)) {}

    void directory(Object const& wanted, FileTree::Entry const& entry, QByteArray const& path) {
        auto const node = reader_.node(entry.id);
        std::vector<FileTree::Entry> entries;
        if (!node || !reader_.list(*node, entry.id, entries))
            return differs(path, "can't be listed");
        std::map<QByteArray, FileTree::Entry> stored;
        for (auto const& each : entries)
            stored.emplace(nameBytes(each.name), each);
        for (auto const& [name, object] : wanted.names) {
            auto const found = stored.find(name);
            if (found == stored.end())
                differs(path + '/' + name, "is missing");
            else
                compare(*object, found->second, path + '/' + name);
        }
        for (auto const& [name, each] : stored)
            if (!wanted.names.contains(name))
                differs(path + '/' + name, "should not be there");
    }
    [[nodiscard]] std::string text() const { return text_.str(); }

private:
    void differs(QByteArray const& path, std::string const& what) {
        if (++count_ <= 10)
            text_ << title_ << ": " << path.toStdString() << ": " << what << '\n';
    }
    void same(QByteArray const& path, char const* what, std::uint64_t wanted,
              std::uint64_t stored) {
        if (wanted != stored)
            differs(path, std::string(what) + " is " + std::to_string(stored) + ", not " +
                              std::to_string(wanted));
    }
    void same(QByteArray const& path, char const* what, std::string const& wanted,
              std::string const& stored) {
        if (wanted != stored)
            differs(path, std::string(what) + " is " + stored + ", not " + wanted);
    }

    void compare(Object const& wanted, FileTree::Entry const& entry, QByteArray const& path) {
        auto const node = reader_.node(entry.id);
        if (!node || node->isDirectory() != (wanted.kind == Kind::Directory))
            return differs(path, "has no node of its kind");
        auto const known = ids_.try_emplace(&wanted, entry.id);
        if (known.first->second != entry.id)
            differs(path, "is another file than its other name");
        if (!known.second)
            return;
        attributes(wanted, *node, path);
        streams(wanted, *node, path);
        if (wanted.kind == Kind::Directory)
            directory(wanted, entry, path);
    }

    void attributes(Object const& wanted, FileNode& node, QByteArray const& path) {
        same(path, "attributes", wanted.windows.attributes, node.attributes());
        same(path, "owner", wanted.windows.owner.toStdString(), node.owner().toStdString());
        if (wanted.kind == Kind::File)
            same(path, "time", wanted.modified.word(), node.times().modifiedSource);
        same(path, "links", wanted.links, node.linkCount());
        auto const parts = wanted.windows.security;
        auto const security = whole(node, Replication::securityStreamName);
        same(path, "security",
             parts.isEmpty() ? std::string()
                             : Replication::securityDescriptorText(Extent(descriptor(parts))),
             Replication::securityDescriptorText(Extent(security)));
        std::uint32_t left = 0;
        auto const list = Replication::WindowsAttributes::decode(
            Extent(whole(node, QString::fromUtf16(Replication::WindowsStream::attributes))), left);
        std::map<QByteArray, QByteArray> extended;
        if (list)
            for (auto const& each : list->all())
                extended[each.name.toUpper()] = each.name + '\0' + each.value;
        if (!list || extended != wanted.windows.extended || extended.size() != list->all().size())
            differs(path, "extended attributes");
    }

    [[nodiscard]] std::shared_ptr<Replication::StreamHandle> opened(FileNode& node,
                                                                    QString const& name) {
        auto const stream = node.openStream(name);
        if (!stream)
            differs(name.toUtf8(), stream.status().text().toStdString());
        return stream ? *stream : nullptr;
    }

    [[nodiscard]] QByteArray whole(FileNode& node, QString const& name) {
        auto const stream = opened(node, name);
        QByteArray bytes(stream ? static_cast<qsizetype>(stream->length()) : 0, '\0');
        if (stream)
            (void)stream->read(0, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
        return bytes;
    }

    void streams(Object const& wanted, FileNode& node, QByteArray const& path) {
        std::map<QByteArray, QByteArray> stored;
        for (auto const& each : node.streamNames())
            if (auto const name = each.toUtf8(); name.startsWith(':'))
                stored[lower(name)] = name;
        for (auto const& [name, stream] : wanted.windows.streams) {
            same(path, "stream", stream.name.toStdString(), stored[name].toStdString());
            content(stream.content, node, QString::fromUtf8(stream.name), path + stream.name);
        }
        same(path, "number of streams", wanted.windows.streams.size(), stored.size());
        if (wanted.kind == Kind::File)
            content(wanted.content, node, Replication::dataStreamName, path);
    }

    void content(Content const& wanted, FileNode& node, QString const& name,
                 QByteArray const& path) {
        auto const stream = opened(node, name);
        auto const what = stream ? difference(wanted, *stream) : std::string("has no content");
        if (!what.empty())
            differs(path, what);
    }

    FileTree const& reader_;
    std::string title_;
    std::unordered_map<Object const*, FileId> ids_;
    std::ostringstream text_;
    int count_ = 0;
};

} // namespace

std::string WindowsPlayer::differences() {
    auto const store = root_->store(root_->source("model"));
    auto const compare = [&](Instance instance, ObjectPointer const& tree, std::string title) {
        FileTree const reader(*store, instance);
        Comparison comparison(reader, std::move(title));
        comparison.directory(*tree, reader.root(), {});
        return comparison.text();
    };
    auto result = compare(Instance{0}, tree_, "live");
    for (auto const& [instance, tree] : snapshots_)
        result += compare(Instance{instance}, tree, "snapshot " + std::to_string(instance));
    std::set<QByteArray> stored;
    for (auto const& path : replay_->resyncPaths())
        stored.insert(lower(path.toUtf8()));
    for (auto const& path : asked_)
        if (!stored.contains(path))
            result += "not asked for: " + path.toStdString() + '\n';
    for (auto const& path : stored)
        if (!asked_.contains(path))
            result += "asked for: " + path.toStdString() + '\n';
    XmlList figures;
    store->statistics(figures);
    if (auto const dirty = figures.get("StoreFileDirtyCount", std::uint64_t{0}); dirty != dirtied_)
        result += "dirty " + std::to_string(dirty) + ", not " + std::to_string(dirtied_) + '\n';
    return result;
}

} // namespace Morva::Model
