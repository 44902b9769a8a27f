#include "peers/morva/Root.h"

#include "base/files/FileSystem.h"
#include "base/process/Config.h"
#include "base/process/Context.h"
#include "base/process/FixedPath.h"
#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "peers/morva/Failure.h"
#include "replication/repository/store/SavedState.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/OperationGate.h"

#include <QFile>

#include <sys/statvfs.h>

#include <algorithm>
#include <utility>

namespace Morva {

using Replication::CleanupWorker;
using Replication::DedupWorker;
using Replication::OperationGate;
using Replication::ReplayId;
using Replication::Sink;
using Replication::SourceKind;
using Replication::Store;
using Replication::StoreId;
using Replication::StoreIdentity;
using Replication::StorePointer;
using Replication::Streams;

namespace {

QString configFile(char const* name) {
    return FixedPath::configuration() + u'/' + QLatin1String(name);
}

/// A crash costs no more than what was done in this time, a checkpoint not much more than to copy
/// so many bytes.
constexpr std::chrono::seconds checkpointInterval{5};
constexpr std::uint64_t pendingLimit = 64 << 20;
/// On a small volume less: the copies need room beside what they replace.
constexpr std::uint64_t pendingShare = 32;
constexpr std::uint64_t leastPending = 1 << 20;

/// The pool's data file grows by a share of its volume, so that it leaves the space to others that
/// it doesn't use itself.
constexpr std::uint64_t growShare = 256;
constexpr std::uint64_t leastGrowth = 256 << 10;
constexpr std::uint64_t mostGrowth = 80 << 20;

/// In bytes. One that the system doesn't tell the size of counts as large.
std::uint64_t volumeSize(QString const& directory) {
    struct statvfs volume {};
    if (::statvfs(QFile::encodeName(directory).constData(), &volume) != 0)
        return std::uint64_t{1} << 40;
    return std::uint64_t{volume.f_blocks} * volume.f_frsize;
}

std::uint64_t growStep(std::uint64_t volume) {
    return std::clamp(volume / growShare, leastGrowth, mostGrowth) & ~std::uint64_t{4095};
}

/// The journal's file as it is on the disk now; empty if it can't be read.
QByteArray journalOnDisk() {
    QFile file(FixedPath::repository() + "/journal");
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString openMark() {
    return FixedPath::runtime() + "/open";
}

QString stateFile(Root::Source const& source) {
    return FixedPath::repository() + "/state-" + QString::number(source.id);
}

void setRoot(QString const& path) {
    if (!FixedPath::setRoot(path))
        throw CommandFailure(ExitCode::Failed, "the \"paths.cfg\" of " + path + " can't be read");
}

/// Whether a name is there. What the system can't say is neither yes nor no.
bool isThere(QString const& name) {
    auto const found = FileSystem::inForce().exists(name);
    if (!found.ok())
        throw commandFailure("can't look for " + name, found.status());
    return *found;
}

/// The file that each store has.
QString filesOf(Source const& source) {
    return Store::directoryOf(StoreId{source.id}) + "/files";
}

void makePath(QString const& path) {
    if (auto const status = FileSystem::inForce().makeDirectory(path); !status)
        throw commandFailure("can't make the directory " + path, status);
}

void save(char const* name, XmlList const& list) {
    if (!Config::save(configFile(name), list))
        throw CommandFailure(ExitCode::Failed, "can't write " + configFile(name));
}

/// Caches for a machine that has some hundred megabytes to spare for the repository.
XmlList initialConfiguration() {
    XmlList streams;
    streams.set("NodeCacheSize", std::uint32_t{65536});
    streams.set("ReferenceIndirectBlockCacheSize", std::uint32_t{4096});
    streams.set("ReferenceCountCacheSize", std::uint32_t{4096});
    streams.set("DedupCacheSize", std::uint32_t{8192});
    XmlList stores;
    stores.set("DirectoryCacheSize", std::uint32_t{16384});
    stores.set("FileNodeCacheSize", std::uint32_t{32768});
    stores.set("FilePointerCacheSize", std::uint32_t{1048576});
    XmlList all;
    all.set("StreamsConfiguration", streams);
    all.set("StoreConfiguration", stores);
    return all;
}

} // namespace

void Root::init(QString const& path) {
    if (isThere(RootLock::fileName(path)))
        throw CommandFailure(ExitCode::Failed, "there is a repository at " + path + " already");
    makePath(path);
    setRoot(path);
    for (auto const& directory :
         {FixedPath::configuration(), FixedPath::runtime(), FixedPath::repositoryStores(),
          FixedPath::repositoryStreams(), FixedPath::repositoryStreamData()})
        makePath(directory);
    save("repository.cfg", initialConfiguration());
    SourceTable::make();
    // Rule sets name this machine, and are to stay good when the host gets another name.
    if (!Context::pinMachineName())
        throw CommandFailure(ExitCode::Failed, "can't write " + configFile("runtime.cfg"));
    // Last, so that a root with a lock file is whole.
    RootLock::make(path);
}

Root::Root(QString const& path, For purpose, std::chrono::milliseconds wait)
    : path_(path),
      purpose_(purpose),
      lock_(path, purpose == For::Reading ? RootLock::Mode::Shared : RootLock::Mode::Exclusive,
            wait) {
    setRoot(path);
    markOpen();
    if (purpose_ == For::Reading)
        reading_.emplace();
    if (!lock_.isHeld())
        journalRead_ = journalOnDisk();
    journal_ = openJournal();
    sources_.load();
    findStores();
    openPool();
}

Root::~Root() {
    if (streams_)
        takeBack();
}

void Root::markOpen() {
    QFile mark(openMark());
    if (mark.exists())
        LogLine("Repository", LogLevelE::Warning)
            << "The last process that had %1s open did not end in order; the repository is as it "
               "was at its last checkpoint"
            << path_;
    if (purpose_ == For::Changing && !mark.open(QIODevice::WriteOnly))
        throw CommandFailure(ExitCode::Failed, "can't write " + mark.fileName());
}

std::unique_ptr<Journal> Root::openJournal(Journal::Format format) {
    auto const directory = FixedPath::repository();
    auto journal = Journal::open(directory,
                                 {FixedPath::repositoryStores(), FixedPath::repositoryStreams(),
                                  FixedPath::repositoryStreamData(), FixedPath::repository()},
                                 format);
    if (!journal)
        throw commandFailure("the journal in " + directory + " can't be read or carried out",
                             journal.status());
    return *std::move(journal);
}

void Root::findStores() {
    for (auto const& source : sources())
        if (!source.made && isThere(filesOf(source)))
            sources_.markMade(source.id);
}

void Root::openPool() {
    auto const configuration = Config::load(configFile("repository.cfg"));
    if (!configuration.usable())
        throw CommandFailure(ExitCode::Failed, "can't read " + configFile("repository.cfg"));
    auto pool = Streams::configure(configuration.getXmlList(nullptr, "StreamsConfiguration"));
    auto const volume = volumeSize(FixedPath::repositoryStreamData());
    if (pool.dataGrowSize == 0)
        pool.dataGrowSize = growStep(volume);
    pendingLimit_ = std::clamp(volume / pendingShare, leastPending, pendingLimit);
    streams_ = std::make_shared<Streams>(FixedPath::repositoryStreams(),
                                         FixedPath::repositoryStreamData(), pool);
    if (!*streams_)
        throw CommandFailure(ExitCode::Failed, "the stream pool of " + path_ + " does not open");
    Store::configure(configuration.getXmlList(nullptr, "StoreConfiguration"), streams_, nullptr);
}

Source const& Root::addSource(QString const& name, QString const& sourceRoot,
                              QStringList const& dedupExclude, SourceKind kind) {
    return sources_.add({name, sourceRoot, 0, dedupExclude, kind});
}

void Root::forgetUnmade(QString const& name) {
    if (!sources_.contains(name) || sources_.find(name).made)
        return;
    auto const id = sources_.find(name).id;
    open_.removeIf([&](StorePointer const& store) { return store->id().value == id; });
    sources_.remove(id);
}

StorePointer Root::store(Source const& source, Marked marked) {
    StoreId const id{source.id};
    for (auto const& store : std::as_const(open_))
        if (store->id() == id)
            return store;
    StoreIdentity identity(ReplayId{source.id}, Context::machineName().name(),
                           "repository-" + source.name);
    if (source.kind == SourceKind::Exchange)
        identity.filterType = Replication::eFilterExchange;
    auto const exists = Store::exists(id);
    if (!exists.ok())
        throw doesNotOpen(source, exists.status());
    if (!*exists && source.made)
        throw CommandFailure(ExitCode::Failed, "the files of the store " + source.name +
                                                   " are not at " + Store::directoryOf(id) +
                                                   ": is its volume mounted?");
    if (!*exists && purpose_ == For::Reading)
        throw CommandFailure(ExitCode::Failed, "the store " + source.name + " holds nothing yet");
    auto opened = *exists ? Store::open(id, identity)
                          : Store::create(id, identity, caseSensitive(source.kind));
    if (!opened && *exists) {
        auto going = Store::open(id, true);
        bool const goes = going && (*going)->markedForDeletion();
        if (goes && marked == Marked::Refused)
            throw CommandFailure(ExitCode::Failed, "the store " + source.name +
                                                       " waits for its deletion: 'morva erase " +
                                                       source.name + "' ends it");
        if (goes)
            opened = std::move(going);
    }
    if (!opened)
        throw doesNotOpen(source, opened.status());
    auto store = *std::move(opened);
    if (store->unclean() && store->valid() && purpose_ == For::Changing)
        if (Status const freed = store->freeUnclaimed(); !freed)
            throw doesNotOpen(source, freed);
    open_ += store;
    return store;
}

void Root::markForDeletion(Source const& source, bool deactivate) {
    open_.removeIf([&](StorePointer const& store) { return store->id().value == source.id; });
    StoreId const id{source.id};
    if (Store::list().contains(id))
        throw CommandFailure(ExitCode::Failed, "The store is currently in use");
    auto const opened = Store::open(id, true);
    if (!opened)
        throw doesNotOpen(source, opened.status());
    auto const& store = *opened;
    if (store->markedForDeletion())
        return;
    if (store->active() && !deactivate)
        throw CommandFailure(ExitCode::Failed, "the store " + source.name +
                                                   " is active, since the rules feed it: give "
                                                   "--deactivate to end that and erase it");
    Status marked = store->active(false);
    if (marked)
        marked = store->markForDeletion();
    if (!marked)
        throw commandFailure("the store " + source.name + " can't be marked for deletion", marked);
    // The mark stands when the last pointer goes, and nobody can open the store from then on.
}

void Root::erase(QString const& name, bool deactivate) {
    // An empty name is most likely one that got lost on the way here.
    if (!hasSource(name))
        throw CommandFailure(ExitCode::Failed, "there is no store named \"" + name + '"');
    Source const source = this->source(name);
    StoreId const id{source.id};
    auto const directory = Store::directoryOf(id);
    auto const there = Store::exists(id);
    if (!there.ok())
        throw doesNotOpen(source, there.status());
    // Without a file an erasing had come to its end but for what follows here.
    if (*there) {
        markForDeletion(source, deactivate);
        auto const store = Store::open(id, true);
        auto const erased =
            store ? (*store)->erase([this] { return safePoint(); }) : store.status();
        if (!erased)
            throw commandFailure("not all of the store " + name +
                                     " could be erased (the same command goes on)",
                                 erased);
    }
    auto& files = FileSystem::inForce();
    if (auto const status = files.removeIfThere(stateFile(source)); !status)
        throw commandFailure("can't remove " + stateFile(source), status);
    drain(false);
    checkpoint();
    // Until a checkpoint its files are kept aside in it.
    if (isThere(directory))
        if (auto const status = files.removeDirectory(directory); !status)
            throw commandFailure("the store " + name + " is erased, but its directory stays",
                                 status);
    // The name goes last: until the rest is kept, the store must be there to be named.
    sources_.remove(source.id);
}

std::uint64_t Root::position(Source const& source) const {
    if (!isThere(stateFile(source)))
        return 0;
    Replication::StateFile state(stateFile(source));
    state.readHeader();
    if (!state.valid())
        throw CommandFailure(ExitCode::Failed,
                             "can't read " + stateFile(source) + "; run 'morva check'");
    return state.sequenceNumber();
}

std::unique_ptr<Sink> Root::sink(Source const& source) {
    auto const target = store(source);
    if (target->caseSensitive() != caseSensitive(source.kind))
        throw CommandFailure(ExitCode::Failed, "the rules of the store " + source.name +
                                                   " tell of another kind of source than it has");
    if (Status const active = target->active(true); !active)
        throw doesNotOpen(source, active);
    Sink::Identity identity;
    identity.name = "repository-" + source.name;
    identity.sourceMachine = Context::machineName().name();
    identity.target = source.name;
    identity.stateFile = stateFile(source);
    identity.ruleSet = ruleSet();
    auto sink = makeSink(source.kind, identity, ReplayId{source.id}, target, streams_);
    if (auto const started = sink->start(); !started)
        throw commandFailure("the store " + source.name + " takes no logs", started);
    return sink;
}

void Root::startWork() {
    cleanup_ = std::make_unique<CleanupWorker>(streams_);
    cleanup_->start();
}

void Root::drain(bool dedup) {
    if (dedup) {
        if (!dedup_)
            dedup_ = std::make_unique<DedupWorker>(streams_);
        if (Status const drained = dedup_->drain([this] { return safePoint(); }); !drained)
            throw commandFailure("the work of the deduplication queue can't be done", drained);
    }
    if (!cleanup_)
        cleanup_ = std::make_unique<CleanupWorker>(streams_);
    if (!cleanup_->drain())
        throw CommandFailure(ExitCode::Failed,
                             "the work of the cleanup queue of " + FixedPath::repositoryStreams() +
                                 " can't be done (with -v the reason is told); run 'morva check'");
}

CommandFailure Root::notWritten(Status const& why) const {
    return commandFailure("not everything could be written to " + path_ +
                              ", and the repository is as it was at its last checkpoint",
                          why);
}

CommandFailure Root::doesNotOpen(Source const& source, Status const& why) {
    return commandFailure("the store " + source.name + " does not open", why);
}

Status Root::safePoint() {
    if (Output::interrupted.load(std::memory_order_relaxed)) {
        // What is done so far stays, and the same command goes on from there.
        MORVA_TRY(tryCheckpoint());
        return Status::failure(Status::Code::Stopped, "work on", path_);
    }
    return checkpointIsDue() ? tryCheckpoint() : Status();
}

Status Root::flush() {
    Status flushed = Replication::StoreTable::flushAll();
    if (!streams_->flush())
        flushed.update(Status::failure(Status::Code::IoError, "flush the pool of", path_));
    return flushed;
}

std::vector<std::uint32_t> Root::openStores() const {
    std::vector<std::uint32_t> ids;
    for (auto const& store : open_)
        ids.push_back(static_cast<std::uint32_t>(store->id().value));
    return ids;
}

/// After a checkpoint, which holds these stores. The file follows with `save`.
void Root::markMade(std::vector<std::uint32_t> const& stores) {
    for (auto const id : stores)
        sources_.markMade(id);
}

Status Root::tryCheckpoint() {
    OperationGate::EnterAlone const alone;
    MORVA_TRY(flush());
    MORVA_TRY(journal_->checkpoint());
    lastCheckpoint_ = std::chrono::steady_clock::now();
    markMade(openStores());
    for (auto const& store : std::as_const(open_))
        store->saved().durable();
    return {};
}

void Root::checkpoint() {
    if (Status const made = tryCheckpoint(); !made)
        throw notWritten(made);
    sources_.save();
}

bool Root::checkpointIsDue() const {
    return journal_->pendingBytes() > pendingLimit_ ||
           std::chrono::steady_clock::now() - lastCheckpoint_ > checkpointInterval;
}

void Root::checkpointIfDue() {
    if (checkpointIsDue())
        checkpoint();
}

bool Root::close() {
    dedup_.reset();
    cleanup_.reset();
    open_.clear();
    Store::closeAll();
    bool const inUse = streams_.use_count() > 1;
    if (inUse)
        MORVA_TRACE(Always)
            << "The pool is in use beyond its end, and its files stay marked as open";
    streams_.reset();
    return !inUse;
}

void Root::takeBack() noexcept {
    bool const closed = close();
    // Where it can't be done now, the next opening does it, and tells the user.
    if (purpose_ == For::Changing && closed && journal_->rollBack())
        QFile::remove(openMark());
    journal_.reset();
    reading_.reset();
    sources_.takeBack();
}

void Root::finish() {
    if (!streams_)
        return;
    if (purpose_ == For::Reading) {
        takeBack();
        if (!lock_.isHeld() && journalOnDisk() != journalRead_)
            throw CommandFailure(ExitCode::InUse, "the repository at " + path_ +
                                                      " was changed while it was read, and what "
                                                      "was shown may be of two states: repeat the "
                                                      "command");
        return;
    }
    dedup_.reset();
    cleanup_.reset();
    auto const stores = openStores();
    Status kept;
    {
        OperationGate::EnterAlone const alone;
        kept = flush();
    }
    if (kept) {
        (void)close(); // what is still in use has been traced, and is flushed
        kept = journal_->checkpoint();
    }
    if (!kept) {
        takeBack();
        throw notWritten(kept);
    }
    journal_.reset();
    QFile::remove(openMark());
    markMade(stores);
    sources_.save();
}

} // namespace Morva
