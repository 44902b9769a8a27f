#pragma once

#include "replication/repository/store/FileNode.h"
#include "replication/repository/store/Version.h"

#include <list>
#include <memory>

namespace Morva {
class PagedList;
}

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

    void retiredVersion(Version& version, FileNode::Pointer const& node, bool final);
    void retiredWeakVersion(Version& version, FileNode::Pointer const& node);
    [[nodiscard]] bool previousFileNode(Version& version);

    /// The store's clock, seconds since 1970 at the source; it never goes back.
    [[nodiscard]] std::uint32_t timeStamp() const;
    void timeStamp(std::uint32_t time);
    /// For loading saved state: sets the clock without a run.
    void restoreClock(std::uint32_t time);

    [[nodiscard]] bool retireDue();
    void retireRun(std::uint32_t time);
    void retireIdle();
    void startResync();
    void endResync();
    [[nodiscard]] bool resyncRunning() const;
    void stateSaved();

    [[nodiscard]] bool save(Morva::PagedList& list);
    [[nodiscard]] bool load(std::uint32_t stateVersion, Morva::PagedList& list);
    [[nodiscard]] std::size_t size() const;
    void clear();

private:
    struct Private;
    std::unique_ptr<Private> p_;
};

} // namespace Replication
