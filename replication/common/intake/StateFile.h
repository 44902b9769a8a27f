#pragma once

#include "base/files/RawFile.h"

#include <QByteArray>
#include <QString>

#include <array>
#include <cstdint>
#include <memory>

namespace Replication {

/// How far one `DataSink` has come: a small file that each checkpoint rewrites. Its fixed part is
/// always written whole and in place, without a flush.
///
/// Version 1, little-endian:
///  off  size  field
///    0     8  sequenceNumber  last log applied
///    8     8  bytesProcessed
///   16     4  version         1
///   20     4  flags           bit 0: a resynchronisation is required; bit 1: the open files of
///                             this position are saved beside the store; bit 2: the exclusions
///                             are not applied to all that is stored
///   24     4  ruleSet         rule set in use
///   28     4  targetSize      bytes of the target
///   32     4  lastResync      time of the last resynchronisation
///   36     4  reserved        0
///   40     n  target          UTF-8, no terminator
/// Behind the target the owner may keep bytes of its own (`details`): 4 bytes of length, then the
/// bytes. Version 0 is 32 bytes, without lastResync and the reserved word; it is upgraded when
/// read, which costs the first 8 bytes of its target.
///
/// Each setter writes the header and returns whether that worked; the field stays changed in
/// memory when it didn't. Not thread-safe.
class StateFile {
public:
    static constexpr std::uint32_t headerSize = 40;
    static constexpr std::uint32_t maximumTarget = 3076;
    static constexpr std::uint32_t resyncFlag = 1;
    static constexpr std::uint32_t handlesFlag = 2;
    static constexpr std::uint32_t exclusionsFlag = 4;

    explicit StateFile(QString name);
    ~StateFile();

    /// Writes an initial header; false, and no file, when that fails.
    [[nodiscard]] bool create();
    /// Opens the file if it isn't open in that mode; false when it isn't there.
    [[nodiscard]] bool open(Morva::RawFile::Mode mode);
    /// Reads the header and the target; `valid()` tells the result.
    void readHeader();
    void close();

    [[nodiscard]] bool valid() const { return valid_; }
    [[nodiscard]] bool isOpen() const { return file_->isOpen(); }
    [[nodiscard]] std::uint64_t sequenceNumber() const { return sequence_; }
    [[nodiscard]] std::uint64_t bytesProcessed() const { return bytes_; }
    [[nodiscard]] std::uint32_t flags() const { return flags_; }
    [[nodiscard]] std::uint32_t ruleSet() const { return ruleSet_; }
    [[nodiscard]] std::uint32_t lastResync() const { return lastResync_; }
    [[nodiscard]] QString const& target() const { return target_; }

    [[nodiscard]] bool sequenceNumber(std::uint64_t sequence);
    [[nodiscard]] bool sequenceNumber(std::uint64_t sequence, std::uint64_t bytes);
    [[nodiscard]] bool lastResync(std::uint32_t time);
    [[nodiscard]] bool flag(std::uint32_t mask, bool set);
    [[nodiscard]] bool ruleSet(std::uint32_t number);
    /// Also cuts the file behind the target.
    [[nodiscard]] bool target(QString const& text);

    /// The owner's bytes behind the target; empty when there are none or they are cut short.
    [[nodiscard]] QByteArray details();
    [[nodiscard]] bool details(QByteArray const& bytes);

    /// Clears everything and deletes the file.
    [[nodiscard]] bool remove();

private:
    [[nodiscard]] bool write(char const* what, char const* failure);
    [[nodiscard]] bool upgrade();
    void readTarget();
    void clear();
    [[nodiscard]] std::array<std::uint8_t, headerSize> encode() const;
    void decode(std::uint8_t const* header);

    QString name_;
    std::unique_ptr<Morva::RawFile> file_;
    Morva::RawFile::Mode mode_ = Morva::RawFile::Mode::ReadWrite;
    bool valid_ = false;
    std::uint64_t sequence_ = 0;
    std::uint64_t bytes_ = 0;
    std::uint32_t flags_ = 0;
    std::uint32_t ruleSet_ = 0;
    std::uint32_t targetSize_ = 0;
    std::uint32_t lastResync_ = 0;
    QString target_;
};

} // namespace Replication
