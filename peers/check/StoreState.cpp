#include "peers/check/StoreState.h"

namespace Morva {

using Replication::DirectoryEntry;
using Replication::directoryType;
using Replication::FileId;
using Replication::LinkId;
using Replication::NodeNumber;
using Replication::PageWalk;
using Replication::TreeRecord;

namespace DirectoryPage = Replication::DirectoryPage;

void StoreState::readDirectory(NodeNumber number, FileId directory, FileId parent,
                               EntryVisitor const& visit) {
    NodeState& state = nodes[number.value];
    bool const told = (state.flags & NodeState::PagesTold) != 0;
    state.flags |= NodeState::PagesTold;
    auto const tell = [&](QString const& text) {
        if (!told)
            fault(FaultKind::Directory, QStringLiteral("directory %1 (node %2) %3")
                                            .arg(directory.value)
                                            .arg(number.value)
                                            .arg(text));
    };
    auto const stream = pages.find(number.value);
    if (stream == pages.end())
        return;
    auto record = pool.streamRecord(stream->second);
    if (!record)
        return; // told of with the node
    TreeRecord const tree(record->data());
    if (tree.length() % DirectoryPage::size != 0)
        tell(QStringLiteral("has pages of %1 bytes in all").arg(tree.length()));
    alignas(8) std::array<std::uint8_t, DirectoryPage::size> page;
    for (std::uint64_t at = 0; at + DirectoryPage::size <= tree.length();
         at += DirectoryPage::size) {
        if (!pool.reader().read(tree, TreeRecord::streamSize, at, page.data(), page.size())) {
            tell(QStringLiteral("has a page at %1 that can't be read").arg(at));
            return;
        }
        PageWalk walk(page.data());
        while (walk.next()) {
            DirectoryEntry const entry = walk.entry();
            bool const first = at == 0 && walk.offset() == 0;
            if (first && (entry.nameLength() != 0 || entry.fileId() != parent ||
                          entry.link() != LinkId{1} || entry.type() != directoryType))
                tell(QStringLiteral("has a parent entry of %1, its parent is %2")
                         .arg(entry.fileId().value)
                         .arg(parent.value));
            else if (!first && !entry.free() && entry.nameLength() == 0)
                tell(QStringLiteral("has an entry without a name at %1").arg(at + walk.offset()));
            if (!first && entry.inUse())
                visit(entry, at + walk.offset());
        }
        if (walk.invalid())
            tell(QStringLiteral("has an entry at %1 that can't be").arg(at + walk.offset()));
    }
}

} // namespace Morva
