#pragma once

#include "base/messages/XmlList.h"

#include <QStringList>

#include <memory>
#include <vector>

namespace Replication {

/// Which paths of a store are excluded from it or kept in its live tree only.
///
/// Made from details that the source sends: a list of "Entry" lists with
///
///  key        type    meaning
///  Path       string  pattern; "*" stands for any characters of one element, "?" for one
///  Directory  bool    holds for directories of that path and all that is below them, else for
///                     files; false when absent
///  LiveOnly   bool    keep in the live tree only, else exclude; false when absent
///
/// A pattern with a separator in it is matched from the root of the store, element by element; one
/// without is matched against a name at any depth. The separator is "/", and "\" too where names
/// are not case-sensitive. An entry without a path is ignored, so the root itself always stays.
/// Where several entries hold, excluded beats live-only.
///
/// Immutable; a copy shares the compiled patterns and may be used on any thread. Without entries
/// every question costs one test.
class NotToBackup {
    struct Patterns;
    struct Pattern;

public:
    enum OpType : std::int32_t {
        eInvalid = -1, ///< never an answer
        eNothing = 0,  ///< stored under the rules
        eExcluded = 1, ///< not stored
        eLiveOnly = 2  ///< stored without versions and without deduplication
    };

    /// The answers for the files of one directory, without looking at its path again.
    class Expressions {
    public:
        /// For the file of this name in the directory.
        [[nodiscard]] OpType opType(QString const& name) const;

    private:
        friend class NotToBackup;
        std::shared_ptr<Patterns const> patterns_;
        std::vector<Pattern const*> candidates_;
        OpType directory_ = eNothing;
    };

    /// Without entries.
    NotToBackup() = default;
    NotToBackup(Morva::XmlList const& details, bool caseSensitive);

    [[nodiscard]] bool empty() const { return !patterns_; }
    /// For a directory, or a file, of the store; the parts of its path from the root.
    [[nodiscard]] OpType directoryOpType(QStringList const& path) const {
        return patterns_ ? lookup(path, true) : eNothing;
    }
    [[nodiscard]] OpType fileOpType(QStringList const& path) const {
        return patterns_ ? lookup(path, false) : eNothing;
    }
    /// As `fileOpType` for a file of this name in a directory.
    [[nodiscard]] OpType fileOpType(QStringList const& directory, QString const& name) const;
    /// For the files of the directory with this path.
    [[nodiscard]] Expressions expressions(QStringList const& directory) const;

    /// A list of details with one more entry, for those who write them.
    static void addEntry(Morva::XmlList& details, QString const& path, bool directory,
                         bool liveOnly);

private:
    [[nodiscard]] OpType lookup(QStringList const& path, bool isDirectory) const;

    std::shared_ptr<Patterns const> patterns_;
};

Morva::TraceLine& operator<<(Morva::TraceLine& line, NotToBackup::OpType opType);

} // namespace Replication
