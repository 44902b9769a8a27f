#pragma once

#include "base/blocks/BlockCache.h"
#include "base/files/RawFile.h"

#include <QString>

#include <cstdint>
#include <memory>

namespace Morva {

/// What files of this room share: page 0 is a header, which stays pinned while the file is open.
/// Failures are traced, and leave the file closed. Not thread-safe.
class HeadedFile : public BlockCache {
public:
    HeadedFile(HeadedFile const&) = delete;
    HeadedFile& operator=(HeadedFile const&) = delete;

    /// Brings what was flushed to the disk itself.
    bool sync() { return header_ && file_->sync(); }
    [[nodiscard]] explicit operator bool() const { return header_ != nullptr; }

protected:
    explicit HeadedFile(std::uint32_t cachePages) : BlockCache(cachePages) {}
    ~HeadedFile() = default;

    /// Makes the file with a header of zeros, which the owner fills and ends with `endCreation`.
    [[nodiscard]] bool beginCreation(QString const& name, RawFile::Mode mode,
                                     std::uint32_t pageSize);
    /// Removes the file if its header was not `written`; gives `written`.
    bool endCreation(bool written);
    /// Opens the file; the owner reads its header, pins that with `pinHeader`, and ends with
    /// `endOpening`.
    [[nodiscard]] bool beginOpening(QString const& name, RawFile::Mode mode);
    /// False when the file has no whole first page.
    [[nodiscard]] bool pinHeader(std::uint32_t pageSize);
    /// Gives the file up if its header isn't `sound`; gives `sound`.
    bool endOpening(bool sound, char const* unsoundText);
    /// Forgets the file without writing to it.
    void giveUp();

    std::unique_ptr<RawFile> file_;
    std::uint8_t* header_ = nullptr;
};

} // namespace Morva
