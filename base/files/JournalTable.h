#pragma once

#include "base/files/GuardedContent.h"
#include "base/files/JournalRecord.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <optional>
#include <vector>

namespace Morva {

/// What the file "journal" says: the files as they are to be at a checkpoint, what is yet to be
/// done for it, and how names changed since. Names below `base` are kept without it, so that all
/// may be moved together.
struct JournalTable {
    struct File {
        QString name;
        std::uint64_t length = 0;
        std::vector<GuardedContent::Run> runs;
        std::uint64_t id = 0; ///< random, stays with the file
        QByteArray sums;      ///< state of its `PageSums`; none for a file of sums
    };
    /// With checksums; 1 was without.
    static constexpr std::uint64_t newestFormat = 2;

    std::uint64_t sequence = 0;
    std::uint64_t time = 0; ///< seconds since 1970
    std::uint64_t format = newestFormat;
    bool converted = true; ///< all files are in that format
    std::vector<File> files;
    QStringList hidden;   ///< to be removed
    bool applied = false; ///< the runs are in their files, the hidden files are gone

    /// What was noted behind the table and is not taken back, names relative as they stand.
    std::vector<JournalRecord> changes;
    std::uint64_t size = 0; ///< bytes of all whole records

    /// The records of the table; `changes` are added one by one as they come.
    [[nodiscard]] QByteArray encode(QString const& base) const;
    /// None when the table is not whole. One of a newer format has nothing but that. A torn record
    /// behind it ends the changes.
    [[nodiscard]] static std::optional<JournalTable> decode(QByteArray const& bytes,
                                                            QString const& base);

    [[nodiscard]] static QByteArray relativeName(QString const& name, QString const& base);
    [[nodiscard]] static QString absoluteName(QByteArray const& name, QString const& base);
};

} // namespace Morva
