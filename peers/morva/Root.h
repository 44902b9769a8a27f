#pragma once

#include "base/files/Journal.h"
#include "peers/morva/ExitCode.h"
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
/// A checkpoint is made at the end of a process that changes something, and now and then while it
/// replays logs. What a process did after its last checkpoint is gone when it dies.
///
/// For one thread. Operations that fail throw `CommandFailure`.
class Root {
public:
    /// One store as sources.cfg names it. Its replay id and its store id are the same number.
    struct Source {
        QString name;
        QString sourceRoot; ///< absolute path on the source
        std::uint32_t id = 0;
        QStringList dedupExclude; ///< ends of names that are not deduplicated
        Replication::SourceKind kind = Replication::SourceKind::Posix; ///< as the rules have it
    };

    /// Makes a root; fails if there is one.
    static void init(QString const& path);
    /// Locks the root without opening anything in it, for readers of its bare files.
    struct Lock {
        explicit Lock(QString const& path);
        ~Lock();
        Lock(Lock const&) = delete;
        Lock& operator=(Lock const&) = delete;

    private:
        int descriptor_ = -1;
    };

    enum class For { Reading, Changing };
    /// Opens the root at its last checkpoint, and its pool. `NoRepository` when there is none,
    /// `InUse` when another process has it. What is done for reading alone makes no checkpoint.
    explicit Root(QString const& path, For purpose = For::Changing);
    /// Closes what is open; use `finish` to learn whether all of it reached the disk.
    ~Root();
    Root(Root const&) = delete;
    Root& operator=(Root const&) = delete;

    [[nodiscard]] Replication::Streams& pool() { return *streams_; }
    [[nodiscard]] QList<Source> const& sources() const { return sources_; }
    /// The source of that name; of the only store for an empty name. Fails when there is none, or
    /// when the name is empty and there are several.
    [[nodiscard]] Source const& source(QString const& name) const;
    /// Adds a store to sources.cfg and writes a rule set with it.
    Source const& addSource(QString const& name, QString const& sourceRoot,
                            QStringList const& dedupExclude = {},
                            Replication::SourceKind kind = Replication::SourceKind::Posix);
    [[nodiscard]] bool hasSource(QString const& name) const;

    /// The open store of a source; makes it if it has never been there. A store that is marked for
    /// deletion can only be looked at, and is not given otherwise.
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
    /// the last checkpoint holds.
    void finish();

    /// The journal of the root that `FixedPath` names, with all files at their last checkpoint.
    [[nodiscard]] static std::unique_ptr<Journal> openJournal();

private:
    void markOpen();
    void readSources();
    void saveSources();
    void writeRules();
    void markForDeletion(Source const& source, bool deactivate);
    void openPool();
    void flush();
    [[nodiscard]] CommandFailure notWritten() const;

    QString path_;
    For purpose_;
    Lock lock_;
    std::unique_ptr<Journal> journal_;
    std::chrono::steady_clock::time_point lastCheckpoint_ = std::chrono::steady_clock::now();
    QList<Source> sources_;
    std::uint32_t lastId_ = 0; ///< given to a store; ids aren't given twice
    std::uint32_t ruleSet_ = 0;
    std::shared_ptr<Replication::Streams> streams_;
    std::unique_ptr<Replication::CleanupWorker> cleanup_;
    std::unique_ptr<Replication::DedupWorker> dedup_;
    QList<Replication::StorePointer> open_;
};

} // namespace Morva
