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

using Morva::Result;
using Morva::Status;

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

Status Directories::checkOperations(NotToBackup const& rules, ActiveHandle& directory,
                                    QStringList& path) {
    MORVA_METHOD("checkOperations");
    WriterScope writer(writer_);
    if (!directory.fileNode() || !directory.fileNode()->isDirectory()) {
        MORVA_TRACE(Always) << "Not a directory" << Morva::hex << directory.id();
        return misfit("apply rules", path.join(QLatin1Char('/')), "it is no directory");
    }
    Status failure;
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
        Result<Step> const step = checkPages(rules, frame, path);
        failure.update(step.status());
        if (step && *step == Step::Descend) {
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
    return failure;
}

Result<Directories::Step> Directories::checkPages(NotToBackup const& rules, CheckFrame& frame,
                                                  QStringList& path) {
    MORVA_TRY(store_.settle());
    MORVA_TRY_LET(OpenDirectories::Pointer const open, open_.get(frame.id, "checkOperations"));
    for (; frame.page < open->pages(); ++frame.page, frame.offset = 0) {
        PageContext const context{"checkOperations", frame.id, frame.page, open->pages(), {}};
        Result<std::uint8_t*> const page = open->readPage(frame.page);
        if (!page) {
            DirectoryPage::traceFailedRead(context);
            return page.status();
        }
        Check check{rules, frame, path};
        Status status;
        PageEdit edit(*page);
        while (!check.descend && status && edit.next()) {
            if (edit.offset() < frame.offset || !edit.entry().inUse())
                continue;
            DirectoryEntry entry = edit.entry();
            frame.offset = edit.offset() + entry.entryLength();
            Result<bool> const gone = checkEntry(check, *open, entry);
            status = gone.status();
            if (status && *gone)
                edit.remove();
        }
        if (edit.invalid()) {
            DirectoryPage::traceInvalid(context, *page, edit.offset());
            status.update(
                damaged("apply rules", path.join(QLatin1Char('/')), "an entry is invalid"));
        }
        // Objects and keys have changed, so the entries follow in any case.
        if (check.dirty)
            finishPage(*open);
        MORVA_TRY(std::move(status));
        MORVA_TRY(store_.settle());
        if (check.descend)
            return Step::Descend;
    }
    return Step::Done;
}

/// True when the entry's object is gone, and the entry is to go.
Result<bool> Directories::checkEntry(Check& check, OpenDirectory& open, DirectoryEntry& entry) {
    QString const name = entry.name().toString();
    DirKey key = this->key(check.frame.id, name);
    MORVA_TRY_LET(bool const found, find(key));
    if (!found)
        return false;
    bool const bContinue = key.fileId() == entry.fileId();
    if (!bContinue)
        MORVA_TRACE(Always) << "BTree does not match entry" << name;
    MORVA_CHECK(bContinue, "bContinue");
    if (!bContinue)
        return damaged("apply rules", name, "BTree does not match entry");
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
            MORVA_TRY(store_.settle());
        }
        MORVA_TRY_LET(bool const gone, checkRemove(key));
        check.dirty = check.dirty || gone;
        return gone;
    }
    bool const liveOnly = opType == NotToBackup::eLiveOnly;
    if (key.liveOnly() != liveOnly) {
        MORVA_TRY(checkLiveOnly(key, name, liveOnly));
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

Result<bool> Directories::checkRemove(DirKey& key) {
    if (key.isDirectory()) {
        MORVA_TRY_LET(ActiveHandle::Pointer const handle,
                      store_.activeHandles().open(key.fileId()));
        if (Status status = discardDirectory(*handle); !status) {
            MORVA_TRACE(Always) << "Failed to discard directory" << key.name();
            return status;
        }
        MORVA_TRY_LET(bool const found, find(key));
        if (!found) {
            MORVA_TRACE(Always) << "Lost entry out of BTree" << key.name();
            return damaged("apply rules", key.name(), "Lost entry out of BTree");
        }
    }
    if (Status status = treeRemove(key); !status) {
        MORVA_TRACE(Always) << "!!!!!!! BTree failed to remove" << key.name();
        return status;
    }
    MORVA_TRACE(Debug) << "BTree Removed" << key.name();
    dropObject(key);
    return true;
}

Status Directories::checkLiveOnly(DirKey& key, QString const& name, bool value) {
    auto const handle = store_.activeHandles().open(key.fileId());
    if (!handle) {
        MORVA_TRACE(Always) << "Failed to open" << name;
        return handle.status();
    }
    DirKey before = key;
    key.liveOnly(value);
    if (Status status = treeUpdate(key); !status) {
        MORVA_TRACE(Always) << "!!!!!!! BTree failed to update" << key.name();
        return status;
    }
    if (Status status = (*handle)->liveOnly(key.link(), value); !status) {
        store_.unfinished().finish([this, before] { return treeUpdate(before); });
        return status;
    }
    MORVA_TRACE(Debug) << "BTree update" << key.name();
    store_.control().countName(key.type(), !value);
    tellLiveOnly(**handle, key, name);
    return {};
}

} // namespace Replication
