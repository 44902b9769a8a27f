#pragma once

#include "base/files/GuardedContent.h"
#include "base/files/RawFile.h"

#include <memory>
#include <shared_mutex>

namespace Morva {

class Journal;
class VerifiedContent;

/// A handle on a file while a journal is in force. A file that the journal does not guard is used
/// as it is.
class GuardedFile final : public RawFile {
public:
    GuardedFile(Journal& journal, std::unique_ptr<RawFile> file);
    ~GuardedFile() override;

    [[nodiscard]] Status create(QString const& name, Mode mode) override;
    [[nodiscard]] Status open(QString const& name, Mode mode) override;
    Status close() override;
    [[nodiscard]] Result<std::uint32_t> read(void* buffer, std::uint32_t count) override;
    using RawFile::write;
    [[nodiscard]] Status write(void const* buffer, std::uint32_t count) override;
    [[nodiscard]] Status setPosition(std::int64_t offset, Where from) override;
    [[nodiscard]] std::int64_t position() const override;
    [[nodiscard]] Result<std::uint32_t> readAt(std::uint64_t offset, void* buffer,
                                               std::uint32_t count) override;
    [[nodiscard]] Status writeAt(std::uint64_t offset, void const* buffer,
                                 std::uint32_t count) override;
    [[nodiscard]] Status setLength(std::uint64_t bytes) override;
    [[nodiscard]] Result<std::uint64_t> length() const override;
    /// Brings nothing to the disk: that is for the next checkpoint to do.
    [[nodiscard]] Status sync() override;
    [[nodiscard]] Result<std::unique_ptr<RawFile>> threadFile(Mode mode) override;
    bool deleteOnClose() override;
    [[nodiscard]] std::uint32_t lastError() const override { return file_->lastError(); }
    [[nodiscard]] QString const& name() const override { return file_->name(); }
    [[nodiscard]] bool isOpen() const override { return file_->isOpen(); }

    /// What verifies the file's pages, for the layer above; null while closed, and for a file that
    /// isn't guarded or is itself one of checksums.
    [[nodiscard]] std::shared_ptr<VerifiedContent> verified() const;
    /// A closed file of the same kind.
    [[nodiscard]] std::unique_ptr<GuardedFile> another() const;
    [[nodiscard]] Result<std::unique_ptr<GuardedFile>> guardedThreadFile(Mode mode);
    /// Held shared while a page and its sum are written, alone by a checkpoint. Of an open file.
    [[nodiscard]] std::shared_mutex& noting() const;

private:
    Journal*
        journal_; ///< used while the file is opened, made or removed, when the journal is there
    std::unique_ptr<RawFile> file_;
    std::shared_ptr<GuardedContent> content_; ///< null while closed, and for a file not guarded
    std::int64_t position_ = 0;
    bool deleteOnClose_ = false;
};

} // namespace Morva
