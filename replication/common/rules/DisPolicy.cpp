#include "replication/common/rules/DisPolicy.h"

#include "base/trace/Trace.h"
#include "replication/common/rules/DisStream.h"

#include <limits>

namespace Replication {

using Morva::XmlList;
using Morva::XmlListIterator;

DisPolicy::DisPolicy(XmlList const& list) {
    bool fine = true;
    for (XmlListIterator item(list); item; ++item)
        fine = readItem(item) && fine;

    // What readItem has not seen is missing; what it refused has been traced already.
    if (!list.contains(QStringLiteral("RuleCount"))) {
        MORVA_TRACE(Always) << "No or invalid rule count supplied";
        fine = false;
    }
    if (!list.contains(QStringLiteral("FirstRule"))) {
        MORVA_TRACE(Always) << "No or invalid first rule supplied";
        fine = false;
    }
    if (!list.contains(QStringLiteral("Mode"))) {
        MORVA_TRACE(Always) << "No or invalid comms mode supplied";
        fine = false;
    }
    if (!list.contains(QStringLiteral("Name")))
        MORVA_TRACE(Always) << "No or invalid policy name supplied";
    if (fine && ruleCount_ - 1 > std::numeric_limits<std::uint32_t>::max() - firstRule_) {
        MORVA_TRACE(Always) << "No or invalid rule count supplied";
        fine = false;
    }
    if (!fine) {
        name_.clear();
        return;
    }
    lastRule_ = firstRule_ + ruleCount_ - 1;
    MORVA_TRACE(Verbose) << "Rules" << firstRule_ << "-" << lastRule_;
}

bool DisPolicy::readItem(XmlListIterator const& item) {
    auto const& key = item.name();
    if (key == QLatin1String("RuleCount")) {
        ruleCount_ = item.getUint32();
        if (ruleCount_ == 0 || ruleCount_ > maxRules) {
            MORVA_TRACE(Always) << "No or invalid rule count supplied";
            return false;
        }
    } else if (key == QLatin1String("FirstRule")) {
        firstRule_ = item.getUint32();
        if (firstRule_ == 0) {
            MORVA_TRACE(Always) << "No or invalid first rule supplied";
            return false;
        }
    } else if (key == QLatin1String("Mode")) {
        if (!readMode(item.getString())) {
            MORVA_TRACE(Always) << "No or invalid comms mode supplied";
            return false;
        }
    } else if (key == QLatin1String("FilterType")) {
        filterType_ = eFilterFilesystem;
        if (item.getString() == QLatin1String("Exchange")) {
            filterType_ = eFilterExchange;
            MORVA_TRACE(Normal) << "This is an exchange policy";
        }
        MORVA_TRACE(Verbose) << "Filter Type set to" << filterType_;
    } else if (key == QLatin1String("Name")) {
        name_ = item.getString();
        if (name_.isEmpty()) {
            MORVA_TRACE(Always) << "No or invalid policy name supplied";
            return false;
        }
    } else {
        readDataOp(item);
    }
    return true;
}

bool DisPolicy::readMode(QString const& mode) {
    if (mode == QLatin1String("journaled"))
        commsMode_ = eJournaled;
    else if (mode == QLatin1String("sync"))
        commsMode_ = eSync;
    else if (mode == QLatin1String("async"))
        commsMode_ = eAsync;
    else {
        MORVA_TRACE(Always) << "invalid comms mode value" << mode;
        return false;
    }
    return true;
}

void DisPolicy::readDataOp(XmlListIterator const& item) {
    auto const operation = DisDataOp::make(item.name(), item.getXmlList());
    if (!operation || operation->operationId() == 0)
        return;
    MORVA_TRACE(Verbose) << "Add DataOp" << operation->type() << operation->operationId();
    dataOps_.insert_or_assign(operation->operationId(), operation);
}

bool DisPolicyInfo::addStream(DisStreamPointer const& stream) {
    switch (stream->type()) {
    case DisStream::eReplication:
        replicated_ = true;
        break;
    case DisStream::eForward:
        forwarded_ = true;
        break;
    case DisStream::eMirror:
        mirrored_ = true;
        repository_ = true;
        break;
    case DisStream::eRepository:
        repository_ = true;
        break;
    default:
        MORVA_TRACE(Always) << "Ignore these for now" << stream->type();
        return false;
    }
    streams_.append(stream);
    return true;
}

} // namespace Replication
