#pragma once

#include "base/messages/MsgAddress.h"
#include "base/trace/Log.h"
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

/// Takes the logs of one target (one store of one source and policy) in sequence order, replays
/// each through its subclass and keeps the acknowledged position in the state file. It knows
/// nothing of stores: it works through its virtual operations.
///
/// One thread. The state and the acknowledged position may be read from other threads.
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
    enum class Outcome { Applied, Forgiven, AlreadyReplicated, Waiting, Failed };

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

    /// Opens the state file and loads the rules that it names, or the current ones. False when
    /// there is no usable state file, and then no log is applied, or no rule set: then each log
    /// waits until one can be loaded.
    [[nodiscard]] bool start();
    /// Saves state and closes all files.
    virtual void handleShutdown();
    /// Takes logs from the list until it is empty, the sink pauses or the budget is used up; true
    /// when a log is left.
    bool takeLogs(LogList& logs);
    /// The road of one log: rule change, sequence, replay, acknowledgement.
    Outcome takeLog(LogPointer const& log);

    [[nodiscard]] bool valid() const { return valid_; }
    [[nodiscard]] State state() const;
    [[nodiscard]] std::uint64_t ackSequence() const;
    [[nodiscard]] bool needsResync() const { return needsResync_; }
    /// Also changes the flag in the state file.
    void needsResync(bool value);
    [[nodiscard]] bool paused() const { return paused_; }
    void pause() { paused_ = true; }
    void resume() { paused_ = false; }
    /// The paths that a partial resynchronisation is asked for.
    [[nodiscard]] QSet<QString> const& resyncPaths() const { return resyncPaths_; }

    // The operations of a subclass.
    /// Reads the saved exclusions from the state file.
    virtual void loadState();
    /// Writes them behind the target in the state file.
    virtual void saveState();
    [[nodiscard]] virtual bool loadRules(std::uint32_t ruleSet) = 0;
    [[nodiscard]] virtual bool replay(LogPointer const& log) = 0;
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
    virtual void exclusionsChanged() {}
    /// Takes other exclusions, as a log that brings them, and applies them to what is stored. False
    /// when the details can't be read, or when not all of it could be applied: then they are in
    /// force, but are taken anew by the next that brings them.
    [[nodiscard]] bool exclude(Morva::Extent const& details);
    /// Adds a path to the partial resynchronisation's list; false when the state doesn't take it.
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
    /// For `exclusionsChanged`: not all of it could be done.
    void exclusionsFailed() { exclusionsFailed_ = true; }
    /// Lets go of open and closed handles.
    virtual void dropHandles();
    /// Seconds that closed handles are kept, from the rule set.
    virtual std::uint32_t closedGracePeriod() const = 0;

private:
    [[nodiscard]] bool startWithState();
    [[nodiscard]] bool startWithoutState();
    [[nodiscard]] bool changeRules(LogEntry const& log);
    [[nodiscard]] Morva::LogLine line(Morva::LogLevelE level, QString const& text = {}) const;
    void reportNewRules() const;
    Outcome handleLog(LogPointer const& log);
    [[nodiscard]] bool messageLog(LogEntry const& log);
    void policyLog();
    [[nodiscard]] bool takeExclusions(Morva::XmlList const& details, QByteArray bytes);
    void dropExpiredHandles(std::uint32_t time);
    /// Gives how many; they are kept for the grace period from `time` on.
    std::size_t moveOpenToClosed(std::uint32_t time);
    void dropClosedHandles();
    Outcome replayLog(LogPointer const& log, bool taken);
    void ackLog(std::uint64_t sequence, std::uint64_t size);
    void setAck(std::uint64_t sequence);
    void forceAck();

    Identity identity_;
    bool valid_ = false;
    bool rulesLoaded_ = false;
    bool paused_ = false;
    bool inLogLoop_ = false;
    bool caseSensitive_ = true;
    StateFile stateFile_;
    mutable std::shared_mutex stateLock_;
    std::uint64_t ackSequence_ = 0; ///< guarded by stateLock_ for other threads
    State state_ = eRunning;        ///< guarded by stateLock_ for other threads
    bool needsResync_ = false;
    AckMode ackMode_ = AckToSource;
    QString resyncType_;
    std::uint64_t endSnapshotSequence_ = 0;
    std::shared_ptr<DisRules const> rules_;
    LogPointer currentLog_;
    NotToBackup notToBackup_;
    QByteArray exclusions_; ///< the details that notToBackup_ was made from
    bool exclusionsFailed_ = false;
    QSet<QString> resyncPaths_;
    HandleTable openHandles_;
    HandleTable closedHandles_;
    std::uint32_t closedGraceLimit_ = 0; ///< source time, 0 means none
};

} // namespace Replication
