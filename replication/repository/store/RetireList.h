#pragma once

#include "replication/repository/store/FileNode.h"
#include "replication/repository/store/Version.h"

#include <functional>
#include <list>
#include <memory>

namespace Replication {

class Store;

/// Versions that have ended and wait, 5 seconds of the store's clock, to go to the metadata store;
/// a new file of the same name within that time joins the chain of the one before it.
///
/// For the thread that writes the live tree.
class RetireList {
public:
    explicit RetireList(Store& store);
    ~RetireList();

    /// A version has ended. `final`: the node will not change any more, and goes with the event;
    /// otherwise the entry is there only to be joined by `previousFileNode`. In a resynchronisation
    /// and after `stateSaved` a final one is sent at once and any other disappears. Clears
    /// `version`.
    void retiredVersion(Version& version, FileNode::Pointer const& node, bool final);
    /// The version under an old name has ended; the file goes on. `version` stays in use, with its
    /// weak flag set.
    void retiredWeakVersion(Version& version, FileNode::Pointer const& node);
    /// Joins a new version to the chain of the one that has just ended under its name: takes over
    /// that one's previous version and weak flag. False when none waits.
    [[nodiscard]] bool previousFileNode(Version& version);

    /// The store's clock, seconds since 1970 at the source; it never goes back.
    [[nodiscard]] std::uint32_t timeStamp() const;
    /// Moves the clock and sends what has waited long enough. A time of 0, or not above the
    /// clock's, does nothing; nor does one that is more than a day ahead of this machine's clock,
    /// or a single wrong time would stop the store's clock for as long.
    void timeStamp(std::uint32_t time);

    /// Whether a run is due by the machine's clock; if so the list is busy until one of the next
    /// two. `retireRun` takes the source's time; `retireIdle` is for when there is none, and tries
    /// again in five seconds. All three do nothing in a resynchronisation.
    [[nodiscard]] bool retireDue();
    void retireRun(std::uint32_t time);
    void retireIdle();
    void startResync();
    void endResync();
    [[nodiscard]] bool resyncRunning() const;
    /// A stop has begun: nothing is queued from now on, until the saved state is taken up again.
    void stateSaved(bool value);
    /// Every entry, by its expiry. `node` is null when the entry doesn't keep one.
    using Visit = std::function<void(QString const& name, FileNode::Pointer const& node,
                                     std::uint32_t expire, Version const& version)>;
    void forEach(Visit const& visit) const;
    /// Takes up a saved entry, behind those that are there.
    void restore(QString const& name, FileNode::Pointer node, std::uint32_t expire,
                 Version const& version);

    [[nodiscard]] std::size_t size() const;
    /// Drops all entries unsent: they are saved.
    void clear();
    /// Sends everything that waits, whatever the clock says: nothing comes after it.
    void sendAll();

private:
    struct Private;
    std::unique_ptr<Private> p_;
};

} // namespace Replication
