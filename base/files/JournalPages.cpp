#include "base/files/JournalPages.h"

#include "base/trace/Trace.h"

#include <QFile>

namespace Morva {

namespace {

constexpr std::uint64_t keptBytes = 64 << 20;

} // namespace

bool JournalPages::create(QString const& name) {
    // To write over pages costs less than to take new ones from the file system and the memory.
    file_ = RawFile::makeUnguarded();
    if (QFile::exists(name) ? !file_->open(name, RawFile::Mode::ReadWrite)
                            : !file_->create(name, RawFile::Mode::ReadWrite))
        return false;
    shorten();
    return true;
}

bool JournalPages::open(QString const& name) {
    file_ = RawFile::makeUnguarded();
    return file_->open(name, RawFile::Mode::ReadWrite);
}

bool JournalPages::read(std::uint64_t slot, std::uint32_t within, void* buffer,
                        std::uint32_t count) const {
    return file_->readAt(slot * pageSize + within, buffer, count) == count;
}

bool JournalPages::write(std::uint64_t slot, std::uint32_t within, void const* buffer,
                         std::uint32_t count) {
    return !isBroken() && file_->writeAt(slot * pageSize + within, buffer, count) == count;
}

void JournalPages::reset() {
    if (used() * pageSize > keptBytes)
        shorten();
    next_.store(0, std::memory_order_relaxed);
}

void JournalPages::shorten() {
    if (file_->length() > keptBytes && !file_->setLength(keptBytes))
        MORVA_TRACE(Always) << "Failed to set length of file" << file_->name();
}

} // namespace Morva
