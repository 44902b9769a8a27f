#pragma once

#include "peers/model/PlayedStore.h"
#include "peers/source/OperationLogger.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Morva::Model {

/// Random operations, done on a plain tree in memory and logged into a real repository.
///
/// All work happens below one directory of the source, so that at the end everything can be
/// removed. A failed operation throws.
class Player : public PlayedStore {
public:
    Player(QString const& rootPath, std::uint64_t seed);
    ~Player() override;

    /// Does that many random operations, some of which are snapshots, retirements, deduplication
    /// and reopening.
    void play(int operations);
    /// Compares the live tree and every living snapshot with the model. The differences found, at
    /// most a few lines; empty when all is the same.
    [[nodiscard]] std::string differences();
    /// Removes every file and every snapshot that can go.
    void removeEverything();
    /// Erases the store as it stands, with all its snapshots. Nothing but `poolInUse` and `faults`
    /// may be called then.
    void eraseStore();
    /// The pool's figures that tell what is in use, as text.
    [[nodiscard]] std::string poolInUse();
    /// As `poolInUse` for a repository in which nothing was ever done, and for one without a store.
    [[nodiscard]] std::string const& poolAtStart() const { return poolAtStart_; }
    [[nodiscard]] std::string const& poolWithoutStore() const { return poolWithoutStore_; }

protected:
    struct OpenFile {
        std::uint32_t fileId;
        ObjectPointer object;
    };

    // For a store that doesn't hold all of the source's tree.
    /// What the live tree should show of the model; as `shown` for the next snapshot.
    [[nodiscard]] virtual ObjectPointer stored() { return tree_; }
    /// Whether an operation may choose this name.
    [[nodiscard]] virtual bool usable(Name const&) { return true; }
    /// Two names of one object may be given to a rename, which does nothing then.
    [[nodiscard]] virtual bool renamesOntoItself() const { return true; }
    virtual void renamed(QByteArray const& /*from*/, Name const& /*to*/) {}
    virtual void linked(QByteArray const& /*from*/, Name const& /*to*/) {}

    void closeFiles();

    // Operations. Each does nothing when the tree has nothing that fits.
    void create();
    void makeDirectory();
    void makeSpecial();
    void makeSymlink();
    void makeLink();
    void writePath();
    void writeOpen();
    void openFile();
    void closeFile();
    void truncatePath();
    void truncateOpen();
    void rename();
    void unlink();
    void removeDirectory();
    [[nodiscard]] Replication::FileTimes randomTimes();
    void setAttributes();
    void setExtended();
    void removeExtended();
    void outside();

    [[nodiscard]] QByteArray randomName();
    [[nodiscard]] QByteArray pathOf(Name const& name) const;
    /// Any existing name of the kind; false when there is none.
    [[nodiscard]] bool anyName(Name& result, std::function<bool(Name const&)> const& fits);
    [[nodiscard]] bool anyFile(Name& result);
    /// A directory and a name in it that isn't taken, or now and then one that is.
    [[nodiscard]] Name newPlace(bool mayExist);
    [[nodiscard]] std::vector<ObjectPointer> allDirectories(std::vector<QByteArray>& paths);
    void enter(Name const& place, ObjectPointer const& object);
    void leave(ObjectPointer const& directory, QByteArray const& name);

    std::unique_ptr<Replication::OperationLogger> logger_;
    std::vector<OpenFile> open_;
    std::string poolAtStart_;
    std::string poolWithoutStore_;
    std::uint32_t firstSnapshot_ = 0;
};

} // namespace Morva::Model
