#pragma once

#include "base/files/RawFile.h"
#include "base/trace/TracedLock.h"
#include "replication/repository/store/EventChannel.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <memory>
#include <optional>

namespace Replication {

/// Keeps the events in a file, for a metadata store that is not there yet: each event behind its
/// length in bytes (u32, little-endian). A torn event at the end, as a crash can leave it, is cut
/// off by the next opening.
class FileEventChannel : public EventChannel {
public:
    /// Opens the file, or makes it, and goes to its end. `valid` tells whether that worked.
    explicit FileEventChannel(QString const& path);
    ~FileEventChannel() override;
    [[nodiscard]] bool valid() const { return file_ != nullptr; }

    /// False for an event above `maximumEvent` bytes, and when the file can't be written; the file
    /// ends with the event before then.
    [[nodiscard]] bool send(Morva::Extent const& event) override;

    /// Reads the events of such a file one by one.
    class Reader {
    public:
        explicit Reader(QString const& path);
        ~Reader();
        /// The next event; nothing at the end, at a torn event, and at a length that can't be.
        [[nodiscard]] std::optional<QByteArray> next();

    private:
        std::unique_ptr<Morva::RawFile> file_;
        std::uint64_t offset_ = 0;
    };

private:
    Morva::TracedMutex lock_{{"Lock EventChannel", "Unlock EventChannel"}};
    std::unique_ptr<Morva::RawFile> file_;
    std::uint64_t end_ MORVA_GUARDED_BY(lock_) = 0;
};

} // namespace Replication
