#pragma once

#include "base/values/PackBuffer.h"
#include "replication/common/values/Ids.h"

#include <QString>
#include <QStringList>

#include <cstdint>
#include <vector>

namespace Replication {

/// How one version of a file is versioned by the rules: what goes to the metadata store when the
/// version ends. Empty (no rule set) means that the file isn't versioned.
///
/// Packed form (`PackBuffer`): FileNode u64, link id u32, PrevFileNode u64, previous link id u32,
/// Directory u64, Path joined by "/", User, Process, resync flag, weak flag, time u32, RuleSet
/// u32, rule count u32, the rules. Forms 1 and 2 have the three ids without the link ids.
struct Version {
    NodeNumber fileNode;
    NodeNumber prevFileNode;
    FileId directory;
    QStringList path;
    QString user;
    QString process;
    bool resync = false;
    bool weak = false;
    std::uint32_t time = 0;
    std::uint32_t fileType = 0; ///< not packed
    std::uint32_t ruleSet = 0;
    std::vector<std::uint32_t> rules;
    LinkId link{1};
    LinkId prevLink{1};

    [[nodiscard]] bool versioned() const { return ruleSet != 0; }
    /// Back to a record of no version; the file type stays.
    void clear();
    void pack(Morva::PackBuffer& record) const;
    /// False for a form below 1 or above 3, and for a record that is too short.
    [[nodiscard]] bool unpack(std::uint32_t form, Morva::UnpackBuffer& record);
    void print(int traceLevel) const;
};

} // namespace Replication
