#include "peers/source/TreeLogger.h"

#include "base/trace/Trace.h"
#include "peers/source/PosixTreeWriter.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace Replication {

namespace {

/// Deeper directories than this have their outer ones closed and opened again on the way back.
constexpr std::size_t maximumOpenLevels = 128;
constexpr std::size_t directoryBuffer = 64 * 1024;

class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() { reset(); }
    void reset() {
        if (number_ >= 0)
            ::close(number_);
        number_ = -1;
    }
    [[nodiscard]] explicit operator bool() const { return number_ >= 0; }
    [[nodiscard]] int get() const { return number_; }

private:
    int number_;
};

/// Opens without changing the access time where that is allowed.
Descriptor openAt(int directory, char const* name, int flags) {
    flags |= O_RDONLY | O_CLOEXEC;
    int file = ::openat(directory, name, flags | O_NOATIME);
    if (file < 0 && errno == EPERM)
        file = ::openat(directory, name, flags);
    return Descriptor(file);
}

struct FileIdentity {
    dev_t device;
    ino_t number;
    bool operator==(FileIdentity const&) const = default;
};

FileIdentity identityOf(struct stat const& status) {
    return {status.st_dev, status.st_ino};
}

struct FileIdentityHash {
    std::size_t operator()(FileIdentity const& file) const {
        return std::hash<std::uint64_t>{}(file.number * 0x9E3779B97F4A7C15U + file.device);
    }
};

void add(std::atomic<std::uint64_t>& counter, std::uint64_t count = 1) {
    // One writer: no need for the costlier atomic addition.
    counter.store(counter.load(std::memory_order_relaxed) + count, std::memory_order_relaxed);
}

/// A directory on the way from the root to the object at hand.
struct Level {
    Descriptor directory;
    FileIdentity identity = {};
    struct stat status = {};
    std::size_t pathLength = 0;
    struct Entry {
        std::uint32_t name;
        std::uint8_t type;
    };
    std::string names;
    std::vector<Entry> entries;
    std::size_t next = 0;

    [[nodiscard]] char const* name(Entry const& entry) const { return names.data() + entry.name; }
};

} // namespace

class TreeLogger::Walk {
public:
    explicit Walk(TreeLogger& owner, std::string path)
        : options_(owner.options_),
          writer_(owner.writer_),
          counts_(owner.counts_),
          path_(std::move(path)),
          buffer_(directoryBuffer),
          firstLog_(writer_.nextSequenceNumber()) {
        writer_.report([this](int error, std::string_view what) { problem(error, what); });
    }
    ~Walk() { writer_.report(FileReader::Report()); }
    Walk(Walk const&) = delete;
    Walk& operator=(Walk const&) = delete;

    Result run(std::string const& root, int& error);

private:
    Result walkLevels();
    void visit(Level const& parent, Level::Entry const& entry);
    void object(int directory, char const* name, std::uint8_t type);
    void regularFile(int directory, char const* name);
    void subdirectory(int directory, char const* name);
    void otherObject(int directory, char const* name);
    void symlink(int directory, char const* name, struct stat const& status);

    void pushLevel(Descriptor directory, struct stat const& status);
    void popLevel();
    void readNames(Level& level);
    bool reopenParent(Level const& child, Level& parent);

    [[nodiscard]] TreeObject here(struct stat const& status, int file, int directory,
                                  char const* name) const {
        return {path_, status, file, directory, name};
    }
    [[nodiscard]] bool leftOut(TreeObject const& object);
    [[nodiscard]] bool unchanged(struct stat const& status);
    [[nodiscard]] bool linkedToFirstName(TreeObject const& object);
    void endDirectory(struct stat const& status);
    void fileContents(int directory, char const* name, Descriptor const& file, struct stat status);
    /// An object that can't be had, or that isn't there any more.
    void lost(int error, std::string_view what);
    void problem(int error, std::string_view what);
    void put(bool succeeded) { sinkFailed_ = sinkFailed_ || !succeeded; }
    void updateCounts();

