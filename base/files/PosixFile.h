#pragma once

#include "base/files/RawFile.h"

#include <atomic>

namespace Morva {

/// The real file. Regular files only: opening anything else fails, so that a pipe or a device
/// can't block. Positioned calls all the way down, so a handle's position is its own.
class PosixFile final : public RawFile {
public:
    PosixFile() = default;
    ~PosixFile() override;

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
    void startSync() override;
    /// The first sync of a file made by this handle also syncs its directory, or the name could
    /// be missing after a crash.
    [[nodiscard]] Status sync() override;

    [[nodiscard]] Result<std::unique_ptr<RawFile>> threadFile(Mode mode) override;
    bool deleteOnClose() override;
    [[nodiscard]] std::uint32_t lastError() const override;
    [[nodiscard]] QString const& name() const override { return name_; }
    [[nodiscard]] bool isOpen() const override { return descriptor_ >= 0; }

private:
    [[nodiscard]] Status openWith(QByteArray const& path, QString const& name, Mode mode,
                                  int flags);
    [[nodiscard]] Status grow(std::uint64_t from, std::uint64_t bytes);
    /// Notes the failure, and traces it but for a missing file.
    Status failed(char const* operation, int error, Status::Place place = {}) const;

    int descriptor_ = -1;
    std::int64_t position_ = 0;
    QString name_;
    /// Atomic since the positioned calls may fail on several threads.
    mutable std::atomic<std::uint32_t> lastError_{0};
    bool deleteOnClose_ = false;
    bool nameUnsynced_ = false;
};

} // namespace Morva
