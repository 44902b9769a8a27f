#pragma once

#include "base/files/RawFile.h"
#include "peers/check/BlockFile.h"
#include "peers/check/Census.h"
#include "peers/check/CheckReport.h"
#include "peers/check/Checker.h"
#include "peers/check/TreeReader.h"
#include "replication/common/values/Digest.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/streams/DedupKey.h"
#include "replication/repository/streams/StreamNode.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Morva {

class BPlusTree;

/// The pool's half of a check. `begin` looks at the pool alone; the stores then add what they
/// refer to; `finish` compares what was counted with what was found. For one thread.
class PoolCheck {
public:
    PoolCheck(RepositoryPaths const& paths, CheckOptions const& options, CheckReport& report);

    void begin();
    /// Counts what the record of a store's node names.
    void addNodeRecord(Replication::TreeRecord record, Owner const& owner) {
        census_->add(record, Replication::TreeRecord::nodeSize, owner);
    }
    /// Counts one reference to a stream; one that isn't there is a fault.
    void addStreamReference(Replication::StreamId id, Owner const& owner);
    /// A saved state keeps the stream, and will free it where nothing refers to it.
    void keepStream(Replication::StreamId id) {
        if (hasStream(id))
            streams_[id.value].flags |= Waiting;
    }
    void finish();

    /// A copy of a stream's tree record; nothing if there is no such stream.
    using StreamRecord = std::array<std::uint8_t, Replication::TreeRecord::streamSize>;
    [[nodiscard]] std::optional<StreamRecord> streamRecord(Replication::StreamId id);
    [[nodiscard]] bool hasStream(Replication::StreamId id) const {
        return id.value < streams_.size() && (streams_[id.value].flags & Exists) != 0;
    }
    [[nodiscard]] TreeReader& reader() { return *reader_; }
    [[nodiscard]] CheckReport& report() { return report_; }

private:
    enum Flag : std::uint8_t { Exists = 1, Waiting = 2, Indexed = 4 };
    struct Stream {
        std::uint32_t counted = 0; ///< as its node says
        std::uint32_t found = 0;
        std::uint8_t flags = 0;
    };
    /// A content that indexed streams have.
    struct Content {
        std::uint64_t record = 0; ///< hash of the tree record
        std::uint64_t firstStream = 0;
        std::uint32_t streams = 0;
        bool keyed = false;
    };

    void openData();
    void scanStreams();
    void checkStream(std::uint64_t number, std::uint8_t const* bytes);
    void checkDigest(Replication::StreamNode const& node);
    void indexStream(Replication::StreamNode const& node);
    void checkIndex();
    void checkKey(Replication::DedupKey& key, BPlusTree const& tree);
    void checkControl();
    void readCleanupQueue();
    void checkDedupQueue();
    void compareData();
    void compareFree(std::vector<bool> const& counted);
    void compareIndirect();
    void compareStreams();
    void readData();
    void readStream(std::uint64_t number, std::uint8_t const* bytes,
                    std::vector<std::uint8_t>& buffer);
    void lost(QString const& where, std::uint64_t first, std::uint64_t end, char const* what);
    void streamFault(FaultKind kind, std::uint64_t number, QString const& text);

    RepositoryPaths paths_;
    CheckOptions const& options_;
    CheckReport& report_;
    std::unique_ptr<RawFile> data_;
    std::uint64_t nextBlock_ = 0;
    std::uint64_t dataMask_ = 0;
    BlockFile indirect_;
    BlockFile nodes_;
    std::unique_ptr<TreeReader> reader_;
    std::unique_ptr<Census> census_;
    std::vector<Stream> streams_;
    std::unordered_map<std::uint64_t, Content> contents_;
    std::unordered_set<std::uint64_t> verified_;
    std::uint64_t indexedStreams_ = 0, indexedData_ = 0, keys_ = 0, keyData_ = 0;
    std::array<std::uint8_t, Replication::PoolControl::size> control_{};
};

} // namespace Morva
