#pragma once

#include "base/blocks/BlockCache.h"
#include "base/files/RawFile.h"
#include "base/values/Status.h"

#include <QString>

#include <cstdint>
#include <memory>

namespace Morva {

/// What files of this room share: page 0 is a header, which stays pinned while the file is open.
/// Failures are traced, and leave the file closed: `NotFound` for a file that isn't there, and for
/// nothing else; `Corruption` for a header that isn't sound. Not thread-safe.
class HeadedFile : public BlockCache {
public:
    HeadedFile(HeadedFile const&) = delete;
    HeadedFile& operator=(HeadedFile const&) = delete;

    /// Brings what was flushed to the disk itself.
    [[nodiscard]] Status sync();
    [[nodiscard]] explicit operator bool() const { return header_ != nullptr; }
    /// Of the open file; empty while closed.
    [[nodiscard]] QString name() const { return file_ ? file_->name() : QString(); }

protected:
    explicit HeadedFile(std::uint32_t cachePages) : BlockCache(cachePages) {}
    ~HeadedFile() = default;

    /// Makes the file with a header of zeros, which the owner fills and ends with `endCreation`.
    [[nodiscard]] Status beginCreation(QString const& name, RawFile::Mode mode,
                                       std::uint32_t pageSize);
    /// Removes the file if its header was not `written`; gives `written`.
    [[nodiscard]] Status endCreation(Status written);
    /// Opens the file; the owner reads its header, pins that with `pinHeader`, and ends with
    /// `endOpening`.
    [[nodiscard]] Status beginOpening(QString const& name, RawFile::Mode mode);
    /// `Corruption` when the file has no whole first page.
    [[nodiscard]] Status pinHeader(std::uint32_t pageSize);
    /// Gives the file up if its header could not be `read`; gives `read`.
    [[nodiscard]] Status endOpening(Status read, char const* unsoundText);
    /// Forgets the file without writing to it.
    void giveUp();

    /// What an operation on a closed file gives.
    [[nodiscard]] static Status notOpen(char const* operation);
    /// Wrong bytes in the header.
    [[nodiscard]] Status unsoundHeader() const;

    std::unique_ptr<RawFile> file_;
    std::uint8_t* header_ = nullptr;
};

} // namespace Morva
