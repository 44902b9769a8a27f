#include "base/files/FaultyFiles.h"

#include "base/files/PosixFile.h"
#include "base/files/UnsyncedPages.h"
#include "base/values/PosixText.h"

#include <algorithm>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <vector>

namespace Morva {

namespace {

constexpr std::uint64_t never = std::numeric_limits<std::uint64_t>::max();

/// Orders about one kind of call, by absolute numbers of calls.
struct Orders {
    std::uint64_t once = never;
    int onceError = EIO;
    std::uint64_t allBehind = never;
    int allError = EIO;

    [[nodiscard]] int errorOf(std::uint64_t call) const {
        if (call == once)
            return onceError;
        return call > allBehind ? allError : 0;
    }
};

} // namespace

/// The disk that all files of one `FaultyFiles` lie on. `lock` guards all of it, and is held over
/// each call on a file, so that the book of unsynced pages fits the file.
class FaultyFiles::Disk {
public:
    std::mutex lock;
    QByteArray suffix;
    std::uint64_t writes = 0, reads = 0, syncs = 0, bytesWritten = 0, faults = 0;
    Orders onWrites, onReads, onSyncs;
    std::uint64_t shortWriteAt = never;
    std::uint64_t crashAt = never;
    std::optional<std::uint64_t> budget;
    bool powerIsOff = false;
    /// Counts restarts; a file of an earlier life is dead.
    std::uint64_t life = 0;

    void heal() {
        onWrites = onReads = onSyncs = {};
        shortWriteAt = crashAt = never;
        budget.reset();
    }

    [[nodiscard]] bool concerns(QByteArray const& path) const { return path.endsWith(suffix); }

    /// Counts a call of one kind; the error it has to fail with, or 0.
    [[nodiscard]] int enter(QByteArray const& path, std::uint64_t& counter, Orders const& orders) {
        if (!concerns(path))
            return 0;
        int const error = orders.errorOf(++counter);
        faults += error != 0;
        return error;
    }

    [[nodiscard]] int enterWrite(QByteArray const& path) {
        if (concerns(path) && writes + 1 == crashAt) {
            powerIsOff = true;
            return EIO;
        }
        return enter(path, writes, onWrites);
    }

    [[nodiscard]] bool isShort(QByteArray const& path) {
        bool const result = concerns(path) && writes == shortWriteAt;
        faults += result;
        return result;
    }

    /// How far beyond `length` a file may now be made, at most `wanted`.
    [[nodiscard]] std::uint64_t reachable(std::uint64_t length, std::uint64_t wanted) {
        if (!budget || wanted <= length || wanted - length <= *budget)
            return wanted;
        ++faults;
        return length + *budget;
    }

    void lengthChanged(std::uint64_t before, std::uint64_t after) {
        if (budget)
            *budget = after > before ? *budget - std::min(*budget, after - before)
                                     : *budget + (before - after);
    }

    std::shared_ptr<UnsyncedPages> pagesOf(QByteArray const& path) {
        auto pages = UnsyncedPages::open(path);
        if (!pages)
            return nullptr;
        return books_.try_emplace(pages->identity(), Book{pages, opened_++}).first->second.pages;
    }

    void forget(std::shared_ptr<UnsyncedPages>& pages) {
        if (!pages)
            return;
        UnsyncedPages::Identity const identity = pages->identity();
        bool const isSettled = pages->isClean() || pages->isRemoved();
        pages.reset();
        auto const place = books_.find(identity);
        if (isSettled && place != books_.end() && place->second.pages.use_count() == 1)
            books_.erase(place);
    }

    void settle(Unsynced unsynced, std::uint64_t seed) {
        // In the order of opening, so that a seed means the same in each run.
        std::map<std::uint64_t, std::shared_ptr<UnsyncedPages>> ordered;
        for (auto const& [identity, book] : books_)
            ordered.emplace(book.sequence, book.pages);
        std::mt19937_64 random(seed);
        for (auto const& [sequence, pages] : ordered) {
            if (unsynced == Unsynced::Lost)
                pages->lose();
            else if (unsynced == Unsynced::Random)
                pages->loseSome(random);
            else
                pages->synced();
        }
        books_.clear();
        powerIsOff = false;
        ++life;
        heal();
    }

private:
    struct Book {
        std::shared_ptr<UnsyncedPages> pages;
        std::uint64_t sequence;
    };
    std::map<UnsyncedPages::Identity, Book> books_;
    std::uint64_t opened_ = 0;
};

namespace {

using Disk = FaultyFiles::Disk;

class FaultyFile final : public RawFile {
public:
    explicit FaultyFile(std::shared_ptr<Disk> disk)
        : disk_(std::move(disk)), real_(std::make_unique<PosixFile>()) {
        std::lock_guard const hold(disk_->lock);
        life_ = disk_->life;
    }
    ~FaultyFile() override { close(); }

