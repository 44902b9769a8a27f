#pragma once

#include "base/messages/MsgAddress.h"
#include "base/trace/Log.h"
#include "base/values/Status.h"
#include "replication/common/intake/OpenHandle.h"
#include "replication/common/intake/StateFile.h"
#include "replication/common/log/LogEntry.h"
#include "replication/common/log/LogList.h"
#include "replication/common/rules/DisRules.h"
#include "replication/common/rules/NotToBackup.h"

#include <QHash>
#include <QSet>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <memory>
#include <shared_mutex>

namespace Replication {

/// Takes the logs of one target (one store of one source and policy) in sequence order and replays
/// each through its subclass. It knows nothing of stores: it works through its virtual operations.
///
/// There are two positions in the sequence. The applied one is that of the last log taken, by which
/// a log that comes twice is known; it is in memory. The durable one is that of the last
/// checkpoint, and the only one that the source is told: a log is acknowledged when nothing can
/// lose it any more. `savePosition` brings the applied one to the state file, as a part of a
/// checkpoint, and `durable` says that the checkpoint is on the disk.
///
/// One thread. The state and the positions may be read from other threads.
class DataSink {
public:
    enum State : std::uint32_t {
        eRunning = 0,
        eRunningDuringSnapshot = 1, ///< a failing operation is forgiven
        eResyncNeedSnapshotCompleteMsg = 2,
        eResyncNeedCompletedMsg = 3, ///< the log loop is off
        eResyncNeedStartLog = 4,
        eResyncNeedEndLog = 5,
        eValidate = 6
    };
    /// Sub-codes of a LOGMSG.
    enum MessageType : std::uint32_t {
        SourceStarted = 1,
        NotToBackupDetails = 9,
        StartOfSnapshot = 10,
        EndOfSnapshot = 11,
        PingTest = 16
    };
    enum AckMode : std::uint32_t { AckFromMirror = 0, AckToSource = 1 };
    /// Logs handled between two looks at messages.
    static constexpr int budget = 1000;

    /// What became of one log.
    enum class Outcome {
        Applied,
        Forgiven,
        AlreadyReplicated,
        Waiting,
        Failed,  ///< refused; see `failure`
        NoSpace, ///< not applied, and the sink is paused; it can be taken again
        Jumped   ///< refused: too far beyond the position; see `failure`
    };
    /// The furthest that a log may be beyond the one before it. A sequence number that is further
    /// away is damaged or another source's, and all logs behind it would count as old.
    static constexpr std::uint64_t maximumJump = std::uint64_t{1} << 32;
    /// The greatest number of a first log.
    static constexpr std::uint64_t maximumFirst = std::uint64_t{1} << 56;
    /// Paths that a partial resynchronisation is asked for; with more it becomes a full one.
    static constexpr qsizetype maximumResyncPaths = 10000;
    /// The user is told of so many of them one by one.
    static constexpr qsizetype resyncPathsTold = 100;

    struct Identity {
        QString name; ///< of the thread and its link
        QString sourceMachine;
        QString target;
        QString stateFile; ///< path
        std::uint32_t ruleSet = 0;
    };

    explicit DataSink(Identity identity);
    virtual ~DataSink();
    DataSink(DataSink const&) = delete;
    DataSink& operator=(DataSink const&) = delete;

    /// Opens the state file and loads the rules that it names, or the current ones, and takes up
    /// what was saved. A failure when there is no usable state file, and then no log is applied, or
    /// no rule set (`Busy`): then each log waits until one can be loaded.
    [[nodiscard]] Morva::Status start();
    /// Saves state and closes all files. What fails must keep the work from being committed.
    [[nodiscard]] virtual Morva::Status handleShutdown();
    /// Takes logs from the list until it is empty, the sink pauses or the budget is used up; true
    /// when a log is left.
    bool takeLogs(LogList& logs);
    /// The road of one log: rule change, sequence, replay, acknowledgement.
    Outcome takeLog(LogPointer const& log);

