#pragma once

#include "base/trace/TracedLock.h"
#include "base/values/Status.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/NodeBlock.h"
#include "replication/repository/store/NodeInfo.h"

#include <QString>
#include <QStringList>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Morva {
struct Extent;
}

namespace Replication {

class RepMetadata;
class Store;
class StreamHandle;
struct DedupStatistics;

/// One stored version of a file or directory: it pins the version's block in "files" and holds
/// the unpacked `NodeInfo`.
///
/// Every mutating operation first decides whether this version may be changed in place or must be
/// copied, because a snapshot or a retained version still sees it. When it was copied, `copy` is
/// set on return, the change is on the copy, and the caller must treat the copy as the current
/// node from then on (`ActiveHandle::commit` enters it in the id's chain). An operation that fails
/// leaves this node as it was, and what it may have left in `copy` is to be dropped; the contents
/// of a stream after a failed write are those before it up to the offset, at least.
///
/// A look-up gives a null stream for one that isn't there. An operation on a stream that isn't
/// there fails with NotFound, one that can't be done with InvalidArgument.
///
/// Held by shared pointers; one FileNode exists per node in memory (`PassiveHandles`). When the
/// last pointer goes and nothing claims the version any more, its streams and its block are freed.
/// The store must outlive it: whoever holds one holds a `StorePointer` too, declared before it.
///
/// Thread-safe: each operation holds the node's lock through decision and change. Lock order: the
/// node's lock, then `PassiveHandles`, then `NodeFile`.
class FileNode {
public:
    using Pointer = std::shared_ptr<FileNode>;

    /// For `PassiveHandles` alone, which enters the object in its table. Takes over the pin.
    FileNode(Store& store, NodePin pin, NodeInfo info);
    /// Frees the streams and the block of a version that nothing claims, else gives the pin back.
    ~FileNode();
    FileNode(FileNode const&) = delete;
    FileNode& operator=(FileNode const&) = delete;

    // Without lock, since they never change.
    [[nodiscard]] std::uint32_t type() const { return type_; }
    [[nodiscard]] bool isDirectory() const { return type_ == directoryType; }
    [[nodiscard]] NodeNumber id() const { return number_; }

    [[nodiscard]] std::uint32_t attributes() const;
    [[nodiscard]] bool placeHolder() const;
    [[nodiscard]] QString owner() const;
    [[nodiscard]] bool liveOnly() const;
    [[nodiscard]] QString sourceMachine() const;
    [[nodiscard]] QString name() const;
    /// The names of the file in the state that this version shows.
    [[nodiscard]] std::uint32_t linkCount() const;
    /// The names that it has now: 0 once it has lost the last one.
    [[nodiscard]] std::uint32_t names() const;
    /// True when no link was ever added.
    [[nodiscard]] bool notLinked() const;
    /// The five words from offset 36: access (never set), created here, modified here, created
    /// and modified at the source; seconds since 1970.
    [[nodiscard]] NodeTimes times() const;
    [[nodiscard]] Morva::Result<std::uint64_t> size(QString const& stream) const;
    [[nodiscard]] Morva::Result<std::uint64_t> size() const;
    [[nodiscard]] bool versioned() const;
    [[nodiscard]] Instance instance() const;
    [[nodiscard]] std::uint32_t referenceCount() const;
    [[nodiscard]] std::uint32_t versionCount() const;
    [[nodiscard]] bool exists(QString const& stream) const;
    [[nodiscard]] Morva::Result<std::vector<StreamRecord>> streamList() const;
    /// The names of all streams.
    [[nodiscard]] QStringList streamNames() const;
    /// Empty when the file has no such stream.
    [[nodiscard]] QString streamName(StreamId id) const;
    struct FilterInfo {
        std::uint64_t size;
        std::uint32_t linkCount, createdSource, modifiedSource;
    };
    [[nodiscard]] Morva::Result<FilterInfo> filterInfo() const;
    using StreamPointer = std::shared_ptr<StreamHandle>;
    /// The open stream of that name for reading; null when there is none.
    [[nodiscard]] Morva::Result<StreamPointer> openStream(QString const& name);

