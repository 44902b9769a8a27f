// The entry list of a snapshot file, and its form for statistics.

#include "base/files/RawFile.h"
#include "base/messages/XmlList.h"
#include "base/process/Context.h"
#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/store/SnapshotFile.h"
#include "replication/repository/streams/DedupStatistics.h"

#include <QByteArray>

namespace Replication {

using Morva::loadLittle;
using Morva::RawFile;
using Morva::Result;
using Morva::Status;
using Morva::storeLittle;
using Morva::TracedLock;

Status SnapshotFile::closed() const {
    MORVA_TRY(loadLocked());
    if (!instance_)
        return Status::corruption("open", path_, QStringLiteral("the snapshot's file is damaged"));
    if (!writer_ && !reader_)
        return {};
    MORVA_TRACE(Always) << "Snapshot file is already open" << path_;
    return Status::failure(Status::Code::Busy, "open", path_, QStringLiteral("it is open already"));
}

Status SnapshotFile::openForAppend() {
    TracedLock lock(lock_);
    MORVA_TRY(closed());
    auto file = RawFile::make();
    if (Status outcome = file->open(path_, RawFile::Mode::ReadWrite); !outcome) {
        MORVA_TRACE(Always) << "Failed to open file" << path_ << outcome.text();
        return outcome;
    }
    std::uint64_t const first = firstOffset();
    MORVA_TRY_LET(std::uint64_t const length, file->length());
    if (length < first) {
        MORVA_TRACE(Always) << "Failed to position to end of file" << path_;
        return Status::corruption("open", path_, QStringLiteral("it ends before its entries"));
    }
    appendOffset_ = length - (length - first) % SnapshotEntry::packedSize;
    writer_ = std::move(file);
    return {};
}

Status SnapshotFile::openForRead() {
    TracedLock lock(lock_);
    MORVA_TRY(closed());
    if (Status outcome = reader_.open(path_); !outcome) {
        MORVA_TRACE(Always) << "Failed to open file" << path_ << reader_.lastError();
        return outcome;
    }
    if (!reader_.setPosition(static_cast<std::int64_t>(firstOffset()))) {
        MORVA_TRACE(Always) << "Failed to position to delete offset" << path_;
        (void)reader_.close(); // removes nothing
        return Status::corruption("open", path_, QStringLiteral("it ends before its entries"));
    }
    return {};
}

bool SnapshotFile::close() {
    TracedLock lock(lock_);
    if (writer_) {
        (void)writer_->close(); // removes nothing
        writer_.reset();
        return true;
    }
    bool const open = reader_.isOpen();
    (void)reader_.close(); // removes nothing
    return open;
}

Status SnapshotFile::addEntry(FileId id, Instance instance) {
    return addEntry(SnapshotEntry{instance, id});
}

Status SnapshotFile::addEntry(SnapshotEntry const& entry) {
    TracedLock lock(lock_);
    if (!writer_)
        return notOpen();
    std::array<std::uint8_t, SnapshotEntry::packedSize> bytes{};
    storeLittle(bytes.data() + 4, entry.instance.value);
    storeLittle(bytes.data() + 8, entry.id.value);
    if (Status outcome = writer_->writeAt(appendOffset_, bytes.data(), bytes.size()); !outcome) {
        MORVA_TRACE(Always) << "Failed to write snapshot entry" << outcome.text();
        return outcome;
    }
    appendOffset_ += bytes.size();
    return {};
}

std::uint64_t SnapshotFile::end() const {
    TracedLock lock(lock_);
    return appendOffset_;
}

Status SnapshotFile::cut(std::uint64_t end) {
    TracedLock lock(lock_);
    if (!writer_)
        return notOpen();
    MORVA_TRY_LET(std::uint64_t const length, writer_->length());
    if (length <= end)
        return {};
    MORVA_TRY(writer_->setLength(end));
    appendOffset_ = end;
    return {};
}

Result<std::optional<SnapshotEntry>> SnapshotFile::readEntry() {
    TracedLock lock(lock_);
    if (!reader_)
        return notOpen();
    std::array<std::uint8_t, SnapshotEntry::packedSize> bytes;
    MORVA_TRY_LET(std::uint32_t const got, reader_.read(bytes.data(), bytes.size()));
    if (got < bytes.size())
        return std::optional<SnapshotEntry>();
    return std::optional<SnapshotEntry>(
        SnapshotEntry{Instance{loadLittle<std::uint32_t>(bytes.data() + 4)},
                      FileId{loadLittle<std::uint64_t>(bytes.data() + 8)}});
}

std::uint64_t SnapshotFile::position() const {
    TracedLock lock(lock_);
    return static_cast<std::uint64_t>(reader_.position());
}

Status SnapshotFile::rewind() {
    TracedLock lock(lock_);
    if (!reader_)
        return notOpen();
    if (reader_.setPosition(static_cast<std::int64_t>(firstOffset())))
        return {};
    return Status::corruption("rewind", path_, QStringLiteral("it ends before its entries"));
}

Status SnapshotFile::remove() {
    TracedLock lock(lock_);
    if (!instance_)
        return Status::corruption("remove", path_,
                                  QStringLiteral("the snapshot's file is damaged"));
    (void)reader_.close(); // removes nothing
    if (writer_)
        (void)writer_->close(); // removes nothing
    writer_.reset();
    return Morva::FileSystem::inForce().removeIfThere(path_);
}

Status SnapshotFile::notOpen() const {
    return Status::failure(Status::Code::InvalidArgument, "use", path_,
                           QStringLiteral("it isn't open for that"));
}

QString SnapshotFile::typeText(SnapshotType type) {
    switch (type) {
    case SnapshotType::Old:
        return QStringLiteral("Old");
    case SnapshotType::Initial:
        return QStringLiteral("Initial");
    case SnapshotType::Policy:
        return QStringLiteral("Policy");
    case SnapshotType::User:
        return QStringLiteral("User");
    case SnapshotType::Synchronization:
        return QStringLiteral("Synchronization");
    case SnapshotType::Validate:
        return QStringLiteral("Validate");
    }
    return {};
}

namespace {

QString stateText(DedupState state) {
    switch (state) {
    case DedupState::None:
        return QStringLiteral("No Deduplication");
    case DedupState::Pending:
        return QStringLiteral("Deduplication Pending");
    case DedupState::Processing:
        return QStringLiteral("Deduplication Processing");
    case DedupState::Deduplicated:
        return QStringLiteral("Deduplicated");
    }
    return {};
}

} // namespace

bool SnapshotFile::listed() const {
    SnapshotType const kind = type();
    return (kind == SnapshotType::Old || kind == SnapshotType::Policy ||
            kind == SnapshotType::User || kind == SnapshotType::Synchronization) &&
           !retire();
}

void SnapshotFile::addId(Morva::XmlList& entry, FileHandle root, Instance instance) {
    root.instance = instance;
    auto const id = root.encode();
    entry.set(QLatin1String("Id"), QByteArray(reinterpret_cast<char const*>(id.data()),
                                              static_cast<qsizetype>(id.size())));
}

bool SnapshotFile::addDamage(Morva::XmlList& entry, FileHandle root) const {
    Status const outcome = status();
    if (outcome)
        return false;
    addId(entry, root, instance());
    entry.set(QLatin1String("Damaged"), outcome.text());
    return true;
}

void SnapshotFile::statistics(Morva::XmlList& list, FileHandle const& root) const {
    Morva::XmlList entry;
    if (!addDamage(entry, root)) {
        if (!listed())
            return;
        addFigures(entry, root, nullptr);
    }
    list.set(QStringLiteral("SnapShotEntry"), entry, Morva::XmlList::SetTypeE::Add);
}

void SnapshotFile::statistics(NamedLists& lists, Origin const& origin, std::uint32_t from,
                              std::uint32_t to) const {
    Morva::XmlList damaged;
    if (addDamage(damaged, origin.root)) {
        lists.append({QStringLiteral("Snapshot"), damaged});
        return;
    }
    std::uint32_t const time = sourceTime();
    if (!listed() || ((from != 0 || to != 0) && (time < from || time > to)))
        return;
    Morva::XmlList entry;
    entry.set(QStringLiteral("Destination"), Morva::Context::machineName().name());
    entry.set(QStringLiteral("Machine"), origin.machine);
    entry.set(QStringLiteral("Store"), origin.store);
    entry.set(QStringLiteral("InstanceType"), origin.instanceType);
    addFigures(entry, origin.root, &origin);
    lists.append({QStringLiteral("Snapshot"), entry});
}

void SnapshotFile::addFigures(Morva::XmlList& entry, FileHandle root, Origin const* origin) const {
    SnapshotType const kind = type();
    auto const set = [&](char const* key, auto value) { entry.set(QLatin1String(key), value); };
    addId(entry, root, instance());
    if (origin)
        set("ReplayId", origin->replayId.value);
    bool const misspelled = origin && kind == SnapshotType::Synchronization;
    set("Type", misspelled ? QStringLiteral("Syncronization") : typeText(kind));
    set("SourceTime", sourceTime());
    set("RepositoryTime", repositoryTime());
    bool const counted = analyzed();
    if (counted) {
        set("Analyzed", true);
        set("LogicalSize", logicalSize());
    }
    if (origin)
        set("MarkedForDeletion", markedForDeletion());
    if (kind != SnapshotType::Old || counted) {
        set("FileCount", fileCount());
        set("DirectoryCount", directoryCount());
    }
    if (kind == SnapshotType::Old)
        return;
    DedupStatistics const dedup = dedupStatistics();
    set(origin ? "DedupStreamCount" : "DedupStreams", dedup.streams);
    set(origin ? "UniqueStreamCount" : "UniqueStreams", dedup.uniqueStreams);
    set("DedupSize", dedup.dedupedSize);
    set("UniqueSize", dedup.uniqueSize);
    set("NeedResync", needResync());
    if (origin)
        set("DedupState", stateText(dedupState()));
    else
        set("DedupState", static_cast<std::uint32_t>(dedupState()));
    if (kind == SnapshotType::Policy) {
        set("Policy", policy());
        set("OpId", opId());
        set("Ruleset", ruleSet());
    }
    if (QString const text = label(); !text.isEmpty())
        set("Label", text);
    set("Indexed", indexed());
}

} // namespace Replication
