#include "base/files/FileSystem.h"

#include "base/files/PosixFileSystem.h"

#include <atomic>

namespace Morva {

namespace {

std::atomic<FileSystem*> diskInForce = nullptr;
std::atomic<FileSystem*> layerInForce = nullptr;

} // namespace

FileSystem& FileSystem::disk() {
    static PosixFileSystem real;
    FileSystem* const other = diskInForce.load(std::memory_order_acquire);
    return other ? *other : real;
}

FileSystem& FileSystem::inForce() {
    FileSystem* const layer = layerInForce.load(std::memory_order_acquire);
    return layer ? *layer : disk();
}

void FileSystem::disk(FileSystem* other) {
    diskInForce.store(other, std::memory_order_release);
}

void FileSystem::layer(FileSystem* other) {
    layerInForce.store(other, std::memory_order_release);
}

Result<bool> FileSystem::exists(QString const& name) {
    MORVA_TRY_LET(auto const found, stat(name));
    return found.has_value();
}

Result<QStringList> FileSystem::names(QString const& directory, Kind kind) {
    auto const entries = list(directory);
    if (entries.code() == Status::Code::NotFound)
        return QStringList();
    if (!entries)
        return entries.status();
    QStringList result;
    for (Entry const& entry : *entries)
        if (entry.kind == kind)
            result.append(entry.name);
    return result;
}

Status FileSystem::removeIfThere(QString const& name) {
    auto status = remove(name);
    return status.is(Status::Code::NotFound) ? Status() : status;
}

} // namespace Morva
