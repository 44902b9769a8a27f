#pragma once

#include "base/trees/PagedList.h"
#include "base/values/Extent.h"
#include "base/values/Status.h"

#include <QByteArray>
#include <QHash>
#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Replication {

/// Records by section and key that a store finds again after any end of the process: a list file
/// (docs/formats/saved-state.md) to which each save appends what changed since the last one, and
/// which is written anew once more than half of it is out of date. The latest record of a key
/// holds.
///
/// A record of the list, little-endian:
///  off  size  field    meaning
///    0     8  check    recordCheck of what follows
///    8     4  section  SavedRecords::Section
///   12     4  keySize  bytes of the key; bit 31: there is no such record any more
///   16     n  key
/// 16+n     m  body     packed, see SavedState.h and SavedHandles.h
///
/// A save is: `begin`, `put` for each record there is, `commit`. The file comes back together with
/// everything else that the journal guards. Not thread-safe.
class SavedRecords {
public:
    enum class Section : std::uint32_t {
        Header = 1,     ///< of the store; one, its key is empty
        File = 2,       ///< an open file, by its id
        Retired = 3,    ///< a version that waits for retirement, by its place in the list
        Handle = 4,     ///< a source's open-file number
        Deletion = 5,   ///< a handle that is marked for deletion, by its place in their list
        Object = 6,     ///< an open mail object, by its sequence text
        ResyncPath = 7, ///< a path that asks for a resynchronisation
        Sink = 8,       ///< of the sink; one, its key is empty
        Stream = 9      ///< a stream that is kept, by its id
    };
    static constexpr std::uint32_t maximumKey = 1U << 20;

    explicit SavedRecords(QString path);

    /// Reads the file. `found()` tells whether there was one. After a failure there are no records.
    [[nodiscard]] Morva::Status load();
    /// Whether anything was ever saved.
    [[nodiscard]] bool found() const { return found_; }

    void begin() { ++round_; }
    void put(Section section, Morva::Extent key, Morva::Extent body);
    /// Brings to the file what `put` changed, and that all others are gone. Writes nothing when
    /// nothing changed. After a failure all records are written anew by the next.
    [[nodiscard]] Morva::Status commit();
    /// Forgets all records, also in the file at the next `commit`.
    void clear();
    /// Closes the file.
    [[nodiscard]] Morva::Status close();

    /// The body of a record, until the next change; null if there is none.
    [[nodiscard]] QByteArray const* find(Section section, Morva::Extent key) const;
    /// The records of a section, in no order; ends with the first failure that `visit` gives.
    using Visit = std::function<Morva::Status(Morva::Extent key, Morva::Extent body)>;
    [[nodiscard]] Morva::Status forEach(Section section, Visit const& visit) const;
    /// How many bytes the list has, of records that hold and of others.
    [[nodiscard]] std::uint64_t listBytes() const { return listBytes_; }

private:
    struct Record {
        QByteArray body;
        std::uint64_t round = 0;
    };

    [[nodiscard]] Morva::Status readAll();
    [[nodiscard]] Morva::Status take(Morva::Extent record);
    [[nodiscard]] Morva::Status append(QByteArray const& key, QByteArray const* body);
    [[nodiscard]] Morva::Status rewrite();
    [[nodiscard]] static QByteArray nameOf(Section section, Morva::Extent key);
    [[nodiscard]] static std::uint64_t sizeOf(QByteArray const& key, QByteArray const& body);

    QString path_;
    std::unique_ptr<Morva::PagedList> list_;
    QHash<QByteArray, Record> records_; ///< by section, 4 bytes, and key
    std::vector<QByteArray> changed_;   ///< keys put with another body
    std::uint64_t round_ = 1;
    std::uint64_t listBytes_ = 0; ///< of all records in the file
    std::uint64_t liveBytes_ = 0; ///< of those that hold
    bool found_ = false;
    bool broken_ = false; ///< the file doesn't hold what was saved
};

} // namespace Replication
