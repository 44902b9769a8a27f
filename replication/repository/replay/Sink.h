#pragma once

#include "base/values/PosixText.h"
#include "replication/common/intake/DataSink.h"
#include "replication/repository/replay/SavedHandles.h"
#include "replication/repository/replay/UnsupportedPaths.h"
#include "replication/repository/store/PathOperations.h"
#include "replication/repository/store/SavedState.h"
#include "replication/repository/store/SinkHandle.h"
#include "replication/repository/store/StoreTable.h"
#include "replication/repository/streams/Streams.h"

#include <QHash>
#include <QSet>

namespace Replication {

/// Binds a `DataSink` to one store: the rules as they apply to the store, the open-handle table,
/// the policy log. The concrete sinks differ only in how they replay the bodies of logs.
///
/// Everything runs on the sink's one thread, which is the writer of the store's live tree.
///
/// What it has in memory and must find again is saved with each checkpoint of the store, as a part
/// of the store's `SavedState`: the open-file numbers, the paths that ask for a resynchronisation,
/// and the position.
class Sink : public DataSink, private SavedState::Part {
public:
    Sink(Identity identity, ReplayId replayId, StorePointer store,
         std::shared_ptr<Streams> streams);
    ~Sink() override;

    [[nodiscard]] bool loadRules(std::uint32_t ruleSet) override;
    [[nodiscard]] Morva::Status replay(LogPointer const& log) final;
    [[nodiscard]] bool askForPathsOf(LogEntry const& log) override;
    void sendAck(std::uint64_t sequence) override;
    void sendNak(std::uint64_t sequence) override;
    void closeAllFiles() override;
    void requestResync(QString const& type, Morva::MsgAddress const& sender) override;
    [[nodiscard]] bool startResyncProcess(QString const& type) override;
    [[nodiscard]] bool destinationEmpty() override;
    [[nodiscard]] bool snapshotPossible() const override;
    [[nodiscard]] bool batchMode() const override { return batchMode_; }
    void policyEvent(LogEntry const& log) override;
    [[nodiscard]] Morva::Status exclusionsChanged() override;
    [[nodiscard]] Morva::Status handleShutdown() override;
    [[nodiscard]] Morva::Status loadState() override;
    [[nodiscard]] Morva::Status saveState() override;

    [[nodiscard]] Store& store() { return *store_; }
    /// Where the store isn't what the source is, since a log brought what no store can hold.
    [[nodiscard]] UnsupportedPaths const& unsupported() const { return unsupported_; }
    /// Logs, or parts of logs, that were left out for that so far.
    [[nodiscard]] std::uint64_t leftOut() const { return leftOut_; }
    /// The prefix of the source's paths that the store holds.
    [[nodiscard]] QString const& sourceRoot() const { return sourceRoot_; }
    /// Logs on open-file numbers of which no opening is known, so far. What they did is not in the
    /// store.
    [[nodiscard]] std::uint64_t unknownHandleLogs() const { return unknownHandleLogs_; }

protected:
    /// A name or path of a log as text.
    [[nodiscard]] static QString posixText(std::string_view bytes) {
        return Morva::decodePosixText({bytes.data(), static_cast<qsizetype>(bytes.size())});
    }
    using SinkHandlePointer = std::shared_ptr<SinkHandle>;

    /// Marks a path as unsupported and tells the user once. What was asked for is left out; no
    /// resynchronisation is asked for, since it would bring the same again.
    void leaveOut(QString const& path, QString const& reason);
    /// What a log that is left out would have opened takes no logs either.
    virtual void openNothing(LogEntry const& log);
    /// The path of the file that a log is about through a number, as the source has it; empty when
    /// none is open under it.
    [[nodiscard]] virtual QString openPath(LogEntry const& log);
    /// The translation of one log's body into store operations.
    [[nodiscard]] virtual bool replayBody(LogEntry const& log) = 0;

    [[nodiscard]] NotToBackup::OpType operation(QStringList const& path, bool isDirectory) const;
    /// The handle of a source's open-file number; a closed one is revived, and one of type Unknown
    /// is made if there is none, and entered unless there are very many of that kind.
    [[nodiscard]] SinkHandlePointer handle(std::uint32_t fileId);
    /// Takes the handle out; null if there is none.
    [[nodiscard]] SinkHandlePointer removeHandle(std::uint32_t fileId);
    /// False for the all-ones number and for a null handle.
    bool insertHandle(std::uint32_t fileId, SinkHandlePointer handle);
    /// Enters a new handle of that type; Valid is refused.
    bool insertHandle(std::uint32_t fileId, SinkHandle::Type type);
    /// Narrows rule ids to those that version this path; true if any stays.
    bool filterRules(std::vector<std::uint32_t>& rules, QStringList const& path) const;
    [[nodiscard]] bool dedupAllowed(QStringList const& path) const;
    /// What a log says of an operation on a path, with the rules narrowed to it.
    [[nodiscard]] FileContext context(LogEntry const& log, QStringList const& path,
                                      NotToBackup::OpType opType) const;

