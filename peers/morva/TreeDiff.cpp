#include "peers/morva/TreeDiff.h"

#include "replication/repository/streams/StreamHandle.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace Morva {

using Replication::Digest;
using Replication::FileNode;
using Replication::StreamHandle;
using Replication::StreamInfo;

namespace {

constexpr std::uint32_t chunk = 1 << 20;

/// Whether the bytes of two streams of one length are equal; nothing when they can't be read.
std::optional<bool> sameBytes(StreamHandle& a, StreamHandle& b, std::uint64_t length,
                              std::vector<std::uint8_t>& bytes) {
    bytes.resize(2 * chunk);
    for (std::uint64_t at = 0; at < length;) {
        std::uint64_t inA = at;
        std::uint64_t inB = at;
        std::uint64_t end = 0;
        auto const moreA = a.findData(inA, end);
        auto const moreB = b.findData(inB, end);
        if (!moreA && !moreB)
            break;
        at = !moreA ? inB : !moreB ? inA : std::min(inA, inB);
        auto const count = static_cast<std::uint32_t>(std::min<std::uint64_t>(chunk, length - at));
        if (a.readWhole(at, bytes.data(), count) != count ||
            b.readWhole(at, bytes.data() + chunk, count) != count)
            return std::nullopt;
        if (std::memcmp(bytes.data(), bytes.data() + chunk, count) != 0)
            return false;
        at += count;
    }
    return true;
}

} // namespace

TreeDiff::TreeDiff(FileTree const& before, FileTree const& after, Report report)
    : before_(before), after_(after), report_(std::move(report)) {}

void TreeDiff::compare(QByteArray const& path, std::optional<FileTree::Entry> const& before,
                       std::optional<FileTree::Entry> const& after) {
    ahead_.push_back({path, before, after});
    while (!ahead_.empty()) {
        auto const pair = std::move(ahead_.back());
        ahead_.pop_back();
        compareOne(pair);
    }
}

void TreeDiff::compareOne(Pair const& pair) {
    auto const& [path, before, after] = pair;
    if (!before || !after) {
        if (before)
            reportAll(before_, Change::Removed, path, *before, true);
        if (after)
            reportAll(after_, Change::Added, path, *after, true);
        return;
    }
    auto const change = compareEntries(*before, *after);
    if (change != Change::None)
        report_(change, path);
    if (before->isDirectory && after->isDirectory) {
        compareNames(pair);
    } else if (change == Change::Type) {
        reportAll(before_, Change::Removed, path, *before, false);
        reportAll(after_, Change::Added, path, *after, false);
    }
}

void TreeDiff::compareNames(Pair const& pair) {
    auto const& [path, before, after] = pair;
    auto const nodeBefore = before_.node(before->id);
    auto const nodeAfter = after_.node(after->id);
    std::vector<FileTree::Entry> a;
    std::vector<FileTree::Entry> b;
    // A damaged directory that holds itself must not be compared for ever.
    bool whole = seen_.insert(before->id).second && nodeBefore && nodeAfter &&
                 before_.list(*nodeBefore, before->id, a);
    // One version of a directory has the same names in both trees.
    auto const shared = nodeBefore == nodeAfter && before_.live() == after_.live();
    if (whole && !shared)
        whole = after_.list(*nodeAfter, after->id, b);
    if (!whole)
        report_(Change::Unread, path);
    auto const& second = shared ? a : b;
    std::vector<Pair> pairs;
    auto inA = a.begin();
    auto inB = second.begin();
    while (inA != a.end() || inB != second.end()) {
        auto const nameA = inA != a.end() ? nameBytes(inA->name) : QByteArray();
        auto const nameB = inB != second.end() ? nameBytes(inB->name) : QByteArray();
        auto const useA = inA != a.end() && (inB == second.end() || nameA <= nameB);
        auto const useB = inB != second.end() && (inA == a.end() || nameB <= nameA);
        pairs.push_back({joinPath(path, useA ? nameA : nameB),
                         useA ? std::optional(*inA) : std::nullopt,
                         useB ? std::optional(*inB) : std::nullopt});
        inA += useA;
        inB += useB;
    }
    std::move(pairs.rbegin(), pairs.rend(), std::back_inserter(ahead_));
}

TreeDiff::Change TreeDiff::compareEntries(FileTree::Entry const& before,
                                          FileTree::Entry const& after) {
    auto const number = before_.nodeNumber(before.id);
    if (number && number == after_.nodeNumber(after.id))
        return Change::None;
    auto const a = before_.node(before.id);
    auto const b = after_.node(after.id);
    return a && b ? compareNodes(*a, *b) : Change::Unread;
}

TreeDiff::Change TreeDiff::compareNodes(FileNode& before, FileNode& after) {
    auto const a = FileTree::attributes(before);
    auto const b = FileTree::attributes(after);
    if (!a || !b)
        return Change::Unread;
    auto const type = a->security.mode & S_IFMT;
    if (type != (b->security.mode & S_IFMT))
        return Change::Type;
    if (type == S_IFREG)
        if (auto const change = compareFiles(before, after); change != Change::None)
            return change;
    if (type == S_IFLNK) {
        auto const from = FileTree::linkTarget(before);
        auto const to = FileTree::linkTarget(after);
        if (!from || !to)
            return Change::Unread;
        if (*from != *to)
            return Change::Content;
    }
    auto const from = FileTree::extendedAttributes(before);
    auto const to = FileTree::extendedAttributes(after);
    if (!from || !to)
        return Change::Unread;
    auto const same = a->security.sameButTimes(b->security) && a->modified == b->modified &&
                      from->all() == to->all();
    return same ? Change::None : Change::Metadata;
}

TreeDiff::Change TreeDiff::compareFiles(FileNode& before, FileNode& after) {
    auto const a = FileTree::content(before);
    auto const b = FileTree::content(after);
    if (!a || !b)
        return Change::Unread;
    if (a->id() == b->id())
        return Change::None;
    StreamInfo infoA;
    StreamInfo infoB;
    a->info(infoA);
    b->info(infoB);
    if (infoA.length != infoB.length)
        return Change::Content;
    if (infoA.digest.type == Digest::eRepDigestSha1 && infoB.digest.type == infoA.digest.type)
        return infoA.digest == infoB.digest ? Change::None : Change::Content;
    auto const same = sameBytes(*a, *b, infoA.length, bytes_);
    return !same ? Change::Unread : *same ? Change::None : Change::Content;
}

void TreeDiff::reportAll(FileTree const& tree, Change change, QByteArray const& path,
                         FileTree::Entry const& entry, bool itself) {
    auto const root = path;
    tree.walk(entry, path, [&](QByteArray const& at, FileTree::Entry const& object) {
        if (!object.id)
            report_(Change::Unread, at);
        else if (itself || at != root)
            report_(change, at);
        return true;
    });
}

} // namespace Morva
