#include "replication/common/rules/RuleFiles.h"

#include "base/process/Config.h"
#include "base/process/Context.h"
#include "base/process/FixedPath.h"
#include "base/trace/Trace.h"
#include "base/values/PosixText.h"
#include "replication/common/rules/DisDataOp.h"

#include <QFileInfo>
#include <QSet>

#include <algorithm>
#include <filesystem>

namespace Replication {

using Morva::Config;
using Morva::Context;
using Morva::FixedPath;
using Morva::MachineName;
using Morva::XmlList;

namespace {

constexpr std::uint32_t versionOperation = 1;

QString policyName(SourceRules const& source) {
    return QStringLiteral("policy-%1").arg(source.storeName);
}

bool usable(SourceRules const& source) {
    bool const rooted = source.kind == SourceKind::Windows
                            ? !source.sourceRoot.isEmpty()
                            : source.sourceRoot.startsWith(QLatin1Char('/'));
    char const* const fault = source.storeName.isEmpty() ? "no store name"
                              : !rooted                  ? "no absolute root"
                              : source.replayId == 0     ? "no replay id"
                              : source.firstRule == 0    ? "no first rule"
                                                         : nullptr;
    if (fault)
        MORVA_TRACE(Always) << "Can't make rules for" << source.storeName << fault;
    return fault == nullptr;
}

XmlList policyItem(SourceRules const& source) {
    XmlList item;
    item.set(QStringLiteral("Name"), policyName(source));
    item.set(QStringLiteral("FirstRule"), source.firstRule);
    item.set(QStringLiteral("RuleCount"), 1U);
    item.set(QStringLiteral("Mode"), "journaled");
    item.set(QStringLiteral("FilterType"),
             source.kind == SourceKind::Exchange ? "Exchange" : "FileSystem");
    if (source.versioned) {
        XmlList version;
        version.set(QStringLiteral("OperationId"), versionOperation);
        version.set(QStringLiteral("Name"), "Versions");
        for (auto const* key : {"Retention", "RecoveryPointObjective", "RecoveryTimeObjective"})
            version.set(QString::fromLatin1(key), "");
        item.set(DisDataOp::itemName(DisDataOp::eVersion), version);
    }
    return item;
}

XmlList repositoryItem(SourceRules const& source) {
    XmlList list;
    list.set(QStringLiteral("StoreName"), source.storeName);
    list.set(QStringLiteral("Target"), QString::number(source.replayId));
    list.set(QStringLiteral("Source"), source.sourceRoot);
    list.set(QStringLiteral("IndexSnapshots"), source.indexSnapshots);
    list.set(QStringLiteral("DedupSnapshots"), source.dedupSnapshots);
    list.set(QStringLiteral("DedupVersions"), source.dedupVersions);
    XmlList excluded;
    for (auto const& end : source.dedupExclude)
        excluded.set(QStringLiteral("DedupExcludeFile"), end, XmlList::SetTypeE::Add);
    if (!excluded.empty())
        list.set(QStringLiteral("DedupExcludeList"), excluded);
    return list;
}

XmlList replayItem(SourceRules const& source) {
    auto const here = Context::machineName();
    XmlList machine;
    machine.set(QStringLiteral("Name"),
                source.sourceMachine ? source.sourceMachine.name() : here.name());
    machine.set(QStringLiteral("OsType"), source.kind == SourceKind::Posix ? "Linux" : "Windows");
    XmlList route;
    route.set(QStringLiteral("Name"), here.name());
    XmlList operations;
    if (source.versioned)
        operations.set(QStringLiteral("DataOp"), versionOperation);
    XmlList policies;
    policies.set(QString::number(source.firstRule), operations);

    XmlList item;
    item.set(QStringLiteral("ReplayId"), source.replayId);
    item.set(QStringLiteral("NodeId"), source.replayId);
    item.set(QStringLiteral("SourceMachine"), machine);
    item.set(QStringLiteral("Route"), route);
    item.set(QStringLiteral("Policies"), policies);
    item.set(QStringLiteral("ClosedGracePeriod"), source.closedGracePeriodSeconds);
    item.set(QStringLiteral("Repository"), repositoryItem(source));
    return item;
}

} // namespace

std::optional<RuleFiles> RuleFiles::make(QList<SourceRules> const& sources) {
    RuleFiles files;
    QSet<std::uint32_t> replayIds;
    QSet<std::uint32_t> rules;
    QSet<QString> names;
    for (auto const& source : sources) {
        if (!usable(source))
            return std::nullopt;
        if (replayIds.contains(source.replayId) || rules.contains(source.firstRule) ||
            names.contains(source.storeName)) {
            MORVA_TRACE(Always) << "Two sources share a replay id, a rule or a name"
                                << source.storeName;
            return std::nullopt;
        }
        replayIds.insert(source.replayId);
        rules.insert(source.firstRule);
        names.insert(source.storeName);
        files.policyRules.set(QStringLiteral("Policy"), policyItem(source), XmlList::SetTypeE::Add);
        files.replayRules.set(QStringLiteral("ReplayStream"), replayItem(source),
                              XmlList::SetTypeE::Add);
    }
    return files;
}

bool RuleFiles::write(std::uint32_t ruleSetId) const {
    auto const directory = FixedPath::rules(ruleSetId);
    if (ruleSetId == 0 || directory.isEmpty() || !FixedPath::make(directory)) {
        MORVA_TRACE(Always) << "Failed to make directory for rule set" << ruleSetId << directory;
        return false;
    }
    auto const save = [&](char const* name, XmlList const& list) {
        return Config::save(directory + QLatin1String(name), list, Config::Protection::Sum);
    };
    return save("/policyrules.cfg", policyRules) && save("/dispatcherrules.cfg", dispatcherRules) &&
           save("/forwardrules.cfg", forwardRules) && save("/replayrules.cfg", replayRules);
}

std::uint32_t latestRuleSetId() {
    auto const zero = FixedPath::rules(0);
    if (zero.isEmpty())
        return 0;
    namespace fs = std::filesystem;
    fs::path const directory = Morva::encodePosixText(QFileInfo(zero).path()).toStdString();
    std::error_code error;
    std::uint32_t latest = 0;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code unreadable;
        auto const name = QString::fromStdString(entry->path().filename().string());
        if (entry->is_directory(unreadable))
            latest = std::max(latest, name.toUInt());
    }
    return latest;
}

} // namespace Replication
