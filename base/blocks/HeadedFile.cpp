#include "base/blocks/HeadedFile.h"

#include "base/trace/Trace.h"

namespace Morva {

Status HeadedFile::sync() {
    return header_ ? file_->sync() : notOpen("sync");
}

Status HeadedFile::notOpen(char const* operation) {
    return Status::failure(Status::Code::InvalidArgument, operation, {},
                           QStringLiteral("the file isn't open"));
}

Status HeadedFile::unsoundHeader() const {
    return Status::corruption("open", file_->name(), QStringLiteral("its header is damaged"));
}

Status HeadedFile::beginCreation(QString const& name, RawFile::Mode mode, std::uint32_t pageSize) {
    file_ = RawFile::make();
    Status made = file_->create(name, mode);
    if (!made) {
        MORVA_TRACE(Always) << "Failed to create file" << name << file_->lastError();
        giveUp();
        return made;
    }
    cache_.attach(*file_, pageSize);
    made = file_->setLength(pageSize);
    if (!made)
        return endCreation(std::move(made));
    auto header = cache_.pinZero(0);
    if (!header)
        return endCreation(std::move(header).status());
    header_ = static_cast<std::uint8_t*>(*header);
    return {};
}

Status HeadedFile::endCreation(Status written) {
    if (!written) {
        MORVA_TRACE(Always) << "Failed to write the header of" << file_->name();
        file_->deleteOnClose();
        giveUp();
    }
    return written;
}

Status HeadedFile::beginOpening(QString const& name, RawFile::Mode mode) {
    file_ = RawFile::make();
    Status opened = file_->open(name, mode);
    if (!opened) {
        MORVA_TRACE(Normal) << "Failed to open file" << name << file_->lastError();
        giveUp();
    }
    return opened;
}

Status HeadedFile::pinHeader(std::uint32_t pageSize) {
    cache_.attach(*file_, pageSize);
    MORVA_TRY_LET(void* const header, cache_.pin(0));
    header_ = static_cast<std::uint8_t*>(header);
    return {};
}

Status HeadedFile::endOpening(Status read, char const* unsoundText) {
    if (!read) {
        MORVA_TRACE(Always) << unsoundText << file_->name();
        giveUp();
    }
    return read;
}

void HeadedFile::giveUp() {
    cache_.detach();
    header_ = nullptr;
    file_.reset();
}

} // namespace Morva
