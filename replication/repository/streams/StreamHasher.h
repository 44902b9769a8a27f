#pragma once

#include "base/values/Extent.h"
#include "base/values/Sha1.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

namespace Replication {

class RawRefCountedBlocks;
class StreamHandle;

/// Computes the SHA-1 of frozen streams. Small ones that lie next to each other in the data file
/// are read with one call of the system.
///
/// An object belongs to one thread; it reads the pool and changes nothing there.
class StreamHasher {
public:
    /// More room than this is not used: what was read is to be hashed while the processor's cache
    /// holds it.
    static constexpr std::uint32_t mostRoom = 65536;

    struct Item {
        std::shared_ptr<StreamHandle> stream;
        std::uint64_t length; ///< of the stream
        /// The digest is that of the whole content. False: not hashed, or it can't all be read.
        bool whole = false;
        std::array<std::uint8_t, Morva::Sha1::digestSize> digest;
    };

    /// Reads into `room`, of one byte or more, which must outlive the object. `goOn` is called
    /// before each read; when it gives false the hashing ends.
    StreamHasher(RawRefCountedBlocks& data, Morva::Extent const& room, std::function<bool()> goOn);

    void hash(std::span<Item> items);

private:
    [[nodiscard]] std::uint64_t roomFor(Item const& item) const;
    void hashGroup(std::span<Item> items);
    void hashLong(Item& item);
    void end(Item& item, bool whole);

    RawRefCountedBlocks& data_;
    std::uint8_t* room_;
    std::uint32_t size_;
    std::function<bool()> goOn_;
    Morva::Sha1 sha_;
    std::vector<std::uint64_t> blocks_;
};

} // namespace Replication
