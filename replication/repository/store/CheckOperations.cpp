// Exclusion rules applied to what is stored.

#include "base/trace/Trace.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Event.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/store/WriterScope.h"

#include <unordered_set>
#include <utility>
#include <vector>

namespace Replication {

/// Where the walk of one directory stands, between two looks at its page.
struct Directories::CheckFrame {
    CheckFrame(FileId directory, NotToBackup::Expressions rulesOfFiles)
        : id(directory), files(std::move(rulesOfFiles)) {}

    FileId id;
    NotToBackup::Expressions files;
    std::uint64_t page = 0;
    std::uint32_t offset = 0;
    FileId child;      ///< the directory to go down to
    QString childName; ///< as it is spelled
};

void Directories::checkOperations(NotToBackup const& rules, ActiveHandle& directory,
                                  QStringList& path) {
    MORVA_METHOD("checkOperations");
    WriterScope writer(writer_);
    if (!directory.fileNode() || !directory.fileNode()->isDirectory()) {
        MORVA_TRACE(Always) << "Not a directory" << Morva::hex << directory.id();
        return;
    }
    std::vector<CheckFrame> stack;
    std::unordered_set<FileId> onStack;
    auto const push = [&](FileId id) {
        MORVA_TRACE(Verbose) << "Check" << path.join(QLatin1Char('/'));
        stack.emplace_back(id, rules.expressions(path));
        onStack.insert(id);
    };
    push(directory.id());
    while (!stack.empty()) {
        CheckFrame& frame = stack.back();
        if (checkPages(rules, frame, path) == Step::Descend) {
            if (!onStack.contains(frame.child)) {
                path.append(frame.childName);
                push(frame.child);
            }
            continue;
        }
        onStack.erase(frame.id);
        stack.pop_back();
        if (!stack.empty())
            path.removeLast();
    }
}

Directories::Step Directories::checkPages(NotToBackup const& rules, CheckFrame& frame,
                                          QStringList& path) {
    if (!store_.settle())
        return Step::Failed;
    OpenDirectories::Pointer const open = open_.get(frame.id, "checkOperations");
    if (!open)
        return Step::Failed;
    for (; frame.page < open->pages(); ++frame.page, frame.offset = 0) {
        PageContext const context{"checkOperations", frame.id, frame.page, open->pages(), {}};
        std::uint8_t* const page = open->readPage(frame.page);
        if (!page) {
            DirectoryPage::traceFailedRead(context);
            return Step::Failed;
        }
        Check check{rules, frame, path};
        PageEdit edit(page);
        while (!check.descend && !check.failed && edit.next()) {
            if (edit.offset() < frame.offset || !edit.entry().inUse())
                continue;
            DirectoryEntry entry = edit.entry();
            frame.offset = edit.offset() + entry.entryLength();
            if (checkEntry(check, *open, entry))
                edit.remove();
        }
        if (edit.invalid())
            DirectoryPage::traceInvalid(context, page, edit.offset());
        // Objects and keys have changed, so the entries follow in any case.
        if (check.dirty)
            finishPage(*open);
        if (check.failed || !store_.settle())
            return Step::Failed;
        if (check.descend)
            return Step::Descend;
    }
    return Step::Done;
}

/// True when the entry's object is gone, and the entry is to go.
bool Directories::checkEntry(Check& check, OpenDirectory& open, DirectoryEntry& entry) {
    QString const name = entry.name().toString();
    DirKey key = this->key(check.frame.id, name);
    if (!find(key))
        return false;
    bool const bContinue = key.fileId() == entry.fileId();
    if (!bContinue)
        MORVA_TRACE(Always) << "BTree does not match entry" << name;
    MORVA_CHECK(bContinue, "bContinue");
    if (!bContinue)
        return false;
    NotToBackup::OpType opType = NotToBackup::eNothing;
    if (key.isDirectory()) {
        check.path.append(name);
        opType = check.rules.directoryOpType(check.path);
        check.path.removeLast();
    } else {
        opType = check.frame.files.opType(name);
    }
    if (opType == NotToBackup::eInvalid)
        MORVA_TRACE(Always) << "Should not get here, treat as eNothing" << name;
    if (opType == NotToBackup::eExcluded) {
        // What was changed on this page so far is written before another directory changes.
        if (key.isDirectory() && std::exchange(check.dirty, false)) {
            finishPage(open);
            // An image that waits to be written must not meet later changes of its page.
            check.failed = !store_.settle();
            if (check.failed)
                return false;
        }
        bool const gone = checkRemove(key);
        check.dirty = check.dirty || gone;
        return gone;
    }
    bool const liveOnly = opType == NotToBackup::eLiveOnly;
    if (key.liveOnly() != liveOnly && checkLiveOnly(key, name, liveOnly)) {
        entry.liveOnly(liveOnly);
        check.dirty = true;
    }
    if (key.isDirectory()) {
        check.frame.child = key.fileId();
        check.frame.childName = name;
        check.descend = true;
    }
    return false;
}

bool Directories::checkRemove(DirKey& key) {
    if (key.isDirectory()) {
        ActiveHandle::Pointer const handle = store_.activeHandles().get(key.fileId());
        if (!handle || !discardDirectory(*handle)) {
            MORVA_TRACE(Always) << "Failed to discard directory" << key.name();
            return false;
        }
        if (!find(key)) {
            MORVA_TRACE(Always) << "Lost entry out of BTree" << key.name();
            return false;
        }
    }
    if (!treeRemove(key)) {
        MORVA_TRACE(Always) << "!!!!!!! BTree failed to remove" << key.name();
        return false;
    }
    MORVA_TRACE(Debug) << "BTree Removed" << key.name();
    dropObject(key);
    return true;
}

bool Directories::checkLiveOnly(DirKey& key, QString const& name, bool value) {
    ActiveHandle::Pointer const handle = store_.activeHandles().get(key.fileId());
    if (!handle) {
        MORVA_TRACE(Always) << "Failed to open" << name;
        return false;
    }
    handle->liveOnly(key.link(), value);
    key.liveOnly(value);
    if (!treeUpdate(key)) {
        MORVA_TRACE(Always) << "!!!!!!! BTree failed to update" << key.name();
        return false;
    }
    MORVA_TRACE(Debug) << "BTree update" << key.name();
    store_.control().countName(key.type(), !value);
    tellLiveOnly(*handle, key, name);
    return true;
}

} // namespace Replication
