#include "peers/morva/RootLock.h"

#include "peers/morva/Failure.h"
#include "peers/morva/Output.h"

#include <QFile>

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

namespace Morva {

namespace {

constexpr std::chrono::milliseconds lookAgainAfter{50};

QString userName(uid_t user) {
    auto const* const entry = ::getpwuid(user);
    return entry ? QFile::decodeName(entry->pw_name) : QString::number(user);
}

/// The pids of those who hold a lock of this file, as the system lists them: "1: FLOCK  ADVISORY
/// WRITE 4711 08:01:1234 0 EOF". Empty where it doesn't say, as in another pid namespace.
QString holders(int descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0)
        return {};
    char wanted[64];
    std::snprintf(wanted, sizeof wanted, "%02x:%02x:%lu", major(status.st_dev),
                  minor(status.st_dev), static_cast<unsigned long>(status.st_ino));
    std::ifstream locks("/proc/locks");
    QStringList pids;
    for (std::string line; std::getline(locks, line);) {
        std::istringstream words(line);
        std::string number, kind, mode, access, pid, file;
        words >> number >> kind >> mode >> access >> pid >> file;
        if (kind == "FLOCK" && file == wanted && pid != "0" && pid != "-1")
            pids += QString::fromStdString(pid);
    }
    return pids.join(QStringLiteral(", "));
}

CommandFailure inUse(QString const& path, int descriptor) {
    auto const pids = holders(descriptor);
    return {ExitCode::InUse,
            "the repository at " + path + " is in use by another process" +
                (pids.isEmpty() ? QString() : QStringLiteral(" (pid %1)").arg(pids)) +
                "; --wait TIME waits for its end"};
}

/// A root is not there only when the system says so.
CommandFailure notOpened(QString const& path, int error) {
    if (error == ENOENT || error == ENOTDIR)
        return {ExitCode::NoRepository,
                "there is no repository at " + path + " (see 'morva init')"};
    return commandFailure("can't open the repository at " + path,
                          Status::fromErrno(error, "open", RootLock::fileName(path)));
}

} // namespace

QString RootLock::fileName(QString const& path) {
    return path + "/morva.lock";
}

RootLock::RootLock(QString const& path, Mode mode, std::chrono::milliseconds wait) {
    if (path.isEmpty())
        throw CommandFailure(ExitCode::NoRepository,
                             "no repository is named: say where with --root or MORVA_ROOT");
    open(path, mode);
    try {
        if (descriptor_ >= 0)
            await(path, mode, wait);
    } catch (...) {
        ::close(std::exchange(descriptor_, -1));
        throw;
    }
}

RootLock::~RootLock() {
    if (descriptor_ >= 0)
        ::close(descriptor_);
}

void RootLock::open(QString const& path, Mode mode) {
    auto const name = QFile::encodeName(fileName(path));
    struct stat status {};
    if (::lstat(name.constData(), &status) != 0)
        throw notOpened(path, errno);
    if (!S_ISREG(status.st_mode))
        throw CommandFailure(ExitCode::Failed, fileName(path) + " is no regular file");
    if (mode == Mode::Exclusive && status.st_uid != ::geteuid())
        throw CommandFailure(ExitCode::Failed,
                             "the repository at " + path + " belongs to " +
                                 userName(status.st_uid) +
                                 ": a command that changes it must be run by that user");
    // A lock needs no right to write.
    descriptor_ = ::open(name.constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (descriptor_ < 0 && (mode == Mode::Exclusive || errno != EACCES))
        throw notOpened(path, errno);
    // Those that older versions made could be opened by everyone, and locked for good.
    if (descriptor_ >= 0 && mode == Mode::Exclusive && (status.st_mode & 077) != 0)
        (void)::fchmod(descriptor_, 0600); // it serves all the same where the medium can't have it
}

void RootLock::await(QString const& path, Mode mode, std::chrono::milliseconds wait) {
    auto const until = std::chrono::steady_clock::now() + wait;
    while (::flock(descriptor_, (mode == Mode::Shared ? LOCK_SH : LOCK_EX) | LOCK_NB) != 0) {
        auto const error = errno;
        if (error == EINTR)
            continue;
        if (error != EWOULDBLOCK)
            throw commandFailure("can't lock the repository at " + path,
                                 Status::fromErrno(error, "lock", fileName(path)));
        if (std::chrono::steady_clock::now() >= until)
            throw inUse(path, descriptor_);
        Output::checkInterrupt();
        std::this_thread::sleep_for(lookAgainAfter);
    }
}

void RootLock::make(QString const& path) {
    auto const name = QFile::encodeName(fileName(path));
    int const made = ::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (made < 0)
        throw commandFailure("can't make a repository at " + path,
                             Status::fromErrno(errno, "create", fileName(path)));
    ::close(made);
}

} // namespace Morva
