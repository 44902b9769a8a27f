#pragma once

#include "replication/common/log/LogTypes.h"
#include "replication/common/values/WindowsObject.h"
#include "replication/repository/replay/Sink.h"

#include <functional>
#include <optional>
#include <vector>

namespace Replication {

/// The sink of Windows sources. A file is named when it is opened, under a number that all later
/// logs on it use; names are compared without case and keep their spelling.
///
/// What is wrong with one path (a file that the store hasn't got, a name that can't be stored, a
/// damaged value) asks for a partial resynchronisation of that path and doesn't fail the log; only
/// a failing store does.
///
/// A deletion is noted at its log and done when the last handle on what goes is closed, as at the
/// source, which can use the other handles until then.
class RepositoryWindows : public Sink {
public:
    using Sink::Sink;

    [[nodiscard]] Morva::Status exclusionsChanged() override;

protected:
    /// Also does the deletions that wait for a close: the source's handles are gone.
    [[nodiscard]] Morva::Status dropHandles() override;
    void forgetHandles() override;
    void saveMore(SavedHandles& handles) override;
    [[nodiscard]] Morva::Status takeUpMore(SavedHandles& handles) override;
    [[nodiscard]] QList<QStringList> pathsOf(LogEntry const& log) override;

private:
    /// Where a logged path lies, and which stream of the file it names.
    struct Target : Place {
        QString stream;
        /// Outside, since one of its names can't be stored; `path` is what comes before that name.
        bool unnameable = false;
    };
    /// What a create or reopen asks for.
    struct Opening {
        Target target;
        FileContext context;
        NotToBackup::OpType answer = NotToBackup::eInvalid; ///< eInvalid: not asked
        std::uint32_t options = 0;
        std::uint32_t attributes = 0;
        bool exists = true; ///< existed at the source before
        bool isDirectory = false;

        [[nodiscard]] WinDisposition disposition() const {
            return static_cast<WinDisposition>(options >> winDispositionShift);
        }
    };
    using Handles = std::vector<SinkHandlePointer>;
    /// Of a handle's flags: what is not stored is a directory.
    static constexpr std::uint32_t directoryHandle = 1;

    [[nodiscard]] bool replayBody(LogEntry const& log) override;

    // Paths (RepositoryWindows.cpp).

    /// The parts of a path below the source root and, in `out`, the name of its stream: "Data", or
    /// a name that begins with ':'. False for a path outside the root, and with `unnameable` for
    /// one that can't be stored.
    [[nodiscard]] bool translate(LogPath const& path, Target& out, QStringList& parts);
    [[nodiscard]] Target target(LogEntry const& log, bool isDirectory);
    [[nodiscard]] QString const& rootPrefix();
    [[nodiscard]] static QString streamName(LogPath const& path);
    /// Asks for a partial resynchronisation of a path, and tells the user when that is taken.
    void askFor(QStringList const& path);
    /// The same for the file of a handle, with what is wrong in the trace. True, for the caller to
    /// return.
    bool askFor(LogEntry const& log, SinkHandle const& handle, char const* fault);

    [[nodiscard]] bool opSymlinkWin(LogEntry const& log);
    [[nodiscard]] bool opResyncWin(LogEntry const& log);

    // Create and open (RepositoryWindowsOpen.cpp).

    [[nodiscard]] bool opCreateWin(LogEntry const& log);
    [[nodiscard]] bool opReOpenWin(LogEntry const& log);
    [[nodiscard]] bool opClose(LogEntry const& log);
    [[nodiscard]] bool opUnlinkWin(LogEntry const& log);
    /// Translates the path and asks the exclusions; false, with the number's handle entered or the
    /// fault traced, when there is nothing to open. `failed` tells which.
    [[nodiscard]] bool prepare(LogEntry const& log, Opening& opening, bool& failed);
    /// What the disposition makes of a file that existed. `create`: it is to be made after all.
    [[nodiscard]] SinkHandlePointer openExisting(Opening const& opening, bool& create);
    [[nodiscard]] SinkHandlePointer createNew(LogEntry const& log, Opening& opening);
    [[nodiscard]] PathOperations::NewFile newFile(LogEntry const& log, Opening const& opening);
    [[nodiscard]] SinkHandlePointer createAnyway(Opening const& opening);
    /// Enters a handle for a path that could not be opened.
    void enterFailed(LogEntry const& log, Opening const& opening);
    /// Enters a handle for what isn't stored.
    void enterAbsent(LogEntry const& log, SinkHandle::Type type, bool isDirectory);