    [[nodiscard]] bool valid() const { return valid_; }
    [[nodiscard]] State state() const;
    /// Of the last log that was taken; a source begins above it.
    [[nodiscard]] std::uint64_t position() const;
    /// Of the last log that the last checkpoint holds.
    [[nodiscard]] std::uint64_t durablePosition() const;
    /// What ended the last log that was not applied.
    [[nodiscard]] Morva::Status const& failure() const { return failure_; }
    /// Brings what is known of the sequence to the state file. By a checkpoint, in which nothing is
    /// taken.
    [[nodiscard]] Morva::Status savePosition();
    /// The checkpoint of the last `savePosition` is on the disk: acknowledges what it holds.
    void acknowledge();
    [[nodiscard]] bool needsResync() const { return needsResync_; }
    /// Also changes the flag in the state file.
    void needsResync(bool value);
    [[nodiscard]] bool paused() const { return paused_; }
    void pause() { paused_ = true; }
    void resume() { paused_ = false; }
    /// The paths that a partial resynchronisation is asked for.
    [[nodiscard]] QSet<QString> const& resyncPaths() const { return resyncPaths_; }

    // The operations of a subclass.
    /// Takes up what was saved: here, the exclusions in the state file.
    [[nodiscard]] virtual Morva::Status loadState();
    /// Saves all there is at a stop: here, the position.
    [[nodiscard]] virtual Morva::Status saveState();
    [[nodiscard]] virtual bool loadRules(std::uint32_t ruleSet) = 0;
    /// `InvalidArgument` and `NotFound` say that the operation doesn't fit what is stored,
    /// `NoSpace` that nothing was done and it can be tried again; any other failure is one of the
    /// repository.
    [[nodiscard]] virtual Morva::Status replay(LogPointer const& log) = 0;
    /// Asks for a resynchronisation of what a log that failed is about; false when that isn't
    /// known.
    [[nodiscard]] virtual bool askForPathsOf(LogEntry const&) { return false; }
    virtual void sendAck(std::uint64_t sequence) = 0;
    virtual void sendNak(std::uint64_t sequence) = 0;
    virtual void closeAllFiles() = 0;
    /// The tags of the lines that this sink logs: source, machine and target, "Yes" or "No", and a
    /// text.
    [[nodiscard]] virtual Morva::LogTags tagList(bool yes, QString const& text) const;
    /// Logs that a resynchronisation is required. `flag` also sets `needsResync`; `level` is that
    /// of the log line, 0 is silent.
    virtual void sendResyncRequired(QString const& reason, bool flag, std::uint32_t level);
    /// "Initial", "Full", "Partial" or "Validate".
    virtual void requestResync(QString const& type, Morva::MsgAddress const& sender);
    /// False when no receiver could be started.
    [[nodiscard]] virtual bool startResyncProcess(QString const& type) = 0;
    [[nodiscard]] virtual bool destinationEmpty() = 0;
    [[nodiscard]] virtual bool idle() const;
    [[nodiscard]] virtual bool snapshotPossible() const { return false; }
    virtual void startResync();
    virtual void endResync();
    virtual void setupThread();
    /// Whether policy events of the target stand for a whole copy of the source.
    [[nodiscard]] virtual bool batchMode() const { return false; }
    /// A POLICYEVENT. What comes of it is told to the user and doesn't fail the log.
    virtual void policyEvent(LogEntry const& log) = 0;
    /// The list is no longer full: its collector can go on.
    virtual void unstalled() {}
    /// `notToBackup()` differs from before: what is stored may have to go.
    [[nodiscard]] virtual Morva::Status exclusionsChanged() { return {}; }
    /// Takes other exclusions, as a log that brings them, and applies them to what is stored.
    /// `InvalidArgument` when the details can't be read. After another failure they are in force
    /// and saved, and are applied when the sink starts and when they are brought anew.
    [[nodiscard]] Morva::Status exclude(Morva::Extent const& details);
    /// Adds a path to the partial resynchronisation's list. True when it is a new one that the user
    /// is to be told of; false also when the state doesn't take it, and when there are so many that
    /// all of the target is to be resynchronised.
    bool addResyncPath(QString const& path, bool first);

protected:
    using HandleTable = QHash<std::uint32_t, std::shared_ptr<OpenHandle>>;

