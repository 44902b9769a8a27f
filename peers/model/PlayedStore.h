#pragma once

#include "peers/model/Model.h"
#include "peers/morva/Replay.h"
#include "peers/morva/Root.h"
#include "peers/source/LogSink.h"
#include "replication/common/log/LogPool.h"

#include <cstddef>
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

/// One store of a real repository beside a plain tree in memory: what the players of all kinds of
/// sources share. A failed operation throws.
class PlayedStore {
public:
    PlayedStore(PlayedStore const&) = delete;
    PlayedStore& operator=(PlayedStore const&) = delete;

    /// Closes the repository, checks it, and opens it again. The faults; empty when it is clean.
    [[nodiscard]] std::string faults();
    [[nodiscard]] std::map<std::string, int> const& counts() const { return counts_; }

protected:
    static constexpr char const* storeName = "model";

    PlayedStore(QString const& rootPath, std::uint64_t seed);
    virtual ~PlayedStore() = default;

    /// Opens the repository, and a replay if it has its store.
    void open();
    /// Ends the process's work as `morva` would.
    virtual void close();
    /// To be called by the destructors of players, whose `close` it needs.
    void closeQuietly();
    /// What the next snapshot should show.
    [[nodiscard]] virtual ObjectPointer shown() { return clone(tree_); }

    // Operations of all sources.
    void snapshot();
    void retire();
    void dedup();
    void reopen();
    /// The process is gone right behind a checkpoint, and another one comes.
    void kill();
    /// What is wrong with the numbers of open files, as text; empty when all are known.
    [[nodiscard]] std::string unknownNumbers() const;
    /// Works off what waits in the pool's queues.
    void applyPool();

    /// One of a table of operations, by their weights.
    template <class Choice, std::size_t size>
    [[nodiscard]] Choice const& choose(Choice const (&choices)[size]) {
        std::uint64_t total = 0;
        for (Choice const& choice : choices)
            total += static_cast<std::uint64_t>(choice.weight);
        auto at = static_cast<int>(pick(total));
        Choice const* chosen = choices;
        for (; at >= chosen->weight; ++chosen)
            at -= chosen->weight;
        return *chosen;
    }

    [[nodiscard]] Replication::Store& store() { return *root_->store(root_->source(storeName)); }
    [[nodiscard]] std::uint64_t pick(std::uint64_t below) { return random_() % below; }
    [[nodiscard]] QByteArray randomData(std::uint64_t maximum);
    /// In, at and behind a content, often where a tree of blocks gets deeper.
    [[nodiscard]] std::uint64_t randomOffset(Content const& content, bool huge = false);
    void count(char const* what) { ++counts_[what]; }
    static void must(bool done, char const* what);

    QString rootPath_;
    std::mt19937_64 random_;
    std::unique_ptr<Root> root_;
    Output output_;
    std::unique_ptr<Replay> replay_;
    DirectSink sink_;
    std::uint32_t clock_ = 1'700'000'000;
    ObjectPointer tree_;
    std::map<std::uint32_t, ObjectPointer> snapshots_; ///< by instance
    std::map<std::string, int> counts_;
};

} // namespace Morva::Model
