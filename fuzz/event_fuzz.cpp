// Records that are copied between processes: events, version records of each form, portable
// metadata, file handles, deduplication requests. The first byte chooses.

#include "fuzz/Input.h"
#include "replication/common/values/RepMetadata.h"
#include "replication/repository/store/Event.h"
#include "replication/repository/store/Version.h"
#include "replication/repository/streams/DedupRequest.h"

using Morva::Extent;
using Morva::PackBuffer;
using Morva::UnpackBuffer;
using Morva::Fuzzing::require;
using Replication::EventRecord;
using Replication::RepMetadata;
using Replication::Version;

namespace {

void event(Extent const& record) {
    auto const read = EventRecord::decode(record);
    if (!read)
        return;
    PackBuffer packed;
    read->encode(packed);
    auto const again = EventRecord::decode(packed.extentWithoutSize());
    require(again.has_value(), "an event comes back");
    // Several forms of a handle mean the same; all are written in one.
    PackBuffer second;
    again->encode(second);
    require(second.extentWithoutSize().toByteArray() == packed.extentWithoutSize().toByteArray(),
            "and is the same");
}

void version(std::uint32_t form, Extent const& record) {
    Version read;
    UnpackBuffer source;
    source.fromRawData(record);
    if (!read.unpack(form, source))
        return;
    read.print(0);
    PackBuffer packed;
    read.pack(packed);
    UnpackBuffer second;
    second.fromRawData(packed.extentWithoutSize());
    Version again;
    require(again.unpack(3, second), "a version comes back");
    require(again.fileNode == read.fileNode && again.user == read.user &&
                again.rules == read.rules && again.link == read.link,
            "and is the same");
}

void metadata(Extent const& record) {
    RepMetadata read;
    UnpackBuffer source;
    source.fromRawData(record);
    if (!read.deserialize(source))
        return;
    PackBuffer packed;
    read.serialize(packed);
    UnpackBuffer second;
    second.fromRawData(packed.extentWithoutSize());
    RepMetadata again;
    require(again.deserialize(second) && again == read, "metadata come back");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0)
        return 0;
    Extent const record(data + 1, static_cast<std::uint32_t>(size - 1));
    switch (data[0] % 8) {
    case 0:
    case 1:
        event(record);
        break;
    case 2:
    case 3:
    case 4:
    case 5:
        version(data[0] % 8u - 2, record);
        break;
    case 6:
        metadata(record);
        break;
    default:
        Replication::FileHandle handle;
        require(handle.decode(record) == (record.size >= 32), "handle");
        Replication::DedupRequest request;
        require(request.decode(record) == (record.size == 24), "request");
    }
    return 0;
}
