// Removing all that is in a directory. The walk keeps its own stack of frames, since a tree of
// names can be thousands of levels deep.

#include "base/trace/Trace.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/store/WriterScope.h"

#include <unordered_set>
#include <vector>

namespace Replication {

using Morva::Result;
using Morva::Status;

/// Where the walk of one directory stands, between two looks at its page.
struct Directories::DiscardFrame {
    explicit DiscardFrame(FileId directory) : id(directory) {}

    FileId id;
    std::uint64_t page = 0;
    std::uint32_t offset = 0;
    FileId child;           ///< the directory at `offset`, to be emptied first
    bool childDone = false; ///< which has been done
    Morva::Status failure;  ///< what can't be removed, the first of it
};

Status Directories::discardDirectory(ActiveHandle& directory) {
    MORVA_METHOD("discardDirectory");
    WriterScope writer(writer_);
    if (!directory.fileNode() || !directory.fileNode()->isDirectory()) {
        MORVA_TRACE(Always) << "Not a directory" << Morva::hex << directory.id();
        return misfit("remove", QString(), "it is no directory");
    }
    std::vector<DiscardFrame> stack;
    std::unordered_set<FileId> onStack;
    stack.emplace_back(directory.id());
    onStack.insert(directory.id());
    while (true) {
        DiscardFrame& frame = stack.back();
        Result<Step> const step = discardPages(frame);
        if (!step) {
            frame.failure.update(step.status());
        } else if (*step == Step::Descend) {
            if (onStack.insert(frame.child).second) {
                stack.emplace_back(frame.child);
                continue;
            }
            MORVA_TRACE(Always) << "Directory is its own parent" << Morva::hex << frame.child;
            frame.failure.update(damaged("remove", QString(), "a directory is its own parent"));
        }
        MORVA_CHECK(frame.failure.ok(), "bContinue");
        if (!frame.failure) {
            for (std::size_t level = 1; level < stack.size(); ++level)
                MORVA_TRACE(Always)
                    << "Failed to discard directory" << Morva::hex << stack[level].id;
            return frame.failure;
        }
        onStack.erase(frame.id);
        stack.pop_back();
        if (stack.empty())
            return {};
        stack.back().childDone = true;
    }
}

Result<Directories::Step> Directories::discardPages(DiscardFrame& frame) {
    MORVA_TRY(store_.settle());
    Result<OpenDirectories::Pointer> const opened = open_.get(frame.id, "discardDirectory");
    if (!opened) {
        MORVA_TRACE(Always) << "Failed to open data stream of directory" << Morva::hex << frame.id;
        return opened.status();
    }
    OpenDirectory& open = **opened;
    for (; frame.page < open.pages(); ++frame.page, frame.offset = 0) {
        PageContext const context{"discardDirectory", frame.id, frame.page, open.pages(), {}};
        Result<std::uint8_t*> const page = open.readPage(frame.page);
        if (!page) {
            DirectoryPage::traceFailedRead(context);
            return page.status();
        }
        bool dirty = false;
        bool descend = false;
        Status status;
        PageEdit edit(*page);
        while (status && !descend && edit.next()) {
            DirectoryEntry const entry = edit.entry();
            if (edit.offset() < frame.offset)
                continue;
            Result<bool> const gone = entry.free() ? Result<bool>(edit.hasBefore())
                                      : entry.inUse()
                                          ? discardEntry(frame, entry, edit.offset(), descend)
                                          : Result<bool>(false);
            status = gone.status();
            if (status && *gone) {
                edit.remove();
                dirty = true;
            }
        }
        if (edit.invalid()) {
            DirectoryPage::traceInvalid(context, *page, edit.offset());
            frame.failure.update(damaged("remove", QString(), "an entry is invalid"));
        }
        // The objects are gone, so the entries go in any case.
        if (dirty)
            finishPage(open);
        MORVA_TRY(std::move(status));
        MORVA_TRY(store_.settle());
        if (descend)
            return Step::Descend;
    }
    return Step::Done;
}

/// True when the entry's object is gone, and the entry is to go.
Result<bool> Directories::discardEntry(DiscardFrame& frame, DirectoryEntry const& entry,
                                       std::uint32_t offset, bool& descend) {
    QString const name = entry.name().toString();
    DirKey key = this->key(frame.id, name);
    MORVA_TRY_LET(bool const found, find(key));
    bool const childDone = std::exchange(frame.childDone, false);
    if (!found) {
        char const* const what =
            childDone ? "Lost entry out of BTree" : "BTree does not contain entry";
        MORVA_TRACE(Always) << what << name;
        frame.failure.update(damaged("remove", name, what));
        return false;
    }
    if (key.fileId() != entry.fileId()) {
        MORVA_TRACE(Always) << "BTree does not match entry" << name;
        frame.failure.update(damaged("remove", name, "BTree does not match entry"));
        return false;
    }
    if (key.isDirectory() && !childDone) {
        frame.offset = offset;
        frame.child = key.fileId();
        descend = true;
        return false;
    }
    MORVA_TRACE(Testing) << "Delete" << name;
    if (Status status = treeRemove(key); !status) {
        MORVA_TRACE(Always) << "!!!!!!! Failed to remove from tree" << name;
        return status;
    }
    MORVA_TRACE(Debug) << "Removed from tree" << name;
    dropObject(key);
    return true;
}

} // namespace Replication
