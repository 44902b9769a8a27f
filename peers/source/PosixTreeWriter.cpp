#include "peers/source/PosixTreeWriter.h"

#include <sys/stat.h>

namespace Replication {

namespace {

constexpr std::uint32_t timeFlags =
    posixAttrAccessTime | posixAttrModificationTime | posixAttrChangeTime;
constexpr std::uint32_t ownFlags = posixAttrMode | posixAttrUid | posixAttrGid;

/// The contents of an open file.
class OpenFile : public ContentTarget {
public:
    OpenFile(OperationLogger& log, std::uint32_t fileId) : log_(log), fileId_(fileId) {}

    std::uint8_t* beginWrite(std::uint64_t offset, std::uint32_t size) override {
        return log_.beginWrite(fileId_, offset, size);
    }
    bool endWrite(std::uint8_t const* data, std::uint32_t count) override {
        return log_.endWrite(data, count);
    }
    bool truncate(std::uint64_t size) override { return log_.truncateOpen(fileId_, size); }

private:
    OperationLogger& log_;
    std::uint32_t fileId_;
};

} // namespace

bool PosixTreeWriter::beginRoot(TreeObject const& root) {
    return log_.setAttr(root.path, {.flags = ownFlags,
                                    .mode = root.status.st_mode,
                                    .uid = root.status.st_uid,
                                    .gid = root.status.st_gid}) &&
           attributes(root);
}

bool PosixTreeWriter::beginDirectory(TreeObject const& directory) {
    auto const& status = directory.status;
    return log_.mkdir(directory.path, status.st_mode, status.st_uid, status.st_gid,
                      FileTimes::of(status)) &&
           (directory.file < 0 || attributes(directory));
}

bool PosixTreeWriter::endDirectory(TreeObject const& directory) {
    return times(directory);
}

bool PosixTreeWriter::file(TreeObject const& file) {
    auto const& status = file.status;
    std::uint32_t fileId = 0;
    return log_.create(file.path, status.st_mode, status.st_uid, status.st_gid, fileId,
                       FileTimes::of(status)) &&
           contents(file, fileId) && log_.close(fileId) && attributes(file) && times(file);
}

bool PosixTreeWriter::contents(TreeObject const& file, std::uint32_t fileId) {
    if (file.status.st_size == 0)
        return true;
    OpenFile target(log_, fileId);
    return reader().contents(file.file, file.status, target) != LogOutcome::SinkFailed;
}

bool PosixTreeWriter::symlink(TreeObject const& link, std::string_view target) {
    return log_.symlink(target, link.path, link.status.st_uid, link.status.st_gid,
                        FileTimes::of(link.status)) &&
           attributes(link) && times(link);
}

bool PosixTreeWriter::special(TreeObject const& object) {
    auto const& status = object.status;
    return log_.mknod(object.path, status.st_mode, status.st_uid, status.st_gid, status.st_rdev,
                      FileTimes::of(status)) &&
           attributes(object) && times(object);
}

bool PosixTreeWriter::link(TreeObject const& object, std::string_view existing) {
    return log_.link(existing, object.path);
}

bool PosixTreeWriter::attributes(TreeObject const& object) {
    auto const log = [&](std::string_view name, Morva::Extent const& value) {
        return log_.setEa(object.path, name, value);
    };
    auto const outcome = object.file < 0 ? reader().attributes(object.directory, object.name, log)
                                         : reader().attributes(object.file, log);
    return outcome != LogOutcome::SinkFailed;
}

bool PosixTreeWriter::times(TreeObject const& object) {
    auto const& status = object.status;
    return log_.setAttr(object.path, {.flags = timeFlags,
                                      .mode = status.st_mode,
                                      .uid = status.st_uid,
                                      .gid = status.st_gid,
                                      .times = FileTimes::of(status)});
}

} // namespace Replication
