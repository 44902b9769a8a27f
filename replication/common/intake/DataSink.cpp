#include "replication/common/intake/DataSink.h"

#include "base/messages/XmlList.h"
#include "base/trace/Log.h"
#include "base/trace/Trace.h"

#include <algorithm>
#include <limits>
#include <mutex>

namespace Replication {

using Morva::LogLevelE;
using Morva::LogLine;
using Morva::XmlList;

namespace {

auto const logSource = QStringLiteral("Replication");

bool isMessage(LogEntry const& log, DataSink::MessageType type) {
    return log.type() == LogType::Message && log.number(LogField::MessageType) == type;
}

} // namespace

DataSink::DataSink(Identity identity)
    : identity_(std::move(identity)), stateFile_(identity_.stateFile) {
    stateFile_.readHeader();
    if (!stateFile_.valid() && stateFile_.isOpen()) {
        MORVA_TRACE(Always) << "Unable to read existing state file" << identity_.stateFile;
        LogLine(logSource, LogLevelE::Error) << "Unable to read existing state file";
    }
    if (!stateFile_.valid() && !stateFile_.create()) {
        MORVA_TRACE(Always) << "Fatal error, unable to create state file" << identity_.stateFile;
        LogLine(logSource, LogLevelE::Error) << "Fatal error, unable to create state file";
        return;
    }
    valid_ = true;
    ackSequence_ = stateFile_.sequenceNumber();
    needsResync_ = stateFile_.flags() & StateFile::resyncFlag;
}

DataSink::~DataSink() = default;

bool DataSink::start() {
    MORVA_METHOD("start");
    setupThread();
    if (!valid_ || !stateFile_.open(Morva::RawFile::Mode::ReadWrite)) {
        MORVA_TRACE(Always) << "Failed to open state file for update" << identity_.stateFile;
        line(LogLevelE::Error) << "Failed to open state file '%1s' for update"
                               << identity_.stateFile;
        valid_ = false;
        return scope.result(false);
    }
    // Rules with another target cut the saved exclusions off.
    loadState();
    rulesLoaded_ = ackSequence_ != 0 ? startWithState() : startWithoutState();
    forceAck();
    return scope.result(rulesLoaded_);
}

bool DataSink::startWithState() {
    auto const saved = stateFile_.ruleSet();
    if (saved == identity_.ruleSet) {
        MORVA_TRACE(Normal) << "Ruleset from the state file matches current ruleset" << saved;
        if (loadRules(saved))
            return true;
        line(LogLevelE::Error) << "Failed to load current ruleset %1i" << saved;
        return false;
    }
    MORVA_TRACE(Normal) << "load ruleset from state file" << saved;
    if (!loadRules(saved)) {
        MORVA_TRACE(Always) << "Failed to load rule set from state file" << saved;
        line(LogLevelE::Error) << "Failed to load current rules";
        line(LogLevelE::Error) << "Failed to load ruleset %1i" << saved;
        needsResync(true);
        if (!loadRules(identity_.ruleSet)) {
            MORVA_TRACE(Always) << "Failed to load rule set" << identity_.ruleSet;
            line(LogLevelE::Error) << "Failed to current ruleset %1i" << identity_.ruleSet;
            return false;
        }
        if (rulesRequireResync())
            reportNewRules();
    }
    return true;
}

void DataSink::reportNewRules() const {
    line(LogLevelE::Error) << "New rules require a resynchronization";
    line(LogLevelE::Error) << "New rules (%1i) require a resynchronization" << identity_.ruleSet;
}

bool DataSink::startWithoutState() {
    MORVA_TRACE(Normal) << "Don't have valid state information, perform initial synchronization";
    auto const loaded = loadRules(identity_.ruleSet);
    if (!loaded)
        MORVA_TRACE(Always) << "Failed to load rule set" << identity_.ruleSet;
    needsResync(true);
    requestResync(QStringLiteral("Initial"), {});
    return loaded;
}

void DataSink::handleShutdown() {
    MORVA_TRACE(Normal) << "shutdown datasink" << identity_.name;
    saveState();
    closeAllFiles();
    stateFile_.close();
}

bool DataSink::takeLogs(LogList& logs) {
    if (inLogLoop_ || paused_ || state_ == eResyncNeedCompletedMsg)
        return false;
    inLogLoop_ = true;
    auto left = budget;
    auto const oldest = [&] {
        auto log = logs.peek();
        if (logs.lowWaterReached())
            unstalled();
        return log;
    };
    auto log = oldest();
    while (log && left > 0 && !paused_) {
        if (takeLog(log) == Outcome::Waiting)
            break;
        (void)logs.take();
        --left;
        log = oldest();
    }
    inLogLoop_ = false;
    if (state_ == eRunning && !resyncPaths_.isEmpty())
        requestResync(QStringLiteral("Partial"), {});
    return log != nullptr;
}

DataSink::Outcome DataSink::takeLog(LogPointer const& log) {
    MORVA_TRACE(Debug) << "Received a binary log message sequence number" << log->sequenceNumber()
                       << "using rule set" << log->ruleSet() << "timestamp" << log->time();
    if (log->ruleSet() > stateFile_.ruleSet()) {
        if (!changeRules(*log))
            return Outcome::Waiting;
        return handleLog(log);
    }
    if (!rulesLoaded_ && !(rulesLoaded_ = loadRules(identity_.ruleSet)))
        return Outcome::Waiting;
    if (log->sequenceNumber() > ackSequence_)
        return handleLog(log);
    MORVA_TRACE(Normal) << "Already replicated sequence id" << log->sequenceNumber();
    return Outcome::AlreadyReplicated;
}

bool DataSink::changeRules(LogEntry const& log) {
    MORVA_TRACE(Normal) << "Need to change from rule set" << stateFile_.ruleSet() << "to"
                        << log.ruleSet();
    forceAck();
    if (!loadRules(log.ruleSet())) {
        MORVA_TRACE(Always) << "Failed to load rule set" << log.ruleSet();
        return false;
    }
    rulesLoaded_ = true;
    auto const moved = moveOpenToClosed(log.time());
    MORVA_TRACE(Normal) << moved << "Closed handle(s)"
                        << "Changed Rules";
    if (rulesRequireResync())
        sendResyncRequired(QStringLiteral("Rules change requires resynchronization"), true, 3);
    return true;
}

bool DataSink::rulesRequireResync() const {
    return rules_ && rules_->resyncRequired();
}

std::size_t DataSink::moveOpenToClosed(std::uint32_t time) {
    auto const moved = static_cast<std::size_t>(openHandles_.size());
    if (moved == 0)
        return 0;
    closedHandles_.insert(openHandles_);
    openHandles_.clear();
    auto const limit = std::uint64_t{time} + closedGracePeriod();
    closedGraceLimit_ = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(limit, std::numeric_limits<std::uint32_t>::max()));
    return moved;
}

