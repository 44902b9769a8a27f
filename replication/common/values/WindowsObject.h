#pragma once

#include "base/values/Extent.h"

#include <QByteArray>

#include <cstdint>
#include <optional>
#include <vector>

namespace Replication {

/// Names of the streams in which a Windows object keeps what is not its data. "Data" is its
/// content. Named streams have a ':' in front, so that none can meet one of these.
namespace WindowsStream {
inline constexpr char16_t const* data = u"Data";
inline constexpr char16_t const* security = u"Security"; ///< a self-relative descriptor
inline constexpr char16_t const* attributes = u"Ea";
} // namespace WindowsStream

/// NTFS extended attributes: what a log sets, and the "Ea" stream of an object. In the order in
/// which they were added; names are compared without case (of ASCII) and keep their spelling.
///
/// Each entry, its head aligned to 4 from the list's start, little-endian:
///
///  off  size  field
///    0     4  NameLength   1 to 255
///    4     4  ValueLength  at most 65535
///    8     4  Flags        carried as it is
///   12   n+v  Name, Value  nothing between them
class WindowsAttributes {
public:
    static constexpr std::uint32_t headSize = 12;
    static constexpr std::uint32_t maximumName = 255;
    static constexpr std::uint32_t maximumValue = 65535;
    /// A longer list is damage: NTFS lets one file have 64 KiB, with smaller heads.
    static constexpr std::uint32_t maximumList = 4 * 65536;

    struct Entry {
        QByteArray name;
        QByteArray value;
        std::uint32_t flags = 0;
        bool operator==(Entry const&) const = default;
    };

    [[nodiscard]] std::vector<Entry> const& all() const { return entries_; }
    [[nodiscard]] bool empty() const { return entries_.empty(); }
    /// Adds the attribute, or replaces that of the name; an empty value removes it.
    void set(Entry const& entry);
    /// `set` for each of the other's, in their order.
    void merge(WindowsAttributes const& other);

    /// Empty when there are no attributes.
    [[nodiscard]] QByteArray encode() const;
    /// Entries as they stand, also several of one name and with empty values. Nothing when a head
    /// is cut short, its lengths are out of bounds or go beyond the record, or the record is longer
    /// than `maximumList`. `left` gets the bytes behind the last whole entry.
    [[nodiscard]] static std::optional<WindowsAttributes> decode(Morva::Extent const& record,
                                                                 std::uint32_t& left);
    /// One more entry behind those that are there, whatever its name. For those who make lists.
    void append(Entry entry) { entries_.push_back(std::move(entry)); }

private:
    std::vector<Entry> entries_;
};

/// Self-relative security descriptors ([MS-DTYP] 2.4.6), the form in which logs and the "Security"
/// stream of an object have them.
///
///  off  size  field
///    0     1  revision  1
///    1     1  reserved
///    2     2  control
///    4     4  offset of the owner's SID, 0 = none; the group's at 8, SACL at 12, DACL at 16
namespace WindowsSecurity {
/// Bits of INFO: the parts of a descriptor that an operation sets.
enum Part : std::uint32_t {
    ownerPart = 0x01,
    groupPart = 0x02,
    daclPart = 0x04,
    /// Labels, attributes and the like stand in the SACL as well.
    saclParts = 0x08 | 0x10 | 0x20 | 0x40
};

/// Whether all that the head names lies within the range and has the sizes that it claims. Entries
/// of access lists may be of any type.
[[nodiscard]] bool valid(Morva::Extent const& descriptor);
/// The descriptor that has the parts of `info` from `given` and all others from `present`, which
/// may be empty. Both must be valid, or empty.
[[nodiscard]] QByteArray merged(Morva::Extent const& present, Morva::Extent const& given,
                                std::uint32_t info);
/// Whether the range is one whole SID ([MS-DTYP] 2.4.2.2).
[[nodiscard]] bool validSid(Morva::Extent const& sid);
} // namespace WindowsSecurity

} // namespace Replication
