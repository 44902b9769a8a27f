#pragma once

#include "base/files/FaultyFiles.h"
#include "base/trace/Log.h"
#include "replication/common/log/LogBuilder.h"
#include "replication/common/rules/RuleFiles.h"
#include "replication/repository/replay/RepositoryPosix.h"
#include "replication/repository/store/StoreFixture.h"

#include <sys/stat.h>

#include <functional>

namespace Replication {

/// A sink whose handles a test may look at.
class OpenPosixSink : public RepositoryPosix {
public:
    using RepositoryPosix::closedHandles;
    using RepositoryPosix::notToBackup;
    using RepositoryPosix::openHandles;
    using RepositoryPosix::RepositoryPosix;

    /// The type of the handle of a number; 0 if there is none among the open ones.
    [[nodiscard]] std::uint32_t typeOf(std::uint32_t fileId) {
        auto const handle = std::static_pointer_cast<SinkHandle>(openHandles().value(fileId));
        return handle ? std::uint32_t{handle->type} : 0;
    }
};

/// Constructed before the store, so that its files obey.
struct FaultyDisk {
    Morva::FaultyFiles files_;
};

/// A store of the source directory /src, its rules and its sink.
class PosixReplayFixture : protected FaultyDisk, public StoreFixture {
protected:
    using Outcome = DataSink::Outcome;
    using Change = std::function<void(LogBuilder&)>;
    using F = LogField;
    static constexpr std::uint32_t rule = 1;
    static constexpr std::uint32_t backupOperation = 2;
    static constexpr std::uint32_t cdpOperation = 3;

    PosixReplayFixture() {
        Morva::Log::install([this](Morva::LogMessage const& message) { said_ += message.text; });
        source_.storeName = "home";
        source_.sourceRoot = "/src";
        source_.replayId = 7;
        writeRules(1);
        create();
        start();
    }
    ~PosixReplayFixture() override {
        sink_.reset();
        Morva::Log::remove();
    }

    void start() {
        DataSink::Identity identity;
        identity.name = "repository-home";
        identity.sourceMachine = "machine";
        identity.target = "home";
        identity.stateFile = root_.filePath("state-7");
        identity.ruleSet = 1;
        sink_ = std::make_unique<OpenPosixSink>(identity, ReplayId{7}, store_, streams_);
        ASSERT_TRUE(sink_->start());
        sink_->needsResync(false);
    }
    /// Rules that version, back up and protect continuously.
    void writeRules(std::uint32_t ruleSet, bool resyncRequired = false) {
        auto files = RuleFiles::make({source_});
        ASSERT_TRUE(files);
        auto policy = files->policyRules.getXmlList(nullptr, "Policy");
        auto const add = [&policy](DisDataOp::Type type, std::uint32_t id) {
            Morva::XmlList operation;
            operation.set("OperationId", id);
            for (auto const* key : {"Retention", "RecoveryPointObjective", "RecoveryTimeObjective"})
                operation.set(QString::fromLatin1(key), "");
            policy.set(DisDataOp::itemName(type), operation);
        };
        add(DisDataOp::eBackup, backupOperation);
        add(DisDataOp::eCdp, cdpOperation);
        files->policyRules.set("Policy", policy);
        auto stream = files->replayRules.getXmlList(nullptr, "ReplayStream");
        auto policies = stream.getXmlList(nullptr, "Policies");
        Morva::XmlList operations;
        for (std::uint32_t id = 1; id <= cdpOperation; ++id)
            operations.set("DataOp", id, Morva::XmlList::SetTypeE::Add);
        policies.set(QString::number(rule), operations);
        stream.set("Policies", policies);
        stream.set("ResyncRequired", resyncRequired);
        files->replayRules.set("ReplayStream", stream);
        ASSERT_TRUE(files->write(ruleSet));
    }

