#include "base/values/PackBuffer.h"

#include "base/values/LittleEndian.h"

#include <algorithm>

namespace Morva {

namespace {

constexpr std::uint32_t countWord = sizeof(std::uint32_t);

} // namespace

PackBuffer::PackBuffer(std::uint32_t initialSize) {
    bytes_.reserve(std::size_t{initialSize} + countWord);
    bytes_.resize(countWord);
}

std::uint8_t* PackBuffer::grow(std::uint32_t alignment, std::uint32_t count) {
    std::size_t const padding = (0 - (bytes_.size() - countWord)) & (alignment - 1);
    std::size_t const start = bytes_.size() + padding;
    bytes_.resize(start + count);
    return bytes_.data() + start;
}

void PackBuffer::append(bool value) {
    *grow(1, 1) = value ? 1 : 0;
}

void PackBuffer::append(std::int32_t value) {
    append(static_cast<std::uint32_t>(value));
}

void PackBuffer::append(std::uint32_t value) {
    storeLittle(grow(sizeof value, sizeof value), value);
}

void PackBuffer::append(std::uint64_t value) {
    storeLittle(grow(sizeof value, sizeof value), value);
}

void PackBuffer::append(QString const& text) {
    auto const length = static_cast<std::uint32_t>(text.size() * sizeof(QChar));
    append(length);
    append(static_cast<void const*>(text.constData()), length);
}

void PackBuffer::append(void const* bytes, std::uint32_t count) {
    std::uint8_t* const to = grow(1, count);
    if (count > 0)
        std::memcpy(to, bytes, count);
}

Extent PackBuffer::extent() {
    storeLittle(bytes_.data(), size());
    return {static_cast<void*>(bytes_.data()), size() + countWord};
}

Extent PackBuffer::extentWithoutSize() {
    return {static_cast<void*>(bytes_.data() + countWord), size()};
}

std::uint32_t PackBuffer::size() const {
    return static_cast<std::uint32_t>(bytes_.size() - countWord);
}

void PackBuffer::patch(std::uint32_t offset, void const* bytes, std::uint32_t count) {
    if (offset <= size() && count <= size() - offset && count > 0)
        std::memcpy(bytes_.data() + countWord + offset, bytes, count);
}

void PackBuffer::reset() {
    bytes_.resize(countWord);
}

void UnpackBuffer::reset(Extent const& record) {
    owned_ = record.toByteArray();
    record_ = reinterpret_cast<std::uint8_t const*>(owned_.constData());
    size_ = record.size;
    position_ = 0;
}

void UnpackBuffer::fromRawData(Extent const& record) {
    owned_.clear();
    record_ = record.bytes();
    size_ = record.size;
    position_ = 0;
}

std::uint8_t const* UnpackBuffer::next(std::uint32_t alignment, std::uint32_t count) {
    std::uint64_t const start =
        (std::uint64_t{position_} + alignment - 1) & ~std::uint64_t{alignment - 1};
    if (start + count > size_)
        return nullptr;
    position_ = static_cast<std::uint32_t>(start + count);
    return record_ + start;
}

bool UnpackBuffer::take(bool& value) {
    std::uint8_t const* const from = next(1, 1);
    if (!from)
        return false;
    value = *from != 0;
    return true;
}

bool UnpackBuffer::take(std::int32_t& value) {
    std::uint32_t bits = 0;
    if (!take(bits))
        return false;
    value = static_cast<std::int32_t>(bits);
    return true;
}

bool UnpackBuffer::take(std::uint32_t& value) {
    std::uint8_t const* const from = next(sizeof value, sizeof value);
    if (!from)
        return false;
    value = loadLittle<std::uint32_t>(from);
    return true;
}

bool UnpackBuffer::take(std::uint64_t& value) {
    std::uint8_t const* const from = next(sizeof value, sizeof value);
    if (!from)
        return false;
    value = loadLittle<std::uint64_t>(from);
    return true;
}

bool UnpackBuffer::take(QString& text) {
    std::uint32_t const before = position_;
    std::uint32_t length = 0;
    if (!take(length))
        return false;
    std::uint8_t const* const from = length % sizeof(QChar) == 0 ? next(1, length) : nullptr;
    if (!from) {
        position_ = before;
        return false;
    }
    text.resize(length / sizeof(QChar));
    if (length > 0)
        std::memcpy(text.data(), from, length);
    return true;
}

bool UnpackBuffer::take(void* bytes, std::uint32_t count) {
    if (count == 0)
        return true;
    std::uint8_t const* const from = next(1, count);
    if (!from)
        return false;
    std::memcpy(bytes, from, count);
    return true;
}

Extent UnpackBuffer::extent() const {
    if (!record_)
        return {};
    return {static_cast<void const*>(record_ + position_), size_ - position_};
}

void UnpackBuffer::size(std::uint32_t count) {
    size_ = std::min(size_, count);
    position_ = std::min(position_, size_);
}

} // namespace Morva
