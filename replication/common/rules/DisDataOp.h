#pragma once

#include "base/messages/XmlList.h"

#include <memory>

namespace Replication {

/// One data operation that a policy calls for. Read from a list; an `operationId` of 0 says that
/// the list was not usable. Immutable once read.
///
///  key          type            failure
///  OperationId  uint32, not 0   "No or invalid dataop id"
///  Name         string          may be missing
class DisDataOp {
public:
    enum Type : std::uint32_t {
        eInvalid = 0,
        eReplicate = 1,
        eVersion = 2,
        eCdp = 3,
        eBackup = 4,
        eBlock = 5,
        eIndex = 6,
        eTrack = 7,
        eShred = 8,
        eClassificationTag = 9
    };

    /// Reads the operation that a policy's item of this name describes; null if the name is none
    /// of the nine.
    [[nodiscard]] static std::shared_ptr<DisDataOp const> make(QString const& itemName,
                                                               Morva::XmlList const& list);
    /// The name of the item that describes operations of a type; empty for `eInvalid`.
    [[nodiscard]] static QString itemName(Type type);

    virtual ~DisDataOp() = default;
    [[nodiscard]] virtual Type type() const = 0;
    [[nodiscard]] std::uint32_t operationId() const { return operationId_; }
    [[nodiscard]] QString const& name() const { return name_; }

protected:
    explicit DisDataOp(Morva::XmlList const& list);

    std::uint32_t operationId_ = 0;
    QString name_;
};

using DisDataOpPointer = std::shared_ptr<DisDataOp const>;

/// An operation with objectives, which are text that is passed on and not interpreted here.
/// "Retention", "RecoveryPointObjective" and "RecoveryTimeObjective" are all required: without one
/// the operation has id 0 and all three are empty.
class RetentionDataOp : public DisDataOp {
public:
    [[nodiscard]] QString const& retention() const { return retention_; }
    [[nodiscard]] QString const& recoveryPointObjective() const { return recoveryPointObjective_; }
    [[nodiscard]] QString const& recoveryTimeObjective() const { return recoveryTimeObjective_; }

protected:
    explicit RetentionDataOp(Morva::XmlList const& list);

private:
    QString retention_;
    QString recoveryPointObjective_;
    QString recoveryTimeObjective_;
};

/// A kind of operation that adds nothing but its type.
template <class Base, DisDataOp::Type kind> class TypedDataOp : public Base {
public:
    explicit TypedDataOp(Morva::XmlList const& list) : Base(list) {}
    [[nodiscard]] DisDataOp::Type type() const override { return kind; }
};

using ReplicateDataOp = TypedDataOp<RetentionDataOp, DisDataOp::eReplicate>;
using VersionDataOp = TypedDataOp<RetentionDataOp, DisDataOp::eVersion>;
using CdpDataOp = TypedDataOp<RetentionDataOp, DisDataOp::eCdp>;
using BackupDataOp = TypedDataOp<RetentionDataOp, DisDataOp::eBackup>;
using BlockDataOp = TypedDataOp<DisDataOp, DisDataOp::eBlock>;
using IndexDataOp = TypedDataOp<DisDataOp, DisDataOp::eIndex>;
using TrackDataOp = TypedDataOp<DisDataOp, DisDataOp::eTrack>;
using ShredDataOp = TypedDataOp<DisDataOp, DisDataOp::eShred>;

/// "Sensitivity" and "Group" are optional, "CustomType" and "CustomValue" required: without one
/// the operation has id 0 and all four are empty.
class ClassificationTagDataOp : public DisDataOp {
public:
    explicit ClassificationTagDataOp(Morva::XmlList const& list);
    [[nodiscard]] Type type() const override { return eClassificationTag; }
    [[nodiscard]] QString const& sensitivity() const { return sensitivity_; }
    [[nodiscard]] QString const& group() const { return group_; }
    [[nodiscard]] QString const& customType() const { return customType_; }
    [[nodiscard]] QString const& customValue() const { return customValue_; }

private:
    QString sensitivity_;
    QString group_;
    QString customType_;
    QString customValue_;
};

Morva::TraceLine& operator<<(Morva::TraceLine& line, DisDataOp::Type type);

} // namespace Replication
