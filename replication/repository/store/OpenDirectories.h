#pragma once

#include "replication/repository/store/ActiveHandle.h"
#include "replication/repository/store/DirectoryIndex.h"
#include "replication/repository/store/DirectoryPage.h"

#include <array>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <unordered_map>

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

    /// The bytes of a page, to be changed in place and written by `writePage`; null when it can't
    /// be read whole. Valid until another page is asked for.
    [[nodiscard]] std::uint8_t* readPage(std::uint64_t page);
    /// Writes the page that was asked for last, by way of copy-on-write.
    [[nodiscard]] bool writePage();
    /// The same for an image of any page.
    [[nodiscard]] bool writePage(std::uint64_t page, Image const& image);
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
    /// walk as damaged. False when a page can't be read; nothing in `page`: no page has room.
    [[nodiscard]] bool firstFit(std::uint32_t needed, std::optional<std::uint64_t>& page);

private:
    [[nodiscard]] bool buildIndex();

    ActiveHandle::Pointer handle_;
    std::shared_ptr<StreamHandle> stream_;
    std::uint64_t pages_;
    std::optional<std::uint64_t> page_;
    std::uint64_t number_ = 0;
    std::optional<DirectoryIndex> index_;
    alignas(8) Image buffer_;
    Image before_;
};

/// The directories worked on last. An entry keeps a directory's handle, and with it the pin on its
/// node, so they are bounded in number and dropped when a directory goes. For the one writer of
/// the live tree.
class OpenDirectories {
public:
    using Pointer = std::shared_ptr<OpenDirectory>;
    /// A target: directories that someone holds stay.
    static constexpr std::size_t limit = 256;

    explicit OpenDirectories(Store& store) : store_(store) {}

    /// Null, traced with the operation's name, when the id stands for no directory or the
    /// directory has no data stream.
    [[nodiscard]] Pointer get(FileId id, char const* operation);
    void drop(FileId id);
    void clear();

private:
    void shrink();

    Store& store_;
    std::list<Pointer> recent_; // the one used last in front
    std::unordered_map<FileId, std::list<Pointer>::iterator> byId_;
};

} // namespace Replication
