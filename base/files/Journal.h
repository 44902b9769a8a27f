#pragma once

#include "base/files/FileSystem.h"
#include "base/files/GuardedContent.h"
#include "base/files/JournalPages.h"
#include "base/files/JournalTable.h"
#include "base/files/RawFile.h"

#include <QHash>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace Morva {

class GuardedFile;

/// Keeps all files below some directories together: whatever happens to the process or to the
/// power, they are found again as they were, all of them, at the last checkpoint.
///
/// A redo journal. What a file held at the last checkpoint stays on the disk as it is; new content
/// of those pages goes to slots of a scratch file, content behind them to the file itself, where
/// nothing points to it yet. A checkpoint brings all of it to the disk, puts down in one renamed
/// file what is to be done, does it, and starts anew. Names that appear, disappear or change are
/// noted first, so that they can be taken back.
///
/// A crash costs what was done since the last checkpoint, never more. Between checkpoints nothing
/// is synced but the notes of names.
///
/// In force from `open` to its end; one at a time. All calls are thread-safe. What a checkpoint
/// keeps is what was written when it began: it is for its caller to see that this is a state to
/// keep.
class Journal final : public FileSystem {
public:
    /// What to do with a root whose files have no checksums yet.
    enum class Format { Newest, ToConvert };

    /// Opens the journal in a directory, or makes it, brings all files back to the last checkpoint
    /// and puts itself in force. `places` are the directories to guard, which exist. A file
    /// that the journal has never seen doesn't open. A root of an older format, or of a newer one,
    /// is refused unless it is opened `ToConvert`. When something could not be read or written
    /// nothing is in force.
    [[nodiscard]] static Result<std::unique_ptr<Journal>>
    open(QString const& directory, QStringList const& places, Format format = Format::Newest);
    ~Journal() override;
    Journal(Journal const&) = delete;
    Journal& operator=(Journal const&) = delete;

    /// All that was written so far stays. When it fails, because that could not be brought to the
    /// disk, the last checkpoint holds, and the next call tries again, unless `isBroken`.
    [[nodiscard]] Status checkpoint();
    /// Takes back all since the last checkpoint. No guarded file may be open.
    [[nodiscard]] Status rollBack();
    /// A checkpoint was made and could not be applied. Nothing can be written any more; the next
    /// opening tries to apply it again.
    [[nodiscard]] bool isBroken() const { return pages_->isBroken(); }
    /// The files as of the last checkpoint, without those of checksums.
    [[nodiscard]] QStringList files() const;
    /// Verifies the checksums of one of them, and tells of what is damaged. False when it doesn't
    /// open at all.
    [[nodiscard]] bool verifySums(QString const& name,
                                  std::function<void(Status const&)> const& fault);
    /// Gives all files of a root opened `ToConvert` their checksums, file by file, each with a
    /// checkpoint; says what is done before each. When it ends early, another call goes on.
    [[nodiscard]] Status convert(std::function<Status(QString const& name)> const& step);

    /// Bytes that the next checkpoint has to copy.
    [[nodiscard]] std::uint64_t pendingBytes() const {
        return pages_->used() * JournalPages::pageSize;
    }

    [[nodiscard]] std::unique_ptr<RawFile> make() override;
    /// Lengths are those of now, and not of the last checkpoint.
    [[nodiscard]] Result<std::optional<Information>> stat(QString const& name) override;
    /// Without what was removed and waits for the checkpoint.
    [[nodiscard]] Result<std::vector<Entry>> list(QString const& directory) override;
    [[nodiscard]] Status makeDirectory(QString const& path) override;
    [[nodiscard]] Status removeDirectory(QString const& path) override;
    [[nodiscard]] Status rename(QString const& from, QString const& to) override;
    [[nodiscard]] Status remove(QString const& name) override;
    [[nodiscard]] Status syncDirectory(QString const& path) override;

private:
    friend class GuardedFile;
    using ContentPointer = std::shared_ptr<GuardedContent>;
    /// Of a file at the last checkpoint.
    struct Known {
        std::uint64_t length = 0;
        std::uint64_t id = 0;
        QByteArray sums;
    };

    Journal(QString directory, QStringList places);
    [[nodiscard]] QString base() const;
    [[nodiscard]] Status recover(Format format);
    [[nodiscard]] static Status verifyFormat(JournalTable const& table, Format format,
                                             QString const& name);
    [[nodiscard]] Status apply(JournalTable const& table);
    [[nodiscard]] Status takeBack(JournalTable const& table);
    [[nodiscard]] Status takeBack(JournalRecord const& change);

    [[nodiscard]] bool isGuarded(QString const& name) const { return !placeOf(name).isEmpty(); }
    [[nodiscard]] QString placeOf(QString const& name) const;
    [[nodiscard]] std::unique_ptr<GuardedFile> makeGuarded();
    /// The content of a file that was just opened.
    [[nodiscard]] Result<ContentPointer> contentOf(QString const& name);
    /// Before a file of that name is made.
    [[nodiscard]] Result<ContentPointer> created(QString const& name);
    /// Takes a file out of the way until the next checkpoint, and its side file.
    [[nodiscard]] Status hide(QString const& name);
    [[nodiscard]] Status hideOne(QString const& name);
    [[nodiscard]] Status renameOne(QString const& from, QString const& to);
    [[nodiscard]] bool hasSide(QString const& name) const;
    [[nodiscard]] Status note(JournalRecord const& record);
    [[nodiscard]] Status noteChange(JournalRecord::Type type, QString const& name,
                                    QString const& second = {});

    [[nodiscard]] bool isChanged() const;
    [[nodiscard]] Status flushSums();
    [[nodiscard]] Status adopt(GuardedFile& file);
    [[nodiscard]] Status syncWritten();
    [[nodiscard]] Result<JournalTable> nextTable() const;
    /// From its end on the table is what holds, whatever comes.
    [[nodiscard]] Status putDown(JournalTable const& table);
    [[nodiscard]] Status finish(JournalTable const& table);

    QString directory_;
    QStringList places_; ///< each ends with a slash
    mutable std::mutex lock_;
    std::shared_ptr<JournalPages> pages_ = std::make_shared<JournalPages>();
    std::unique_ptr<RawFile> log_;
    std::uint64_t logEnd_ = 0;
    std::uint64_t sequence_ = 0;
    std::uint64_t hiddenCount_ = 0;
    bool converted_ = true;       ///< all files have sums
    QHash<QString, Known> known_; ///< by the names of now
    QHash<QString, ContentPointer> contents_;
    bool changed_ = false;               ///< the table is to be written, whatever the files say
    std::vector<JournalRecord> changes_; ///< of names, since the last checkpoint
};

} // namespace Morva
