#include "peers/morva/Root.h"

#include "base/files/RawFile.h"
#include "base/process/Config.h"
#include "base/process/Context.h"
#include "base/process/FixedPath.h"
#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "peers/morva/ExitCode.h"
#include "replication/common/rules/RuleFiles.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/OperationGate.h"

#include <QDir>
#include <QFile>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Morva {

using Replication::CleanupWorker;
using Replication::DedupWorker;
using Replication::OperationGate;
using Replication::ReplayId;
using Replication::RuleFiles;
using Replication::Sink;
using Replication::SourceKind;
using Replication::SourceRules;
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
constexpr std::chrono::seconds checkpointInterval{30};
constexpr std::uint64_t pendingLimit = 256 << 20;

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

void makePath(QString const& path) {
    if (!QDir().mkpath(path))
        throw CommandFailure(ExitCode::Failed, "can't make the directory " + path);
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

Root::Lock::Lock(QString const& path) {
    if (path.isEmpty())
        throw CommandFailure(ExitCode::NoRepository,
                             "no repository is named: say where with --root or MORVA_ROOT");
    auto const name = QFile::encodeName(path + "/morva.lock");
    descriptor_ = ::open(name.constData(), O_RDWR | O_CLOEXEC);
    if (descriptor_ < 0)
        throw CommandFailure(ExitCode::NoRepository,
                             "there is no repository at " + path + " (see 'morva init')");
    if (::flock(descriptor_, LOCK_EX | LOCK_NB) == 0)
        return;
    auto const error = errno;
    ::close(std::exchange(descriptor_, -1));
    if (error == EWOULDBLOCK)
        throw CommandFailure(ExitCode::InUse,
                             "the repository at " + path + " is in use by another process");
    throw CommandFailure(ExitCode::Failed, "can't lock " + path + ": " + std::strerror(error));
}

Root::Lock::~Lock() {
    if (descriptor_ >= 0)
        ::close(descriptor_);
}

void Root::init(QString const& path) {
    if (QFile::exists(path + "/morva.lock"))
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
    QFile lock(path + "/morva.lock");
    if (!lock.open(QIODevice::WriteOnly | QIODevice::NewOnly))
        throw CommandFailure(ExitCode::Failed, "can't make " + lock.fileName());
}

Root::Root(QString const& path, For purpose) : path_(path), purpose_(purpose), lock_(path) {
    setRoot(path);
    markOpen();
    journal_ = openJournal();
    readSources();
    openPool();
}

Root::~Root() {
    try {
        finish();
    } catch (CommandFailure const&) {
        // Whoever wants to know calls `finish` himself.
    }
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

std::unique_ptr<Journal> Root::openJournal() {
    auto const directory = FixedPath::repository();
    auto journal =
        Journal::open(directory, {FixedPath::repositoryStores(), FixedPath::repositoryStreams(),
                                  FixedPath::repositoryStreamData(), FixedPath::repository()});
    if (!journal)
        throw CommandFailure(ExitCode::Failed,
                             "the journal in " + directory + " can't be read or carried out");
    return journal;
}

void Root::readSources() {
    auto const list = Config::load(configFile("sources.cfg"));
    if (!list.usable())
        throw CommandFailure(ExitCode::Failed, "can't read " + configFile("sources.cfg"));
    for (XmlListIterator item(list, QStringLiteral("Source")); item; ++item) {
        auto const entry = item.getXmlList();
        Source source;
        source.name = entry.get("Name", QString());
        source.sourceRoot = entry.get("Root", QStringLiteral("/"));
        source.id = entry.get("Id", std::uint32_t{0});
        for (XmlListIterator suffix(entry, QStringLiteral("DedupExclude")); suffix; ++suffix)
            source.dedupExclude += suffix.getString();
        if (source.name.isEmpty() || source.id == 0)
            throw CommandFailure(ExitCode::Failed, configFile("sources.cfg") + " is damaged");
        sources_ += source;
        lastId_ = std::max(lastId_, source.id);
    }
    lastId_ = std::max(lastId_, list.get("LastId", std::uint32_t{0}));
    ruleSet_ = Replication::latestRuleSetId();
    Replication::DisRules const rules(ruleSet_);
    for (auto& source : sources_)
        source.kind = sourceKind(rules, source.id).value_or(SourceKind::Posix);
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

bool Root::hasSource(QString const& name) const {
    return std::any_of(sources_.begin(), sources_.end(),
                       [&](Source const& source) { return source.name == name; });
}

Root::Source const& Root::source(QString const& name) const {
    if (name.isEmpty() && sources_.size() == 1)
        return sources_.front();
    if (name.isEmpty())
        throw CommandFailure(ExitCode::Usage, sources_.isEmpty()
                                                  ? "the repository has no store yet"
                                                  : "say which store is meant with --store");
    for (auto const& source : sources_)
        if (source.name == name)
            return source;
    throw CommandFailure(ExitCode::Failed, "there is no store named " + name);
}

Root::Source const& Root::addSource(QString const& name, QString const& sourceRoot,
                                    QStringList const& dedupExclude, SourceKind kind) {
    sources_ += Source{name, sourceRoot, ++lastId_, dedupExclude, kind};
    saveSources();
    return sources_.back();
}

void Root::saveSources() {
    XmlList all;
    all.set("LastId", lastId_);
    for (auto const& source : std::as_const(sources_)) {
        XmlList entry;
        entry.set("Name", source.name);
        entry.set("Root", source.sourceRoot);
        entry.set("Id", source.id);
        for (auto const& suffix : source.dedupExclude)
            entry.set("DedupExclude", suffix, XmlList::SetTypeE::Add);
        all.set("Source", entry, XmlList::SetTypeE::Add);
    }
    writeRules();
    save("sources.cfg", all);
}

void Root::writeRules() {
    QList<SourceRules> streams;
    for (auto const& source : std::as_const(sources_)) {
        SourceRules stream;
        stream.storeName = source.name;
        stream.kind = source.kind;
        stream.sourceRoot = source.sourceRoot;
        stream.replayId = source.id;
        stream.firstRule = source.id;
        stream.dedupExclude = source.dedupExclude;
        streams += stream;
    }
    auto const files = RuleFiles::make(streams);
    if (!files || !files->write(ruleSet_ + 1))
        throw CommandFailure(ExitCode::Failed, "can't write the rule files of " + path_);
    ++ruleSet_;
}

StorePointer Root::store(Source const& source, Marked marked) {
    StoreId const id{source.id};
    for (auto const& store : std::as_const(open_))
        if (store->id() == id)
            return store;
    StoreIdentity identity(ReplayId{source.id}, Context::machineName().name(),
                           "repository-" + source.name);
    auto const exists = QFile::exists(Store::directoryOf(id) + "/files");
    if (source.kind == SourceKind::Exchange)
        identity.filterType = Replication::eFilterExchange;
    auto store = exists ? Store::open(id, identity)
                        : Store::create(id, identity, caseSensitive(source.kind));
    if (!store && exists) {
        store = Store::open(id, true);
        if (store && !store->markedForDeletion())
            store.reset();
        if (store && marked == Marked::Refused)
            throw CommandFailure(ExitCode::Failed, "the store " + source.name +
                                                       " waits for its deletion: 'morva erase " +
                                                       source.name + "' ends it");
    }
    if (!store)
        throw CommandFailure(ExitCode::Failed, "the store " + source.name + " does not open");
    if (store->unclean() && store->valid() && purpose_ == For::Changing)
        store->freeUnclaimed();
    open_ += store;
    return store;
}

void Root::markForDeletion(Source const& source, bool deactivate) {
    open_.removeIf([&](StorePointer const& store) { return store->id().value == source.id; });
    StoreId const id{source.id};
    if (Store::list().contains(id))
        throw CommandFailure(ExitCode::Failed, "The store is currently in use");
    auto const store = Store::open(id, true);
    if (!store)
        throw CommandFailure(ExitCode::Failed, "the store " + source.name + " does not open");
    if (store->markedForDeletion())
        return;
    if (store->active() && !deactivate)
        throw CommandFailure(ExitCode::Failed, "the store " + source.name +
                                                   " is active, since the rules feed it: give "
                                                   "--deactivate to end that and erase it");
    store->active(false);
    if (!store->markForDeletion())
        throw CommandFailure(ExitCode::Failed, "The store is in the wrong state to be deleted");
    // The mark stands when the last pointer goes, and nobody can open the store from then on.
}

void Root::erase(QString const& name, bool deactivate) {
    // An empty name is most likely one that got lost on the way here.
    if (!hasSource(name))
        throw CommandFailure(ExitCode::Failed, "there is no store named \"" + name + '"');
    Source const source = this->source(name);
    StoreId const id{source.id};
    auto const directory = Store::directoryOf(id);
    // Without "files" an erasing had come to its end but for what follows here.
    if (QFile::exists(directory + "/files")) {
        markForDeletion(source, deactivate);
        auto const store = Store::open(id, true);
        if (!store || !store->erase())
            throw CommandFailure(ExitCode::Failed,
                                 "not all of the store " + name + " could be erased; try again");
    }
    QDir().rmdir(directory);
    if (QFile::exists(directory))
        throw CommandFailure(ExitCode::Failed, "can't remove " + directory);
    if (QFile::exists(stateFile(source)) && !RawFile::remove(stateFile(source)))
        throw CommandFailure(ExitCode::Failed, "can't remove " + stateFile(source));
    drain(false);
    // The name goes last: until the rest is kept, the store must be there to be named.
    checkpoint();
    sources_.removeIf([&](Source const& each) { return each.id == source.id; });
    saveSources();
}

std::unique_ptr<Sink> Root::sink(Source const& source) {
    auto const target = store(source);
    if (target->caseSensitive() != caseSensitive(source.kind))
        throw CommandFailure(ExitCode::Failed, "the rules of the store " + source.name +
                                                   " tell of another kind of source than it has");
    target->active(true);
    Sink::Identity identity;
    identity.name = "repository-" + source.name;
    identity.sourceMachine = Context::machineName().name();
    identity.target = source.name;
    identity.stateFile = stateFile(source);
    identity.ruleSet = ruleSet_;
    auto sink = makeSink(source.kind, identity, ReplayId{source.id}, target, streams_);
    if (!sink->start())
        throw CommandFailure(ExitCode::Failed,
                             "the rules of the store " + source.name + " can't be loaded");
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
        if (!dedup_->drain())
            throw CommandFailure(ExitCode::Failed, "the deduplication queue failed");
    }
    if (!cleanup_)
        cleanup_ = std::make_unique<CleanupWorker>(streams_);
    if (!cleanup_->drain())
        throw CommandFailure(ExitCode::Failed, "the cleanup queue failed");
}

CommandFailure Root::notWritten() const {
    return {ExitCode::Failed, "not everything could be written to " + path_ +
                                  "; is the disk full? The repository is as it was at its last "
                                  "checkpoint"};
}

void Root::flush() {
    bool flushed = true;
    for (auto const& store : std::as_const(open_))
        flushed = store->flush() && flushed;
    flushed = streams_->flush() && flushed;
    if (!flushed)
        throw notWritten();
}

void Root::checkpoint() {
    OperationGate::EnterAlone const alone;
    flush();
    if (!journal_->checkpoint())
        throw notWritten();
    lastCheckpoint_ = std::chrono::steady_clock::now();
}

void Root::checkpointIfDue() {
    if (journal_->pendingBytes() > pendingLimit ||
        std::chrono::steady_clock::now() - lastCheckpoint_ > checkpointInterval)
        checkpoint();
}

void Root::finish() {
    if (!streams_)
        return;
    dedup_.reset();
    cleanup_.reset();
    bool flushed = true;
    try {
        OperationGate::EnterAlone const alone;
        flush();
    } catch (CommandFailure const&) {
        flushed = false;
    }
    open_.clear();
    Store::closeAll();
    if (streams_.use_count() != 1)
        MORVA_TRACE(Always)
            << "The pool is in use beyond its end, and its files stay marked as open";
    streams_.reset();
    bool const kept =
        purpose_ == For::Reading ? journal_->rollBack() : flushed && journal_->checkpoint();
    journal_.reset();
    if (!kept)
        throw notWritten();
    QFile::remove(openMark());
}

} // namespace Morva
