#include "peers/model/PlayedStore.h"

#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"

#include <stdexcept>

namespace Morva::Model {

using Replication::Instance;
using Replication::LogBuilder;

std::uint8_t* DirectSink::dataSpace(LogBuilder const&, std::uint32_t size) {
    space_.resize(size);
    return space_.data();
}

bool DirectSink::put(LogBuilder& builder) {
    auto const log = pool_.acquire();
    if (!log->build(builder))
        return false;
    // A log that brings what no store can hold is taken, and nothing of it is applied.
    auto const refused = [this] {
        return replay_->counts().failed - replay_->counts().unsupported;
    };
    auto const before = refused();
    replay_->apply(log);
    return refused() == before;
}

PlayedStore::PlayedStore(QString const& rootPath, std::uint64_t seed)
    : rootPath_(rootPath), random_(seed), tree_(std::make_shared<Object>()) {
    Root::init(rootPath_);
    tree_->kind = Kind::Directory;
    root_ = std::make_unique<Root>(rootPath_);
}

void PlayedStore::must(bool done, char const* what) {
    if (!done)
        throw std::runtime_error(std::string("failed: ") + what);
}

void PlayedStore::open() {
    if (!root_)
        root_ = std::make_unique<Root>(rootPath_);
    if (root_->sources().isEmpty())
        return;
    replay_ = std::make_unique<Replay>(*root_, root_->source(storeName), output_);
    sink_.replay(replay_.get());
}

void PlayedStore::close() {
    if (replay_)
        replay_->end();
    replay_.reset();
    if (root_)
        root_->finish();
    root_.reset();
}

void PlayedStore::closeQuietly() {
    try {
        close();
    } catch (std::exception const&) {
        // The test that matters has failed before.
    }
}

std::string PlayedStore::faults() {
    close();
    auto result = faultsOnDisk();
    open();
    return result;
}

void PlayedStore::snapshot() {
    auto& snapshots = store().snapshots();
    must(snapshots.userSnapshot(0, clock_, QStringLiteral("model")).ok(), "snapshot");
    snapshots_[store().currentInstance().value] = shown();
    count("snapshot");
}

void PlayedStore::retire() {
    if (snapshots_.empty())
        return;
    auto at = snapshots_.begin();
    std::advance(at, static_cast<std::ptrdiff_t>(pick(snapshots_.size())));
    must(store().snapshots().deleteSnapshot(Instance{at->first}).ok(), "delete snapshot");
    snapshots_.erase(at);
    if (pick(2) == 0)
        applyPool();
    count("retire");
}

void PlayedStore::dedup() {
    applyPool();
    count("dedup");
}

void PlayedStore::reopen() {
    close();
    open();
    count("reopen");
}

void PlayedStore::kill() {
    root_->checkpoint();
    replay_.reset();
    root_.reset();
    open();
    count("kill");
}

std::string PlayedStore::unknownNumbers() const {
    auto const unknown = replay_ ? replay_->counts().unknown : 0;
    return unknown == 0 ? std::string()
                        : std::to_string(unknown) + " logs on numbers that aren't known\n";
}

void PlayedStore::applyPool() {
    root_->drain(true);
}

QByteArray PlayedStore::randomData(std::uint64_t maximum) {
    QByteArray data(static_cast<qsizetype>(1 + pick(maximum)), Qt::Uninitialized);
    // A few contents come again and again, so that deduplication has something to find.
    auto const fill = pick(3) == 0 ? 7 : random_();
    std::mt19937_64 bytes(fill);
    for (auto& byte : data)
        byte = static_cast<char>(pick(8) == 0 ? 0 : bytes());
    if (fill == 7)
        data.fill('7');
    return data;
}

std::uint64_t PlayedStore::randomOffset(Content const& content, bool huge) {
    // The last byte of each depth of the stream tree, and block edges. The deepest is left to the
    // stream pool's own model: a pass of deduplication would hash its holes for minutes.
    static constexpr std::uint64_t edges[] = {184, 4096, 94208};
    static constexpr std::uint64_t hugeEdge = 48234496;
    auto const size = content.size();
    switch (pick(6)) {
    case 0:
        return 0;
    case 1:
        return size;
    case 2:
        return pick(size + 1);
    case 3:
        return (size / blockSize + pick(4)) * blockSize;
    case 4:
        return pick(200000);
    default: {
        auto const edge = huge ? hugeEdge : edges[pick(std::size(edges))];
        return edge - std::min<std::uint64_t>(edge, pick(5000)) + pick(3);
    }
    }
}

} // namespace Morva::Model
