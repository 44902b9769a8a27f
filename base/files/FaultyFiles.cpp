#include "base/files/FaultyFiles.h"

#include "base/files/PosixFile.h"
#include "base/files/PosixFileSystem.h"
#include "base/files/UnsyncedPages.h"
#include "base/values/PosixText.h"

#include <algorithm>
#include <array>
#include <atomic>
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
/// each call, so that the book of unsynced pages fits the file.
class FaultyFiles::Disk final : public FileSystem, public std::enable_shared_from_this<Disk> {
public:
    static constexpr auto kinds = static_cast<std::size_t>(Call::Any) + 1;

    std::unique_ptr<RawFile> make() override;
    Result<std::optional<Information>> stat(QString const& name) override {
        return entered<Result<std::optional<Information>>>(Call::Stat, "stat", name,
                                                           [&] { return real_.stat(name); });
    }
    Result<std::vector<Entry>> list(QString const& directory) override {
        return entered<Result<std::vector<Entry>>>(Call::List, "list", directory,
                                                   [&] { return real_.list(directory); });
    }
    Status makeDirectory(QString const& path) override {
        return entered<Status>(Call::MakeDirectory, "make directory", path,
                               [&] { return real_.makeDirectory(path); });
    }
    Status removeDirectory(QString const& path) override {
        return entered<Status>(Call::Remove, "remove directory", path,
                               [&] { return real_.removeDirectory(path); });
    }
    Status rename(QString const& from, QString const& to) override {
        return entered<Status>(Call::Rename, "rename", from,
                               [&] { return real_.rename(from, to); });
    }
    Status remove(QString const& name) override;
    Status syncDirectory(QString const& path) override {
        return entered<Status>(Call::SyncDirectory, "sync", path,
                               [&] { return real_.syncDirectory(path); });
    }

    std::mutex lock;
    QByteArray suffix;
    std::array<std::uint64_t, kinds> counts{};
    std::array<Orders, kinds> orders;
    std::uint64_t bytesWritten = 0, faults = 0;
    std::uint64_t shortWriteAt = never;
    std::uint64_t crashAt = never, crashAtAny = never;
    std::optional<std::uint64_t> budget;
    bool powerIsOff = false;
    /// Counts restarts; a file of an earlier life is dead.
    std::uint64_t life = 0;

    void heal() {
        orders = {};
        shortWriteAt = crashAt = crashAtAny = never;
        budget.reset();
    }

    [[nodiscard]] std::uint64_t& countOf(Call kind) {
        return counts[static_cast<std::size_t>(kind)];
    }
    [[nodiscard]] Orders& ordersOf(Call kind) { return orders[static_cast<std::size_t>(kind)]; }

    [[nodiscard]] bool concerns(QByteArray const& path) const { return path.endsWith(suffix); }

    /// Counts a call; the error it has to fail with, or 0.
    [[nodiscard]] int enter(Call kind, QByteArray const& path) {
        if (powerIsOff)
            return EIO;
        if (!concerns(path))
            return 0;
        auto& any = countOf(Call::Any);
        auto& own = countOf(kind);
        if ((kind == Call::Write && own + 1 == crashAt) || any + 1 == crashAtAny) {
            powerIsOff = true;
            return EIO;
        }
        int const ofAny = ordersOf(Call::Any).errorOf(++any);
        int const ofOwn = ordersOf(kind).errorOf(++own);
        int const error = ofOwn ? ofOwn : ofAny;
        faults += error != 0;
        return error;
    }

    [[nodiscard]] bool isShort(QByteArray const& path) {
        bool const result = concerns(path) && countOf(Call::Write) == shortWriteAt;
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
    template <class Outcome, class Work>
    [[nodiscard]] Outcome entered(Call kind, char const* operation, QString const& name,
                                  Work&& work) {
        std::lock_guard const hold(lock);
        if (int const error = enter(kind, encodePosixText(name)))
            return Status::fromErrno(error, operation, name);
        return work();
    }

    struct Book {
        std::shared_ptr<UnsyncedPages> pages;
        std::uint64_t sequence;
    };
    std::map<UnsyncedPages::Identity, Book> books_;
    std::uint64_t opened_ = 0;
    PosixFileSystem real_;
};

namespace {

using Disk = FaultyFiles::Disk;
using Call = FaultyFiles::Call;

class FaultyFile final : public RawFile {
public:
    explicit FaultyFile(std::shared_ptr<Disk> disk)
        : disk_(std::move(disk)), real_(std::make_unique<PosixFile>()) {
        std::lock_guard const hold(disk_->lock);
        life_ = disk_->life;
    }
    ~FaultyFile() override { (void)close(); } // nobody is left to tell

