#pragma once

#include "base/messages/XmlList.h"
#include "base/process/Context.h"
#include "base/process/FixedPath.h"
#include "peers/check/Checker.h"
#include "replication/common/log/LogBuilder.h"
#include "replication/common/rules/RuleFiles.h"
#include "replication/repository/replay/RepositoryPosix.h"
#include "replication/repository/store/DedupWorker.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/OperationGate.h"
#include "replication/repository/streams/Streams.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace Morva::Testing {

/// A repository in a temporary root, filled through a sink as a source's logs would.
class SampleRepository {
public:
    SampleRepository() {
        must(FixedPath::setRoot(directory_.path()), "root");
        for (auto const& path : {FixedPath::repositoryStores(), FixedPath::repositoryStreams(),
                                 FixedPath::repositoryStreamData(), FixedPath::repository()})
            must(QDir().mkpath(path), "mkpath");
        Replication::SourceRules source;
        source.storeName = QStringLiteral("sample");
        auto const rules = Replication::RuleFiles::make({source});
        must(rules && rules->write(1), "rules");
        open();
    }
    ~SampleRepository() {
        close();
        FixedPath::setRoot({});
    }
    SampleRepository(SampleRepository const&) = delete;
    SampleRepository& operator=(SampleRepository const&) = delete;

    [[nodiscard]] QString path(char const* below = "") const {
        return directory_.path() + "/repository/" + QLatin1String(below);
    }
    [[nodiscard]] static CheckReport check(bool readData = false) {
        CheckOptions options;
        options.readData = readData;
        return checkRepository(RepositoryPaths::current(), options);
    }

    void open() {
        XmlList settings;
        settings.set("DataGrowSize", std::uint64_t{262144});
        streams_ = std::make_shared<Replication::Streams>(
            FixedPath::repositoryStreams(), FixedPath::repositoryStreamData(),
            Replication::Streams::configure(settings));
        must(static_cast<bool>(*streams_), "pool");
        Replication::Store::configure({}, streams_, nullptr);
        Replication::StoreIdentity const identity(Replication::ReplayId{1},
                                                  Context::machineName().name(),
                                                  QStringLiteral("repository-sample"));
        Replication::StoreId const id{1};
        auto store = Replication::Store::open(id, identity);
        if (store.code() == Status::Code::NotFound)
            store = Replication::Store::create(id, identity, true);
        must(static_cast<bool>(store), "store");
        store_ = *std::move(store);
        Replication::DataSink::Identity sink;
        sink.name = QStringLiteral("repository-sample");
        sink.sourceMachine = Context::machineName().name();
        sink.target = QStringLiteral("sample");
        sink.stateFile = FixedPath::repository() + "/state-1";
        sink.ruleSet = 1;
        sink_ = std::make_unique<Replication::RepositoryPosix>(sink, Replication::ReplayId{1},
                                                               store_, streams_);
        must(sink_->start().ok(), "sink");
        if (sink_->needsResync())
            sink_->needsResync(false);
    }
    void close() {
        if (!streams_)
            return;
        must(sink_->handleShutdown().ok(), "sink");
        sink_.reset();
        {
            Replication::OperationGate::EnterAlone const alone;
            must(store_->flush().ok(), "flush");
        }
        store_.reset();
        Replication::Store::closeAll();
        streams_.reset();
    }

