#include "base/files/RawFile.h"

#include "base/files/PosixFile.h"
#include "base/trace/Trace.h"
#include "base/values/PosixText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace Morva {

namespace {

RawFile::Maker& makerInForce() {
    static RawFile::Maker maker;
    return maker;
}

std::atomic<RawFile::Guard*> guardInForce = nullptr;

/// The nearest directory or file above `path` that exists, by its true name; empty on failure.
QByteArray nearestExisting(QByteArray path) {
    while (!path.isEmpty()) {
        char resolved[PATH_MAX];
        if (::realpath(path.constData(), resolved))
            return resolved;
        if (errno != ENOENT && errno != ENOTDIR)
            return {};
        qsizetype const slash = path.lastIndexOf('/');
        if (slash < 0)
            path = ".";
        else if (path == "/")
            return {};
        else
            path.truncate(slash == 0 ? 1 : slash);
    }
    return {};
}

} // namespace

std::unique_ptr<RawFile> RawFile::makeUnguarded() {
    Maker const& maker = makerInForce();
    return maker ? maker() : std::make_unique<PosixFile>();
}

std::unique_ptr<RawFile> RawFile::make() {
    Guard* const guard = guardInForce.load(std::memory_order_acquire);
    return guard ? guard->guarded(makeUnguarded()) : makeUnguarded();
}

void RawFile::guard(Guard* newGuard) {
    guardInForce.store(newGuard, std::memory_order_release);
}

bool RawFile::remove(QString const& name) {
    if (Guard* const guard = guardInForce.load(std::memory_order_acquire))
        return guard->remove(name);
    return ::unlink(encodePosixText(name).constData()) == 0;
}

bool RawFile::rename(QString const& from, QString const& to) {
    if (Guard* const guard = guardInForce.load(std::memory_order_acquire))
        return guard->rename(from, to);
    return std::rename(encodePosixText(from).constData(), encodePosixText(to).constData()) == 0;
}

bool RawFile::syncDirectory(QString const& path) {
    QByteArray const name = encodePosixText(path);
    int const descriptor = ::open(name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int const error = descriptor < 0 || ::fsync(descriptor) != 0 ? errno : 0;
    if (descriptor >= 0)
        ::close(descriptor);
    // Some file systems can't sync a directory, and need not.
    if (error == 0 || (descriptor >= 0 && error == EINVAL))
        return true;
    MORVA_TRACE(Always) << "Failed to sync directory" << path << TraceErrorCode{error};
    return false;
}

void RawFile::maker(Maker newMaker) {
    makerInForce() = std::move(newMaker);
}

QString RawFile::volume(QString const& path) {
    QByteArray here = nearestExisting(encodePosixText(path));
    struct stat status {};
    if (here.isEmpty() || ::stat(here.constData(), &status) != 0)
        return {};
    dev_t const device = status.st_dev;
    while (here != "/") {
        qsizetype const slash = here.lastIndexOf('/');
        QByteArray const parent = here.left(slash == 0 ? 1 : slash);
        if (::stat(parent.constData(), &status) != 0)
            return {};
        if (status.st_dev != device)
            break;
        here = parent;
    }
    return decodePosixText(here);
}

TraceLine& operator<<(TraceLine& line, RawFile::Mode mode) {
    switch (mode) {
    case RawFile::Mode::Create:
        return line << "Create";
    case RawFile::Mode::ReadWrite:
        return line << "ReadWrite";
    case RawFile::Mode::Random:
        return line << "Random";
    case RawFile::Mode::ReadOnly:
        return line << "ReadOnly";
    }
    return line << static_cast<std::uint32_t>(mode);
}

} // namespace Morva
