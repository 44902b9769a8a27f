#pragma once

#include "base/trees/BPlusTree.h"
#include "base/values/LittleEndian.h"

#include <cstring>
#include <string>

namespace Morva::Fuzzing {

/// A text as the key of a tree: its hash, 8 bytes, and behind it the text.
class TextKey : public BPlusTree::Key {
public:
    explicit TextKey(std::string text) : text_(std::move(text)) {
        for (char const byte : text_)
            hash_.first = hash_.first * 31 + static_cast<unsigned char>(byte);
    }
    void hash(BPlusTree::KeyHash const& value) override { hash_ = value; }
    [[nodiscard]] BPlusTree::KeyHash const& hash() const override { return hash_; }
    [[nodiscard]] std::uint32_t size() const override {
        return 8 + static_cast<std::uint32_t>(text_.size());
    }
    [[nodiscard]] bool save(Extent& range) const override {
        if (range.size < size())
            return false;
        storeLittle(range.bytes(), hash_.first);
        storeLittle(range.bytes() + 4, hash_.second);
        std::memcpy(range.bytes() + 8, text_.data(), text_.size());
        return true;
    }
    [[nodiscard]] bool restore(Extent const& stored) override {
        if (!equal(stored))
            return false;
        hash_ = {loadLittle<std::uint32_t>(stored.bytes()),
                 loadLittle<std::uint32_t>(stored.bytes() + 4)};
        return true;
    }
    [[nodiscard]] bool equal(Extent const& stored) const override {
        return stored.size == size() &&
               std::memcmp(stored.bytes() + 8, text_.data(), text_.size()) == 0;
    }

private:
    BPlusTree::KeyHash hash_;
    std::string text_;
};

} // namespace Morva::Fuzzing
