#include "replication/repository/store/OpenDirectories.h"

#include "base/trace/Trace.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <algorithm>
#include <vector>

namespace Replication {

OpenDirectory::OpenDirectory(ActiveHandle::Pointer handle, std::shared_ptr<StreamHandle> stream)
    : handle_(std::move(handle)),
      stream_(std::move(stream)),
      pages_((stream_->length() + DirectoryPage::size - 1) >> DirectoryPage::shift) {}

OpenDirectory::~OpenDirectory() = default;

std::uint8_t* OpenDirectory::readPage(std::uint64_t page) {
    if (page_ == page)
        return buffer_.data();
    page_.reset();
    if (page >= pages_ || stream_->readWhole(page * DirectoryPage::size, buffer_.data(),
                                             DirectoryPage::size) != DirectoryPage::size)
        return nullptr;
    before_ = buffer_;
    page_ = number_ = page;
    return buffer_.data();
}

bool OpenDirectory::reached() const {
    return number_ < pages_ || stream_->length() > pages_ * DirectoryPage::size;
}

bool OpenDirectory::writePage(std::uint64_t page, Image const& image) {
    buffer_ = image;
    page_ = number_ = page;
    return writePage();
}

bool OpenDirectory::writePage() {
    // The times of a directory are set by the source; a change of a name doesn't move them.
    if (!handle_->write(LinkId{1}, stream_, *page_ * DirectoryPage::size, buffer_.data(),
                        DirectoryPage::size, 0)) {
        MORVA_TRACE(Always) << "Failed to write page" << *page_ << "of" << pages_ << "in directory"
                            << Morva::hex << id();
        page_.reset();
        index_.reset();
        return false;
    }
    before_ = buffer_;
    if (index_) {
        auto const slot = static_cast<std::uint16_t>(DirectoryPage::largestSlot(buffer_.data()));
        if (*page_ < index_->pages())
            index_->set(*page_, slot);
        else
            index_->append(slot);
    }
    pages_ = std::max(pages_, *page_ + 1);
    return true;
}

std::uint8_t* OpenDirectory::newPage() {
    page_ = number_ = pages_;
    DirectoryPage::clear(buffer_.data());
    before_ = buffer_;
    return buffer_.data();
}

bool OpenDirectory::firstFit(std::uint32_t needed, std::optional<std::uint64_t>& page) {
    if (!index_ && !buildIndex())
        return false;
    page = index_->firstFit(needed);
    return true;
}

bool OpenDirectory::buildIndex() {
    std::vector<std::uint16_t> slots;
    slots.reserve(pages_);
    for (std::uint64_t page = 0; page < pages_; ++page) {
        std::uint8_t* const bytes = readPage(page);
        if (!bytes) {
            DirectoryPage::traceFailedRead({"insert", id(), page, pages_, {}});
            return false;
        }
        slots.push_back(static_cast<std::uint16_t>(DirectoryPage::largestSlot(bytes)));
    }
    index_.emplace(slots);
    return true;
}

OpenDirectories::Pointer OpenDirectories::get(FileId id, char const* operation) {
    auto const found = byId_.find(id);
    if (found != byId_.end()) {
        recent_.splice(recent_.begin(), recent_, found->second);
        return recent_.front();
    }
    ActiveHandle::Pointer handle = store_.activeHandles().get(id);
    if (!handle || !handle->fileNode()) {
        MORVA_TRACE(Always) << operation << "Failed to get info for" << Morva::hex << id;
        return nullptr;
    }
    if (!handle->fileNode()->isDirectory()) {
        MORVA_TRACE(Always) << operation << "Not a directory" << Morva::hex << id;
        return nullptr;
    }
    // Opening "Data" never makes it, so that asking for it changes nothing.
    std::shared_ptr<StreamHandle> stream = handle->openStream(LinkId{1}, dataStreamName, false);
    if (!stream) {
        MORVA_TRACE(Always) << operation << "No directory data" << Morva::hex << id;
        return nullptr;
    }
    recent_.push_front(std::make_shared<OpenDirectory>(std::move(handle), std::move(stream)));
    byId_.emplace(id, recent_.begin());
    Pointer result = recent_.front();
    shrink();
    return result;
}

void OpenDirectories::shrink() {
    if (recent_.size() <= limit)
        return;
    // Only the oldest is looked at: one that is held is moved to the front instead.
    auto const oldest = std::prev(recent_.end());
    if (oldest->use_count() > 1) {
        recent_.splice(recent_.begin(), recent_, oldest);
        return;
    }
    byId_.erase((*oldest)->id());
    Pointer const gone = std::move(*oldest);
    recent_.erase(oldest);
}

void OpenDirectories::drop(FileId id) {
    auto const found = byId_.find(id);
    if (found == byId_.end())
        return;
    // The handle's end may call back into the store, so the tables are in order before it.
    Pointer const gone = std::move(*found->second);
    recent_.erase(found->second);
    byId_.erase(found);
}

void OpenDirectories::clear() {
    byId_.clear();
    std::list<Pointer> const gone = std::move(recent_);
    recent_.clear();
}

} // namespace Replication
