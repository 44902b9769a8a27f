#include "replication/repository/store/RetireList.h"

#include "base/process/Context.h"
#include "base/trace/Trace.h"
#include "base/values/StringHash.h"
#include "replication/common/values/RepMetadata.h"
#include "replication/repository/store/Event.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/DedupRequest.h"
#include "replication/repository/streams/Streams.h"

#include <unordered_map>

namespace Replication {

namespace {

/// Seconds of the store's clock for which an ended version waits.
constexpr std::uint32_t holdSeconds = 5;
/// A jump of the clock that is worth a trace, in seconds.
constexpr std::uint32_t jumpSeconds = 120;
/// How far a source's clock may be ahead of this machine's, in seconds.
constexpr std::uint64_t aheadSeconds = 86400;
constexpr std::uint64_t idleMs = 5000;
/// From this reason on `retire` empties the list whatever the clock says.
constexpr std::uint32_t forcingReason = 6;
constexpr std::uint32_t snapshotLevel = 1;

/// A name in a directory.
struct RetireKey {
    FileId directory;
    QString name; // in the store's case rule
    bool operator==(RetireKey const&) const = default;
};

struct RetireKeyHash {
    std::size_t operator()(RetireKey const& key) const {
        return qHash(key.name) ^ Morva::idHash(key.directory.value);
    }
};

struct RetiredVersion {
    RetireKey key;
    Version version;
    FileNode::Pointer fileNode; // null when the entry doesn't keep the node
    std::uint32_t expire = 0;   // by the store's clock
};

} // namespace

struct RetireList::Private {
    explicit Private(Store& owner) : store(owner) {}

    using List = std::list<RetiredVersion>;

    [[nodiscard]] RetireKey key(Version const& version) const {
        QString const name = version.path.isEmpty() ? QString() : version.path.back();
        return {version.directory, store.caseSensitive() ? name : name.toLower()};
    }
    void take(List::iterator entry);
    void queue(Version const& version, FileNode::Pointer const& node);
    void send(Version const& version, FileNode& node, bool inResync);
    void retire(std::uint32_t reason);
    void wakeForFirst();
    void idleIfEmpty() {
        if (list.empty())
            wake = 0;
    }

