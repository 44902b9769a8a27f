#include "replication/repository/replay/SavedHandles.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"
#include "replication/repository/streams/Streams.h"

#include <array>

namespace Replication {

using Morva::Extent;
using Morva::Status;
using Morva::UnpackBuffer;
using Section = SavedRecords::Section;

namespace {

/// A number as a key.
class NumberKey {
public:
    explicit NumberKey(std::uint32_t number) { Morva::storeLittle(bytes_.data(), number); }
    [[nodiscard]] Extent extent() const {
        return {static_cast<void const*>(bytes_.data()), std::uint32_t{sizeof bytes_}};
    }

private:
    std::array<std::uint8_t, 4> bytes_{};
};

Status damage(char const* what) {
    return Status::corruption("read saved state", {}, QString::fromLatin1(what));
}

} // namespace

// --- saving

void SavedHandles::pack(std::uint32_t fileId, SinkHandle const& handle, std::uint32_t state) {
    auto const valid =
        handle.type == SinkHandle::Valid && handle.activeHandle && handle.activeHandle->fileNode();
    auto const name = valid ? handle.activeHandle->streamName(handle.streamHandle) : QString();
    StreamId stream;
    if (valid && handle.streamHandle) {
        stream = handle.streamHandle->id();
        if (name.isEmpty())
            saved_.stream(stream);
    }
    if (valid)
        saved_.file(*handle.activeHandle);
    record_.reset();
    record_.append(fileId);
    record_.append(valid ? handle.activeHandle->id().value : std::uint64_t{0});
    record_.append(valid ? std::uint64_t{handle.link.value} : std::uint64_t{0});
    record_.append(valid ? std::uint32_t{1} : std::uint32_t{0});
    record_.append(stream.value);
    record_.append(name);
    record_.append(valid ? handle.activeHandle->fileNode()->id().value : std::uint64_t{0});
    record_.append(handle.name);
    record_.append(handle.parent.join(u'/'));
    record_.append(handle.name);
    record_.append(static_cast<std::uint32_t>(handle.type));
    record_.append(handle.id);
    record_.append(state | (handle.dedup ? State::dedup : 0));
    record_.append(handle.flags);
    record_.append(handle.stream);
}

void SavedHandles::handle(std::uint32_t fileId, SinkHandle const& handle, bool closed) {
    pack(fileId, handle, closed ? State::closed : 0);
    saved_.records().put(Section::Handle, NumberKey(fileId).extent(), record_.extentWithoutSize());
}

void SavedHandles::deletion(std::uint32_t place, SinkHandle const& handle,
                            std::optional<std::uint32_t> fileId) {
    pack(fileId.value_or(0), handle, fileId ? State::inTable : 0);
    saved_.records().put(Section::Deletion, NumberKey(place).extent(), record_.extentWithoutSize());
}

void SavedHandles::object(std::string_view sequence, SinkHandle const& handle,
                          std::uint32_t writes) {
    pack(0, handle, 0);
    record_.append(writes);
    saved_.records().put(Section::Object,
                         Extent(static_cast<void const*>(sequence.data()),
                                static_cast<std::uint32_t>(sequence.size())),
                         record_.extentWithoutSize());
}

void SavedHandles::resyncPath(QString const& path) {
    auto const bytes = QByteArray(reinterpret_cast<char const*>(path.utf16()),
                                  path.size() * qsizetype{sizeof(char16_t)});
    saved_.records().put(Section::ResyncPath, Extent(bytes), {});
}

void SavedHandles::sink(std::uint64_t position, std::uint32_t closedGraceLimit) {
    record_.reset();
    record_.append(position);
    record_.append(closedGraceLimit);
    saved_.records().put(Section::Sink, {}, record_.extentWithoutSize());
}

// --- taking up

Status SavedHandles::unpack(UnpackBuffer& record, std::uint32_t& fileId, Pointer& handle,
                            std::uint32_t& state) {
    FileId file;
    std::uint64_t link = 0, node = 0;
    std::uint32_t hasFile = 0, type = 0;
    StreamId stream;
    QString streamName, lastName, directory;
    handle = std::make_shared<SinkHandle>();
    if (!record.take(fileId) || !record.take(file.value) || !record.take(link) ||
        !record.take(hasFile) || !record.take(stream.value) || !record.take(streamName) ||
        !record.take(node) || !record.take(lastName) || !record.take(directory) ||
        !record.take(handle->name) || !record.take(type) || !record.take(handle->id) ||
        !record.take(state) || !record.take(handle->flags) || !record.take(handle->stream) ||
        type < SinkHandle::Valid || type > SinkHandle::Unknown || hasFile > 1)
        return damage("an open-file number");
    handle->type = static_cast<SinkHandle::Type>(type);
    handle->parent = directory.split(u'/', Qt::SkipEmptyParts);
    handle->dedup = (state & State::dedup) != 0;
    handle->link = LinkId{static_cast<std::uint32_t>(link)};
    if (handle->type != SinkHandle::Valid)
        return {};
    MORVA_TRY(reopen(*handle, hasFile != 0 ? file : FileId{}, stream, streamName));
    if (handle->type == SinkHandle::Valid)
        MORVA_TRACE(Normal) << "Reopened SeqNo" << fileId;
    else
        MORVA_TRACE(Always) << "Failed to reopen SeqNo" << fileId << "Type" << type << "OpenSeqNo"
                            << handle->id;
    return {};
}

Status SavedHandles::reopen(SinkHandle& handle, FileId file, StreamId stream,
                            QString const& streamName) {
    if (file) {
        MORVA_TRY_LET(handle.activeHandle, saved_.open(file));
    }
    if (handle.activeHandle && stream && streamName.isEmpty()) {
        handle.streamHandle = store_.streams().handle(stream, true);
    } else if (handle.activeHandle && stream) {
        MORVA_TRY_LET(handle.streamHandle, handle.activeHandle->fileNode()->openStream(streamName));
    }
    if (handle.activeHandle && (!stream || handle.streamHandle))
        return {};
    handle.type = SinkHandle::Unknown;
    handle.flags = SinkHandle::lost;
    handle.activeHandle.reset();
    return {};
}

Status SavedHandles::handles(TakeHandle const& take) {
    UnpackBuffer record;
    return saved_.records().forEach(Section::Handle, [&](Extent, Extent body) -> Status {
        record.fromRawData(body);
        std::uint32_t fileId = 0, state = 0;
        Pointer handle;
        MORVA_TRY(unpack(record, fileId, handle, state));
        take(fileId, std::move(handle), (state & State::closed) != 0);
        return {};
    });
}

Status SavedHandles::deletions(TakeDeletion const& take) {
    UnpackBuffer record;
    for (std::uint32_t place = 0;; ++place) {
        auto const* const body =
            saved_.records().find(Section::Deletion, NumberKey(place).extent());
        if (!body)
            return {};
        record.fromRawData(Extent(*body));
        std::uint32_t fileId = 0, state = 0;
        Pointer handle;
        MORVA_TRY(unpack(record, fileId, handle, state));
        take((state & State::inTable) != 0 ? std::optional(fileId) : std::nullopt, handle);
    }
}

Status SavedHandles::objects(TakeObject const& take) {
    UnpackBuffer record;
    return saved_.records().forEach(Section::Object, [&](Extent key, Extent body) -> Status {
        record.fromRawData(body);
        std::uint32_t fileId = 0, state = 0, writes = 0;
        Pointer handle;
        MORVA_TRY(unpack(record, fileId, handle, state));
        if (!record.take(writes))
            return damage("a mail object");
        take({static_cast<char const*>(key.data), key.size}, std::move(handle), writes);
        return {};
    });
}

QSet<QString> SavedHandles::resyncPaths() const {
    QSet<QString> paths;
    auto const taken =
        saved_.records().forEach(Section::ResyncPath, [&](Extent key, Extent) -> Status {
            paths.insert(QString(reinterpret_cast<QChar const*>(key.data),
                                 static_cast<qsizetype>(key.size / sizeof(char16_t))));
            return {};
        });
    (void)taken; // the visit doesn't fail
    return paths;
}

Status SavedHandles::takeSink(std::uint64_t& position, std::uint32_t& closedGraceLimit) const {
    auto const* const body = saved_.records().find(Section::Sink, {});
    UnpackBuffer record;
    if (body)
        record.fromRawData(Extent(*body));
    if (!record.take(position) || !record.take(closedGraceLimit))
        return damage("the sink's record");
    return {};
}

} // namespace Replication
