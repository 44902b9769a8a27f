#include "replication/repository/store/DirectoryPage.h"

#include "base/trace/Trace.h"

#include <algorithm>
#include <cstring>

namespace Replication {

using Morva::storeLittle;

std::uint32_t DirectoryEntry::ownSize() const {
    return free() ? 0 : DirectoryPage::usedSize(nameLength());
}

bool DirectoryEntry::valid(std::uint32_t remaining) const {
    if (remaining < minimumSize)
        return false;
    std::uint32_t const length = entryLength();
    if ((length & 3) != 0 || length < minimumSize || length > remaining)
        return false;
    // A name that passes the entry's end would be read out of its neighbours or past the page.
    std::uint64_t const needed = fixedSize + 2 * std::uint64_t{nameLength()} + 2;
    return needed <= length;
}

void DirectoryEntry::fill(DirKey const& key, QStringView name) {
    auto const length = static_cast<std::uint32_t>(name.size());
    storeLittle(bytes_ + 4, length);
    fileId(key.fileId());
    storeLittle(bytes_ + 16, key.link().value);
    typeWord(key.typeWord() & (DirKey::liveOnlyBit | DirKey::typeMask));
    if (length != 0)
        std::memcpy(bytes_ + fixedSize, name.utf16(), 2 * std::size_t{length});
    storeLittle(bytes_ + fixedSize + 2 * length, std::uint16_t{0});
}

void DirectoryEntry::clear() {
    storeLittle(bytes_ + 4, std::uint32_t{0});
    fileId({});
    typeWord(0);
}

bool PageWalk::next() {
    if (invalid_ || offset_ + length_ == DirectoryPage::size)
        return false;
    offset_ += length_;
    if (!entry().valid(DirectoryPage::size - offset_)) {
        invalid_ = true;
        return false;
    }
    length_ = entry().entryLength();
    return true;
}

bool PageEdit::next() {
    if (invalid_ || offset_ + length_ == DirectoryPage::size)
        return false;
    if (length_ != 0 && !removed_)
        before_ = offset_;
    offset_ += length_;
    removed_ = false;
    if (!entry().valid(DirectoryPage::size - offset_)) {
        invalid_ = true;
        return false;
    }
    length_ = entry().entryLength();
    return true;
}

void PageEdit::remove() {
    if (!before_) {
        entry().clear();
        return;
    }
    DirectoryEntry previous(page_ + *before_);
    previous.entryLength(previous.entryLength() + length_);
    removed_ = true;
}

namespace DirectoryPage {

void clear(std::uint8_t* page) {
    std::memset(page, 0, size);
    DirectoryEntry(page).entryLength(size);
}

void makeParent(std::uint8_t* page, FileId parent) {
    clear(page);
    DirectoryEntry entry(page);
    DirKey key({}, QString(), directoryType);
    key.fileId(parent);
    entry.fill(key, {});
}

Slot takeSlot(std::uint8_t* page, std::uint32_t needed) {
    PageWalk walk(page);
    while (walk.next()) {
        DirectoryEntry entry = walk.entry();
        if (entry.slot() < needed)
            continue;
        std::uint32_t const own = entry.ownSize();
        if (own == 0)
            return {walk.offset(), 0, false};
        MORVA_TRACE(Debug) << "Resize" << entry.entryLength() << "to" << own;
        std::uint32_t const rest = entry.entryLength() - own;
        entry.entryLength(own);
        std::uint32_t const offset = walk.offset() + own;
        DirectoryEntry(page + offset).entryLength(rest);
        return {offset, 0, false};
    }
    return {std::nullopt, walk.offset(), walk.invalid()};
}

std::uint32_t largestSlot(std::uint8_t* page) {
    std::uint32_t largest = 0;
    PageWalk walk(page);
    while (walk.next())
        largest = std::max(largest, walk.entry().slot());
    return walk.invalid() ? damaged : largest;
}

bool removeEntry(std::uint8_t* page, std::uint32_t offset) {
    MORVA_TRACE(Debug) << "Look for previous entry" << offset;
    PageEdit edit(page);
    bool more = edit.next();
    while (more && edit.offset() < offset)
        more = edit.next();
    if (!more || edit.offset() != offset) {
        // An invalid entry may stand so near the page's end that its fields lie behind it.
        auto const shown = edit.offset() <= size - DirectoryEntry::minimumSize;
        MORVA_TRACE(Always) << "desired" << offset << "next" << edit.offset() << "Name length"
                            << (shown ? edit.entry().nameLength() : 0) << "Length"
                            << (shown ? edit.entry().entryLength() : 0);
        return false;
    }
    edit.remove();
    return true;
}

void traceInvalid(PageContext const& context, std::uint8_t* page, std::uint32_t offset) {
    if (!Morva::Trace::enabled(Morva::TraceLevel::Always))
        return;
    Morva::TraceLine line(Morva::TraceLevel::Always, __FILE__, __LINE__);
    line << context.operation << "Invalid entry at offset" << offset << "in page" << context.page
         << "of" << context.pages << "in directory" << Morva::hex << context.directory
         << Morva::dec;
    if (context.instance)
        line << "instance" << context.instance;
    DirectoryEntry const entry(page + offset);
    if (size - offset >= 4)
        line << "Entry length" << entry.entryLength();
    if (size - offset >= DirectoryEntry::fixedSize)
        line << "Entry name length" << entry.nameLength() << "Entry file id" << Morva::hex
             << entry.fileId() << Morva::dec << "Entry link id" << entry.linkId() << "Entry type"
             << entry.typeWord();
}

void traceFailedRead(PageContext const& context) {
    if (!Morva::Trace::enabled(Morva::TraceLevel::Always))
        return;
    Morva::TraceLine line(Morva::TraceLevel::Always, __FILE__, __LINE__);
    line << context.operation << "Failed to read page" << context.page << "of" << context.pages
         << "in directory" << Morva::hex << context.directory << Morva::dec;
    if (context.instance)
        line << "instance" << context.instance;
}

} // namespace DirectoryPage

} // namespace Replication
