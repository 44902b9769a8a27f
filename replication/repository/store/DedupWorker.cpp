#include "replication/repository/store/DedupWorker.h"

#include "base/process/Context.h"
#include "base/trace/Trace.h"
#include "base/trees/PagedQueue.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/DedupRequest.h"
#include "replication/repository/streams/OperationGate.h"
#include "replication/repository/streams/Streams.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace Replication {

using Morva::Extent;
using Morva::PagedQueue;

namespace {

constexpr time_t checkSeconds = 60;

} // namespace

DedupWorker::DedupWorker(std::shared_ptr<Streams> streams, std::function<void()> checkForFreeze)
    : streams_(std::move(streams)),
      checkForFreeze_(std::move(checkForFreeze)),
      stopEvent_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      wake_(::epoll_create1(EPOLL_CLOEXEC)) {
    if (!checkForFreeze_)
        checkForFreeze_ = [] {};
    itimerspec const every{{checkSeconds, 0}, {checkSeconds, 0}};
    ::timerfd_settime(timer_, 0, &every, nullptr);
    for (int const descriptor : {stopEvent_, timer_}) {
        epoll_event event{};
        event.events = EPOLLIN;
        ::epoll_ctl(wake_, EPOLL_CTL_ADD, descriptor, &event);
    }
}

DedupWorker::~DedupWorker() {
    stop();
    for (int const descriptor : {stopEvent_, timer_, wake_})
        if (descriptor >= 0)
            ::close(descriptor);
}

bool DedupWorker::start() {
    if (running() || stopEvent_ < 0 || timer_ < 0 || wake_ < 0 || streams_->stopping())
        return false;
    stop_ = false;
    thread_ = std::thread([this] { run(); });
    return true;
}

void DedupWorker::stop() {
    if (running()) {
        stop_ = true;
        ::eventfd_write(stopEvent_, 1);
        thread_.join();
        eventfd_t ignored = 0;
        ::eventfd_read(stopEvent_, &ignored);
    }
    close();
}

void DedupWorker::close() {
    MORVA_TRACE(Normal) << "Remove" << stores_.size() << "store(s)";
    stores_.clear();
    buffer_ = {};
}

void DedupWorker::run() {
    MORVA_METHOD("DedupWorker::run");
    streams_->beginThread();
    PagedQueue& queue = streams_->dedupQueue();
    bool good = queue.receiver(wake_).ok();
    Extent entry;
    while (good && !stop_) {
        Morva::Status const received = queue.receivePolled(entry);
        if (received.is(Morva::Status::Code::Corruption))
            continue; // traced; what is behind the damaged requests is received next
        if (received.is(Morva::Status::Code::Stopped) && !stop_) {
            std::uint64_t expirations = 0;
            // Nothing to read: it was not the timer, so the queue itself was stopped.
            good = ::read(timer_, &expirations, sizeof expirations) == sizeof expirations;
            (void)closeIdle(Morva::Context::systemTime());
            continue;
        }
        good = received.ok() && work(entry);
    }
    close();
    streams_->endThread();
}

bool DedupWorker::drain() {
    bool const wasRunning = running();
    stop();
    bool good = drainQueue(*streams_, streams_->dedupQueue(),
                           [this](Extent const& entry) { return work(entry); });
    close();
    if (wasRunning)
        good = start() && good;
    return good;
}

bool DedupWorker::work(Extent const& entry) {
    MORVA_TRACE(Normal) << "Got a" << entry.size << "byte request";
    DedupRequest request;
    if (request.decode(entry)) {
        auto [it, added] = stores_.try_emplace(request.store);
        OpenStore& open = it->second;
        if (!open.store)
            open.store = Store::open(request.store, false);
        auto const goes = [&open] { return !open.store || open.store->markedForDeletion(); };
        bool const finished = goes() || handle(request, *open.store);
        open.retire = Morva::Context::systemTime() + keepOpenMs;
        // A store that is gone, or about to go, needs nothing any more, and ends its work early.
        if (goes())
            stores_.erase(it);
        else if (!finished)
            return false;
    }
    // A request that is done twice, after a crash, does no harm.
    OperationGate::Enter const gate;
    return streams_->dedupQueue().release().ok();
}

bool DedupWorker::handle(DedupRequest const& request, Store& store) {
    if (buffer_.empty())
        buffer_.resize(bufferSize);
    Extent buffer(static_cast<void*>(buffer_.data()), bufferSize);
    switch (request.type) {
    case DedupRequest::DedupSnapshot:
        MORVA_TRACE(Normal) << "Dedup snapshot" << request.instance() << "of store" << store.id();
        return store.snapshots().dedupSnapshot(checkForFreeze_, request.instance(), buffer);
    case DedupRequest::DeleteSnapshot:
        MORVA_TRACE(Normal) << "Delete snapshot" << request.instance() << "of store" << store.id();
        (void)store.snapshots().retireSnapshot(request.instance());
        return true;
    case DedupRequest::DedupVersion:
        MORVA_TRACE(Normal) << "Dedup version" << request.value << "in store" << store.id();
        return store.dedupVersion(checkForFreeze_, NodeNumber{request.value}, buffer);
    default:
        return true;
    }
}

std::size_t DedupWorker::closeIdle(std::uint64_t now) {
    std::erase_if(stores_, [now](auto const& entry) {
        bool const idle = entry.second.retire != 0 && entry.second.retire <= now;
        MORVA_TRACE(Verbose) << (idle ? "Retired" : "Retire ") << entry.second.retire;
        return idle;
    });
    return stores_.size();
}

} // namespace Replication
