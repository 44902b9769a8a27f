#include "replication/repository/store/ActiveHandle.h"

#include "base/trace/Trace.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <algorithm>

namespace Replication {

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

bool ActiveHandle::commit(LinkId) {
    if (!copy_)
        return true;
    FileNode::Pointer const copy = std::exchange(copy_, nullptr);
    copy->print(static_cast<int>(Morva::TraceLevel::Debug));
    if (!store_.updateFileId(store_.retired().timeStamp(), id_, *fileNode_, *copy))
        return false;
    version_.fileType = copy->type();
    if (version_.versioned()) {
        version_.fileNode = copy->id();
        MORVA_TRACE(Verbose) << "%%% Version" << id_ << "FileNode" << version_.fileNode;
    }
    fileNode_ = copy;
    return true;
}

// --- streams

bool ActiveHandle::sameStream(QString const& a, QString const& b) const {
    return QString::compare(a, b, store_.caseSensitivity()) == 0;
}

StreamPointer ActiveHandle::current(StreamPointer const& stream) const {
    if (stream && fileNode_)
        for (Replaced const& entry : replaced_)
            if (entry.id == stream->id() && entry.handle.lock() == stream)
                return fileNode_->openStream(entry.name);
    return stream;
}

StreamHandle const& ActiveHandle::current(StreamHandle const& stream, StreamPointer& keep) const {
    for (Replaced const& entry : replaced_)
        if (entry.id == stream.id() && entry.handle.lock().get() == &stream) {
            keep = fileNode_ ? fileNode_->openStream(entry.name) : nullptr;
            return keep ? *keep : stream;
        }
    return stream;
}

void ActiveHandle::replaced(StreamPointer const& before, QString const& name) {
    std::erase_if(replaced_, [](Replaced const& entry) { return entry.handle.expired(); });
    if (before && before.use_count() > 1)
        replaced_.push_back({before, before->id(), name});
}

template <class Change>
bool ActiveHandle::change(LinkId link, StreamPointer& stream, Change&& change) {
    if (!fileNode_)
        return false;
    if (!replaced_.empty())
        stream = current(stream);
    StreamPointer before = stream;
    bool const result = change();
    if (!commit(link)) {
        stream = before;
        return false;
    }
    if (stream != before)
        replaced(before, fileNode_->streamName(stream->id()));
    return result;
}

StreamPointer ActiveHandle::createStream(LinkId link, QString const& name, bool dedup) {
    if (!fileNode_)
        return nullptr;
    StreamPointer result = fileNode_->createActiveStream(copy_, name, dedup);
    return commit(link) ? result : nullptr;
}

StreamPointer ActiveHandle::openStream(LinkId link, QString const& name, bool dedup) {
    if (!fileNode_)
        return nullptr;
    StreamPointer result = fileNode_->openActiveStream(copy_, name, dedup);
    return commit(link) ? result : nullptr;
}

bool ActiveHandle::write(LinkId link, StreamPointer& stream, std::uint64_t offset, void const* data,
                         std::uint32_t count, std::uint32_t sourceTime) {
    return change(link, stream,
                  [&] { return fileNode_->write(copy_, stream, offset, data, count, sourceTime); });
}

bool ActiveHandle::truncate(LinkId link, StreamPointer& stream, std::uint64_t size,
                            std::uint32_t flags, std::uint32_t sourceTime) {
    return change(link, stream,
                  [&] { return fileNode_->truncate(copy_, stream, size, flags, sourceTime); });
}

bool ActiveHandle::zeroData(LinkId link, StreamPointer& stream, std::uint64_t start,
                            std::uint64_t end, std::uint32_t sourceTime) {
    return change(link, stream,
                  [&] { return fileNode_->zeroData(copy_, stream, start, end, sourceTime); });
}

bool ActiveHandle::dirty(LinkId link, StreamHandle const& stream) {
    StreamPointer keep;
    bool const result = fileNode_ && fileNode_->dirty(copy_, current(stream, keep));
    return commit(link) && result;
}

bool ActiveHandle::sparse(LinkId link, StreamHandle const& stream) {
    StreamPointer keep;
    bool const result = fileNode_ && fileNode_->sparse(copy_, current(stream, keep));
    return commit(link) && result;
}

bool ActiveHandle::removeStream(LinkId link, QString const& name) {
    bool const done = fileNode_ && fileNode_->removeStream(copy_, name);
    bool const result = commit(link) && done;
    if (result)
        std::erase_if(replaced_,
                      [&](Replaced const& entry) { return sameStream(entry.name, name); });
    return result;
}

bool ActiveHandle::renameStream(LinkId link, QString const& from, QString const& to) {
    if (from.isEmpty() || to.isEmpty())
        return false;
    bool const done = fileNode_ && fileNode_->renameStream(copy_, from, to);
    bool const result = commit(link) && done;
    if (result) {
        std::erase_if(replaced_, [&](Replaced const& entry) { return sameStream(entry.name, to); });
        for (Replaced& entry : replaced_)
            if (sameStream(entry.name, from))
                entry.name = to;
    }
    return result;
}

bool ActiveHandle::renameStream(LinkId link, StreamHandle const& stream, QString const& to) {
    StreamPointer keep;
    if (!fileNode_ || to.isEmpty())
        return false;
    StreamHandle const& target = current(stream, keep);
    QString const from = fileNode_->streamName(target.id());
    if (!from.isEmpty())
        return renameStream(link, from, to);
    return fileNode_->renameStream(copy_, target, to);
}

bool ActiveHandle::replaceStream(LinkId link, StreamHandle const& from, StreamPointer const& to) {
    if (!fileNode_)
        return false;
    StreamPointer keep;
    StreamHandle const& source = current(from, keep);
    QString const name = fileNode_->streamName(source.id());
    StreamPointer const before = fileNode_->openStream(name);
    bool const done = fileNode_->replaceStream(copy_, source, to);
    bool const result = commit(link) && done;
    if (result)
        replaced(before, name);
    return result;
}

void ActiveHandle::closeStream(QString const& name) {
    std::erase_if(replaced_, [&](Replaced const& entry) {
        return entry.handle.expired() && sameStream(entry.name, name);
    });
}

// --- links and attributes

std::uint32_t ActiveHandle::removeLink(LinkId link) {
    if (!fileNode_)
        return 0;
    std::uint32_t const result = fileNode_->removeLink(copy_);
    return commit(link) ? result : fileNode_->linkCount();
}

LinkId ActiveHandle::addLink(LinkId link, bool keepLiveOnly) {
    if (!fileNode_)
        return {};
    LinkId const result = fileNode_->addLink(copy_, keepLiveOnly);
    return commit(link) ? result : LinkId{};
}

bool ActiveHandle::owner(LinkId link, QString const& text) {
    bool const result = fileNode_ && fileNode_->owner(copy_, text);
    return commit(link) && result;
}

bool ActiveHandle::attributes(LinkId link, std::uint32_t value) {
    bool const result = fileNode_ && fileNode_->attributes(copy_, value);
    return commit(link) && result;
}

void ActiveHandle::liveOnly(LinkId link, bool value) {
    if (!fileNode_)
        return;
    fileNode_->liveOnly(copy_, value);
    (void)commit(link);
}

bool ActiveHandle::attr(LinkId link, bool setModified, std::uint32_t modified, bool setCreated,
                        std::uint32_t created, bool setAttributes, std::uint32_t attributes) {
    bool const result = fileNode_ && fileNode_->attr(copy_, setModified, modified, setCreated,
                                                     created, setAttributes, attributes);
    return commit(link) && result;
}

// --- reading

std::uint32_t ActiveHandle::linkCount() const {
    return fileNode_ ? fileNode_->linkCount() : 0;
}

bool ActiveHandle::notLinked() const {
    return fileNode_ && fileNode_->notLinked();
}

NodeTimes ActiveHandle::times() const {
    return fileNode_ ? fileNode_->times() : NodeTimes{};
}

std::uint64_t ActiveHandle::size(QString const& stream) const {
    return fileNode_ ? fileNode_->size(stream) : 0;
}

std::vector<StreamRecord> ActiveHandle::streamList() const {
    return fileNode_ ? fileNode_->streamList() : std::vector<StreamRecord>{};
}

QStringList ActiveHandle::namedAttributes() const {
    QStringList result;
    for (StreamRecord const& stream : streamList())
        if (!sameStream(stream.name, dataStreamName))
            result.append(stream.name);
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
