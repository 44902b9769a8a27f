#pragma once

#include "base/values/Status.h"
#include "replication/common/values/Ids.h"

#include <QString>

#include <cstdint>
#include <map>

namespace Replication {

/// What background work has still to do with a store's snapshots, and why it could not: the file
/// "requests" in the store's directory "snapshot". It saves an opening from reading the header of
/// every snapshot. The headers are what counts: a request whose snapshot doesn't ask for it is
/// void, and where there is no such file, or no sound one, it is made anew from them.
/// Little-endian:
///
///  off  size  field       meaning
///    0     4  Magic       "MSRQ"
///    4     4  Version     1
///    8     4  Count       of requests
///   12     n  requests, by instance, then kind:
///              0  4  instance
///              4  4  kind        1 retirement, 2 deduplication
///              8  4  reasonSize  bytes, at most 1024; 0 while it has not failed
///             12  n  reason      UTF-8
///
/// Not thread-safe.
class SnapshotRequests {
public:
    enum class Kind : std::uint32_t { Retire = 1, Dedup = 2 };
    struct Key {
        Instance instance;
        Kind kind = Kind::Retire;
        auto operator<=>(Key const&) const = default;
    };
    using Reasons = std::map<Key, QString>;
    static constexpr std::uint32_t maximumReason = 1024;

    [[nodiscard]] static QString fileName() { return QStringLiteral("requests"); }

    /// Reads the file below `directory`. `NotFound` and `Corruption`: there is no sound file.
    [[nodiscard]] Morva::Status read(QString const& directory);
    /// Takes over what was found by other means, and writes it.
    [[nodiscard]] Morva::Status replace(QString const& directory, Reasons requests);
    /// Adds a request, or gives the one that is there another reason. Writes the file if that
    /// changes anything; on failure nothing has changed here.
    [[nodiscard]] Morva::Status put(Key key, QString const& reason = {});
    /// Adds a request and leaves the reason of one that is there.
    [[nodiscard]] Morva::Status add(Key key);
    [[nodiscard]] Morva::Status remove(Key key);
    /// Drops a request here alone: it is void, and the next write takes it out of the file.
    void forget(Key key) { requests_.erase(key); }
    [[nodiscard]] bool contains(Key key) const { return requests_.contains(key); }
    [[nodiscard]] Reasons const& all() const { return requests_; }

private:
    [[nodiscard]] Morva::Status write() const;
    [[nodiscard]] Morva::Status change(Reasons changed);

    QString path_;
    Reasons requests_;
};

} // namespace Replication
