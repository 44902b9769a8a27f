#pragma once

#include "base/messages/XmlList.h"
#include "replication/common/rules/SourceKind.h"

#include <QStringList>

namespace Replication {

/// What the rules for one source (a POSIX one, if nothing else is said) and its store are made of.
/// The rest has one sensible value.
struct SourceRules {
    /// Not empty; with "repository-" before it, the name of the store.
    QString storeName;
    SourceKind kind = SourceKind::Posix;
    /// The root on the source that the store holds: an absolute path, of a Windows source one like
    /// "C:\data". "/" is all of it.
    QString sourceRoot = QStringLiteral("/");
    /// The machine whose files they are; this machine if not set.
    Morva::MachineName sourceMachine;
    /// Also the id of the node dataflow.
    std::uint32_t replayId = 1;
    std::uint32_t firstRule = 1;
    /// Whether older versions of changed files are kept.
    bool versioned = true;
    bool indexSnapshots = true;
    bool dedupSnapshots = true;
    bool dedupVersions = true;
    /// Ends of names that are not deduplicated.
    QStringList dedupExclude;
    std::uint32_t closedGracePeriodSeconds = 3600;
};

/// The four files of a rule set, for those who write one.
struct RuleFiles {
    Morva::XmlList policyRules;
    Morva::XmlList dispatcherRules;
    Morva::XmlList forwardRules;
    Morva::XmlList replayRules;

    /// Nothing, with a trace, if there is a source that rules can't be made for: an empty store
    /// name, a root that is not an absolute path (of a Windows source: that is empty), a number
    /// that is 0, or the same replay id or first rule twice, or the same name.
    [[nodiscard]] static std::optional<RuleFiles> make(QList<SourceRules> const& sources);
    /// Writes the files into `FixedPath::rules(ruleSetId)`, which is made if need be. False, with
    /// a trace, if that is not set or can't be written. 0 is no id to write.
    [[nodiscard]] bool write(std::uint32_t ruleSetId) const;
};

/// The highest rule set id with a directory under `FixedPath::rules`; 0 if there is none.
[[nodiscard]] std::uint32_t latestRuleSetId();

} // namespace Replication
