// Names change while files are open: renames, links, deletions.

#include "base/trace/Trace.h"
#include "replication/repository/replay/RepositoryWindows.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/OperationGate.h"
#include "replication/repository/streams/StreamHandle.h"

namespace Replication {

using Morva::Status;

namespace {

/// Whether a path is that of something in a directory, at any depth.
bool isBelow(Directories const& names, QStringList const& path, QStringList const& directory) {
    if (path.size() <= directory.size())
        return false;
    for (qsizetype i = 0; i < directory.size(); ++i)
        if (names.normal(path[i]) != names.normal(directory[i]))
            return false;
    return true;
}

} // namespace

// --- handles

RepositoryWindows::Handles RepositoryWindows::allHandles() {
    Handles result;
    for (auto const* table : {&openHandles(), &closedHandles()})
        for (auto const& each : *table)
            result.push_back(std::static_pointer_cast<SinkHandle>(each));
    return result;
}

RepositoryWindows::SinkHandlePointer RepositoryWindows::validHandle(LogEntry const& log) {
    auto known = handle(log.fileId());
    noteUnknown(log, *known);
    return known->type == SinkHandle::Valid ? known : nullptr;
}

std::optional<DirKey> RepositoryWindows::entryOf(SinkHandle const& handle) {
    auto const& active = handle.activeHandle;
    if (active->id() == store().rootId())
        return DirKey::root(store().rootId());
    auto const link = active->links().constFind(handle.link);
    if (link == active->links().constEnd())
        return std::nullopt;
    DirKey key(link->key.directoryId(), link->key.name(), 0);
    if (!worked(store().directories().find(key)) || key.fileId() != active->id() ||
        key.link() != handle.link)
        return std::nullopt;
    return key;
}

bool RepositoryWindows::sameStream(QString const& a, QString const& b) const {
    return a.compare(b, Qt::CaseInsensitive) == 0;
}

bool RepositoryWindows::isNamed(SinkHandle const& handle) const {
    return !sameStream(handle.stream, dataStreamName);
}

void RepositoryWindows::detach(SinkHandle& handle, SinkHandle::Type type) {
    handle.type = type;
    auto const& node = handle.activeHandle->fileNode();
    handle.flags = node && node->isDirectory() ? directoryHandle : 0;
    handle.streamHandle.reset();
    handle.activeHandle.reset();
}

void RepositoryWindows::follow(SinkHandle& moved, QStringList const& from, QStringList const& to) {
    auto const set = [&to](SinkHandle& handle) {
        handle.parent = to.first(to.size() - 1);
        handle.name = to.last();
    };
    auto const& file = moved.activeHandle;
    auto const isDirectory = file->fileNode()->isDirectory();
    auto const& names = store().directories();
    set(moved);
    if (!isDirectory && file.use_count() == 1)
        return;
    for (auto const& each : allHandles()) {
        if (each->type != SinkHandle::Valid)
            continue;
        if (each->activeHandle == file && each->link == moved.link)
            set(*each);
        else if (isDirectory && isBelow(names, pathOf(*each), from))
            each->parent = to + each->parent.sliced(from.size());
    }
}

void RepositoryWindows::dropNameless(SinkHandle::Type type) {
    for (auto const& each : allHandles())
        if (each->type == SinkHandle::Valid && each->activeHandle->linkCount() == 0)
            detach(*each, type);
}

void RepositoryWindows::dropLostStreams(ActiveHandle const& file) {
    for (auto const& each : allHandles())
        if (each->type == SinkHandle::Valid && each->activeHandle.get() == &file &&
            isNamed(*each) && !file.fileNode()->exists(each->stream))
            detach(*each, SinkHandle::Unknown);
}

Status RepositoryWindows::exclusionsChanged() {
    auto applied = Sink::exclusionsChanged();
    dropNameless(SinkHandle::Excluded);
    return applied;
}

// --- deletions at close

bool RepositoryWindows::inUse(SinkHandlePointer const& marked) {
    for (auto const* table : {&openHandles(), &closedHandles()})
        for (auto const& each : *table) {
            auto const& other = static_cast<SinkHandle const&>(*each);
            if (other.activeHandle == marked->activeHandle && other.link == marked->link &&
                (!isNamed(*marked) || sameStream(other.stream, marked->stream)))
                return true;
        }
    return false;
}

bool RepositoryWindows::remove(SinkHandle const& marked) {
    auto& file = *marked.activeHandle;
    bool done = true;
    if (isNamed(marked)) {
        done = !file.fileNode()->exists(marked.stream) ||
               worked(file.removeStream(marked.link, marked.stream));
        dropLostStreams(file);
    } else if (auto entry = entryOf(marked)) {
        done = worked(store().directories().unlink(*entry, file, dataStreamName));
        if (file.fileNode()->isDirectory())
            dropNameless(SinkHandle::Unknown);
    }
    if (done)
        return true;
    MORVA_TRACE(Always) << "Failed to unlink OpenSeqNo" << pathOf(marked).join(u'/');
    askFor(pathOf(marked));
    return false;
}

bool RepositoryWindows::finishDeletions(std::function<bool(SinkHandle const&)> const& fits,
                                        bool also) {
    Handles due;
    std::erase_if(deletions_, [&](SinkHandlePointer const& marked) {
        if (!marked->activeHandle)
            return true; // it lost its file meanwhile
        if (!fits(*marked) || (!also && inUse(marked)))
            return false;
        due.push_back(marked);
        return true;
    });
    bool done = true;
    for (auto const& marked : due)
        if (marked->activeHandle)
            done = remove(*marked) && done;
    return done;
}

Status RepositoryWindows::dropHandles() {
    OperationGate::Enter const entered;
    auto const done = finishDeletions([](SinkHandle const&) { return true; }, true);
    MORVA_TRY(Sink::dropHandles());
    return done ? Status()
                : Status::failure(Status::Code::IoError, "delete files at their close",
                                  store().path());
}

void RepositoryWindows::forgetHandles() {
    deletions_.clear();
    Sink::forgetHandles();
}

void RepositoryWindows::saveMore(SavedHandles& handles) {
    if (deletions_.empty())
        return;
    QHash<OpenHandle const*, std::uint32_t> numbers;
    for (auto const* table : {&openHandles(), &closedHandles()})
        for (auto each = table->cbegin(); each != table->cend(); ++each)
            numbers.insert(each->get(), each.key());
    std::uint32_t place = 0;
    for (auto const& marked : deletions_) {
        auto const number = numbers.constFind(marked.get());
        handles.deletion(place++, *marked,
                         number == numbers.cend() ? std::nullopt : std::optional(*number));
    }
}

Status RepositoryWindows::takeUpMore(SavedHandles& handles) {
    return handles.deletions([this](std::optional<std::uint32_t> fileId,
                                    SinkHandlePointer const& saved) {
        auto known = saved;
        if (fileId) {
            auto const open = openHandles().value(*fileId);
            known =
                std::static_pointer_cast<SinkHandle>(open ? open : closedHandles().value(*fileId));
        }
        if (known && known->type == SinkHandle::Valid)
            deletions_.push_back(known);
    });
}

QList<QStringList> RepositoryWindows::pathsOf(LogEntry const& log) {
    QList<QStringList> paths;
    if (!log.fileText().empty())
        if (auto const where = target(log, (log.flags() & logFlagDirectory) != 0);
            where.space == Space::Inside)
            paths += where.path;
    // What is renamed has an old name too.
    if (log.type() == LogType::WinRename)
        if (auto const known = handle(log.fileId()); !known->name.isEmpty())
            paths += pathOf(*known);
    return paths;
}

void RepositoryWindows::finishDeletionsOf(FileId file) {
    (void)finishDeletions( // a path that failed has been asked for
        [&](SinkHandle const& marked) { return marked.activeHandle->id() == file; }, true);
}

void RepositoryWindows::finishDeletionsAt(SinkHandle const* closed) {
    // Handles that were set aside end without a close: a number that isn't known may be theirs.
    (void)finishDeletions( // a path that failed has been asked for
        [&](SinkHandle const& marked) {
            return !closed || closed->activeHandle == marked.activeHandle;
        },
        false);
}

// --- renames

bool RepositoryWindows::opRenameWin(LogEntry const& log) {
    MORVA_METHOD("opRenameWin");
    auto const old = handle(log.fileId());
    auto const valid = old->type == SinkHandle::Valid;
    auto const isDirectory =
        valid ? old->activeHandle->fileNode()->isDirectory()
              : (log.flags() & logFlagDirectory) != 0 || (old->flags & directoryHandle) != 0;
    auto const to = target(log, isDirectory);
    if (to.unnameable)
        return scope.result(renameInvalid(log, *old, to, isDirectory));
    if (valid && to.space == Space::Inside)
        return scope.result(renameInside(log, old, to));
    if (valid)
        return scope.result(removeRenamed(log, old, to));
    if (to.space != Space::Outside) {
        MORVA_TRACE(Normal) << (old->type == SinkHandle::Unknown
                                    ? "Rename into replication space"
                                    : "Rename - nonValid file in replication space")
                            << to.path.join(u'/');
        if (to.space == Space::Inside)
            askFor(to.path);
        enterAbsent(log, SinkHandle::Unknown, isDirectory);
    } else if (old->type == SinkHandle::Excluded) {
        MORVA_TRACE(Normal) << "Rename - excluded file out of replication space";
        MORVA_TRACE(Debug) << (removeHandle(log.fileId())
                                   ? "Close excluded renamed out of scope OpenSeqNo"
                                   : "Failed to close excluded renamed out of scope OpenSeqNo")
                           << log.fileId();
    }
    return scope.result(true);
}

bool RepositoryWindows::renameInvalid(LogEntry const& log, SinkHandle const& old, Target const& to,
                                      bool isDirectory) {
    MORVA_TRACE(Always) << "Failed to translate to path" << log.to();
    // The old name has gone at the source, and the new one is somewhere below.
    if (old.type == SinkHandle::Valid)
        askFor(pathOf(old));
    askFor(to.path);
    enterAbsent(log, SinkHandle::Unknown, isDirectory);
    return true;
}

bool RepositoryWindows::removeRenamed(LogEntry const& log, SinkHandlePointer const& old,
                                      Target const& to) {
    auto const excluded = to.space == Space::Excluded;
    MORVA_TRACE(Normal) << (excluded ? "Rename - to excluded name, remove it"
                                     : "Rename - out of replication space, remove it")
                        << pathOf(*old).join(u'/');
    auto const keep = old->activeHandle; // the handles go with the name
    auto entry = entryOf(*old);
    if (entry && !worked(store().directories().unlink(*entry, *keep, dataStreamName))) {
        MORVA_TRACE(Always) << "Failed to delete file" << pathOf(*old).join(u'/');
        return false;
    }
    MORVA_TRACE(Debug) << "Writes" << old->id
                       << (excluded ? "Close renamed to excluded OpenSeqNo"
                                    : "Close renamed out of scope OpenSeqNo")
                       << log.fileId();
    auto const type = excluded ? SinkHandle::Excluded : SinkHandle::Unknown;
    dropNameless(type);
    // The source goes on writing to it, and that still shows under its other names.
    if (keep->linkCount() == 0)
        enterAbsent(log, type, keep->fileNode()->isDirectory());
    return true;
}

FileContext RepositoryWindows::renameContext(LogEntry const& log, Target const& to) const {
    auto result = context(log, to.path, to.opType);
    auto const rules = log.rules();
    auto const count = log.targetRuleCount();
    MORVA_TRACE(Debug) << "Rename TargetRuleCount" << count << "rules" << rules.size();
    if (count >= rules.size() || result.rules.empty())
        return result;
    // The rules of the new name stand first; behind them are those of the old one alone.
    MORVA_TRACE(Debug) << "but only" << count;
    result.rules.assign(rules.begin(), rules.begin() + count);
    if (!filterRules(result.rules, to.path))
        result.ruleSet = 0;
    return result;
}

bool RepositoryWindows::renameInside(LogEntry const& log, SinkHandlePointer const& old,
                                     Target const& to) {
    MORVA_TRACE(Debug) << "Rename - inside replication space" << to.path.join(u'/');
    if (isNamed(*old) || to.stream != dataStreamName)
        return renameStream(log, *old, to);
    auto const from = pathOf(*old);
    auto const entry = entryOf(*old);
    auto const& names = store().directories();
    if (!entry || to.path.isEmpty() || isBelow(names, to.path, from) ||
        isBelow(names, from, to.path)) {
        // The store has lost the file, or what has the new name.
        detach(*old, SinkHandle::Unknown);
        askFor(log, *old, "Failed to rename");
        askFor(to.path);
        return true;
    }
    auto const context = renameContext(log, to);
    auto const there = valueOf(store().directories().locate(to.path, PathMode::DoNotBuildPath));
    auto const otherName =
        there.found && there.key.fileId() == entry->fileId() && !there.key.sameName(*entry);
    if ((otherName && !worked(store().paths().unlink(context, to.path))) ||
        !worked(store().paths().rename(context, notToBackup(), from, to.path))) {
        MORVA_TRACE(Always) << "Failed to rename" << from.join(u'/') << to.path.join(u'/')
                            << "Failed to rename OpenSeqNo" << log.fileId();
        return false;
    }
    follow(*old, from, to.path);
    // What the exclusions say of the new place may have taken names below away.
    if (old->activeHandle->fileNode()->isDirectory() && !notToBackup().empty())
        dropNameless(SinkHandle::Excluded);
    MORVA_TRACE(Debug) << "Renamed OpenSeqNo" << log.fileId();
    return true;
}

bool RepositoryWindows::renameStream(LogEntry const& log, SinkHandle& old, Target const& to) {
    auto& file = *old.activeHandle;
    if (isNamed(old) && to.stream != dataStreamName) {
        if (sameStream(old.stream, to.stream) ||
            worked(file.renameStream(old.link, old.stream, to.stream))) {
            auto const from = old.stream;
            for (auto const& each : allHandles()) {
                if (each->activeHandle.get() != &file)
                    continue;
                if (sameStream(each->stream, from))
                    each->stream = to.stream;
                else if (sameStream(each->stream, to.stream))
                    detach(*each, SinkHandle::Unknown);
            }
            MORVA_TRACE(Debug) << "Renamed OpenSeqNo" << log.fileId() << to.stream;
            return true;
        }
    }
    // What is left of the file where a stream became its main one is known at the source alone.
    return askFor(log, old, "Failed to rename");
}

bool RepositoryWindows::opLinkWin(LogEntry const& log) {
    MORVA_METHOD("opLinkWin");
    auto const old = handle(log.fileId());
    auto const to = target(log, false);
    if (to.space != Space::Inside) {
        if (to.space == Space::Outside)
            MORVA_TRACE(Normal) << "Failed to translate to path" << log.to();
        return scope.result(true);
    }
    if (old->type != SinkHandle::Valid) {
        MORVA_TRACE(Normal) << "Link - excluded file in replication space" << to.path.join(u'/');
        askFor(to.path);
        return scope.result(true);
    }
    MORVA_TRACE(Debug) << "Link - inside replication space" << to.path.join(u'/');
    auto entry = entryOf(*old);
    if (!entry || entry->isDirectory() || to.path.isEmpty()) {
        askFor(log, *old, "Failed to link");
        askFor(to.path);
        return scope.result(true);
    }
    auto const context = this->context(log, to.path, to.opType);
    auto const name = freeName(context, to.path, entry->fileId());
    if (name == Name::Present ||
        (name == Name::Free && worked(store().directories().link(context.opType, *entry, to.path))))
        return scope.result(true);
    MORVA_TRACE(Always) << "Failed to link" << to.path.join(u'/') << "Failed to link OpenSeqNo"
                        << log.fileId();
    return scope.result(false);
}

} // namespace Replication
