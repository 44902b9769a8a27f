#pragma once

#include <QByteArray>

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <utility>
#include <vector>

namespace Morva {

/// What one file held at its last sync, as far as it was changed since: the book by which
/// `FaultyFiles` plays a loss of power. Bound to the file itself, whatever its name becomes.
/// Not thread-safe.
class UnsyncedPages {
public:
    static constexpr std::uint32_t pageSize = 4096;
    using Identity = std::pair<std::uint64_t, std::uint64_t>;

    /// Null when there is no such file.
    [[nodiscard]] static std::shared_ptr<UnsyncedPages> open(QByteArray const& path);
    ~UnsyncedPages();
    UnsyncedPages(UnsyncedPages const&) = delete;
    UnsyncedPages& operator=(UnsyncedPages const&) = delete;

    [[nodiscard]] Identity identity() const { return identity_; }
    /// To be called before bytes are written or cut off. Bytes that only come to be as zeros
    /// (growth, holes) need not be named: a count of 0 will do for them.
    void beforeChange(std::uint64_t offset, std::uint64_t count);
    /// What the file holds now is safe.
    void synced();
    /// The pages that were written are as at the last sync; the length is that of now.
    void dropPages();
    [[nodiscard]] bool isClean() const { return !changed_; }
    [[nodiscard]] bool isRemoved() const;
    [[nodiscard]] std::uint64_t length() const;

    /// Takes the file back to its last sync.
    void lose();
    /// Takes back some pages, and perhaps the length, by the throws of `random`.
    void loseSome(std::mt19937_64& random);

private:
    explicit UnsyncedPages(int descriptor);
    void restore(std::uint64_t page, std::vector<std::uint8_t> const& bytes, std::uint64_t length);
    void setLength(std::uint64_t bytes);

    int descriptor_;
    Identity identity_;
    std::uint64_t syncedLength_ = 0;
    bool changed_ = false;
    /// By page number; no bytes stand for a page of zeros.
    std::map<std::uint64_t, std::vector<std::uint8_t>> originals_;
};

} // namespace Morva
