#include "peers/morva/Failure.h"

#include <cerrno>

namespace Morva {

QString adviceOn(Status const& status) {
    if (status.error() == EACCES || status.error() == EPERM)
        return QStringLiteral("run the command as the user to whom it belongs");
    switch (status.code()) {
    case Status::Code::Corruption:
        return QStringLiteral("run 'morva check', which lists what is damaged");
    case Status::Code::NoSpace:
        return QStringLiteral("free some space and repeat the command");
    case Status::Code::IoError:
        return QStringLiteral("see the system's log about the disk, then run 'morva check'");
    case Status::Code::NotFound:
        return QStringLiteral("is its volume mounted?");
    case Status::Code::ReadOnly:
        return QStringLiteral("the command writes, and needs a medium that can be written to");
    case Status::Code::Busy:
        return QStringLiteral("repeat the command when the other process has ended");
    case Status::Code::Ok:
    case Status::Code::InvalidArgument:
    case Status::Code::Stopped:
        break;
    }
    return {};
}

CommandFailure commandFailure(QString const& doing, Status const& status) {
    if (status.is(Status::Code::Stopped))
        return {ExitCode::Interrupted,
                QStringLiteral("interrupted: what is done so far is kept, and the same command "
                               "goes on")};
    auto text = doing;
    if (auto const what = status.text(); !what.isEmpty())
        text += QStringLiteral(": ") + what;
    if (auto const advice = adviceOn(status); !advice.isEmpty())
        text += QStringLiteral("; ") + advice;
    return {ExitCode::Failed, text};
}

} // namespace Morva