    Store& store;
    List list; // by `expire`, ascending
    std::unordered_map<RetireKey, List::iterator, RetireKeyHash> byName;
    std::uint32_t clock = 0;
    std::uint64_t wake = 0; // milliseconds of Context::systemTime, 0 for none
    bool busy = false;
    bool resync = false;
    bool saved = false;
};

RetireList::RetireList(Store& store) : p_(std::make_unique<Private>(store)) {}

RetireList::~RetireList() = default;

// --- what ends

void RetireList::retiredVersion(Version& version, FileNode::Pointer const& node, bool final) {
    MORVA_METHOD("retiredVersion");
    if (p_->store.event() && version.versioned()) {
        if (!p_->resync && !p_->saved)
            p_->queue(version, final ? node : nullptr);
        else if (final && node)
            p_->send(version, *node, p_->resync);
    }
    version.clear();
}

void RetireList::retiredWeakVersion(Version& version, FileNode::Pointer const& node) {
    MORVA_METHOD("retiredWeakVersion");
    if (!p_->store.event() || !version.versioned()) {
        version.clear();
        return;
    }
    version.weak = true;
    if (!p_->resync)
        p_->queue(version, nullptr);
    else if (node)
        p_->send(version, *node, true);
}

bool RetireList::previousFileNode(Version& version) {
    MORVA_METHOD("previousFileNode");
    if (p_->list.empty())
        return scope.result(false);
    auto const found = p_->byName.find(p_->key(version));
    if (found == p_->byName.end())
        return scope.result(false);
    Version const& ended = found->second->version;
    version.prevFileNode = ended.prevFileNode;
    version.prevLink = ended.prevLink;
    version.weak = ended.weak;
    p_->take(found->second);
    p_->idleIfEmpty();
    return scope.result(true);
}

void RetireList::Private::take(List::iterator entry) {
    byName.erase(entry->key);
    list.erase(entry);
}

void RetireList::Private::queue(Version const& version, FileNode::Pointer const& node) {
    RetiredVersion entry{key(version), version, node, clock + holdSeconds};
    if (auto const found = byName.find(entry.key); found != byName.end()) {
        MORVA_TRACE(Verbose) << "Found match" << entry.key.name << "Remove from the retire list";
        take(found->second);
        idleIfEmpty();
    }
    // Nearly all new entries belong at the end.
    auto place = list.end();
    while (place != list.begin() && std::prev(place)->expire > entry.expire)
        --place;
    RetireKey const name = entry.key;
    byName[name] = list.insert(place, std::move(entry));
    if (list.size() == 1)
        wakeForFirst();
}

void RetireList::Private::wakeForFirst() {
    std::uint32_t const expire = list.front().expire;
    std::uint64_t const seconds = expire > clock ? expire - clock : 0;
    wake = Morva::Context::systemTime() + seconds * 1000;
    MORVA_TRACE(Verbose) << "retired files, ping";
}

void RetireList::Private::send(Version const& version, FileNode& node, bool inResync) {
    node.takeVersion();
    RepMetadata metadata;
    (void)node.metadata(snapshotLevel, metadata);
    // The claim stays when the event is lost: a version too many is better than one that a user
    // was promised and can't get.
    if (!store.event()->version(version, metadata, inResync))
        MORVA_TRACE(Always) << "Failed to send version event";
    if (store.dedupVersions())
        (void)DedupRequests::dedupVersion(store.streams(), store.id(), node.id().value);
}

// --- the clock and the run

void RetireList::Private::retire(std::uint32_t reason) {
    while (!list.empty()) {
        RetiredVersion& first = list.front();
        if (reason < forcingReason && first.expire > clock)
            break;
        if (first.fileNode)
            send(first.version, *first.fileNode, resync);
        take(list.begin());
    }
    if (list.empty()) {
        MORVA_TRACE(Debug) << "No versioned data";
        wake = 0;
    } else {
        wakeForFirst();
    }
}

std::uint32_t RetireList::timeStamp() const {
    return p_->clock;
}

void RetireList::timeStamp(std::uint32_t time) {
    if (time == 0 || time <= p_->clock)
        return;
    if (time > Morva::Context::systemTime() / 1000 + aheadSeconds) {
        MORVA_TRACE(Testing) << "A time of the source is more than a day ahead:" << time;
        return;
    }
    if (time - p_->clock > jumpSeconds)
        MORVA_TRACE(Testing) << "Clock has moved forward" << time - p_->clock;
    p_->clock = time;
    p_->retire(0);
}

bool RetireList::retireDue() {
    if (!p_->store.valid() || p_->resync || p_->busy || p_->wake == 0 ||
        Morva::Context::systemTime() < p_->wake)
        return false;
    p_->busy = true;
    return true;
}

void RetireList::retireRun(std::uint32_t time) {
    if (!p_->store.valid() || p_->resync)
        return;
    p_->busy = false;
    p_->wake = 0;
    timeStamp(time);
}

void RetireList::retireIdle() {
    if (!p_->store.valid() || p_->resync || !p_->busy)
        return;
    p_->busy = false;
    p_->wake = Morva::Context::systemTime() + idleMs;
}

void RetireList::startResync() {
    MORVA_METHOD("startResync");
    p_->resync = true;
}

void RetireList::endResync() {
    MORVA_METHOD("endResync");
    p_->resync = false;
}

bool RetireList::resyncRunning() const {
    return p_->resync;
}

void RetireList::stateSaved(bool value) {
    p_->saved = value;
}

void RetireList::forEach(Visit const& visit) const {
    for (auto const& entry : p_->list)
        visit(entry.key.name, entry.fileNode, entry.expire, entry.version);
}

void RetireList::restore(QString const& name, FileNode::Pointer node, std::uint32_t expire,
                         Version const& version) {
    RetiredVersion entry{{version.directory, name}, version, std::move(node), expire};
    auto const key = entry.key;
    p_->byName[key] = p_->list.insert(p_->list.end(), std::move(entry));
    if (p_->list.size() == 1)
        p_->wakeForFirst();
}

std::size_t RetireList::size() const {
    return p_->list.size();
}

void RetireList::clear() {
    p_->byName.clear();
    p_->list.clear();
    p_->wake = 0;
}

void RetireList::sendAll() {
    p_->retire(forcingReason);
}

} // namespace Replication
