#include "peers/morva/VersionList.h"

#include "peers/morva/SnapshotName.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <sys/stat.h>

namespace Morva {

using Replication::Digest;
using Replication::Instance;
using Replication::NodeNumber;
using Replication::StreamInfo;

namespace {

ObjectVersion describe(FileTree const& tree, Replication::FileId id, std::uint32_t taken) {
    ObjectVersion version;
    version.instance = tree.instance();
    version.taken = taken;
    auto const node = tree.node(id);
    if (node)
        version.attributes = FileTree::attributes(*node);
    if (!version.attributes)
        return version;
    version.size = FileTree::size(*node, *version.attributes);
    auto const content =
        S_ISREG(version.attributes->security.mode) ? FileTree::content(*node) : nullptr;
    if (!content)
        return version;
    StreamInfo info;
    content->info(info);
    if (info.digest.type == Digest::eRepDigestSha1)
        version.sha1 =
            QByteArray(reinterpret_cast<char const*>(info.digest.value.data()), Digest::sha1Size)
                .toHex();
    return version;
}

} // namespace

std::vector<ObjectVersion> versionList(Replication::Store& store, QStringList const& path) {
    std::vector<ObjectVersion> versions;
    NodeNumber last;
    auto const look = [&](Instance instance, std::uint32_t taken) {
        FileTree const tree(store, instance);
        auto const entry = tree.find(path);
        auto const number = entry ? tree.nodeNumber(entry->id) : NodeNumber{};
        if (number && number != last)
            versions.push_back(describe(tree, entry->id, taken));
        last = number;
    };
    for (auto const& file : store.snapshots().all())
        if (isVisible(*file))
            look(file->instance(), file->sourceTime());
    look({}, 0);
    return versions;
}

} // namespace Morva
