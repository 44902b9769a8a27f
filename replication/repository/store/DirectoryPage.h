#pragma once

#include "base/values/LittleEndian.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/DirKey.h"

#include <QString>
#include <QStringView>

#include <cstdint>
#include <optional>

namespace Replication {

/// Entry of a directory page, little-endian. Entries fill each page of 4096 bytes exactly, end to
/// end; none crosses a page.
///
///   off  size  field        meaning
///     0     4  entryLength  bytes with slack; a multiple of 4, at least 32
///     4     4  nameLength   characters; 0 for a free entry and for the parent entry
///     8     8  fileId       the object; 0: the entry is free
///    16     4  linkId       which hard link of the object; 0 is read as 1
///    20     4  type         low 16 bits: object type, 2 for a directory; bit 31: liveOnly
///    24   2*n  name         UTF-16, in the spelling given
///  24+2n    2  terminator   0
///              slack        up to entryLength, without meaning
///
/// The first entry of page 0 is the parent entry: fileId is the parent directory, linkId 1, type
/// 2, no name.
///
/// A view over bytes of a page that it doesn't own. Only of an entry that was found valid may the
/// name be read.
class DirectoryEntry {
public:
    static constexpr std::uint32_t fixedSize = 24;
    static constexpr std::uint32_t minimumSize = 32;

    explicit DirectoryEntry(std::uint8_t* bytes = nullptr) : bytes_(bytes) {}

    [[nodiscard]] std::uint32_t entryLength() const { return word(0); }
    void entryLength(std::uint32_t value) { Morva::storeLittle(bytes_, value); }
    [[nodiscard]] std::uint32_t nameLength() const { return word(4); }
    [[nodiscard]] FileId fileId() const {
        return FileId{Morva::loadLittle<std::uint64_t>(bytes_ + 8)};
    }
    void fileId(FileId value) { Morva::storeLittle(bytes_ + 8, value.value); }
    [[nodiscard]] LinkId linkId() const { return LinkId{word(16)}; }
    /// The link id with 0 read as 1.
    [[nodiscard]] LinkId link() const { return linkId() ? linkId() : LinkId{1}; }
    [[nodiscard]] std::uint32_t typeWord() const { return word(20); }
    void typeWord(std::uint32_t value) { Morva::storeLittle(bytes_ + 20, value); }
    [[nodiscard]] std::uint32_t type() const { return typeWord() & DirKey::typeMask; }
    [[nodiscard]] bool isDirectory() const { return type() == directoryType; }
    [[nodiscard]] bool liveOnly() const { return (typeWord() & DirKey::liveOnlyBit) != 0; }
    void liveOnly(bool value) { typeWord(type() | (value ? DirKey::liveOnlyBit : 0)); }
    /// Valid as long as the page's bytes.
    [[nodiscard]] QStringView name() const {
        return {reinterpret_cast<char16_t const*>(bytes_ + fixedSize),
                static_cast<qsizetype>(nameLength())};
    }
    [[nodiscard]] bool free() const { return !fileId(); }
    /// Names an object.
    [[nodiscard]] bool inUse() const { return fileId() && nameLength() != 0; }
    /// Bytes that the entry needs for what it holds: 0 when it is free.
    [[nodiscard]] std::uint32_t ownSize() const;
    /// Bytes that a new name can have here: all of a free entry, the slack of a used one.
    [[nodiscard]] std::uint32_t slot() const {
        return entryLength() > ownSize() ? entryLength() - ownSize() : 0;
    }

    /// Whether the entry is sound, with `remaining` bytes of the page from its start.
    [[nodiscard]] bool valid(std::uint32_t remaining) const;
    /// Fills in everything but the length. The space must suffice.
    void fill(DirKey const& key, QStringView name);
    /// Makes it a free entry; `linkId` keeps its value.
    void clear();

private:
    [[nodiscard]] std::uint32_t word(std::uint32_t offset) const {
        return Morva::loadLittle<std::uint32_t>(bytes_ + offset);
    }

    std::uint8_t* bytes_;
};

/// Walks the entries of one page from its start. Ends for good at the page's end or at an entry
/// that isn't valid.
class PageWalk {
public:
    explicit PageWalk(std::uint8_t* page) : page_(page) {}

