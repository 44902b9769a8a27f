#include "peers/source/MailTreeWriter.h"

#include "base/values/PosixText.h"

#include <cerrno>
#include <limits>
#include <sys/stat.h>

namespace Replication {

namespace {

constexpr std::string_view messageStream = "Data";
constexpr std::string_view stateStream = "State";
constexpr std::string_view flagsStream = "Flags";
constexpr std::string_view flagsMark = ":2,";

/// The parts of a message's path: "folder/state/name:2,flags".
struct MessagePath {
    std::string_view folder;
    std::string_view state;
    std::string_view name;
    std::string_view flags;

    explicit MessagePath(std::string_view path) {
        auto const last = path.rfind('/');
        auto const before = path.rfind('/', last - 1);
        folder = path.substr(0, before);
        state = path.substr(before + 1, last - before - 1);
        name = path.substr(last + 1);
        auto const mark = name.find(flagsMark);
        if (mark == std::string_view::npos)
            return;
        flags = name.substr(mark + flagsMark.size());
        name = name.substr(0, mark);
    }
};

std::string_view lastName(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

bool holdsMessages(std::string_view path) {
    return lastName(path) == "cur" || lastName(path) == "new";
}

/// The contents of one message.
class Message : public ContentTarget {
public:
    Message(ExchangeLogger& log, std::string_view sequence) : log_(log), sequence_(sequence) {}

    std::uint8_t* beginWrite(std::uint64_t offset, std::uint32_t size) override {
        return log_.beginWrite(sequence_, messageStream, static_cast<std::uint32_t>(offset), size);
    }
    bool endWrite(std::uint8_t const* data, std::uint32_t count) override {
        return log_.endWrite(data, count);
    }
    /// A last byte, since there is no log of a size alone.
    bool truncate(std::uint64_t size) override {
        static constexpr std::uint8_t zero = 0;
        return size == 0 ||
               log_.writeStream(sequence_, messageStream, static_cast<std::uint32_t>(size - 1),
                                {static_cast<void const*>(&zero), 1});
    }

private:
    ExchangeLogger& log_;
    std::string_view sequence_;
};

} // namespace

bool MailTreeWriter::takes(TreeObject const& object) {
    if (levels_.empty())
        return false;
    auto const& level = levels_.back();
    if (S_ISDIR(object.status.st_mode))
        return !level.holdsMessages && lastName(object.path) != "tmp";
    if (!S_ISREG(object.status.st_mode) || !level.holdsMessages)
        return false;
    if (object.status.st_size > std::numeric_limits<std::uint32_t>::max()) {
        reader().report(EFBIG, "log");
        return false;
    }
    auto const name = MessagePath(object.path).name;
    // The root may itself be a "cur", given alone; its messages are then their own folder's.
    auto& folder = levels_[levels_.size() < 2 ? 0 : levels_.size() - 2];
    auto const before = folder.messages.size();
    folder.messages.insert(
        Morva::decodePosixText({name.data(), static_cast<qsizetype>(name.size())}).toLower());
    if (folder.messages.size() != before)
        return true;
    reader().report(EEXIST, "log a second message of the name");
    return false;
}

bool MailTreeWriter::beginRoot(TreeObject const& root) {
    return beginDirectory(root);
}

bool MailTreeWriter::beginDirectory(TreeObject const& directory) {
    levels_.push_back({holdsMessages(directory.path), {}});
    return true;
}

bool MailTreeWriter::endDirectory(TreeObject const&) {
    levels_.pop_back();
    return true;
}

bool MailTreeWriter::file(TreeObject const& file) {
    MessagePath const path(file.path);
    std::string objectPath(path.folder);
    objectPath.append("/").append(path.name);
    sequence_ = std::to_string(++lastSequence_);
    if (!log_.createObject(sequence_, objectPath) || !log_.createStream(sequence_, messageStream))
        return false;
    Message target(log_, sequence_);
    if (reader().contents(file.file, file.status, target) == LogOutcome::SinkFailed)
        return false;
    return small(stateStream, path.state) &&
           (path.flags.empty() || small(flagsStream, path.flags)) && log_.closeObject(sequence_);
}

bool MailTreeWriter::small(std::string_view stream, std::string_view value) {
    return log_.createStream(sequence_, stream) &&
           log_.writeStream(
               sequence_, stream, 0,
               {static_cast<void const*>(value.data()), static_cast<std::uint32_t>(value.size())});
}

} // namespace Replication
