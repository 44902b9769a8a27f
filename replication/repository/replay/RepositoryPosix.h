#pragma once

#include "replication/common/values/PosixObject.h"
#include "replication/repository/replay/Sink.h"

#include <functional>
#include <optional>
#include <string_view>

namespace Replication {

/// The sink of POSIX sources. Logs name files by their whole paths, and most need no open handle.
///
/// A log tells what succeeded at the source, so the store follows it: an object that stands where
/// one is made, linked or renamed to gives way to it.
class RepositoryPosix : public Sink {
public:
    using Sink::Sink;

private:
    [[nodiscard]] bool replayBody(LogEntry const& log) override;
    [[nodiscard]] QList<QStringList> pathsOf(LogEntry const& log) override;

    /// False for a path that doesn't start with the source root.
    [[nodiscard]] bool translate(QStringList& parts, std::string_view path) const;
    [[nodiscard]] Place place(std::string_view path, bool isDirectory) const;
    using Sink::place;

    [[nodiscard]] bool opCreatePosix(LogEntry const& log);
    [[nodiscard]] bool opOopenPosix(LogEntry const& log);
    [[nodiscard]] bool opMkdirPosix(LogEntry const& log);
    [[nodiscard]] bool opMknodPosix(LogEntry const& log);
    [[nodiscard]] bool opSymlinkPosix(LogEntry const& log);
    [[nodiscard]] bool opLinkPosix(LogEntry const& log);
    [[nodiscard]] bool opUnlinkPosix(LogEntry const& log);
    [[nodiscard]] bool opRmdirPosix(LogEntry const& log);
    [[nodiscard]] bool opTruncatePosix(LogEntry const& log);
    [[nodiscard]] bool opAttrSet(LogEntry const& log);
    [[nodiscard]] bool opEaSetPosix(LogEntry const& log);
    [[nodiscard]] bool opEaRemovePosix(LogEntry const& log);
    [[nodiscard]] bool opWritePath(LogEntry const& log);
    [[nodiscard]] bool opRename(LogEntry const& log);
    [[nodiscard]] bool opResyncPosix(LogEntry const& log);
    [[nodiscard]] bool writeOp(LogEntry const& log);
    [[nodiscard]] bool CloseOp(LogEntry const& log);

    /// Makes an object of the kind that `security.mode` tells, in place of one that is there.
    [[nodiscard]] SinkHandlePointer makeObject(LogEntry const& log, Place const& place,
                                               PosixSecurity const& security);
    /// An object that is there, without a stream.
    struct Existing {
        bool exists = false; ///< inside and not excluded
        Place place;
        SinkHandlePointer handle; ///< null, traced, when it can't be opened
    };
    [[nodiscard]] Existing existing(std::string_view path);
    /// The "Security" record, a default where there is none; nothing when it can't be read.
    [[nodiscard]] std::optional<PosixSecurity> readSecurity(SinkHandle const& handle);
    [[nodiscard]] bool changeAttributes(LogEntry const& log,
                                        std::function<void(PosixAttributes&)> const& change);
    [[nodiscard]] bool setAttributes(LogEntry const& log, FileContext const& context,
                                     SinkHandle& handle);
    [[nodiscard]] bool setSecurity(LogEntry const& log, FileContext const& context,
                                   SinkHandle& handle);
    /// Gives a directory that was there already what a log makes it with.
    [[nodiscard]] bool describeAgain(FileContext const& context, SinkHandle& handle,
                                     PathOperations::NewFile file, PosixSecurity security);
};

} // namespace Replication
