#include "base/files/GuardedFile.h"

#include "base/files/Journal.h"

namespace Morva {

GuardedFile::GuardedFile(Journal& journal, std::unique_ptr<RawFile> file)
    : journal_(&journal), file_(std::move(file)) {}

GuardedFile::~GuardedFile() {
    close();
}

bool GuardedFile::create(QString const& name, Mode mode) {
    if (isOpen() || !journal_->isGuarded(name))
        return file_->create(name, mode);
    content_ = journal_->created(name);
    position_ = 0;
    if (content_ && file_->create(name, mode))
        return true;
    content_.reset();
    return false;
}

bool GuardedFile::open(QString const& name, Mode mode) {
    if (isOpen() || !file_->open(name, mode))
        return false;
    position_ = 0;
    if (!journal_->isGuarded(name))
        return true;
    content_ = journal_->contentOf(name, file_->length());
    if (!content_)
        file_->close();
    return content_ != nullptr;
}

void GuardedFile::close() {
    if (!isOpen())
        return;
    bool const removes = content_ && deleteOnClose_;
    QString const removed = removes ? name() : QString();
    content_.reset();
    deleteOnClose_ = false;
    file_->close();
    if (removes)
        static_cast<void>(journal_->remove(removed));
}

std::uint32_t GuardedFile::read(void* buffer, std::uint32_t count) {
    if (!content_)
        return file_->read(buffer, count);
    auto const done = readAt(static_cast<std::uint64_t>(position_), buffer, count);
    position_ += done;
    return done;
}

std::uint32_t GuardedFile::write(void const* buffer, std::uint32_t count) {
    if (!content_)
        return file_->write(buffer, count);
    auto const done = writeAt(static_cast<std::uint64_t>(position_), buffer, count);
    position_ += done;
    return done;
}

bool GuardedFile::setPosition(std::int64_t offset, Where from) {
    if (!file_->setPosition(offset, from))
        return false;
    position_ = offset;
    return true;
}

std::int64_t GuardedFile::position() const {
    return content_ ? position_ : file_->position();
}

std::uint32_t GuardedFile::readAt(std::uint64_t offset, void* buffer, std::uint32_t count) {
    return content_ ? content_->readAt(*file_, offset, buffer, count)
                    : file_->readAt(offset, buffer, count);
}

std::uint32_t GuardedFile::writeAt(std::uint64_t offset, void const* buffer, std::uint32_t count) {
    return content_ ? content_->writeAt(*file_, offset, buffer, count)
                    : file_->writeAt(offset, buffer, count);
}

bool GuardedFile::setLength(std::uint64_t bytes) {
    return content_ ? content_->setLength(*file_, bytes) : file_->setLength(bytes);
}

std::uint64_t GuardedFile::length() const {
    return content_ ? content_->length() : file_->length();
}

bool GuardedFile::sync() {
    return content_ || file_->sync();
}

std::unique_ptr<RawFile> GuardedFile::threadFile(Mode mode) {
    auto inner = file_->threadFile(mode);
    if (!inner)
        return nullptr;
    auto other = std::make_unique<GuardedFile>(*journal_, std::move(inner));
    other->content_ = content_;
    return other;
}

bool GuardedFile::deleteOnClose() {
    if (!content_)
        return file_->deleteOnClose();
    deleteOnClose_ = true;
    return true;
}

} // namespace Morva
