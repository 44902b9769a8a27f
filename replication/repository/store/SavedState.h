#pragma once

#include "base/values/Status.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/SavedRecords.h"

#include <QSet>
#include <QString>

#include <memory>
#include <mutex>
#include <vector>

namespace Replication {

class ActiveHandle;
class Store;
class StreamHandle;

/// What belongs to a store and is not in its tree: its clock, the versions that wait for
/// retirement, the files that the source has open and, through its `Part`, all that its sink has to
/// find again. It is saved with each checkpoint, so that after any end of the process logs on files
/// that were opened before it go on.
///
/// A file can be open that has no name any more. Nothing claims its node then, and a stream that
/// was taken off a file has no reference; they are kept for as long as they are saved, also while
/// nobody has them open, and freed by the first save that doesn't name them.
///
/// Packed records (`PackBuffer`), besides those of SavedHandles.h:
///
///  Header   format u32 (3), store's clock u32, the three settings as bools, extra u32 (0)
///  File     file id u64, version (Version.h), node u64, nameless bool, count of links u32; for
///           each: link id u32, directory u64, object type u32, name
///  Retired  name, node u64 (0 if the entry keeps none), expiry u32, version (Version.h)
///  Stream   nothing; the key is the id of a stream that is open and no longer one of its file
///
/// For the writer of the live tree; `keeps` from any thread. Saving runs in the operation gate.
class SavedState {
public:
    /// Who saves and takes up records of its own: the store's sink.
    class Part {
    public:
        /// Puts the records that there are.
        [[nodiscard]] virtual Morva::Status save(SavedState& saved) = 0;
        /// The checkpoint that holds what `save` put is on the disk.
        virtual void durable() = 0;

    protected:
        ~Part() = default;
    };

    SavedState(Store& store, QString const& path);

    /// Reads the records and keeps what they name. Damage is no failure of the store: `damaged()`
    /// tells of it, and there are no records then.
    [[nodiscard]] Morva::Status load();
    /// Whether a state was ever saved.
    [[nodiscard]] bool found() const { return records_.found(); }
    [[nodiscard]] bool damaged() const { return damaged_; }
    /// Forgets all that was saved, and frees what was kept for it at the next save.
    void drop();

    void attach(Part& part);
    /// `saved`: nothing has changed since the last save. Else no later save succeeds, since what
    /// the part did must not stay without its records.
    void detach(Part const& part, bool saved);

    /// Saves what changed since the last time. Does nothing while no part is attached.
    [[nodiscard]] Morva::Status save();
    /// The checkpoint that holds the last save is on the disk.
    void durable();
    /// Ends the use of the live tree by a part, which has let go of nothing yet: saves, and makes
    /// the versions and what is kept stay as they are when their handles go.
    [[nodiscard]] Morva::Status stop(Part const& part);
    /// Takes up what the store itself has saved: the clock and the versions that wait.
    [[nodiscard]] Morva::Status takeUp();

    // For a part, while it saves.

    [[nodiscard]] SavedRecords& records() { return records_; }
    /// Saves an open file, once.
    void file(ActiveHandle& handle);
    /// Keeps a stream that is open and no longer one of its file.
    void stream(StreamId id);

    /// The open file of a record: the one of that id, or the nameless one that was kept. Null when
    /// there is no such file any more.
    [[nodiscard]] Morva::Result<std::shared_ptr<ActiveHandle>> open(FileId id);

    /// The nodes that records keep, for a checker too.
    [[nodiscard]] static Morva::Status keptNodes(SavedRecords const& records,
                                                 QSet<NodeNumber>& nodes);
    /// The streams that records keep although nothing refers to them.
    [[nodiscard]] static Morva::Status keptStreams(SavedRecords const& records,
                                                   QSet<StreamId>& streams);
    /// Whether a node that nothing claims is not to be freed.
    [[nodiscard]] bool keeps(NodeNumber node) const;

    [[nodiscard]] Morva::Status close() { return records_.close(); }

private:
    [[nodiscard]] Morva::Status readRecords();
    void saveHeader();
    void saveRetired();
    [[nodiscard]] Morva::Status takeUpRetired();
    /// Keeps what the save under way has named, and that alone.
    void keepPut();
    Store& store_;
    QString path_;
    SavedRecords records_;
    Part* part_ = nullptr;
    bool damaged_ = false;
    bool unsaved_ = false;           ///< a part has gone without saving
    QSet<FileId> filesPut_;          ///< by the save under way
    QSet<NodeNumber> nodesPut_;      ///< the same, to be kept
    QSet<StreamId> streamsPut_;      ///< the same
    QSet<StreamId> streamsKept_;     ///< as the pool was told
    std::vector<NodeNumber> unkept_; ///< could not be freed yet
    mutable std::mutex lock_;
    QSet<NodeNumber> nodesKept_; ///< guarded by lock_
};

} // namespace Replication
