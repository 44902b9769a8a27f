#pragma once

#include "replication/repository/store/DirectoryPage.h"
#include "replication/repository/store/FileNode.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace Replication {

class StreamHandle;

/// Reads the entries of one version of a directory in the order of its pages, a few pages at a
/// time, for the live tree (the node of an `ActiveHandle`) and for snapshots alike:
///
///     for (DirectoryScan scan(*node, id, "ls"); scan.nextName();)
///         use(scan.entry().name(), scan.entry().fileId(), scan.entry().link(),
///         scan.entry().type());
///
/// A failed read or an invalid entry is reported under the operation's name and ends the scan; who
/// has reached the end of a scan asks `status` whether it is that of the directory. Belongs to one
/// thread. The stream stays open as long as the object.
class DirectoryScan {
public:
    /// Reads from `firstPage` on, at most `pageLimit` pages.
    /// `instance` is 0 in the live tree; it and the id are for the reports alone. The node must be
    /// a directory. The operation must be a literal.
    DirectoryScan(FileNode& node, FileId directory, char const* operation, Instance instance = {},
                  std::uint64_t firstPage = 0, std::uint64_t pageLimit = UINT64_MAX);
    ~DirectoryScan();
    DirectoryScan(DirectoryScan const&) = delete;
    DirectoryScan& operator=(DirectoryScan const&) = delete;

    /// False when there is nothing to scan: the directory has no data stream, or, and then the scan
    /// has failed, has one that can't be opened.
    [[nodiscard]] bool hasData() const { return stream_ != nullptr; }
    /// The next entry of any kind; false at the end.
    [[nodiscard]] bool next();
    /// The next entry that names an object.
    [[nodiscard]] bool nextName();
    /// Valid until the next step.
    [[nodiscard]] DirectoryEntry entry() const { return walk_.entry(); }
    /// The entry's byte offset in the directory's stream.
    [[nodiscard]] std::uint64_t position() const {
        return page_ * DirectoryPage::size + walk_.offset();
    }
    [[nodiscard]] std::uint64_t page() const { return page_; }
    [[nodiscard]] std::uint64_t pages() const { return pages_; }
    /// Why the scan ended before the end of the directory; success when it didn't.
    [[nodiscard]] Morva::Status const& status() const { return status_; }
    [[nodiscard]] bool failed() const { return !status_.ok(); }

private:
    [[nodiscard]] bool loadPage(std::uint64_t page);
    void fail(Morva::Status::Code code, char const* reason);
    [[nodiscard]] PageContext context() const;

    static constexpr std::uint32_t pagesPerRead = 16;

    char const* operation_;
    FileId directory_;
    Instance instance_;
    std::shared_ptr<StreamHandle> stream_;
    std::uint64_t pages_ = 0;
    std::uint64_t end_ = 0;
    std::uint64_t page_ = 0;
    std::uint64_t windowPage_ = 0;
    std::uint32_t windowBytes_ = 0;
    std::vector<std::uint8_t> window_;
    PageWalk walk_{nullptr};
    bool started_ = false;
    Morva::Status status_;
};

/// The parent of a directory, by the first entry of its pages. InvalidArgument for a node that is
/// no directory, Corruption when there is no sound entry.
[[nodiscard]] Morva::Result<FileId> parentOf(FileNode& directory);

} // namespace Replication
