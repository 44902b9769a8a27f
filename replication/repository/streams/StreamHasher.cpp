#include "replication/repository/streams/StreamHasher.h"

#include "replication/repository/streams/RawRefCountedBlocks.h"
#include "replication/repository/streams/StreamHandle.h"
#include "replication/repository/streams/TreeParameters.h"

#include <algorithm>
#include <cstring>

namespace Replication {

namespace {

constexpr std::uint32_t blockSize = TreeParameters::blockSize;

constexpr std::uint64_t blocksFor(std::uint64_t bytes) {
    return bytes / blockSize + (bytes % blockSize != 0);
}

} // namespace

StreamHasher::StreamHasher(RawRefCountedBlocks& data, Morva::Extent const& room,
                           std::function<bool()> goOn)
    : data_(data),
      room_(static_cast<std::uint8_t*>(room.data)),
      size_(std::min(room.size, mostRoom)),
      goOn_(std::move(goOn)) {
    if (size_ > blockSize)
        size_ -= size_ % blockSize;
}

std::uint64_t StreamHasher::roomFor(Item const& item) const {
    return blocksFor(item.length) * blockSize;
}

void StreamHasher::hash(std::span<Item> items) {
    while (!items.empty() && goOn_()) {
        std::size_t count = 0;
        for (std::uint64_t left = size_; count < items.size(); ++count) {
            std::uint64_t const wanted = roomFor(items[count]);
            if (wanted > left)
                break;
            left -= wanted;
        }
        if (count == 0)
            hashLong(items[count++]);
        else
            hashGroup(items.first(count));
        items = items.subspan(count);
    }
}

void StreamHasher::hashGroup(std::span<Item> items) {
    blocks_.clear();
    for (Item& item : items) {
        std::size_t const first = blocks_.size();
        blocks_.resize(first + blocksFor(item.length));
        item.whole = item.stream->locate(item.length, blocks_.data() + first);
        if (!item.whole)
            blocks_.resize(first);
    }
    auto const count = static_cast<std::uint32_t>(blocks_.size());
    bool const read = count != 0 && data_.read(blocks_.data(), count, room_, 0, count * blockSize);
    std::uint8_t const* at = room_;
    for (Item& item : items) {
        if (item.whole && read) {
            sha_.addData(at, static_cast<std::uint32_t>(item.length));
            at += roomFor(item);
            end(item, true);
        }
    }
    // What has no blocks of its own, and what can be read of a group that holds damaged ones.
    for (Item& item : items)
        if (!item.whole || !read)
            hashLong(item);
}

// A stream that is too long for the room, or can't be located.
void StreamHasher::hashLong(Item& item) {
    std::uint64_t offset = 0;
    bool whole = true;
    do {
        auto const wanted =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(size_, item.length - offset));
        // Zeros for what can't be read would give the digest of another content.
        whole = item.stream->readWhole(offset, room_, wanted) == wanted;
        sha_.addData(room_, wanted);
        offset += wanted;
    } while (whole && offset < item.length && goOn_());
    end(item, whole && offset == item.length);
}

void StreamHasher::end(Item& item, bool whole) {
    item.whole = whole;
    std::memcpy(item.digest.data(), sha_.result().data, item.digest.size());
    sha_.reset();
}

} // namespace Replication
