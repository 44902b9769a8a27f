#include "base/files/Journal.h"

#include "base/files/GuardedFile.h"
#include "base/files/JournalTable.h"
#include "base/trace/Trace.h"
#include "base/values/PosixText.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <utility>

namespace Morva {

using Type = JournalRecord::Type;

namespace {

bool exists(QString const& name) {
    return ::access(encodePosixText(name).constData(), F_OK) == 0;
}

QString directoryOf(QString const& name) {
    return QFileInfo(name).path();
}

bool renameFile(QString const& from, QString const& to) {
    if (std::rename(encodePosixText(from).constData(), encodePosixText(to).constData()) == 0)
        return true;
    MORVA_TRACE(Always) << "Failed to rename file" << from << "to" << to << TraceErrorCode{errno};
    return false;
}

bool removeFile(QString const& name) {
    if (::unlink(encodePosixText(name).constData()) == 0)
        return true;
    MORVA_TRACE(Always) << "Failed to remove file" << name << TraceErrorCode{errno};
    return false;
}

/// Nothing when the file isn't there.
std::optional<QByteArray> contentOfFile(QString const& name) {
    auto const file = RawFile::makeUnguarded();
    if (!file->open(name, RawFile::Mode::ReadOnly))
        return std::nullopt;
    QByteArray bytes(static_cast<qsizetype>(file->length()), '\0');
    auto const size = static_cast<std::uint32_t>(bytes.size());
    bytes.truncate(file->readAt(0, bytes.data(), size));
    return bytes;
}

/// Opens a file, works on it, brings it to the disk.
template <class Work> bool changed(QString const& name, Work&& work) {
    auto const file = RawFile::makeUnguarded();
    return file->open(name, RawFile::Mode::ReadWrite) && work(*file) && file->sync();
}

} // namespace

Journal::Journal(QString directory, QStringList places) : directory_(std::move(directory)) {
    for (QString const& place : places)
        places_.append(QDir::cleanPath(place) + u'/');
}

std::unique_ptr<Journal> Journal::open(QString const& directory, QStringList const& places) {
    std::unique_ptr<Journal> journal(new Journal(QDir::cleanPath(directory), places));
    if (!journal->recover())
        return nullptr;
    RawFile::guard(journal.get());
    return journal;
}

Journal::~Journal() {
    RawFile::guard(nullptr);
}

// --- opening

QString Journal::base() const {
    return directoryOf(directory_);
}

bool Journal::recover() {
    QString const name = directory_ + QStringLiteral("/journal");
    JournalTable table;
    table.applied = true;
    log_.reset();
    if (exists(name)) {
        auto const bytes = contentOfFile(name);
        auto decoded = bytes ? JournalTable::decode(*bytes, base()) : std::nullopt;
        if (!decoded) {
            MORVA_TRACE(Always) << "Journal is damaged" << name;
            return false;
        }
        table = std::move(*decoded);
        log_ = RawFile::makeUnguarded();
        logEnd_ = table.size;
        if (!log_->open(name, RawFile::Mode::ReadWrite) ||
            (!table.applied && !(apply(table) && note({Type::Applied, {}, {}, {}}))) ||
            !takeBack(table))
            return false;
    }
    contents_.clear();
    lengths_.clear();
    for (JournalTable::File const& file : table.files)
        lengths_.insert(file.name, file.length);
    sequence_ = table.sequence;
    return pages_->create(directory_ + QStringLiteral("/journal.pages")) &&
           (log_ || putDown(table));
}

bool Journal::apply(JournalTable const& table) {
    MORVA_TRACE(Normal) << "Apply checkpoint" << table.sequence;
    JournalPages pages;
    if (!pages.open(directory_ + QStringLiteral("/journal.pages")))
        return false;
    for (JournalTable::File const& file : table.files) {
        auto const work = [&](RawFile& opened) {
            return GuardedContent::apply(opened, pages, file.runs, file.length);
        };
        if (exists(file.name) && !changed(file.name, work))
            return false;
    }
    for (QString const& name : table.hidden)
        if (exists(name) && !removeFile(name))
            return false;
    return true;
}

bool Journal::takeBack(JournalTable const& table) {
    // Each is noted once it is on the disk: done twice, the first could undo what followed it.
    for (auto change = table.changes.rbegin(); change != table.changes.rend(); ++change)
        if (!takeBack(*change) || !note({Type::TakenBack, {}, {}, {}}))
            return false;
    for (JournalTable::File const& file : table.files) {
        auto const length = exists(file.name) ? QFileInfo(file.name).size() : -1;
        auto const wanted = static_cast<qint64>(file.length);
        auto const cut = [&](RawFile& opened) { return opened.setLength(file.length); };
        if (length < wanted)
            MORVA_TRACE(Always) << "File" << file.name << "has lost its end";
        else if (length > wanted && !changed(file.name, cut))
            return false;
    }
    return true;
}

bool Journal::takeBack(JournalRecord const& change) {
    QString const name = JournalTable::absoluteName(change.name, base());
    QString const second = JournalTable::absoluteName(change.second, base());
    bool done = true;
    if (change.type == Type::Created)
        done = !exists(name) || removeFile(name);
    else if (exists(second))
        done = QDir().mkpath(directoryOf(name)) && renameFile(second, name);
    return done && (!exists(directoryOf(name)) || RawFile::syncDirectory(directoryOf(name)));
}

bool Journal::rollBack() {
    std::lock_guard const hold(lock_);
    std::unique_lock const alone(pages_->changing());
    changes_.clear();
    return recover();
}

// --- names

QString Journal::placeOf(QString const& name) const {
    for (QString const& place : places_)
        if (name.startsWith(place))
            return place;
    return {};
}

bool Journal::note(JournalRecord const& record) {
    if (record.name.size() > qsizetype{JournalRecord::longestName} ||
        record.second.size() > qsizetype{JournalRecord::longestName} || pages_->isBroken())
        return false;
    QByteArray bytes;
    record.appendTo(bytes);
    auto const size = static_cast<std::uint32_t>(bytes.size());
    if (log_->writeAt(logEnd_, bytes.constData(), size) != size || !log_->sync())
        return false;
    logEnd_ += size;
    return true;
}

bool Journal::noteChange(Type type, QString const& name, QString const& second) {
    JournalRecord record{type,
                         JournalTable::relativeName(name, base()),
                         JournalTable::relativeName(second, base()),
                         {}};
    if (!note(record))
        return false;
    changes_.push_back(std::move(record));
    return true;
}

Journal::ContentPointer Journal::contentOf(QString const& name, std::uint64_t length) {
    std::lock_guard const hold(lock_);
    auto& content = contents_[name];
    if (content)
        return content;
    if (auto const known = lengths_.constFind(name); known != lengths_.cend())
        length = *known;
    else if (note({Type::File, JournalTable::relativeName(name, base()), {}, {length}}))
        lengths_.insert(name, length);
    else {
        contents_.remove(name);
        return nullptr;
    }
    return content = std::make_shared<GuardedContent>(pages_, length);
}

Journal::ContentPointer Journal::created(QString const& name) {
    std::lock_guard const hold(lock_);
    if (exists(name) && !hide(name))
        return nullptr;
    if (!noteChange(Type::Created, name))
        return nullptr;
    auto content = std::make_shared<GuardedContent>(pages_, 0);
    contents_.insert(name, content);
    return content;
}

bool Journal::hide(QString const& name) {
    QString const hidden =
        QStringLiteral("%1.removed-%2-%3").arg(placeOf(name)).arg(sequence_).arg(++hiddenCount_);
    if (!noteChange(Type::Removed, name, hidden) || !renameFile(name, hidden))
        return false;
    contents_.remove(name);
    lengths_.remove(name);
    return true;
}

bool Journal::remove(QString const& name) {
    if (!isGuarded(name))
        return removeFile(name);
    std::lock_guard const hold(lock_);
    return exists(name) && hide(name);
}

bool Journal::rename(QString const& from, QString const& to) {
    if (!isGuarded(from) && !isGuarded(to))
        return renameFile(from, to);
    std::lock_guard const hold(lock_);
    if (!isGuarded(from) || !isGuarded(to) || !exists(from) || (exists(to) && !hide(to)) ||
        !noteChange(Type::Renamed, from, to) || !renameFile(from, to))
        return false;
    if (auto const content = contents_.take(from))
        contents_.insert(to, content);
    if (lengths_.contains(from)) {
        auto const length = lengths_.take(from);
        lengths_.insert(to, length);
    }
    return true;
}

std::unique_ptr<RawFile> Journal::guarded(std::unique_ptr<RawFile> file) {
    return std::make_unique<GuardedFile>(*this, std::move(file));
}

// --- checkpoints

bool Journal::isChanged() const {
    return !changes_.empty() ||
           std::any_of(contents_.cbegin(), contents_.cend(),
                       [](ContentPointer const& content) { return content->isChanged(); });
}

bool Journal::checkpoint() {
    std::lock_guard const hold(lock_);
    std::unique_lock const alone(pages_->changing());
    if (isBroken())
        return false;
    if (!isChanged())
        return true;
    JournalTable const table = nextTable();
    if (!syncWritten() || (!table.applied && !pages_->sync()))
        return false;
    if (!putDown(table))
        return false;
    if (!table.applied && !finish(table)) {
        pages_->breakDown();
        return false;
    }
    for (auto const& content : std::as_const(contents_))
        content->settle();
    // Those that nobody has open are known by their lengths alone.
    contents_.removeIf([](auto const& item) { return item.value().use_count() == 1; });
    lengths_.clear();
    for (JournalTable::File const& file : table.files)
        lengths_.insert(file.name, file.length);
    changes_.clear();
    pages_->reset();
    return true;
}

bool Journal::syncWritten() {
    for (auto file = contents_.cbegin(); file != contents_.cend(); ++file)
        if (file.value()->isWritten() && !changed(file.key(), [](RawFile&) { return true; }))
            return false;
    QSet<QString> directories;
    for (JournalRecord const& change : changes_) {
        directories.insert(directoryOf(JournalTable::absoluteName(change.name, base())));
        if (!change.second.isEmpty())
            directories.insert(directoryOf(JournalTable::absoluteName(change.second, base())));
    }
    for (QString const& directory : std::as_const(directories))
        if (exists(directory) && !RawFile::syncDirectory(directory))
            return false;
    return true;
}

JournalTable Journal::nextTable() const {
    JournalTable table;
    table.sequence = sequence_ + 1;
    table.time = static_cast<std::uint64_t>(std::time(nullptr));
    table.applied = true;
    for (auto file = lengths_.cbegin(); file != lengths_.cend(); ++file)
        if (!contents_.contains(file.key()))
            table.files.push_back({file.key(), file.value(), {}});
    for (auto file = contents_.cbegin(); file != contents_.cend(); ++file) {
        if (!exists(file.key()))
            continue; // It could not be made.
        table.files.push_back({file.key(), file.value()->length(), file.value()->runs()});
        table.applied = table.applied && !file.value()->isOverlaid();
    }
    for (JournalRecord const& change : changes_)
        if (change.type == Type::Removed)
            table.hidden.append(JournalTable::absoluteName(change.second, base()));
    table.applied = table.applied && table.hidden.isEmpty();
    return table;
}

bool Journal::putDown(JournalTable const& table) {
    QString const fresh = directory_ + QStringLiteral("/journal.new");
    QByteArray const bytes = table.encode(base());
    auto const size = static_cast<std::uint32_t>(bytes.size());
    auto file = RawFile::makeUnguarded();
    if (!file->create(fresh, RawFile::Mode::ReadWrite) ||
        file->writeAt(0, bytes.constData(), size) != size || !file->sync() ||
        !renameFile(fresh, directory_ + QStringLiteral("/journal")))
        return false;
    log_ = std::move(file);
    logEnd_ = size;
    sequence_ = table.sequence;
    // Until the name is on the disk either of the two checkpoints may be found.
    if (RawFile::syncDirectory(directory_))
        return true;
    pages_->breakDown();
    return false;
}

bool Journal::finish(JournalTable const& table) {
    for (JournalTable::File const& file : table.files) {
        auto const content = contents_.value(file.name);
        auto const work = [&](RawFile& opened) {
            return GuardedContent::apply(opened, *pages_, file.runs, file.length);
        };
        if (content && content->isOverlaid() && !changed(file.name, work))
            return false;
    }
    for (QString const& name : table.hidden)
        if (exists(name) && !removeFile(name))
            return false;
    return note({Type::Applied, {}, {}, {}});
}

} // namespace Morva
