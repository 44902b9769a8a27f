#include "replication/repository/store/Store.h"

#include "base/process/FixedPath.h"
#include "base/trace/Trace.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Event.h"
#include "replication/repository/store/NodeFile.h"
#include "replication/repository/store/NodePointer.h"
#include "replication/repository/store/PassiveHandles.h"
#include "replication/repository/store/PathOperations.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/SnapshotDirectories.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/streams/Streams.h"

#include <QDir>
#include <QFile>

#include <cstring>

namespace Replication {

using Morva::RawFile;
using Morva::XmlList;

namespace {

constexpr std::uint32_t newSequence = 1;

struct Shared {
    std::shared_ptr<Streams> streams;
    std::shared_ptr<EventChannel> channel;
    Store::Configuration configuration;
};

Shared& shared() {
    static Shared instance;
    return instance;
}

} // namespace

void Store::configure(XmlList const& configuration, std::shared_ptr<Streams> streams,
                      std::shared_ptr<EventChannel> channel) {
    Configuration& values = shared().configuration;
    values = {};
    values.directoryCacheSize =
        configuration.get(QStringLiteral("DirectoryCacheSize"), values.directoryCacheSize);
    values.fileNodeCacheSize =
        configuration.get(QStringLiteral("FileNodeCacheSize"), values.fileNodeCacheSize);
    values.fileNodeGrowSize =
        configuration.get(QStringLiteral("FileNodeGrowSize"), values.fileNodeGrowSize);
    values.fileNodeRandomAccess =
        configuration.get(QStringLiteral("FileNodeRandomAccess"), values.fileNodeRandomAccess);
    values.filePointerCacheSize =
        configuration.get(QStringLiteral("FilePointerCacheSize"), values.filePointerCacheSize);
    shared().streams = std::move(streams);
    shared().channel = std::move(channel);
}

bool Store::configured() {
    return shared().streams != nullptr;
}

void Store::closeAll() {
    StoreTable::closeAll();
    shared().streams.reset();
    shared().channel.reset();
}

QString Store::directoryOf(StoreId id) {
    return QStringLiteral("%1/%2")
        .arg(Morva::FixedPath::repositoryStores())
        .arg(qulonglong{id.value}, 16, 16, QLatin1Char('0'));
}

Store::Store(StoreId id)
    : id_(id),
      storePath_(directoryOf(id)),
      snapshotPath_(storePath_ + QStringLiteral("/snapshot")),
      statePath_(storePath_ + QStringLiteral("/state")),
      streams_(shared().streams) {
    Configuration const& values = shared().configuration;
    nodes_ = std::make_unique<NodeFile>(values.fileNodeCacheSize, *streams_);
    control_ = std::make_unique<ControlBlock>([this](ControlBlock::Image const& image) {
        return nodes_->isOpen() && nodes_->changeControl([&](void* block) {
            std::memcpy(block, image.data(), image.size());
        });
    });
    pointers_ = std::make_unique<NodePointer>(values.filePointerCacheSize);
    passive_ = std::make_unique<PassiveHandles>(*this);
    directories_ = std::make_unique<Directories>(*this, values.directoryCacheSize);
    snapshotDirectories_ = std::make_unique<SnapshotDirectories>(*this);
    snapshots_ = std::make_unique<SnapshotList>(*this);
    retired_ = std::make_unique<RetireList>(*this);
    active_ = std::make_unique<ActiveHandles>(*this);
    paths_ = std::make_unique<PathOperations>(*this);
}

Store::~Store() {
    MORVA_TRACE(Normal) << "Active handles" << active_->size() << "Passive handles"
                        << passive_->size() << "Retired versioned files" << retired_->size();
    close();
}

// --- making a store

bool Store::createFiles(StoreIdentity const& identity, bool caseSensitive) {
    MORVA_METHOD("create");
    caseSensitive_ = caseSensitive;
    sourceMachine_ = identity.sourceMachine;
    name_ = identity.name;
    Configuration const& values = shared().configuration;
    QString const files = storePath_ + QStringLiteral("/files");
    // What a store of this id has left behind is of no use to the new one.
    (void)RawFile::remove(statePath_);
    for (QString const& name : QDir(snapshotPath_).entryList(QDir::Files | QDir::Hidden))
        (void)RawFile::remove(snapshotPath_ + u'/' + name);
    if (!nodes_->create(files, values.fileNodeGrowSize,
                        values.fileNodeRandomAccess ? RawFile::Mode::Random
                                                    : RawFile::Mode::ReadWrite))
        return scope.result(false);
    open_ = true;
    if (!pointers_->create(files + QStringLiteral(".ptrs"))) {
        MORVA_TRACE(Always) << "Failed to create node pointer file";
        return scope.result(false);
    }
    if (!directories_->create(files + QStringLiteral(".tree"))) {
        MORVA_TRACE(Always) << "Failed to initialize directory bplustree";
        return scope.result(false);
    }
    bool const written = control_->update([&](ControlFields& fields) {
        fields.version(ControlFields::currentVersion);
        fields.instance(Instance{1});
        fields.storeId(id_);
        fields.replayId(identity.replayId);
        fields.sequence(newSequence);
        fields.caseSensitive(caseSensitive);
        fields.filterType(identity.filterType);
        fields.batch(identity.batch);
        fields.active(true);
        // Until the store is whole an opening finds no valid one.
        fields.openMark(true);
    });
    currentInstance_.store(1, std::memory_order_release);
    makeEvent(newSequence);
    valid_ = written && createRoot() && createSnapshots();
    return scope.result(valid_.load());
}

void Store::makeEvent(std::uint32_t opening) {
    if (shared().channel && id_)
        event_ = std::make_unique<Event>(shared().channel, id_, control_->replayId(),
                                         control_->filterType(), opening);
}

void Store::takeRoot(FileId root) {
    rootId_ = root;
    rootHandle_ = {};
    rootHandle_.id = root.value;
    rootHandle_.store = id_;
    rootHandle_.kind = FileHandle::FileIdOnly;
    MORVA_TRACE(Normal) << "Set store id to" << rootId_;
}

bool Store::createRoot() {
    takeRoot(pointers_->rootId());
    DirKey key = DirKey::root(rootId_);
    NodeInfo info(caseSensitivity(), NodeInfo::Root);
    info.placeHolder = true;
    info.sourceMachine = sourceMachine_;
    info.name = name_;
    return active_->create(key, {}, LiveMode::Clear, 0, std::move(info)) != nullptr;
}

bool Store::createSnapshots() {
    if (!id_) {
        indexSnapshots_ = dedupSnapshots_ = dedupVersions_ = false;
        return true;
    }
    if (!QDir().mkpath(snapshotPath_) || !snapshots_->create(snapshotPath_))
        return false;
    return control_->update([](ControlFields& fields) {
        fields.directories(0); // the root doesn't count
        fields.sequence(newSequence + 1);
    });
}

// --- opening

bool Store::openFiles() {
    MORVA_METHOD("open");
    if (!openControl())
        return scope.result(false);
    makeEvent(control_->sequence());
    if (markedForDeletion()) {
        if (!control_->deletionSent() && id_) {
            if (event_ && !event_->deleteStore(replayId(), id_))
                MORVA_TRACE(Always) << "Failed to send delete store event";
            (void)control_->update([](ControlFields& fields) { fields.deletionSent(true); });
        }
        takeRoot({});
        return scope.result(true);
    }
    valid_ = openTree();
    if (!valid_) {
        (void)directories_->close();
        (void)pointers_->close();
    }
    return scope.result(true);
}

bool Store::openControl() {
    Configuration const& values = shared().configuration;
    if (!nodes_->open(storePath_ + QStringLiteral("/files"), values.fileNodeGrowSize,
                      values.fileNodeRandomAccess ? RawFile::Mode::Random
                                                  : RawFile::Mode::ReadWrite))
        return false;
    open_ = true;
    ControlBlock::Image image;
    nodes_->readControl([&](void const* block) {
        std::memcpy(image.data(), block, image.size());
        return true;
    });
    ControlBlock::Loaded const loaded = control_->load(image);
    // A block of another store, or of none, would pass for an old version of store 0.
    if (loaded == ControlBlock::Loaded::Invalid || ControlFields(image.data()).storeId() != id_) {
        MORVA_TRACE(Always) << "Invalid control block";
        (void)nodes_->close();
        open_ = false;
        return false;
    }
    upgraded_ = loaded == ControlBlock::Loaded::Upgraded;
    control_->print(static_cast<int>(Morva::TraceLevel::Debug));
    currentInstance_.store(ControlFields(image.data()).instance().value, std::memory_order_release);
    caseSensitive_ = control_->caseSensitive();
    if (!id_)
        indexSnapshots_ = dedupSnapshots_ = dedupVersions_ = false;
    unclean_ = control_->openMark();
    if (unclean_)
        MORVA_TRACE(Always) << "Store was not shutdown correctly";
    // On the disk itself before anything that it is to tell of.
    return control_->update([&](ControlFields& fields) {
        fields.openMark(true);
        if (id_)
            fields.sequence(fields.sequence() + 1);
    }) && nodes_->flush();
}

bool Store::openTree() {
    QString const files = storePath_ + QStringLiteral("/files");
    if (!pointers_->open(files + QStringLiteral(".ptrs"))) {
        MORVA_TRACE(Always) << "Failed to open 'files' node pointer file";
        return false;
    }
    if (!directories_->open(files + QStringLiteral(".tree"))) {
        MORVA_TRACE(Always) << "Failed to initialize directory tree file";
        return false;
    }
    takeRoot(pointers_->rootId());
    ActiveHandle::Pointer const root = active_->get(rootId_);
    MORVA_CHECK(root && root->fileNode(), "ptRoot");
    if (!root || !root->fileNode())
        return false;
    sourceMachine_ = root->fileNode()->sourceMachine();
    name_ = root->fileNode()->name();
    control_->print(static_cast<int>(Morva::TraceLevel::Debug));
    MORVA_TRACE(Normal) << "Name" << name_ << "Source Machine" << sourceMachine_;
    return !id_ || snapshots_->load(snapshotPath_, upgraded_, unclean_);
}

// --- flushing and closing

bool Store::settle() {
    return unfinished_.settle() && (!snapshots_ || snapshots_->writeEntries());
}

bool Store::flush() {
    MORVA_METHOD("flush");
    bool const settled = !valid_ || settle();
    bool const pool = streams_->flush();
    return scope.result(flushFiles() && pool && settled);
}

bool Store::flushFiles() {
    if (!open_)
        return true;
    bool const settled = !valid_ || settle();
    bool const control = control_->write();
    bool const nodes = nodes_->flush();
    if (!valid_)
        return control && nodes;
    bool const pointers = pointers_->flush();
    bool const directories = directories_->flush();
    // Nothing depends on this list: what is lost of it stays as it is.
    (void)snapshots_->flushDedup();
    return control && nodes && pointers && directories && settled;
}

bool Store::flushForFreeze() {
    MORVA_METHOD("flushForFreeze");
    if (!open_ || !flushFiles())
        return scope.result(false);
    return scope.result(control_->update([](ControlFields& fields) { fields.openMark(false); }));
}

void Store::markOpen() {
    MORVA_METHOD("markOpen");
    if (open_ && control_->update([](ControlFields& fields) { fields.openMark(true); }))
        (void)nodes_->flush();
}

bool Store::close() {
    MORVA_METHOD("close");
    if (!open_)
        return scope.result(true);
    retired_->clear();
    bool const settled = !valid_ || settle();
    unfinished_.clear(); // its steps hold handles
    directories_->forget();
    MORVA_CHECK(passive_->size() == 0, "passiveHandles");
    bool flushed = flushFiles() && settled;
    bool const wasValid = valid_.exchange(false);
    // A store that was found unclean and could not be opened has not become clean by that; one
    // that only waits for its deletion has nothing to lose.
    if (flushed && (wasValid || !unclean_ || markedForDeletion()))
        flushed = control_->update([](ControlFields& fields) {
            fields.openMark(false);
            fields.lastSequence(fields.sequence());
        });
    control_->print(static_cast<int>(Morva::TraceLevel::Debug));
    snapshots_->close();
    open_ = false;
    bool const tree = directories_->close();
    bool const pointers = pointers_->close();
    bool const nodes = nodes_->close();
    return scope.result(tree && pointers && nodes && flushed);
}

void Store::closed() {
    MORVA_METHOD("closed");
    if (!open_ || !id_ || !markedForDeletion() || control_->deletionSent())
        return;
    ReplayId const replay = replayId();
    (void)control_->update([](ControlFields& fields) { fields.deletionSent(true); });
    // The receiver may have the store erased as soon as it is told, so it is closed before.
    close();
    if (event_ && !event_->deleteStore(replay, id_))
        MORVA_TRACE(Always) << "Failed to send delete store event";
}

// --- identity and flags

ReplayId Store::replayId() const {
    return control_->replayId();
}

QString Store::type() const {
    return control_->type();
}

std::uint32_t Store::filterType() const {
    return control_->filterType();
}

bool Store::active() const {
    return control_->active();
}

void Store::active(bool value) {
    if (control_->active() == value && !(value && markedForDeletion()))
        return;
    (void)control_->update([value](ControlFields& fields) {
        if (value && fields.deletionSent())
            return;
        fields.active(value);
        if (value)
            fields.markedForDeletion(false);
    });
}

bool Store::markForDeletion() {
    MORVA_METHOD("markForDeletion");
    if (!open_) {
        MORVA_TRACE(Always) << "Invalid store";
        return scope.result(false);
    }
    if (active()) {
        MORVA_TRACE(Always) << "Store" << id_ << "ReplayId" << replayId() << "is active";
        return scope.result(false);
    }
    (void)control_->update([this](ControlFields& fields) {
        fields.markedForDeletion(true);
        if (!id_)
            fields.deletionSent(true);
    });
    return scope.result(true);
}

void Store::settings(bool indexSnapshots, bool dedupSnapshots, bool dedupVersions,
                     QStringList const& dedupExclude) {
    if (!id_)
        return;
    indexSnapshots_ = indexSnapshots;
    dedupSnapshots_ = dedupSnapshots;
    dedupVersions_ = dedupVersions;
    dedupExclude_ = dedupExclude;
}

} // namespace Replication
