#include "peers/morva/SourceTable.h"

#include "base/process/Config.h"
#include "base/process/FixedPath.h"
#include "base/values/PosixText.h"
#include "base/values/Printable.h"
#include "peers/morva/ExitCode.h"
#include "replication/common/rules/DisRules.h"
#include "replication/common/rules/RuleFiles.h"

#include <QDir>

#include <algorithm>
#include <optional>
#include <utility>

namespace Morva {

using Replication::RuleFiles;
using Replication::SourceKind;
using Replication::SourceRules;

namespace {

constexpr std::pair<SourceKind, char const*> kinds[] = {{SourceKind::Posix, "posix"},
                                                        {SourceKind::Windows, "windows"},
                                                        {SourceKind::Exchange, "exchange"}};

constexpr qsizetype maximumNameBytes = 200; // it is part of the names of files and messages

QString fileName() {
    return FixedPath::configuration() + "/sources.cfg";
}

/// Nothing for a word that names none.
std::optional<SourceKind> kindNamed(QString const& name) {
    for (auto const& [kind, text] : kinds)
        if (name == QLatin1String(text))
            return kind;
    return std::nullopt;
}

} // namespace

QString kindName(SourceKind kind) {
    for (auto const& [each, text] : kinds)
        if (each == kind)
            return QLatin1String(text);
    return {};
}

void SourceTable::load() {
    auto const list = Config::load(fileName());
    if (!list.usable())
        throw CommandFailure(ExitCode::Failed,
                             list.absent()
                                 ? fileName() + " isn't there: the root is not whole"
                                 : "can't read " + fileName() + " (with -v the reason is told)");
    bool kindsMissing = false;
    for (XmlListIterator item(list, QStringLiteral("Source")); item; ++item) {
        auto const entry = item.getXmlList();
        Source source;
        source.name = entry.get("Name", QString());
        source.sourceRoot = entry.get("Root", QStringLiteral("/"));
        source.id = entry.get("Id", std::uint32_t{0});
        source.made = entry.get("Made", false);
        for (XmlListIterator suffix(entry, QStringLiteral("DedupExclude")); suffix; ++suffix)
            source.dedupExclude += suffix.getString();
        auto const kind = kindNamed(entry.get("Kind", QString()));
        source.kind = kind.value_or(SourceKind::Posix);
        if (source.name.isEmpty() || source.id == 0 || (!kind && entry.contains("Kind")))
            throw CommandFailure(ExitCode::Failed, fileName() + " is damaged");
        kindsMissing = kindsMissing || !kind;
        sources_ += source;
        lastId_ = std::max(lastId_, source.id);
    }
    lastId_ = std::max(lastId_, list.get("LastId", std::uint32_t{0}));
    ruleSet_ = savedRuleSet_ = Replication::latestRuleSetId();
    if (!sources_.isEmpty() && ruleSet_ == 0)
        throw CommandFailure(ExitCode::Failed, "the rules of the stores are not at " +
                                                   FixedPath::rules(1) + ", or can't be read");
    if (kindsMissing)
        readKinds();
}

/// Of a table that an older version wrote.
void SourceTable::readKinds() {
    Replication::DisRules const rules(ruleSet_);
    if (!rules.valid())
        throw CommandFailure(ExitCode::Failed, "the rules in " + FixedPath::rules(ruleSet_) +
                                                   " are damaged or can't be read (with -v the "
                                                   "reason is told)");
    for (auto& source : sources_)
        source.kind = sourceKind(rules, source.id).value_or(SourceKind::Posix);
}

bool SourceTable::contains(QString const& name) const {
    return std::any_of(sources_.begin(), sources_.end(),
                       [&](Source const& source) { return source.name == name; });
}

Source const& SourceTable::find(QString const& name) const {
    if (name.isEmpty() && sources_.size() == 1)
        return sources_.front();
    if (name.isEmpty() && sources_.isEmpty())
        throw CommandFailure(ExitCode::Usage, "the repository has no store yet");
    for (auto const& source : sources_)
        if (source.name == name)
            return source;
    QStringList names;
    for (auto const& source : sources_)
        names += source.name;
    auto const known = names.join(QStringLiteral(", "));
    if (name.isEmpty())
        throw CommandFailure(ExitCode::Usage,
                             QStringLiteral("there are %1 stores (%2): say with --store NAME "
                                            "which one is meant")
                                 .arg(names.size())
                                 .arg(known));
    throw CommandFailure(ExitCode::Failed,
                         "there is no store named \"" + name + '"' +
                             (names.isEmpty() ? QString() : "; there are: " + known));
}

QString SourceTable::faultOfName(QString const& name) {
    if (name.isEmpty())
        return QStringLiteral("the name of a store is not empty");
    if (name.contains(u'/') || name.startsWith(u'.') || name.startsWith(u'-'))
        return QStringLiteral("the name of a store has no \"/\" and doesn't begin with \".\" or "
                              "\"-\"");
    if (printable(name) != name || name != name.trimmed())
        return QStringLiteral("the name of a store has no invisible characters, and no space at "
                              "its ends");
    if (encodePosixText(name).size() > maximumNameBytes)
        return QStringLiteral("the name of a store has at most %1 bytes").arg(maximumNameBytes);
    return {};
}

Source const& SourceTable::add(Source source) {
    if (auto const fault = faultOfName(source.name); !fault.isEmpty())
        throw CommandFailure(ExitCode::Usage, "\"" + source.name + "\": " + fault);
    source.id = ++lastId_;
    sources_ += std::move(source);
    writeRules();
    write();
    return sources_.back();
}

void SourceTable::move(QString const& name, QString const& sourceRoot) {
    for (auto& source : sources_)
        if (source.name == name)
            source.sourceRoot = sourceRoot;
    writeRules();
    changed_ = true;
}

void SourceTable::markMade(std::uint32_t id) {
    for (auto& source : sources_)
        if (source.id == id && !std::exchange(source.made, true))
            changed_ = true;
}

void SourceTable::remove(std::uint32_t id) {
    sources_.removeIf([&](Source const& each) { return each.id == id; });
    writeRules();
    write();
}

void SourceTable::save() {
    if (std::exchange(changed_, false))
        write();
}

void SourceTable::write() {
    XmlList all;
    all.set("LastId", lastId_);
    for (auto const& source : std::as_const(sources_)) {
        XmlList entry;
        entry.set("Name", source.name);
        entry.set("Root", source.sourceRoot);
        entry.set("Id", source.id);
        entry.set("Kind", kindName(source.kind));
        entry.set("Made", source.made);
        for (auto const& suffix : source.dedupExclude)
            entry.set("DedupExclude", suffix, XmlList::SetTypeE::Add);
        all.set("Source", entry, XmlList::SetTypeE::Add);
    }
    if (!Config::save(fileName(), all, Config::Protection::Sum))
        throw CommandFailure(ExitCode::Failed, "can't write " + fileName());
    savedRuleSet_ = ruleSet_;
}

void SourceTable::takeBack() {
    for (; ruleSet_ > savedRuleSet_; --ruleSet_)
        (void)QDir(FixedPath::rules(ruleSet_)).removeRecursively(); // nothing refers to it
    changed_ = false;
}

void SourceTable::writeRules() {
    QList<SourceRules> streams;
    for (auto const& source : std::as_const(sources_)) {
        SourceRules stream;
        stream.storeName = source.name;
        stream.kind = source.kind;
        stream.sourceRoot = source.sourceRoot;
        stream.replayId = source.id;
        stream.firstRule = source.id;
        stream.dedupExclude = source.dedupExclude;
        streams += stream;
    }
    auto const files = RuleFiles::make(streams);
    if (!files || !files->write(ruleSet_ + 1))
        throw CommandFailure(ExitCode::Failed, "can't write the rule files " +
                                                   FixedPath::rules(ruleSet_ + 1) +
                                                   " (with -v the reason is told)");
    ++ruleSet_;
}

} // namespace Morva
