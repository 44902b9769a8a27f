// What a sink saves beside its store, and takes up again.

#include "base/blocks/Failures.h"
#include "base/trace/Trace.h"
#include "replication/repository/replay/Sink.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/OperationGate.h"

namespace Replication {

using Morva::Status;

// --- saving

Status Sink::save(SavedState& saved) {
    SavedHandles handles(saved, *store_);
    auto const table = [&handles](HandleTable const& from, bool closed) {
        for (auto each = from.cbegin(); each != from.cend(); ++each)
            handles.handle(each.key(), static_cast<SinkHandle const&>(**each), closed);
    };
    table(openHandles(), false);
    table(closedHandles(), true);
    saveMore(handles);
    for (auto const& path : resyncPaths())
        handles.resyncPath(path);
    handles.sink(position(), closedGraceLimit());
    if ((stateFile().flags() & StateFile::handlesFlag) == 0 &&
        !stateFile().flag(StateFile::handlesFlag, true))
        return Status::failure(Status::Code::IoError, "write state", identity().stateFile);
    MORVA_TRY(unsupported_.save());
    return savePosition();
}

Status Sink::saveState() {
    return store_->saved().stop(*this);
}

// --- taking up

Status Sink::loadState() {
    MORVA_TRY(DataSink::loadState());
    OperationGate::Enter const entered;
    Morva::Failures::Watch const failures;
    auto& saved = store_->saved();
    saved.attach(*this);
    auto const expected = (stateFile().flags() & StateFile::handlesFlag) != 0;
    if (saved.damaged() || (expected && !saved.found()))
        return startAnew(Status::corruption("read saved state", store_->path(),
                                            QStringLiteral("the open files of the source are "
                                                           "missing or damaged")));
    if (!saved.found())
        return {};
    auto taken = takeUp();
    if (failures.any())
        taken = Status::failure(Status::Code::IoError, "take up saved state", store_->path());
    if (taken.is(Status::Code::Corruption))
        return startAnew(taken);
    // Half of it is not to be saved: what is saved stays, for the next start.
    if (!taken) {
        forgetHandles();
        saved.detach(*this, true);
    }
    return taken;
}

Status Sink::takeUp() {
    auto& saved = store_->saved();
    SavedHandles handles(saved, *store_);
    std::uint64_t position = 0;
    std::uint32_t limit = 0;
    MORVA_TRY(handles.takeSink(position, limit));
    if (position != this->position())
        return Status::corruption("read saved state", store_->path(),
                                  QStringLiteral("it is of another time than the position"));
    MORVA_TRY(saved.takeUp());
    closedGraceLimit(limit);
    resyncPaths(handles.resyncPaths());
    MORVA_TRY(handles.handles([this](std::uint32_t fileId, SinkHandlePointer handle, bool closed) {
        if ((handle->flags & SinkHandle::neverOpened) != 0)
            ++neverOpened_;
        if ((handle->flags & SinkHandle::lost) != 0)
            addResyncPath(pathOf(*handle).join(u'/'), false);
        (closed ? closedHandles() : openHandles()).insert(fileId, std::move(handle));
    }));
    return takeUpMore(handles);
}

/// The tables are lost, and with them what the source's numbers stand for.
Status Sink::startAnew(Status const& why) {
    MORVA_TRACE(Always) << "Drop saved handles" << why.text();
    forgetHandles();
    resyncPaths({});
    closedGraceLimit(0);
    neverOpened_ = 0;
    store_->saved().drop();
    if (position() != 0)
        sendResyncRequired(QStringLiteral("The saved open files are missing or damaged"), true, 3);
    return {};
}

} // namespace Replication
