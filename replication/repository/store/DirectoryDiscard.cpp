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

/// Where the walk of one directory stands, between two looks at its page.
struct Directories::DiscardFrame {
    explicit DiscardFrame(FileId directory) : id(directory) {}

    FileId id;
    std::uint64_t page = 0;
    std::uint32_t offset = 0;
    FileId child;           ///< the directory at `offset`, to be emptied first
    bool childDone = false; ///< which has been done
    bool failed = false;
};

bool Directories::discardDirectory(ActiveHandle& directory) {
    MORVA_METHOD("discardDirectory");
    WriterScope writer(writer_);
    if (!directory.fileNode() || !directory.fileNode()->isDirectory()) {
        MORVA_TRACE(Always) << "Not a directory" << Morva::hex << directory.id();
        return false;
    }
    std::vector<DiscardFrame> stack;
    std::unordered_set<FileId> onStack;
    stack.emplace_back(directory.id());
    onStack.insert(directory.id());
    while (true) {
        DiscardFrame& frame = stack.back();
        Step step = discardPages(frame);
        if (step == Step::Descend) {
            if (onStack.insert(frame.child).second) {
                stack.emplace_back(frame.child);
                continue;
            }
            MORVA_TRACE(Always) << "Directory is its own parent" << Morva::hex << frame.child;
            step = Step::Failed;
        }
        MORVA_CHECK(!frame.failed, "bContinue");
        if (step == Step::Failed || frame.failed) {
            for (std::size_t level = 1; level < stack.size(); ++level)
                MORVA_TRACE(Always)
                    << "Failed to discard directory" << Morva::hex << stack[level].id;
            return false;
        }
        onStack.erase(frame.id);
        stack.pop_back();
        if (stack.empty())
            return scope.result(true);
        stack.back().childDone = true;
    }
}

Directories::Step Directories::discardPages(DiscardFrame& frame) {
    if (!store_.settle())
        return Step::Failed;
    OpenDirectories::Pointer const open = open_.get(frame.id, "discardDirectory");
    if (!open) {
        MORVA_TRACE(Always) << "Failed to open data stream of directory" << Morva::hex << frame.id;
        return Step::Failed;
    }
    for (; frame.page < open->pages(); ++frame.page, frame.offset = 0) {
        PageContext const context{"discardDirectory", frame.id, frame.page, open->pages(), {}};
        std::uint8_t* const page = open->readPage(frame.page);
        if (!page) {
            DirectoryPage::traceFailedRead(context);
            return Step::Failed;
        }
        bool dirty = false;
        bool descend = false;
        PageEdit edit(page);
        while (!descend && edit.next()) {
            if (edit.offset() < frame.offset)
                continue;
            DirectoryEntry const entry = edit.entry();
            bool const gone =
                entry.free() ? edit.hasBefore()
                             : entry.inUse() && discardEntry(frame, entry, edit.offset(), descend);
            if (gone) {
                edit.remove();
                dirty = true;
            }
        }
        if (edit.invalid()) {
            DirectoryPage::traceInvalid(context, page, edit.offset());
            frame.failed = true;
        }
        // The objects are gone, so the entries go in any case.
        if (dirty)
            finishPage(*open);
        if (!store_.settle())
            return Step::Failed;
        if (descend)
            return Step::Descend;
    }
    return Step::Done;
}

/// True when the entry's object is gone, and the entry is to go.
bool Directories::discardEntry(DiscardFrame& frame, DirectoryEntry const& entry,
                               std::uint32_t offset, bool& descend) {
    QString const name = entry.name().toString();
    DirKey key = this->key(frame.id, name);
    bool const childDone = std::exchange(frame.childDone, false);
    if (!find(key)) {
        MORVA_TRACE(Always) << (childDone ? "Lost entry out of BTree"
                                          : "BTree does not contain entry")
                            << name;
        frame.failed = true;
        return false;
    }
    if (key.fileId() != entry.fileId()) {
        MORVA_TRACE(Always) << "BTree does not match entry" << name;
        frame.failed = true;
        return false;
    }
    if (key.isDirectory() && !childDone) {
        frame.offset = offset;
        frame.child = key.fileId();
        descend = true;
        return false;
    }
    MORVA_TRACE(Testing) << "Delete" << name;
    if (!treeRemove(key)) {
        MORVA_TRACE(Always) << "!!!!!!! Failed to remove from tree" << name;
        frame.failed = true;
        return false;
    }
    MORVA_TRACE(Debug) << "Removed from tree" << name;
    dropObject(key);
    return true;
}

} // namespace Replication
