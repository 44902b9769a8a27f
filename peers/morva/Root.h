#pragma once

#include "base/files/Journal.h"
#include "base/files/ReadingFiles.h"
#include "peers/morva/ExitCode.h"
#include "peers/morva/Output.h"
#include "peers/morva/RootLock.h"
#include "peers/morva/SourceTable.h"
#include "replication/repository/replay/SinkFactory.h"
#include "replication/repository/store/DedupWorker.h"
#include "replication/repository/store/StoreTable.h"
#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/Streams.h"

#include <QList>
#include <QString>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace Morva {

/// A repository's root directory, opened by this process alone:
///
///  morva.lock                   locked while a process has the root open
///  config/repository.cfg        settings of the pool and the stores
///  config/sources.cfg           the stores by name, and the source root of each
///  rules/<number>/              one rule set for each change of sources.cfg
///  run/open                     there while a process has the root open, and after one that died
///  repository/journal           brings all of the following back to their last checkpoint
///  repository/state-<target>    how far the sink of a store has come
///  repository/...               the pool and the stores
///
/// Only `checkpoint` and `finish` make what was done stay. What was done after the last of them is
/// taken back when the object ends, and gone when the process dies.
///
/// For one thread. Operations that fail throw `CommandFailure`.
class Root {
public:
    using Source = Morva::Source;

    /// Makes a root; fails if there is one.
    static void init(QString const& path);

    enum class For { Reading, Changing };
    /// Opens the root at its last checkpoint, and its pool; waits so long while another process has
    /// it. See `RootLock` for what it throws. For reading nothing on the disk is changed, also
    /// where a recovery has to come first, and other readers don't wait: see `ReadingFiles`.
    explicit Root(QString const& path, For purpose = For::Changing,
                  std::chrono::milliseconds wait = {});
    /// The root that the command line names.
    explicit Root(Output const& output, For purpose = For::Changing)
        : Root(output.root, purpose, output.wait) {}
    /// Closes what is open, and takes back what no checkpoint holds.
    ~Root();
    Root(Root const&) = delete;
    Root& operator=(Root const&) = delete;

    [[nodiscard]] Replication::Streams& pool() { return *streams_; }
    [[nodiscard]] SourceTable const& sourceTable() const { return sources_; }
    [[nodiscard]] QList<Source> const& sources() const { return sources_.all(); }
    [[nodiscard]] Source const& source(QString const& name) const { return sources_.find(name); }
    [[nodiscard]] bool hasSource(QString const& name) const { return sources_.contains(name); }
    /// Enters a new store in the table; it is made at its first use.
    Source const& addSource(QString const& name, QString const& sourceRoot,
                            QStringList const& dedupExclude = {},
                            Replication::SourceKind kind = Replication::SourceKind::Posix);
    /// Takes a store that was never made out of the table; any other stays.
    void forgetUnmade(QString const& name);
    /// From the next checkpoint on the store holds another directory of its source. Logs of the
    /// newest rule set are of that one.
    void moveSource(QString const& name, QString const& sourceRoot) {
        sources_.move(name, sourceRoot);
    }
    /// The number of the last log that a store has taken, 0 if it has taken none.
    [[nodiscard]] std::uint64_t position(Source const& source) const;
    [[nodiscard]] std::uint32_t ruleSet() const { return sources_.ruleSet(); }

    /// The open store of a source; makes it if no checkpoint has ever held it, and fails when it
    /// was there and its files aren't. A store that is marked for deletion can only be looked at,
    /// and is not given otherwise.
    enum class Marked { Refused, Given };
    [[nodiscard]] Replication::StorePointer store(Source const& source,
                                                  Marked marked = Marked::Refused);
    /// Erases a store for good, with all that only it holds in the pool, and takes it out of
    /// sources.cfg and the rules. Refused, with nothing changed, while the store is active, that
    /// is, while the rules feed it, unless `deactivate`; and while somebody holds it. What was
    /// begun can be done again after an end in between. The background threads must not run.
    void erase(QString const& name, bool deactivate);
    /// A started sink, of the kind that the rules tell, on the store of a source, which is active
    /// from then on.
    [[nodiscard]] std::unique_ptr<Replication::Sink> sink(Source const& source);

    /// Starts the background threads: cleanup of deleted streams.
    void startWork();
    /// Works off the queues: deletions always, deduplication and retired snapshots with `dedup`.
    void drain(bool dedup);
    /// Makes what was done so far stay, whatever comes.
    void checkpoint();
    /// The same, if there is much that a crash would cost.
    void checkpointIfDue();
    /// Ends the work, makes it stay, and closes. Fails when something could not be written; then
    /// the last checkpoint holds. For reading it closes, and fails with `InUse` when no lock could
    /// be had and the root has been changed meanwhile: then what was read may be of two states.
    void finish();

    /// The journal of the root that `FixedPath` names, with all files at their last checkpoint.
    [[nodiscard]] static std::unique_ptr<Journal>
    openJournal(Journal::Format format = Journal::Format::Newest);

private:
    void markOpen();
    void findStores();
    void markForDeletion(Source const& source, bool deactivate);
    void openPool();
    /// Between two steps of a long work: a checkpoint if one is due, and `Stopped` after one when
    /// the user has interrupted the command.
    [[nodiscard]] Status safePoint();
    [[nodiscard]] Status tryCheckpoint();
    [[nodiscard]] bool checkpointIsDue() const;
    [[nodiscard]] static CommandFailure doesNotOpen(Source const& source, Status const& why);
    [[nodiscard]] Status flush();
    [[nodiscard]] std::vector<std::uint32_t> openStores() const;
    void markMade(std::vector<std::uint32_t> const& stores);
    /// False when something is still in use.
    bool close();
    void takeBack() noexcept;
    [[nodiscard]] CommandFailure notWritten(Status const& why) const;

    QString path_;
    For purpose_;
    RootLock lock_;
    std::optional<ReadingFiles> reading_;
    QByteArray journalRead_; ///< what it was at the opening, where there is no lock
    std::unique_ptr<Journal> journal_;
    std::uint64_t pendingLimit_ = 0; ///< bytes to copy with which a checkpoint is due
    std::chrono::steady_clock::time_point lastCheckpoint_ = std::chrono::steady_clock::now();
    SourceTable sources_;
    std::shared_ptr<Replication::Streams> streams_;
    std::unique_ptr<Replication::CleanupWorker> cleanup_;
    std::unique_ptr<Replication::DedupWorker> dedup_;
    QList<Replication::StorePointer> open_;
};

} // namespace Morva
