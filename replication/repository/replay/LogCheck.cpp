#include "replication/repository/replay/LogCheck.h"

#include "replication/repository/store/DirectoryPage.h"
#include "replication/repository/streams/TreeParameters.h"

#include <sys/stat.h>

#include <algorithm>

namespace Replication {

namespace {

/// What one stream's tree can hold at its greatest depth.
constexpr std::uint64_t maximumLength =
    (std::uint64_t{TreeRecord::streamSize - TreeRecord::entriesAt} / 8 * TreeParameters::blockSize)
    << (TreeParameters::fanOutShift * (TreeParameters::maximumDepth - 1));

/// The limits of the paths of one kind of source, in bytes. Names are parted by "/".
struct PathShape {
    std::size_t maximumPath;
    std::size_t maximumName;
    char const* longPath;
    char const* longName;
};
// PATH_MAX counts the zero at the end.
constexpr PathShape posixPath{4095, 255, "its path is longer than 4095 bytes",
                              "a name in its path is longer than 255 bytes"};
// A byte is never more than one character of UTF-16, which is what a directory counts.
constexpr std::size_t wideName = DirectoryPage::maximumName;
constexpr PathShape mailPath{32767, wideName, "its path is longer than 32767 bytes",
                             "a name in its path is longer than 2033 bytes"};

constexpr char const* tooLarge = "it is larger than a stream can be";
constexpr char const* strangeMode = "its mode has unknown bits";

using Reason = char const*; ///< null: nothing is wrong

Reason nameFault(std::string_view name, PathShape const& shape) {
    if (name == "." || name == "..")
        return "a name in its path is \".\" or \"..\"";
    return name.size() > shape.maximumName ? shape.longName : nullptr;
}

Reason pathFault(std::string_view path, PathShape const& shape) {
    if (path.empty())
        return "its path is empty";
    if (path.size() > shape.maximumPath)
        return shape.longPath;
    for (std::size_t at = 0; at < path.size();) {
        auto const end = std::min(path.find('/', at), path.size());
        if (auto const fault = nameFault(path.substr(at, end - at), shape))
            return fault;
        at = end + 1;
    }
    return nullptr;
}

Reason endFault(std::uint64_t offset, std::uint64_t length) {
    return offset > maximumLength || length > maximumLength - offset ? tooLarge : nullptr;
}

Reason writeFault(LogEntry const& log) {
    return endFault(log.offset(), std::max<std::uint64_t>(log.length(), log.data().size));
}

bool hasUnknownBits(std::uint32_t mode) {
    return (mode & ~(std::uint32_t{S_IFMT} | 07777)) != 0;
}

/// Of what makes a file, or a device, fifo or socket.
Reason modeFault(LogEntry const& log) {
    auto const mode = log.mode();
    if (hasUnknownBits(mode))
        return strangeMode;
    auto const isFile = log.type() == LogType::PosixCreate;
    switch (mode & S_IFMT) {
    case 0:
        return isFile ? nullptr : "its mode has no type";
    case S_IFREG:
        return nullptr;
    case S_IFCHR:
    case S_IFBLK:
    case S_IFIFO:
    case S_IFSOCK:
        return isFile ? "its mode has the type of a device, and it is made as a file" : nullptr;
    default:
        return "its mode has a type that it can't have";
    }
}

Reason attributeFault(LogEntry const& log) {
    constexpr std::size_t maximumAttributeName = 255;
    if (log.eaName().empty())
        return "it has an extended attribute without a name";
    return log.eaName().size() > maximumAttributeName
               ? "it has an extended attribute whose name is longer than 255 bytes"
               : nullptr;
}

Reason targetFault(std::string_view target) {
    if (target.empty())
        return "the target of the link is empty";
    return target.size() > posixPath.maximumPath
               ? "the target of the link is longer than 4095 bytes"
               : nullptr;
}

Reason streamNameFault(std::string_view name) {
    if (name.empty())
        return "it has a stream without a name";
    return name.size() > wideName ? "the name of its stream is longer than 2033 bytes" : nullptr;
}

std::optional<UnsupportedValue> answer(std::string_view path, Reason reason) {
    return reason ? std::optional(UnsupportedValue{path, reason}) : std::nullopt;
}

/// The first of both paths in which something is wrong.
std::optional<UnsupportedValue> ofTwo(LogEntry const& log) {
    if (auto const fault = pathFault(log.to(), posixPath))
        return answer(log.to(), fault);
    return answer(log.from(), pathFault(log.from(), posixPath));
}

/// A POSIX log with a path, and what else may be wrong with it.
std::optional<UnsupportedValue> ofFile(LogEntry const& log, Reason other = nullptr) {
    auto const fault = pathFault(log.file(), posixPath);
    return answer(log.file(), fault ? fault : other);
}

} // namespace

std::optional<UnsupportedValue> unsupportedValue(LogEntry const& log) {
    switch (log.type()) {
    case LogType::Write:
        return answer({}, writeFault(log));
    case LogType::PosixCreate:
    case LogType::PosixMknod:
        return ofFile(log, modeFault(log));
    case LogType::PosixMkdir:
        return ofFile(log, hasUnknownBits(log.mode()) ? strangeMode : nullptr);
    case LogType::PosixOpen:
    case LogType::PosixRmdir:
    case LogType::PosixUnlink:
    case LogType::PosixResync:
        return ofFile(log);
    case LogType::PosixSetEa:
    case LogType::PosixRemoveEa:
        return ofFile(log, attributeFault(log));
    case LogType::PosixSetAttr:
        return ofFile(log, (log.bodyFlags() & posixAttrMode) && hasUnknownBits(log.mode())
                               ? strangeMode
                               : nullptr);
    case LogType::PosixWritePath:
        return ofFile(log, writeFault(log));
    case LogType::PosixTruncate:
        return log.file().empty() ? answer({}, endFault(0, log.size()))
                                  : ofFile(log, endFault(0, log.size()));
    case LogType::PosixRename:
    case LogType::PosixLink:
        return ofTwo(log);
    case LogType::PosixSymlink: {
        auto const fault = pathFault(log.to(), posixPath);
        return answer(log.to(), fault ? fault : targetFault(log.from()));
    }
    case LogType::WinWritePath:
        return answer(log.path().text, writeFault(log));
    case LogType::WinTruncate:
    case LogType::WinSetValidLength:
        return answer(log.path().text, endFault(0, log.size()));
    case LogType::ExchangeCreateObject:
    case LogType::ExchangeDeleteObject:
    case LogType::ExchangeDeleteObjectToo: {
        auto const path = log.text(LogField::ObjectPath);
        return answer(path, pathFault(path, mailPath));
    }
    case LogType::ExchangeCreateStream:
    case LogType::ExchangeWriteStream:
        return answer({}, streamNameFault(log.text(LogField::Stream)));
    default:
        return std::nullopt;
    }
}

} // namespace Replication
