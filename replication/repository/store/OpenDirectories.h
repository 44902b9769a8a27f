#pragma once

#include "replication/repository/store/ActiveHandle.h"
#include "replication/repository/store/DirectoryIndex.h"
#include "replication/repository/store/DirectoryPage.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Replication {

class Store;
class StreamHandle;

/// One directory of the live tree that is being worked on: its handle, its open "Data" stream, the
/// page read or written last, and, once a name was inserted, the index of its free space.
///
/// Every change of a directory's pages goes through the one object of its directory, so that page
/// and index are true without looking at the stream again. A failed write forgets both; what the
/// stream holds of that page is unknown then, until `writePage` with an image succeeds.
class OpenDirectory {
public:
    using Image = std::array<std::uint8_t, DirectoryPage::size>;

    OpenDirectory(ActiveHandle::Pointer handle, std::shared_ptr<StreamHandle> stream);
    ~OpenDirectory();

    [[nodiscard]] FileId id() const { return handle_->id(); }
    [[nodiscard]] ActiveHandle& handle() { return *handle_; }
    [[nodiscard]] std::uint64_t pages() const { return pages_; }

    /// The bytes of a page, to be changed in place and written by `writePage`. Corruption when the
    /// directory doesn't have it whole. Valid until another page is asked for.
    [[nodiscard]] Morva::Result<std::uint8_t*> readPage(std::uint64_t page);
    /// Writes the page that was asked for last, by way of copy-on-write.
    [[nodiscard]] Morva::Status writePage();
    /// The same for an image of any page.
    [[nodiscard]] Morva::Status writePage(std::uint64_t page, Image const& image);
    /// The number of the page that was asked for last, its bytes as they are now, and as they were
    /// before they were changed; valid until another page is asked for, also after a failed write.
    [[nodiscard]] std::uint64_t pageNumber() const { return number_; }
    /// Whether a failed write can have left something of that page in the stream.
    [[nodiscard]] bool reached() const;
    [[nodiscard]] Image const& image() const { return buffer_; }
    [[nodiscard]] Image const& imageBefore() const { return before_; }
    /// A new page behind the last, one free entry, to be changed and written like any other.
    [[nodiscard]] std::uint8_t* newPage();

    /// The first page that a full walk would find a slot of this size in, or that would end the
    /// walk as damaged; nothing when no page has room.
    [[nodiscard]] Morva::Result<std::optional<std::uint64_t>> firstFit(std::uint32_t needed);
    /// Pages read from the stream since the object was made.
    [[nodiscard]] std::uint64_t pagesRead() const { return pagesRead_; }
    /// Hands the index on to one that opens the directory again, as long as nobody else changes it.
    [[nodiscard]] std::optional<DirectoryIndex> takeIndex() { return std::exchange(index_, {}); }
    void giveIndex(DirectoryIndex&& index) { index_ = std::move(index); }

private:
    [[nodiscard]] Morva::Status buildIndex();

    ActiveHandle::Pointer handle_;
    std::shared_ptr<StreamHandle> stream_;
    std::uint64_t pages_;
    std::optional<std::uint64_t> page_;
    std::uint64_t number_ = 0;
    std::uint64_t pagesRead_ = 0;
    std::optional<DirectoryIndex> index_;
    alignas(8) Image buffer_;
    Image before_;
};

/// The directories worked on last. An entry keeps a directory's handle, and with it the pin on its
/// node, so they are bounded in number and dropped when a directory goes.
///
/// Beyond the limit any of them goes, by chance, so that a round over a few directories too many
/// finds most of them here, where the one used longest ago would always be the one wanted next. The
/// free-space index of one that went stays a while longer: without it every return would read all
/// pages of the directory. For the one writer of the live tree.
class OpenDirectories {
public:
    using Pointer = std::shared_ptr<OpenDirectory>;
    /// A target: directories that someone holds stay.
    static constexpr std::size_t limit = 256;
    /// Pages that the kept indexes tell of, all together.
    static constexpr std::size_t indexLimit = 1U << 18;

    explicit OpenDirectories(Store& store) : store_(store) {}

    /// Never null. Corruption, traced with the operation's name, when the id stands for nothing or
    /// the directory has no data stream; InvalidArgument for what is no directory.
    [[nodiscard]] Morva::Result<Pointer> get(FileId id, char const* operation);
    void drop(FileId id);
    void clear();
    /// Pages of directories read since the start.
    [[nodiscard]] std::uint64_t pagesRead() const;

private:
    void shrink();
    void keepIndex(OpenDirectory& directory);
    /// A number below `bound`.
    [[nodiscard]] std::size_t chance(std::size_t bound);

    Store& store_;
    std::vector<Pointer> open_; // in no order
    std::unordered_map<FileId, std::size_t> byId_;
    std::unordered_map<FileId, DirectoryIndex> indexes_; // of directories that aren't open
    std::size_t indexPages_ = 0;
    std::uint64_t pagesRead_ = 0; // by those that aren't open any more
    std::uint64_t random_ = 0x9E3779B97F4A7C15ULL;
};

} // namespace Replication
