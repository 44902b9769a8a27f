#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <array>
#include <cstdint>
#include <vector>

namespace Morva {

/// What is wrong, by kind of record.
enum class FaultKind : std::uint8_t {
    Unreadable,     ///< a file is missing, doesn't open or can't be read
    BlockFile,      ///< header or chain of free blocks of a block file
    LostSpace,      ///< neither used nor free; a crash can leave that
    FreeList,       ///< a number is free twice, or free and in use, or can't be
    ReferenceCount, ///< the count of a block isn't the number of its references
    TreeRecord,     ///< a tree record or an indirect block
    Stream,         ///< the node of a stream
    StreamCount,    ///< the count of a stream isn't the number of nodes that name it
    DedupIndex,     ///< keys of the index, its counters, streams without a key
    Queue,          ///< an entry of a queue is no request
    Control,        ///< control block of a store, control record of the pool
    Node,           ///< fields of a node, or its packed record
    LostStream,     ///< a node names a stream that isn't there
    Pointer,        ///< entries, chains and free list of the pointer file
    Orphan,         ///< a node or an id that nothing needs
    Directory,      ///< pages and entries of a directory
    DirectoryTree,  ///< the tree of names differs from the pages
    Counter,        ///< counters of a store
    Snapshot,       ///< a snapshot's file, or its view of the tree
    SnapshotEntry,  ///< an entry of a snapshot's list
    DedupFile,      ///< a list of streams to deduplicate
    SavedState,     ///< what a source had open
    Data,           ///< contents differ from their digest, or can't be read
    Page            ///< a page doesn't fit its checksum, or a file as a whole can't be verified
};
inline constexpr std::size_t faultKinds = static_cast<std::size_t>(FaultKind::Page) + 1;

/// "reference-count", say.
[[nodiscard]] QString faultName(FaultKind kind);

struct Fault {
    FaultKind kind;
    QString where; ///< a file, or "store 3"
    QString text;

    /// "reference-count: data.refs: block 7 has count 2, but 1 reference was found"
    [[nodiscard]] QString line() const;
    [[nodiscard]] QJsonObject json() const;
};

/// What a check has met.
struct CheckFigures {
    std::uint64_t stores = 0;
    std::uint64_t files = 0;       ///< names in live trees that aren't directories
    std::uint64_t directories = 0; ///< in live trees, the roots not counted
    std::uint64_t snapshots = 0;
    std::uint64_t nodes = 0;
    std::uint64_t streams = 0;
    std::uint64_t keys = 0; ///< of the deduplication index
    std::uint64_t dataBlocks = 0;
    std::uint64_t indirectBlocks = 0;
    std::uint64_t blocksRead = 0;
    std::uint64_t bytesRead = 0;
    std::uint64_t digestsVerified = 0;
    double seconds = 0;
};

/// The faults of a check, in the order found. All are counted; of each kind the first `mostLines`
/// are kept, so that a report has bounded size whatever the files hold. Not thread-safe.
class CheckReport {
public:
    static constexpr std::uint64_t mostLines = 1000;

    void fault(FaultKind kind, QString const& where, QString const& text);
    /// Something worth knowing that isn't a fault.
    void note(QString const& text) { notes_.append(text); }

    [[nodiscard]] bool clean() const { return total() == 0; }
    [[nodiscard]] std::uint64_t total() const;
    [[nodiscard]] std::uint64_t count(FaultKind kind) const {
        return counts_[static_cast<std::size_t>(kind)];
    }
    [[nodiscard]] std::vector<Fault> const& faults() const { return faults_; }
    [[nodiscard]] QStringList const& notes() const { return notes_; }
    /// A line for each fault that was kept, and one for each kind that had more.
    [[nodiscard]] QStringList lines() const;
    /// One line: what was looked at, and what was found.
    [[nodiscard]] QString summary() const;
    [[nodiscard]] QJsonObject summaryJson() const;

    CheckFigures figures;

private:
    std::vector<Fault> faults_;
    std::array<std::uint64_t, faultKinds> counts_{};
    QStringList notes_;
};

} // namespace Morva
