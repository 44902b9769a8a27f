#include "base/files/Journal.h"

#include "base/files/GuardedFile.h"
#include "base/files/JournalTable.h"
#include "base/files/PageSums.h"
#include "base/files/VerifiedContent.h"
#include "base/files/VerifiedFile.h"
#include "base/trace/Trace.h"
#include "base/values/RandomNumber.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <limits>
#include <utility>

namespace Morva {

using Type = JournalRecord::Type;

namespace {

/// Begins the name of a file that was removed since the last checkpoint.
QLatin1String const hiddenPrefix(".removed-");

FileSystem& disk() {
    return FileSystem::disk();
}

QString directoryOf(QString const& name) {
    return QFileInfo(name).path();
}

Result<QByteArray> contentOfFile(QString const& name) {
    auto const file = disk().make();
    MORVA_TRY(file->open(name, RawFile::Mode::ReadOnly));
    MORVA_TRY_LET(auto const length, file->length());
    if (length > std::numeric_limits<std::int32_t>::max())
        return Status::corruption("read", name, QStringLiteral("it is too long"));
    QByteArray bytes(static_cast<qsizetype>(length), Qt::Uninitialized);
    MORVA_TRY(file->readWhole(0, bytes.data(), static_cast<std::uint32_t>(length)));
    return bytes;
}

/// Opens a file, works on it, brings it to the disk.
template <class Work> Status changed(QString const& name, Work&& work) {
    auto const file = disk().make();
    MORVA_TRY(file->open(name, RawFile::Mode::ReadWrite));
    MORVA_TRY(work(*file));
    return file->sync();
}

} // namespace

Journal::Journal(QString directory, QStringList places) : directory_(std::move(directory)) {
    for (QString const& place : places)
        places_.append(QDir::cleanPath(place) + u'/');
}

Result<std::unique_ptr<Journal>> Journal::open(QString const& directory, QStringList const& places,
                                               Format format) {
    std::unique_ptr<Journal> journal(new Journal(QDir::cleanPath(directory), places));
    MORVA_TRY(journal->recover(format));
    FileSystem::layer(journal.get());
    return journal;
}

Journal::~Journal() {
    FileSystem::layer(nullptr);
}

// --- opening

QString Journal::base() const {
    return directoryOf(directory_);
}

Status Journal::recover(Format format) {
    QString const name = directory_ + QStringLiteral("/journal");
    JournalTable table;
    table.applied = true;
    log_.reset();
    auto const bytes = contentOfFile(name);
    if (!bytes && bytes.code() != Status::Code::NotFound)
        return bytes.status();
    if (bytes) {
        auto decoded = JournalTable::decode(*bytes, base());
        if (!decoded) {
            MORVA_TRACE(Always) << "Journal is damaged" << name;
            return Status::corruption("read", name, QStringLiteral("the journal is damaged"));
        }
        table = std::move(*decoded);
        MORVA_TRY(verifyFormat(table, format, name));
        log_ = disk().make();
        logEnd_ = table.size;
        MORVA_TRY(log_->open(name, RawFile::Mode::ReadWrite));
        if (!table.applied) {
            MORVA_TRY(apply(table));
            MORVA_TRY(note({Type::Applied, {}, {}, {}}));
        }
        MORVA_TRY(takeBack(table));
    }
    contents_.clear();
    known_.clear();
    for (JournalTable::File const& file : table.files)
        known_.insert(file.name, {file.length, file.id, file.sums});
    converted_ = table.format == JournalTable::newestFormat && table.converted;
    sequence_ = table.sequence;
    MORVA_TRY(pages_->create(directory_ + QStringLiteral("/journal.pages")));
    return log_ ? Status() : putDown(table);
}

Status Journal::apply(JournalTable const& table) {
    MORVA_TRACE(Normal) << "Apply checkpoint" << table.sequence;
    JournalPages pages;
    MORVA_TRY(pages.open(directory_ + QStringLiteral("/journal.pages")));
    for (JournalTable::File const& file : table.files) {
        MORVA_TRY_LET(auto const there, disk().exists(file.name));
        if (there)
            MORVA_TRY(changed(file.name, [&](RawFile& opened) {
                return GuardedContent::apply(opened, pages, file.runs, file.length);
            }));
    }
    for (QString const& name : table.hidden)
        MORVA_TRY(disk().removeIfThere(name));
    return {};
}

Status Journal::takeBack(JournalTable const& table) {
    // Each is noted once it is on the disk: done twice, the first could undo what followed it.
    for (auto change = table.changes.rbegin(); change != table.changes.rend(); ++change) {
        MORVA_TRY(takeBack(*change));
        MORVA_TRY(note({Type::TakenBack, {}, {}, {}}));
    }
    for (JournalTable::File const& file : table.files) {
        MORVA_TRY_LET(auto const found, disk().stat(file.name));
        if (!found || found->length < file.length)
            MORVA_TRACE(Always) << "File" << file.name << "has lost its end";
        else if (found->length > file.length)
            MORVA_TRY(
                changed(file.name, [&](RawFile& opened) { return opened.setLength(file.length); }));
    }
    return {};
}

Status Journal::takeBack(JournalRecord const& change) {
    QString const name = JournalTable::absoluteName(change.name, base());
    QString const second = JournalTable::absoluteName(change.second, base());
    if (change.type == Type::Created) {
        MORVA_TRY(disk().removeIfThere(name));
    } else {
        MORVA_TRY_LET(auto const there, disk().exists(second));
        if (there) {
            MORVA_TRY(disk().makeDirectory(directoryOf(name)));
            MORVA_TRY(disk().rename(second, name));
        }
    }
    MORVA_TRY_LET(auto const holds, disk().exists(directoryOf(name)));
    return holds ? disk().syncDirectory(directoryOf(name)) : Status();
}

Status Journal::rollBack() {
    std::lock_guard const hold(lock_);
    std::unique_lock const alone(pages_->changing());
    changes_.clear();
    return recover(converted_ ? Format::Newest : Format::ToConvert);
}

// --- names

QString Journal::placeOf(QString const& name) const {
    for (QString const& place : places_)
        if (name.startsWith(place))
            return place;
    return {};
}

Status Journal::note(JournalRecord const& record) {
    MORVA_TRY(pages_->whole());
    if (record.name.size() > qsizetype{JournalRecord::longestName} ||
        record.second.size() > qsizetype{JournalRecord::longestName})
        return Status::failure(Status::Code::InvalidArgument, "write", log_->name(),
                               QStringLiteral("the name of a file is too long"));
    QByteArray bytes;
    record.appendTo(bytes);
    auto const size = static_cast<std::uint32_t>(bytes.size());
    MORVA_TRY(log_->writeAt(logEnd_, bytes.constData(), size));
    MORVA_TRY(log_->sync());
    logEnd_ += size;
    return {};
}

Status Journal::noteChange(Type type, QString const& name, QString const& second) {
    JournalRecord record{type,
                         JournalTable::relativeName(name, base()),
                         JournalTable::relativeName(second, base()),
                         {}};
    MORVA_TRY(note(record));
    changes_.push_back(std::move(record));
    return {};
}

Result<Journal::ContentPointer> Journal::contentOf(QString const& name) {
    std::lock_guard const hold(lock_);
    if (auto const open = contents_.constFind(name); open != contents_.cend())
        return *open;
    auto const known = known_.constFind(name);
    if (known == known_.cend())
        return Status::corruption("open", name, QStringLiteral("the journal doesn't know it"));
    auto content = std::make_shared<GuardedContent>(pages_, known->length);
    if (!PageSums::isSide(name) && (converted_ || !known->sums.isEmpty())) {
        MORVA_TRY_LET(auto sums, PageSums::of(known->id, known->sums, name));
        content->verified(std::make_shared<VerifiedContent>(std::move(sums)));
    }
    contents_.insert(name, content);
    return content;
}

Result<Journal::ContentPointer> Journal::created(QString const& name) {
    std::lock_guard const hold(lock_);
    MORVA_TRY_LET(auto const there, disk().exists(name));
    if (there)
        MORVA_TRY(hide(name));
    MORVA_TRY(noteChange(Type::Created, name));
    auto content = std::make_shared<GuardedContent>(pages_, 0);
    if (!PageSums::isSide(name))
        content->verified(
            std::make_shared<VerifiedContent>(std::make_shared<PageSums>(randomNumber())));
    contents_.insert(name, content);
    return content;
}

bool Journal::hasSide(QString const& name) const {
    if (auto const content = contents_.value(name))
        return content->verified() && content->verified()->sums().hasSide();
    auto const known = known_.constFind(name);
    return known != known_.cend() && PageSums::hasSide(known->sums);
}

Status Journal::hide(QString const& name) {
    bool const withSide = hasSide(name);
    MORVA_TRY(hideOne(name));
    if (!withSide)
        return {};
    MORVA_TRY_LET(auto const there, disk().exists(PageSums::sideName(name)));
    return there ? hideOne(PageSums::sideName(name)) : Status();
}

Status Journal::hideOne(QString const& name) {
    QString const hidden = QStringLiteral("%1%2%3-%4")
                               .arg(placeOf(name), hiddenPrefix)
                               .arg(sequence_)
                               .arg(++hiddenCount_);
    MORVA_TRY(noteChange(Type::Removed, name, hidden));
    MORVA_TRY(disk().rename(name, hidden));
    contents_.remove(name);
    known_.remove(name);
    return {};
}

Status Journal::remove(QString const& name) {
    if (!isGuarded(name))
        return disk().remove(name);
    std::shared_lock const noCheckpoint(pages_->noting());
    std::lock_guard const hold(lock_);
    MORVA_TRY_LET(auto const there, disk().exists(name));
    return there ? hide(name) : Status::fromErrno(ENOENT, "remove", name);
}

Status Journal::rename(QString const& from, QString const& to) {
    if (!isGuarded(from) && !isGuarded(to))
        return disk().rename(from, to);
    if (!isGuarded(from) || !isGuarded(to))
        return Status::failure(Status::Code::InvalidArgument, "rename", from,
                               QStringLiteral("only one of the two names is in the repository"));
    std::shared_lock const noCheckpoint(pages_->noting());
    std::lock_guard const hold(lock_);
    MORVA_TRY_LET(auto const fromIsThere, disk().exists(from));
    if (!fromIsThere)
        return Status::fromErrno(ENOENT, "rename", from);
    MORVA_TRY_LET(auto const toIsThere, disk().exists(to));
    if (toIsThere)
        MORVA_TRY(hide(to));
    if (hasSide(from))
        MORVA_TRY(renameOne(PageSums::sideName(from), PageSums::sideName(to)));
    return renameOne(from, to);
}

Status Journal::renameOne(QString const& from, QString const& to) {
    MORVA_TRY(noteChange(Type::Renamed, from, to));
    MORVA_TRY(disk().rename(from, to));
    if (auto const content = contents_.take(from))
        contents_.insert(to, content);
    if (known_.contains(from)) {
        auto const known = known_.take(from);
        known_.insert(to, known);
    }
    return {};
}

std::unique_ptr<GuardedFile> Journal::makeGuarded() {
    return std::make_unique<GuardedFile>(*this, disk().make());
}

std::unique_ptr<RawFile> Journal::make() {
    return std::make_unique<VerifiedFile>(makeGuarded());
}

Result<std::optional<FileSystem::Information>> Journal::stat(QString const& name) {
    auto found = disk().stat(name);
    if (found && *found) {
        std::lock_guard const hold(lock_);
        if (auto const content = contents_.value(name))
            (*found)->length = content->length();
    }
    return found;
}

Result<std::vector<FileSystem::Entry>> Journal::list(QString const& directory) {
    MORVA_TRY_LET(auto entries, disk().list(directory));
    QString const path = QDir::cleanPath(directory) + u'/';
    bool const isPlace = places_.contains(path);
    if (isGuarded(path))
        std::erase_if(entries, [isPlace](Entry const& entry) {
            return PageSums::isSide(entry.name) || (isPlace && entry.name.startsWith(hiddenPrefix));
        });
    return entries;
}

Status Journal::makeDirectory(QString const& path) {
    return disk().makeDirectory(path);
}

Status Journal::removeDirectory(QString const& path) {
    return disk().removeDirectory(path);
}

Status Journal::syncDirectory(QString const& path) {
    return isGuarded(path + u'/') ? Status() : disk().syncDirectory(path);
}

// --- checkpoints

bool Journal::isChanged() const {
    return changed_ || !changes_.empty() ||
           std::any_of(contents_.cbegin(), contents_.cend(),
                       [](ContentPointer const& content) { return content->isChanged(); });
}

Status Journal::checkpoint() {
    std::unique_lock const noWriters(pages_->noting());
    MORVA_TRY(flushSums());
    std::lock_guard const hold(lock_);
    std::unique_lock const alone(pages_->changing());
    MORVA_TRY(pages_->whole());
    if (!isChanged())
        return {};
    MORVA_TRY_LET(JournalTable const table, nextTable());
    MORVA_TRY(syncWritten());
    if (!table.applied)
        MORVA_TRY(pages_->sync());
    MORVA_TRY(putDown(table));
    if (!table.applied) {
        if (auto status = finish(table); !status) {
            pages_->breakDown();
            return status;
        }
    }
    for (auto const& content : std::as_const(contents_))
        content->settle();
    // Those that nobody has open are known by the table alone.
    contents_.removeIf([](auto const& item) { return item.value().use_count() == 1; });
    known_.clear();
    for (JournalTable::File const& file : table.files)
        known_.insert(file.name, {file.length, file.id, file.sums});
    changes_.clear();
    changed_ = false;
    pages_->reset();
    return {};
}

Status Journal::flushSums() {
    std::vector<std::pair<QString, std::shared_ptr<VerifiedContent>>> verified;
    {
        std::lock_guard const hold(lock_);
        for (auto file = contents_.cbegin(); file != contents_.cend(); ++file)
            if (auto const& content = file.value()->verified())
                verified.emplace_back(file.key(), content);
    }
    // Side files are files of this journal, whose lock they take.
    for (auto const& [name, content] : verified)
        MORVA_TRY(content->sums().flush(name, [this] { return makeGuarded(); }));
    return {};
}

Status Journal::syncWritten() {
    for (auto file = contents_.cbegin(); file != contents_.cend(); ++file)
        if (file.value()->isWritten())
            MORVA_TRY(changed(file.key(), [](RawFile&) { return Status(); }));
    QSet<QString> directories;
    for (JournalRecord const& change : changes_) {
        directories.insert(directoryOf(JournalTable::absoluteName(change.name, base())));
        if (!change.second.isEmpty())
            directories.insert(directoryOf(JournalTable::absoluteName(change.second, base())));
    }
    for (QString const& directory : std::as_const(directories)) {
        MORVA_TRY_LET(auto const there, disk().exists(directory));
        if (there)
            MORVA_TRY(disk().syncDirectory(directory));
    }
    return {};
}

Result<JournalTable> Journal::nextTable() const {
    JournalTable table;
    table.sequence = sequence_ + 1;
    table.time = static_cast<std::uint64_t>(std::time(nullptr));
    table.applied = true;
    table.converted = converted_;
    for (auto file = known_.cbegin(); file != known_.cend(); ++file)
        if (!contents_.contains(file.key()))
            table.files.push_back({file.key(), file->length, {}, file->id, file->sums});
    for (auto file = contents_.cbegin(); file != contents_.cend(); ++file) {
        MORVA_TRY_LET(auto const there, disk().exists(file.key()));
        if (!there)
            continue; // It could not be made.
        JournalTable::File entry{file.key(), file.value()->length(), file.value()->runs(), 0, {}};
        if (auto const& verified = file.value()->verified()) {
            entry.id = verified->sums().fileId();
            entry.sums = verified->sums().state();
        }
        table.files.push_back(std::move(entry));
        table.applied = table.applied && !file.value()->isOverlaid();
    }
    for (JournalRecord const& change : changes_)
        if (change.type == Type::Removed)
            table.hidden.append(JournalTable::absoluteName(change.second, base()));
    table.applied = table.applied && table.hidden.isEmpty();
    return table;
}

Status Journal::putDown(JournalTable const& table) {
    QString const fresh = directory_ + QStringLiteral("/journal.new");
    QByteArray const bytes = table.encode(base());
    auto const size = static_cast<std::uint32_t>(bytes.size());
    auto file = disk().make();
    MORVA_TRY(file->create(fresh, RawFile::Mode::ReadWrite));
    MORVA_TRY(file->writeAt(0, bytes.constData(), size));
    MORVA_TRY(file->sync());
    MORVA_TRY(disk().rename(fresh, directory_ + QStringLiteral("/journal")));
    log_ = std::move(file);
    logEnd_ = size;
    sequence_ = table.sequence;
    // Until the name is on the disk either of the two checkpoints may be found.
    auto status = disk().syncDirectory(directory_);
    if (!status)
        pages_->breakDown();
    return status;
}

Status Journal::finish(JournalTable const& table) {
    for (JournalTable::File const& file : table.files) {
        auto const content = contents_.value(file.name);
        if (content && content->isOverlaid())
            MORVA_TRY(changed(file.name, [&](RawFile& opened) {
                return GuardedContent::apply(opened, *pages_, file.runs, file.length);
            }));
    }
    for (QString const& name : table.hidden)
        MORVA_TRY(disk().removeIfThere(name));
    return note({Type::Applied, {}, {}, {}});
}

} // namespace Morva