    bool create(QString const& name, Mode mode) override;
    bool open(QString const& name, Mode mode) override;
    void close() override;
    std::uint32_t read(void* buffer, std::uint32_t count) override;
    using RawFile::write;
    std::uint32_t write(void const* buffer, std::uint32_t count) override;
    bool setPosition(std::int64_t offset, Where from) override;
    std::int64_t position() const override { return position_; }
    std::uint32_t readAt(std::uint64_t offset, void* buffer, std::uint32_t count) override;
    std::uint32_t writeAt(std::uint64_t offset, void const* buffer, std::uint32_t count) override;
    bool setLength(std::uint64_t bytes) override;
    std::uint64_t length() const override;
    bool sync() override;
    std::unique_ptr<RawFile> threadFile(Mode mode) override;
    bool deleteOnClose() override;
    std::uint32_t lastError() const override { return error_ ? error_.load() : real_->lastError(); }
    QString const& name() const override { return real_->name(); }
    bool isOpen() const override { return real_->isOpen(); }

private:
    [[nodiscard]] bool isDead() const { return disk_->powerIsOff || life_ != disk_->life; }
    bool fail(int error) {
        error_ = static_cast<std::uint32_t>(error);
        return false;
    }

    std::shared_ptr<Disk> disk_;
    std::unique_ptr<RawFile> real_;
    std::shared_ptr<UnsyncedPages> pages_;
    QByteArray path_;
    std::uint64_t life_ = 0;
    std::int64_t position_ = 0;
    bool deleteOnClose_ = false;
    std::atomic<std::uint32_t> error_{0};
};

bool FaultyFile::create(QString const& name, Mode mode) {
    std::lock_guard const hold(disk_->lock);
    QByteArray const path = encodePosixText(name);
    if (isDead())
        return fail(EIO);
    if (int const error = disk_->enterWrite(path))
        return fail(error);
    std::uint64_t before = 0;
    if (auto replaced = isOpen() ? nullptr : disk_->pagesOf(path)) {
        before = replaced->length();
        replaced->beforeChange(0, before);
    }
    if (!real_->create(name, mode))
        return fail(static_cast<int>(real_->lastError()));
    disk_->lengthChanged(before, 0);
    path_ = path;
    pages_ = disk_->pagesOf(path);
    error_ = 0;
    position_ = 0;
    return pages_ != nullptr;
}

bool FaultyFile::open(QString const& name, Mode mode) {
    std::lock_guard const hold(disk_->lock);
    if (isDead())
        return fail(EIO);
    if (!real_->open(name, mode))
        return fail(static_cast<int>(real_->lastError()));
    path_ = encodePosixText(name);
    pages_ = disk_->pagesOf(path_);
    error_ = 0;
    position_ = 0;
    return pages_ != nullptr;
}

void FaultyFile::close() {
    std::lock_guard const hold(disk_->lock);
    if (!isOpen())
        return;
    if (deleteOnClose_ && !isDead()) {
        disk_->lengthChanged(real_->length(), 0);
        real_->deleteOnClose();
    }
    real_->close();
    deleteOnClose_ = false;
    disk_->forget(pages_);
}

std::uint32_t FaultyFile::read(void* buffer, std::uint32_t count) {
    std::uint32_t const done = readAt(static_cast<std::uint64_t>(position_), buffer, count);
    position_ += done;
    return done;
}

std::uint32_t FaultyFile::write(void const* buffer, std::uint32_t count) {
    std::uint32_t const done = writeAt(static_cast<std::uint64_t>(position_), buffer, count);
    position_ += done;
    return done;
}

bool FaultyFile::setPosition(std::int64_t offset, Where from) {
    if (!isOpen() || offset < 0 || from != Where::Start)
        return fail(isOpen() ? EINVAL : EBADF);
    position_ = offset;
    return true;
}

std::uint32_t FaultyFile::readAt(std::uint64_t offset, void* buffer, std::uint32_t count) {
    std::lock_guard const hold(disk_->lock);
    int const error = isDead() ? EIO : disk_->enter(path_, disk_->reads, disk_->onReads);
    if (error) {
        fail(error);
        return 0;
    }
    return real_->readAt(offset, buffer, count);
}

std::uint32_t FaultyFile::writeAt(std::uint64_t offset, void const* buffer, std::uint32_t count) {
    std::lock_guard const hold(disk_->lock);
    int const error = isDead() || !isOpen() ? EIO : disk_->enterWrite(path_);
    if (error) {
        fail(error);
        return 0;
    }
    std::uint32_t allowed = disk_->isShort(path_) ? count / 2 : count;
    std::uint64_t const before = real_->length();
    std::uint64_t const end = disk_->reachable(before, offset + allowed);
    bool const isFull = end < offset + allowed;
    if (isFull)
        allowed = end > offset ? static_cast<std::uint32_t>(end - offset) : 0;
    if (allowed < count)
        fail(isFull ? ENOSPC : EIO);
    if (allowed == 0)
        return 0;
    pages_->beforeChange(offset, allowed);
    std::uint32_t const done = real_->writeAt(offset, buffer, allowed);
    disk_->lengthChanged(before, real_->length());
    disk_->bytesWritten += done;
    return done;
}

bool FaultyFile::setLength(std::uint64_t bytes) {
    std::lock_guard const hold(disk_->lock);
    int const error = isDead() || !isOpen() ? EIO : disk_->enterWrite(path_);
    if (error)
        return fail(error);
    std::uint64_t const before = real_->length();
    if (disk_->reachable(before, bytes) < bytes)
        return fail(ENOSPC);
    pages_->beforeChange(bytes, bytes < before ? before - bytes : 0);
    bool const done = real_->setLength(bytes);
    disk_->lengthChanged(before, real_->length());
    return done;
}

std::uint64_t FaultyFile::length() const {
    std::lock_guard const hold(disk_->lock);
    return isDead() ? 0 : real_->length();
}

bool FaultyFile::sync() {
    std::lock_guard const hold(disk_->lock);
    int const error =
        isDead() || !isOpen() ? EIO : disk_->enter(path_, disk_->syncs, disk_->onSyncs);
    if (error)
        return fail(error);
    pages_->synced();
    return true;
}

std::unique_ptr<RawFile> FaultyFile::threadFile(Mode mode) {
    auto other = std::make_unique<FaultyFile>(disk_);
    std::lock_guard const hold(disk_->lock);
    auto real = isDead() ? nullptr : real_->threadFile(mode);
    if (!real) {
        fail(EIO);
        return nullptr;
    }
    other->real_ = std::move(real);
    other->pages_ = pages_;
    other->path_ = path_;
    return other;
}

bool FaultyFile::deleteOnClose() {
    deleteOnClose_ = isOpen();
    return deleteOnClose_;
}

} // namespace

FaultyFiles::FaultyFiles() : disk_(std::make_shared<Disk>()) {
    RawFile::maker([disk = disk_] { return std::make_unique<FaultyFile>(disk); });
}

FaultyFiles::~FaultyFiles() {
    RawFile::maker({});
}

void FaultyFiles::onlyNamesEndingWith(QString const& suffix) {
    std::lock_guard const hold(disk_->lock);
    disk_->suffix = encodePosixText(suffix);
}

void FaultyFiles::failWrite(std::uint64_t n, int error) {
    std::lock_guard const hold(disk_->lock);
    disk_->onWrites.once = disk_->writes + n;
    disk_->onWrites.onceError = error;
}

void FaultyFiles::failWritesAfter(std::uint64_t n, int error) {
    std::lock_guard const hold(disk_->lock);
    disk_->onWrites.allBehind = disk_->writes + n;
    disk_->onWrites.allError = error;
}

void FaultyFiles::shortWrite(std::uint64_t n) {
    std::lock_guard const hold(disk_->lock);
    disk_->shortWriteAt = disk_->writes + n;
}

void FaultyFiles::failReadsAfter(std::uint64_t n, int error) {
    std::lock_guard const hold(disk_->lock);
    disk_->onReads.allBehind = disk_->reads + n;
    disk_->onReads.allError = error;
}

void FaultyFiles::failSyncsAfter(std::uint64_t n, int error) {
    std::lock_guard const hold(disk_->lock);
    disk_->onSyncs.allBehind = disk_->syncs + n;
    disk_->onSyncs.allError = error;
}

void FaultyFiles::diskBudget(std::uint64_t bytes) {
    std::lock_guard const hold(disk_->lock);
    disk_->budget = bytes;
}

void FaultyFiles::heal() {
    std::lock_guard const hold(disk_->lock);
    disk_->heal();
}

void FaultyFiles::crash() {
    std::lock_guard const hold(disk_->lock);
    disk_->powerIsOff = true;
}

void FaultyFiles::crashAtWrite(std::uint64_t n) {
    std::lock_guard const hold(disk_->lock);
    disk_->crashAt = disk_->writes + n;
}

bool FaultyFiles::crashed() const {
    std::lock_guard const hold(disk_->lock);
    return disk_->powerIsOff;
}

void FaultyFiles::restart(Unsynced unsynced, std::uint64_t seed) {
    std::lock_guard const hold(disk_->lock);
    disk_->settle(unsynced, seed);
}

std::uint64_t FaultyFiles::writes() const {
    std::lock_guard const hold(disk_->lock);
    return disk_->writes;
}

std::uint64_t FaultyFiles::reads() const {
    std::lock_guard const hold(disk_->lock);
    return disk_->reads;
}

std::uint64_t FaultyFiles::syncs() const {
    std::lock_guard const hold(disk_->lock);
    return disk_->syncs;
}

std::uint64_t FaultyFiles::bytesWritten() const {
    std::lock_guard const hold(disk_->lock);
    return disk_->bytesWritten;
}

std::uint64_t FaultyFiles::faults() const {
    std::lock_guard const hold(disk_->lock);
    return disk_->faults;
}

} // namespace Morva