    struct FirstName {
        std::string path;
        nlink_t namesLeft;
    };

    TreeOptions const& options_;
    TreeWriter& writer_;
    TreeCounts& counts_;
    std::string path_;
    std::vector<char> buffer_;
    std::uint64_t firstLog_;
    std::vector<std::unique_ptr<Level>> levels_;
    std::vector<std::unique_ptr<Level>> spareLevels_;
    std::unordered_map<FileIdentity, FirstName, FileIdentityHash> firstNames_;
    std::vector<char> target_;
    bool sinkFailed_ = false;
};

TreeLogger::TreeLogger(TreeOptions options, TreeWriter& writer)
    : options_(std::move(options)), writer_(writer) {
    for (std::string& path : options_.leaveOut)
        path = absolutePath(path);
}

TreeLogger::TreeLogger(TreeOptions options, OperationLogger& logger)
    : options_(std::move(options)),
      posix_(std::make_unique<PosixTreeWriter>(logger)),
      writer_(*posix_) {
    for (std::string& path : options_.leaveOut)
        path = absolutePath(path);
}

TreeLogger::~TreeLogger() = default;

std::string TreeLogger::absolutePath(std::string_view path) {
    std::string whole;
    if (path.empty() || path.front() != '/') {
        char* const current = ::getcwd(nullptr, 0);
        whole = current ? current : "";
        std::free(current);
        whole += '/';
    }
    whole += path;
    std::string result;
    for (std::size_t at = 0; at < whole.size();) {
        std::size_t const end = std::min(whole.find('/', at), whole.size());
        std::string_view const part(whole.data() + at, end - at);
        if (part == "..")
            result.resize(result.empty() ? 0 : result.rfind('/'));
        else if (!part.empty() && part != ".")
            result.append("/").append(part);
        at = end + 1;
    }
    return result.empty() ? "/" : result;
}

TreeLogger::Result TreeLogger::run(std::string const& root) {
    MORVA_METHOD("run");
    return Walk(*this, absolutePath(root)).run(root, rootError_);
}

TreeLogger::Result TreeLogger::Walk::run(std::string const& root, int& error) {
    Descriptor directory = openAt(AT_FDCWD, root.c_str(), O_DIRECTORY);
    struct stat status = {};
    if (directory && ::fstat(directory.get(), &status) == 0) {
        put(writer_.beginRoot(here(status, directory.get(), AT_FDCWD, root.c_str())));
        pushLevel(std::move(directory), status);
    } else if (errno == ENOTDIR &&
               ::fstatat(AT_FDCWD, root.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        object(AT_FDCWD, root.c_str(), DT_UNKNOWN);
    } else {
        error = errno;
        MORVA_TRACE(Always) << "Failed to open" << path_ << Morva::TraceErrorCode{error};
        return Result::NoRoot;
    }
    Result const result = walkLevels();
    updateCounts();
    return result;
}

TreeLogger::Result TreeLogger::Walk::walkLevels() {
    while (!levels_.empty() && !sinkFailed_) {
        if (options_.stop && options_.stop())
            return Result::Stopped;
        Level& level = *levels_.back();
        if (level.next == level.entries.size())
            popLevel();
        else
            visit(level, level.entries[level.next++]);
        updateCounts();
    }
    return sinkFailed_ ? Result::SinkFailed : Result::Done;
}

void TreeLogger::Walk::updateCounts() {
    counts_.bytes.store(writer_.bytes(), std::memory_order_relaxed);
    counts_.logs.store(writer_.nextSequenceNumber() - firstLog_, std::memory_order_relaxed);
}

void TreeLogger::Walk::visit(Level const& parent, Level::Entry const& entry) {
    char const* const name = parent.name(entry);
    path_.resize(parent.pathLength);
    if (path_.back() != '/')
        path_ += '/';
    path_ += name;
    if (path_.size() >= PATH_MAX)
        problem(ENAMETOOLONG, "log");
    else if (std::find(options_.leaveOut.begin(), options_.leaveOut.end(), path_) !=
             options_.leaveOut.end())
        add(counts_.skipped);
    else if (!parent.directory)
        problem(ESTALE, "go back to directory of");
    else
        object(parent.directory.get(), name, entry.type);
}

void TreeLogger::Walk::object(int directory, char const* name, std::uint8_t type) {
    if (type == DT_REG)
        regularFile(directory, name);
    else if (type == DT_DIR)
        subdirectory(directory, name);
    else
        otherObject(directory, name);
}

void TreeLogger::Walk::regularFile(int directory, char const* name) {
    // A fifo that has taken the file's place must not make the open wait.
    Descriptor const file = openAt(directory, name, O_NOFOLLOW | O_NONBLOCK);
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0)
        return lost(errno, "open");
    if (!S_ISREG(status.st_mode))
        return problem(ESTALE, "open");
    TreeObject const object = here(status, file.get(), directory, name);
    if (leftOut(object) || linkedToFirstName(object))
        return;
    add(counts_.files);
    if (!unchanged(status))
        fileContents(directory, name, file, status);
}

