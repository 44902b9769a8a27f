#pragma once

#include "replication/common/rules/SourceKind.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <cstdint>

namespace Morva {

/// One store as sources.cfg names it. Its replay id and its store id are the same number.
struct Source {
    QString name;
    QString sourceRoot; ///< absolute path on the source
    std::uint32_t id = 0;
    QStringList dedupExclude; ///< ends of names that are not deduplicated
    Replication::SourceKind kind = Replication::SourceKind::Posix;
    /// A checkpoint holds the store: if its files aren't there, they are missing. Before that they
    /// are made at its first use.
    bool made = false;
};

/// "posix", "windows" or "exchange".
[[nodiscard]] QString kindName(Replication::SourceKind kind);

/// The stores by name ("config/sources.cfg"), and the rule sets that feed them ("rules/NUMBER").
///
/// These files are not the journal's. A new store is entered before its first checkpoint and marked
/// as made after it; the order of all writes is such that a process that ends in between leaves
/// nothing that the next one takes for something else.
///
/// Operations that fail throw `CommandFailure`. References stay good until the next change.
class SourceTable {
public:
    /// Writes the table of a new root.
    static void make() { SourceTable().write(); }
    /// Reads the files of the root that `FixedPath` names.
    void load();

    [[nodiscard]] QList<Source> const& all() const { return sources_; }
    [[nodiscard]] bool contains(QString const& name) const;
    /// The source of that name; of the only store for an empty name. Fails when there is none, or
    /// when the name is empty and there are several.
    [[nodiscard]] Source const& find(QString const& name) const;
    /// The number of the newest rule set.
    [[nodiscard]] std::uint32_t ruleSet() const { return ruleSet_; }

    /// Enters a store, and writes a rule set with it. `Usage` for a name that can't be one.
    Source const& add(Source source);
    /// Writes a rule set in which that store has another root on its source. The table itself
    /// follows with `save`, when what was done by these rules is kept.
    void move(QString const& name, QString const& sourceRoot);
    /// Notes that a checkpoint holds the store. As `move`.
    void markMade(std::uint32_t id);
    /// Takes a store out.
    void remove(std::uint32_t id);
    /// Writes what `move` and `markMade` changed; nothing if they changed nothing.
    void save();
    /// Gives up what `move` changed and no `save` wrote, with its rule set.
    void takeBack();

    /// Why that can't be the name of a store; empty if it can.
    [[nodiscard]] static QString faultOfName(QString const& name);

private:
    void readKinds();
    void write();
    void writeRules();

    QList<Source> sources_;
    std::uint32_t lastId_ = 0; ///< given to a store; ids aren't given twice
    std::uint32_t ruleSet_ = 0;
    std::uint32_t savedRuleSet_ = 0; ///< the newest that the file's state goes with
    bool changed_ = false;
};

} // namespace Morva