    Status create(QString const& name, Mode mode) override;
    Status open(QString const& name, Mode mode) override;
    Status close() override;
    Result<std::uint32_t> read(void* buffer, std::uint32_t count) override;
    using RawFile::write;
    Status write(void const* buffer, std::uint32_t count) override;
    Status setPosition(std::int64_t offset, Where from) override;
    std::int64_t position() const override { return position_; }
    Result<std::uint32_t> readAt(std::uint64_t offset, void* buffer, std::uint32_t count) override;
    Status writeAt(std::uint64_t offset, void const* buffer, std::uint32_t count) override;
    Status setLength(std::uint64_t bytes) override;
    Result<std::uint64_t> length() const override;
    Status sync() override;
    Result<std::unique_ptr<RawFile>> threadFile(Mode mode) override;
    bool deleteOnClose() override;
    std::uint32_t lastError() const override { return error_ ? error_.load() : real_->lastError(); }
    QString const& name() const override { return real_->name(); }
    bool isOpen() const override { return real_->isOpen(); }

private:
    /// The error with which a call has to fail, or 0.
    [[nodiscard]] int enter(Call kind, QByteArray const& path) const {
        return life_ == disk_->life ? disk_->enter(kind, path) : EIO;
    }
    [[nodiscard]] int enterOpen(Call kind) const { return isOpen() ? enter(kind, path_) : EBADF; }
    Status fail(char const* operation, int error) const {
        error_ = static_cast<std::uint32_t>(error);
        return Status::fromErrno(error, operation, name());
    }
    [[nodiscard]] Status begin(QByteArray path);
    [[nodiscard]] std::uint64_t realLength() const {
        auto const length = real_->length();
        return length ? *length : 0;
    }

