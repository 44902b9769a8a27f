#pragma once

#include "base/messages/XmlList.h"
#include "base/values/Status.h"

#include <QString>

#include <cstdint>
#include <map>

namespace Replication {

/// The paths of which a log had values that the store can't hold, each with its reason: what the
/// store has there is not what the source has. Kept in a file beside the store's own, and bounded:
/// what doesn't fit is counted. The file: docs/formats/unsupported-paths.md.
///
/// Not thread-safe.
class UnsupportedPaths {
public:
    static constexpr std::size_t maximumPaths = 1000;
    /// Characters of a path that are kept.
    static constexpr qsizetype maximumText = 1024;
    using Paths = std::map<QString, QString>;

    /// Of the store whose files lie in `storeDirectory`. Touches no file.
    explicit UnsupportedPaths(QString const& storeDirectory);

    /// Reads what is saved; nothing saved is no failure. After a failure the file stays as it is.
    [[nodiscard]] Morva::Status load();
    /// Writes what changed since the last saving.
    [[nodiscard]] Morva::Status save();

    /// True when the path was not among them and could be kept, or is the first that couldn't:
    /// somebody should be told.
    [[nodiscard]] bool add(QString const& path, QString const& reason);
    /// The path was made anew, or is gone.
    void remove(QString const& path);

    [[nodiscard]] bool empty() const { return paths_.empty(); }
    [[nodiscard]] Paths const& paths() const { return paths_; }
    /// How many times a path was not kept for want of room.
    [[nodiscard]] std::uint64_t leftOut() const { return leftOut_; }

private:
    QString fileName_;
    Paths paths_;
    std::uint64_t leftOut_ = 0;
    bool changed_ = false;
    bool readable_ = true; ///< what is saved has been read
};

} // namespace Replication