    // Open files and names (RepositoryWindowsNames.cpp).

    [[nodiscard]] bool opRenameWin(LogEntry const& log);
    [[nodiscard]] bool opLinkWin(LogEntry const& log);
    [[nodiscard]] bool renameInside(LogEntry const& log, SinkHandlePointer const& old,
                                    Target const& to);
    [[nodiscard]] bool renameStream(LogEntry const& log, SinkHandle& old, Target const& to);
    [[nodiscard]] bool renameInvalid(LogEntry const& log, SinkHandle const& old, Target const& to,
                                     bool isDirectory);
    /// Takes the name of a file that left the store away and closes it.
    [[nodiscard]] bool removeRenamed(LogEntry const& log, SinkHandlePointer const& old,
                                     Target const& to);
    [[nodiscard]] FileContext renameContext(LogEntry const& log, Target const& to) const;

    /// All open handles, also those that were set aside.
    [[nodiscard]] Handles allHandles();
    /// The entry by which a valid handle was opened, as it is now; nothing when it is gone.
    [[nodiscard]] std::optional<DirKey> entryOf(SinkHandle const& handle);
    [[nodiscard]] bool isNamed(SinkHandle const& handle) const;
    [[nodiscard]] bool sameStream(QString const& a, QString const& b) const;
    /// The paths of the handles on what was moved follow it.
    void follow(SinkHandle& moved, QStringList const& from, QStringList const& to);
    /// Handles on files and streams that are gone stand for nothing any more.
    void dropNameless(SinkHandle::Type type);
    void dropLostStreams(ActiveHandle const& file);
    static void detach(SinkHandle& handle, SinkHandle::Type type);

    /// Whether another handle uses what a handle marked for deletion names.
    [[nodiscard]] bool inUse(SinkHandlePointer const& marked);
    /// Deletes what a marked handle names; false when that failed, and its path has been asked for.
    [[nodiscard]] bool remove(SinkHandle const& marked);
    /// Does the deletions that fit; those that a handle holds back only with `also`. False when one
    /// failed.
    [[nodiscard]] bool finishDeletions(std::function<bool(SinkHandle const&)> const& fits,
                                       bool also);
    /// Those of a file, whose name or stream comes anew: by now they have happened at the source.
    void finishDeletionsOf(FileId file);
    /// Those that waited for a handle that was closed; null: for one that isn't known.
    void finishDeletionsAt(SinkHandle const* closed);

    // Contents and attributes (RepositoryWindowsContent.cpp).

    [[nodiscard]] bool opWrite(LogEntry const& log);
    [[nodiscard]] bool opWritePathWin(LogEntry const& log);
    [[nodiscard]] bool opTruncateWin(LogEntry const& log);
    [[nodiscard]] bool truncatePath(LogEntry const& log);
    [[nodiscard]] bool opSetValidLengthWin(LogEntry const& log);
    [[nodiscard]] bool opSetFsctlWin(LogEntry const& log);
    [[nodiscard]] bool zeroData(LogEntry const& log, SinkHandle& handle, std::uint64_t start,
                                std::uint64_t end);
    [[nodiscard]] bool opSetAttrWin(LogEntry const& log);
    [[nodiscard]] bool opSetSecurityWin(LogEntry const& log);
    [[nodiscard]] bool opSetEaWin(LogEntry const& log);
    /// The valid handle of the log's number; null for another, whose logs are passed over.
    [[nodiscard]] SinkHandlePointer validHandle(LogEntry const& log);

    QString translated_;
    QString prefix_;       ///< of the paths below the root
    QString prefixSource_; ///< the root that it was made from
    Handles deletions_;    ///< handles that are marked for deletion at close
};

} // namespace Replication
