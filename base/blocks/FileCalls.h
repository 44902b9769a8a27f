#pragma once

#include "base/files/RawFile.h"
#include "base/values/Status.h"

#include <cerrno>
#include <cstdint>

/// The calls of `RawFile` with a Status in place of a count or a boolean.
namespace Morva::FileCalls {

inline Status failureOf(RawFile& file, char const* operation, std::uint64_t offset) {
    return Status::fromErrno(static_cast<int>(file.lastError()), operation, file.name(),
                             {Status::Unit::Byte, offset});
}
[[nodiscard]] inline Status readWhole(RawFile& file, std::uint64_t offset, void* buffer,
                                      std::uint32_t count) {
    if (file.readAt(offset, buffer, count) == count) [[likely]]
        return {};
    if (file.length() >= offset + count)
        return failureOf(file, "read", offset);
    return Status::corruption("read", file.name(), QStringLiteral("the file ends before"),
                              {Status::Unit::Byte, offset});
}
[[nodiscard]] inline Result<std::uint32_t> readAt(RawFile& file, std::uint64_t offset, void* buffer,
                                                  std::uint32_t count) {
    std::uint32_t const got = file.readAt(offset, buffer, count);
    if (got != count && file.length() >= offset + count)
        return failureOf(file, "read", offset);
    return got;
}
[[nodiscard]] inline Status writeAt(RawFile& file, std::uint64_t offset, void const* buffer,
                                    std::uint32_t count) {
    return file.writeAt(offset, buffer, count) == count ? Status()
                                                        : failureOf(file, "write", offset);
}
[[nodiscard]] inline Status setLength(RawFile& file, std::uint64_t bytes) {
    return file.setLength(bytes) ? Status() : failureOf(file, "set the length of", bytes);
}
[[nodiscard]] inline Result<std::uint64_t> length(RawFile& file) {
    return file.length();
}
[[nodiscard]] inline Status create(RawFile& file, QString const& name, RawFile::Mode mode) {
    return file.create(name, mode)
               ? Status()
               : Status::fromErrno(static_cast<int>(file.lastError()), "create", name);
}
[[nodiscard]] inline Status open(RawFile& file, QString const& name, RawFile::Mode mode) {
    return file.open(name, mode)
               ? Status()
               : Status::fromErrno(static_cast<int>(file.lastError()), "open", name);
}
[[nodiscard]] inline Status rename(QString const& from, QString const& to) {
    return RawFile::rename(from, to) ? Status() : Status::fromErrno(errno, "rename", from);
}
[[nodiscard]] inline Status sync(RawFile& file) {
    return file.sync() ? Status()
                       : Status::fromErrno(static_cast<int>(file.lastError()), "sync", file.name());
}

} // namespace Morva::FileCalls