    /// Notes that a log does something to a number that stands for nothing, if so: it is counted,
    /// told once for each number, and the path, where one is known, asks for a resynchronisation.
    void noteUnknown(LogEntry const& log, SinkHandle& handle);
    /// Enters a handle of type Unknown for a path that could not be opened.
    void enterLost(std::uint32_t fileId, QStringList const& path, std::uint32_t flags = 0);
    /// The path by which a handle was opened.
    [[nodiscard]] static QStringList pathOf(SinkHandle const& handle);

    // What a kind of sink saves and takes up besides the open-file numbers, by `SavedHandles`.
    virtual void saveMore(SavedHandles&) {}
    [[nodiscard]] virtual Morva::Status takeUpMore(SavedHandles&) { return {}; }
    /// The paths of the store that a log names.
    [[nodiscard]] virtual QList<QStringList> pathsOf(LogEntry const& log) = 0;

    [[nodiscard]] Morva::Status dropHandles() override;
    /// Lets go of all handles at a stop, which has saved them: what waits for their end goes on
    /// waiting.
    virtual void forgetHandles();

    std::uint32_t closedGracePeriod() const override;
    [[nodiscard]] bool rulesRequireResync() const override;

    /// Where a logged path lies.
    enum class Space { Outside, Excluded, Inside };
    struct Place {
        Space space = Space::Outside;
        NotToBackup::OpType opType = NotToBackup::eNothing;
        QStringList path;
    };
    /// Asks the exclusions for a path of the store.
    [[nodiscard]] Place place(QStringList path, bool isDirectory) const;
    /// What a log says of an operation on an open file.
    [[nodiscard]] static FileContext through(LogEntry const& log);
    /// Tells of a write whose length isn't that of its data.
    [[nodiscard]] bool validWrite(LogEntry const& log) const;
    /// Writes through the handle of the log's number, if it is a valid one; false when that fails.
    [[nodiscard]] bool writeOpen(LogEntry const& log);
    /// Takes the handle of the log's number out and traces its end; null if there is none.
    SinkHandlePointer closeOpen(LogEntry const& log);
    /// A small stream of an object; empty when there is none.
    [[nodiscard]] QByteArray readWhole(SinkHandle const& handle, QString const& stream);
    /// Gives an object that was there what a new one is made with; false on failure.
    [[nodiscard]] bool describe(FileContext const& context, SinkHandle& handle,
                                PathOperations::NewFile const& file);
    /// What a further name of a file meets.
    enum class Name { Free, Present, Failed };
    /// Frees a name for the file of that id, unless it is one of the file already.
    [[nodiscard]] Name freeName(FileContext const& context, QStringList const& path, FileId file);
    /// Whether an operation on the store worked. One that the disk or damage made fail, and not the
    /// state of the tree, makes the log in work fail, whatever else becomes of it.
    bool worked(Morva::Status status);
    [[nodiscard]] bool worked(Morva::Result<bool> result) {
        return worked(result.status()) && *result;
    }
    /// The same for an operation with a value: null, 0 or empty when it failed.
    template <class Value> [[nodiscard]] Value valueOf(Morva::Result<Value> result) {
        return worked(result.status()) ? *std::move(result) : Value();
    }

private:
    [[nodiscard]] Morva::Status save(SavedState& saved) override;
    void durable() override { acknowledge(); }
    [[nodiscard]] Morva::Status takeUp();
    [[nodiscard]] Morva::Status startAnew(Morva::Status const& why);
    [[nodiscard]] bool saveRules(std::uint32_t ruleSet, QString const& target);
    void loadSuppressedFiles();
    void loadPolicies(RepositoryStream const& stream);
    /// Enters one operation of a policy for each of its rules.
    void addRules(DisPolicy const& policy, DisDataOp const& operation);
    void tookClosed();
    void backup(LogEntry const& log);
    /// Whether a log brings what no store can hold; then it has been left out.
    [[nodiscard]] bool leavesOut(LogEntry const& log);
    [[nodiscard]] bool isBelowRoot(QString const& path) const;
    void noLongerUnsupported(LogEntry const& log);

    ReplayId replayId_;
    StorePointer store_;
    std::shared_ptr<Streams> streams_;
    QString sourceRoot_;
    std::uint32_t gracePeriod_ = 0;
    bool batchMode_ = false;
    bool needResync_ = false; ///< the mark of the target's own stream
    bool stopped_ = false;    ///< all is saved, and the handles are let go of
    std::uint64_t unknownHandleLogs_ = 0;
    std::uint32_t neverOpened_ = 0; ///< handles entered for numbers of which no opening is known
    QSet<std::uint32_t> versionedRules_;
    QHash<std::uint32_t, QSet<std::uint32_t>> backupPolicies_;
    QHash<std::uint32_t, QSet<std::uint32_t>> cdpPolicies_;
    UnsupportedPaths unsupported_;
    std::uint64_t leftOut_ = 0;
    QStringList suppressedFiles_;
    QStringList noDedupSuffixes_;
    /// What failed of the log in work for another reason than the state of the tree.
    Morva::Status failed_;
};

} // namespace Replication
