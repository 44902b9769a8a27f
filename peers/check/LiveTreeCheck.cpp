#include "peers/check/LiveTreeCheck.h"

#include "base/trees/BPlusTree.h"
#include "peers/check/Fingerprint.h"
#include "replication/repository/store/DirKey.h"

#include <algorithm>

namespace Morva {

using Replication::DirectoryEntry;
using Replication::DirKey;
using Replication::FileId;
using Replication::LinkId;

namespace {

constexpr std::uint32_t treeCache = 1024;

std::uint64_t identityOf(FileId directory, QStringView normalName) {
    return fingerprint(normalName.utf16(), 2 * static_cast<std::uint64_t>(normalName.size()),
                       directory.value);
}

std::uint64_t contentOf(std::uint64_t position, FileId id, LinkId link, std::uint32_t typeWord) {
    std::uint64_t const fields[] = {position, id.value, std::uint64_t{link.value} << 32 | typeWord};
    return fingerprint(fields, sizeof fields);
}

} // namespace

void LiveTreeCheck::fault(FaultKind kind, Name const& name, char const* text) {
    store_.fault(kind, QStringLiteral("the entry at %1 of directory %2 %3")
                           .arg(name.position)
                           .arg(name.directory)
                           .arg(QLatin1String(text)));
}

void LiveTreeCheck::run(Counters const& expected) {
    store_.names.assign(store_.pointers.size(), 0);
    met_.assign(store_.pointers.size(), false);
    walk();
    std::sort(names_.begin(), names_.end(),
              [](Name const& a, Name const& b) { return a.identity < b.identity; });
    findTwins();
    compareTree();
    compareLinks();
    auto const compare = [&](char const* what, std::uint64_t stored, std::uint64_t found) {
        if (stored != found)
            store_.fault(FaultKind::Counter, QStringLiteral("it counts %1 %2 and has %3")
                                                 .arg(stored)
                                                 .arg(QLatin1String(what))
                                                 .arg(found));
    };
    // Store 0 keeps no counters.
    compare("directories", expected.directories, store_.id ? found_.directories : 0);
    compare("files", expected.files, store_.id ? found_.files : 0);
}

void LiveTreeCheck::walk() {
    FileId const root = PointerTable::rootId();
    met_[PointerTable::number(root)] = true;
    work_.push_back({root, root});
    while (!work_.empty()) {
        auto const [directory, parent] = work_.back();
        work_.pop_back();
        PointerTable::Entry const* const entry = store_.pointers.head(directory);
        NodeState const* const node = entry ? store_.node(entry->node) : nullptr;
        if (!node)
            continue; // told of with the entry that named it, or with the pointer file
        if (node->type != Replication::directoryType) {
            store_.fault(FaultKind::Directory,
                         QStringLiteral("%1 is named as a directory, but its node %2 has type %3")
                             .arg(directory.value)
                             .arg(entry->node.value)
                             .arg(node->type));
            continue;
        }
        if (!store_.pages.contains(entry->node.value))
            store_.fault(FaultKind::Directory,
                         QStringLiteral("directory %1 has no pages").arg(directory.value));
        store_.readDirectory(entry->node, directory, parent,
                             [&, id = directory](DirectoryEntry item, std::uint64_t position) {
                                 visit(id, item, position);
                             });
    }
}

void LiveTreeCheck::visit(FileId directory, DirectoryEntry entry, std::uint64_t position) {
    note(directory, entry, position);
    bool const isDirectory = entry.isDirectory();
    ++(isDirectory ? store_.report.figures.directories : store_.report.figures.files);
    if (!entry.liveOnly())
        ++(isDirectory ? found_.directories : found_.files);
    FileId const id = entry.fileId();
    PointerTable::Entry const* const pointer = store_.pointers.head(id);
    NodeState const* const node = pointer ? store_.node(pointer->node) : nullptr;
    Name const& name = names_.back();
    if (!pointer)
        return fault(FaultKind::Directory, name, "names an id that doesn't exist");
    std::uint32_t const number = PointerTable::number(id);
    ++store_.names[number];
    if (!node)
        return fault(FaultKind::Directory, name, "names an id without a node");
    if (node->type != entry.type())
        fault(FaultKind::Directory, name, "tells another type than the node");
    if (entry.link().value >= node->nextLink)
        fault(FaultKind::Directory, name, "has a link number that was never given");
    if (!isDirectory)
        return;
    if (met_[number])
        return fault(FaultKind::Directory, name, "names a directory that has another name");
    met_[number] = true;
    work_.push_back({id, directory});
}

void LiveTreeCheck::note(FileId directory, DirectoryEntry entry, std::uint64_t position) {
    std::uint64_t const identity = store_.caseSensitive
                                       ? identityOf(directory, entry.name())
                                       : identityOf(directory, entry.name().toString().toLower());
    names_.push_back({identity, contentOf(position, entry.fileId(), entry.link(), entry.typeWord()),
                      directory.value, position, false});
}

void LiveTreeCheck::findTwins() {
    for (std::size_t i = 1; i < names_.size(); ++i)
        if (names_[i].identity == names_[i - 1].identity)
            fault(FaultKind::Directory, names_[i], "has a name that is there twice");
}

void LiveTreeCheck::compareTree() {
    BPlusTree tree(treeCache);
    if (!tree.open(store_.path + "/files.tree", RawFile::Mode::ReadOnly)) {
        store_.report.fault(FaultKind::Unreadable, store_.where() + "/files.tree",
                            QStringLiteral("is no sound tree"));
        return;
    }
    QStringList faults;
    (void)tree.verify(faults);
    for (QString const& text : faults)
        store_.report.fault(FaultKind::DirectoryTree, store_.where() + "/files.tree", text);
    store_.report.figures.blocksRead += tree.pageCount();
    (void)tree.forEach( // `verify` has told of what is damaged
        [&](Extent const& stored) {
            compareKey(stored, tree);
            return true;
        });
    for (Name const& name : names_)
        if (!name.keyed)
            fault(FaultKind::DirectoryTree, name, "is not in the tree of names");
}

void LiveTreeCheck::compareKey(Extent const& stored, BPlusTree const& tree) {
    auto const key = DirKey::decode(stored);
    auto const tell = [&](QString const& text) { store_.fault(FaultKind::DirectoryTree, text); };
    if (!key)
        return tell(
            QStringLiteral("a key of %1 bytes in the tree of names is damaged").arg(stored.size));
    auto const describe = [&] {
        return QStringLiteral("the key \"%1\" of directory %2")
            .arg(key->name())
            .arg(key->directoryId().value);
    };
    DirKey probe(key->directoryId(), key->name(), 0);
    if (auto const found = tree.find(probe); !found.ok() || !*found || probe.hash() != key->hash())
        tell(describe() + QStringLiteral(" can't be found by its name"));
    std::uint64_t const identity = identityOf(key->directoryId(), key->name());
    auto const found = std::lower_bound(
        names_.begin(), names_.end(), identity,
        [](Name const& name, std::uint64_t value) { return name.identity < value; });
    if (found == names_.end() || found->identity != identity)
        return tell(describe() + QStringLiteral(" has no entry"));
    if (found->keyed)
        tell(describe() + QStringLiteral(" is there twice"));
    found->keyed = true;
    if (found->content != contentOf(key->position(), key->fileId(), key->link(), key->typeWord()))
        tell(describe() + QStringLiteral(" differs from the entry at %1").arg(found->position));
}

void LiveTreeCheck::compareLinks() {
    std::uint64_t const root = PointerTable::number(PointerTable::rootId());
    for (std::uint64_t number = root + 1; number < store_.pointers.size(); ++number) {
        PointerTable::Entry const& entry = store_.pointers.at(number);
        NodeState const* const node =
            entry.node && store_.names[number] != 0 ? store_.node(entry.node) : nullptr;
        if (node && node->linkCount != store_.names[number])
            store_.fault(FaultKind::Node, QStringLiteral("node %1 counts %2 links, file %3 has %4 "
                                                         "names")
                                              .arg(entry.node.value)
                                              .arg(node->linkCount)
                                              .arg(store_.pointers.id(number).value)
                                              .arg(store_.names[number]));
    }
}

} // namespace Morva
