#include "replication/repository/replay/Sink.h"

#include "base/blocks/Failures.h"
#include "base/process/Config.h"
#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/OperationGate.h"

namespace Replication {

using Morva::ConfigLocal;
using Morva::LogLevelE;
using Morva::LogLine;
using Morva::Status;
using Morva::XmlListIterator;

namespace {

constexpr std::uint32_t invalidFileId = 0xFFFFFFFF;
/// Numbers without an opening that are remembered, and of which the user is told one by one.
constexpr std::uint32_t maximumNeverOpened = 10000;
constexpr std::uint64_t unknownHandlesTold = 100;

} // namespace

Sink::Sink(Identity identity, ReplayId replayId, StorePointer store,
           std::shared_ptr<Streams> streams)
    : DataSink(std::move(identity)),
      replayId_(replayId),
      store_(std::move(store)),
      streams_(std::move(streams)),
      unsupported_(store_->path()) {
    caseSensitive(store_->caseSensitive());
    if (auto const loaded = unsupported_.load(); !loaded)
        MORVA_TRACE(Always) << "Failed to load unsupported paths" << loaded.text();
}

Sink::~Sink() {
    store_->saved().detach(*this, stopped_ || !changed());
    openHandles().clear();
    closedHandles().clear();
    streams_->endThread();
}

bool Sink::loadRules(std::uint32_t ruleSet) {
    MORVA_TRACE(Debug) << "IN:load rules. Source Machine" << identity().sourceMachine << "Source"
                       << sourceRoot_ << "Target" << identity().target << "RuleSet" << ruleSet;
    auto const loaded = std::make_shared<DisRules const>(ruleSet);
    if (!loaded->valid()) {
        MORVA_TRACE(Always) << "Rules file not valid" << ruleSet;
        return false;
    }
    auto const stream =
        std::dynamic_pointer_cast<RepositoryStream const>(loaded->replayStream(replayId_.value));
    if (!stream) {
        MORVA_TRACE(Always) << "Failed to find translation" << replayId_;
        return false;
    }
    if (!saveRules(ruleSet, stream->target()))
        return false;
    sourceRoot_ = stream->source();
    needResync_ = stream->needResync();
    gracePeriod_ = stream->closedGracePeriod();
    batchMode_ = stream->batchMode();
    noDedupSuffixes_.clear();
    for (auto suffix : stream->dedupExclude()) {
        if (suffix.startsWith(u'*'))
            suffix.remove(0, 1);
        if (!suffix.isEmpty())
            noDedupSuffixes_ += suffix;
    }
    MORVA_TRACE(Normal) << "Do not dedup files ending in" << noDedupSuffixes_.join(u' ');
    store_->settings(stream->indexSnapshots(), stream->dedupSnapshots(), stream->dedupVersions(),
                     noDedupSuffixes_);
    loadSuppressedFiles();
    rules(loaded);
    loadPolicies(*stream);
    return true;
}

bool Sink::saveRules(std::uint32_t ruleSet, QString const& target) {
    auto const before = stateFile().ruleSet();
    auto const targetBefore = stateFile().target();
    char const* fault = nullptr;
    if (!stateFile().ruleSet(ruleSet))
        fault = "Failed to update ruleset data";
    else if (targetBefore != target && !stateFile().target(target))
        fault = "Failed to update target data";
    if (!fault) {
        // They stand behind the target.
        return targetBefore == target || saveExclusions().ok();
    }
    MORVA_TRACE(Always) << fault << ruleSet << target;
    // Else the next log would pass for one of the rules in force.
    (void)stateFile().ruleSet(before);
    if (stateFile().target() != targetBefore)
        (void)stateFile().target(targetBefore);
    return false;
}

void Sink::loadSuppressedFiles() {
    suppressedFiles_.clear();
    bool found = false;
    auto const list = ConfigLocal(QStringLiteral("version-suppression.cfg"))
                          .getXmlList(&found, QStringLiteral("SuppressedFiles"));
    if (!found)
        return;
    for (XmlListIterator file(list, QStringLiteral("File")); file; ++file) {
        if (auto const text = file.getString(); !text.isEmpty()) {
            MORVA_TRACE(Normal) << "To suppress list" << text;
            suppressedFiles_ += text;
        }
    }
}

void Sink::loadPolicies(RepositoryStream const& stream) {
    versionedRules_.clear();
    backupPolicies_.clear();
    cdpPolicies_.clear();
    MORVA_TRACE(Verbose) << stream.policyOps().size() << "policies for versions or backups";
    for (auto const& [policyId, operations] : stream.policyOps()) {
        auto const policy = rules()->policy(policyId);
        if (!policy)
            continue;
        MORVA_TRACE(Verbose) << operations.size() << "operations for policy" << policy->name();
        for (auto const& operation : operations) {
            MORVA_TRACE(Verbose) << "Check DataOp type" << operation->type();
            addRules(*policy, *operation);
        }
    }
    auto const dump = [](auto const& policies, char const* begin, char const* end) {
        MORVA_TRACE(Verbose) << begin;
        for (auto entry = policies.cbegin(); entry != policies.cend(); ++entry)
            MORVA_TRACE(Verbose) << "Rule" << entry.key() << "DataOps" << entry->size();
        MORVA_TRACE(Verbose) << end;
    };
    dump(backupPolicies_, "Begin Backup Policy", "End Backup Policy");
    dump(cdpPolicies_, "Begin CDP Policy", "End CDP Policy");
    MORVA_TRACE(Verbose) << versionedRules_.size() << "rules are versioned";
}

void Sink::addRules(DisPolicy const& policy, DisDataOp const& operation) {
    auto* const set = operation.type() == DisDataOp::eBackup ? &backupPolicies_
                      : operation.type() == DisDataOp::eCdp  ? &cdpPolicies_
                                                             : nullptr;
    if (!set && operation.type() != DisDataOp::eVersion)
        return;
    if (set)
        MORVA_TRACE(Verbose) << "DataOp" << operation.operationId()
                             << (set == &backupPolicies_ ? "Backup Policy" : "Cdp Policy");
    // The last rule may be the highest number there is.
    auto rule = policy.firstRule();
    for (auto left = policy.lastRule() - policy.firstRule() + 1; left != 0; --left, ++rule) {
        if (set) {
            (*set)[rule] += operation.operationId();
            continue;
        }
        MORVA_TRACE(Debug) << "Add rule" << rule << "to VersionedSet";
        versionedRules_ += rule;
    }
}

bool Sink::rulesRequireResync() const {
    return needResync_ || DataSink::rulesRequireResync();
}

std::uint32_t Sink::closedGracePeriod() const {
    return gracePeriod_;
}

bool Sink::worked(Morva::Status status) {
    using Code = Morva::Status::Code;
    bool const done = status.ok();
    if (!done && !status.is(Code::NotFound) && !status.is(Code::InvalidArgument))
        failed_.update(std::move(status));
    return done;
}

Status Sink::replay(LogPointer const& log) {
    OperationGate::Enter const entered;
    failed_ = {};
    Morva::Failures::Watch const failures;
    store_->retired().timeStamp(log->time());
    if (!store_->settle()) {
        MORVA_TRACE(Always) << "What earlier logs left over can't be done yet, sequence number"
                            << log->sequenceNumber();
        return Status::failure(Status::Code::IoError, "apply log", store_->path(),
                               QStringLiteral("what earlier logs left over can't be done yet"));
    }
    bool done = true;
    if (log->type() == LogType::PolicyEvent)
        policyEvent(*log);
    else if (log->type() != LogType::Header && log->type() != LogType::Message &&
             !leavesOut(*log)) {
        done = replayBody(*log);
        if (done)
            noLongerUnsupported(*log);
    }
    // The data path itself reports success, and what can't be read looks like what isn't there; a
    // log counts as applied only if nothing failed.
    if (failures.any())
        failed_.update(Status::failure(Status::Code::IoError, "apply log", store_->path()));
    if (!failed_) {
        MORVA_TRACE(Always) << "The disk failed while a log was applied, sequence number"
                            << log->sequenceNumber() << failed_.text();
        return std::exchange(failed_, {});
    }
    return done ? Status()
                : Status::failure(Status::Code::InvalidArgument, "apply log", store_->path(),
                                  QStringLiteral("it doesn't fit what is stored"));
}

bool Sink::askForPathsOf(LogEntry const& log) {
    auto paths = pathsOf(log);
    if (paths.isEmpty() && log.has(LogField::FileId)) {
        auto const known = handle(log.fileId());
        if (!known->name.isEmpty())
            paths += pathOf(*known);
    }
    auto asked = !paths.isEmpty();
    for (auto const& path : std::as_const(paths)) {
        auto const text = path.join(u'/');
        addResyncPath(text, false);
        asked = asked && (resyncPaths().contains(text) || needsResync());
    }
    return asked;
}

void Sink::sendAck(std::uint64_t sequence) {
    MORVA_TRACE(Debug) << "AckLog" << sequence;
}

void Sink::sendNak(std::uint64_t sequence) {
    MORVA_TRACE(Normal) << "NakLog" << sequence;
}

void Sink::closeAllFiles() {
    MORVA_TRACE(Debug) << "IN:closeAllFiles ##################################";
    MORVA_TRACE(Debug) << "OUT:closeAllFiles ##################################";
}

void Sink::requestResync(QString const& type, Morva::MsgAddress const& sender) {
    if (type != QLatin1String("Initial")) {
        DataSink::requestResync(type, sender);
        return;
    }
    needsResync(true);
    DataSink::requestResync(destinationEmpty() ? type : QStringLiteral("Full"), sender);
}

bool Sink::startResyncProcess(QString const& type) {
    MORVA_TRACE(Normal) << "No resynchronization sender for" << type;
    return false;
}

bool Sink::destinationEmpty() {
    return valueOf(store_->directories().emptyDirectory(DirKey::root(store_->rootId())));
}

bool Sink::snapshotPossible() const {
    return state() == eRunning && store_->valid();
}

Status Sink::exclusionsChanged() {
    OperationGate::Enter const entered;
    Morva::Failures::Watch const failures;
    if (currentLog())
        store_->retired().timeStamp(currentLog()->time());
    auto const apply = [this]() -> Status {
        MORVA_TRY(store_->settle());
        MORVA_TRY_LET(auto const root, store_->activeHandles().open(store_->rootId()));
        QStringList path;
        return store_->directories().checkOperations(notToBackup(), *root, path);
    };
    auto applied = apply();
    if (failures.any())
        applied.update(Status::failure(Status::Code::IoError, "apply exclusions", store_->path()));
    if (!applied)
        MORVA_TRACE(Always) << "Failed to apply exclusions to the store" << applied.text();
    return applied;
}

Status Sink::dropHandles() {
    neverOpened_ = 0;
    return DataSink::dropHandles();
}

void Sink::forgetHandles() {
    openHandles().clear();
    closedHandles().clear();
}

Status Sink::handleShutdown() {
    auto saved = DataSink::handleShutdown();
    stopped_ = saved.ok();
    forgetHandles();
    return saved;
}

void Sink::policyEvent(LogEntry const& log) {
    auto const rule = log.number(LogField::Rule);
    auto const operation = log.number(LogField::OperationId);
    if (backupPolicies_.value(rule).contains(operation))
        backup(log);
    else if (cdpPolicies_.value(rule).contains(operation))
        MORVA_TRACE(Normal) << "Cdp Policy" << rule << "OpId" << operation;
    else
        MORVA_TRACE(Normal) << (cdpPolicies_.contains(rule)
                                    ? "Am not doing CDP for that policy"
                                    : "Am not doing backups for that policy")
                            << rule;
}

void Sink::backup(LogEntry const& log) {
    auto const policyName = posixText(log.text(LogField::Policy));
    auto const operation = log.number(LogField::OperationId);
    auto const policy = rules()->lookupPolicy(log.number(LogField::Rule));
    MORVA_TRACE(Normal) << "Policy" << policyName << "OpId" << operation << "Utf8"
                        << posixText(log.text(LogField::Tag));
    auto const done = store_->snapshots().snapshot(log.time(), needsResync(), policy, operation,
                                                   stateFile().ruleSet(), identity().sourceMachine,
                                                   posixText(log.text(LogField::Tag)));
    auto const source = QStringLiteral("Repository");
    if (!done) {
        LogLine(source, LogLevelE::Error) << "Failed to perform a backup of %1m for policy %2s"
                                          << identity().sourceMachine << policyName;
        return;
    }
    auto text = QStringLiteral("Successfully performed a backup of %1m for policy %2s to %3s");
    if (needsResync())
        text += QStringLiteral(", but a resynchronization is required");
    else if (!resyncPaths().isEmpty())
        text += QStringLiteral(", but a partial resynchronization is required");
    LogLine(source, LogLevelE::Information)
        << text << identity().sourceMachine << policyName << identity().target;
}

NotToBackup::OpType Sink::operation(QStringList const& path, bool isDirectory) const {
    auto const answer =
        isDirectory ? notToBackup().directoryOpType(path) : notToBackup().fileOpType(path);
    MORVA_TRACE(Debug) << "OUT:operation ," << answer;
    if (answer != NotToBackup::eInvalid)
        return answer;
    MORVA_TRACE(Always) << "Should not get here, treat as eNothing";
    return NotToBackup::eNothing;
}

Sink::SinkHandlePointer Sink::handle(std::uint32_t fileId) {
    MORVA_METHOD(":handle");
    if (auto const open = openHandles().constFind(fileId); open != openHandles().constEnd())
        return std::static_pointer_cast<SinkHandle>(*open);
    if (auto closed = closedHandles().take(fileId)) {
        MORVA_TRACE(Normal) << "LFB: used a reopened closed handle" << fileId;
        tookClosed();
        openHandles().insert(fileId, closed);
        return std::static_pointer_cast<SinkHandle>(closed);
    }
    auto unknown = std::make_shared<SinkHandle>(SinkHandle::Unknown);
    unknown->flags = SinkHandle::neverOpened;
    // Some may have gone with handles that were set aside.
    auto const all = static_cast<std::uint32_t>(openHandles().size() + closedHandles().size());
    neverOpened_ = std::min(neverOpened_, all);
    if (neverOpened_ < maximumNeverOpened && insertHandle(fileId, unknown))
        ++neverOpened_;
    return unknown;
}

void Sink::noteUnknown(LogEntry const& log, SinkHandle& handle) {
    if (handle.type != SinkHandle::Unknown ||
        (handle.flags & (SinkHandle::neverOpened | SinkHandle::lost)) == 0)
        return;
    ++unknownHandleLogs_;
    ++handle.id;
    if ((handle.flags & SinkHandle::lost) != 0) {
        addResyncPath(pathOf(handle).join(u'/'), false);
        return;
    }
    if (handle.id > 1 || unknownHandleLogs_ > unknownHandlesTold)
        return;
    MORVA_TRACE(Always) << "No opening is known of OpenSeqNo" << log.fileId();
    LogLine(QStringLiteral("Replication"), LogLevelE::Warning)
        << "A log of %1m to %2s changes a file that isn't known to be open, number %3s; the file "
           "is not up to date in the store"
        << identity().sourceMachine << identity().target << QString::number(log.fileId());
    if (!needsResync())
        sendResyncRequired(QStringLiteral("A file was changed of which no opening is known"), true,
                           3);
}

void Sink::enterLost(std::uint32_t fileId, QStringList const& path, std::uint32_t flags) {
    auto handle = std::make_shared<SinkHandle>(SinkHandle::Unknown);
    handle->flags = flags | SinkHandle::lost;
    if (!path.isEmpty()) {
        handle->parent = path.first(path.size() - 1);
        handle->name = path.last();
    }
    insertHandle(fileId, std::move(handle));
}

QStringList Sink::pathOf(SinkHandle const& handle) {
    return handle.name.isEmpty() ? handle.parent : handle.parent + QStringList(handle.name);
}

Sink::SinkHandlePointer Sink::removeHandle(std::uint32_t fileId) {
    MORVA_METHOD(":removeHandle");
    auto removed = openHandles().take(fileId);
    if (!removed && (removed = closedHandles().take(fileId)))
        tookClosed();
    auto handle = std::static_pointer_cast<SinkHandle>(removed);
    if (handle && (handle->flags & SinkHandle::neverOpened) != 0 && neverOpened_ != 0)
        --neverOpened_;
    return handle;
}

void Sink::tookClosed() {
    if (closedHandles().isEmpty())
        MORVA_TRACE(Normal) << "All Closed handled released";
}

bool Sink::insertHandle(std::uint32_t fileId, SinkHandlePointer handle) {
    if (fileId == invalidFileId || !handle)
        return false;
    MORVA_TRACE(Debug) << "Insert" << fileId << "handle" << handle->type;
    // The source gave the number away again: what it meant is closed.
    if (closedHandles().remove(fileId) != 0)
        tookClosed();
    openHandles().insert(fileId, std::move(handle));
    return true;
}

bool Sink::insertHandle(std::uint32_t fileId, SinkHandle::Type type) {
    return type != SinkHandle::Valid && insertHandle(fileId, std::make_shared<SinkHandle>(type));
}

bool Sink::filterRules(std::vector<std::uint32_t>& rules, QStringList const& path) const {
    if (path.isEmpty()) {
        MORVA_TRACE(Debug) << "Suppress root directory";
        rules.clear();
        return false;
    }
    for (auto const& suppressed : suppressedFiles_) {
        if (path.last().contains(suppressed)) {
            MORVA_TRACE(Normal) << "Suppressed version" << path.last() << "Matched" << suppressed;
            rules.clear();
            return false;
        }
    }
    auto const before = rules.size();
    std::erase_if(rules, [this](auto rule) { return !versionedRules_.contains(rule); });
    MORVA_TRACE(Debug) << "versioned rules" << before << rules.size();
    return !rules.empty();
}

bool Sink::dedupAllowed(QStringList const& path) const {
    if (path.isEmpty())
        return true;
    auto const sensitivity = caseSensitive() ? Qt::CaseSensitive : Qt::CaseInsensitive;
    return std::none_of(
        noDedupSuffixes_.cbegin(), noDedupSuffixes_.cend(),
        [&](auto const& suffix) { return path.last().endsWith(suffix, sensitivity); });
}

FileContext Sink::context(LogEntry const& log, QStringList const& path,
                          NotToBackup::OpType opType) const {
    FileContext result;
    result.sourceTime = log.time();
    result.opType = opType;
    if (opType == NotToBackup::eLiveOnly) {
        result.dedup = false;
        return result;
    }
    result.dedup = dedupAllowed(path);
    auto const ids = log.rules();
    if (ids.empty())
        return result;
    result.rules.assign(ids.begin(), ids.end());
    if (filterRules(result.rules, path)) {
        result.ruleSet = log.ruleSet();
        result.process = posixText(log.process());
    }
    return result;
}

} // namespace Replication
