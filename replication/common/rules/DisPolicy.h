#pragma once

#include "replication/common/rules/DisDataOp.h"

#include <QList>

#include <map>

namespace Replication {

class DisStream;
using DisStreamPointer = std::shared_ptr<DisStream const>;
/// Data operations by operation id.
using DataOps = std::map<std::uint32_t, DisDataOpPointer>;

enum CommsMode : std::uint32_t { eJournaled = 0, eSync = 1, eAsync = 2 };
enum FilterType : std::uint32_t { eFilterInvalid = 0, eFilterFilesystem = 1, eFilterExchange = 2 };

/// A range of rule numbers that a source's filter marks on file operations, and the data
/// operations called for. Read from a "Policy" item; any fault leaves the name empty.
///
///  key             type                              failure
///  RuleCount       uint32, not 0, up to maxRules     "No or invalid rule count supplied"
///  FirstRule       uint32, not 0                     "No or invalid first rule supplied"
///  Mode            "sync", "journaled" or "async"    "No or invalid comms mode supplied", and
///                                                    "invalid comms mode value"
///  FilterType      string; "Exchange" or file system
///  Name            string, not empty                 "No or invalid policy name supplied"
///  nine op. names  list                              an unusable operation is left out
class DisPolicy {
public:
    /// A bound on the rules of one policy, since users walk them one by one.
    static constexpr std::uint32_t maxRules = 1 << 20;

    explicit DisPolicy(Morva::XmlList const& list);

    [[nodiscard]] bool valid() const { return !name_.isEmpty(); }
    [[nodiscard]] QString const& name() const { return name_; }
    /// The id of a policy is its first rule, which no other policy of the rule set can have.
    [[nodiscard]] std::uint32_t id() const { return firstRule_; }
    [[nodiscard]] std::uint32_t firstRule() const { return firstRule_; }
    [[nodiscard]] std::uint32_t lastRule() const { return lastRule_; }
    [[nodiscard]] std::uint32_t commsMode() const { return commsMode_; }
    [[nodiscard]] std::uint32_t filterType() const { return filterType_; }
    [[nodiscard]] DataOps const& dataOps() const { return dataOps_; }

private:
    [[nodiscard]] bool readItem(Morva::XmlListIterator const& item);
    [[nodiscard]] bool readMode(QString const& mode);
    void readDataOp(Morva::XmlListIterator const& item);

    QString name_;
    std::uint32_t firstRule_ = 0;
    std::uint32_t lastRule_ = 0;
    std::uint32_t ruleCount_ = 0;
    std::uint32_t commsMode_ = eJournaled;
    std::uint32_t filterType_ = eFilterFilesystem;
    DataOps dataOps_;
};

/// A policy and what the rule set has learned about its use.
class DisPolicyInfo : public DisPolicy {
public:
    explicit DisPolicyInfo(Morva::XmlList const& list) : DisPolicy(list) {}

    /// Notes a stream that uses the policy. False, with a trace, for a kind of stream that
    /// policies keep no list of: invalid, backup, logging and cloud streams.
    bool addStream(DisStreamPointer const& stream);

    [[nodiscard]] bool replicated() const { return replicated_; }
    [[nodiscard]] bool forwarded() const { return forwarded_; }
    [[nodiscard]] bool mirrored() const { return mirrored_; }
    [[nodiscard]] bool repository() const { return repository_; }
    [[nodiscard]] QList<DisStreamPointer> const& streams() const { return streams_; }

private:
    bool replicated_ = false;
    bool forwarded_ = false;
    bool mirrored_ = false;
    bool repository_ = false;
    QList<DisStreamPointer> streams_;
};

} // namespace Replication
