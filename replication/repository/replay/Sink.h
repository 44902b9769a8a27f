#pragma once

#include "base/values/PosixText.h"
#include "replication/common/intake/DataSink.h"
#include "replication/repository/store/PathOperations.h"
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
class Sink : public DataSink {
public:
    Sink(Identity identity, ReplayId replayId, StorePointer store,
         std::shared_ptr<Streams> streams);
    ~Sink() override;

    [[nodiscard]] bool loadRules(std::uint32_t ruleSet) override;
    [[nodiscard]] bool replay(LogPointer const& log) final;
    void sendAck(std::uint64_t sequence) override;
    void sendNak(std::uint64_t sequence) override;
    void closeAllFiles() override;
    void requestResync(QString const& type, Morva::MsgAddress const& sender) override;
    [[nodiscard]] bool startResyncProcess(QString const& type) override;
    [[nodiscard]] bool destinationEmpty() override;
    [[nodiscard]] bool snapshotPossible() const override;
    [[nodiscard]] bool batchMode() const override { return batchMode_; }
    void policyEvent(LogEntry const& log) override;
    void exclusionsChanged() override;
    void handleShutdown() override;

    [[nodiscard]] Store& store() { return *store_; }
    /// The prefix of the source's paths that the store holds.
    [[nodiscard]] QString const& sourceRoot() const { return sourceRoot_; }

protected:
    /// A name or path of a log as text.
    [[nodiscard]] static QString posixText(std::string_view bytes) {
        return Morva::decodePosixText({bytes.data(), static_cast<qsizetype>(bytes.size())});
    }
    using SinkHandlePointer = std::shared_ptr<SinkHandle>;

    /// The translation of one log's body into store operations.
    [[nodiscard]] virtual bool replayBody(LogEntry const& log) = 0;

    [[nodiscard]] NotToBackup::OpType operation(QStringList const& path, bool isDirectory) const;
    /// The handle of a source's open-file number; a closed one is revived, and one of type Unknown
    /// is made and entered if there is none.
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
    [[nodiscard]] static QByteArray readWhole(SinkHandle const& handle, QString const& stream);
    /// Gives an object that was there what a new one is made with; false on failure.
    [[nodiscard]] bool describe(FileContext const& context, SinkHandle& handle,
                                PathOperations::NewFile const& file);
    /// What a further name of a file meets.
    enum class Name { Free, Present, Failed };
    /// Frees a name for the file of that id, unless it is one of the file already.
    [[nodiscard]] Name freeName(FileContext const& context, QStringList const& path, FileId file);

private:
    [[nodiscard]] bool saveRules(std::uint32_t ruleSet, QString const& target);
    void loadSuppressedFiles();
    void loadPolicies(RepositoryStream const& stream);
    /// Enters one operation of a policy for each of its rules.
    void addRules(DisPolicy const& policy, DisDataOp const& operation);
    void tookClosed();
    void backup(LogEntry const& log);

    ReplayId replayId_;
    StorePointer store_;
    std::shared_ptr<Streams> streams_;
    QString sourceRoot_;
    std::uint32_t gracePeriod_ = 0;
    bool batchMode_ = false;
    bool needResync_ = false; ///< the mark of the target's own stream
    QSet<std::uint32_t> versionedRules_;
    QHash<std::uint32_t, QSet<std::uint32_t>> backupPolicies_;
    QHash<std::uint32_t, QSet<std::uint32_t>> cdpPolicies_;
    QStringList suppressedFiles_;
    QStringList noDedupSuffixes_;
};

} // namespace Replication
