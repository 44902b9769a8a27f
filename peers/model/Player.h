#pragma once

#include "peers/model/Model.h"
#include "peers/morva/Replay.h"
#include "peers/morva/Root.h"
#include "peers/source/OperationLogger.h"

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Morva::Model {

/// Applies each log that a logger makes to a replay at once.
class DirectSink : public Replication::LogSink {
public:
    void replay(Replay* replay) { replay_ = replay; }
    [[nodiscard]] std::uint8_t* dataSpace(Replication::LogBuilder const& builder,
                                          std::uint32_t size) override;
    [[nodiscard]] bool put(Replication::LogBuilder& builder) override;
    [[nodiscard]] bool flush() override { return true; }

private:
    Replay* replay_ = nullptr;
    Replication::LogPool pool_;
    std::vector<std::uint8_t> space_;
};

/// Random operations, done on a plain tree in memory and logged into a real repository.
///
/// All work happens below one directory of the source, so that at the end everything can be
/// removed. A failed operation throws.
class Player {
public:
    Player(QString const& rootPath, std::uint64_t seed);
    virtual ~Player();
    Player(Player const&) = delete;
    Player& operator=(Player const&) = delete;

    /// Does that many random operations, some of which are snapshots, retirements, deduplication
    /// and reopening.
    void play(int operations);
    /// Compares the live tree and every living snapshot with the model. The differences found, at
    /// most a few lines; empty when all is the same.
    [[nodiscard]] std::string differences();
    /// Closes the repository, checks it, and opens it again. The faults; empty when it is clean.
    [[nodiscard]] std::string faults();
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

    [[nodiscard]] std::map<std::string, int> const& counts() const { return counts_; }

protected:
    struct OpenFile {
        std::uint32_t fileId;
        ObjectPointer object;
    };

    // For a store that doesn't hold all of the source's tree.
    /// What the live tree and the next snapshot should show of the model.
    [[nodiscard]] virtual ObjectPointer stored() { return tree_; }
    [[nodiscard]] virtual ObjectPointer shown() { return clone(tree_); }
    /// Whether an operation may choose this name.
    [[nodiscard]] virtual bool usable(Name const&) { return true; }
    /// Two names of one object may be given to a rename, which does nothing then.
    [[nodiscard]] virtual bool renamesOntoItself() const { return true; }
    virtual void renamed(QByteArray const& /*from*/, Name const& /*to*/) {}
    virtual void linked(QByteArray const& /*from*/, Name const& /*to*/) {}

    void open();
    void close();
    void closeFiles();
    void applyPool();

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
    void setAttributes();
    void setExtended();
    void removeExtended();
    void outside();
    void snapshot();
    void retire();
    void dedup();
    void reopen();

    [[nodiscard]] std::uint64_t pick(std::uint64_t below) { return random_() % below; }
    [[nodiscard]] QByteArray randomName();
    [[nodiscard]] QByteArray randomData(std::uint64_t maximum);
    [[nodiscard]] std::uint64_t randomOffset(Object const& object);
    [[nodiscard]] QByteArray pathOf(Name const& name) const;
    /// Any existing name of the kind; false when there is none.
    [[nodiscard]] bool anyName(Name& result, std::function<bool(Name const&)> const& fits);
    [[nodiscard]] bool anyFile(Name& result);
    /// A directory and a name in it that isn't taken, or now and then one that is.
    [[nodiscard]] Name newPlace(bool mayExist);
    [[nodiscard]] std::vector<ObjectPointer> allDirectories(std::vector<QByteArray>& paths);
    void enter(Name const& place, ObjectPointer const& object);
    void leave(ObjectPointer const& directory, QByteArray const& name);
    void count(char const* what) { ++counts_[what]; }

    QString rootPath_;
    std::mt19937_64 random_;
    std::unique_ptr<Root> root_;
    Output output_;
    std::unique_ptr<Replay> replay_;
    DirectSink sink_;
    std::uint32_t clock_ = 1'700'000'000;
    std::unique_ptr<Replication::OperationLogger> logger_;
    ObjectPointer tree_;
    std::map<std::uint32_t, ObjectPointer> snapshots_; ///< by instance
    std::vector<OpenFile> open_;
    std::map<std::string, int> counts_;
    std::string poolAtStart_;
    std::string poolWithoutStore_;
    std::uint32_t firstSnapshot_ = 0;
};

} // namespace Morva::Model
