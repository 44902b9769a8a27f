#pragma once

#include "base/values/Extent.h"
#include "base/values/PackBuffer.h"
#include "base/values/Status.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/NodeBlock.h"

#include <QString>

#include <cstdint>
#include <memory>
#include <vector>

namespace Replication {

class RepMetadata;
class Streams;
class StreamHandle;

/// The name under which a file keeps its main content, and a directory its pages.
inline QString const dataStreamName = QStringLiteral("Data");
/// The name of the stream of the security descriptor.
inline QString const securityStreamName = QStringLiteral("Security");

/// Reports that the pool doesn't have a stream that a file names: trace and log.
void reportLostStream(StreamId id);

/// One named stream of a file version.
struct NodeStream {
    QString name;
    StreamId id;        ///< in the pool; never 0 for a live stream
    bool dirty = false; ///< the data isn't known to match the source
    bool dedup = true;  ///< may be deduplicated
    bool sparse = false;
    /// The open stream, so that two users share one handle. Not stored.
    mutable std::weak_ptr<StreamHandle> handle;
};

/// The variable part of a file version: placeholder mark, attributes, owner and streams.
///
/// Packed form (`PackBuffer` alignment; strings as a u32 byte length and UTF-16):
///
///  root record (type 1)            file record (type 2 or 3)
///  type u32 = 1                    type u32 = 2 or 3
///  placeHolder bool                placeHolder bool
///  sourceMachine string            attributes u32
///  name string                     owner string
///  stream count u32                stream count u32
///  each: name string, id u64,      each: name string, id u64, dirty bool, dedup bool,
///        dirty bool, dedup bool          sparse bool (type 3 only)
///
/// Not thread-safe: used under the lock of its `FileNode`.
class NodeInfo {
public:
    enum Type : std::uint32_t { Empty = 0, Root = 1, OldFile = 2, File = 3 };

    /// Empty, of the given type: 3 for a file, 1 for the root.
    explicit NodeInfo(Qt::CaseSensitivity caseSensitivity, std::uint32_t type = File);
    /// Reads a record. One that can't be read leaves `type` 0 and the streams read so far. A record
    /// of type 2 is 3 from then on.
    NodeInfo(Qt::CaseSensitivity caseSensitivity, Morva::Extent const& record);

    /// Writes the record into the buffer, which is cleared first.
    void pack(Morva::PackBuffer& buffer) const;

    [[nodiscard]] std::uint32_t type() const { return type_; }
    [[nodiscard]] Qt::CaseSensitivity caseSensitivity() const { return caseSensitivity_; }

    bool placeHolder = false;
    std::uint32_t attributes = 0; ///< as the source sent them
    QString owner;
    QString sourceMachine; ///< root only
    QString name;          ///< root only

    // Streams, in the order of their making.
    [[nodiscard]] std::vector<NodeStream> const& streams() const { return streams_; }
    void addStream(QString const& streamName, StreamId id, bool dirty, bool dedup, bool sparse);
    /// Null when there is none. Valid until the list changes.
    [[nodiscard]] NodeStream* find(QString const& streamName);
    [[nodiscard]] NodeStream const* find(QString const& streamName) const;
    [[nodiscard]] NodeStream* find(StreamId id);
    [[nodiscard]] NodeStream const* find(StreamId id) const;
    [[nodiscard]] bool exists(QString const& streamName) const { return find(streamName); }
    [[nodiscard]] bool exists(StreamId id) const { return find(id); }
    [[nodiscard]] bool dirty(StreamId id) const;
    [[nodiscard]] bool sparse(StreamId id) const;
    /// Whether the id was found; the flag is never cleared.
    bool setDirty(StreamId id);
    bool setSparse(StreamId id);
    /// Empty when there is no such stream.
    [[nodiscard]] QString streamName(StreamId id) const;
    [[nodiscard]] std::vector<StreamId> idList() const;

    // With the pool. A stream that the pool doesn't have is a lost stream: reported to trace and
    // log. Its size is 0, and it can't be opened. One that can't be read fails the operation.
    [[nodiscard]] Morva::Result<std::uint64_t> size(Streams& pool, QString const& streamName) const;
    [[nodiscard]] Morva::Result<std::uint64_t> size(Streams& pool, StreamId id) const;
    /// All streams with their sizes; of a directory (type 2) without "Data".
    [[nodiscard]] Morva::Result<std::vector<StreamRecord>> streamList(Streams& pool,
                                                                      std::uint32_t fileType) const;
    /// Null when there is no such stream. Corruption when it is lost.
    [[nodiscard]] Morva::Result<std::shared_ptr<StreamHandle>>
    streamHandle(Streams& pool, QString const& streamName) const;
    [[nodiscard]] Morva::Result<std::shared_ptr<StreamHandle>> streamHandle(Streams& pool,
                                                                            StreamId id) const;
    /// The entry names another stream from now on and keeps its place; false when it did already.
    /// References are the caller's business.
    bool replace(NodeStream& entry, std::shared_ptr<StreamHandle> const& to);
    /// Takes one reference more on every stream, for a second node with the same contents.
    /// No reference is taken when one of them can't be read.
    [[nodiscard]] Morva::Status duplicateStreamList(Streams& pool) const;
    /// False when the names are equal or there is no such stream. A stream that has the new name
    /// leaves the list first, its reference the caller's business.
    bool rename(QString const& from, QString const& to);
    /// Takes one stream off the list, its reference the caller's business; false when there is
    /// none.
    bool remove(QString const& streamName);
    /// The same for all streams, without `all` for all but "Data". Whether anything changed.
    bool removeAll(bool all);
    /// Drops the references of the streams that `later` doesn't name.
    void release(Streams& pool, NodeInfo const& later) const;
    /// Fills in what the streams contribute to a description: level 1 the figures of "Data",
    /// level 2 the list of all.
    [[nodiscard]] Morva::Status metadata(Streams& pool, RepMetadata& result,
                                         std::uint32_t level) const;

    void print(int traceLevel) const;

private:
    [[nodiscard]] bool unpackRoot(Morva::UnpackBuffer& record);
    [[nodiscard]] bool unpackFile(Morva::UnpackBuffer& record, std::uint32_t type);
    [[nodiscard]] bool unpackStreams(Morva::UnpackBuffer& record, bool withSparse);
    /// Null when the stream is lost, which has been reported.
    [[nodiscard]] static Morva::Result<std::shared_ptr<StreamHandle>> open(Streams& pool,
                                                                           NodeStream const& entry);
    [[nodiscard]] static Morva::Result<std::shared_ptr<StreamHandle>>
    openWhole(Streams& pool, NodeStream const* entry);
    [[nodiscard]] static Morva::Result<std::uint64_t> sizeOf(Streams& pool,
                                                             NodeStream const* entry);

    std::uint32_t type_;
    Qt::CaseSensitivity caseSensitivity_;
    std::vector<NodeStream> streams_;
};

} // namespace Replication
