#include "base/blocks/HeadedFile.h"

#include "base/trace/Trace.h"

namespace Morva {

bool HeadedFile::beginCreation(QString const& name, RawFile::Mode mode, std::uint32_t pageSize) {
    file_ = RawFile::make();
    if (!file_->create(name, mode)) {
        MORVA_TRACE(Always) << "Failed to create file" << name << file_->lastError();
        giveUp();
        return false;
    }
    cache_.attach(*file_, pageSize);
    if (file_->setLength(pageSize))
        header_ = static_cast<std::uint8_t*>(cache_.pinZero(0));
    return header_ || endCreation(false);
}

bool HeadedFile::endCreation(bool written) {
    if (!written) {
        MORVA_TRACE(Always) << "Failed to write the header of" << file_->name();
        file_->deleteOnClose();
        giveUp();
    }
    return written;
}

bool HeadedFile::beginOpening(QString const& name, RawFile::Mode mode) {
    file_ = RawFile::make();
    if (file_->open(name, mode))
        return true;
    MORVA_TRACE(Normal) << "Failed to open file" << name << file_->lastError();
    giveUp();
    return false;
}

bool HeadedFile::pinHeader(std::uint32_t pageSize) {
    cache_.attach(*file_, pageSize);
    if (file_->length() >= pageSize)
        header_ = static_cast<std::uint8_t*>(cache_.pin(0));
    return header_ != nullptr;
}

bool HeadedFile::endOpening(bool sound, char const* unsoundText) {
    if (!sound) {
        MORVA_TRACE(Always) << unsoundText << file_->name();
        giveUp();
    }
    return sound;
}

void HeadedFile::giveUp() {
    cache_.detach();
    header_ = nullptr;
    file_.reset();
}

} // namespace Morva
