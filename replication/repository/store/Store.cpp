#include "replication/repository/store/Store.h"

#include "base/files/RawFile.h"
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
#include "replication/repository/store/SavedState.h"
#include "replication/repository/store/SnapshotDirectories.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/streams/Streams.h"

#include <cstring>

namespace Replication {

using Morva::RawFile;
using Morva::Status;
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
        bool const written = nodes_->isOpen() && nodes_->changeControl([&](void* block) {
            std::memcpy(block, image.data(), image.size());
        });
        return outcome(written, "write the control block of");
    });
    pointers_ = std::make_unique<NodePointer>(values.filePointerCacheSize);
    passive_ = std::make_unique<PassiveHandles>(*this);
    directories_ = std::make_unique<Directories>(*this, values.directoryCacheSize);
    snapshotDirectories_ = std::make_unique<SnapshotDirectories>(*this);
    snapshots_ = std::make_unique<SnapshotList>(*this);
    retired_ = std::make_unique<RetireList>(*this);
    active_ = std::make_unique<ActiveHandles>(*this);
    paths_ = std::make_unique<PathOperations>(*this);
    saved_ = std::make_unique<SavedState>(*this, statePath_);
}

Store::~Store() {
    MORVA_TRACE(Normal) << "Active handles" << active_->size() << "Passive handles"
                        << passive_->size() << "Retired versioned files" << retired_->size();
    (void)close(); // whoever wants to know has closed it before
}

// --- making a store

/// For what tells of a failure by a boolean and a trace.
Status Store::outcome(bool good, char const* operation) const {
    return good ? Status() : Status::failure(Status::Code::IoError, operation, storePath_);
}

Status Store::createFiles(StoreIdentity const& identity, bool caseSensitive) {
    MORVA_METHOD("create");
    MORVA_TRY(Morva::FileSystem::inForce().makeDirectory(storePath_));
    Status made = makeFiles(caseSensitive, identity);
    if (made) {
        valid_ = true;
        return {};
    }
    // Nothing was there before, so that the next attempt finds the place as this one did.
    removeMade();
    return made;
}

Status Store::makeFiles(bool caseSensitive, StoreIdentity const& identity) {
    caseSensitive_ = caseSensitive;
    sourceMachine_ = identity.sourceMachine;
    name_ = identity.name;
    Configuration const& values = shared().configuration;
    QString const files = storePath_ + QStringLiteral("/files");
    MORVA_TRY(nodes_->create(files, values.fileNodeGrowSize,
                             values.fileNodeRandomAccess ? RawFile::Mode::Random
                                                         : RawFile::Mode::ReadWrite));
    open_ = true;
    if (Status made = pointers_->create(files + QStringLiteral(".ptrs")); !made) {
        MORVA_TRACE(Always) << "Failed to create node pointer file";
        return made;
    }
    if (Status made = directories_->create(files + QStringLiteral(".tree")); !made) {
        MORVA_TRACE(Always) << "Failed to initialize directory bplustree";
        return made;
    }
    MORVA_TRY(control_->update([&](ControlFields& fields) {
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
    }));
    currentInstance_.store(1, std::memory_order_release);
    makeEvent(newSequence);
    MORVA_TRY(createRoot());
    return createSnapshots();
}

