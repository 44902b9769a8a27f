#pragma once

#include "replication/common/values/Ids.h"
#include "replication/repository/store/DirKey.h"
#include "replication/repository/store/FileNode.h"
#include "replication/repository/store/Version.h"

#include <QHash>
#include <QString>
#include <QStringList>

#include <memory>

namespace Replication {

class Store;
class StreamHandle;

/// The open, writable state of one file in the live tree. All changes that replay brings to a file
/// go through it. When a change made a copy of the node, `commit` enters the copy in the id's
/// chain; the end of the handle retires the version that it describes.
///
/// `link` is the link of the file whose name was used; 0 is read as 1.
///
/// A stream handle that was got here stays good while others change the file: when a change had to
/// go to a copy of the stream, every operation that is given the old handle goes to the copy.
///
/// Not thread-safe: used by the one writer of the store's live tree.
class ActiveHandle {
public:
    using Pointer = std::shared_ptr<ActiveHandle>;

    /// For `ActiveHandles` alone.
    ActiveHandle(Store& store, FileId id, FileNode::Pointer node);
    ~ActiveHandle();
    ActiveHandle(ActiveHandle const&) = delete;
    ActiveHandle& operator=(ActiveHandle const&) = delete;

    [[nodiscard]] FileId id() const { return id_; }
    [[nodiscard]] FileNode::Pointer const& fileNode() const { return fileNode_; }
    [[nodiscard]] Version& version() { return version_; }

    // Each ends with `commit`, or fails and leaves the node as it was; InvalidArgument when there
    // is no node. See `FileNode`.
    using StreamPointer = std::shared_ptr<StreamHandle>;
    [[nodiscard]] Morva::Result<StreamPointer> createStream(LinkId link, QString const& name,
                                                            bool dedup);
    [[nodiscard]] Morva::Result<StreamPointer> openStream(LinkId link, QString const& name,
                                                          bool dedup);
    /// `stream` is replaced when the write had to go to a copy of it.
    [[nodiscard]] Morva::Status write(LinkId link, StreamPointer& stream, std::uint64_t offset,
                                      void const* data, std::uint32_t count,
                                      std::uint32_t sourceTime);
    [[nodiscard]] Morva::Status truncate(LinkId link, StreamPointer& stream, std::uint64_t size,
                                         std::uint32_t flags, std::uint32_t sourceTime);
    [[nodiscard]] Morva::Status zeroData(LinkId link, StreamPointer& stream, std::uint64_t start,
                                         std::uint64_t end, std::uint32_t sourceTime);
    [[nodiscard]] Morva::Status dirty(LinkId link, StreamHandle const& stream);
    [[nodiscard]] Morva::Status sparse(LinkId link, StreamHandle const& stream);
    [[nodiscard]] Morva::Status removeStream(LinkId link, QString const& name);
    [[nodiscard]] Morva::Status renameStream(LinkId link, QString const& from, QString const& to);
    [[nodiscard]] Morva::Status renameStream(LinkId link, StreamHandle const& stream,
                                             QString const& to);
    [[nodiscard]] Morva::Status replaceStream(LinkId link, StreamHandle const& from,
                                              StreamPointer const& to);
    /// The names that are left.
    [[nodiscard]] Morva::Result<std::uint32_t> removeLink(LinkId link);
    [[nodiscard]] Morva::Result<LinkId> addLink(LinkId link, bool keepLiveOnly);
    [[nodiscard]] Morva::Status owner(LinkId link, QString const& text);
    [[nodiscard]] Morva::Status attributes(LinkId link, std::uint32_t value);
    [[nodiscard]] Morva::Status liveOnly(LinkId link, bool value);
    [[nodiscard]] Morva::Status attr(LinkId link, bool setModified, std::uint32_t modified,
                                     bool setCreated, std::uint32_t created, bool setAttributes,
                                     std::uint32_t attributes);