    [[nodiscard]] Outcome apply(LogType type, Change const& change) {
        LogBuilder builder;
        builder.ruleSet(ruleSet_);
        std::uint32_t const rules[] = {rule, 99};
        builder.rules(rules);
        builder.begin(type, ++sequence_).time(++time_);
        change(builder);
        auto log = std::make_shared<LogEntry>();
        EXPECT_TRUE(log->build(builder));
        return sink_->takeLog(log);
    }
    bool done(LogType type, Change const& change) {
        return apply(type, change) == Outcome::Applied;
    }

    bool create(std::uint32_t id, char const* path, std::uint32_t mode = 0644) {
        return done(LogType::PosixCreate, [&](LogBuilder& log) {
            log.number(F::FileId, id).text(F::File, path).number(F::Mode, mode);
        });
    }
    using StoreFixture::create;
    bool open(std::uint32_t id, char const* path) {
        return done(LogType::PosixOpen,
                    [&](LogBuilder& log) { log.number(F::FileId, id).text(F::File, path); });
    }
    bool close(std::uint32_t id) {
        return done(LogType::Close, [&](LogBuilder& log) { log.number(F::FileId, id); });
    }
    bool write(std::uint32_t id, std::uint64_t offset, QByteArray const& bytes) {
        return done(LogType::Write, [&](LogBuilder& log) {
            log.number(F::FileId, id).number(F::Offset, offset);
            data(log, bytes);
        });
    }
    bool writePath(char const* path, QByteArray const& bytes) {
        return done(LogType::PosixWritePath, [&](LogBuilder& log) {
            log.text(F::File, path);
            data(log, bytes);
        });
    }
    bool make(char const* path, QByteArray const& bytes) {
        return create(1000, path) && close(1000) && writePath(path, bytes);
    }
    bool mkdir(char const* path, std::uint32_t mode = 0755) {
        return done(LogType::PosixMkdir,
                    [&](LogBuilder& log) { log.text(F::File, path).number(F::Mode, mode); });
    }
    bool named(LogType type, char const* path) {
        return done(type, [&](LogBuilder& log) { log.text(F::File, path); });
    }
    bool moved(LogType type, char const* from, char const* to) {
        return done(type, [&](LogBuilder& log) { log.text(F::From, from).text(F::To, to); });
    }
    bool message(DataSink::MessageType type, Morva::XmlList const& details = {}) {
        auto const bytes = details.toBinary();
        return done(LogType::Message, [&](LogBuilder& log) {
            log.number(F::MessageType, type).bytes(F::Data, Morva::Extent(bytes));
        });
    }
    static void data(LogBuilder& log, QByteArray const& bytes) {
        log.number(F::Length, static_cast<std::uint64_t>(bytes.size()))
            .bytes(F::Data, Morva::Extent(bytes));
    }

    /// The live object of a path below the root; null if there is none.
    [[nodiscard]] ActiveHandle::Pointer object(char const* path) {
        auto const parts = QString::fromUtf8(path).split(u'/', Qt::SkipEmptyParts);
        auto const located = store_->directories().locate(parts, PathMode::DoNotBuildPath);
        return located.found ? store_->activeHandles().get(located.key.fileId()) : nullptr;
    }
    [[nodiscard]] std::optional<QByteArray> content(char const* path,
                                                    char16_t const* name = PosixStream::data) {
        auto const handle = object(path);
        auto const stream =
            handle ? handle->fileNode()->openStream(QString::fromUtf16(name)) : nullptr;
        if (!stream)
            return {};
        QByteArray bytes(static_cast<qsizetype>(stream->length()), '\0');
        auto const size = static_cast<std::uint32_t>(bytes.size());
        EXPECT_EQ(stream->read(0, bytes.data(), size), size);
        return bytes;
    }
    [[nodiscard]] std::optional<PosixSecurity> security(char const* path) {
        auto const record = content(path, PosixStream::security);
        return record ? PosixSecurity::decode(Morva::Extent(*record)) : std::nullopt;
    }

    SourceRules source_;
    std::uint32_t ruleSet_ = 1;
    std::uint64_t sequence_ = 0;
    QStringList said_;
    std::unique_ptr<OpenPosixSink> sink_;
};

} // namespace Replication
