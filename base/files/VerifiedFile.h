#pragma once

#include "base/files/GuardedFile.h"
#include "base/files/RawFile.h"
#include "base/files/VerifiedContent.h"

#include <functional>
#include <memory>

namespace Morva {

/// A handle on a file below a journal, each page of which is verified when it is read. A file that
/// the journal doesn't guard is used as it is.
class VerifiedFile final : public RawFile {
public:
    explicit VerifiedFile(std::unique_ptr<GuardedFile> file) : file_(std::move(file)) {}
    ~VerifiedFile() override;

    [[nodiscard]] Status create(QString const& name, Mode mode) override;
    /// Fails as well with `Corruption` when the file's checksums can't be had.
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
    [[nodiscard]] Result<std::uint64_t> length() const override { return file_->length(); }
    void startSync() override { file_->startSync(); }
    [[nodiscard]] Status sync() override { return file_->sync(); }
    [[nodiscard]] Result<std::unique_ptr<RawFile>> threadFile(Mode mode) override;
    bool deleteOnClose() override { return file_->deleteOnClose(); }
    [[nodiscard]] std::uint32_t lastError() const override { return file_->lastError(); }
    [[nodiscard]] QString const& name() const override { return file_->name(); }
    [[nodiscard]] bool isOpen() const override { return file_->isOpen(); }

    /// Verifies the checksums themselves of an open file, and tells of each page that is damaged.
    void verifySums(std::function<void(Status const&)> const& fault);

private:
    std::unique_ptr<GuardedFile> file_;
    std::shared_ptr<VerifiedContent> content_; ///< null while closed, and for a file not guarded
    std::int64_t position_ = 0;
};

} // namespace Morva