void DataSink::dropHandles() {
    openHandles_.clear();
    dropClosedHandles();
}

void DataSink::dropClosedHandles() {
    if (!closedHandles_.isEmpty())
        MORVA_TRACE(Normal) << "All Closed handled released";
    closedHandles_.clear();
    closedGraceLimit_ = 0;
}

void DataSink::dropExpiredHandles(std::uint32_t time) {
    if (closedHandles_.isEmpty()) {
        closedGraceLimit_ = 0; // the last was taken up again
        return;
    }
    if (closedGraceLimit_ == 0 || time <= closedGraceLimit_)
        return;
    MORVA_TRACE(Testing) << "ClosedGracePeriod expired with" << closedHandles_.size()
                         << "closed handle(s)";
    dropClosedHandles();
}

DataSink::Outcome DataSink::handleLog(LogPointer const& log) {
    if (!valid_)
        return Outcome::Waiting;
    dropExpiredHandles(log->time());
    currentLog_ = log;
    auto taken = true;
    if (log->type() == LogType::Message)
        taken = messageLog(*log);
    else if (log->type() == LogType::PolicyEvent)
        policyLog();
    if (state_ == eRunningDuringSnapshot && isMessage(*log, EndOfSnapshot) &&
        log->sequenceNumber() == endSnapshotSequence_) {
        MORVA_TRACE(Normal) << "Got the end snapshot log we are looking for";
        endSnapshotSequence_ = 0;
        state(eRunning);
    }
    auto const outcome = replayLog(log, taken);
    currentLog_.reset();
    return outcome;
}

