#include "peers/source/WindowsTreeWriter.h"

#include "base/values/LittleEndian.h"
#include "base/values/PosixText.h"
#include "peers/source/UnixSecurity.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace Replication {

namespace {

constexpr std::uint64_t diskUnit = 512; // of st_blocks
constexpr std::size_t maximumSecurities = 1024;
constexpr std::string_view userPrefix = "user.";

/// The contents of an open file.
class OpenFile : public ContentTarget {
public:
    OpenFile(WindowsLogger& log, std::uint32_t fileId, WindowsPath const& path)
        : log_(log), fileId_(fileId), path_(path) {}

    std::uint8_t* beginWrite(std::uint64_t offset, std::uint32_t size) override {
        return log_.beginWrite(fileId_, offset, size);
    }
    bool endWrite(std::uint8_t const* data, std::uint32_t count) override {
        return log_.endWrite(data, count);
    }
    bool truncate(std::uint64_t size) override { return log_.truncate(fileId_, path_.log(), size); }

private:
    WindowsLogger& log_;
    std::uint32_t fileId_;
    WindowsPath const& path_;
};

/// When the object was made, or the earliest time that it bears where the file system can't tell.
std::uint32_t creationTime(TreeObject const& object) {
    struct statx extended = {};
    auto const found =
        object.file >= 0
            ? ::statx(object.file, "", AT_EMPTY_PATH, STATX_BTIME, &extended)
            : ::statx(object.directory, object.name, AT_SYMLINK_NOFOLLOW, STATX_BTIME, &extended);
    if (found == 0 && (extended.stx_mask & STATX_BTIME))
        return LogMaker::seconds(extended.stx_btime.tv_sec);
    return LogMaker::seconds(std::min(object.status.st_mtime, object.status.st_ctime));
}

std::string_view lastName(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

QString text(std::string_view bytes) {
    return Morva::decodePosixText({bytes.data(), static_cast<qsizetype>(bytes.size())});
}

std::uint32_t attributesOf(TreeObject const& object) {
    auto const& status = object.status;
    auto const sparse = static_cast<std::uint64_t>(status.st_blocks) * diskUnit <
                        static_cast<std::uint64_t>(status.st_size);
    return (S_ISDIR(status.st_mode) ? std::uint32_t{winFileDirectory} : windowsArchive) |
           (S_ISLNK(status.st_mode) ? windowsReparsePoint : 0U) |
           (S_ISREG(status.st_mode) && sparse ? windowsSparse : 0U) |
           (status.st_mode & S_IWUSR ? 0U : winFileReadOnly) |
           (lastName(object.path).starts_with('.') ? windowsHidden : 0U);
}

/// A symbolic link's reparse buffer, [MS-FSCC] 2.1.2.4, with one name for both uses. Relative: a
/// link from this machine never names a Windows device.
QByteArray reparseData(QString const& target) {
    constexpr std::uint32_t tag = 0xA000000C;
    constexpr std::uint32_t relative = 1;
    constexpr std::uint16_t headSize = 12; // behind the tag, the length and a reserved word
    auto const nameSize = static_cast<std::uint16_t>(target.size() * 2);
    QByteArray result(8 + headSize + nameSize, '\0');
    auto* at = result.data();
    auto const put = [&at](auto value) {
        Morva::storeLittle(at, value);
        at += sizeof value;
    };
    put(tag);
    put(static_cast<std::uint16_t>(headSize + nameSize));
    put(std::uint16_t{0});
    for (int i = 0; i < 2; ++i) {
        put(std::uint16_t{0}); // where the name begins
        put(nameSize);
    }
    put(relative);
    for (auto const unit : target)
        put(static_cast<std::uint16_t>(unit.unicode()));
    return result;
}

} // namespace

bool WindowsTreeWriter::takes(TreeObject const& object) {
    auto const mode = object.status.st_mode;
    if (!S_ISREG(mode) && !S_ISDIR(mode) && !S_ISLNK(mode)) {
        reader().report(ENOTSUP, "log a device, fifo or socket");
        return false;
    }
    if (levels_.empty())
        return true;
    auto& names = levels_.back().names;
    auto const before = names.size();
    names.insert(WindowsPaths::canonical(WindowsPaths::name(text(lastName(object.path)))));
    if (names.size() != before)
        return true;
    reader().report(EEXIST, "log a name that differs only in case");
    return false;
}

bool WindowsTreeWriter::create(TreeObject const& object, WindowsPath const& path,
                               std::uint32_t created, std::uint32_t& fileId) {
    auto const directory = S_ISDIR(object.status.st_mode);
    auto const& secured = security(object.status);
    WindowsCreate values;
    values.path = path.log();
    values.disposition = directory ? WinDisposition::Create : WinDisposition::OverwriteIf;
    values.directory = directory;
    values.attributes = attributesOf(object);
    values.options = directory ? windowsDirectoryFile : windowsNonDirectoryFile;
    if (S_ISLNK(object.status.st_mode))
        values.options |= windowsOpenReparsePoint;
    values.created = created;
    values.security = Morva::Extent(secured.descriptor);
    values.user = Morva::Extent(secured.user);
    return log_.create(values, fileId);
}

WindowsTreeWriter::Security const& WindowsTreeWriter::security(struct stat const& status) {
    if (securities_.size() >= maximumSecurities)
        securities_.clear();
    auto const [known, isNew] = securities_.try_emplace(
        std::make_tuple(status.st_uid, status.st_gid, status.st_mode), Security{});
    if (isNew)
        known->second = {unixSecurity(status.st_uid, status.st_gid, status.st_mode),
                         unixUser(status.st_uid)};
    return known->second;
}

bool WindowsTreeWriter::beginRoot(TreeObject const& root) {
    return beginDirectory(root);
}

bool WindowsTreeWriter::beginDirectory(TreeObject const& directory) {
    auto const path = paths_.of(directory.path);
    Level level;
    level.created = creationTime(directory);
    if (!create(directory, path, level.created, level.fileId))
        return false;
    levels_.push_back(std::move(level));
    return directory.file < 0 || streams(directory, path);
}

bool WindowsTreeWriter::endDirectory(TreeObject const& directory) {
    auto const level = std::move(levels_.back());
    levels_.pop_back();
    return times(directory, level.created, level.fileId) && log_.close(level.fileId);
}

bool WindowsTreeWriter::file(TreeObject const& file) {
    auto const path = paths_.of(file.path);
    auto const created = creationTime(file);
    std::uint32_t fileId = 0;
    if (!create(file, path, created, fileId))
        return false;
    if (file.status.st_size != 0) {
        OpenFile target(log_, fileId, path);
        if (reader().contents(file.file, file.status, target) == LogOutcome::SinkFailed)
            return false;
    }
    return streams(file, path) && times(file, created, fileId) && log_.close(fileId);
}

bool WindowsTreeWriter::streams(TreeObject const& object, WindowsPath const& path) {
    auto const take = [&](std::string_view attribute, Morva::Extent const& value) {
        if (!attribute.starts_with(userPrefix))
            return true;
        auto const name = WindowsPaths::name(text(attribute.substr(userPrefix.size())));
        return stream(path.stream(name), value);
    };
    return reader().attributes(object.file, take) != LogOutcome::SinkFailed;
}

bool WindowsTreeWriter::stream(WindowsPath const& path, Morva::Extent const& value) {
    WindowsCreate values;
    values.path = path.log();
    values.options = windowsNonDirectoryFile;
    std::uint32_t fileId = 0;
    return log_.create(values, fileId) && (value.size == 0 || log_.write(fileId, 0, value)) &&
           log_.close(fileId);
}

bool WindowsTreeWriter::times(TreeObject const& object, std::uint32_t created,
                              std::uint32_t fileId) {
    auto const& status = object.status;
    return log_.setAttr(fileId, {.mode = status.st_mode,
                                 .accessTime = LogMaker::seconds(status.st_atime),
                                 .modificationTime = LogMaker::seconds(status.st_mtime),
                                 .creationTime = created,
                                 .changeTime = LogMaker::seconds(status.st_ctime),
                                 .attributes = attributesOf(object)});
}

bool WindowsTreeWriter::symlink(TreeObject const& link, std::string_view target) {
    auto const created = creationTime(link);
    auto const name = WindowsPaths::target(target);
    auto const data = reparseData(name);
    WindowsPath const to(WindowsPaths::canonical(name), name);
    std::uint32_t fileId = 0;
    return create(link, paths_.of(link.path), created, fileId) &&
           log_.symlink(fileId, to.log(), Morva::Extent(data)) && times(link, created, fileId) &&
           log_.close(fileId);
}

bool WindowsTreeWriter::link(TreeObject const& object, std::string_view existing) {
    auto const from = paths_.of(existing);
    auto const to = paths_.of(object.path);
    WindowsCreate values;
    values.path = from.log();
    values.disposition = WinDisposition::Open;
    values.exists = true;
    values.options = windowsNonDirectoryFile;
    std::uint32_t fileId = 0;
    return log_.create(values, fileId) && log_.link(fileId, to.log()) && log_.close(fileId);
}

} // namespace Replication
