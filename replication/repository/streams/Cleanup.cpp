#include "replication/repository/streams/Cleanup.h"

#include "base/trace/Trace.h"
#include "base/trees/PagedQueue.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/streams/Streams.h"
#include "replication/repository/streams/TreeRecord.h"

#include <array>
#include <cstring>
#include <sys/eventfd.h>
#include <unistd.h>

namespace Replication {

using Morva::Extent;
using Morva::loadLittle;
using Morva::PagedQueue;
using Morva::storeLittle;

namespace {

constexpr std::uint32_t typeAt = 0;
constexpr std::uint32_t streamSize = CleanupRequest::payloadAt + 8;
constexpr std::uint32_t largestSize = CleanupRequest::payloadAt + TreeRecord::nodeSize;

bool isRecordSize(std::uint32_t size) {
    return size == TreeRecord::streamSize || size == TreeRecord::nodeSize;
}

} // namespace

bool CleanupRequest::decode(Extent const& bytes) {
    if (bytes.size < streamSize)
        return false;
    auto const kind = loadLittle<std::uint32_t>(bytes.bytes() + typeAt);
    std::uint32_t const payload = bytes.size - payloadAt;
    if (kind == DeleteStream && bytes.size == streamSize)
        stream.value = loadLittle<std::uint64_t>(bytes.bytes() + payloadAt);
    else if (kind == DeleteInfo && isRecordSize(payload))
        record = Extent(bytes.bytes() + payloadAt, payload);
    else
        return false;
    type = kind;
    return true;
}

bool CleanupRequest::deleteStream(PagedQueue& queue, StreamId id) {
    MORVA_TRACE(Normal) << ">>>> DeleteStream" << id;
    std::array<std::uint8_t, streamSize> bytes{};
    storeLittle<std::uint32_t>(&bytes[typeAt], DeleteStream);
    storeLittle(&bytes[payloadAt], id.value);
    return queue.send(Extent(bytes.data(), streamSize)).ok();
}

bool CleanupRequest::deleteInfo(PagedQueue& queue, Extent const& record) {
    MORVA_TRACE(Normal) << ">>>> DeleteInfo" << record.size;
    if (!isRecordSize(record.size))
        return false;
    std::array<std::uint8_t, largestSize> bytes{};
    storeLittle<std::uint32_t>(&bytes[typeAt], DeleteInfo);
    std::memcpy(&bytes[payloadAt], record.data, record.size);
    return queue.send(Extent(bytes.data(), payloadAt + record.size)).ok();
}

CleanupWorker::CleanupWorker(std::shared_ptr<Streams> streams)
    : streams_(std::move(streams)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

CleanupWorker::~CleanupWorker() {
    stop();
    if (wake_ >= 0)
        ::close(wake_);
}

bool CleanupWorker::start() {
    if (running() || wake_ < 0 || streams_->stopping())
        return false;
    stop_ = false;
    thread_ = std::thread([this] { run(); });
    return true;
}

void CleanupWorker::stop() {
    if (!running())
        return;
    stop_ = true;
    ::eventfd_write(wake_, 1);
    thread_.join();
    eventfd_t ignored = 0;
    ::eventfd_read(wake_, &ignored);
}

void CleanupWorker::run() {
    MORVA_METHOD("CleanupWorker::run");
    streams_->beginThread();
    PagedQueue& queue = streams_->cleanupQueue();
    Extent entry;
    if (queue.receiver(wake_)) {
        while (!stop_) {
            Morva::Status const received = queue.receivePolled(entry);
            if (received.is(Morva::Status::Code::Corruption))
                continue; // traced; what is behind the damaged requests is received next
            if (!received || !work(entry))
                break;
        }
    }
    streams_->endThread();
}

bool CleanupWorker::work(Extent const& entry) {
    MORVA_TRACE(Normal) << "Got a" << entry.size << "byte request";
    PagedQueue& queue = streams_->cleanupQueue();
    bool released = false;
    auto const done = [&queue, &released] { released = queue.release().ok(); };
    CleanupRequest request;
    if (!request.decode(entry)) {
        done();
        return released;
    }
    if (request.type == CleanupRequest::DeleteStream) {
        MORVA_TRACE(Normal) << "LFB:Delete stream" << request.stream;
        return streams_->deleteStream(request.stream, done) && released;
    }
    TreeRecord const record = TreeRecord::readOnly(request.record.data);
    MORVA_TRACE(Normal) << "LFB:Delete stream data" << record.length() << record.depth();
    return streams_->deleteInfo(request.record, done) && released;
}

bool drainQueue(Streams const& streams, PagedQueue& queue,
                std::function<bool(Extent const&)> const& work) {
    bool good = queue.receiver().ok() && !streams.stopping();
    Extent entry;
    while (good) {
        auto const received = queue.tryReceive(entry);
        if (received.code() == Morva::Status::Code::Corruption)
            continue; // traced; what is behind the damaged requests is received next
        if (received.ok() && !*received)
            break;
        good = received.ok() && work(entry);
    }
    return good;
}

bool CleanupWorker::drain() {
    bool const wasRunning = running();
    stop();
    bool good = drainQueue(*streams_, streams_->cleanupQueue(),
                           [this](Extent const& entry) { return work(entry); });
    if (wasRunning)
        good = start() && good;
    return good;
}

} // namespace Replication
