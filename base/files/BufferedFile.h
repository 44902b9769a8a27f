#pragma once

#include "base/files/RawFile.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace Morva {

/// Reads a file through a buffer, for many small reads in a row. For a file that nobody writes
/// meanwhile: bytes already in the buffer are not read again; the end of the file is looked at
/// anew each time. Not thread-safe.
class BufferedFile {
public:
    /// `bufferSize` in bytes, at least 1; the memory is taken at the first read.
    explicit BufferedFile(std::uint32_t bufferSize);
    ~BufferedFile();
    BufferedFile(BufferedFile const&) = delete;
    BufferedFile& operator=(BufferedFile const&) = delete;

    /// Opens an existing file at its start; `NotFound` when it is not there, `Busy` when this is
    /// open already.
    [[nodiscard]] Status open(QString const& name, RawFile::Mode mode = RawFile::Mode::ReadOnly);
    /// As `RawFile::close`.
    Status close();
    /// As `RawFile::read`. A failure leaves the position where it was.
    [[nodiscard]] Result<std::uint32_t> read(void* buffer, std::uint32_t count);
    [[nodiscard]] Status setPosition(std::int64_t offset,
                                     RawFile::Where from = RawFile::Where::Start);
    [[nodiscard]] std::int64_t position() const { return static_cast<std::int64_t>(position_); }
    /// Length of the file in bytes, 0 when closed.
    [[nodiscard]] Result<std::uint64_t> length() const;
    /// The file is removed when it is closed. False when closed.
    bool deleteOnClose();
    [[nodiscard]] std::uint32_t lastError() const;
    [[nodiscard]] bool isOpen() const { return file_ != nullptr; }
    [[nodiscard]] explicit operator bool() const { return isOpen(); }

private:
    std::unique_ptr<RawFile> file_;
    std::uint32_t bufferSize_;
    std::vector<std::uint8_t> buffer_;
    /// The buffer holds `filled_` bytes of the file from `start_`.
    std::uint64_t start_ = 0;
    std::uint32_t filled_ = 0;
    std::uint64_t position_ = 0;
    std::uint32_t lastError_ = 0;
};

} // namespace Morva
