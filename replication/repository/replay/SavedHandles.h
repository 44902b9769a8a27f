#pragma once

#include "base/values/PackBuffer.h"
#include "base/values/Status.h"
#include "replication/repository/store/SavedState.h"
#include "replication/repository/store/SinkHandle.h"

#include <QSet>
#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

namespace Replication {

/// How the handles of a sink are saved beside its store, and taken up again. What they are handles
/// of is saved by `SavedState`.
///
/// Packed record of a handle (`PackBuffer`):
///
///  value   meaning
///  u32     the source's open-file number
///  u64     file id; 0, like all up to the path, for a handle that isn't Valid
///  u64     link id
///  u32     1 if a file lies behind it
///  u64     stream id; 0 for a directory
///  string  name of the stream in the file; empty for one that was taken off it
///  u64     node
///  string  last name of the path
///  string  path of its directory, joined by "/"
///  string  last name of the path
///  u32     SinkHandle::Type
///  u32     writes so far
///  u32     state: bit 0 among the closed handles, bit 1 may be deduplicated, bit 2 (of a marked
///          one) stands in a table under its number
///  u32     SinkHandle::flags
///  string  name of the stream as it was opened
///
/// An open mail object is the record of its handle and a u32 of its writes.
class SavedHandles {
public:
    using Pointer = std::shared_ptr<SinkHandle>;

    SavedHandles(SavedState& saved, Store& store) : saved_(saved), store_(store) {}

    // Saving.

    void handle(std::uint32_t fileId, SinkHandle const& handle, bool closed);
    /// A handle that is marked for deletion, the `place`-th; `fileId` if it stands in a table.
    void deletion(std::uint32_t place, SinkHandle const& handle,
                  std::optional<std::uint32_t> fileId);
    void object(std::string_view sequence, SinkHandle const& handle, std::uint32_t writes);
    void resyncPath(QString const& path);
    /// The position and the limit of the closed handles' time.
    void sink(std::uint64_t position, std::uint32_t closedGraceLimit);

    // Taking up. A record that is no record fails; a handle of a file that can't be had comes as
    // one of type Unknown.

    using TakeHandle = std::function<void(std::uint32_t fileId, Pointer handle, bool closed)>;
    [[nodiscard]] Morva::Status handles(TakeHandle const& take);
    /// In the order of their places.
    using TakeDeletion =
        std::function<void(std::optional<std::uint32_t> fileId, Pointer const& handle)>;
    [[nodiscard]] Morva::Status deletions(TakeDeletion const& take);
    using TakeObject =
        std::function<void(std::string_view sequence, Pointer handle, std::uint32_t writes)>;
    [[nodiscard]] Morva::Status objects(TakeObject const& take);
    [[nodiscard]] QSet<QString> resyncPaths() const;
    [[nodiscard]] Morva::Status takeSink(std::uint64_t& position,
                                         std::uint32_t& closedGraceLimit) const;

private:
    struct State {
        static constexpr std::uint32_t closed = 1, dedup = 2, inTable = 4;
    };

    void pack(std::uint32_t fileId, SinkHandle const& handle, std::uint32_t state);
    [[nodiscard]] Morva::Status unpack(Morva::UnpackBuffer& record, std::uint32_t& fileId,
                                       Pointer& handle, std::uint32_t& state);
    [[nodiscard]] Morva::Status reopen(SinkHandle& handle, FileId file, StreamId stream,
                                       QString const& streamName);

    SavedState& saved_;
    Store& store_;
    Morva::PackBuffer record_;
};

} // namespace Replication