    /// Steps to the next entry; false at the end.
    [[nodiscard]] bool next();
    /// Whether the walk ended at an invalid entry; `offset` is that entry's.
    [[nodiscard]] bool invalid() const { return invalid_; }
    [[nodiscard]] DirectoryEntry entry() const { return DirectoryEntry(page_ + offset_); }
    [[nodiscard]] std::uint32_t offset() const { return offset_; }

private:
    std::uint8_t* page_;
    std::uint32_t offset_ = 0;
    std::uint32_t length_ = 0;
    bool invalid_ = false;
};

/// Walks a page and can take entries out on the way: the space of one that is taken out goes to the
/// entry before it; the first of the page becomes free instead.
class PageEdit {
public:
    explicit PageEdit(std::uint8_t* page) : page_(page) {}

    [[nodiscard]] bool next();
    [[nodiscard]] bool invalid() const { return invalid_; }
    [[nodiscard]] DirectoryEntry entry() const { return DirectoryEntry(page_ + offset_); }
    [[nodiscard]] std::uint32_t offset() const { return offset_; }
    /// Whether an entry stands before this one, which could take its space.
    [[nodiscard]] bool hasBefore() const { return before_.has_value(); }
    /// Takes the current entry out; to be called once for an entry.
    void remove();

private:
    std::uint8_t* page_;
    std::optional<std::uint32_t> before_;
    std::uint32_t offset_ = 0;
    std::uint32_t length_ = 0; // 0 before the first step
    bool removed_ = false;
    bool invalid_ = false;
};

/// What an operation says about itself when a page is damaged.
struct PageContext {
    char const* operation;
    FileId directory;
    std::uint64_t page = 0;
    std::uint64_t pages = 0;
    Instance instance; ///< 0 in the live tree
};

/// The layout of a page of directory entries. All functions work in a buffer of 4096 bytes.
namespace DirectoryPage {

inline constexpr std::uint32_t size = 4096;
inline constexpr std::uint32_t shift = 12;
/// The longest name that fits a page.
inline constexpr std::uint32_t maximumName = 2033;
/// `largestSlot` of a page with an invalid entry: a search must stop there.
inline constexpr std::uint32_t damaged = 0xFFFF;

/// Bytes that a name of `n` characters needs.
[[nodiscard]] constexpr std::uint32_t usedSize(std::uint32_t n) {
    return (2 * n + 33) & ~3U;
}
static_assert(usedSize(0) == DirectoryEntry::minimumSize && usedSize(maximumName) == size);

/// The offset of an entry's page in the stream, and its offset in the page.
[[nodiscard]] constexpr std::uint64_t pageOf(std::uint64_t position) {
    return position >> shift;
}
[[nodiscard]] constexpr std::uint32_t offsetOf(std::uint64_t position) {
    return static_cast<std::uint32_t>(position & (size - 1));
}

/// One free entry over the whole page.
void clear(std::uint8_t* page);
/// One parent entry over the whole page.
void makeParent(std::uint8_t* page, FileId parent);

/// What a search for space found: where the new entry goes, or that the walk met damage.
struct Slot {
    std::optional<std::uint32_t> offset;
    std::uint32_t invalidAt = 0;
    bool invalid = false;
};
/// Takes the first entry with `needed` bytes to spare, splitting a used one. The entry at the
/// offset then has its length set and nothing else.
[[nodiscard]] Slot takeSlot(std::uint8_t* page, std::uint32_t needed);
/// The most bytes that `takeSlot` can give, or `damaged`.
[[nodiscard]] std::uint32_t largestSlot(std::uint8_t* page);

/// Takes an entry out: its space goes to the entry before it; at offset 0 it becomes free. False,
/// and nothing changed, when no entry begins there or a walk doesn't get there.
[[nodiscard]] bool removeEntry(std::uint8_t* page, std::uint32_t offset);

/// Reports an entry that is not valid.
void traceInvalid(PageContext const& context, std::uint8_t* page, std::uint32_t offset);
void traceFailedRead(PageContext const& context);

} // namespace DirectoryPage

} // namespace Replication
