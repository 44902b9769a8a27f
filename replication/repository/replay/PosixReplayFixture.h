#pragma once

#include "replication/repository/replay/ReplayFixture.h"
#include "replication/repository/replay/RepositoryPosix.h"

#include <sys/stat.h>

namespace Replication {

/// A store of the source directory /src.
class PosixReplayFixture : public ReplayFixture<RepositoryPosix> {
protected:
    static constexpr std::uint32_t backupOperation = 2;
    static constexpr std::uint32_t cdpOperation = 3;

    PosixReplayFixture() : ReplayFixture(SourceKind::Posix, QStringLiteral("/src")) {
        writeRules(1);
        start();
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

    bool create(std::uint32_t id, char const* path, std::uint32_t mode = 0644) {
        return done(LogType::PosixCreate, [&](LogBuilder& log) {
            log.number(F::FileId, id).text(F::File, path).number(F::Mode, mode);
        });
    }
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
    static void data(LogBuilder& log, QByteArray const& bytes) {
        log.number(F::Length, static_cast<std::uint64_t>(bytes.size()))
            .bytes(F::Data, Morva::Extent(bytes));
    }

    using ReplayFixture::content;
    [[nodiscard]] std::optional<QByteArray> content(char const* path, char16_t const* name) {
        return content(path, QString::fromUtf16(name));
    }
    [[nodiscard]] std::optional<PosixSecurity> security(char const* path) {
        auto const record = content(path, PosixStream::security);
        return record ? PosixSecurity::decode(Morva::Extent(*record)) : std::nullopt;
    }
};

} // namespace Replication
