#pragma once

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
/// lives, every `RawFile::make()` gives one of them, by the last part of its name. A file that
/// grows beyond `limit` meets a full disk. For one thread.
class MemoryFiles {
public:
    static constexpr std::uint64_t limit = 8U << 20;
    using Bytes = std::vector<std::uint8_t>;

    MemoryFiles() {
        RawFile::maker([this] { return std::make_unique<File>(*this); });
    }
    ~MemoryFiles() { RawFile::maker({}); }
    MemoryFiles(MemoryFiles const&) = delete;
    MemoryFiles& operator=(MemoryFiles const&) = delete;

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

    class File final : public RawFile {
    public:
        explicit File(MemoryFiles& files) : files_(files) {}
        ~File() override { File::close(); }

        bool create(QString const& name, Mode) override {
            bytes_ = files_.files_[last(name)] = std::make_shared<Bytes>();
            return begin(name);
        }
        bool open(QString const& name, Mode) override {
            auto const found = files_.files_.find(last(name));
            if (found == files_.files_.end()) {
                error_ = ENOENT;
                return false;
            }
            bytes_ = found->second;
            return begin(name);
        }
        void close() override {
            if (bytes_ && delete_)
                files_.files_.erase(last(name_));
            bytes_.reset();
        }
        using RawFile::write;
        std::uint32_t read(void* buffer, std::uint32_t count) override {
            auto const done = readAt(position_, buffer, count);
            position_ += done;
            return done;
        }
        std::uint32_t write(void const* buffer, std::uint32_t count) override {
            auto const done = writeAt(position_, buffer, count);
            position_ += done;
            return done;
        }
        bool setPosition(std::int64_t offset, Where) override {
            if (offset < 0)
                return false;
            position_ = static_cast<std::uint64_t>(offset);
            return true;
        }
        std::int64_t position() const override { return static_cast<std::int64_t>(position_); }
        std::uint32_t readAt(std::uint64_t offset, void* buffer, std::uint32_t count) override {
            if (!bytes_ || offset >= bytes_->size())
                return 0;
            auto const done = std::min<std::uint64_t>(count, bytes_->size() - offset);
            std::memcpy(buffer, bytes_->data() + offset, done);
            return static_cast<std::uint32_t>(done);
        }
        std::uint32_t writeAt(std::uint64_t offset, void const* buffer,
                              std::uint32_t count) override {
            if (!bytes_ || offset > limit ||
                (offset + count > bytes_->size() && !setLength(offset + count)))
                return 0;
            if (count != 0)
                std::memcpy(bytes_->data() + offset, buffer, count);
            return count;
        }
        bool setLength(std::uint64_t bytes) override {
            if (!bytes_ || bytes > limit) {
                error_ = ENOSPC;
                return false;
            }
            bytes_->resize(bytes);
            return true;
        }
        std::uint64_t length() const override { return bytes_ ? bytes_->size() : 0; }
        bool sync() override { return bytes_ != nullptr; }
        std::unique_ptr<RawFile> threadFile(Mode mode) override {
            auto second = std::make_unique<File>(files_);
            if (!second->open(name_, mode))
                return nullptr;
            return second;
        }
        bool deleteOnClose() override {
            delete_ = true;
            return true;
        }
        std::uint32_t lastError() const override { return error_; }
        QString const& name() const override { return name_; }
        bool isOpen() const override { return bytes_ != nullptr; }

    private:
        bool begin(QString const& name) {
            name_ = name;
            position_ = 0;
            delete_ = false;
            return true;
        }

        MemoryFiles& files_;
        std::shared_ptr<Bytes> bytes_;
        QString name_;
        std::uint64_t position_ = 0;
        std::uint32_t error_ = 0;
        bool delete_ = false;
    };

    std::map<QString, std::shared_ptr<Bytes>> files_;
};

} // namespace Morva::Fuzzing
