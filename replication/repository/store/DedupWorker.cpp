#include "replication/repository/store/DedupWorker.h"

#include "base/process/Context.h"
#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "base/trees/PagedQueue.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/OperationGate.h"
#include "replication/repository/streams/Streams.h"

#include <utility>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace Replication {

using Morva::Extent;
using Morva::PagedQueue;
using Morva::Status;
using Morva::TracedLock;

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
    forgetParked();
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
    TracedLock guard(parkedLock_);
    if (std::exchange(returned_, true))
        return;
    for (Parked const& each : parked_)
        // What a snapshot's file or a dedup list tells of is found again by the store in any case.
        if (Status const sent = putBack(each.request); !sent)
            MORVA_TRACE(Always) << "Failed to put a request back into the dedup queue"
                                << sent.text();
}

Status DedupWorker::putBack(DedupRequest const& request) {
    auto const bytes = request.encode();
    return streams_->dedupQueue().send(Extent(bytes.data(), DedupRequest::packedSize));
}

void DedupWorker::forgetParked() {
    TracedLock guard(parkedLock_);
    parked_.clear();
    returned_ = false;
}

std::vector<DedupWorker::Parked> DedupWorker::parked() const {
    TracedLock guard(parkedLock_);
    return parked_;
}

void DedupWorker::run() {
    MORVA_METHOD("DedupWorker::run");
    streams_->beginThread();
    while (!stop_ && !streams_->stopping()) {
        Status const served = serveQueue();
        if (served)
            break;
        // Once more at the next look at the stores.
        MORVA_TRACE(Always) << "The dedup queue has failed" << served.text();
        pollfd wait{wake_, POLLIN, 0};
        (void)::poll(&wait, 1, -1); // whatever ends it, the queue is tried again
        takeTimer();
    }
    close();
    streams_->endThread();
}

bool DedupWorker::takeTimer() {
    std::uint64_t expirations = 0;
    bool const expired = ::read(timer_, &expirations, sizeof expirations) == sizeof expirations;
    (void)closeIdle(Morva::Context::systemTime()); // how many are left is of no interest
    return expired;
}

Status DedupWorker::serveQueue() {
    PagedQueue& queue = streams_->dedupQueue();
    MORVA_TRY(queue.receiver(wake_));
    Extent entry;
    while (!stop_) {
        Status received = queue.receivePolled(entry);
        if (received.is(Status::Code::Corruption))
            continue; // traced; what is behind the damaged requests is received next
        if (received.is(Status::Code::Stopped)) {
            // Nothing to read: it was not the timer, so the queue itself was stopped.
            if (stop_ || !takeTimer())
                return {};
            continue;
        }
        MORVA_TRY(std::move(received));
        if (Status worked = work(entry, {}); !worked)
            return worked.is(Status::Code::Stopped) ? Status() : worked;
    }
    return {};
}

Status DedupWorker::drain(SafePoint const& safePoint) {
    bool const wasRunning = running();
    stop();
    forgetParked();
    // What a safe point fails with ends the work at hand, and that is no failure of the work.
    Status ended;
    SafePoint const point = [&] {
        if (safePoint)
            ended = safePoint();
        return ended ? Status()
                     : Status::failure(Status::Code::Stopped, "work off", QStringLiteral("dedup"));
    };
    Status outcome;
    bool const good = drainQueue(*streams_, streams_->dedupQueue(), [&](Extent const& entry) {
        outcome = work(entry, point);
        if (outcome)
            outcome = point();
        return outcome.ok();
    });
    if (!ended)
        outcome = std::move(ended);
    if (!good && outcome)
        outcome =
            Status::failure(streams_->stopping() ? Status::Code::Stopped : Status::Code::IoError,
                            "work off the queue", QStringLiteral("dedupqueue"));
    close();
    if (wasRunning && !start())
        outcome.update(Status::failure(Status::Code::Stopped, "start", QStringLiteral("dedup")));
    return outcome;
}

Status DedupWorker::work(Extent const& entry, SafePoint const& safePoint) {
    MORVA_TRACE(Normal) << "Got a" << entry.size << "byte request";
    DedupRequest request;
    if (request.decode(entry)) {
        Status outcome = serve(request, safePoint);
        if (outcome.is(Status::Code::Stopped))
            return outcome;
        if (!outcome)
            park(request, std::move(outcome));
    }
    // A request that is done twice, after a crash, does no harm.
    OperationGate::Enter const gate;
    return streams_->dedupQueue().release();
}

Status DedupWorker::serve(DedupRequest const& request, SafePoint const& safePoint) {
    auto [it, added] = stores_.try_emplace(request.store);
    OpenStore& open = it->second;
    if (!open.store) {
        auto opened = Store::open(request.store, true);
        if (!opened.ok()) {
            stores_.erase(it);
            // A store that is certainly gone needs nothing any more.
            return opened.code() == Status::Code::NotFound ? Status() : opened.status();
        }
        open.store = *std::move(opened);
    }
    auto const goes = [&open] { return open.store->markedForDeletion(); };
    Status outcome;
    if (!goes())
        outcome = open.store->valid() ? handle(request, *open.store, safePoint)
                                      : open.store->invalidity();
    open.retire = Morva::Context::systemTime() + keepOpenMs;
    // One that is about to go ends its work early; one that isn't valid is opened anew next time.
    bool const going = goes();
    if (going || !open.store->valid())
        stores_.erase(it);
    return going ? Status() : outcome;
}

void DedupWorker::park(DedupRequest const& request, Status reason) {
    Morva::LogLine(QStringLiteral("Repository"), Morva::LogLevelE::Error)
        << "Background work failed and is tried again later: %1s" << reason.text();
    TracedLock guard(parkedLock_);
    parked_.push_back({request, std::move(reason)});
}

Status DedupWorker::handle(DedupRequest const& request, Store& store, SafePoint const& safePoint) {
    if (buffer_.empty())
        buffer_.resize(bufferSize);
    Extent buffer(static_cast<void*>(buffer_.data()), bufferSize);
    switch (request.type) {
    case DedupRequest::DedupSnapshot:
        MORVA_TRACE(Normal) << "Dedup snapshot" << request.instance() << "of store" << store.id();
        return store.snapshots().dedupSnapshot(checkForFreeze_, request.instance(), buffer);
    case DedupRequest::DeleteSnapshot:
        MORVA_TRACE(Normal) << "Delete snapshot" << request.instance() << "of store" << store.id();
        return store.snapshots().retireSnapshot(request.instance(), safePoint);
    case DedupRequest::DedupVersion:
        MORVA_TRACE(Normal) << "Dedup version" << request.value << "in store" << store.id();
        return store.dedupVersion(checkForFreeze_, NodeNumber{request.value}, buffer);
    default:
        return {};
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
