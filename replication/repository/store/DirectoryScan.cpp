#include "replication/repository/store/DirectoryScan.h"

#include "base/trace/Trace.h"
#include "replication/repository/streams/StreamHandle.h"

#include <algorithm>
#include <array>
#include <optional>

namespace Replication {

using Morva::Result;
using Morva::Status;

DirectoryScan::DirectoryScan(FileNode& node, FileId directory, char const* operation,
                             Instance instance, std::uint64_t firstPage, std::uint64_t pageLimit)
    : operation_(operation), directory_(directory), instance_(instance), page_(firstPage) {
    Result<std::shared_ptr<StreamHandle>> stream = node.openStream(dataStreamName);
    if (!stream) {
        MORVA_TRACE(Always) << operation_ << "Failed to open data stream of directory" << Morva::hex
                            << directory_;
        status_ = std::move(stream).status();
        return;
    }
    stream_ = *std::move(stream);
    if (!stream_)
        return;
    pages_ = (stream_->length() + DirectoryPage::size - 1) >> DirectoryPage::shift;
    end_ = firstPage >= pages_ ? firstPage : firstPage + std::min(pages_ - firstPage, pageLimit);
}

DirectoryScan::~DirectoryScan() = default;

PageContext DirectoryScan::context() const {
    return {operation_, directory_, page_, pages_, instance_};
}

void DirectoryScan::fail(Status::Code code, char const* reason) {
    status_ = Status::failure(code, "read directory",
                              QStringLiteral("directory %1").arg(directory_.value),
                              QString::fromLatin1(reason), {Status::Unit::Page, page_});
}

bool DirectoryScan::loadPage(std::uint64_t page) {
    page_ = page;
    std::uint64_t const inWindow = (page - windowPage_) * DirectoryPage::size;
    std::uint64_t at = inWindow;
    if (!started_ || inWindow >= windowBytes_) {
        window_.resize(std::min<std::uint64_t>(end_ - page, pagesPerRead) * DirectoryPage::size);
        windowPage_ = page;
        auto const count = stream_->readWhole(page * DirectoryPage::size, window_.data(),
                                              static_cast<std::uint32_t>(window_.size()));
        windowBytes_ = count.value_or(0);
        if (!count)
            fail(Status::Code::IoError, "");
        at = 0;
    }
    started_ = true;
    if (at + DirectoryPage::size > windowBytes_) {
        DirectoryPage::traceFailedRead(context());
        if (!failed())
            fail(Status::Code::Corruption, "the page isn't whole");
        return false;
    }
    walk_ = PageWalk(window_.data() + at);
    return true;
}

bool DirectoryScan::next() {
    if (!stream_ || failed() || page_ >= end_)
        return false;
    if (!started_ && !loadPage(page_))
        return false;
    while (!walk_.next()) {
        if (walk_.invalid()) {
            DirectoryPage::traceInvalid(
                context(), window_.data() + (page_ - windowPage_) * DirectoryPage::size,
                walk_.offset());
            fail(Status::Code::Corruption, "an entry is invalid");
            return false;
        }
        if (page_ + 1 >= end_) {
            ++page_;
            return false;
        }
        if (!loadPage(page_ + 1))
            return false;
    }
    return true;
}

bool DirectoryScan::nextName() {
    while (next())
        if (entry().inUse())
            return true;
    return false;
}

Result<FileId> parentOf(FileNode& directory) {
    auto const failed = [&](Status::Code code, char const* reason) {
        return Status::failure(code, "read parent of directory", QString(),
                               QString::fromLatin1(reason),
                               {Status::Unit::Record, directory.id().value});
    };
    // The content of a file isn't to pass for entries.
    if (!directory.isDirectory()) {
        MORVA_TRACE(Normal) << "Not a directory" << directory.id();
        return failed(Status::Code::InvalidArgument, "it is no directory");
    }
    MORVA_TRY_LET(auto const stream, directory.openStream(dataStreamName));
    alignas(8) std::array<std::uint8_t, DirectoryEntry::minimumSize> head;
    auto const count =
        stream ? stream->readWhole(0, head.data(), head.size()) : std::optional<std::uint32_t>(0);
    if (count != head.size()) {
        MORVA_TRACE(Always) << "Failed to read parent directory entry";
        return count ? failed(Status::Code::Corruption, "it has no pages")
                     : failed(Status::Code::IoError, "");
    }
    DirectoryEntry const entry(head.data());
    std::uint32_t const length = entry.entryLength();
    if ((length & 3) != 0 || length < DirectoryEntry::minimumSize || length > DirectoryPage::size ||
        entry.nameLength() != 0) {
        MORVA_TRACE(Always) << "Snapshot directoryName"
                            << "Invalid parent entry";
        return failed(Status::Code::Corruption, "invalid parent entry");
    }
    return entry.fileId();
}

} // namespace Replication
