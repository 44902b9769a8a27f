#include "replication/repository/store/OpenDirectories.h"

#include "base/trace/Trace.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <algorithm>
#include <vector>

namespace Replication {

using Morva::Result;
using Morva::Status;

OpenDirectory::OpenDirectory(ActiveHandle::Pointer handle, std::shared_ptr<StreamHandle> stream)
    : handle_(std::move(handle)),
      stream_(std::move(stream)),
      pages_((stream_->length() + DirectoryPage::size - 1) >> DirectoryPage::shift) {}

OpenDirectory::~OpenDirectory() = default;

Result<std::uint8_t*> OpenDirectory::readPage(std::uint64_t page) {
    if (page_ == page)
        return buffer_.data();
    page_.reset();
    auto const damaged = [&](char const* reason) {
        return Status::corruption("read directory", QStringLiteral("directory %1").arg(id().value),
                                  QString::fromLatin1(reason), {Status::Unit::Page, page});
    };
    if (page >= pages_)
        return damaged("it has no such page");
    auto const count =
        stream_->readWhole(page * DirectoryPage::size, buffer_.data(), DirectoryPage::size);
    if (!count)
        return Status::failure(Status::Code::IoError, "read directory",
                               QStringLiteral("directory %1").arg(id().value), {},
                               {Status::Unit::Page, page});
    if (*count != DirectoryPage::size)
        return damaged("the page isn't whole");
    ++pagesRead_;
    before_ = buffer_;
    page_ = number_ = page;
    return buffer_.data();
}

bool OpenDirectory::reached() const {
    return number_ < pages_ || stream_->length() > pages_ * DirectoryPage::size;
}

Status OpenDirectory::writePage(std::uint64_t page, Image const& image) {
    buffer_ = image;
    page_ = number_ = page;
    return writePage();
}

Status OpenDirectory::writePage() {
    // The times of a directory are set by the source; a change of a name doesn't move them.
    if (Status status = handle_->write(LinkId{1}, stream_, *page_ * DirectoryPage::size,
                                       buffer_.data(), DirectoryPage::size, 0);
        !status) {
        MORVA_TRACE(Always) << "Failed to write page" << *page_ << "of" << pages_ << "in directory"
                            << Morva::hex << id();
        page_.reset();
        index_.reset();
        return status;
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
    return {};
}

std::uint8_t* OpenDirectory::newPage() {
    page_ = number_ = pages_;
    DirectoryPage::clear(buffer_.data());
    before_ = buffer_;
    return buffer_.data();
}

Result<std::optional<std::uint64_t>> OpenDirectory::firstFit(std::uint32_t needed) {
    if (!index_)
        MORVA_TRY(buildIndex());
    return index_->firstFit(needed);
}

Status OpenDirectory::buildIndex() {
    std::vector<std::uint16_t> slots;
    slots.reserve(pages_);
    for (std::uint64_t page = 0; page < pages_; ++page) {
        Result<std::uint8_t*> const bytes = readPage(page);
        if (!bytes) {
            DirectoryPage::traceFailedRead({"insert", id(), page, pages_, {}});
            return bytes.status();
        }
        slots.push_back(static_cast<std::uint16_t>(DirectoryPage::largestSlot(*bytes)));
    }
    index_.emplace(slots);
    return {};
}

Result<OpenDirectories::Pointer> OpenDirectories::get(FileId id, char const* operation) {
    if (auto const found = byId_.find(id); found != byId_.end())
        return open_[found->second];
    auto const shown = [&] { return QStringLiteral("directory %1").arg(id.value); };
    MORVA_TRY_LET(ActiveHandle::Pointer handle, store_.activeHandles().get(id));
    if (!handle || !handle->fileNode()) {
        MORVA_TRACE(Always) << operation << "Failed to get info for" << Morva::hex << id;
        return Status::corruption("open", shown(), QStringLiteral("it isn't there"));
    }
    if (!handle->fileNode()->isDirectory()) {
        MORVA_TRACE(Always) << operation << "Not a directory" << Morva::hex << id;
        return Status::failure(Status::Code::InvalidArgument, "open", shown(),
                               QStringLiteral("it is no directory"));
    }
    // Opening "Data" never makes it, so that asking for it changes nothing.
    Result<std::shared_ptr<StreamHandle>> stream =
        handle->openStream(LinkId{1}, dataStreamName, false);
    if (!stream) {
        MORVA_TRACE(Always) << operation << "No directory data" << Morva::hex << id;
        if (stream.code() == Status::Code::NotFound)
            return Status::corruption("open", shown(), QStringLiteral("it has no data"));
        return std::move(stream).status();
    }
    auto result = std::make_shared<OpenDirectory>(std::move(handle), *std::move(stream));
    if (auto const kept = indexes_.find(id); kept != indexes_.end()) {
        indexPages_ -= kept->second.pages();
        result->giveIndex(std::move(kept->second));
        indexes_.erase(kept);
    }
    shrink();
    byId_.emplace(id, open_.size());
    open_.push_back(result);
    return result;
}

std::size_t OpenDirectories::chance(std::size_t bound) {
    random_ ^= random_ << 13;
    random_ ^= random_ >> 7;
    random_ ^= random_ << 17;
    return static_cast<std::size_t>(random_ % bound);
}

void OpenDirectories::shrink() {
    if (open_.size() < limit)
        return;
    // One that is held stays; then there is one more for a while.
    Pointer const& chosen = open_[chance(open_.size())];
    if (chosen.use_count() > 1)
        return;
    keepIndex(*chosen);
    drop(chosen->id());
}

void OpenDirectories::keepIndex(OpenDirectory& directory) {
    std::optional<DirectoryIndex> index = directory.takeIndex();
    if (!index || index->pages() > indexLimit)
        return;
    if (indexPages_ + index->pages() > indexLimit) {
        indexes_.clear();
        indexPages_ = 0;
    }
    indexPages_ += index->pages();
    indexes_.emplace(directory.id(), *std::move(index));
}

void OpenDirectories::drop(FileId id) {
    auto const found = byId_.find(id);
    if (found == byId_.end()) {
        if (auto const kept = indexes_.find(id); kept != indexes_.end()) {
            indexPages_ -= kept->second.pages();
            indexes_.erase(kept);
        }
        return;
    }
    // The handle's end may call back into the store, so the tables are in order before it.
    std::size_t const place = found->second;
    byId_.erase(found);
    Pointer const gone = std::exchange(open_[place], open_.back());
    open_.pop_back();
    if (place < open_.size())
        byId_[open_[place]->id()] = place;
    pagesRead_ += gone->pagesRead();
}

void OpenDirectories::clear() {
    byId_.clear();
    indexes_.clear();
    indexPages_ = 0;
    std::vector<Pointer> const gone = std::exchange(open_, {});
    for (Pointer const& directory : gone)
        pagesRead_ += directory->pagesRead();
}

std::uint64_t OpenDirectories::pagesRead() const {
    std::uint64_t result = pagesRead_;
    for (Pointer const& directory : open_)
        result += directory->pagesRead();
    return result;
}

} // namespace Replication
