#pragma once

#include "base/process/Context.h"
#include "base/process/FixedPath.h"
#include "fuzz/Input.h"
#include "replication/common/intake/DataSink.h"
#include "replication/common/log/LogBuilder.h"
#include "replication/common/rules/RuleFiles.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/Streams.h"

#include <QDir>
#include <QTemporaryDir>

#include <memory>

namespace Morva::Fuzzing {

/// A pool, a store that compares without case, and the sink of its one source. All inputs of a
/// target use them; each begins with an empty store. To be made `thread_local`, since it must end
/// before what the thread keeps of the pool's files.
template <class Sink> struct SinkPlace {
    /// `source` needs no names and numbers.
    explicit SinkPlace(Replication::SourceRules source) {
        using namespace Replication;
        require(FixedPath::setRoot(directory.path()), "root");
        Context::machineName(MachineName(QStringLiteral("machine")));
        QDir().mkpath(FixedPath::repositoryStreams());
        QDir().mkpath(FixedPath::repositoryStreamData());
        pool =
            std::make_shared<Streams>(FixedPath::repositoryStreams(),
                                      FixedPath::repositoryStreamData(), Streams::Configuration{});
        Store::configure({}, pool, nullptr);
        ReplayId const replayId{source.replayId};
        auto made = Store::create(StoreId{1}, {replayId, "machine", "repository-store"}, false);
        require(static_cast<bool>(made), "new store");
        store = *std::move(made);
        require(*pool && store, "store");
        source.storeName = QStringLiteral("store");
        auto const files = RuleFiles::make({source});
        require(files && files->write(1), "rules");
        DataSink::Identity identity;
        identity.stateFile = directory.filePath(QStringLiteral("state-1"));
        identity.ruleSet = 1;
        sink = std::make_unique<Sink>(identity, replayId, store, pool);
        require(sink->start().ok(), "sink");
    }
    ~SinkPlace() {
        sink.reset();
        store.reset();
        Replication::Store::closeAll();
        FixedPath::setRoot({});
    }
    SinkPlace(SinkPlace const&) = delete;
    SinkPlace& operator=(SinkPlace const&) = delete;

    /// Gives the log that `builder` holds to the sink.
    Replication::DataSink::Outcome take(Replication::LogBuilder& builder) {
        auto const log = std::make_shared<Replication::LogEntry>();
        require(log->build(builder), "log");
        return sink->takeLog(log);
    }
    /// Ends an input: nothing is open any more, and nothing is left.
    void empty() {
        using namespace Replication;
        LogBuilder builder;
        builder.begin(LogType::Message, ++sequence)
            .number(LogField::MessageType, DataSink::SourceStarted);
        static_cast<void>(take(builder));
        auto const root = *store->activeHandles().get(store->rootId());
        require(root && store->directories().discardDirectory(*root), "the store is emptied");
    }

    QTemporaryDir directory;
    std::shared_ptr<Replication::Streams> pool;
    Replication::StorePointer store;
    std::unique_ptr<Sink> sink;
    std::uint64_t sequence = 0; ///< of the last log that the sink was given
};

} // namespace Morva::Fuzzing
