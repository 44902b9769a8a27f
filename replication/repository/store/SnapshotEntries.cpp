// The entry list of a snapshot file, and its form for statistics.

#include "base/messages/XmlList.h"
#include "base/process/Context.h"
#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/store/SnapshotFile.h"
#include "replication/repository/streams/DedupStatistics.h"

#include <QByteArray>
#include <QFileInfo>

namespace Replication {

using Morva::loadLittle;
using Morva::RawFile;
using Morva::storeLittle;
using Morva::TracedLock;

bool SnapshotFile::openForAppend() {
    std::uint64_t const first = deleteOffset();
    TracedLock lock(lock_);
    if (!instance_)
        return false;
    if (writer_ || reader_) {
        MORVA_TRACE(Always) << "Snapshot file is already open" << path_;
        return false;
    }
    auto file = RawFile::make();
    if (!file->open(path_, RawFile::Mode::ReadWrite)) {
        MORVA_TRACE(Always) << "Failed to open file" << path_ << file->lastError();
        return false;
    }
    std::uint64_t const length = file->length();
    if (length < first) {
        MORVA_TRACE(Always) << "Failed to position to end of file" << path_;
        return false;
    }
    appendOffset_ = length - (length - first) % SnapshotEntry::packedSize;
    writer_ = std::move(file);
    return true;
}

bool SnapshotFile::openForRead() {
    std::uint64_t const first = deleteOffset();
    TracedLock lock(lock_);
    if (!instance_)
        return false;
    if (writer_ || reader_) {
        MORVA_TRACE(Always) << "Snapshot file is already open" << path_;
        return false;
    }
    if (!reader_.open(path_)) {
        MORVA_TRACE(Always) << "Failed to open file" << path_ << reader_.lastError();
        return false;
    }
    if (!reader_.setPosition(static_cast<std::int64_t>(first))) {
        MORVA_TRACE(Always) << "Failed to position to delete offset" << path_;
        reader_.close();
        return false;
    }
    return true;
}

bool SnapshotFile::close() {
    TracedLock lock(lock_);
    if (writer_) {
        writer_->close();
        writer_.reset();
        return true;
    }
    bool const open = reader_.isOpen();
    reader_.close();
    return open;
}

bool SnapshotFile::addEntry(FileId id, Instance instance) {
    return addEntry(SnapshotEntry{instance, id});
}

bool SnapshotFile::addEntry(SnapshotEntry const& entry) {
    TracedLock lock(lock_);
    if (!writer_)
        return false;
    std::array<std::uint8_t, SnapshotEntry::packedSize> bytes{};
    storeLittle(bytes.data() + 4, entry.instance.value);
    storeLittle(bytes.data() + 8, entry.id.value);
    if (writer_->writeAt(appendOffset_, bytes.data(), bytes.size()) != bytes.size()) {
        MORVA_TRACE(Always) << "Failed to write snapshot entry" << path_ << writer_->lastError();
        return false;
    }
    appendOffset_ += bytes.size();
    return true;
}

bool SnapshotFile::readEntry(SnapshotEntry& entry) {
    TracedLock lock(lock_);
    std::array<std::uint8_t, SnapshotEntry::packedSize> bytes;
    if (!reader_ || reader_.read(bytes.data(), bytes.size()) != bytes.size())
        return false;
    entry.instance = Instance{loadLittle<std::uint32_t>(bytes.data() + 4)};
    entry.id = FileId{loadLittle<std::uint64_t>(bytes.data() + 8)};
    return true;
}

bool SnapshotFile::readFailed() const {
    TracedLock lock(lock_);
    return reader_.failed();
}

bool SnapshotFile::rewind() {
    std::uint64_t const first = deleteOffset();
    TracedLock lock(lock_);
    return reader_ && reader_.setPosition(static_cast<std::int64_t>(first));
}

bool SnapshotFile::remove() {
    TracedLock lock(lock_);
    if (!instance_)
        return false;
    if (reader_) {
        reader_.deleteOnClose();
        reader_.close();
        return !QFileInfo::exists(path_);
    }
    if (!writer_) {
        writer_ = RawFile::make();
        if (!writer_->open(path_, RawFile::Mode::ReadWrite)) {
            writer_.reset();
            return false;
        }
    }
    writer_->deleteOnClose();
    writer_->close();
    writer_.reset();
    return !QFileInfo::exists(path_);
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

void SnapshotFile::statistics(Morva::XmlList& list, FileHandle const& root) const {
    if (!listed())
        return;
    Morva::XmlList entry;
    addFigures(entry, root, nullptr);
    list.set(QStringLiteral("SnapShotEntry"), entry, Morva::XmlList::SetTypeE::Add);
}

void SnapshotFile::statistics(NamedLists& lists, Origin const& origin, std::uint32_t from,
                              std::uint32_t to) const {
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
    root.instance = instance();
    auto const id = root.encode();
    auto const set = [&](char const* key, auto value) { entry.set(QLatin1String(key), value); };
    set("Id",
        QByteArray(reinterpret_cast<char const*>(id.data()), static_cast<qsizetype>(id.size())));
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
