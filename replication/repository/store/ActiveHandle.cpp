#include "replication/repository/store/ActiveHandle.h"

#include "base/trace/Trace.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <algorithm>

namespace Replication {

using Morva::Result;
using Morva::Status;

using StreamPointer = std::shared_ptr<StreamHandle>;

ActiveHandle::ActiveHandle(Store& store, FileId id, FileNode::Pointer node)
    : store_(store), id_(id), fileNode_(std::move(node)) {
    if (fileNode_)
        version_.fileType = fileNode_->type();
}

ActiveHandle::~ActiveHandle() {
    MORVA_TRACE(Debug) << "Delete ActiveHandle" << id_;
    store_.retired().retiredVersion(version_, fileNode_, true);
    store_.activeHandles().release(id_);
}

Status ActiveHandle::commit(LinkId) {
    if (!copy_)
        return {};
    FileNode::Pointer const copy = std::exchange(copy_, nullptr);
    copy->print(static_cast<int>(Morva::TraceLevel::Debug));
    MORVA_TRY(store_.updateFileId(store_.retired().timeStamp(), id_, *fileNode_, *copy));
    version_.fileType = copy->type();
    if (version_.versioned()) {
        version_.fileNode = copy->id();
        MORVA_TRACE(Verbose) << "%%% Version" << id_ << "FileNode" << version_.fileNode;
    }
    fileNode_ = copy;
    return {};
}

Status ActiveHandle::end(LinkId link, Status status) {
    if (status)
        return commit(link);
    if (FileNode::Pointer const copy = std::exchange(copy_, nullptr))
        copy->releaseVersion(); // with the last pointer it goes, and with it its streams
    return status;
}

Status ActiveHandle::noFile() const {
    return Status::failure(Status::Code::InvalidArgument, "change file", QString(),
                           QStringLiteral("file %1 has no node").arg(id_.value));
}

// --- streams

bool ActiveHandle::sameStream(QString const& a, QString const& b) const {
    return QString::compare(a, b, store_.caseSensitivity()) == 0;
}

Result<StreamPointer> ActiveHandle::current(StreamPointer const& stream) const {
    if (stream && fileNode_)
        for (Replaced const& entry : replaced_)
            if (entry.id == stream->id() && entry.handle.lock() == stream)
                return fileNode_->openStream(entry.name);
    return stream;
}

Result<StreamHandle const*> ActiveHandle::current(StreamHandle const& stream,
                                                  StreamPointer& keep) const {
    for (Replaced const& entry : replaced_)
        if (entry.id == stream.id() && entry.handle.lock().get() == &stream && fileNode_) {
            MORVA_TRY_LET(keep, fileNode_->openStream(entry.name));
            return keep ? keep.get() : &stream;
        }
    return &stream;
}

QString ActiveHandle::streamName(StreamPointer const& stream) const {
    if (!stream || !fileNode_)
        return {};
    for (Replaced const& entry : replaced_)
        if (entry.id == stream->id() && entry.handle.lock() == stream)
            return entry.name;
    return fileNode_->streamName(stream->id());
}

void ActiveHandle::replaced(StreamPointer const& before, QString const& name) {
    std::erase_if(replaced_, [](Replaced const& entry) { return entry.handle.expired(); });
    if (before && before.use_count() > 1)
        replaced_.push_back({before, before->id(), name});
}

template <class Change>
Status ActiveHandle::change(LinkId link, StreamPointer& stream, Change&& change) {
    if (!fileNode_)
        return noFile();
    if (!replaced_.empty()) {
        MORVA_TRY_LET(stream, current(stream));
    }
    StreamPointer const before = stream;
    Status status = change();
    bool const copied = copy_ != nullptr;
    status = end(link, std::move(status));
    // With a copy of the node its copies of streams have gone as well.
    if (!status && copied)
        stream = before;
    if (stream != before)
        replaced(before, fileNode_->streamName(stream->id()));
    return status;
}

Result<StreamPointer> ActiveHandle::createStream(LinkId link, QString const& name, bool dedup) {
    return run(link, [&](FileNode& node) { return node.createActiveStream(copy_, name, dedup); });
}

Result<StreamPointer> ActiveHandle::openStream(LinkId link, QString const& name, bool dedup) {
    return run(link, [&](FileNode& node) { return node.openActiveStream(copy_, name, dedup); });
}

Status ActiveHandle::write(LinkId link, StreamPointer& stream, std::uint64_t offset,
                           void const* data, std::uint32_t count, std::uint32_t sourceTime) {
    return change(link, stream,
                  [&] { return fileNode_->write(copy_, stream, offset, data, count, sourceTime); });
}

Status ActiveHandle::truncate(LinkId link, StreamPointer& stream, std::uint64_t size,
                              std::uint32_t flags, std::uint32_t sourceTime) {
    return change(link, stream,
                  [&] { return fileNode_->truncate(copy_, stream, size, flags, sourceTime); });
}

Status ActiveHandle::zeroData(LinkId link, StreamPointer& stream, std::uint64_t start,
                              std::uint64_t end, std::uint32_t sourceTime) {
    return change(link, stream,
                  [&] { return fileNode_->zeroData(copy_, stream, start, end, sourceTime); });
}

Status ActiveHandle::dirty(LinkId link, StreamHandle const& stream) {
    StreamPointer keep;
    MORVA_TRY_LET(StreamHandle const* const target, current(stream, keep));
    return run(link, [&](FileNode& node) { return node.dirty(copy_, *target); });
}

Status ActiveHandle::sparse(LinkId link, StreamHandle const& stream) {
    StreamPointer keep;
    MORVA_TRY_LET(StreamHandle const* const target, current(stream, keep));
    return run(link, [&](FileNode& node) { return node.sparse(copy_, *target); });
}

Status ActiveHandle::removeStream(LinkId link, QString const& name) {
    MORVA_TRY(run(link, [&](FileNode& node) { return node.removeStream(copy_, name); }));
    std::erase_if(replaced_, [&](Replaced const& entry) { return sameStream(entry.name, name); });
    return {};
}

Status ActiveHandle::renameStream(LinkId link, QString const& from, QString const& to) {
    MORVA_TRY(run(link, [&](FileNode& node) { return node.renameStream(copy_, from, to); }));
    std::erase_if(replaced_, [&](Replaced const& entry) { return sameStream(entry.name, to); });
    for (Replaced& entry : replaced_)
        if (sameStream(entry.name, from))
            entry.name = to;
    return {};
}

Status ActiveHandle::renameStream(LinkId link, StreamHandle const& stream, QString const& to) {
    StreamPointer keep;
    if (!fileNode_)
        return noFile();
    MORVA_TRY_LET(StreamHandle const* const target, current(stream, keep));
    QString const from = fileNode_->streamName(target->id());
    if (!from.isEmpty())
        return renameStream(link, from, to);
    return run(link, [&](FileNode& node) { return node.renameStream(copy_, *target, to); });
}

Status ActiveHandle::replaceStream(LinkId link, StreamHandle const& from, StreamPointer const& to) {
    if (!fileNode_)
        return noFile();
    StreamPointer keep;
    MORVA_TRY_LET(StreamHandle const* const source, current(from, keep));
    QString const name = fileNode_->streamName(source->id());
    MORVA_TRY_LET(StreamPointer const before, fileNode_->openStream(name));
    MORVA_TRY(run(link, [&](FileNode& node) { return node.replaceStream(copy_, *source, to); }));
    replaced(before, name);
    return {};
}

void ActiveHandle::closeStream(QString const& name) {
    std::erase_if(replaced_, [&](Replaced const& entry) {
        return entry.handle.expired() && sameStream(entry.name, name);
    });
}

// --- links and attributes

Result<std::uint32_t> ActiveHandle::removeLink(LinkId link) {
    return run(link, [&](FileNode& node) { return node.removeLink(copy_); });
}

Result<LinkId> ActiveHandle::addLink(LinkId link, bool keepLiveOnly) {
    return run(link, [&](FileNode& node) { return node.addLink(copy_, keepLiveOnly); });
}

Status ActiveHandle::owner(LinkId link, QString const& text) {
    return run(link, [&](FileNode& node) { return node.owner(copy_, text); });
}

Status ActiveHandle::attributes(LinkId link, std::uint32_t value) {
    return run(link, [&](FileNode& node) { return node.attributes(copy_, value); });
}

Status ActiveHandle::liveOnly(LinkId link, bool value) {
    return run(link, [&](FileNode& node) { return node.liveOnly(copy_, value); });
}

Status ActiveHandle::attr(LinkId link, bool setModified, std::uint32_t modified, bool setCreated,
                          std::uint32_t created, bool setAttributes, std::uint32_t attributes) {
    return run(link, [&](FileNode& node) {
        return node.attr(copy_, setModified, modified, setCreated, created, setAttributes,
                         attributes);
    });
}

// --- reading

std::uint32_t ActiveHandle::linkCount() const {
    return fileNode_ ? fileNode_->names() : 0;
}

bool ActiveHandle::notLinked() const {
    return fileNode_ && fileNode_->notLinked();
}

NodeTimes ActiveHandle::times() const {
    return fileNode_ ? fileNode_->times() : NodeTimes{};
}

Result<std::uint64_t> ActiveHandle::size(QString const& stream) const {
    return fileNode_ ? fileNode_->size(stream) : std::uint64_t{0};
}

Result<std::vector<StreamRecord>> ActiveHandle::streamList() const {
    return fileNode_ ? fileNode_->streamList() : std::vector<StreamRecord>{};
}

QStringList ActiveHandle::namedAttributes() const {
    QStringList result = fileNode_ ? fileNode_->streamNames() : QStringList();
    result.removeIf([&](QString const& name) { return sameStream(name, dataStreamName); });
    return result;
}

QString ActiveHandle::owner() const {
    return fileNode_ ? fileNode_->owner() : QString();
}

QString ActiveHandle::sourceMachine() const {
    return fileNode_ ? fileNode_->sourceMachine() : QString();
}

// --- versions

void ActiveHandle::setVersion(DirKey const& key, QStringList const& path, QString const& user,
                              QString const& process, std::uint32_t ruleSet,
                              std::vector<std::uint32_t> const& rules) {
    if (version_.versioned() || ruleSet == 0 || rules.empty() || !fileNode_ ||
        fileNode_->isDirectory())
        return;
    version_.directory = key.directoryId();
    version_.link = key.link();
    version_.path = path;
    version_.user = user;
    version_.process = process;
    version_.ruleSet = ruleSet;
    version_.rules = rules;
    version_.fileNode = fileNode_->id();
    version_.time = store_.retired().timeStamp();
    version_.prevFileNode = {};
    version_.prevLink = {};
    if (!store_.retired().previousFileNode(version_) && fileNode_->versioned()) {
        version_.prevFileNode = fileNode_->id();
        version_.prevLink = version_.link;
    }
    MORVA_TRACE(Verbose) << "%%% Version" << id_ << "FileNode" << version_.fileNode
                         << "PrevFileNode" << version_.prevFileNode;
}

void ActiveHandle::rename(FileId directory, QStringList const& path, QString const& user,
                          QString const& process, std::uint32_t ruleSet,
                          std::vector<std::uint32_t> const& rules) {
    MORVA_TRACE(Verbose) << "rename" << id_;
    if (ruleSet == 0 || rules.empty() || !fileNode_ || fileNode_->isDirectory()) {
        MORVA_TRACE(Verbose) << "No longer versioned" << id_;
        retiredVersion(false);
        return;
    }
    bool const versioned = version_.versioned();
    if (versioned) {
        MORVA_TRACE(Verbose) << "Version of" << version_.fileNode;
        store_.retired().retiredWeakVersion(version_, fileNode_);
    } else {
        MORVA_TRACE(Verbose) << "Now versioned" << id_;
        version_.prevFileNode = {};
        version_.prevLink = {};
    }
    version_.directory = directory;
    version_.path = path;
    version_.user = user;
    version_.process = process;
    version_.ruleSet = ruleSet;
    version_.rules = rules;
    version_.weak = false;
    version_.fileNode = fileNode_->id();
    version_.time = store_.retired().timeStamp();
    if (!version_.prevFileNode)
        (void)store_.retired().previousFileNode(version_);
}

void ActiveHandle::retiredVersion(bool final) {
    store_.retired().retiredVersion(version_, fileNode_, final);
}

void ActiveHandle::print(int traceLevel) const {
    auto const level = static_cast<Morva::TraceLevel>(traceLevel);
    if (!Morva::Trace::enabled(level))
        return;
    using Morva::TraceLine;
    TraceLine(level, __FILE__, __LINE__) << "ActiveHandle Start";
    TraceLine(level, __FILE__, __LINE__) << "FileId" << id_ << "Type" << version_.fileType;
    version_.print(traceLevel);
    if (fileNode_)
        fileNode_->print(traceLevel);
    TraceLine(level, __FILE__, __LINE__) << "LinkHash Start";
    for (auto link = links_.begin(); link != links_.end(); ++link)
        TraceLine(level, __FILE__, __LINE__)
            << link.key() << "Directory" << link->key.directoryId() << link->name;
    TraceLine(level, __FILE__, __LINE__) << "LinkHash End";
    TraceLine(level, __FILE__, __LINE__) << "ActiveHandle End";
}

void ActiveHandle::saveHandle(Morva::PackBuffer& record) const {
    print(static_cast<int>(Morva::TraceLevel::Testing));
    record.append(id_.value);
    version_.pack(record);
}

} // namespace Replication
