#include "base/files/GuardedFile.h"

#include "base/files/Journal.h"
#include "base/files/VerifiedContent.h"

namespace Morva {

GuardedFile::GuardedFile(Journal& journal, std::unique_ptr<RawFile> file)
    : journal_(&journal), file_(std::move(file)) {}

GuardedFile::~GuardedFile() {
    (void)close(); // traced where it failed, and nobody is left to tell
}

Status GuardedFile::create(QString const& name, Mode mode) {
    if (isOpen() || !journal_->isGuarded(name))
        return file_->create(name, mode);
    MORVA_TRY_LET(content_, journal_->created(name));
    position_ = 0;
    auto status = file_->create(name, mode);
    if (!status)
        content_.reset();
    return status;
}

Status GuardedFile::open(QString const& name, Mode mode) {
    if (isOpen())
        return file_->open(name, mode);
    MORVA_TRY(file_->open(name, mode));
    position_ = 0;
    if (!journal_->isGuarded(name))
        return {};
    auto content = journal_->contentOf(name);
    if (!content) {
        (void)file_->close(); // nothing was written
        return content.status();
    }
    content_ = *std::move(content);
    return {};
}

Status GuardedFile::close() {
    if (!isOpen())
        return {};
    bool const removes = content_ && deleteOnClose_;
    QString const removed = removes ? name() : QString();
    content_.reset();
    deleteOnClose_ = false;
    auto status = file_->close();
    if (removes)
        status.update(journal_->removeIfThere(removed));
    return status;
}

Result<std::uint32_t> GuardedFile::read(void* buffer, std::uint32_t count) {
    if (!content_)
        return file_->read(buffer, count);
    auto done = readAt(static_cast<std::uint64_t>(position_), buffer, count);
    if (done)
        position_ += *done;
    return done;
}

Status GuardedFile::write(void const* buffer, std::uint32_t count) {
    if (!content_)
        return file_->write(buffer, count);
    auto status = writeAt(static_cast<std::uint64_t>(position_), buffer, count);
    if (status)
        position_ += count;
    return status;
}

Status GuardedFile::setPosition(std::int64_t offset, Where from) {
    MORVA_TRY(file_->setPosition(offset, from));
    position_ = offset;
    return {};
}

std::int64_t GuardedFile::position() const {
    return content_ ? position_ : file_->position();
}

Result<std::uint32_t> GuardedFile::readAt(std::uint64_t offset, void* buffer, std::uint32_t count) {
    return content_ ? content_->readAt(*file_, offset, buffer, count)
                    : file_->readAt(offset, buffer, count);
}

Status GuardedFile::writeAt(std::uint64_t offset, void const* buffer, std::uint32_t count) {
    return content_ ? content_->writeAt(*file_, offset, buffer, count)
                    : file_->writeAt(offset, buffer, count);
}

Status GuardedFile::setLength(std::uint64_t bytes) {
    return content_ ? content_->setLength(*file_, bytes) : file_->setLength(bytes);
}

Result<std::uint64_t> GuardedFile::length() const {
    return content_ ? Result(content_->length()) : file_->length();
}

Status GuardedFile::sync() {
    return content_ ? Status() : file_->sync();
}

Result<std::unique_ptr<RawFile>> GuardedFile::threadFile(Mode mode) {
    MORVA_TRY_LET(auto other, guardedThreadFile(mode));
    return std::unique_ptr<RawFile>(std::move(other));
}

Result<std::unique_ptr<GuardedFile>> GuardedFile::guardedThreadFile(Mode mode) {
    MORVA_TRY_LET(auto inner, file_->threadFile(mode));
    auto other = std::make_unique<GuardedFile>(*journal_, std::move(inner));
    other->content_ = content_;
    return other;
}

std::unique_ptr<GuardedFile> GuardedFile::another() const {
    return journal_->makeGuarded();
}

std::shared_ptr<VerifiedContent> GuardedFile::verified() const {
    return content_ ? content_->verified() : nullptr;
}

std::shared_mutex& GuardedFile::noting() const {
    return content_->pages().noting();
}

bool GuardedFile::deleteOnClose() {
    if (!content_)
        return file_->deleteOnClose();
    deleteOnClose_ = true;
    return true;
}

} // namespace Morva
