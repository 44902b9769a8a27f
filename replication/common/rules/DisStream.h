#pragma once

#include "base/messages/MsgAddress.h"
#include "replication/common/rules/DisPolicy.h"

#include <QStringList>

namespace Replication {

class DisRules;

/// One data flow of a rule set: where data comes from, where it goes, under which policies.
/// Constructors read an item, clear `valid` at the first fault and read on, so that every fault
/// is traced (at level Always). Immutable once read; `rules` is needed only while reading.
class DisStream {
public:
    enum Type : std::uint32_t {
        eInvalid = 0,
        eReplication = 1,
        eForward = 2,
        eMirror = 3,
        eRepository = 4,
        eBackup = 5,
        eLogging = 6,
        eCloudStorage = 7
    };

    virtual ~DisStream() = default;
    [[nodiscard]] virtual Type type() const { return eInvalid; }
    /// The base has none: it traces "Stream has no name" and gives an empty one.
    [[nodiscard]] virtual QString name() const;
    /// What only replay streams have; 0 or empty for all others.
    [[nodiscard]] virtual std::uint32_t replayId() const { return 0; }
    [[nodiscard]] virtual Morva::MachineName sourceMachine() const { return {}; }
    [[nodiscard]] virtual QString target() const { return {}; }

    [[nodiscard]] bool valid() const { return valid_; }
    [[nodiscard]] std::uint32_t ruleSet() const { return ruleSet_; }
    [[nodiscard]] std::uint32_t commsMode() const { return commsMode_; }
    [[nodiscard]] std::uint32_t nodeId() const { return nodeId_; }
    /// 2 for a batch stream, 1 for all others.
    [[nodiscard]] std::uint32_t batch() const { return batch_; }
    [[nodiscard]] std::uint32_t filterType() const { return filterType_; }
    /// Policy ids, in the order of the item.
    [[nodiscard]] QList<std::uint32_t> const& policies() const { return policies_; }

protected:
    explicit DisStream(DisRules const& rules);

    void fault() { valid_ = false; }
    /// Takes a policy into the stream. False, with a trace, if its filter type is another than
    /// that of the first, or its comms mode is and this is no batch stream.
    [[nodiscard]] bool addPolicy(DisPolicyInfo const& policy);
    /// Reads the "Policies" of a dispatcher stream, which are names. False, with traces, on any
    /// fault; the good ones are taken.
    [[nodiscard]] bool addPolicies(DisRules const& rules, Morva::XmlList const& list);

    /// Reads the compression flag and the policies of a stream that a dispatcher sends out; `batch`
    /// must be known before.
    void readDispatcher(DisRules const& rules, Morva::XmlList const& item, bool& compression);

    bool valid_ = true;
    std::uint32_t ruleSet_ = 0;
    std::uint32_t commsMode_ = eJournaled;
    std::uint32_t nodeId_ = 0;
    std::uint32_t batch_ = 1;
    std::uint32_t filterType_ = eFilterInvalid;
    QList<std::uint32_t> policies_;
};

Morva::TraceLine& operator<<(Morva::TraceLine& line, DisStream::Type type);

} // namespace Replication
