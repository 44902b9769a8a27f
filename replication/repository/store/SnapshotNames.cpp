#include "replication/repository/store/SnapshotNames.h"

#include "base/values/StringHash.h"

#include <algorithm>

namespace Replication {

using Morva::TracedLock;

bool sameName(QStringView entry, QStringView wanted, Qt::CaseSensitivity sensitivity) {
    return entry.compare(wanted, sensitivity) == 0;
}

std::uint32_t nameHash(QStringView name, Qt::CaseSensitivity sensitivity) {
    if (sensitivity == Qt::CaseSensitive)
        return Morva::stringHash(name);
    // Folds character by character, as the comparison does; folding a whole string can differ.
    std::uint32_t hash = 0;
    for (qsizetype i = 0; i < name.size(); ++i) {
        char32_t character = name[i].unicode();
        if (name[i].isHighSurrogate() && i + 1 < name.size() && name[i + 1].isLowSurrogate()) {
            character = QChar::surrogateToUcs4(name[i], name[i + 1]);
            ++i;
        }
        hash = Morva::hashStep(hash, QChar::toCaseFolded(character));
    }
    return hash;
}

void NameTable::sort() {
    std::sort(slots_.begin(), slots_.end());
    slots_.erase(std::unique(slots_.begin(), slots_.end()), slots_.end());
    slots_.shrink_to_fit();
}

std::vector<std::uint64_t> NameTable::pagesOf(std::uint32_t hash) const {
    std::vector<std::uint64_t> pages;
    auto at = std::lower_bound(slots_.begin(), slots_.end(), Slot{hash, 0});
    for (; at != slots_.end() && at->hash == hash; ++at)
        pages.push_back(at->page);
    return pages;
}

SnapshotNames::Table SnapshotNames::find(Id const& id) {
    TracedLock guard(lock_);
    auto const found =
        std::find_if(items_.begin(), items_.end(), [&](Item const& item) { return item.id == id; });
    if (found == items_.end())
        return nullptr;
    items_.splice(items_.begin(), items_, found);
    return found->table;
}

void SnapshotNames::insert(Id const& id, Table table) {
    TracedLock guard(lock_);
    names_ += table->size();
    items_.push_front({id, std::move(table)});
    while (items_.size() > 1 && (names_ > limit || items_.size() > tableLimit)) {
        names_ -= items_.back().table->size();
        items_.pop_back();
    }
}

void SnapshotNames::clear() {
    TracedLock guard(lock_);
    items_.clear();
    names_ = 0;
}

} // namespace Replication