    [[nodiscard]] StateFile& stateFile() { return stateFile_; }
    [[nodiscard]] Identity const& identity() const { return identity_; }
    [[nodiscard]] std::shared_ptr<DisRules const> const& rules() const { return rules_; }
    void rules(std::shared_ptr<DisRules const> rules) { rules_ = std::move(rules); }
    /// Whether the rules in force are marked as needing a resynchronisation.
    [[nodiscard]] virtual bool rulesRequireResync() const;
    /// The log in hand; null between two.
    [[nodiscard]] LogPointer const& currentLog() const { return currentLog_; }
    [[nodiscard]] NotToBackup const& notToBackup() const { return notToBackup_; }
    [[nodiscard]] bool caseSensitive() const { return caseSensitive_; }
    void caseSensitive(bool value) { caseSensitive_ = value; }
    [[nodiscard]] HandleTable& openHandles() { return openHandles_; }
    [[nodiscard]] HandleTable& closedHandles() { return closedHandles_; }
    void ackMode(AckMode mode) { ackMode_ = mode; }
    void state(State next);
    /// Whether something was taken since the last `savePosition`.
    [[nodiscard]] bool changed() const { return changed_; }
    /// The details that `notToBackup()` was made from, behind the target in the state file.
    [[nodiscard]] Morva::Status saveExclusions();
    /// For `loadState`.
    void resyncPaths(QSet<QString> paths) { resyncPaths_ = std::move(paths); }
    [[nodiscard]] std::uint32_t closedGraceLimit() const { return closedGraceLimit_; }
    void closedGraceLimit(std::uint32_t limit) { closedGraceLimit_ = limit; }
    /// Lets go of open and closed handles, and does what waited for their end.
    [[nodiscard]] virtual Morva::Status dropHandles();
    /// Seconds that closed handles are kept, from the rule set.
    virtual std::uint32_t closedGracePeriod() const = 0;

private:
    [[nodiscard]] Morva::Status openState();
    [[nodiscard]] bool startWithState();
    [[nodiscard]] bool startWithoutState();
    [[nodiscard]] bool changeRules(LogEntry const& log);
    [[nodiscard]] Morva::LogLine line(Morva::LogLevelE level, QString const& text = {}) const;
    void reportNewRules() const;
    Outcome handleLog(LogPointer const& log);
    [[nodiscard]] Morva::Status messageLog(LogEntry const& log);
    void policyLog();
    [[nodiscard]] Morva::Status takeExclusions(Morva::XmlList const& details, QByteArray bytes);
    [[nodiscard]] Morva::Status applyExclusions();
    void dropExpiredHandles(std::uint32_t time);
    /// Gives how many; they are kept for the grace period from `time` on.
    std::size_t moveOpenToClosed(std::uint32_t time);
    void dropClosedHandles();
    [[nodiscard]] bool follows(LogEntry const& log);
    Outcome replayLog(LogPointer const& log);
    Outcome refuse(LogEntry const& log);
    void move(std::uint64_t sequence, std::uint64_t size);
    void forceAck();

    Identity identity_;
    bool valid_ = false;
    bool rulesLoaded_ = false;
    bool paused_ = false;
    bool inLogLoop_ = false;
    bool caseSensitive_ = true;
    StateFile stateFile_;
    mutable std::shared_mutex stateLock_;
    std::uint64_t applied_ = 0; ///< guarded by stateLock_ for other threads
    std::uint64_t durable_ = 0; ///< guarded by stateLock_ for other threads
    State state_ = eRunning;    ///< guarded by stateLock_ for other threads
    std::uint64_t saved_ = 0;   ///< position of the last `savePosition`
    std::uint64_t bytes_ = 0;   ///< of bodies taken since then
    bool changed_ = false;
    Morva::Status failure_;
    bool needsResync_ = false;
    AckMode ackMode_ = AckToSource;
    QString resyncType_;
    std::uint64_t endSnapshotSequence_ = 0;
    std::shared_ptr<DisRules const> rules_;
    LogPointer currentLog_;
    NotToBackup notToBackup_;
    QByteArray exclusions_; ///< the details that notToBackup_ was made from
    QSet<QString> resyncPaths_;
    bool resyncPathsFull_ = false; ///< there were too many; a full one was asked for
    HandleTable openHandles_;
    HandleTable closedHandles_;
    std::uint32_t closedGraceLimit_ = 0; ///< source time, 0 means none
};

} // namespace Replication
