#include "base/files/ReadingFiles.h"

#include "base/files/RawFile.h"

#include <QDir>
#include <QFileInfo>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <shared_mutex>

namespace Morva {

namespace {

constexpr std::uint64_t pageSize = 4096;

QString clean(QString const& name) {
    return QDir::cleanPath(name);
}

} // namespace

/// A file: what the disk below has up to `baseEnd_`, under the pages that were written.
class ReadingFiles::Content {
public:
    /// Without a file below: a new, empty one.
    explicit Content(std::unique_ptr<RawFile> base = nullptr, std::uint64_t length = 0)
        : base_(std::move(base)), baseEnd_(length), length_(length) {}

    /// It no longer needs to be found by its name below. Under the lock of the names.
    std::atomic<bool> isKept{false};

    [[nodiscard]] std::uint64_t length() const {
        std::shared_lock const held(lock_);
        return length_;
    }

    [[nodiscard]] Result<std::uint32_t> read(std::uint64_t offset, std::uint8_t* bytes,
                                             std::uint32_t count) const {
        std::shared_lock const held(lock_);
        if (offset >= length_)
            return 0U;
        count = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, length_ - offset));
        for (std::uint32_t done = 0; done < count;) {
            auto const at = offset + done;
            auto const page = pages_.lower_bound(at / pageSize);
            if (page != pages_.end() && page->first == at / pageSize) {
                auto const within = at % pageSize;
                auto const part = std::min<std::uint64_t>(count - done, pageSize - within);
                std::memcpy(bytes + done, page->second.data() + within, part);
                done += static_cast<std::uint32_t>(part);
                continue;
            }
            auto const end = page == pages_.end() ? offset + count : page->first * pageSize;
            auto const part =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(count - done, end - at));
            MORVA_TRY_LET(auto const got, readBase(at, bytes + done, part));
            done += got;
            if (got < part)
                return done; // the file below has become shorter
        }
        return count;
    }

    [[nodiscard]] Status write(std::uint64_t offset, std::uint8_t const* bytes,
                               std::uint32_t count) {
        std::unique_lock const held(lock_);
        for (std::uint32_t done = 0; done < count;) {
            auto const at = offset + done;
            auto const within = at % pageSize;
            auto const part = std::min<std::uint64_t>(count - done, pageSize - within);
            auto const [page, isNew] = pages_.try_emplace(at / pageSize);
            if (isNew && part < pageSize) {
                auto const filled = readBase(at - within, page->second.data(), pageSize);
                if (!filled) {
                    pages_.erase(page);
                    return filled.status();
                }
            }
            std::memcpy(page->second.data() + within, bytes + done, part);
            done += static_cast<std::uint32_t>(part);
        }
        length_ = std::max(length_, offset + count);
        return {};
    }

    void setLength(std::uint64_t length) {
        std::unique_lock const held(lock_);
        if (length < length_) {
            pages_.erase(pages_.lower_bound((length + pageSize - 1) / pageSize), pages_.end());
            if (auto const last = pages_.find(length / pageSize); last != pages_.end())
                std::fill(last->second.begin() + static_cast<std::ptrdiff_t>(length % pageSize),
                          last->second.end(), std::uint8_t{0});
            baseEnd_ = std::min(baseEnd_, length);
        }
        length_ = length;
    }

private:
    /// What stands below is followed by zeros.
    [[nodiscard]] Result<std::uint32_t> readBase(std::uint64_t offset, std::uint8_t* bytes,
                                                 std::uint32_t count) const {
        auto const below = static_cast<std::uint32_t>(
            offset < baseEnd_ ? std::min<std::uint64_t>(count, baseEnd_ - offset) : 0);
        if (below != 0) {
            MORVA_TRY_LET(auto const got, base_->readAt(offset, bytes, below));
            if (got < below)
                return got;
        }
        std::fill(bytes + below, bytes + count, std::uint8_t{0});
        return count;
    }

    mutable std::shared_mutex lock_;
    std::unique_ptr<RawFile> base_;
    std::uint64_t baseEnd_;
    std::uint64_t length_;
    std::map<std::uint64_t, std::array<std::uint8_t, pageSize>> pages_;
};

/// A handle on a content.
class ReadingFiles::File final : public RawFile {
public:
    explicit File(ReadingFiles& files) : files_(files) {}
    ~File() override { (void)File::close(); } // a removal in memory can't fail