    /// The name under which the file has the stream that a handle stands for now; empty for one
    /// that was taken off the file, and for null.
    [[nodiscard]] QString streamName(std::shared_ptr<StreamHandle> const& stream) const;
    /// Forgets the replaced handles of a stream that nobody holds any more.
    void closeStream(QString const& name);
    /// The names that the file has now.
    [[nodiscard]] std::uint32_t linkCount() const;
    [[nodiscard]] bool notLinked() const;
    [[nodiscard]] NodeTimes times() const;
    [[nodiscard]] Morva::Result<std::uint64_t> size(QString const& stream) const;
    [[nodiscard]] Morva::Result<std::vector<StreamRecord>> streamList() const;
    /// The names of all streams but "Data".
    [[nodiscard]] QStringList namedAttributes() const;
    [[nodiscard]] QString owner() const;
    [[nodiscard]] QString sourceMachine() const;

    /// Notes how the rules version the file: once, and not for directories.
    void setVersion(DirKey const& key, QStringList const& path, QString const& user,
                    QString const& process, std::uint32_t ruleSet,
                    std::vector<std::uint32_t> const& rules);
    /// The file has moved: what was retained under the old name goes out weakly, and the new place
    /// is versioned from now on; without rules the version ends.
    void rename(FileId directory, QStringList const& path, QString const& user,
                QString const& process, std::uint32_t ruleSet,
                std::vector<std::uint32_t> const& rules);
    void retiredVersion(bool final);

    /// The names under which the file is open, by link number.
    struct Link {
        DirKey key;
        QString name;
    };
    [[nodiscard]] QHash<LinkId, Link>& links() { return links_; }

    void print(int traceLevel) const;
    void saveHandle(Morva::PackBuffer& record) const;

private:
    friend class ActiveHandles;

    /// Enters a copy that a change made in the id's chain. When no entry can be had the copy is
    /// dropped, and the file is as it was.
    [[nodiscard]] Morva::Status commit(LinkId link);
    /// Ends a change: `commit`, or drops the copy that a change made before it failed.
    [[nodiscard]] Morva::Status end(LinkId link, Morva::Status status);
    template <class Value>
    [[nodiscard]] Morva::Result<Value> end(LinkId link, Morva::Result<Value> result) {
        Morva::Status status = end(link, result.status());
        return status ? std::move(result) : Morva::Result<Value>(std::move(status));
    }
    /// Runs a change of the node, `work(FileNode&)`, and ends it.
    template <class Work> [[nodiscard]] auto run(LinkId link, Work&& work) {
        using Outcome = decltype(work(*fileNode_));
        return fileNode_ ? end(link, work(*fileNode_)) : Outcome(noFile());
    }
    [[nodiscard]] Morva::Status noFile() const;
    /// The handle that stands for `stream` now; itself when nothing replaced it.
    [[nodiscard]] Morva::Result<StreamPointer> current(StreamPointer const& stream) const;
    [[nodiscard]] Morva::Result<StreamHandle const*> current(StreamHandle const& stream,
                                                             StreamPointer& keep) const;
    /// Notes that holders of `before` now mean the stream of that name.
    void replaced(StreamPointer const& before, QString const& name);
    [[nodiscard]] bool sameStream(QString const& a, QString const& b) const;
    /// Runs a change of a stream's content and notes the handle that a copy brought.
    template <class Change>
    [[nodiscard]] Morva::Status change(LinkId link, StreamPointer& stream, Change&& change);

    Store& store_;
    FileId id_;
    Version version_;
    FileNode::Pointer fileNode_;
    FileNode::Pointer copy_;
    QHash<LinkId, Link> links_;
    /// Handles that were replaced while somebody else held them, with the stream's name.
    struct Replaced {
        std::weak_ptr<StreamHandle> handle;
        StreamId id;
        QString name;
    };
    std::vector<Replaced> replaced_;
};

} // namespace Replication