/// Takes back a creation that failed: closes the files and removes them.
void Store::removeMade() {
    (void)close(); // of no use to anybody
    for (auto const& directory : {snapshotPath_, storePath_}) {
        auto const names =
            Morva::FileSystem::inForce().names(directory, Morva::FileSystem::Kind::File);
        if (!names.ok())
            continue;
        for (QString const& name : *names)
            if (Status const gone =
                    Morva::FileSystem::inForce().removeIfThere(directory + u'/' + name);
                !gone)
                MORVA_TRACE(Always) << "Failed to take back" << gone.text();
        if (Status const gone = Morva::FileSystem::inForce().removeDirectory(directory); !gone)
            MORVA_TRACE(Always) << "Failed to take back" << gone.text();
    }
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

Status Store::createRoot() {
    takeRoot(pointers_->rootId());
    DirKey key = DirKey::root(rootId_);
    NodeInfo info(caseSensitivity(), NodeInfo::Root);
    info.placeHolder = true;
    info.sourceMachine = sourceMachine_;
    info.name = name_;
    return active_->create(key, {}, LiveMode::Clear, 0, std::move(info)).status();
}

Status Store::createSnapshots() {
    if (!id_) {
        indexSnapshots_ = dedupSnapshots_ = dedupVersions_ = false;
        return {};
    }
    MORVA_TRY(Morva::FileSystem::inForce().makeDirectory(snapshotPath_));
    MORVA_TRY(snapshots_->create(snapshotPath_));
    return control_->update([](ControlFields& fields) {
        fields.directories(0); // the root doesn't count
        fields.sequence(newSequence + 1);
    });
}

// --- opening

Status Store::openFiles() {
    MORVA_METHOD("open");
    MORVA_TRY(openControl());
    makeEvent(control_->sequence());
    if (markedForDeletion()) {
        takeRoot({});
        if (control_->deletionSent() || !id_)
            return {};
        MORVA_TRY(control_->update([](ControlFields& fields) { fields.deletionSent(true); }));
        if (event_ && !event_->deleteStore(replayId(), id_))
            MORVA_TRACE(Always) << "Failed to send delete store event";
        return {};
    }
    invalidity_ = openTree();
    valid_ = invalidity_.ok();
    if (!valid_) {
        (void)directories_->close(); // they have not changed
        (void)pointers_->close();    // as these
    }
    return {};
}

Status Store::openControl() {
    Configuration const& values = shared().configuration;
    QString const files = storePath_ + QStringLiteral("/files");
    if (!nodes_->open(files, values.fileNodeGrowSize,
                      values.fileNodeRandomAccess ? RawFile::Mode::Random
                                                  : RawFile::Mode::ReadWrite)) {
        auto const there = Morva::FileSystem::inForce().exists(files);
        if (there.ok() && !*there)
            return Status::failure(Status::Code::NotFound, "open", files);
        return outcome(false, "open \"files\" of");
    }
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
        (void)nodes_->close(); // it has not changed
        open_ = false;
        return Status::corruption("open", files, QStringLiteral("its control block is invalid"));
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
    MORVA_TRY(control_->update([&](ControlFields& fields) {
        fields.openMark(true);
        if (id_)
            fields.sequence(fields.sequence() + 1);
    }));
    return nodes_->flush();
}

Status Store::openTree() {
    QString const files = storePath_ + QStringLiteral("/files");
    if (Status opened = pointers_->open(files + QStringLiteral(".ptrs")); !opened) {
        MORVA_TRACE(Always) << "Failed to open 'files' node pointer file";
        return opened;
    }
    if (Status opened = directories_->open(files + QStringLiteral(".tree")); !opened) {
        MORVA_TRACE(Always) << "Failed to initialize directory tree file";
        return opened;
    }
    // Before any node can be freed.
    if (Status loaded = saved_->load(); !loaded) {
        MORVA_TRACE(Always) << "Failed to read saved state" << loaded.text();
        return loaded;
    }
    takeRoot(pointers_->rootId());
    MORVA_TRY_LET(ActiveHandle::Pointer const root, active_->get(rootId_));
    MORVA_CHECK(root && root->fileNode(), "ptRoot");
    if (!root || !root->fileNode())
        return outcome(false, "read the root of");
    sourceMachine_ = root->fileNode()->sourceMachine();
    name_ = root->fileNode()->name();
    control_->print(static_cast<int>(Morva::TraceLevel::Debug));
    MORVA_TRACE(Normal) << "Name" << name_ << "Source Machine" << sourceMachine_;
    return id_ ? snapshots_->load(snapshotPath_, upgraded_) : Status();
}

// --- flushing and closing

Status Store::settle() {
    MORVA_TRY(unfinished_.settle());
    return snapshots_ ? snapshots_->writeEntries() : Status();
}

Status Store::flush() {
    MORVA_METHOD("flush");
    Status result;
    if (valid_) {
        result = settle();
        result.update(saveState());
    }
    result.update(outcome(streams_->flush(), "flush the pool of"));
    result.update(flushFiles());
    return result;
}

Status Store::saveState() {
    Status saved = saved_->save();
    if (!saved)
        MORVA_TRACE(Always) << "Failed to save the state of store" << id_ << saved.text();
    return saved;
}

Status Store::flushFiles() {
    if (!open_)
        return {};
    Status result = valid_ ? settle() : Status();
    result.update(control_->write());
    result.update(nodes_->flush());
    if (!valid_)
        return result;
    result.update(pointers_->flush());
    result.update(directories_->flush());
    // Nothing depends on this list: what is lost of it stays as it is.
    (void)snapshots_->flushDedup();
    return result;
}

Status Store::flushForFreeze() {
    MORVA_METHOD("flushForFreeze");
    if (!open_)
        return outcome(false, "flush");
    if (valid_)
        MORVA_TRY(saveState());
    MORVA_TRY(flushFiles());
    return control_->update([](ControlFields& fields) { fields.openMark(false); });
}

Status Store::markOpen() {
    MORVA_METHOD("markOpen");
    if (!open_)
        return {};
    MORVA_TRY(control_->update([](ControlFields& fields) { fields.openMark(true); }));
    return nodes_->flush();
}

Status Store::close() {
    MORVA_METHOD("close");
    if (!open_)
        return {};
    retired_->sendAll();
    Status result = valid_ ? settle() : Status();
    unfinished_.clear(); // its steps hold handles
    directories_->forget();
    MORVA_CHECK(passive_->size() == 0, "passiveHandles");
    result.update(flushFiles());
    bool const wasValid = valid_.exchange(false);
    // A store that was found unclean and could not be opened has not become clean by that; one
    // that only waits for its deletion has nothing to lose.
    if (result && (wasValid || !unclean_ || markedForDeletion()))
        result = control_->update([](ControlFields& fields) {
            fields.openMark(false);
            fields.lastSequence(fields.sequence());
        });
    control_->print(static_cast<int>(Morva::TraceLevel::Debug));
    snapshots_->close();
    open_ = false;
    result.update(saved_->close());
    result.update(directories_->close());
    result.update(pointers_->close());
    result.update(nodes_->close());
    if (!result)
        MORVA_TRACE(Always) << "Failed to close store" << id_ << result.text();
    return result;
}

void Store::closed() {
    MORVA_METHOD("closed");
    if (!open_ || !id_ || !markedForDeletion() || control_->deletionSent())
        return;
    ReplayId const replay = replayId();
    // Unwritten, it is told of by the next opening.
    if (!control_->update([](ControlFields& fields) { fields.deletionSent(true); }))
        return;
    // The receiver may have the store erased as soon as it is told, so it is closed before.
    if (!close())
        return;
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

Status Store::active(bool value) {
    if (control_->active() == value && !(value && markedForDeletion()))
        return {};
    return control_->update([value](ControlFields& fields) {
        if (value && fields.deletionSent())
            return;
        fields.active(value);
        if (value)
            fields.markedForDeletion(false);
    });
}

Status Store::markForDeletion() {
    MORVA_METHOD("markForDeletion");
    auto const refused = [this](char const* why) {
        return Status::failure(Status::Code::InvalidArgument, "mark for deletion", storePath_,
                               QLatin1String(why));
    };
    if (!open_) {
        MORVA_TRACE(Always) << "Invalid store";
        return refused("the store isn't open");
    }
    if (active()) {
        MORVA_TRACE(Always) << "Store" << id_ << "ReplayId" << replayId() << "is active";
        return refused("the store is active");
    }
    return control_->update([this](ControlFields& fields) {
        fields.markedForDeletion(true);
        if (!id_)
            fields.deletionSent(true);
    });
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
