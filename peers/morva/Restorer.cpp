#include "peers/morva/Restorer.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <utility>

namespace Morva {

using Replication::FileId;
using Replication::FileNode;

namespace {

constexpr std::size_t batchSize = 32;
constexpr std::size_t queueSize = 64;
constexpr auto progressStep = std::chrono::milliseconds(100);

} // namespace

/// A directory that is being restored.
struct Restorer::Directory {
    DirectoryPointer parent; ///< null for the target
    QByteArray name;
    FileId id;
    std::shared_ptr<Descriptor> opened; ///< changed by the thread that ends the last object
    /// What is yet to be made in it, its directories included, and one for the walk.
    std::atomic<std::uint32_t> pending{1};
};

/// An object with several names, under the one that was met first.
struct Restorer::MadeObject {
    DirectoryPointer directory;
    QByteArray name;
    std::weak_ptr<Descriptor> opened;
    bool made = false;
    std::uint32_t names = 1;    ///< met so far
    std::vector<Place> waiting; ///< met while it is being made
};

Restorer::Restorer(FileTree const& reader, RestoreOptions options)
    : reader_(reader), options_(std::move(options)) {}

Restorer::~Restorer() = default;

bool Restorer::ended() {
    if (!stopped_.load(std::memory_order_relaxed) && options_.stop && options_.stop())
        stopped_ = true;
    return stopped_.load(std::memory_order_relaxed) || failed_.load(std::memory_order_relaxed);
}

void Restorer::problem(Directory const* directory, QByteArray const& name, QString const& reason) {
    counts_.problems.fetch_add(1, std::memory_order_relaxed);
    QByteArray path = name;
    for (; directory && directory->parent; directory = directory->parent.get())
        path = path.isEmpty() ? directory->name : directory->name + '/' + path;
    std::lock_guard const guard(problemLock_);
    if (options_.problem)
        options_.problem(path, reason);
}

void Restorer::report(Directory const* directory, QByteArray const& name,
                      WriteResult const& result) {
    if (result.done() || stopped_)
        return;
    // Once the disk is full, each object in work fails with it.
    if (result.fatal && failed_.exchange(true))
        return;
    problem(directory, name, result.reason);
}

Restorer::Result Restorer::run(FileTree::Entry const& what, int target) {
    target_ = target;
    writer_ = std::make_unique<ObjectWriter>(target, options_.existing);
    auto const root = std::make_shared<Directory>();
    root->opened = std::make_shared<Descriptor>(::fcntl(target, F_DUPFD_CLOEXEC, 3));
    root->id = what.isDirectory ? what.id : FileId{};
    if (what.isDirectory)
        closeTarget(*root);
    std::vector<std::thread> workers;
    if (!startWorkers(workers))
        return Result::Failed;
    if (what.isDirectory) {
        walk(root);
    } else if (auto const name = nameBytes(what.name); isFileName(name)) {
        ++root->pending;
        push({Place{root, name, what.id}});
    } else {
        problem(nullptr, name, QStringLiteral("it has no valid name"));
    }
    await();
    for (auto& worker : workers)
        worker.join();
    ahead_.clear();
    queue_.clear();
    if (!ended())
        finishClosed();
    return failed_ ? Result::Failed : stopped_ ? Result::Stopped : Result::Done;
}

void Restorer::closeTarget(Directory const& root) {
    struct stat status {};
    if (::fstat(target_, &status) != 0 || (status.st_mode & 077) == 0)
        return;
    targetMode_ = status.st_mode & 07777;
    if (::fchmod(target_, S_IRWXU) != 0)
        problem(&root, {},
                QStringLiteral("others can read in it meanwhile: ") + std::strerror(errno));
}

bool Restorer::startWorkers(std::vector<std::thread>& workers) {
    auto const wanted = std::max(options_.workers, 1U);
    working_ = wanted; // before the first of them ends
    try {
        while (workers.size() < wanted)
            workers.emplace_back([this] { work(); });
    } catch (std::system_error const& error) {
        std::lock_guard const guard(queueLock_);
        working_ -= wanted - static_cast<unsigned>(workers.size());
        if (workers.empty())
            problem(nullptr, {}, QStringLiteral("no thread could be started: ") + error.what());
    }
    return !workers.empty();
}

// --- the walk

void Restorer::walk(DirectoryPointer const& root) {
    seen_.insert(root->id);
    walkDirectory(root);
    while (!ahead_.empty() && !ended()) {
        auto const place = std::move(ahead_.back());
        ahead_.pop_back();
        if (auto const directory = openDirectory(place)) {
            counts_.directories.fetch_add(1, std::memory_order_relaxed);
            walkDirectory(directory);
        } else {
            release(place.directory);
        }
    }
}

void Restorer::walkDirectory(DirectoryPointer const& directory) {
    auto const node = reader_.node(directory->id);
    auto const firstAhead = static_cast<std::ptrdiff_t>(ahead_.size());
    Batch batch;
    auto const visit = [&](FileTree::Entry const& entry) {
        auto name = nameBytes(entry.name);
        if (!isFileName(name)) {
            problem(directory.get(), name, QStringLiteral("it has no valid name"));
            return true;
        }
        // A damaged directory that holds itself must not be restored for ever.
        if (entry.isDirectory && !seen_.insert(entry.id).second) {
            problem(directory.get(), name, QStringLiteral("it is stored in two places"));
            return true;
        }
        ++directory->pending;
        (entry.isDirectory ? ahead_ : batch).push_back({directory, std::move(name), entry.id});
        if (batch.size() == batchSize)
            push(std::exchange(batch, {}));
        return !ended();
    };
    if (!node || !reader_.forEach(*node, directory->id, visit))
        problem(directory.get(), {}, QStringLiteral("not all of its names can be read"));
    if (!batch.empty())
        push(std::move(batch));
    std::reverse(ahead_.begin() + firstAhead, ahead_.end());
    release(directory);
}

Restorer::DirectoryPointer Restorer::openDirectory(Place const& place) {
    auto const directory = std::make_shared<Directory>();
    directory->parent = place.directory;
    directory->name = place.name;
    directory->id = place.id;
    Descriptor opened;
    auto const result = writer_->makeDirectory(place.directory->opened->get(), place.name, opened);
    report(place.directory.get(), place.name, result);
    if (!opened)
        return nullptr;
    directory->opened = std::make_shared<Descriptor>(std::move(opened));
    return directory;
}

void Restorer::push(Batch&& batch) {
    std::unique_lock guard(queueLock_);
    while (queue_.size() >= queueSize && !ended()) {
        changed_.wait_for(guard, progressStep);
        guard.unlock();
        tellProgress();
        guard.lock();
    }
    queue_.push_back(std::move(batch));
    notEmpty_.notify_one();
}

void Restorer::await() {
    std::unique_lock guard(queueLock_);
    walked_ = true;
    notEmpty_.notify_all();
    while (working_ > 0) {
        changed_.wait_for(guard, progressStep);
        guard.unlock();
        tellProgress();
        guard.lock();
    }
}

void Restorer::tellProgress() {
    if (options_.progress)
        options_.progress(counts_);
}

// --- the workers

bool Restorer::pop(Batch& batch) {
    std::unique_lock guard(queueLock_);
    notEmpty_.wait(guard, [&] { return walked_ || !queue_.empty(); });
    if (queue_.empty())
        return false;
    batch = std::move(queue_.front());
    queue_.pop_front();
    // Half empty is soon enough, and saves a change of threads for each batch.
    if (queue_.size() == queueSize / 2)
        changed_.notify_one();
    return true;
}

void Restorer::work() {
    ObjectWriter::Buffer buffer;
    Batch batch;
    while (pop(batch)) {
        for (auto const& place : batch)
            if (!ended())
                restore(place, buffer);
        batch.clear();
    }
    std::lock_guard const guard(queueLock_);
    --working_;
    changed_.notify_one();
}

void Restorer::restore(Place const& place, ObjectWriter::Buffer& buffer) {
    auto const node = reader_.node(place.id);
    auto const attributes = node && !node->isDirectory() ? FileTree::attributes(*node)
                                                         : std::optional<ObjectAttributes>();
    if (!attributes) {
        problem(place.directory.get(), place.name,
                node ? QStringLiteral("its attributes are damaged")
                     : QStringLiteral("its record can't be read"));
        release(place.directory);
    } else if (attributes->links != 1) {
        restoreLinked(place, *node, *attributes, buffer);
    } else {
        makeObject(place, *node, *attributes, buffer);
        release(place.directory);
    }
}

bool Restorer::makeObject(Place const& place, FileNode& node, ObjectAttributes const& attributes,
                          ObjectWriter::Buffer& buffer) {
    auto const written = [this](std::uint64_t bytes) {
        counts_.bytes.fetch_add(bytes, std::memory_order_relaxed);
        return !ended();
    };
    auto const result = writer_->make(place.directory->opened->get(), place.name, node, attributes,
                                      buffer, written);
    report(place.directory.get(), place.name, result);
    if (result.made)
        countObject(attributes);
    if (result.kept)
        counts_.kept.fetch_add(1, std::memory_order_relaxed);
    return result.made;
}

void Restorer::countObject(ObjectAttributes const& attributes) {
    auto const mode = attributes.security.mode;
    auto& count = S_ISREG(mode)   ? counts_.files
                  : S_ISLNK(mode) ? counts_.symlinks
                                  : counts_.specials;
    count.fetch_add(1, std::memory_order_relaxed);
}

void Restorer::restoreLinked(Place const& place, FileNode& node, ObjectAttributes const& attributes,
                             ObjectWriter::Buffer& buffer) {
    {
        std::unique_lock guard(linksLock_);
        auto const [at, first] = linked_.try_emplace(place.id);
        auto& object = at->second;
        if (!first) {
            ++object.names;
            if (!object.made) {
                object.waiting.push_back(place);
                return;
            }
            auto const made = object;
            if (object.names == attributes.links)
                linked_.erase(at);
            guard.unlock();
            makeLink(place, made, node, attributes, buffer);
            release(place.directory);
            return;
        }
        object.directory = place.directory;
        object.name = place.name;
        object.opened = place.directory->opened;
    }
    auto const made = makeObject(place, node, attributes, buffer);
    std::unique_lock guard(linksLock_);
    auto const at = linked_.find(place.id);
    at->second.made = made;
    auto const waiting = std::exchange(at->second.waiting, {});
    auto const object = at->second;
    if (!made || object.names == attributes.links)
        linked_.erase(at);
    guard.unlock();
    for (auto const& other : waiting) {
        if (made) {
            makeLink(other, object, node, attributes, buffer);
            release(other.directory);
        } else {
            restore(other, buffer);
        }
    }
    release(place.directory);
}

void Restorer::makeLink(Place const& place, MadeObject const& made, FileNode& node,
                        ObjectAttributes const& attributes, ObjectWriter::Buffer& buffer) {
    auto opened = made.opened.lock();
    if (!opened)
        opened = std::make_shared<Descriptor>(openAgain(*made.directory));
    bool impossible = false;
    auto const result = writer_->link(opened->get(), made.name, place.directory->opened->get(),
                                      place.name, impossible);
    counts_.kept.fetch_add(result.kept, std::memory_order_relaxed);
    if (result.made)
        counts_.links.fetch_add(1, std::memory_order_relaxed);
    else if (impossible)
        makeObject(place, node, attributes, buffer);
    else
        report(place.directory.get(), place.name, result);
}

// --- the ends of directories

void Restorer::release(DirectoryPointer directory) {
    while (directory && directory->pending.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        if (!ended() && directory->id)
            finish(*directory);
        directory->opened.reset();
        directory = directory->parent;
    }
}

void Restorer::finish(Directory& directory) {
    auto const node = reader_.node(directory.id);
    auto attributes = node ? FileTree::attributes(*node) : std::optional<ObjectAttributes>();
    if (!attributes) {
        problem(&directory, {}, QStringLiteral("its attributes are damaged"));
        return;
    }
    // Nobody ever told what the target should be.
    if (!directory.parent && !attributes->described) {
        if (targetMode_ && ::fchmod(target_, *targetMode_) != 0)
            problem(&directory, {},
                    QStringLiteral("its mode can't be set: ") + std::strerror(errno));
        return;
    }
    auto const mode = attributes->security.mode;
    if (writer_->closes(mode)) {
        auto copy = std::make_shared<Directory>();
        copy->parent = directory.parent;
        copy->name = directory.name;
        copy->id = directory.id;
        std::lock_guard const guard(closedLock_);
        closed_.push_back(std::move(copy));
        attributes->security.mode |= S_IRWXU;
    }
    report(&directory, {}, writer_->finishDirectory(directory.opened->get(), *node, *attributes));
}

void Restorer::finishClosed() {
    for (auto const& directory : closed_) {
        auto const node = reader_.node(directory->id);
        auto const attributes =
            node ? FileTree::attributes(*node) : std::optional<ObjectAttributes>();
        auto const opened = openAgain(*directory);
        if (!attributes || !opened) {
            problem(directory.get(), {}, QStringLiteral("its mode can't be set"));
            continue;
        }
        report(directory.get(), {}, writer_->finishDirectory(opened.get(), *node, *attributes));
    }
}

Descriptor Restorer::openAgain(Directory const& directory) const {
    std::vector<QByteArray const*> names;
    for (auto const* at = &directory; at->parent; at = at->parent.get())
        names.push_back(&at->name);
    Descriptor opened(::fcntl(target_, F_DUPFD_CLOEXEC, 3));
    for (auto name = names.rbegin(); opened && name != names.rend(); ++name)
        opened = Descriptor(::openat(opened.get(), (*name)->constData(),
                                     O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return opened;
}

} // namespace Morva