void TreeLogger::Walk::fileContents(int directory, char const* name, Descriptor const& file,
                                    struct stat status) {
    for (unsigned attempt = 1; !sinkFailed_; ++attempt) {
        put(writer_.file(here(status, file.get(), directory, name)));
        struct stat now = {};
        if (::fstat(file.get(), &now) != 0 ||
            (now.st_size == status.st_size && now.st_mtim.tv_sec == status.st_mtim.tv_sec &&
             now.st_mtim.tv_nsec == status.st_mtim.tv_nsec))
            return;
        if (attempt >= options_.attempts ||
            static_cast<std::uint64_t>(now.st_size) > TreeOptions::repeatedSize) {
            add(counts_.changed);
            return problem(0, "it changed while it was read");
        }
        status = now;
    }
}

void TreeLogger::Walk::subdirectory(int directory, char const* name) {
    Descriptor child = openAt(directory, name, O_DIRECTORY | O_NOFOLLOW);
    int const openError = errno;
    struct stat status = {};
    if (child ? ::fstat(child.get(), &status) != 0
              : ::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return lost(errno, "open");
    if (!S_ISDIR(status.st_mode))
        return problem(ESTALE, "open");
    TreeObject const object = here(status, child.get(), directory, name);
    if (leftOut(object))
        return;
    add(counts_.directories);
    put(writer_.beginDirectory(object));
    if (sinkFailed_)
        return;
    if (!child) {
        // The directory itself is known; what is in it is not.
        problem(openError, "open");
        return endDirectory(status);
    }
    pushLevel(std::move(child), status);
}

void TreeLogger::Walk::otherObject(int directory, char const* name) {
    struct stat status = {};
    if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return lost(errno, "open");
    if (S_ISREG(status.st_mode))
        return regularFile(directory, name);
    if (S_ISDIR(status.st_mode))
        return subdirectory(directory, name);
    TreeObject const object = here(status, -1, directory, name);
    if (leftOut(object) || linkedToFirstName(object))
        return;
    if (S_ISLNK(status.st_mode))
        return symlink(directory, name, status);
    add(counts_.specials);
    if (!unchanged(status))
        put(writer_.special(object));
}

void TreeLogger::Walk::symlink(int directory, char const* name, struct stat const& status) {
    if (unchanged(status))
        return add(counts_.symlinks);
    if (target_.empty())
        target_.resize(256);
    ssize_t length;
    while ((length = ::readlinkat(directory, name, target_.data(), target_.size())) ==
           static_cast<ssize_t>(target_.size()))
        target_.resize(target_.size() * 2);
    if (length < 0)
        return lost(errno, "read link");
    add(counts_.symlinks);
    put(writer_.symlink(here(status, -1, directory, name),
                        {target_.data(), static_cast<std::size_t>(length)}));
}

bool TreeLogger::Walk::leftOut(TreeObject const& object) {
    if (writer_.takes(object))
        return false;
    add(counts_.skipped);
    return true;
}

bool TreeLogger::Walk::unchanged(struct stat const& status) {
    if (!options_.unchanged || !options_.unchanged(path_, status))
        return false;
    add(counts_.unchanged);
    return true;
}

bool TreeLogger::Walk::linkedToFirstName(TreeObject const& object) {
    struct stat const& status = object.status;
    if (status.st_nlink < 2 || !writer_.hasLinks())
        return false;
    auto const [known, isNew] =
        firstNames_.try_emplace(identityOf(status), FirstName{path_, status.st_nlink - 1});
    if (isNew)
        return false;
    add(counts_.links);
    put(writer_.link(object, known->second.path));
    if (--known->second.namesLeft == 0)
        firstNames_.erase(known);
    return true;
}

void TreeLogger::Walk::endDirectory(struct stat const& status) {
    if (!sinkFailed_)
        put(writer_.endDirectory(here(status, -1, -1, nullptr)));
}

void TreeLogger::Walk::lost(int error, std::string_view what) {
    if (error != ENOENT)
        return problem(error, what);
    add(counts_.vanished);
    MORVA_TRACE(Normal) << "Gone since its directory was read:" << path_;
}

void TreeLogger::Walk::problem(int error, std::string_view what) {
    add(counts_.problems);
    MORVA_TRACE(Normal) << "Failed to" << what << path_ << Morva::TraceErrorCode{error};
    if (options_.problem)
        options_.problem(path_, error, what);
}

void TreeLogger::Walk::pushLevel(Descriptor directory, struct stat const& status) {
    std::unique_ptr<Level> level;
    if (spareLevels_.empty()) {
        level = std::make_unique<Level>();
    } else {
        level = std::move(spareLevels_.back());
        spareLevels_.pop_back();
    }
    level->directory = std::move(directory);
    level->identity = identityOf(status);
    level->status = status;
    level->pathLength = path_.size();
    level->next = 0;
    readNames(*level);
    levels_.push_back(std::move(level));
    if (levels_.size() > maximumOpenLevels)
        levels_[levels_.size() - 1 - maximumOpenLevels]->directory.reset();
}

void TreeLogger::Walk::readNames(Level& level) {
    level.names.clear();
    level.entries.clear();
    for (;;) {
        ssize_t const got = ::getdents64(level.directory.get(), buffer_.data(), buffer_.size());
        if (got < 0 && errno != ENOENT) // it was removed
            problem(errno, "read directory");
        if (got <= 0)
            break;
        for (ssize_t at = 0; at < got;) {
            auto const* const entry = reinterpret_cast<dirent64 const*>(buffer_.data() + at);
            at += entry->d_reclen;
            std::string_view const name(entry->d_name);
            if (name == "." || name == "..")
                continue;
            level.entries.push_back(
                {static_cast<std::uint32_t>(level.names.size()), entry->d_type});
            level.names.append(name).push_back('\0');
        }
    }
    std::sort(level.entries.begin(), level.entries.end(),
              [&level](Level::Entry const& a, Level::Entry const& b) {
                  return std::strcmp(level.name(a), level.name(b)) < 0;
              });
}

void TreeLogger::Walk::popLevel() {
    std::unique_ptr<Level> level = std::move(levels_.back());
    levels_.pop_back();
    path_.resize(level->pathLength);
    endDirectory(level->status);
    if (!levels_.empty() && !levels_.back()->directory && level->directory)
        (void)reopenParent(*level, *levels_.back());
    level->directory.reset();
    spareLevels_.push_back(std::move(level));
}

bool TreeLogger::Walk::reopenParent(Level const& child, Level& parent) {
    Descriptor directory = openAt(child.directory.get(), "..", O_DIRECTORY);
    struct stat status = {};
    // The child may have been moved elsewhere since it was opened.
    if (!directory || ::fstat(directory.get(), &status) != 0 ||
        identityOf(status) != parent.identity)
        return false;
    parent.directory = std::move(directory);
    return true;
}

} // namespace Replication
