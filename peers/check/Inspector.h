#pragma once

#include "base/values/Extent.h"
#include "peers/check/Checker.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/NodePointer.h"
#include "replication/repository/streams/TreeRecord.h"

#include <QString>
#include <QStringList>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Morva {

class RawFile;
class TreeReader;
class BlockFile;

/// Prints single records in readable form. It needs no sound repository: a file whose header is
/// damaged is read by its known block size, and of a damaged record what can be read is printed,
/// with the fault. Opens files for reading alone and changes nothing. For one thread.
///
///  words                 prints
///  headers               the header of every block file
///  pool                  the pool's control record
///  stream N              a stream's node, its tree, and what the index knows of it
///  data N                reference count of a data block, and its first bytes
///  indirect N            reference count of an indirect block, and its entries
///  free                  the runs of the free list of data blocks
///  keys                  the keys of the deduplication index
///  queue cleanup|dedup   the requests that wait
///  stores                the stores that are there
///  control               a store's control block
///  node N                a node, its tree and its packed record
///  id N                  the pointer chain of a file id
///  pointers              the free list of the pointer file
///  dir N [INSTANCE]      the entries of a directory, live or as a snapshot sees it
///  pages N               the same from the stream that has the pages
///  tree                  the keys of the tree of names
///  snapshots             the header of each snapshot
///  snapshot N            header and entries of one
///  dedup [N]             a list of streams to deduplicate
///  state FILE            a sink's state file
///  list FILE             a value list, text or binary: rules, configuration
///  log FILE              the logs of a file
///
/// N is decimal, or hexadecimal with 0x before it.
class Inspector {
public:
    using Print = std::function<void(QString const& line)>;
    /// Lines that one record or file may have.
    static constexpr std::uint64_t mostLines = 1'000'000;

    enum class Result {
        Done,
        Damaged, ///< a fault was printed
        Usage    ///< the words ask for nothing that there is
    };

    /// `store` 0 takes the only store there is.
    Inspector(RepositoryPaths paths, Replication::StoreId store, Print print);
    ~Inspector();
    Inspector(Inspector const&) = delete;
    Inspector& operator=(Inspector const&) = delete;

    [[nodiscard]] Result inspect(QStringList const& words);
    /// The table above, for a help text.
    [[nodiscard]] static QString help();

private:
    struct Command;
    [[nodiscard]] static std::vector<Command> const& commands();
    using Words = QStringList const&;

    // the pool
    void headers(Words);
    void pool(Words);
    void stream(Words words);
    void dataBlock(Words words);
    void indirectBlock(Words words);
    void freeList(Words);
    void keys(Words);
    void queue(Words words);
    void cleanupQueue();
    void dedupQueue();
    // a store
    void stores(Words);
    void control(Words);
    void node(Words words);
    void pointerChain(Words words);
    void pointers(Words);
    void directory(Words words);
    void pages(Words words);
    void nameTree(Words);
    void snapshots(Words);
    void snapshot(Words words);
    void dedupList(Words words);
    // single files
    void state(Words words);
    void valueList(Words words);
    void logFile(Words words);

    void say(QString const& line);
    void fault(QString const& text);
    [[nodiscard]] bool number(QString const& word, std::uint64_t& value);
    [[nodiscard]] QString storePath();
    void header(QString const& path);
    void hexDump(void const* bytes, std::uint32_t count);
    [[nodiscard]] bool record(QString const& path, std::uint32_t size, std::uint64_t number,
                              std::vector<std::uint8_t>& bytes);
    void tree(Replication::TreeRecord record, std::uint32_t width);
    void subtree(std::uint64_t block, std::uint32_t height, std::uint64_t index);
    void runs(std::uint8_t const* entries, std::uint32_t count, int indent);
    void count(QString const& path, std::uint64_t block);
    void openReader();
    [[nodiscard]] bool pointer(Replication::FileId id, Replication::PointerEntry& entry,
                               std::vector<std::uint8_t>& block);
    void nodeInfo(std::vector<std::uint8_t> const& node);
    [[nodiscard]] bool readNodeRecord(std::vector<std::uint8_t> const& node,
                                      std::vector<std::uint8_t>& record);
    void directoryPages(Replication::StreamId stream);
    void page(std::uint8_t* bytes, std::uint64_t offset);
    void snapshotHeader(QString const& directory, Replication::Instance instance, bool entries);

    RepositoryPaths paths_;
    Replication::StoreId store_;
    Print print_;
    bool damaged_ = false;
    bool usage_ = false;
    std::uint64_t lines_ = 0;
    std::unique_ptr<RawFile> data_;
    std::unique_ptr<BlockFile> indirect_;
    std::unique_ptr<TreeReader> reader_;
};

} // namespace Morva