    Status create(QString const& name, Mode) override {
        if (isOpen())
            return failed(EBADF, "create", name);
        content_ = files_.create(clean(name));
        return begin(name, true);
    }
    Status open(QString const& name, Mode mode) override {
        if (isOpen())
            return failed(EBADF, "open", name);
        auto found = files_.open(clean(name));
        if (!found) {
            auto const status = found.status();
            error_ = static_cast<std::uint32_t>(status.error());
            return status;
        }
        content_ = *std::move(found);
        return begin(name, mode != Mode::ReadOnly);
    }
    Status close() override {
        Status status;
        if (content_ && deleteOnClose_)
            status = files_.remove(name_);
        content_.reset();
        deleteOnClose_ = false;
        return status;
    }

    Result<std::uint32_t> read(void* buffer, std::uint32_t count) override {
        auto done = readAt(position_, buffer, count);
        if (done)
            position_ += *done;
        return done;
    }
    using RawFile::write;
    Status write(void const* buffer, std::uint32_t count) override {
        auto status = writeAt(position_, buffer, count);
        if (status)
            position_ += count;
        return status;
    }
    Status setPosition(std::int64_t offset, Where from) override {
        if (!isOpen() || offset < 0 || from != Where::Start)
            return failed(isOpen() ? EINVAL : EBADF, "set position of", name_);
        position_ = static_cast<std::uint64_t>(offset);
        return {};
    }
    std::int64_t position() const override { return static_cast<std::int64_t>(position_); }

    Result<std::uint32_t> readAt(std::uint64_t offset, void* buffer, std::uint32_t count) override {
        if (!isOpen())
            return failed(EBADF, "read", name_);
        auto done = content_->read(offset, static_cast<std::uint8_t*>(buffer), count);
        if (!done)
            error_ = static_cast<std::uint32_t>(done.status().error());
        return done;
    }
    Status writeAt(std::uint64_t offset, void const* buffer, std::uint32_t count) override {
        MORVA_TRY(change("write"));
        return content_->write(offset, static_cast<std::uint8_t const*>(buffer), count);
    }
    Status setLength(std::uint64_t bytes) override {
        MORVA_TRY(change("set length of"));
        content_->setLength(bytes);
        return {};
    }
    Result<std::uint64_t> length() const override {
        if (!isOpen())
            return failed(EBADF, "get length of", name_);
        return content_->length();
    }
    Status sync() override { return isOpen() ? Status() : failed(EBADF, "sync", name_); }

    Result<std::unique_ptr<RawFile>> threadFile(Mode mode) override {
        if (!isOpen())
            return failed(EBADF, "open", name_);
        auto other = std::make_unique<File>(files_);
        other->content_ = content_;
        MORVA_TRY(other->begin(name_, mode != Mode::ReadOnly));
        return std::unique_ptr<RawFile>(std::move(other));
    }
    bool deleteOnClose() override {
        deleteOnClose_ = isOpen();
        return deleteOnClose_;
    }
    std::uint32_t lastError() const override { return error_; }
    QString const& name() const override { return name_; }
    bool isOpen() const override { return content_ != nullptr; }

private:
    Status begin(QString const& name, bool writable) {
        name_ = name;
        writable_ = writable;
        position_ = 0;
        error_ = 0;
        return {};
    }
    Status failed(int error, char const* operation, QString const& name) const {
        error_ = static_cast<std::uint32_t>(error);
        return Status::fromErrno(error, operation, name);
    }
    /// Before the content is changed: from then on it is kept.
    Status change(char const* operation) {
        if (!isOpen() || !writable_)
            return failed(EBADF, operation, name_);
        files_.keep(content_);
        return {};
    }

    ReadingFiles& files_;
    ContentPointer content_;
    QString name_;
    std::uint64_t position_ = 0;
    mutable std::atomic<std::uint32_t> error_{0};
    bool writable_ = false;
    bool deleteOnClose_ = false;
};

ReadingFiles::ReadingFiles() : below_(FileSystem::disk()) {
    FileSystem::disk(this);
}

ReadingFiles::~ReadingFiles() {
    FileSystem::disk(&below_);
}

std::unique_ptr<RawFile> ReadingFiles::make() {
    return std::make_unique<File>(*this);
}

Result<ReadingFiles::ContentPointer> ReadingFiles::open(QString const& name) {
    std::lock_guard const held(lock_);
    return find(name);
}

ReadingFiles::ContentPointer ReadingFiles::create(QString const& name) {
    std::lock_guard const held(lock_);
    auto content = std::make_shared<Content>();
    content->isKept = true;
    opened_.remove(name);
    changed_[name] = content;
    return content;
}

