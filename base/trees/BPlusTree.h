#pragma once

#include "base/blocks/Blocks.h"
#include "base/values/Extent.h"

#include <QString>
#include <QStringList>

#include <compare>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Morva {

class TraceLine;
class TreePage;
class TreePath;
struct TreeCell;

/// A persistent set of variable-size stored keys, found by a hash. What a caller wants to keep
/// with a key is part of the key's stored form.
///
/// Stored keys are ordered by their `KeyHash`, of which the tree chooses the second word. The
/// tree never looks into a stored form. Pages that run empty are used again.
/// Format: docs/formats/tree.md. Failures are traced; a damaged page is `Corruption` for the
/// operation that meets it, which then has changed nothing, and for nothing else. Not thread-safe,
/// also not for `find`.
class BPlusTree {
public:
    /// The largest stored form. Forms above about a quarter of a page go to pages of their own.
    static constexpr std::uint32_t maximumStoredSize = 65536;

    struct KeyHash {
        /// What the key computes from its content.
        std::uint32_t first = 0;
        /// Tells stored keys with the same first word apart; 0 in a key that isn't stored yet.
        std::uint32_t second = 0;

        auto operator<=>(KeyHash const&) const = default;
    };

    class Key {
    public:
        virtual ~Key() = default;
        /// The tree stores the hash value that it chose in the key.
        virtual void hash(KeyHash const& value) = 0;
        [[nodiscard]] virtual KeyHash const& hash() const = 0;
        /// Bytes of the stored form.
        [[nodiscard]] virtual std::uint32_t size() const = 0;
        /// Copies the stored form, `size()` bytes, to the start of the range.
        [[nodiscard]] virtual bool save(Extent& range) const = 0;
        /// Takes over a stored form; false when it can't be this key's.
        [[nodiscard]] virtual bool restore(Extent const& stored) = 0;
        /// Whether a stored form is this key.
        [[nodiscard]] virtual bool equal(Extent const& stored) const = 0;
        /// Writes the key to the trace.
        virtual void dump() const {}
    };

    /// The cache size is in pages.
    explicit BPlusTree(std::uint32_t cachePages);
    /// Closes the file.
    ~BPlusTree();

    /// Makes an empty tree, replacing a file that is there. The page size is a power of two from
    /// 512 to 32768.
    [[nodiscard]] Status create(QString const& name, std::uint32_t pageSize);
    /// `NotFound` when the file isn't there, `Corruption` when it isn't a sound tree. Opened
    /// `ReadOnly` it can be looked at and no more.
    [[nodiscard]] Status open(QString const& name, RawFile::Mode mode = RawFile::Mode::ReadWrite);
    /// Flushes and closes; a failure when something could not be written. Harmless when closed.
    Status close();
    /// Writes what changed to the file. What fails is tried again at the next flush.
    [[nodiscard]] Status flush();
    [[nodiscard]] Status sync();
    [[nodiscard]] explicit operator bool() const { return control_ != nullptr; }

    /// Whether this key is stored. If so the key has taken over the stored form; otherwise it is
    /// unchanged. A failure where that can't be told: a page that can't be read or is damaged on
    /// the way to the key, or a damaged cell that could be the key's.
    [[nodiscard]] Result<bool> find(Key& key) const;
    /// Stores a new key, for which `find` has given false, and sets the second word of its hash.
    /// `NoSpace`; `InvalidArgument` when the form is too large.
    [[nodiscard]] Status insert(Key& key);
    /// Replaces the stored form of this very key, found by both words of its hash, by one of the
    /// same size. `NotFound` when there is none.
    [[nodiscard]] Status update(Key const& key);
    /// Removes this very key. `NotFound` when there is none.
    [[nodiscard]] Status remove(Key const& key);

    /// Stored keys, and pages of the file in use for them.
    [[nodiscard]] std::uint64_t keyCount() const;
    [[nodiscard]] std::uint64_t pageCount() const;
    /// For `hits`, `misses` and `size`; null while the tree is closed.
    [[nodiscard]] BlockCache const* cache() const { return control_ ? &blocks_ : nullptr; }

    /// Calls back for each stored form in the order of the hashes until the callback returns
    /// false; the range is valid for the call. Fails when a damaged page was met; what can still
    /// be reached is given all the same. The tree must not be changed meanwhile.
    [[nodiscard]] Status forEach(std::function<bool(Extent const& stored)> const& callback) const;
    /// Checks all there is to check in the file: structure, order, sizes, the chain of free pages,
    /// and that each page is in use or free exactly once. Adds a line for each fault; true when
    /// there was none. Changes nothing.
    bool verify(QStringList& faults) const;

private:
    class Walker;

    [[nodiscard]] Status notOpen(char const* operation) const;
    [[nodiscard]] Status damaged(std::uint64_t page, QString const& reason) const;
    [[nodiscard]] Status readControl();
    void storeControl();
    void giveUp();
    [[nodiscard]] Status begin();
    [[nodiscard]] Status descend(TreePath& path, KeyHash const& hash) const;
    [[nodiscard]] Status descendFrom(TreePath& path, std::uint64_t page, KeyHash const& hash) const;
    [[nodiscard]] Result<bool> nextLeaf(TreePath& path) const;
    [[nodiscard]] Status locate(TreePath& path, Key const& key, Extent& stored) const;
    [[nodiscard]] Status storedForm(TreeCell const& cell, Extent& stored) const;

    [[nodiscard]] Status readChain(std::uint8_t const* cell, Extent& stored) const;
    [[nodiscard]] Status writeChain(std::uint8_t const* cell);
    [[nodiscard]] Status makeChain(std::uint8_t* cell, std::uint32_t size);
    [[nodiscard]] Status pinChain(std::uint8_t const* cell, std::vector<BlockPin>& pins) const;
    void freePages(std::vector<BlockPin>& pins);

    [[nodiscard]] Status store(TreePath& path, Key& key, KeyHash const& hash);
    [[nodiscard]] Status chooseSecond(TreePath& path, KeyHash& hash) const;
    [[nodiscard]] Status place(TreePath& path, KeyHash const& hash, TreeCell const& cell);
    [[nodiscard]] Status split(TreePath& path, KeyHash const& hash, TreeCell const& cell);
    [[nodiscard]] Status takeSpare(TreePath& path, std::vector<BlockPin>& spare);
    void raise(TreePath& path, KeyHash hash, std::uint64_t child, std::vector<BlockPin>& spare);
    void compact(TreePage const& page) const;

    void dropEmpty(TreePath& path);
    void shrink(TreePath& path);
    [[nodiscard]] bool join(TreePath& path, std::uint32_t depth);
    [[nodiscard]] bool joinPages(TreePage& parent, std::uint32_t right, BlockPin& leftPin,
                                 BlockPin& rightPin, std::uint32_t level);
    void collapseRoot();

    mutable Blocks blocks_;
    std::uint8_t* control_ = nullptr; // pinned while the tree is open
    std::uint64_t root_ = 0;
    std::uint32_t height_ = 0; // levels; the leaves are level 0
    std::uint64_t keys_ = 0;
    mutable std::vector<std::uint8_t> form_;    // a stored form that lies in a chain of pages
    mutable std::vector<std::uint8_t> scratch_; // a page under reconstruction
};

/// Prints the two words in hexadecimal.
TraceLine& operator<<(TraceLine& line, BPlusTree::KeyHash const& hash);

} // namespace Morva
