#pragma once

#include "base/files/FileSystem.h"
#include "base/files/RawFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

namespace Morva::Fuzzing {

/// Files in memory in place of the disk's, for targets whose decoder opens a file. While an object
/// lives it is the disk in force; it knows a file by the last part of its name, and any directory
/// is there and holds all of them. A file that grows beyond `limit` meets a full disk, and
/// `failCall` lets one call fail. For one thread.
class MemoryFiles final : public FileSystem {
public:
    static constexpr std::uint64_t limit = 8U << 20;
    using Bytes = std::vector<std::uint8_t>;

    MemoryFiles() { FileSystem::disk(this); }
    ~MemoryFiles() override { FileSystem::disk(nullptr); }

    std::unique_ptr<RawFile> make() override { return std::make_unique<File>(*this); }
    Result<std::optional<Information>> stat(QString const& name) override {
        MORVA_TRY(entered("stat", name));
        auto const found = files_.find(last(name));
        if (found == files_.end())
            return std::optional<Information>();
        return std::optional(Information{Kind::File, found->second->size(), 0, 0});
    }
    Result<std::vector<Entry>> list(QString const& directory) override {
        MORVA_TRY(entered("list", directory));
        std::vector<Entry> entries;
        for (auto const& [name, bytes] : files_)
            entries.push_back({name, Kind::File});
        return entries;
    }
    Status makeDirectory(QString const& path) override { return entered("make directory", path); }
    Status removeDirectory(QString const& path) override {
        return entered("remove directory", path);
    }
    Status rename(QString const& from, QString const& to) override {
        MORVA_TRY(entered("rename", from));
        auto const found = files_.find(last(from));
        if (found == files_.end())
            return Status::fromErrno(ENOENT, "rename", from);
        auto bytes = std::move(found->second);
        files_.erase(found);
        files_[last(to)] = std::move(bytes);
        return {};
    }
    Status remove(QString const& name) override {
        MORVA_TRY(entered("remove", name));
        return files_.erase(last(name)) ? Status() : Status::fromErrno(ENOENT, "remove", name);
    }
    Status syncDirectory(QString const& path) override { return entered("sync", path); }

    /// The nth call from now on fails with EIO, once; 0 is none.
    void failCall(std::uint64_t n) { failing_ = n; }

    void put(QString const& name, std::uint8_t const* data, std::size_t size) {
        files_[last(name)] = std::make_shared<Bytes>(data, data + size);
    }
    /// Empty when there is none.
    [[nodiscard]] Bytes get(QString const& name) const {
        auto const found = files_.find(last(name));
        return found == files_.end() ? Bytes() : *found->second;
    }
    void clear() { files_.clear(); }

private:
    [[nodiscard]] static QString last(QString const& name) { return name.section(u'/', -1); }
    [[nodiscard]] Status entered(char const* operation, QString const& name) {
        if (failing_ == 0 || --failing_ != 0)
            return {};
        return Status::fromErrno(EIO, operation, name);
    }

    class File final : public RawFile {
    public:
        explicit File(MemoryFiles& files) : files_(files) {}
        ~File() override { (void)File::close(); } // can't fail

        Status create(QString const& name, Mode) override {
            MORVA_TRY(entered("create", name));
            bytes_ = files_.files_[last(name)] = std::make_shared<Bytes>();
            return begin(name);
        }
        Status open(QString const& name, Mode) override {
            MORVA_TRY(entered("open", name));
            auto const found = files_.files_.find(last(name));
            if (found == files_.files_.end())
                return failed(ENOENT, "open", name);
            bytes_ = found->second;
            return begin(name);
        }
        Status close() override {
            if (bytes_ && delete_)
                files_.files_.erase(last(name_));
            bytes_.reset();
            return {};
        }
        using RawFile::write;
        Result<std::uint32_t> read(void* buffer, std::uint32_t count) override {
            auto done = readAt(position_, buffer, count);
            if (done)
                position_ += *done;
            return done;
        }
        Status write(void const* buffer, std::uint32_t count) override {
            auto status = writeAt(position_, buffer, count);
            if (status)
                position_ += count;
            return status;
        }
        Status setPosition(std::int64_t offset, Where) override {
            if (offset < 0)
                return failed(EINVAL, "set position of", name_);
            position_ = static_cast<std::uint64_t>(offset);
            return {};
        }
        std::int64_t position() const override { return static_cast<std::int64_t>(position_); }
        Result<std::uint32_t> readAt(std::uint64_t offset, void* buffer,
                                     std::uint32_t count) override {
            MORVA_TRY(entered("read", name_));
            if (!bytes_)
                return failed(EBADF, "read", name_);
            if (offset >= bytes_->size())
                return 0U;
            auto const done = std::min<std::uint64_t>(count, bytes_->size() - offset);
            std::memcpy(buffer, bytes_->data() + offset, done);
            return static_cast<std::uint32_t>(done);
        }
        Status writeAt(std::uint64_t offset, void const* buffer, std::uint32_t count) override {
            if (offset > limit)
                return failed(ENOSPC, "write", name_);
            if (!bytes_ || offset + count > bytes_->size())
                MORVA_TRY(setLength(offset + count));
            else
                MORVA_TRY(entered("write", name_));
            if (count != 0)
                std::memcpy(bytes_->data() + offset, buffer, count);
            return {};
        }
        Status setLength(std::uint64_t bytes) override {
            MORVA_TRY(entered("set length of", name_));
            if (!bytes_ || bytes > limit)
                return failed(bytes_ ? ENOSPC : EBADF, "set length of", name_);
            bytes_->resize(bytes);
            return {};
        }
        Result<std::uint64_t> length() const override {
            return bytes_ ? std::uint64_t{bytes_->size()} : std::uint64_t{0};
        }
        Status sync() override {
            MORVA_TRY(entered("sync", name_));
            return bytes_ ? Status() : failed(EBADF, "sync", name_);
        }
        Result<std::unique_ptr<RawFile>> threadFile(Mode mode) override {
            auto second = std::make_unique<File>(files_);
            MORVA_TRY(second->open(name_, mode));
            return std::unique_ptr<RawFile>(std::move(second));
        }
        bool deleteOnClose() override {
            delete_ = true;
            return true;
        }
        std::uint32_t lastError() const override { return error_; }
        QString const& name() const override { return name_; }
        bool isOpen() const override { return bytes_ != nullptr; }

    private:
        [[nodiscard]] Status begin(QString const& name) {
            name_ = name;
            position_ = 0;
            delete_ = false;
            return {};
        }
        [[nodiscard]] Status entered(char const* operation, QString const& name) {
            auto status = files_.entered(operation, name);
            if (!status)
                error_ = EIO;
            return status;
        }
        [[nodiscard]] Status failed(int error, char const* operation, QString const& name) {
            error_ = static_cast<std::uint32_t>(error);
            return Status::fromErrno(error, operation, name);
        }

        MemoryFiles& files_;
        std::shared_ptr<Bytes> bytes_;
        QString name_;
        std::uint64_t position_ = 0;
        std::uint32_t error_ = 0;
        bool delete_ = false;
    };

    std::map<QString, std::shared_ptr<Bytes>> files_;
    std::uint64_t failing_ = 0;
};

} // namespace Morva::Fuzzing
