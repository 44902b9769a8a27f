#include "peers/morva/Replay.h"

#include "peers/morva/ExitCode.h"
#include "peers/morva/Failure.h"

#include <cstring>
#include <utility>

namespace Morva {

using Replication::DataSink;
using Replication::LogHeader;
using Replication::LogPointer;
using Replication::LogReadAhead;

Replay::Replay(Root& root, Root::Source const& source, Output& output)
    : root_(root), output_(output), sink_(root.sink(source)) {}

void Replay::apply(LogPointer const& log) {
    counts_.lastNumber = log->sequenceNumber();
    auto const outcome = sink_->takeLog(log);
    switch (outcome) {
    case DataSink::Outcome::Applied:
    case DataSink::Outcome::Forgiven:
        ++counts_.logs;
        counts_.bytes += log->body().size;
        counts_.unknown = sink_->unknownHandleLogs();
        if (std::exchange(leftOut_, sink_->leftOut()) != sink_->leftOut()) {
            ++counts_.failed;
            ++counts_.unsupported;
        }
        root_.checkpointIfDue();
        return;
    case DataSink::Outcome::AlreadyReplicated:
        ++counts_.old;
        return;
    case DataSink::Outcome::Waiting:
        throw CommandFailure(ExitCode::Failed, QStringLiteral("the rule set %1 of log %2 can't be "
                                                              "loaded")
                                                   .arg(log->ruleSet())
                                                   .arg(log->sequenceNumber()));
    case DataSink::Outcome::Jumped:
        throw CommandFailure(ExitCode::Failed, sink_->failure().text());
    case DataSink::Outcome::NoSpace:
    case DataSink::Outcome::Failed:
        refuse(*log);
        return;
    }
}

void Replay::refuse(Replication::LogEntry const& log) {
    auto const& why = sink_->failure();
    auto const path = log.file();
    auto const what = QStringLiteral("log %1 could not be applied").arg(log.sequenceNumber());
    // What doesn't fit the store, or meets damage in it, is left out; the rest goes on.
    if (!why.is(Status::Code::InvalidArgument) && !why.is(Status::Code::NotFound) &&
        !why.is(Status::Code::Corruption))
        throw commandFailure(what +
                                 ", and the repository is as it was at its last checkpoint, from "
                                 "which the same command goes on",
                             why);
    ++counts_.failed;
    output_.unreadable({path.data(), static_cast<qsizetype>(path.size())},
                       what + ": " + why.text());
}

QString Replay::readAll(LogReadAhead& input, std::uint64_t size) {
    LogHeader header;
    while (!Output::interrupted.load(std::memory_order_relaxed) && !input.atEnd()) {
        auto const start = input.position();
        auto const broken = [&](char const* what) {
            return QStringLiteral(
                       "the log that begins at byte %1 %2; %3 logs before it are applied")
                .arg(start)
                .arg(QLatin1String(what))
                .arg(counts_.logs);
        };
        if (!header.receive(input.io()))
            return broken("has a torn or damaged header");
        if (header.type() == LogHeader::Notification)
            continue;
        auto const log = pool_.acquire();
        auto const body = input.position();
        if (log->receive(input.io(), header))
            apply(log);
        else if (input.position() - body == header.bodySize())
            refuseDamaged(header, start);
        else
            return broken("is torn");
        output_.progress(input.position(), size, counts_.logs);
    }
    if (input.lastError() != 0)
        return QStringLiteral("can't read the log: ") + std::strerror(input.lastError());
    return {};
}

/// The next log begins where it should, so that only this one is lost.
void Replay::refuseDamaged(LogHeader const& header, std::uint64_t start) {
    ++counts_.failed;
    sink_->sendNak(header.sequenceNumber());
    sink_->sendResyncRequired(QStringLiteral("failed to decode log"), true, 4);
    output_.error(QStringLiteral("log %1, which begins at byte %2, is damaged and was not applied; "
                                 "the store needs a replication of the whole source")
                      .arg(header.sequenceNumber())
                      .arg(start));
}

void Replay::levelWithSource() {
    if (sink_->needsResync())
        sink_->needsResync(false);
}

void Replay::end() {
    if (auto const saved = sink_->handleShutdown(); !saved)
        throw commandFailure("how far the store has come can't be saved", saved);
}

} // namespace Morva