    [[nodiscard]] Morva::Status attr(Pointer& copy, bool setModified, std::uint32_t modified,
                                     bool setCreated, std::uint32_t created, bool setAttributes,
                                     std::uint32_t attributes);
    [[nodiscard]] Morva::Status owner(Pointer& copy, QString const& text);
    [[nodiscard]] Morva::Status attributes(Pointer& copy, std::uint32_t value);
    [[nodiscard]] Morva::Status liveOnly(Pointer& copy, bool value);
    [[nodiscard]] Morva::Status removeStream(Pointer& copy, QString const& name);
    [[nodiscard]] Morva::Status renameStream(Pointer& copy, QString const& from, QString const& to);
    [[nodiscard]] Morva::Status renameStream(Pointer& copy, StreamHandle const& stream,
                                             QString const& to);
    [[nodiscard]] Morva::Result<StreamPointer> createActiveStream(Pointer& copy,
                                                                  QString const& name, bool dedup);
    /// Makes the stream if there is none, but never "Data".
    [[nodiscard]] Morva::Result<StreamPointer> openActiveStream(Pointer& copy, QString const& name,
                                                                bool dedup);
    /// Writes to the stream: takes the copy decision, then `copyOnWrite` of the stream on the
    /// current node, then writes, then sets the modification time. `stream` is replaced by the
    /// handle that was written to when either copy gave a new one, and the new one is noted for
    /// deduplication.
    [[nodiscard]] Morva::Status write(Pointer& copy, StreamPointer& stream, std::uint64_t offset,
                                      void const* data, std::uint32_t count,
                                      std::uint32_t sourceTime);
    [[nodiscard]] Morva::Status truncate(Pointer& copy, StreamPointer& stream, std::uint64_t size,
                                         std::uint32_t flags, std::uint32_t sourceTime);
    [[nodiscard]] Morva::Status zeroData(Pointer& copy, StreamPointer& stream, std::uint64_t start,
                                         std::uint64_t end, std::uint32_t sourceTime);
    [[nodiscard]] Morva::Status dirty(Pointer& copy, StreamHandle const& stream);
    [[nodiscard]] Morva::Status sparse(Pointer& copy, StreamHandle const& stream);
    /// Moves the file over to another stream: the entry of `from` names `to` from now on.
    [[nodiscard]] Morva::Status replaceStream(Pointer& copy, StreamHandle const& from,
                                              StreamPointer const& to);
    /// The new link's number. Every link takes the copy decision, as every other change does: a
    /// snapshot shows the names of its moment.
    [[nodiscard]] Morva::Result<LinkId> addLink(Pointer& copy, bool keepLiveOnly);
    /// The names that are left.
    [[nodiscard]] Morva::Result<std::uint32_t> removeLink(Pointer& copy);
    /// The file has no names any more, and this version is the last of it.
    void end();
    [[nodiscard]] Morva::Status freeStreams(Pointer& copy);

    /// The copy decision: `copy` is set when one was made.
    [[nodiscard]] Morva::Status takeCopy(Pointer& copy);
    void takeReference();
    void takeVersion();
    void releaseVersion();
    void releaseWeakVersion();
    /// The block isn't to be freed or touched on release.
    void discard();
    /// Erase: drops all claims at once, so that the end of this object frees everything.
    void dropClaims();
    /// InvalidArgument (22) for a level other than 1 or 2.
    [[nodiscard]] Morva::Status metadata(std::uint32_t level, RepMetadata& result) const;
    void print(int traceLevel) const;
    /// The ids of all streams, a fresh copy.
    [[nodiscard]] std::vector<StreamId> streamIds() const;
    /// Deduplicates each stream by `Store::dedupStream`, without the node's lock; false when one of
    /// them says so, and the rest is left then.
    [[nodiscard]] bool dedupStreams(std::function<void()> const& checkForFreeze,
                                    DedupStatistics& statistics, Morva::Extent& buffer);

private:
    friend class PassiveHandles;

    // Under the lock. What they change is this node or the fresh copy, which nobody else knows.

    /// The node to change: this one or, if the copy decision says so, its copy.
    [[nodiscard]] Morva::Result<FileNode*> writable(Pointer& copy);
    /// Works on a stream that was made writable; `work(StreamHandle&)` is false as well where the
    /// stream has been frozen.
    template <class Work>
    [[nodiscard]] Morva::Status changeContent(Pointer& copy, StreamPointer& stream,
                                              std::uint32_t sourceTime, Work const& work);
    [[nodiscard]] Morva::Result<FileNode*> makeWritable(Pointer& copy, StreamPointer& stream);
    [[nodiscard]] Morva::Status writeInfo();
    /// Changes one value of the record and writes it; the value is as it was when that fails.
    template <class Value> [[nodiscard]] Morva::Status setInfo(Value& value, Value to) {
        std::swap(value, to);
        Morva::Status status = writeInfo();
        if (!status)
            std::swap(value, to);
        return status;
    }
    /// Changes the list of streams and writes the record; references of streams taken off go once
    /// it names them no more. The list is as it was when the record can't be written.
    template <class Change> [[nodiscard]] Morva::Status changeList(Change&& change);
    void writeBlock();
    void touch(std::uint32_t sourceTime);
    [[nodiscard]] Morva::Result<StreamPointer> createStream(QString const& name, bool dedup);
    void askForDedup(QString const& name, StreamId id, bool dedup);
    void endLiveOnly();
    void printCounts(char const* which) const;
    [[nodiscard]] Morva::Status renameEntry(Pointer& copy, QString const& from, QString const& to);
    [[nodiscard]] Morva::Status refused(char const* operation, QString const& stream,
                                        QString const& reason) const;
    [[nodiscard]] Morva::Status missing(char const* operation, QString const& stream) const;
    [[nodiscard]] Morva::Status lost(char const* operation, StreamId id) const;

    Store& store_;
    NodeNumber number_;
    std::uint32_t type_;
    mutable Morva::TracedMutex lock_;
    NodeInfo info_ MORVA_GUARDED_BY(lock_);
    NodePin node_;
    bool discarded_ = false;
    bool dedupOn_ = true;
};

} // namespace Replication
