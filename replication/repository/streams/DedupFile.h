#pragma once

#include "base/files/BufferedFile.h"
#include "base/files/RawFile.h"
#include "replication/common/values/Ids.h"

#include <QString>

#include <cstdint>
#include <memory>
#include <vector>

namespace Replication {

/// The list of the streams that were made between two snapshots of a store, in the order of their
/// making: 8 bytes little-endian for each stream id and nothing else.
///
/// The list of the current period is the file "dedup" and is appended to. At a snapshot it gets
/// the name "dedup" and the instance in 10 decimal digits ("dedup0000000042") and is read from
/// then on. A torn last entry, as a crash leaves it, counts as not there. Entries are gathered and
/// reach the file by the page, at a `flush`, and when the list is closed or renamed; a crash loses
/// those that were made since, and their streams stay as they are.
///
/// Not thread-safe.
class DedupFile {
public:
    static constexpr std::uint32_t entrySize = 8;
    static constexpr std::uint32_t bufferSize = 32768;

    /// The file of an instance in a directory; 0 for the current one. Opens nothing.
    explicit DedupFile(QString const& directory, Instance instance = {});
    ~DedupFile();
    DedupFile(DedupFile const&) = delete;
    DedupFile& operator=(DedupFile const&) = delete;

    /// The path of the file.
    [[nodiscard]] QString name() const;

    /// Opens the current file behind its last whole entry, and makes it when it isn't there.
    [[nodiscard]] bool openForAppend();
    [[nodiscard]] bool append(StreamId id);
    /// Writes what was gathered. When that fails it is kept for another try, and nothing more is
    /// taken than there is room for.
    [[nodiscard]] bool flush();
    /// Forgets all entries of the current file.
    [[nodiscard]] bool empty();
    /// Closes the current file, gives it the name of `instance`, and makes a new empty current
    /// file, open for appending. False when any of it fails; the current file is open again then,
    /// if that can be.
    [[nodiscard]] bool rename(Instance instance);

    /// Opens a closed file. False when it isn't there, and with a trace for instance 0.
    [[nodiscard]] bool openForRead();
    /// The next entry; false at the end and on an error.
    [[nodiscard]] bool read(StreamId& id);
    /// Byte position of the next entry.
    [[nodiscard]] std::uint64_t position() const { return position_; }
    [[nodiscard]] bool setPosition(std::uint64_t position);

    void close();
    /// Closes and deletes the file; true also when there was none.
    bool remove();

private:
    [[nodiscard]] static QString nameOf(QString const& directory, Instance instance);

    QString directory_;
    Instance instance_;
    std::uint64_t position_ = 0;
    std::unique_ptr<Morva::BufferedFile> reader_;
    std::unique_ptr<Morva::RawFile> appender_;
    std::vector<std::uint8_t> gathered_;
};

} // namespace Replication