/// False when the exclusions that the log brings could not be applied.
bool DataSink::messageLog(LogEntry const& log) {
    if (isMessage(log, PingTest)) {
        MORVA_TRACE(Normal) << "Got BINARY_LOG_PING_TEST";
    } else if (isMessage(log, SourceStarted)) {
        closeAllFiles();
        dropHandles();
    } else if (isMessage(log, StartOfSnapshot)) {
        closeAllFiles();
        if (auto const moved = moveOpenToClosed(log.time()); moved != 0)
            MORVA_TRACE(Normal) << "Start Snapshot" << moved << "Closed handle(s)";
    }
    auto const exclusions = isMessage(log, SourceStarted) || isMessage(log, NotToBackupDetails);
    if (!exclusions || (state_ != eRunning && state_ != eValidate) || log.data().size == 0)
        return true;
    auto const details = XmlList::fromBinary(log.data());
    return !details || takeExclusions(*details, log.data().toByteArray());
}

void DataSink::policyLog() {
    if (batchMode()) {
        MORVA_TRACE(Normal) << "process batch policy event";
        sendResyncRequired(QStringLiteral("Required by a batch policy event"), true, 0);
        requestResync(QStringLiteral("Full"), {});
    }
    if (state_ == eRunning && !resyncPaths_.isEmpty())
        requestResync(QStringLiteral("Partial"), {});
}

bool DataSink::exclude(Morva::Extent const& details) {
    auto const list = XmlList::fromBinary(details);
    return list && takeExclusions(*list, details.toByteArray());
}

bool DataSink::takeExclusions(XmlList const& details, QByteArray bytes) {
    MORVA_TRACE(Normal) << "NotToBackup details" << bytes.size();
    if (bytes == exclusions_)
        return true;
    notToBackup_ = NotToBackup(details, caseSensitive_);
    exclusionsFailed_ = false;
    exclusionsChanged();
    // What was not applied is not saved either, so that the same details are taken again.
    exclusions_ = exclusionsFailed_ ? QByteArray() : std::move(bytes);
    saveState();
    return !exclusionsFailed_;
}

void DataSink::loadState() {
    auto const bytes = stateFile_.details();
    if (bytes.isEmpty())
        return;
    if (auto const details = XmlList::fromBinary(bytes)) {
        exclusions_ = bytes;
        notToBackup_ = NotToBackup(*details, caseSensitive_);
    }
}

void DataSink::saveState() {
    if (!exclusions_.isEmpty() && !stateFile_.details(exclusions_))
        MORVA_TRACE(Always) << "Failed to save exclusions in" << identity_.stateFile;
}

DataSink::Outcome DataSink::replayLog(LogPointer const& log, bool taken) {
    if (replay(log) && taken) {
        ackLog(log->sequenceNumber(), log->body().size);
        return Outcome::Applied;
    }
    if (state_ == eRunningDuringSnapshot) {
        MORVA_TRACE(Normal) << "A file operation failed during a snapshot, ignore failure";
        ackLog(log->sequenceNumber(), log->body().size);
        return Outcome::Forgiven;
    }
    if (ackMode_ == AckToSource)
        sendNak(log->sequenceNumber());
    else
        setAck(log->sequenceNumber());
    MORVA_TRACE(Always) << "A file operation failed, ask to perform a resync";
    sendResyncRequired(QStringLiteral("File operation failed"), true, 4);
    return Outcome::Failed;
}

void DataSink::ackLog(std::uint64_t sequence, std::uint64_t size) {
    if (sequence <= ackSequence_)
        return;
    bool written = false;
    {
        std::unique_lock lock(stateLock_);
        ackSequence_ = sequence;
        written = stateFile_.sequenceNumber(sequence, stateFile_.bytesProcessed() + size);
    }
    if (!written)
        line(LogLevelE::Error) << "Failed to write to state file";
    if (ackMode_ == AckToSource)
        sendAck(sequence);
}

