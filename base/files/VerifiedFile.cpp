#include "base/files/VerifiedFile.h"

namespace Morva {

VerifiedFile::~VerifiedFile() {
    (void)VerifiedFile::close(); // Whoever wants to know closes the file himself.
}

Status VerifiedFile::create(QString const& name, Mode mode) {
    MORVA_TRY(file_->create(name, mode));
    position_ = 0;
    content_ = file_->verified();
    return {};
}

Status VerifiedFile::open(QString const& name, Mode mode) {
    MORVA_TRY(file_->open(name, mode));
    position_ = 0;
    content_ = file_->verified();
    if (!content_)
        return {};
    auto const maker = [this] { return file_->another(); };
    Status opened = content_->sums().open(name, maker);
    if (!opened) {
        content_.reset();
        (void)file_->close(); // What failed first is told.
    }
    return opened;
}

Status VerifiedFile::close() {
    content_.reset();
    return file_->close();
}

Result<std::uint32_t> VerifiedFile::read(void* buffer, std::uint32_t count) {
    if (!content_)
        return file_->read(buffer, count);
    auto const done = readAt(static_cast<std::uint64_t>(position_), buffer, count);
    if (done)
        position_ += *done;
    return done;
}

Status VerifiedFile::write(void const* buffer, std::uint32_t count) {
    if (!content_)
        return file_->write(buffer, count);
    MORVA_TRY(writeAt(static_cast<std::uint64_t>(position_), buffer, count));
    position_ += count;
    return {};
}

Status VerifiedFile::setPosition(std::int64_t offset, Where from) {
    MORVA_TRY(file_->setPosition(offset, from));
    position_ = offset;
    return {};
}

std::int64_t VerifiedFile::position() const {
    return content_ ? position_ : file_->position();
}

Result<std::uint32_t> VerifiedFile::readAt(std::uint64_t offset, void* buffer,
                                           std::uint32_t count) {
    return content_ ? content_->readAt(*file_, offset, buffer, count)
                    : file_->readAt(offset, buffer, count);
}

Status VerifiedFile::writeAt(std::uint64_t offset, void const* buffer, std::uint32_t count) {
    if (!content_)
        return file_->writeAt(offset, buffer, count);
    // A checkpoint must not come between a page and its sum.
    std::shared_lock const noCheckpoint(file_->noting());
    return content_->writeAt(*file_, offset, buffer, count);
}

Status VerifiedFile::setLength(std::uint64_t bytes) {
    if (!content_)
        return file_->setLength(bytes);
    std::shared_lock const noCheckpoint(file_->noting());
    return content_->setLength(*file_, bytes);
}

void VerifiedFile::verifySums(std::function<void(Status const&)> const& fault) {
    if (content_)
        content_->sums().verifySide(fault);
}

Result<std::unique_ptr<RawFile>> VerifiedFile::threadFile(Mode mode) {
    MORVA_TRY_LET(auto inner, file_->guardedThreadFile(mode));
    auto other = std::make_unique<VerifiedFile>(std::move(inner));
    other->content_ = content_;
    return std::unique_ptr<RawFile>(std::move(other));
}

} // namespace Morva
