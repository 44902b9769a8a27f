#pragma once

#include <QByteArray>

#include <cstdint>
#include <optional>

namespace Morva {

/// One record of the file "journal", see docs/formats/journal.md. Numbers are little-endian.
///
///  offset  size  field
///       0     4  size of all that follows the checksum
///       4     4  CRC-32 (ISO 3309) of all that follows it
///       8     4  type
///      12     2  length of the name in bytes
///      14     2  length of the second name in bytes
///      16    32  four numbers of 8 bytes
///      48        the name, the second name
struct JournalRecord {
    enum class Type : std::uint32_t {
        Checkpoint = 1, ///< numbers: its sequence number, seconds since 1970. Opens the table
        File = 2,       ///< name, sums; numbers: its length, its id
        Pages = 3,      ///< numbers: place of the file in the table, first page, first slot, count
        Hidden = 4,     ///< name of a file to remove
        End = 5,        ///< ends the table; number: 1 if its pages and hidden files are done with
        Applied = 6,    ///< the pages are in their files, the hidden files are gone
        Created = 7,    ///< name
        Removed = 8,    ///< name, and the hidden one that the file has got
        Renamed = 9,    ///< old name, new name
        TakenBack = 10, ///< the last of the three above that is not taken back is so now
        Format = 11,    ///< numbers: format of the root, 1 if all of it is in that format
    };
    static constexpr std::uint32_t frameSize = 8;
    static constexpr std::uint32_t fixedSize = 48;
    static constexpr std::uint32_t longestName = 0xFFFF;

    Type type{};
    QByteArray name;
    QByteArray second;
    std::uint64_t numbers[4]{};

    void appendTo(QByteArray& bytes) const;
    /// The record at `position`, which moves behind it; none where the bytes end or are damaged.
    [[nodiscard]] static std::optional<JournalRecord> take(QByteArray const& bytes,
                                                           qsizetype& position);
};

} // namespace Morva