void DataSink::setAck(std::uint64_t sequence) {
    MORVA_TRACE(Normal) << "Ack set to" << sequence;
    if (sequence <= ackSequence_)
        return;
    std::unique_lock lock(stateLock_);
    ackSequence_ = sequence;
    if (!stateFile_.sequenceNumber(sequence))
        line(LogLevelE::Error) << "Failed to write to state file";
}

void DataSink::forceAck() {
    if (ackSequence_ == 0)
        return;
    MORVA_TRACE(Normal) << "Force Ack" << ackSequence_;
    sendAck(ackSequence_);
}

DataSink::State DataSink::state() const {
    std::shared_lock lock(stateLock_);
    return state_;
}

std::uint64_t DataSink::ackSequence() const {
    std::shared_lock lock(stateLock_);
    return ackSequence_;
}

void DataSink::state(State next) {
    auto const before = state_;
    if (next == eResyncNeedCompletedMsg)
        startResync();
    if (next == eRunning && (before == eRunningDuringSnapshot || before == eResyncNeedCompletedMsg))
        endResync();
    if (next == eRunning && before >= eRunningDuringSnapshot && before <= eResyncNeedEndLog)
        resyncPaths_.clear();
    std::unique_lock lock(stateLock_);
    state_ = next;
}

void DataSink::needsResync(bool value) {
    needsResync_ = value;
    if (!stateFile_.flag(StateFile::resyncFlag, value))
        MORVA_TRACE(Always) << "Failed to update flags" << identity_.stateFile;
}

Morva::LogTags DataSink::tagList(bool yes, QString const& text) const {
    Morva::LogTags tags;
    Morva::Log::addTagToList(tags, QStringLiteral("Source"), identity_.name);
    Morva::Log::addTagToList(tags, QStringLiteral("Machine"), identity_.sourceMachine);
    Morva::Log::addTagToList(tags, QStringLiteral("Target"), identity_.target);
    Morva::Log::addTagToList(tags, QStringLiteral("Resync"),
                             yes ? QStringLiteral("Yes") : QStringLiteral("No"));
    Morva::Log::addTagToList(tags, QStringLiteral("Text"), text);
    return tags;
}

LogLine DataSink::line(LogLevelE level, QString const& text) const {
    return LogLine(logSource, level, tagList(needsResync_, text));
}

void DataSink::sendResyncRequired(QString const& reason, bool flag, std::uint32_t level) {
    if (flag)
        needsResync(true);
    if (level == 0)
        return;
    line(static_cast<LogLevelE>(level), reason)
        << "A resynchronization of %1m to %2s is required, %3s" << identity_.sourceMachine
        << identity_.target << reason;
}

void DataSink::requestResync(QString const& type, Morva::MsgAddress const&) {
    if (type == QLatin1String("Full") && !needsResync_) {
        MORVA_TRACE(Normal) << "Ignore full resync request, we do not require it";
        return;
    }
    if (state_ != eRunning) {
        MORVA_TRACE(Normal) << "Already performing a resync";
        return;
    }
    resyncType_ = type;
    auto const started = startResyncProcess(type);
    MORVA_TRACE(Normal) << (started ? "Requested initial sync" : "Failed to request initial sync")
                        << type;
}

bool DataSink::idle() const {
    return state_ == eRunning && resyncPaths_.isEmpty();
}

void DataSink::startResync() {
    MORVA_TRACE(Normal) << "startResync" << identity_.name;
}

void DataSink::endResync() {
    MORVA_TRACE(Normal) << "endResync" << identity_.name;
}

void DataSink::setupThread() {}

bool DataSink::addResyncPath(QString const& path, bool first) {
    switch (state_) {
    case eRunning:
    case eResyncNeedEndLog:
    case eValidate:
        break;
    case eRunningDuringSnapshot:
        if (!first)
            return false;
        break;
    case eResyncNeedSnapshotCompleteMsg:
    case eResyncNeedStartLog:
        if (resyncType_ == QLatin1String("Full"))
            return false;
        break;
    case eResyncNeedCompletedMsg:
        if (resyncType_ != QLatin1String("Full") && resyncType_ != QLatin1String("Initial"))
            return false;
        break;
    }
    resyncPaths_.insert(path);
    return true;
}

} // namespace Replication
