#include "replication/common/intake/DataSink.h"

#include "base/messages/XmlList.h"
#include "base/trace/Log.h"
#include "base/trace/Trace.h"

#include <QFile>

#include <algorithm>
#include <limits>
#include <mutex>

namespace Replication {

using Morva::LogLevelE;
using Morva::LogLine;
using Morva::Status;
using Morva::XmlList;

namespace {

auto const logSource = QStringLiteral("Replication");

bool isMessage(LogEntry const& log, DataSink::MessageType type) {
    return log.type() == LogType::Message && log.number(LogField::MessageType) == type;
}

} // namespace

DataSink::DataSink(Identity identity)
    : identity_(std::move(identity)), stateFile_(identity_.stateFile), failure_(openState()) {
    if (!failure_)
        return;
    valid_ = true;
    applied_ = durable_ = saved_ = stateFile_.sequenceNumber();
    needsResync_ = stateFile_.flags() & StateFile::resyncFlag;
}

DataSink::~DataSink() = default;

/// A file that is there and can't be read is left as it is: it knows what the store holds, and a
/// new one would have all of it come again, or nothing.
Status DataSink::openState() {
    auto const exists = QFile::exists(identity_.stateFile);
    if (exists)
        stateFile_.readHeader();
    if (exists && !stateFile_.valid()) {
        MORVA_TRACE(Always) << "Unable to read existing state file" << identity_.stateFile;
        LogLine(logSource, LogLevelE::Error) << "Unable to read existing state file";
        return Status::corruption("read state", identity_.stateFile,
                                  QStringLiteral("it can't be read, so how far the store has come "
                                                 "isn't known; run 'morva check', and bring the "
                                                 "file back from a copy of the repository"));
    }
    if (exists || stateFile_.create())
        return {};
    MORVA_TRACE(Always) << "Fatal error, unable to create state file" << identity_.stateFile;
    LogLine(logSource, LogLevelE::Error) << "Fatal error, unable to create state file";
    return Status::failure(Status::Code::IoError, "create state", identity_.stateFile);
}

Status DataSink::start() {
    MORVA_METHOD("start");
    setupThread();
    if (!valid_ || !stateFile_.open(Morva::RawFile::Mode::ReadWrite)) {
        MORVA_TRACE(Always) << "Failed to open state file for update" << identity_.stateFile;
        line(LogLevelE::Error) << "Failed to open state file '%1s' for update"
                               << identity_.stateFile;
        valid_ = false;
        return failure_ ? Status::failure(Status::Code::IoError, "open state", identity_.stateFile)
                        : failure_;
    }
    // Rules with another target cut the saved exclusions off.
    if (auto loaded = loadState(); !loaded) {
        valid_ = false;
        return loaded;
    }
    rulesLoaded_ = applied_ != 0 ? startWithState() : startWithoutState();
    // What a process before this one could not apply to the store.
    if (rulesLoaded_ && (stateFile_.flags() & StateFile::exclusionsFlag) != 0)
        MORVA_TRY(applyExclusions());
    forceAck();
    return rulesLoaded_ ? Status()
                        : Status::failure(
                              Status::Code::Busy, "load rules", {},
                              QStringLiteral("rule set %1 can't be loaded").arg(identity_.ruleSet));
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

Status DataSink::handleShutdown() {
    MORVA_TRACE(Normal) << "shutdown datasink" << identity_.name;
    auto saved = saveState();
    closeAllFiles();
    stateFile_.close();
    return saved;
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
        auto const outcome = takeLog(log);
        if (outcome == Outcome::Waiting || outcome == Outcome::NoSpace)
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
    // A state file that can't be read stays as it is.
    if (!valid_)
        return Outcome::Waiting;
    if (log->ruleSet() > stateFile_.ruleSet()) {
        if (!changeRules(*log))
            return Outcome::Waiting;
        return handleLog(log);
    }
    if (!rulesLoaded_ && !(rulesLoaded_ = loadRules(identity_.ruleSet)))
        return Outcome::Waiting;
    if (log->sequenceNumber() > applied_)
        return handleLog(log);
    MORVA_TRACE(Normal) << "Already replicated sequence id" << log->sequenceNumber();
    return Outcome::AlreadyReplicated;
}

/// Whether a log's number can be that of the next one.
bool DataSink::follows(LogEntry const& log) {
    auto const sequence = log.sequenceNumber();
    if (applied_ == 0 ? sequence <= maximumFirst : sequence - applied_ <= maximumJump)
        return true;
    failure_ = Status::failure(
        Status::Code::InvalidArgument, "take log", identity_.target,
        QStringLiteral("its sequence number %1 is too far beyond %2, that of the last log: the log "
                       "is damaged, or comes from another source")
            .arg(sequence)
            .arg(applied_));
    MORVA_TRACE(Always) << failure_.text();
    line(LogLevelE::Error) << "A log of %1m to %2s is refused: its sequence number %3s is too far "
                              "beyond the position %4s"
                           << identity_.sourceMachine << identity_.target
                           << QString::number(sequence) << QString::number(applied_);
    return false;
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

Status DataSink::dropHandles() {
    openHandles_.clear();
    dropClosedHandles();
    return {};
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
    if (log->sequenceNumber() > applied_ && !follows(*log)) {
        sendNak(log->sequenceNumber());
        return Outcome::Jumped;
    }
    changed_ = true;
    dropExpiredHandles(log->time());
    currentLog_ = log;
    failure_ = {};
    if (log->type() == LogType::Message)
        failure_ = messageLog(*log);
    else if (log->type() == LogType::PolicyEvent)
        policyLog();
    if (state_ == eRunningDuringSnapshot && isMessage(*log, EndOfSnapshot) &&
        log->sequenceNumber() == endSnapshotSequence_) {
        MORVA_TRACE(Normal) << "Got the end snapshot log we are looking for";
        endSnapshotSequence_ = 0;
        state(eRunning);
    }
    auto const outcome = replayLog(log);
    currentLog_.reset();
    return outcome;
}

Status DataSink::messageLog(LogEntry const& log) {
    if (isMessage(log, PingTest)) {
        MORVA_TRACE(Normal) << "Got BINARY_LOG_PING_TEST";
    } else if (isMessage(log, SourceStarted)) {
        closeAllFiles();
        MORVA_TRY(dropHandles());
    } else if (isMessage(log, StartOfSnapshot)) {
        closeAllFiles();
        if (auto const moved = moveOpenToClosed(log.time()); moved != 0)
            MORVA_TRACE(Normal) << "Start Snapshot" << moved << "Closed handle(s)";
    }
    auto const exclusions = isMessage(log, SourceStarted) || isMessage(log, NotToBackupDetails);
    if (!exclusions || (state_ != eRunning && state_ != eValidate) || log.data().size == 0)
        return {};
    auto const details = XmlList::fromBinary(log.data());
    return details ? takeExclusions(*details, log.data().toByteArray()) : Status();
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

Status DataSink::exclude(Morva::Extent const& details) {
    auto const list = XmlList::fromBinary(details);
    if (!list)
        return Status::failure(Status::Code::InvalidArgument, "exclude", identity_.target,
                               QStringLiteral("the details can't be read"));
    changed_ = true;
    return takeExclusions(*list, details.toByteArray());
}

Status DataSink::takeExclusions(XmlList const& details, QByteArray bytes) {
    MORVA_TRACE(Normal) << "NotToBackup details" << bytes.size();
    auto const waiting = (stateFile_.flags() & StateFile::exclusionsFlag) != 0;
    if (bytes == exclusions_ && !waiting)
        return {};
    notToBackup_ = NotToBackup(details, caseSensitive_);
    exclusions_ = std::move(bytes);
    MORVA_TRY(saveExclusions());
    return applyExclusions();
}

/// Until all that is stored has been gone through, the state file says that it is still to be done.
Status DataSink::applyExclusions() {
    auto const mark = [this](bool set) {
        return stateFile_.flag(StateFile::exclusionsFlag, set)
                   ? Status()
                   : Status::failure(Status::Code::IoError, "write state", identity_.stateFile);
    };
    MORVA_TRY(mark(true));
    MORVA_TRY(exclusionsChanged());
    return mark(false);
}

Status DataSink::loadState() {
    auto const bytes = stateFile_.details();
    if (bytes.isEmpty())
        return {};
    if (auto const details = XmlList::fromBinary(bytes)) {
        exclusions_ = bytes;
        notToBackup_ = NotToBackup(*details, caseSensitive_);
    }
    return {};
}

Status DataSink::saveExclusions() {
    if (exclusions_.isEmpty() || stateFile_.details(exclusions_))
        return {};
    MORVA_TRACE(Always) << "Failed to save exclusions in" << identity_.stateFile;
    return Status::failure(Status::Code::IoError, "save exclusions", identity_.stateFile);
}

Status DataSink::saveState() {
    return savePosition();
}

Status DataSink::savePosition() {
    if (!valid_ || !changed_)
        return {};
    auto const bytes = stateFile_.bytesProcessed();
    if (!stateFile_.sequenceNumber(applied_, bytes + bytes_)) {
        line(LogLevelE::Error) << "Failed to write to state file";
        (void)stateFile_.sequenceNumber(saved_, bytes); // the next checkpoint tries again
        return Status::failure(Status::Code::IoError, "write state", identity_.stateFile);
    }
    saved_ = applied_;
    bytes_ = 0;
    changed_ = false;
    return {};
}

void DataSink::acknowledge() {
    {
        std::unique_lock lock(stateLock_);
        if (saved_ <= durable_)
            return;
        durable_ = saved_;
    }
    if (ackMode_ == AckToSource)
        sendAck(saved_);
}

DataSink::Outcome DataSink::replayLog(LogPointer const& log) {
    if (failure_)
        failure_ = replay(log);
    if (failure_) {
        move(log->sequenceNumber(), log->body().size);
        return Outcome::Applied;
    }
    if (failure_.is(Status::Code::NoSpace)) {
        MORVA_TRACE(Always) << "No space is left, the sink pauses" << failure_.text();
        line(LogLevelE::Error) << "Replication from %1m to %2s pauses: no space is left"
                               << identity_.sourceMachine << identity_.target;
        pause();
        return Outcome::NoSpace;
    }
    auto const unfitting =
        failure_.is(Status::Code::InvalidArgument) || failure_.is(Status::Code::NotFound);
    if (state_ == eRunningDuringSnapshot && unfitting) {
        MORVA_TRACE(Normal) << "A file operation failed during a snapshot, ignore failure";
        move(log->sequenceNumber(), log->body().size);
        return Outcome::Forgiven;
    }
    return refuse(*log);
}

DataSink::Outcome DataSink::refuse(LogEntry const& log) {
    if (ackMode_ == AckToSource)
        sendNak(log.sequenceNumber());
    else
        move(log.sequenceNumber(), 0);
    MORVA_TRACE(Always) << "A file operation failed, ask to perform a resync";
    auto const partial = askForPathsOf(log);
    sendResyncRequired(QStringLiteral("File operation failed"), !partial, 4);
    return Outcome::Failed;
}

/// The applied position moves to a log, and never back.
void DataSink::move(std::uint64_t sequence, std::uint64_t size) {
    bytes_ += size;
    if (sequence <= applied_)
        return;
    std::unique_lock lock(stateLock_);
    applied_ = sequence;
}

void DataSink::forceAck() {
    if (durable_ == 0)
        return;
    MORVA_TRACE(Normal) << "Force Ack" << durable_;
    sendAck(durable_);
}

DataSink::State DataSink::state() const {
    std::shared_lock lock(stateLock_);
    return state_;
}

std::uint64_t DataSink::position() const {
    std::shared_lock lock(stateLock_);
    return applied_;
}

std::uint64_t DataSink::durablePosition() const {
    std::shared_lock lock(stateLock_);
    return durable_;
}

void DataSink::state(State next) {
    auto const before = state_;
    if (next == eResyncNeedCompletedMsg)
        startResync();
    if (next == eRunning && (before == eRunningDuringSnapshot || before == eResyncNeedCompletedMsg))
        endResync();
    if (next == eRunning && before >= eRunningDuringSnapshot && before <= eResyncNeedEndLog) {
        resyncPaths_.clear();
        resyncPathsFull_ = false;
    }
    std::unique_lock lock(stateLock_);
    state_ = next;
}

void DataSink::needsResync(bool value) {
    needsResync_ = value;
    if (valid_ && !stateFile_.flag(StateFile::resyncFlag, value))
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
    changed_ = true;
    if (resyncPathsFull_ || resyncPaths_.contains(path))
        return false;
    if (resyncPaths_.size() >= maximumResyncPaths) {
        resyncPathsFull_ = true;
        resyncPaths_.clear();
        sendResyncRequired(QStringLiteral("Too many paths are to be resynchronized"), true, 3);
        return false;
    }
    resyncPaths_.insert(path);
    if (resyncPaths_.size() == resyncPathsTold + 1)
        line(LogLevelE::Notice) << "More than %1s paths of %2m are to be resynchronized to %3s; "
                                   "further ones are not told one by one"
                                << QString::number(resyncPathsTold) << identity_.sourceMachine
                                << identity_.target;
    return resyncPaths_.size() <= resyncPathsTold;
}

} // namespace Replication