Result<ReadingFiles::ContentPointer> ReadingFiles::find(QString const& name) {
    if (auto const known = changed_.constFind(name); known != changed_.constEnd())
        return *known ? Result<ContentPointer>(*known)
                      : Result<ContentPointer>(Status::fromErrno(ENOENT, "open", name));
    if (auto content = opened_.value(name).lock())
        return content;
    auto base = below_.make();
    MORVA_TRY(base->open(name, RawFile::Mode::ReadOnly));
    MORVA_TRY_LET(auto const length, base->length());
    auto content = std::make_shared<Content>(std::move(base), length);
    opened_[name] = content;
    return content;
}

void ReadingFiles::keep(ContentPointer const& content) {
    if (content->isKept.load(std::memory_order_relaxed))
        return;
    std::lock_guard const held(lock_);
    if (content->isKept.exchange(true))
        return;
    for (auto at = opened_.begin(); at != opened_.end(); ++at) {
        if (at.value().lock() != content)
            continue;
        changed_[at.key()] = content;
        opened_.erase(at);
        return;
    }
}

Result<std::optional<FileSystem::Information>> ReadingFiles::stat(QString const& name) {
    std::lock_guard const held(lock_);
    return look(clean(name));
}

Result<std::optional<FileSystem::Information>> ReadingFiles::look(QString const& name) {
    if (auto const directory = directories_.constFind(name); directory != directories_.constEnd())
        return *directory ? std::optional(Information{Kind::Directory, 0, 0, ::geteuid()})
                          : std::nullopt;
    auto const known = changed_.constFind(name);
    if (known == changed_.constEnd())
        return below_.stat(name);
    if (!*known)
        return std::optional<Information>();
    Information information{Kind::File, 0, 0, ::geteuid()};
    MORVA_TRY_LET(auto const real, below_.stat(name));
    if (real && real->kind == Kind::File)
        information = *real;
    information.length = (*known)->length();
    return std::optional(information);
}

Result<std::vector<FileSystem::Entry>> ReadingFiles::list(QString const& directory) {
    std::lock_guard const held(lock_);
    auto const path = clean(directory);
    std::map<QString, Kind> names;
    auto const made = directories_.constFind(path);
    if (made == directories_.constEnd()) {
        MORVA_TRY_LET(auto const real, below_.list(path));
        for (auto const& entry : real)
            names[entry.name] = entry.kind;
    } else if (!*made) {
        return Status::fromErrno(ENOENT, "list", directory);
    }
    auto const enter = [&](QString const& name, bool isThere, Kind kind) {
        QFileInfo const parts(name);
        if (parts.path() != path)
            return;
        if (isThere)
            names[parts.fileName()] = kind;
        else
            names.erase(parts.fileName());
    };
    for (auto at = changed_.constBegin(); at != changed_.constEnd(); ++at)
        enter(at.key(), *at != nullptr, Kind::File);
    for (auto at = directories_.constBegin(); at != directories_.constEnd(); ++at)
        enter(at.key(), *at, Kind::Directory);
    std::vector<Entry> entries;
    for (auto const& [name, kind] : names)
        entries.push_back({name, kind});
    return entries;
}

Status ReadingFiles::makeDirectory(QString const& path) {
    std::lock_guard const held(lock_);
    for (auto name = clean(path);; name = QFileInfo(name).path()) {
        MORVA_TRY_LET(auto const found, look(name));
        if (found)
            return found->kind == Kind::File ? Status::fromErrno(ENOTDIR, "make directory", path)
                                             : Status();
        directories_[name] = true;
    }
}

Status ReadingFiles::removeDirectory(QString const& path) {
    MORVA_TRY_LET(auto const entries, list(path));
    if (!entries.empty())
        return Status::fromErrno(ENOTEMPTY, "remove directory", path);
    std::lock_guard const held(lock_);
    directories_[clean(path)] = false;
    return {};
}

Status ReadingFiles::rename(QString const& from, QString const& to) {
    std::lock_guard const held(lock_);
    MORVA_TRY_LET(auto content, find(clean(from)));
    content->isKept = true;
    opened_.remove(clean(from));
    opened_.remove(clean(to));
    changed_[clean(from)] = nullptr;
    changed_[clean(to)] = std::move(content);
    return {};
}

Status ReadingFiles::remove(QString const& name) {
    std::lock_guard const held(lock_);
    MORVA_TRY_LET(auto const found, look(clean(name)));
    if (!found)
        return Status::fromErrno(ENOENT, "remove", name);
    if (auto const content = opened_.take(clean(name)).lock())
        content->isKept = true; // its handles go on with it
    changed_[clean(name)] = nullptr;
    return {};
}

} // namespace Morva
