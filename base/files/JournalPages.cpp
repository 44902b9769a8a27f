#include "base/files/JournalPages.h"

#include "base/trace/Trace.h"

namespace Morva {

namespace {

constexpr std::uint64_t keptBytes = 64 << 20;

} // namespace

Status JournalPages::create(QString const& name) {
    // To write over pages costs less than to take new ones from the file system and the memory.
    file_ = FileSystem::disk().make();
    auto status = file_->open(name, RawFile::Mode::ReadWrite);
    if (status.is(Status::Code::NotFound))
        status = file_->create(name, RawFile::Mode::ReadWrite);
    MORVA_TRY(std::move(status));
    return shorten();
}

Status JournalPages::open(QString const& name) {
    file_ = FileSystem::disk().make();
    return file_->open(name, RawFile::Mode::ReadWrite);
}

Status JournalPages::read(std::uint64_t slot, std::uint32_t within, void* buffer,
                          std::uint32_t count) const {
    return file_->readWhole(slot * pageSize + within, buffer, count);
}

Status JournalPages::write(std::uint64_t slot, std::uint32_t within, void const* buffer,
                           std::uint32_t count) {
    MORVA_TRY(whole());
    return file_->writeAt(slot * pageSize + within, buffer, count);
}

Status JournalPages::whole() const {
    return isBroken() ? Status::failure(Status::Code::IoError, "write", file_->name(),
                                        QStringLiteral("the journal has failed before"))
                      : Status();
}

void JournalPages::reset() {
    if (used() * pageSize > keptBytes)
        if (auto const status = shorten(); !status)
            MORVA_TRACE(Always) << "Failed to set length of file" << file_->name();
    next_.store(0, std::memory_order_relaxed);
}

Status JournalPages::shorten() {
    MORVA_TRY_LET(auto const length, file_->length());
    return length > keptBytes ? file_->setLength(keptBytes) : Status();
}

} // namespace Morva
