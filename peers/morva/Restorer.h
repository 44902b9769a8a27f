#pragma once

#include "peers/morva/FileTree.h"
#include "peers/morva/ObjectWriter.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Morva {

/// What a restore has done so far; read by any thread.
struct RestoreCounts {
    std::atomic<std::uint64_t> files{0};       ///< regular files
    std::atomic<std::uint64_t> directories{0}; ///< without the target itself
    std::atomic<std::uint64_t> links{0};       ///< further names of objects
    std::atomic<std::uint64_t> symlinks{0};
    std::atomic<std::uint64_t> specials{0}; ///< devices, fifos, sockets
    std::atomic<std::uint64_t> kept{0};     ///< of all these but directories, there before
    std::atomic<std::uint64_t> bytes{0};    ///< of content written, without holes
    std::atomic<std::uint64_t> problems{0};
};

struct RestoreOptions {
    ObjectWriter::Existing existing = ObjectWriter::Existing::Refuse;
    unsigned workers = 2; ///< as many as the system gives of them
    /// Called for each object that isn't restored whole, with its path below the target and what
    /// is wrong; from any thread, one at a time. The rest goes on.
    std::function<void(QByteArray const& path, QString const& reason)> problem;
    /// Asked between two objects, from any thread; true ends the restore.
    std::function<bool()> stop;
    /// Called by the thread that runs the restore, several times a second.
    std::function<void(RestoreCounts const&)> progress;
};

/// Writes a stored tree, or one object of it, into a directory.
///
/// The thread that calls `run` walks the stored directories and makes them; the workers make all
/// other objects, a few names of one directory at a time, and whoever ends the last object of a
/// directory gives it its own attributes. So a directory is open, with access for this user alone,
/// as long as something in it is to be made, and its mode and times come last. The target itself is
/// closed to others from the beginning, also where it was there, and stays so when the restore ends
/// early: nobody reads in an open directory what is to be below a closed one.
///
/// A file with several names is made under the first that a worker meets; the others become links.
class Restorer {
public:
    enum class Result {
        Done,    ///< all that could be restored is there; see `problems`
        Stopped, ///< as asked
        Failed   ///< the file system takes no more; the reason has been told as a problem
    };

    /// The reader must be that of a tree which nobody changes meanwhile, and outlive the object.
    Restorer(FileTree const& reader, RestoreOptions options);
    ~Restorer();
    Restorer(Restorer const&) = delete;
    Restorer& operator=(Restorer const&) = delete;

    /// Restores what is in a directory, and the directory itself, into the directory `target`,
    /// which is open; any other object as an entry of it. Once for an object.
    [[nodiscard]] Result run(FileTree::Entry const& what, int target);

    [[nodiscard]] RestoreCounts const& counts() const { return counts_; }

private:
    struct Directory;
    using DirectoryPointer = std::shared_ptr<Directory>;
    /// A name that is to be made in a directory.
    struct Place {
        DirectoryPointer directory;
        QByteArray name;
        Replication::FileId id;
    };
    /// Names of one directory; each holds the directory open.
    using Batch = std::vector<Place>;
    struct MadeObject;

    void closeTarget(Directory const& root);
    [[nodiscard]] bool startWorkers(std::vector<std::thread>& workers);

    // The walk.
    void walk(DirectoryPointer const& root);
    void walkDirectory(DirectoryPointer const& directory);
    [[nodiscard]] DirectoryPointer openDirectory(Place const& place);
    void push(Batch&& batch);
    void await();
    void tellProgress();

    // The workers.
    void work();
    [[nodiscard]] bool pop(Batch& batch);
    void restore(Place const& place, ObjectWriter::Buffer& buffer);
    /// Makes the object itself; false when it isn't there afterwards.
    bool makeObject(Place const& place, Replication::FileNode& node,
                    ObjectAttributes const& attributes, ObjectWriter::Buffer& buffer);
    void restoreLinked(Place const& place, Replication::FileNode& node,
                       ObjectAttributes const& attributes, ObjectWriter::Buffer& buffer);
    void makeLink(Place const& place, MadeObject const& made, Replication::FileNode& node,
                  ObjectAttributes const& attributes, ObjectWriter::Buffer& buffer);
    void countObject(ObjectAttributes const& attributes);

    // The ends of directories.
    void release(DirectoryPointer directory);
    void finish(Directory& directory);
    void finishClosed();
    [[nodiscard]] Descriptor openAgain(Directory const& directory) const;

    void report(Directory const* directory, QByteArray const& name, WriteResult const& result);
    void problem(Directory const* directory, QByteArray const& name, QString const& reason);
    [[nodiscard]] bool ended();

    FileTree const& reader_;
    RestoreOptions options_;
    RestoreCounts counts_;
    std::unique_ptr<ObjectWriter> writer_;
    int target_ = -1;
    std::optional<mode_t> targetMode_;             ///< before the restore, if it was changed
    std::vector<Place> ahead_;                     ///< directories that the walk has yet to open
    std::unordered_set<Replication::FileId> seen_; ///< directories that it has met
    std::atomic<bool> stopped_{false};
    std::atomic<bool> failed_{false};

    std::mutex queueLock_;
    std::condition_variable notEmpty_;
    std::condition_variable changed_; ///< for the walk: room in the queue, a worker has ended
    std::deque<Batch> queue_;         // guarded by queueLock_
    bool walked_ = false;             // guarded by queueLock_
    unsigned working_ = 0;            // guarded by queueLock_

    std::mutex linksLock_;
    std::unordered_map<Replication::FileId, MadeObject> linked_; // guarded by linksLock_

    std::mutex closedLock_;
    /// Directories whose mode must wait until nothing below them is touched any more.
    std::vector<DirectoryPointer> closed_; // guarded by closedLock_
    std::mutex problemLock_;
};

} // namespace Morva
