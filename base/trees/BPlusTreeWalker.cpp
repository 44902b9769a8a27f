#include "base/trace/Trace.h"
#include "base/trees/BPlusTree.h"
#include "base/trees/TreePage.h"

#include <optional>

namespace Morva {

/// One walk over all pages of a tree, which meets each page at most once and so ends, whatever
/// the file holds.
class BPlusTree::Walker {
public:
    using Callback = std::function<bool(Extent const& stored)>;

    Walker(BPlusTree const& tree, Callback const* callback, QStringList* faults)
        : tree_(tree),
          blocks_(tree.blocks_),
          callback_(callback),
          faults_(faults),
          seen_(tree.blocks_.blockCount()) {}

    /// False when the callback has ended the walk.
    bool walk() { return visit(tree_.root_, tree_.height_ - 1, {}, std::nullopt); }
    [[nodiscard]] bool sound() const { return sound_; }
    /// What was met first that isn't sound.
    [[nodiscard]] Status failure() && { return std::move(failure_); }

    /// Everything that isn't seen in the tree must be free, and nothing that is.
    void checkRest() {
        if (keys_ != tree_.keys_)
            fault(QStringLiteral("the tree has %1 keys, its control page says %2")
                      .arg(keys_)
                      .arg(tree_.keys_));
        Status const whole = blocks_.forEachFree([this](std::uint64_t number) {
            enter(number, "the chain of free pages");
            return true;
        });
        if (!whole)
            fault(QStringLiteral("the chain of free pages is damaged"));
        for (std::uint64_t number = Blocks::firstBlock() + 1; number < seen_.size(); ++number)
            if (!seen_[number])
                fault(QStringLiteral("page %1 is neither in use nor free").arg(number));
    }

private:
    static constexpr qsizetype mostFaults = 200;

    void fault(QString const& text, Status const& cause = {}) {
        if (sound_)
            failure_ = cause.ok() ? Status::corruption("read", blocks_.name(), text) : cause;
        sound_ = false;
        if (faults_ && faults_->size() < mostFaults)
            faults_->append(text);
    }

    bool enter(std::uint64_t number, char const* where) {
        if (number <= Blocks::firstBlock() || number >= seen_.size()) {
            fault(QStringLiteral("%1 names page %2, which doesn't exist")
                      .arg(QLatin1String(where))
                      .arg(number));
            return false;
        }
        if (seen_[number]) {
            fault(QStringLiteral("%1 names page %2, which was met before")
                      .arg(QLatin1String(where))
                      .arg(number));
            return false;
        }
        seen_[number] = true;
        return true;
    }

    bool visit(std::uint64_t number, std::uint32_t level, KeyHash low, std::optional<KeyHash> end) {
        if (!enter(number, "the tree"))
            return true;
        auto pin = BlockPin::get(blocks_, number);
        TreePage const page(pin.get(), blocks_.blockSize());
        if (!pin || !page.sound(level)) {
            fault(QStringLiteral("page %1 is no page of level %2").arg(number).arg(level),
                  pin.status());
            return true;
        }
        bool const ordered = inOrder(page, low, end);
        if (!ordered)
            fault(QStringLiteral("hashes of page %1 are out of order").arg(number));
        if (page.count() == 0 && tree_.height_ > 1)
            fault(QStringLiteral("page %1 is empty").arg(number));
        if (level == 0)
            return visitCells(page, number);
        for (std::uint32_t i = 0; i < page.count(); ++i) {
            KeyHash const from = i == 0 ? low : page.hash(i);
            auto const to = i + 1 < page.count() ? page.hash(i + 1) : end;
            if (!visit(page.child(i), level - 1, from, to))
                return false;
        }
        return true;
    }

    bool inOrder(TreePage const& page, KeyHash low, std::optional<KeyHash> end) const {
        bool const leaf = page.level() == 0;
        for (std::uint32_t i = leaf ? 0 : 1; i < page.count(); ++i) {
            KeyHash const hash = page.hash(i);
            bool const first = i == (leaf ? 0u : 1u);
            if (first ? hash < low : hash <= page.hash(i - 1))
                return false;
            if (end && hash >= *end)
                return false;
        }
        return true;
    }

    bool visitCells(TreePage const& page, std::uint64_t number) {
        if (!page.soundCells())
            fault(QStringLiteral("cells of page %1 don't fit it").arg(number));
        for (std::uint32_t i = 0; i < page.count(); ++i) {
            ++keys_;
            TreeCell const cell = page.cell(i);
            Extent stored;
            if (!cell.data || (cell.chained && !visitChain(cell)) ||
                !tree_.storedForm(cell, stored).ok()) {
                fault(QStringLiteral("key %1 of page %2 can't be read").arg(i).arg(number));
                continue;
            }
            if (callback_ && !(*callback_)(stored))
                return false;
        }
        return true;
    }

    bool visitChain(TreeCell const& cell) {
        auto [size, number] = TreeChain::load(cell.data);
        std::uint32_t const room = blocks_.blockSize() - TreeChain::headerSize;
        if (size > maximumStoredSize)
            return false;
        for (std::uint32_t from = 0; from < size; from += room) {
            if (!enter(number, "a chain of a stored key"))
                return false;
            auto pin = BlockPin::get(blocks_, number);
            if (!pin || !TreeChain::sound(pin.get()))
                return false;
            number = TreeChain::next(pin.get());
        }
        return number == 0;
    }

    BPlusTree const& tree_;
    Blocks& blocks_;
    Callback const* callback_;
    QStringList* faults_;
    std::vector<bool> seen_;
    std::uint64_t keys_ = 0;
    bool sound_ = true;
    Status failure_;
};

Status BPlusTree::forEach(std::function<bool(Extent const& stored)> const& callback) const {
    if (!control_)
        return notOpen("read");
    Walker walker(*this, &callback, nullptr);
    walker.walk();
    return std::move(walker).failure();
}

bool BPlusTree::verify(QStringList& faults) const {
    if (!control_) {
        faults.append(QStringLiteral("the tree isn't open"));
        return false;
    }
    Walker walker(*this, nullptr, &faults);
    walker.walk();
    walker.checkRest();
    return walker.sound();
}

} // namespace Morva
