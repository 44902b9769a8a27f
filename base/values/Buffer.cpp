#include "base/values/Buffer.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace Morva {

namespace {

std::unique_ptr<std::uint8_t[]> allocate(std::uint32_t size) {
    auto bytes = std::make_unique_for_overwrite<std::uint8_t[]>(std::size_t{size} + 1);
    bytes[size] = 0;
    return bytes;
}

void copyBytes(std::uint8_t* to, void const* from, std::size_t count) {
    if (count > 0)
        std::memcpy(to, from, count);
}

} // namespace

Buffer::Buffer(std::uint32_t size) : bytes_(allocate(size)), size_(size), available_(size) {}

Buffer::Buffer(void const* bytes, std::uint32_t count) : bytes_(allocate(count)), size_(count) {
    copyBytes(bytes_.get(), bytes, count);
}

Buffer::Buffer(Buffer const& other)
    : bytes_(allocate(other.size_)), size_(other.size_), available_(other.available_) {
    copyBytes(bytes_.get(), other.bytes_.get(), other.written());
}

Buffer& Buffer::operator=(Buffer const& other) {
    if (this != &other)
        *this = Buffer(other);
    return *this;
}

Buffer::Buffer(Buffer&& other) noexcept : Buffer(0) {
    *this = std::move(other);
}

Buffer& Buffer::operator=(Buffer&& other) noexcept {
    // Swapped, so that the other still has its byte behind the end.
    std::swap(bytes_, other.bytes_);
    std::swap(size_, other.size_);
    std::swap(available_, other.available_);
    return *this;
}

void Buffer::available(std::uint32_t count) {
    available_ = std::min(count, size_);
}

void Buffer::resize(std::uint32_t size) {
    if (size == size_)
        return;
    std::uint32_t const kept = std::min(written(), size);
    auto bytes = allocate(size);
    copyBytes(bytes.get(), bytes_.get(), std::min(size, size_));
    bytes_ = std::move(bytes);
    size_ = size;
    available_ = size - kept;
}

bool Buffer::append(void const* bytes, std::uint32_t count) {
    std::uint32_t const start = written();
    if (count > std::numeric_limits<std::uint32_t>::max() - start)
        return false;
    std::unique_ptr<std::uint8_t[]> old;
    if (count > available_) {
        std::uint64_t const doubled = std::uint64_t{size_} * 2;
        auto const wanted = static_cast<std::uint32_t>(std::clamp<std::uint64_t>(
            doubled, std::uint64_t{start} + count, std::numeric_limits<std::uint32_t>::max()));
        auto grown = allocate(wanted);
        copyBytes(grown.get(), bytes_.get(), start);
        old = std::exchange(bytes_, std::move(grown));
        size_ = wanted;
    }
    copyBytes(bytes_.get() + start, bytes, count);
    available_ = size_ - start - count;
    return true;
}

Extent Buffer::extent() {
    Extent whole(static_cast<void*>(bytes_.get()), size_);
    whole.available = available_;
    return whole;
}

Extent Buffer::writtenExtent() const {
    return {static_cast<void const*>(bytes_.get()), written()};
}

} // namespace Morva