    void mkdir(std::string const& path) {
        begin(Replication::LogType::PosixMkdir).text(Field::File, path).number(Field::Mode, 040755);
        apply();
    }
    void create(std::string const& path) {
        begin(Replication::LogType::PosixCreate)
            .number(Field::FileId, ++fileId_)
            .text(Field::File, path)
            .number(Field::Mode, 0100644);
        apply();
        begin(Replication::LogType::Close).number(Field::FileId, fileId_);
        apply();
    }
    void write(std::string const& path, std::uint64_t offset, QByteArray const& bytes) {
        begin(Replication::LogType::PosixWritePath)
            .text(Field::File, path)
            .number(Field::Offset, offset)
            .number(Field::Length, static_cast<std::uint64_t>(bytes.size()))
            .bytes(Field::Data, Extent(bytes));
        apply();
    }
    void make(std::string const& path, QByteArray const& bytes) {
        create(path);
        write(path, 0, bytes);
    }
    void link(std::string const& from, std::string const& to) {
        begin(Replication::LogType::PosixLink).text(Field::From, from).text(Field::To, to);
        apply();
    }
    void rename(std::string const& from, std::string const& to) {
        begin(Replication::LogType::PosixRename).text(Field::From, from).text(Field::To, to);
        apply();
    }
    void unlink(std::string const& path) {
        begin(Replication::LogType::PosixUnlink).text(Field::File, path);
        apply();
    }
    void truncate(std::string const& path, std::uint64_t size) {
        begin(Replication::LogType::PosixTruncate)
            .text(Field::File, path)
            .number(Field::Size, size);
        apply();
    }
    /// The instance of a new snapshot.
    Replication::Instance snapshot() {
        must(store_->snapshots().userSnapshot(0, ++time_, QStringLiteral("sample")).ok(),
             "snapshot");
        return store_->currentInstance();
    }
    void deleteSnapshot(Replication::Instance instance) {
        must(store_->snapshots().deleteSnapshot(instance).ok(), "delete snapshot");
    }
    void drain() {
        must(Replication::DedupWorker(streams_).drain().ok(), "dedup queue");
        must(Replication::CleanupWorker(streams_).drain(), "cleanup queue");
    }

    [[nodiscard]] static QByteArray bytes(int count, int seed) {
        QByteArray result(count, Qt::Uninitialized);
        std::uint32_t state = static_cast<std::uint32_t>(seed) * 2654435761U + 1;
        for (char& byte : result)
            byte = static_cast<char>((state = state * 1664525U + 1013904223U) >> 24);
        return result;
    }

    /// Everything that a checker has to deal with: small and large files, equal contents, links,
    /// several snapshots, versions, deleted files, a retired snapshot, pending deletions.
    void fill() {
        mkdir("/docs");
        mkdir("/docs/deep");
        make("/docs/small", "a few bytes");
        make("/docs/medium", bytes(20000, 1));
        make("/docs/twin", bytes(20000, 1));
        make("/docs/deep/large", bytes(400000, 2));
        make("/docs/doomed", bytes(30000, 3));
        link("/docs/medium", "/docs/deep/second");
        for (int i = 0; i < 120; ++i)
            create("/docs/deep/a name that fills pages " + std::to_string(i));
        first = snapshot();
        write("/docs/medium", 5000, bytes(9000, 4));
        write("/docs/deep/large", 200000, bytes(50, 5));
        unlink("/docs/doomed");
        make("/docs/third", bytes(20000, 1));
        second = snapshot();
        drain();
        write("/docs/small", 3, "xx");
        rename("/docs/deep", "/moved");
        make("/moved/short-lived", bytes(8000, 6));
        third = snapshot();
        deleteSnapshot(second);
        drain();
        unlink("/moved/short-lived");
        truncate("/docs/twin", 100);
        make("/docs/gone", bytes(200000, 7));
        unlink("/docs/gone"); // its stream waits for cleanup
    }
    Replication::Instance first, second, third;

private:
    using Field = Replication::LogField;

    static void must(bool done, char const* what) {
        if (!done)
            throw std::runtime_error(std::string("failed: ") + what);
    }
    Replication::LogBuilder& begin(Replication::LogType type) {
        builder_.ruleSet(1);
        return builder_.begin(type, ++sequence_).time(++time_);
    }
    void apply() {
        auto const log = std::make_shared<Replication::LogEntry>();
        must(log->build(builder_), "build");
        must(sink_->takeLog(log) == Replication::DataSink::Outcome::Applied, "log");
    }

    QTemporaryDir directory_;
    std::shared_ptr<Replication::Streams> streams_;
    Replication::StorePointer store_;
    std::unique_ptr<Replication::RepositoryPosix> sink_;
    Replication::LogBuilder builder_;
    std::uint64_t sequence_ = 0;
    std::uint32_t time_ = 1'000'000;
    std::uint32_t fileId_ = 0;
};

} // namespace Morva::Testing
