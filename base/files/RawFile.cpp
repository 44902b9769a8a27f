#include "base/files/RawFile.h"

#include "base/trace/Trace.h"
#include "base/values/PosixText.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace Morva {

namespace {

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

Status RawFile::readWhole(std::uint64_t offset, void* buffer, std::uint32_t count) {
    MORVA_TRY_LET(auto const done, readAt(offset, buffer, count));
    if (done == count) [[likely]]
        return {};
    return Status::corruption("read", name(), QStringLiteral("the file ends too early"),
                              {Status::Unit::Byte, offset + done});
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
