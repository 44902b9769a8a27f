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
    save("sources.cfg", {});
    // Rule sets name this machine, and are to stay good when the host gets another name.
    if (!Context::pinMachineName())
        throw CommandFailure(ExitCode::Failed, "can't write " + configFile("runtime.cfg"));
    // Last, so that a root with a lock file is whole.
    RootLock::make(path);
}

Root::Root(QString const& path, For purpose, std::chrono::milliseconds wait)
    : path_(path), purpose_(purpose), lock_(path, RootLock::Mode::Exclusive, wait) {
    setRoot(path);
    markOpen();
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
    if (!mark.open(QIODevice::WriteOnly))
        throw CommandFailure(ExitCode::Failed, "can't write " + mark.fileName());
}

std::unique_ptr<Journal> Root::openJournal(Journal::Format format) {
    auto const directory = FixedPath::repository();
    auto journal = Journal::open(directory,
                                 {FixedPath::repositoryStores(), FixedPath::repositoryStreams(),
                                  FixedPath::repositoryStreamData(), FixedPath::repository()},
                                 format);
    if (!journal)
        throw CommandFailure(ExitCode::Failed, journal.status().text());
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
    streams_ = std::make_shared<Streams>(
        FixedPath::repositoryStreams(), FixedPath::repositoryStreamData(),
        Streams::configure(configuration.getXmlList(nullptr, "StreamsConfiguration")));
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
        throw CommandFailure(ExitCode::Failed,
                             "the store " + source.name +
                                 " can't be marked for deletion: " + marked.text());
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
            throw CommandFailure(ExitCode::Failed, "not all of the store " + name +
                                                       " could be erased: " + erased.text() +
                                                       "; repeat the command");
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
        throw CommandFailure(ExitCode::Failed,
                             "the store " + source.name + " takes no logs: " + started.text());
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
            throw CommandFailure(ExitCode::Failed,
                                 "the deduplication queue failed: " + drained.text());
    }
    if (!cleanup_)
        cleanup_ = std::make_unique<CleanupWorker>(streams_);
    if (!cleanup_->drain())
        throw CommandFailure(ExitCode::Failed, "the cleanup queue failed");
}

CommandFailure Root::notWritten() const {
    return {ExitCode::Failed, "not everything could be written to " + path_ +
                                  "; the repository is as it was at its last checkpoint. Is "
                                  "there space? Else run 'morva check'"};
}

CommandFailure Root::doesNotOpen(Source const& source, Status const& why) {
    return {ExitCode::Failed,
            "the store " + source.name + " does not open: " + why.text() + "; run 'morva check'"};
}

Status Root::safePoint() {
    try {
        checkpointIfDue();
        return {};
    } catch (CommandFailure const& failure) {
        return Status::failure(Status::Code::IoError, "make a checkpoint of", path_,
                               QString::fromUtf8(failure.what()));
    }
}

void Root::flush() {
    bool const stores = Replication::StoreTable::flushAll().ok();
    bool const pool = streams_->flush();
    if (!stores || !pool)
        throw notWritten();
}

std::vector<std::uint32_t> Root::openStores() const {
    std::vector<std::uint32_t> ids;
    for (auto const& store : open_)
        ids.push_back(static_cast<std::uint32_t>(store->id().value));
    return ids;
}

/// After a checkpoint, which holds these stores.
void Root::keep(std::vector<std::uint32_t> const& stores) {
    for (auto const id : stores)
        sources_.markMade(id);
    sources_.save();
}

void Root::checkpoint() {
    OperationGate::EnterAlone const alone;
    flush();
    if (!journal_->checkpoint())
        throw notWritten();
    lastCheckpoint_ = std::chrono::steady_clock::now();
    keep(openStores());
    for (auto const& store : std::as_const(open_))
        store->saved().durable();
}

void Root::checkpointIfDue() {
    if (journal_->pendingBytes() > pendingLimit ||
        std::chrono::steady_clock::now() - lastCheckpoint_ > checkpointInterval)
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
    // Where it can't be done now, the next opening does it, and tells the user.
    if (close() && journal_->rollBack())
        QFile::remove(openMark());
    journal_.reset();
    sources_.takeBack();
}

void Root::finish() {
    if (!streams_)
        return;
    if (purpose_ == For::Reading) {
        takeBack();
        return;
    }
    dedup_.reset();
    cleanup_.reset();
    try {
        OperationGate::EnterAlone const alone;
        flush();
    } catch (...) {
        takeBack();
        throw;
    }
    auto const stores = openStores();
    (void)close(); // what is still in use has been traced, and is flushed
    if (!journal_->checkpoint()) {
        takeBack();
        throw notWritten();
    }
    journal_.reset();
    QFile::remove(openMark());
    keep(stores);
}

} // namespace Morva
