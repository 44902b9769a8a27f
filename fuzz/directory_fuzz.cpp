// Pages of a directory, whatever they hold: walks stay in the page and end, changes keep the page
// as sound as it was.

#include "fuzz/Input.h"
#include "replication/repository/store/DirectoryPage.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

using Morva::Fuzzing::Input;
using Morva::Fuzzing::require;
using Replication::DirectoryEntry;
using Replication::PageEdit;
using Replication::PageWalk;

namespace DirectoryPage = Replication::DirectoryPage;

namespace {

struct Walked {
    std::vector<std::uint32_t> offsets;
    std::size_t names = 0;
    bool invalid = false;
};

Walked walk(std::uint8_t* page) {
    Walked result;
    PageWalk steps(page);
    while (steps.next()) {
        auto const entry = steps.entry();
        require(steps.offset() + entry.entryLength() <= DirectoryPage::size, "entry in its page");
        require(DirectoryEntry::fixedSize + 2 * std::uint64_t{entry.nameLength()} + 2 <=
                    entry.entryLength(),
                "an entry holds its name");
        for (auto const c : entry.name())
            result.names += c.unicode() != 0;
        result.offsets.push_back(steps.offset());
        require(result.offsets.size() <= DirectoryPage::size / DirectoryEntry::minimumSize,
                "a walk ends");
    }
    result.invalid = steps.invalid();
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Input input(data, size);
    auto const choice = input.byte();
    auto const value = input.word();
    // On the heap, so that a byte beyond the page is seen.
    auto const memory = std::make_unique<std::uint8_t[]>(DirectoryPage::size);
    auto* const page = memory.get();
    std::copy_n(input.data(), std::min<std::size_t>(input.size(), DirectoryPage::size), page);

    auto const before = walk(page);
    auto const largest = DirectoryPage::largestSlot(page);
    require((largest == DirectoryPage::damaged) == before.invalid, "damage is told");
    switch (choice % 4) {
    case 0: {
        auto const length = value % (DirectoryPage::maximumName + 1);
        auto const needed = DirectoryPage::usedSize(length);
        auto const slot = DirectoryPage::takeSlot(page, needed);
        require(!slot.invalid || before.invalid, "a sound page has no damage");
        if (!before.invalid)
            require(slot.offset.has_value() == (needed <= largest), "the largest slot is right");
        if (slot.offset) {
            require(*slot.offset + needed <= DirectoryPage::size, "slot in its page");
            QString const name(static_cast<int>(length), u'n');
            Replication::DirKey key{};
            DirectoryEntry(page + *slot.offset).fill(key, name);
        }
        break;
    }
    case 1: {
        auto const removed = DirectoryPage::removeEntry(page, value);
        bool const known =
            std::find(before.offsets.begin(), before.offsets.end(), value) != before.offsets.end();
        require(removed == known, "an entry is removed where one begins");
        break;
    }
    case 2: {
        PageEdit edit(page);
        for (std::uint32_t i = 0; edit.next(); ++i)
            if ((value >> (i % 32)) & 1)
                edit.remove();
        require(edit.invalid() == before.invalid, "damage is met");
        break;
    }
    default:
        DirectoryPage::traceInvalid({"fuzz", {}, 0, 1, {}}, page, value % 1024 * 4);
    }
    require(walk(page).invalid == before.invalid, "a change makes no damage");
    return 0;
}
