#pragma once

#include "base/files/FileSystem.h"

#include <QHash>

#include <memory>
#include <mutex>

namespace Morva {

/// The disk for a process that only reads a repository: what is written to it stays in memory, and
/// the real disk doesn't change. So a journal recovers, and pages, queues and stores open, on a
/// medium that can't be written to, or beside other readers; all see the last checkpoint.
///
/// While an object lives it is the disk in force (`FileSystem::disk`), above the one that was; at
/// its end that one is back, and all that was written is gone. Memory grows by the pages that are
/// written: a few for an opening, and those of a checkpoint that was not applied.
///
/// All calls are thread-safe. Files must be closed before its end.
class ReadingFiles final : public FileSystem {
public:
    ReadingFiles();
    ~ReadingFiles() override;
    ReadingFiles(ReadingFiles const&) = delete;
    ReadingFiles& operator=(ReadingFiles const&) = delete;

    [[nodiscard]] std::unique_ptr<RawFile> make() override;
    [[nodiscard]] Result<std::optional<Information>> stat(QString const& name) override;
    [[nodiscard]] Result<std::vector<Entry>> list(QString const& directory) override;
    [[nodiscard]] Status makeDirectory(QString const& path) override;
    [[nodiscard]] Status removeDirectory(QString const& path) override;
    [[nodiscard]] Status rename(QString const& from, QString const& to) override;
    [[nodiscard]] Status remove(QString const& name) override;
    [[nodiscard]] Status syncDirectory(QString const&) override { return {}; }

private:
    class Content;
    class File;
    using ContentPointer = std::shared_ptr<Content>;

    [[nodiscard]] Result<ContentPointer> open(QString const& name);
    [[nodiscard]] ContentPointer create(QString const& name);
    /// Before a content is changed for the first time.
    void keep(ContentPointer const& content);
    /// Under `lock_`. `NotFound` when there is no such file.
    [[nodiscard]] Result<ContentPointer> find(QString const& name);
    [[nodiscard]] Result<std::optional<Information>> look(QString const& name);

    FileSystem& below_;
    std::mutex lock_; ///< guards all below; a content's own lock comes after it
    /// Files that differ from those below, by clean names; null for one that was removed.
    QHash<QString, ContentPointer> changed_;
    QHash<QString, std::weak_ptr<Content>> opened_; ///< as below so far
    QHash<QString, bool> directories_;              ///< made (true) or removed
};

} // namespace Morva
