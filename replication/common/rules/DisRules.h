#pragma once

#include "replication/common/rules/DispatcherStreams.h"
#include "replication/common/rules/ReplayStream.h"

#include <QHash>

namespace Replication {

/// One loaded rule set: which data flows from which machine into what, and under which policies.
///
/// Read from four files of `FixedPath::rules(ruleSetId)`, each a list of items. Every fault is
/// traced at level Always and makes the whole set invalid and empty. Rule set 0 is valid and
/// empty, and no file is read for it. Built on one thread, then shared read-only; a new rule set is
/// a new object.
class DisRules {
public:
    using StreamList = QList<DisStreamPointer>;
    using ReplayStreamPointer = std::shared_ptr<ReplayStream const>;

    explicit DisRules(std::uint32_t ruleSetId);

    /// Reads the files of a rule set in place of what is there. The result is `valid`.
    bool reload(std::uint32_t ruleSetId);
    [[nodiscard]] bool valid() const { return valid_; }
    [[nodiscard]] std::uint32_t ruleSetId() const { return ruleSetId_; }
    /// Whether a file of the set asks for a resynchronisation of all; see
    /// `ReplayStream::needResync`.
    [[nodiscard]] bool resyncRequired() const { return resyncRequired_; }

    /// The streams of a source machine, in the order of the files.
    [[nodiscard]] StreamList streamList(Morva::MachineName const& machine) const;
    /// The stream of this set with the same type and replay id for the same source machine; null
    /// if there is none, and then a store has lost its feed.
    [[nodiscard]] DisStreamPointer matchingStream(DisStream const& stream) const;
    /// The replay stream of an id; null if there is none.
    [[nodiscard]] ReplayStreamPointer replayStream(std::uint32_t replayId) const {
        return replayStreams_.value(replayId);
    }
    [[nodiscard]] QHash<std::uint32_t, ReplayStreamPointer> const& replayStreams() const {
        return replayStreams_;
    }

    /// The id of the policy that a rule belongs to; 0 if none.
    [[nodiscard]] std::uint32_t lookupPolicy(std::uint32_t rule) const;
    /// The comms mode of a policy; nothing, with the trace "Failed to find policy", if none.
    [[nodiscard]] std::optional<std::uint32_t> policyCommsMode(std::uint32_t policy) const;
    /// Ids of the policies that streams from this machine use, each once.
    [[nodiscard]] QList<std::uint32_t> localPolicyList(Morva::MachineName const& machine) const;
    /// A policy by its id or its name; null if there is none.
    [[nodiscard]] std::shared_ptr<DisPolicyInfo const> policy(std::uint32_t id) const;
    [[nodiscard]] std::shared_ptr<DisPolicyInfo const> policy(QString const& name) const;
    /// What logging streams want logged of the operations of a policy's rules.
    [[nodiscard]] QStringList loggingRules(std::uint32_t policy) const {
        return loggingRules_.value(policy);
    }

    /// Adds the machines of the list of "Machine" items under `key` to `result`. False, with a
    /// trace, if the list or an entry can't be read, or a machine has had another OS type before.
    [[nodiscard]] bool machines(Morva::XmlList const& item, QString const& key,
                                QList<Morva::MachineName>& result);

private:
    void clear();
    void readFile(QString const& name);
    void readItem(Morva::XmlListIterator const& item);
    void loadReplayStream(Morva::XmlList const& item);
    void loadPolicyStream(Morva::XmlList const& item);
    template <class Stream>
    void loadReplayStreamAs(Morva::XmlList const& item, char const* invalid, char const* validated);
    void loadMirrorStream(Morva::XmlList const& item);
    void loadRepositoryStream(Morva::XmlList const& item);
    void loadForwardStream(Morva::XmlList const& item);
    void loadReplicationStream(Morva::XmlList const& item);
    void loadLoggingStream(Morva::XmlList const& item);
    void attachToPolicies(DisStreamPointer const& stream);
    void validateReplayStream(ReplayStreamPointer const& stream);
    void addStream(Morva::MachineName const& machine, DisStreamPointer const& stream);
    void buildRulePolicies();

    struct RuleRange {
        std::uint32_t lastRule;
        std::uint32_t policy;
    };

    std::uint32_t ruleSetId_ = 0;
    bool valid_ = false;
    bool resyncRequired_ = false;
    std::map<std::uint32_t, std::shared_ptr<DisPolicyInfo>> policies_;
    /// By first rule. Ranges don't overlap.
    std::map<std::uint32_t, RuleRange> rulePolicies_;
    QHash<Morva::MachineName, StreamList> streams_;
    QStringList files_;
    QStringList items_;
    QHash<std::uint32_t, ReplayStreamPointer> replayStreams_;
    QHash<std::uint32_t, QStringList> loggingRules_;
    QHash<Morva::MachineName, QString> osTypes_;
};

} // namespace Replication
