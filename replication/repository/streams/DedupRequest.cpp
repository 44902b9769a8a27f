#include "replication/repository/streams/DedupRequest.h"

#include "base/trace/Trace.h"
#include "base/trees/PagedQueue.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/streams/Streams.h"

namespace Replication {

using Morva::loadLittle;
using Morva::storeLittle;

namespace {

constexpr std::uint32_t typeAt = 0;
constexpr std::uint32_t storeAt = 8;
constexpr std::uint32_t valueAt = 16;

bool send(Streams& streams, DedupRequest const& request) {
    auto const bytes = request.encode();
    return streams.dedupQueue().send(Morva::Extent(bytes.data(), DedupRequest::packedSize)).ok();
}

} // namespace

std::array<std::uint8_t, DedupRequest::packedSize> DedupRequest::encode() const {
    std::array<std::uint8_t, packedSize> bytes{};
    storeLittle(&bytes[typeAt], type);
    storeLittle(&bytes[storeAt], store.value);
    storeLittle(&bytes[valueAt], value);
    return bytes;
}

bool DedupRequest::decode(Morva::Extent const& bytes) {
    if (bytes.size != packedSize)
        return false;
    type = loadLittle<std::uint32_t>(bytes.bytes() + typeAt);
    store.value = loadLittle<std::uint64_t>(bytes.bytes() + storeAt);
    value = loadLittle<std::uint64_t>(bytes.bytes() + valueAt);
    return true;
}

bool DedupRequests::dedupSnapshot(Streams& streams, StoreId store, Instance instance) {
    MORVA_TRACE(Normal) << ">>>> DedupSnapshot" << store << instance;
    return send(streams, {DedupRequest::DedupSnapshot, store, instance.value});
}

bool DedupRequests::deleteSnapshot(Streams& streams, StoreId store, Instance instance) {
    MORVA_TRACE(Normal) << ">>>> DeleteSnapshot" << store << instance;
    return send(streams, {DedupRequest::DeleteSnapshot, store, instance.value});
}

bool DedupRequests::dedupVersion(Streams& streams, StoreId store, std::uint64_t version) {
    MORVA_TRACE(Normal) << ">>>> DedupVersion" << store << version;
    return send(streams, {DedupRequest::DedupVersion, store, version});
}

} // namespace Replication
