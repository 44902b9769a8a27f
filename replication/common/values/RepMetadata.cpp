#include "replication/common/values/RepMetadata.h"

#include "base/trace/Trace.h"

namespace Replication {

using Morva::Buffer;
using Morva::PackBuffer;
using Morva::UnpackBuffer;

namespace {

void append(PackBuffer& record, Digest const& digest) {
    record.append(digest.type);
    record.append(digest.value.data(), static_cast<std::uint32_t>(digest.value.size()));
}

bool take(UnpackBuffer& record, Digest& digest) {
    return record.take(digest.type) &&
           record.take(digest.value.data(), static_cast<std::uint32_t>(digest.value.size()));
}

bool take(UnpackBuffer& record, RepMetadata::Stream& stream) {
    return record.take(stream.name) && record.take(stream.id) && record.take(stream.size) &&
           record.take(stream.deduped) && take(record, stream.digest);
}

} // namespace

void RepMetadata::serialize(PackBuffer& record) const {
    record.append(kind);
    if (kind != eSnapshot && kind != eBackup)
        return;
    record.append(type);
    record.append(placeHolder);
    for (std::uint32_t const value :
         {attributes, createdHere, modifiedHere, createdSource, modifiedSource})
        record.append(value);
    record.append(owner);
    record.append(sourceMachine);
    record.append(linkCount);
    if (kind == eSnapshot) {
        record.append(size);
        record.append(deduped);
        append(record, digest);
        return;
    }
    for (Stream const& stream : streams) {
        record.append(stream.name);
        record.append(stream.id);
        record.append(stream.size);
        record.append(stream.deduped);
        append(record, stream.digest);
    }
}

bool RepMetadata::serialize(Buffer& reply) const {
    PackBuffer record;
    serialize(record);
    Morva::Extent const bytes = record.extentWithoutSize();
    return reply.append(bytes.data, bytes.size);
}

bool RepMetadata::deserialize(UnpackBuffer& record) {
    bool taken = record.take(kind);
    if (taken && kind == eInvalid)
        return true;
    if (taken && kind > eBackup) {
        MORVA_TRACE(Always) << "Unknown type" << kind;
        return false;
    }
    taken = taken && record.take(type) && record.take(placeHolder);
    for (std::uint32_t* const value :
         {&attributes, &createdHere, &modifiedHere, &createdSource, &modifiedSource})
        taken = taken && record.take(*value);
    taken = taken && record.take(owner) && record.take(sourceMachine) && record.take(linkCount);
    if (taken && kind == eSnapshot) {
        MORVA_TRACE(Debug) << "Got a snapshot";
        taken = record.take(size) && record.take(deduped) && take(record, digest);
    } else if (taken) {
        // The list ends with the record.
        streams.clear();
        while (taken && record.extent().size != 0) {
            Stream stream;
            taken = take(record, stream);
            if (taken)
                streams.push_back(std::move(stream));
        }
    }
    if (!taken)
        MORVA_TRACE(Always) << "extract failed";
    return taken;
}

} // namespace Replication
