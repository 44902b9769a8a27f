#pragma once

#include "base/values/Extent.h"
#include "replication/common/values/FileTime.h"

#include <QByteArray>

#include <cstdint>
#include <map>
#include <optional>

namespace Replication {

/// Names of the streams in which a POSIX object keeps what is not its data. "Data" is its content.
namespace PosixStream {
inline constexpr char16_t const* data = u"Data";
inline constexpr char16_t const* security = u"Security";
inline constexpr char16_t const* link = u"Link"; ///< target of a symlink, its bytes
inline constexpr char16_t const* attributes = u"Ea";
} // namespace PosixStream

/// The "Security" stream of a POSIX object: what chmod, chown and mknod set, and its exact times.
///
///  off  size  field
///    0     4  version  1; 2 with times
///    4     4  mode     st_mode, type bits included
///    8     4  uid
///   12     4  gid
///   16     8  device   st_rdev; 0 for anything but a device
///   24    36  times    version 2: access, modification, change (FileTimes)
///
/// A time of the record counts as long as it has the word that the node keeps (FileTime::counts):
/// what sets the word alone makes it whole seconds. No word is kept of the access time; it is that
/// of when the record was written.
struct PosixSecurity {
    static constexpr std::uint32_t packedSize = 24; ///< of version 1
    static constexpr std::uint32_t timedSize = packedSize + FileTimes::packedSize;

    std::uint32_t mode = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::uint64_t device = 0;
    FileTimes times = {};

    /// Of version 1 when no time is known.
    [[nodiscard]] QByteArray encode() const;
    /// Nothing when the record is too short or of another version.
    [[nodiscard]] static std::optional<PosixSecurity> decode(Morva::Extent const& record);
    [[nodiscard]] bool sameButTimes(PosixSecurity const& other) const {
        return mode == other.mode && uid == other.uid && gid == other.gid && device == other.device;
    }
    /// Whether `other` differs in nothing worth a write: an access time alone is not.
    [[nodiscard]] bool sameButAccess(PosixSecurity const& other) const {
        return sameButTimes(other) && times.modification == other.times.modification &&
               times.change == other.times.change;
    }
    bool operator==(PosixSecurity const&) const = default;
};

/// The "Ea" stream of a POSIX object: its extended attributes, ascending by name.
///
///  version u32 = 1, count u32, then for each: name size u32, name bytes, value size u32, value
///  bytes; nothing is aligned.
class PosixAttributes {
public:
    /// A larger record is damage, or more than a file can have.
    static constexpr std::uint32_t maximumSize = 16 << 20;
    using Map = std::map<QByteArray, QByteArray>;

    [[nodiscard]] Map const& all() const { return attributes_; }
    [[nodiscard]] bool empty() const { return attributes_.empty(); }
    void set(QByteArray const& name, QByteArray const& value) { attributes_[name] = value; }
    /// False if there is none of that name.
    bool remove(QByteArray const& name) { return attributes_.erase(name) != 0; }

    /// Empty when there are no attributes.
    [[nodiscard]] QByteArray encode() const;
    /// An empty record has no attributes; nothing when the record is damaged.
    [[nodiscard]] static std::optional<PosixAttributes> decode(Morva::Extent const& record);

private:
    Map attributes_;
};

} // namespace Replication
