#pragma once

#include "base/files/RawFile.h"
#include "base/values/Status.h"

#include <QByteArray>
#include <QString>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace Morva {

/// The checksums of all pages of one file, see docs/formats/sums.md. Those of a small file stand in
/// the journal's table, those of a larger one in its side file NAME.sums, of which this keeps pages
/// in memory: changed ones until `flush`, others up to a bound.
///
/// A sum is the CRC-32C of the bytes that the file has in the page, begun with the file's id and
/// the page's number, so that a page at another place or of another file doesn't fit. 0 stands for
/// a page that was never written, whose bytes are zeros; a CRC below 4 is kept as 1; 2 and 3 are
/// free.
///
/// Side file: pages of 4096 bytes, numbers little-endian.
///   off  size  of page 0, the header
///     0     8  "MorvaSum"
///     8     4  version, 1
///    12     4  bytes of an entry, 4
///    16     8  id of the file that it belongs to
///    24     8  stamp: random, another one each time that anything here has changed
///  4092     4  CRC-32C of what is before it, as that of any page here
///   off  size  of page n, n > 0
///     0  4092  sums of the 1,023 pages from (n - 1) * 1,023 on
///  4092     4  CRC-32C, begun with the file's id and 2^63 + n
/// Pages behind its end hold no sum but 0.
///
/// State in the journal's table: version (1), bytes of an entry (4), 0 for sums that stand here or
/// 1 for a side file, 0; then the sums without the zeros at their end, or the stamp of the header.
/// By the stamp a side file of another time doesn't fit.
///
/// Sums are read and changed through a `View`, by several threads at once; all else belongs to one
/// thread while nobody changes a sum.
class PageSums {
public:
    static constexpr std::uint32_t pageSize = 4096;
    static constexpr std::uint64_t sumsOnPage = pageSize / 4 - 1;
    static constexpr std::uint32_t leastCrc = 4;
    /// Files with more used pages than that get a side file.
    static constexpr std::uint64_t pagesWithoutSide = 64;

    /// What makes a file for the side file: closed, and guarded by the journal.
    using Maker = std::function<std::unique_ptr<RawFile>()>;

    /// Of a new file.
    explicit PageSums(std::uint64_t fileId);
    /// Of a file in the journal's table. `Corruption` when that isn't a state.
    [[nodiscard]] static Result<std::shared_ptr<PageSums>>
    of(std::uint64_t fileId, QByteArray const& state, QString const& name);
    [[nodiscard]] static QString sideName(QString const& name) {
        return name + QStringLiteral(".sums");
    }
    /// Whether a name is that of a side file.
    [[nodiscard]] static bool isSide(QString const& name) {
        return name.endsWith(QLatin1String(".sums"));
    }
    /// Whether a state is that of a file which has a side file.
    [[nodiscard]] static bool hasSide(QByteArray const& state);

    /// Before the first view: opens and verifies the side file, if the file has one that isn't
    /// open. A side file that is absent or of another time is `Corruption`. Thread-safe.
    [[nodiscard]] Status open(QString const& name, Maker const& make);
    /// Brings what changed to the side file, or makes it. Nobody changes a sum meanwhile.
    [[nodiscard]] Status flush(QString const& name, Maker const& make);
    /// For the journal's table, after `flush`.
    [[nodiscard]] QByteArray state() const;
    /// Reads and verifies all pages of the side file, and tells of each that is damaged.
    void verifySide(std::function<void(Status const&)> const& fault);
    [[nodiscard]] std::uint64_t fileId() const { return fileId_; }
    [[nodiscard]] bool hasSide() const { return hasSide_.load(std::memory_order_acquire); }

    /// The sum of a page that holds these bytes.
    [[nodiscard]] std::uint32_t sumOf(std::uint64_t page, void const* bytes,
                                      std::uint32_t count) const;
    /// The CRC of a page without bytes, to which its bytes are added, and the sum that follows from
    /// it in the end. `canGoOn` says whether a sum is that CRC, so that bytes can be added to it.
    [[nodiscard]] std::uint32_t begin(std::uint64_t page) const;
    [[nodiscard]] static std::uint32_t end(std::uint32_t crc) { return crc < leastCrc ? 1 : crc; }
    [[nodiscard]] static bool canGoOn(std::uint32_t sum) { return sum >= leastCrc; }
    /// Whether a page may hold these bytes.
    [[nodiscard]] bool fits(std::uint64_t page, std::uint32_t sum, void const* bytes,
                            std::uint32_t count) const;

private:
    struct Page {
        std::array<std::atomic<std::uint32_t>, sumsOnPage> sums{};
        std::atomic<bool> changed = false;
    };
    using PagePointer = std::shared_ptr<Page>;

public:
    /// Access to the sums in turn, which looks up each page of them once. For one thread, and for
    /// one operation: what it looks at is no longer of use after a `cut`.
    class View {
    public:
        explicit View(PageSums& sums) : sums_(sums) {}
        [[nodiscard]] Result<std::uint32_t> get(std::uint64_t page);
        [[nodiscard]] Status put(std::uint64_t page, std::uint32_t sum);

    private:
        [[nodiscard]] Status moveTo(std::uint64_t number);

        PageSums& sums_;
        PagePointer page_;
        std::uint64_t number_ = 0;
    };
    /// Makes the sums of all pages from `first` on those of pages never written.
    [[nodiscard]] Status cut(std::uint64_t first);

private:
    [[nodiscard]] Result<PagePointer> pageOf(std::uint64_t number);
    void dropSome();
    [[nodiscard]] std::uint64_t used() const;
    [[nodiscard]] Status readSide(std::uint64_t number, std::uint8_t* bytes);
    [[nodiscard]] Status writeSide(std::uint64_t number, std::uint8_t* bytes);
    [[nodiscard]] Status openForWriting(QString const& side, Maker const& make);
    [[nodiscard]] Status writePages();
    [[nodiscard]] Status verifyHeader();
    [[nodiscard]] Status writeHeader();
    [[nodiscard]] std::uint32_t sideSum(std::uint64_t number, std::uint8_t const* bytes) const;
    [[nodiscard]] Status damaged(QString const& reason, std::uint64_t number) const;

    std::uint64_t const fileId_;
    std::uint32_t const idCrc_;
    std::mutex loading_;              ///< before `table_`: held over reads of the side file
    mutable std::shared_mutex table_; ///< guards the map alone
    std::unordered_map<std::uint64_t, PagePointer> pages_;
    std::unique_ptr<RawFile> side_;
    bool writable_ = false;       ///< the side file is open for writing
    std::uint64_t sidePages_ = 0; ///< of sums, that the side file holds
    std::uint64_t stamp_ = 0;
    std::atomic<bool> hasSide_ = false;
    std::atomic<bool> changed_ = false;
};

} // namespace Morva
