#include "replication/repository/store/FileNode.h"

#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "replication/common/values/RepMetadata.h"
#include "replication/repository/store/NodeFile.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/SavedState.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/OperationGate.h"
#include "replication/repository/streams/Streams.h"

#include <cerrno>
#include <ctime>
#include <optional>

namespace Replication {

using Morva::Result;
using Morva::Status;
using Morva::TracedLock;

namespace {

std::uint32_t now() {
    return static_cast<std::uint32_t>(std::time(nullptr));
}

void logNoVersion() {
    Morva::LogLine("Repository", Morva::LogLevelE::Error)
        << "Request to release a version that nolonger exists";
}

} // namespace

FileNode::FileNode(Store& store, NodePin pin, NodeInfo info)
    : store_(store),
      number_(pin.node().number()),
      type_(pin.node().type()),
      lock_({"============== Lock FileNode ==============",
             "============= Unlock FileNode ============="},
            number_.value),
      info_(std::move(info)),
      node_(std::move(pin)) {}

FileNode::~FileNode() {
    bool const dead = !discarded_ && node_.node().claims() == 0 && !store_.saved().keeps(number_);
    // A reader can be the last to hold it.
    std::optional<OperationGate::Enter> gate;
    if (dead)
        gate.emplace();
    // The record isn't rewritten without the streams: the block goes with it.
    if (dead)
        info_.release(store_.streams(), NodeInfo(info_.caseSensitivity()));
    store_.passiveHandles().release(*this, !dead);
}

std::uint32_t FileNode::attributes() const {
    TracedLock guard(lock_);
    return info_.attributes;
}

bool FileNode::placeHolder() const {
    TracedLock guard(lock_);
    return info_.placeHolder;
}

QString FileNode::owner() const {
    TracedLock guard(lock_);
    return info_.owner;
}

bool FileNode::liveOnly() const {
    TracedLock guard(lock_);
    return node_.node().liveOnly();
}

QString FileNode::sourceMachine() const {
    TracedLock guard(lock_);
    return info_.sourceMachine;
}

QString FileNode::name() const {
    TracedLock guard(lock_);
    return info_.name;
}

std::uint32_t FileNode::linkCount() const {
    TracedLock guard(lock_);
    return node_.node().linkCount();
}

std::uint32_t FileNode::names() const {
    TracedLock guard(lock_);
    return node_.node().names();
}

bool FileNode::notLinked() const {
    TracedLock guard(lock_);
    return node_.node().nextLink() == NodeBlock::firstLink;
}

NodeTimes FileNode::times() const {
    TracedLock guard(lock_);
    return node_.node().times();
}

Result<std::uint64_t> FileNode::size(QString const& stream) const {
    TracedLock guard(lock_);
    return info_.size(store_.streams(), stream);
}

Result<std::uint64_t> FileNode::size() const {
    return size(dataStreamName);
}

bool FileNode::versioned() const {
    TracedLock guard(lock_);
    return node_.node().versioned();
}

Instance FileNode::instance() const {
    TracedLock guard(lock_);
    return node_.node().instance();
}

std::uint32_t FileNode::referenceCount() const {
    TracedLock guard(lock_);
    return node_.node().referenceCount();
}

std::uint32_t FileNode::versionCount() const {
    TracedLock guard(lock_);
    return node_.node().versionCount();
}

bool FileNode::exists(QString const& stream) const {
    TracedLock guard(lock_);
    return info_.exists(stream);
}

Result<std::vector<StreamRecord>> FileNode::streamList() const {
    TracedLock guard(lock_);
    return info_.streamList(store_.streams(), type_);
}

QStringList FileNode::streamNames() const {
    TracedLock guard(lock_);
    QStringList result;
    for (NodeStream const& entry : info_.streams())
        result.append(entry.name);
    return result;
}

QString FileNode::streamName(StreamId id) const {
    TracedLock guard(lock_);
    return info_.streamName(id);
}

Result<FileNode::FilterInfo> FileNode::filterInfo() const {
    TracedLock guard(lock_);
    NodeTimes const times = node_.node().times();
    MORVA_TRY_LET(std::uint64_t const size, info_.size(store_.streams(), dataStreamName));
    return FilterInfo{size, node_.node().linkCount(), times.createdSource, times.modifiedSource};
}

Result<FileNode::StreamPointer> FileNode::openStream(QString const& name) {
    TracedLock guard(lock_);
    return info_.streamHandle(store_.streams(), name);
}

std::vector<StreamId> FileNode::streamIds() const {
    TracedLock guard(lock_);
    return info_.idList();
}

Status FileNode::metadata(std::uint32_t level, RepMetadata& result) const {
    if (level != RepMetadata::eSnapshot && level != RepMetadata::eBackup)
        return Status::fromErrno(EINVAL, "describe", QString());
    TracedLock guard(lock_);
    NodeTimes const times = node_.node().times();
    result = RepMetadata();
    result.kind = level;
    result.type = type_;
    result.placeHolder = info_.placeHolder;
    result.attributes = info_.attributes;
    result.createdHere = times.created;
    result.modifiedHere = times.modified;
    result.createdSource = times.createdSource;
    result.modifiedSource = times.modifiedSource;
    result.owner = info_.owner;
    result.linkCount = node_.node().linkCount();
    return info_.metadata(store_.streams(), result, level);
}

void FileNode::print(int traceLevel) const {
    auto const level = static_cast<Morva::TraceLevel>(traceLevel);
    if (!Morva::Trace::enabled(level))
        return;
    TracedLock guard(lock_);
    NodeBlock const node = node_.node();
    Morva::TraceLine(level, __FILE__, __LINE__)
        << "Node" << number_ << "Type" << type_ << "LiveOnly" << node.liveOnly() << "LinkCount"
        << node.linkCount() << "ReferenceCount" << node.referenceCount() << "VersionCount"
        << node.versionCount() << "Instance" << node.instance() << "NextLink" << node.nextLink();
    info_.print(traceLevel);
}

void FileNode::printCounts(char const* which) const {
    NodeBlock const node = node_.node();
    MORVA_TRACE(Verbose) << which << number_ << "LinkCount" << node.linkCount() << "ReferenceCount"
                         << node.referenceCount() << "VersionCount" << node.versionCount()
                         << "Instance" << node.instance();
}

Status FileNode::refused(char const* operation, QString const& stream,
                         QString const& reason) const {
    return Status::failure(Status::Code::InvalidArgument, operation, stream, reason,
                           {Status::Unit::Record, number_.value});
}

Status FileNode::missing(char const* operation, QString const& stream) const {
    return Status::failure(Status::Code::NotFound, operation, stream,
                           QStringLiteral("the file has no such stream"),
                           {Status::Unit::Record, number_.value});
}

Status FileNode::lost(char const* operation, StreamId id) const {
    reportLostStream(id);
    return Status::failure(Status::Code::NotFound, operation, QString(),
                           QStringLiteral("the file does not have stream %1").arg(id.value),
                           {Status::Unit::Record, number_.value});
}

// --- the copy decision

Result<FileNode*> FileNode::writable(Pointer& copy) {
    NodeBlock const node = node_.node();
    bool const shared = node.claims() >= 2;
    if (!shared && (node.liveOnly() || store_.currentInstance() <= node.instance()))
        return this;
    MORVA_TRY_LET(copy, store_.passiveHandles().copyOf(*this));
    printCounts("Old Node");
    copy->printCounts("New Node");
    return copy.get();
}

Status FileNode::takeCopy(Pointer& copy) {
    TracedLock guard(lock_);
    return writable(copy).status();
}

Status FileNode::writeInfo() {
    MORVA_METHOD("updateNodeInfo");
    if (info_.type() == NodeInfo::Empty) {
        MORVA_TRACE(Always) << "Record of node" << number_ << "is damaged, leave it";
        return Status::corruption("write record", store_.path() + QStringLiteral("/files"),
                                  QStringLiteral("the record is damaged"),
                                  {Status::Unit::Block, number_.value});
    }
    thread_local Morva::PackBuffer buffer(1024);
    info_.pack(buffer);
    return store_.nodes().writeRecord(node_, buffer.extentWithoutSize());
}

void FileNode::writeBlock() {
    store_.nodes().update(node_);
}

void FileNode::touch(std::uint32_t sourceTime) {
    NodeTimes times = node_.node().times();
    if (sourceTime == 0 || times.modifiedSource == sourceTime)
        return;
    times.modifiedSource = sourceTime;
    times.modified = now();
    node_.node().times(times);
    writeBlock();
}

// --- attributes

Status FileNode::attr(Pointer& copy, bool setModified, std::uint32_t modified, bool setCreated,
                      std::uint32_t created, bool setAttributes, std::uint32_t attributes) {
    MORVA_METHOD("attr");
    TracedLock guard(lock_);
    NodeTimes times = node_.node().times();
    setModified = setModified && times.modifiedSource != modified;
    setCreated = setCreated && times.createdSource != created;
    setAttributes = setAttributes && info_.attributes != attributes;
    if (!setModified && !setCreated && !setAttributes)
        return {};
    MORVA_TRY_LET(FileNode* const target, writable(copy));
    if (setAttributes) {
        MORVA_TRACE(Verbose) << "Set Attribute to " << attributes;
        MORVA_TRY(target->setInfo(target->info_.attributes, attributes));
    }
    if (setModified) {
        MORVA_TRACE(Verbose) << "Set Modified Source to " << modified;
        times.modifiedSource = modified;
    }
    if (setCreated) {
        MORVA_TRACE(Verbose) << "Set Created Source to " << created;
        times.createdSource = created;
    }
    target->node_.node().times(times);
    target->writeBlock();
    return {};
}

Status FileNode::owner(Pointer& copy, QString const& text) {
    MORVA_METHOD("owner");
    TracedLock guard(lock_);
    if (info_.owner == text)
        return {};
    MORVA_TRY_LET(FileNode* const target, writable(copy));
    return target->setInfo(target->info_.owner, text);
}

Status FileNode::attributes(Pointer& copy, std::uint32_t value) {
    MORVA_METHOD("attributes");
    TracedLock guard(lock_);
    if (info_.attributes == value)
        return {};
    MORVA_TRY_LET(FileNode* const target, writable(copy));
    return target->setInfo(target->info_.attributes, value);
}

void FileNode::endLiveOnly() {
    MORVA_TRACE(Verbose) << "No longer live only" << number_;
    NodeBlock node = node_.node();
    node.typeWord(node.type());
    node.instance(store_.currentInstance());
}

Status FileNode::liveOnly(Pointer& copy, bool value) {
    MORVA_METHOD("liveOnly");
    TracedLock guard(lock_);
    NodeBlock node = node_.node();
    if (node.liveOnly() && !value) {
        endLiveOnly();
        writeBlock();
    } else if (!node.liveOnly() && value && node.names() == 1) {
        MORVA_TRACE(Verbose) << "Now live only" << number_;
        MORVA_TRY_LET(FileNode* const target, writable(copy));
        NodeBlock changed = target->node_.node();
        changed.typeWord(changed.typeWord() | NodeBlock::liveOnlyBit);
        target->writeBlock();
    }
    return {};
}

// --- links and claims

Result<LinkId> FileNode::addLink(Pointer& copy, bool keepLiveOnly) {
    MORVA_METHOD("addLink");
    TracedLock guard(lock_);
    MORVA_TRY_LET(FileNode* const target, writable(copy));
    NodeBlock node = target->node_.node();
    if (node.liveOnly() && !keepLiveOnly)
        target->endLiveOnly();
    std::uint32_t const link = node.nextLink();
    node.linkCount(node.linkCount() + 1);
    node.nextLink(link + 1);
    target->writeBlock();
    return scope.result(LinkId{link});
}

Result<std::uint32_t> FileNode::removeLink(Pointer& copy) {
    MORVA_METHOD("removeLink");
    TracedLock guard(lock_);
    std::uint32_t const count = node_.node().names();
    if (count == 0)
        return std::uint32_t{0};
    if (count == 1) {
        node_.node().ended(true);
        writeBlock();
        return scope.result(std::uint32_t{0});
    }
    MORVA_TRY_LET(FileNode* const target, writable(copy));
    target->node_.node().linkCount(count - 1);
    target->writeBlock();
    return scope.result(count - 1);
}

void FileNode::end() {
    TracedLock guard(lock_);
    node_.node().ended(true);
    writeBlock();
}

void FileNode::takeReference() {
    TracedLock guard(lock_);
    NodeBlock node = node_.node();
    node.referenceCount(node.referenceCount() + 1);
    writeBlock();
}

void FileNode::takeVersion() {
    TracedLock guard(lock_);
    NodeBlock node = node_.node();
    node.versionCount(node.versionCount() + 1);
    node.versioned(true);
    writeBlock();
}

void FileNode::releaseVersion() {
    TracedLock guard(lock_);
    NodeBlock node = node_.node();
    if (node.referenceCount() == 0) {
        logNoVersion();
        return;
    }
    node.referenceCount(node.referenceCount() - 1);
    writeBlock();
}

void FileNode::releaseWeakVersion() {
    TracedLock guard(lock_);
    NodeBlock node = node_.node();
    if (node.versionCount() == 0) {
        logNoVersion();
        return;
    }
    node.versionCount(node.versionCount() - 1);
    if (node.versionCount() == 0)
        node.versioned(true);
    writeBlock();
}

void FileNode::discard() {
    TracedLock guard(lock_);
    discarded_ = true;
}

void FileNode::dropClaims() {
    TracedLock guard(lock_);
    NodeBlock node = node_.node();
    node.referenceCount(0);
    node.versionCount(0);
    writeBlock();
}

} // namespace Replication
