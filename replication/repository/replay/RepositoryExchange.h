#pragma once

#include "replication/repository/replay/Sink.h"

#include <map>
#include <string>
#include <string_view>

namespace Replication {

/// The sink of mail store sources. Logs name an object by its path once, when it is opened, and
/// from then on by the text that the source gave it; what an object holds are named streams. The
/// objects of a path's folders are directories, made as they are needed.
///
/// Objects are stored without versions between snapshots: no rules apply to them. Paths are parted
/// by "/", and compared without case.
class RepositoryExchange : public Sink {
public:
    using Sink::Sink;

protected:
    /// Also lets go of the open objects.
    [[nodiscard]] Morva::Status dropHandles() override;
    void forgetHandles() override;
    void saveMore(SavedHandles& handles) override;
    [[nodiscard]] Morva::Status takeUpMore(SavedHandles& handles) override;
    [[nodiscard]] QList<QStringList> pathsOf(LogEntry const& log) override;
    void openNothing(LogEntry const& log) override;
    [[nodiscard]] QString openPath(LogEntry const& log) override;

private:
    /// What a sequence text stands for.
    struct OpenObject {
        /// Of type Excluded for one outside of what is stored, of which logs are swallowed; of type
        /// Unknown for one that could not be had, which has failed its log already.
        SinkHandlePointer object;
        /// The streams in use, by their names in the store's normal form.
        std::map<QString, SinkHandlePointer> streams;
        std::uint32_t writes = 0;
    };
    enum class MakeStream { No, Yes };

    [[nodiscard]] bool replayBody(LogEntry const& log) override;

    /// False for a path that doesn't start with the source root.
    [[nodiscard]] bool translateAsList(QStringList& parts, std::string_view path) const;
    [[nodiscard]] bool createObject(LogEntry const& log);
    [[nodiscard]] bool createStream(LogEntry const& log);
    [[nodiscard]] bool writeStream(LogEntry const& log);
    [[nodiscard]] bool closeObject(LogEntry const& log);
    [[nodiscard]] bool deleteObject(LogEntry const& log);
    [[nodiscard]] bool resync(LogEntry const& log);

    /// Null, with a trace, for a sequence text that stands for nothing.
    [[nodiscard]] OpenObject* openObject(LogEntry const& log);
    /// A stream of an object that is there; null when it can't be had.
    [[nodiscard]] SinkHandlePointer stream(OpenObject& open, QString const& name, MakeStream make);
    void enter(std::string_view sequence, OpenObject open);

    std::map<std::string, OpenObject, std::less<>> openObjects_;
};

} // namespace Replication
