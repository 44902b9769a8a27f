#include "replication/common/rules/DisDataOp.h"

#include "base/trace/Trace.h"

#include <iterator>

namespace Replication {

using Morva::XmlList;

namespace {

constexpr char const* typeNames[] = {
    "Invalid", "Replicate", "Version", "Cdp",   "Backup",
    "Block",   "Index",     "Track",   "Shred", "ClassificationTag"};

template <class Op> DisDataOpPointer read(XmlList const& list) {
    return std::make_shared<Op const>(list);
}

struct Maker {
    DisDataOp::Type type;
    DisDataOpPointer (*make)(XmlList const&);
};

constexpr Maker makers[] = {
    {DisDataOp::eReplicate, read<ReplicateDataOp>},
    {DisDataOp::eVersion, read<VersionDataOp>},
    {DisDataOp::eCdp, read<CdpDataOp>},
    {DisDataOp::eBackup, read<BackupDataOp>},
    {DisDataOp::eBlock, read<BlockDataOp>},
    {DisDataOp::eIndex, read<IndexDataOp>},
    {DisDataOp::eTrack, read<TrackDataOp>},
    {DisDataOp::eShred, read<ShredDataOp>},
    {DisDataOp::eClassificationTag, read<ClassificationTagDataOp>},
};

} // namespace

DisDataOpPointer DisDataOp::make(QString const& itemName, XmlList const& list) {
    for (auto const& maker : makers) {
        if (itemName == QLatin1String(typeNames[maker.type]))
            return maker.make(list);
    }
    return nullptr;
}

QString DisDataOp::itemName(Type type) {
    return type == eInvalid ? QString() : QString::fromLatin1(typeNames[type]);
}

DisDataOp::DisDataOp(XmlList const& list)
    : operationId_(list.getUint32(nullptr, QStringLiteral("OperationId"))),
      name_(list.getString(nullptr, QStringLiteral("Name"))) {
    if (operationId_ == 0)
        MORVA_TRACE(Always) << "No or invalid dataop id";
}

RetentionDataOp::RetentionDataOp(XmlList const& list) : DisDataOp(list) {
    bool found = false;
    bool all = true;
    retention_ = list.getString(&found, QStringLiteral("Retention"));
    if (!found) {
        MORVA_TRACE(Debug) << "No retention";
        all = false;
    }
    recoveryPointObjective_ = list.getString(&found, QStringLiteral("RecoveryPointObjective"));
    if (!found) {
        MORVA_TRACE(Debug) << "No recovery point objective";
        all = false;
    }
    recoveryTimeObjective_ = list.getString(&found, QStringLiteral("RecoveryTimeObjective"));
    if (!found) {
        MORVA_TRACE(Debug) << "No recovery time objective";
        all = false;
    }
    if (!all) {
        operationId_ = 0;
        retention_.clear();
        recoveryPointObjective_.clear();
        recoveryTimeObjective_.clear();
    }
}

ClassificationTagDataOp::ClassificationTagDataOp(XmlList const& list) : DisDataOp(list) {
    bool hasType = false;
    bool hasValue = false;
    sensitivity_ = list.getString(nullptr, QStringLiteral("Sensitivity"));
    group_ = list.getString(nullptr, QStringLiteral("Group"));
    customType_ = list.getString(&hasType, QStringLiteral("CustomType"));
    customValue_ = list.getString(&hasValue, QStringLiteral("CustomValue"));
    if (hasType && hasValue)
        return;
    if (!hasValue)
        MORVA_TRACE(Always) << "Custom type with no value";
    if (!hasType)
        MORVA_TRACE(Always) << "Custom value with no value";
    operationId_ = 0;
    sensitivity_.clear();
    group_.clear();
    customType_.clear();
    customValue_.clear();
}

Morva::TraceLine& operator<<(Morva::TraceLine& line, DisDataOp::Type type) {
    return line << (type < std::size(typeNames) ? typeNames[type] : "unknown");
}

} // namespace Replication
