#pragma once

#include "base/files/BufferedFile.h"
#include "base/files/RawFile.h"
#include "base/values/Status.h"

#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <cstdint>
#include <filesystem>

/// Calls of files and of names with a Status in place of a count or a boolean.
namespace Replication::FileCalls {

using Morva::RawFile;
using Morva::Result;
using Morva::Status;

inline Status failure(std::uint32_t error, char const* operation, QString const& name,
                      std::uint64_t offset = 0) {
    return Status::fromErrno(static_cast<int>(error), operation, name,
                             {Status::Unit::Byte, offset});
}
[[nodiscard]] inline Status open(RawFile& file, QString const& name, RawFile::Mode mode) {
    return file.open(name, mode) ? Status() : failure(file.lastError(), "open", name);
}
[[nodiscard]] inline Status create(RawFile& file, QString const& name, RawFile::Mode mode) {
    return file.create(name, mode) ? Status() : failure(file.lastError(), "create", name);
}
/// Bytes read; fewer than asked for at the end of the file alone.
[[nodiscard]] inline Result<std::uint32_t> readAt(RawFile& file, std::uint64_t offset, void* buffer,
                                                  std::uint32_t count) {
    std::uint32_t const got = file.readAt(offset, buffer, count);
    if (got < count && file.length() > offset + got)
        return failure(file.lastError(), "read", file.name(), offset);
    return got;
}
[[nodiscard]] inline Status writeAt(RawFile& file, std::uint64_t offset, void const* buffer,
                                    std::uint32_t count) {
    return file.writeAt(offset, buffer, count) == count
               ? Status()
               : failure(file.lastError(), "write", file.name(), offset);
}
[[nodiscard]] inline Status setLength(RawFile& file, std::uint64_t bytes) {
    return file.setLength(bytes) ? Status()
                                 : failure(file.lastError(), "set the length of", file.name());
}
/// False is certain: there is no such name.
[[nodiscard]] inline Result<bool> exists(QString const& name) {
    std::error_code error;
    auto const status =
        std::filesystem::symlink_status(QFile::encodeName(name).toStdString(), error);
    if (status.type() == std::filesystem::file_type::not_found)
        return false;
    if (error)
        return Status::fromErrno(error.value(), "look for", name);
    return true;
}
/// Removes a file; one that isn't there is a success.
[[nodiscard]] inline Status remove(QString const& name) {
    auto const there = exists(name);
    if (!there.ok())
        return there.status();
    if (!*there || RawFile::remove(name))
        return {};
    return Status::fromErrno(errno, "remove", name);
}
/// The names of the files in a directory, in their order; `NotFound` when it is absent.
[[nodiscard]] inline Result<QStringList> files(QString const& directory) {
    std::error_code error;
    QStringList names;
    std::filesystem::directory_iterator at(QFile::encodeName(directory).toStdString(), error);
    for (; !error && at != std::filesystem::directory_iterator(); at.increment(error))
        if (!at->is_directory())
            names += QFile::decodeName(QByteArray::fromStdString(at->path().filename().string()));
    if (error)
        return Status::fromErrno(error.value(), "list", directory);
    names.sort();
    return names;
}

} // namespace Replication::FileCalls