    std::shared_ptr<Disk> disk_;
    std::unique_ptr<RawFile> real_;
    std::shared_ptr<UnsyncedPages> pages_;
    QByteArray path_;
    std::uint64_t life_ = 0;
    std::int64_t position_ = 0;
    bool deleteOnClose_ = false;
    mutable std::atomic<std::uint32_t> error_{0};
};

Status FaultyFile::create(QString const& name, Mode mode) {
    std::lock_guard const hold(disk_->lock);
    QByteArray path = encodePosixText(name);
    if (int const error = enter(Call::Write, path))
        return fail("create", error);
    std::uint64_t before = 0;
    if (auto replaced = isOpen() ? nullptr : disk_->pagesOf(path)) {
        before = replaced->length();
        replaced->beforeChange(0, before);
    }
    if (auto status = real_->create(name, mode); !status) {
        error_ = real_->lastError();
        return status;
    }
    disk_->lengthChanged(before, 0);
    return begin(std::move(path));
}

Status FaultyFile::open(QString const& name, Mode mode) {
    std::lock_guard const hold(disk_->lock);
    QByteArray path = encodePosixText(name);
    if (int const error = enter(Call::Open, path))
        return fail("open", error);
    if (auto status = real_->open(name, mode); !status) {
        error_ = real_->lastError();
        return status;
    }
    return begin(std::move(path));
}

Status FaultyFile::begin(QByteArray path) {
    path_ = std::move(path);
    pages_ = disk_->pagesOf(path_);
    error_ = 0;
    position_ = 0;
    return pages_ ? Status() : fail("open", EIO);
}

Status FaultyFile::close() {
    std::lock_guard const hold(disk_->lock);
    if (!isOpen())
        return {};
    Status status;
    if (deleteOnClose_) {
        if (int const error = enter(Call::Remove, path_)) {
            status = fail("remove", error);
        } else {
            disk_->lengthChanged(realLength(), 0);
            real_->deleteOnClose();
        }
    }
    status.update(real_->close());
    deleteOnClose_ = false;
    disk_->forget(pages_);
    return status;
}

Result<std::uint32_t> FaultyFile::read(void* buffer, std::uint32_t count) {
    auto done = readAt(static_cast<std::uint64_t>(position_), buffer, count);
    if (done)
        position_ += *done;
    return done;
}

Status FaultyFile::write(void const* buffer, std::uint32_t count) {
    auto status = writeAt(static_cast<std::uint64_t>(position_), buffer, count);
    if (status)
        position_ += count;
    return status;
}

Status FaultyFile::setPosition(std::int64_t offset, Where from) {
    if (!isOpen() || offset < 0 || from != Where::Start)
        return fail("set position of", isOpen() ? EINVAL : EBADF);
    position_ = offset;
    return {};
}

Result<std::uint32_t> FaultyFile::readAt(std::uint64_t offset, void* buffer, std::uint32_t count) {
    std::lock_guard const hold(disk_->lock);
    if (int const error = enterOpen(Call::Read))
        return fail("read", error);
    return real_->readAt(offset, buffer, count);
}

Status FaultyFile::writeAt(std::uint64_t offset, void const* buffer, std::uint32_t count) {
    std::lock_guard const hold(disk_->lock);
    if (int const error = enterOpen(Call::Write))
        return fail("write", error);
    std::uint32_t allowed = disk_->isShort(path_) ? count / 2 : count;
    std::uint64_t const before = realLength();
    std::uint64_t const end = disk_->reachable(before, offset + allowed);
    bool const isFull = end < offset + allowed;
    if (isFull)
        allowed = end > offset ? static_cast<std::uint32_t>(end - offset) : 0;
    if (allowed != 0) {
        pages_->beforeChange(offset, allowed);
        MORVA_TRY(real_->writeAt(offset, buffer, allowed));
        disk_->lengthChanged(before, realLength());
        disk_->bytesWritten += allowed;
    }
    return allowed == count ? Status() : fail("write", isFull ? ENOSPC : EIO);
}

Status FaultyFile::setLength(std::uint64_t bytes) {
    std::lock_guard const hold(disk_->lock);
    if (int const error = enterOpen(Call::Write))
        return fail("set length of", error);
    std::uint64_t const before = realLength();
    if (disk_->reachable(before, bytes) < bytes)
        return fail("set length of", ENOSPC);
    pages_->beforeChange(bytes, bytes < before ? before - bytes : 0);
    auto status = real_->setLength(bytes);
    disk_->lengthChanged(before, realLength());
    return status;
}

Result<std::uint64_t> FaultyFile::length() const {
    std::lock_guard const hold(disk_->lock);
    if (int const error = enterOpen(Call::Length))
        return fail("get length of", error);
    return real_->length();
}

Status FaultyFile::sync() {
    std::lock_guard const hold(disk_->lock);
    if (int const error = enterOpen(Call::Sync)) {
        // The system marks the pages clean, and forgets them.
        if (pages_ && !disk_->powerIsOff && life_ == disk_->life)
            pages_->dropPages();
        return fail("sync", error);
    }
    pages_->synced();
    return {};
}

Result<std::unique_ptr<RawFile>> FaultyFile::threadFile(Mode mode) {
    auto other = std::make_unique<FaultyFile>(disk_);
    std::lock_guard const hold(disk_->lock);
    if (int const error = enterOpen(Call::Open))
        return fail("open", error);
    MORVA_TRY_LET(other->real_, real_->threadFile(mode));
    other->pages_ = pages_;
    other->path_ = path_;
    return std::unique_ptr<RawFile>(std::move(other));
}

bool FaultyFile::deleteOnClose() {
    deleteOnClose_ = isOpen();
    return deleteOnClose_;
}

} // namespace

std::unique_ptr<RawFile> FaultyFiles::Disk::make() {
    return std::make_unique<FaultyFile>(shared_from_this());
}

Status FaultyFiles::Disk::remove(QString const& name) {
    return entered<Status>(Call::Remove, "remove", name, [&] {
        MORVA_TRY_LET(auto const found, real_.stat(name));
        MORVA_TRY(real_.remove(name));
        if (found)
            lengthChanged(found->length, 0);
        return Status();
    });
}

FaultyFiles::FaultyFiles() : disk_(std::make_shared<Disk>()) {
    FileSystem::disk(disk_.get());
}

FaultyFiles::~FaultyFiles() {
    FileSystem::disk(nullptr);
}

void FaultyFiles::onlyNamesEndingWith(QString const& suffix) {
    std::lock_guard const hold(disk_->lock);
    disk_->suffix = encodePosixText(suffix);
}

void FaultyFiles::fail(Call kind, std::uint64_t n, int error) {
    std::lock_guard const hold(disk_->lock);
    auto& orders = disk_->ordersOf(kind);
    orders.once = disk_->countOf(kind) + n;
    orders.onceError = error;
}

void FaultyFiles::failAfter(Call kind, std::uint64_t n, int error) {
    std::lock_guard const hold(disk_->lock);
    auto& orders = disk_->ordersOf(kind);
    orders.allBehind = disk_->countOf(kind) + n;
    orders.allError = error;
}

void FaultyFiles::shortWrite(std::uint64_t n) {
    std::lock_guard const hold(disk_->lock);
    disk_->shortWriteAt = disk_->countOf(Call::Write) + n;
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
    disk_->crashAt = disk_->countOf(Call::Write) + n;
}

void FaultyFiles::crashAtCall(std::uint64_t n) {
    std::lock_guard const hold(disk_->lock);
    disk_->crashAtAny = disk_->countOf(Call::Any) + n;
}

bool FaultyFiles::crashed() const {
    std::lock_guard const hold(disk_->lock);
    return disk_->powerIsOff;
}

void FaultyFiles::restart(Unsynced unsynced, std::uint64_t seed) {
    std::lock_guard const hold(disk_->lock);
    disk_->settle(unsynced, seed);
}

std::uint64_t FaultyFiles::count(Call kind) const {
    std::lock_guard const hold(disk_->lock);
    return disk_->countOf(kind);
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
