#include "replication/repository/store/DirectoryScan.h"

#include "base/trace/Trace.h"
#include "replication/repository/streams/StreamHandle.h"

#include <algorithm>
#include <array>

namespace Replication {

DirectoryScan::DirectoryScan(FileNode& node, FileId directory, char const* operation,
                             Instance instance, std::uint64_t firstPage, std::uint64_t pageLimit)
    : operation_(operation),
      directory_(directory),
      instance_(instance),
      stream_(node.openStream(dataStreamName)),
      page_(firstPage) {
    if (!stream_) {
        failed_ = node.exists(dataStreamName);
        if (failed_)
            MORVA_TRACE(Always) << operation_ << "Failed to open data stream of directory"
                                << Morva::hex << directory_;
        return;
    }
    pages_ = (stream_->length() + DirectoryPage::size - 1) >> DirectoryPage::shift;
    end_ = firstPage >= pages_ ? firstPage : firstPage + std::min(pages_ - firstPage, pageLimit);
}

DirectoryScan::~DirectoryScan() = default;

PageContext DirectoryScan::context() const {
    return {operation_, directory_, page_, pages_, instance_};
}

bool DirectoryScan::loadPage(std::uint64_t page) {
    page_ = page;
    std::uint64_t const inWindow = (page - windowPage_) * DirectoryPage::size;
    std::uint64_t at = inWindow;
    if (!started_ || inWindow >= windowBytes_) {
        window_.resize(std::min<std::uint64_t>(end_ - page, pagesPerRead) * DirectoryPage::size);
        windowPage_ = page;
        windowBytes_ = stream_->read(page * DirectoryPage::size, window_.data(),
                                     static_cast<std::uint32_t>(window_.size()));
        at = 0;
    }
    started_ = true;
    if (at + DirectoryPage::size > windowBytes_) {
        DirectoryPage::traceFailedRead(context());
        return false;
    }
    walk_ = PageWalk(window_.data() + at);
    return true;
}

bool DirectoryScan::next() {
    if (!stream_ || failed_ || page_ >= end_)
        return false;
    if (!started_ && !loadPage(page_)) {
        failed_ = true;
        return false;
    }
    while (!walk_.next()) {
        if (walk_.invalid()) {
            DirectoryPage::traceInvalid(
                context(), window_.data() + (page_ - windowPage_) * DirectoryPage::size,
                walk_.offset());
            failed_ = true;
            return false;
        }
        if (page_ + 1 >= end_) {
            ++page_;
            return false;
        }
        if (!loadPage(page_ + 1)) {
            failed_ = true;
            return false;
        }
    }
    return true;
}

bool DirectoryScan::nextName() {
    while (next())
        if (entry().inUse())
            return true;
    return false;
}

FileId parentOf(FileNode& directory) {
    // The content of a file isn't to pass for entries.
    if (!directory.isDirectory()) {
        MORVA_TRACE(Normal) << "Not a directory" << directory.id();
        return {};
    }
    auto const stream = directory.openStream(dataStreamName);
    alignas(8) std::array<std::uint8_t, DirectoryEntry::minimumSize> head;
    if (!stream || stream->read(0, head.data(), head.size()) != head.size()) {
        MORVA_TRACE(Always) << "Failed to read parent directory entry";
        return {};
    }
    DirectoryEntry const entry(head.data());
    std::uint32_t const length = entry.entryLength();
    if ((length & 3) != 0 || length < DirectoryEntry::minimumSize || length > DirectoryPage::size ||
        entry.nameLength() != 0) {
        MORVA_TRACE(Always) << "Snapshot directoryName"
                            << "Invalid parent entry";
        return {};
    }
    return entry.fileId();
}

} // namespace Replication
