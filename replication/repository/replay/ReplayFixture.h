#pragma once

#include "base/files/FaultyFiles.h"
#include "base/trace/Log.h"
#include "replication/common/log/LogBuilder.h"
#include "replication/common/rules/RuleFiles.h"
#include "replication/repository/replay/Sink.h"
#include "replication/repository/store/Outcomes.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/SavedState.h"
#include "replication/repository/store/StoreFixture.h"
#include "replication/repository/streams/OperationGate.h"

#include <functional>
#include <memory>

namespace Replication {

/// A sink whose handles a test may look at.
template <class Base> class OpenSink : public Base {
public:
    using Base::Base;
    using Base::closedHandles;
    using Base::notToBackup;
    using Base::openHandles;
    using Base::state;

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

/// A store of one source directory, its rules and its sink.
template <class Base> class ReplayFixture : protected FaultyDisk, public StoreFixture {
protected:
    using Outcome = DataSink::Outcome;
    using Change = std::function<void(LogBuilder&)>;
    using F = LogField;
    static constexpr std::uint32_t rule = 1;

    ReplayFixture(SourceKind kind, QString const& sourceRoot) {
        Morva::Log::install([this](Morva::LogMessage const& message) { said_ += message.text; });
        source_.kind = kind;
        source_.storeName = "home";
        source_.sourceRoot = sourceRoot;
        source_.replayId = 7;
        auto const files = RuleFiles::make({source_});
        EXPECT_TRUE(files && files->write(1));
        create(caseSensitive(kind));
    }
    ~ReplayFixture() override {
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
        sink_ = std::make_unique<OpenSink<Base>>(identity, ReplayId{7}, store_, streams_);
        ASSERT_TRUE(sink_->start());
        sink_->needsResync(false);
    }
    /// A checkpoint, as far as the store has a part in it.
    [[nodiscard]] bool checkpoint() {
        OperationGate::EnterAlone const alone;
        if (!store_->flush())
            return false;
        store_->saved().durable();
        return true;
    }
    /// What comes after a stop in order, or after an end that came right behind a checkpoint.
    enum class End { Stop, Kill };
    void restart(End end) {
        if (end == End::Stop) {
            EXPECT_TRUE(sink_->handleShutdown());
        }
        EXPECT_TRUE(checkpoint());
        sink_.reset();
        // What its handles ended by going was in memory only.
        if (end == End::Kill)
            store_->retired().clear();
        store_.reset();
        closePool();
        openPool();
        auto opened = Store::open(storeId, false);
        ASSERT_TRUE(opened.ok()) << opened.status().text().toStdString();
        store_ = *std::move(opened);
        // As after an end of which nothing is known.
        EXPECT_TRUE(store_->freeUnclaimed().ok());
        start();
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
    bool message(DataSink::MessageType type, Morva::XmlList const& details = {}) {
        auto const bytes = details.toBinary();
        return done(LogType::Message, [&](LogBuilder& log) {
            log.number(F::MessageType, type).bytes(F::Data, Morva::Extent(bytes));
        });
    }

    /// The live object of a path below the root; null if there is none.
    [[nodiscard]] ActiveHandle::Pointer object(char const* path) {
        auto const parts = QString::fromUtf8(path).split(u'/', Qt::SkipEmptyParts);
        auto const located = value(store_->directories().locate(parts, PathMode::DoNotBuildPath));
        return located.found ? value(store_->activeHandles().get(located.key.fileId())) : nullptr;
    }
    [[nodiscard]] std::optional<QByteArray> content(char const* path,
                                                    QString const& name = dataStreamName) {
        auto const handle = object(path);
        auto const stream = handle ? value(handle->fileNode()->openStream(name)) : nullptr;
        if (!stream)
            return {};
        QByteArray bytes(static_cast<qsizetype>(stream->length()), '\0');
        auto const size = static_cast<std::uint32_t>(bytes.size());
        EXPECT_EQ(stream->read(0, bytes.data(), size), size);
        return bytes;
    }

    SourceRules source_;
    std::uint32_t ruleSet_ = 1;
    std::uint64_t sequence_ = 0;
    QStringList said_;
    std::unique_ptr<OpenSink<Base>> sink_;
};

} // namespace Replication
