// Which operation a log is, and where its path lies.

#include "replication/repository/replay/RepositoryWindows.h"

#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/DirectoryPage.h"
#include "replication/repository/store/Store.h"

#include <algorithm>

namespace Replication {

using Morva::LogLevelE;
using Morva::LogLine;

namespace {

constexpr QChar separator = u'\\';
/// UTF-16 units of the longest path that Windows has.
constexpr qsizetype maximumPath = 32767;
/// UTF-16 units of the longest name of a stream, its colon included.
constexpr qsizetype maximumStreamName = 256;
auto const dataSuffix = QStringLiteral(":$data");
auto const logSource = QStringLiteral("Replication");

/// Whether a name can be one in a directory.
bool isName(QStringView name) {
    return !name.isEmpty() && name.size() <= static_cast<qsizetype>(DirectoryPage::maximumName) &&
           name != u"." && name != u".." && !name.contains(u'\\') && !name.contains(u'/');
}

} // namespace

bool RepositoryWindows::replayBody(LogEntry const& log) {
    switch (log.type()) {
    case LogType::Close:
        return opClose(log);
    case LogType::Write:
        return opWrite(log);
    case LogType::WinCreate:
        return opCreateWin(log);
    case LogType::WinReopen:
        return opReOpenWin(log);
    case LogType::WinRename:
        return opRenameWin(log);
    case LogType::WinSymlink:
        return opSymlinkWin(log);
    case LogType::WinSetEa:
        return opSetEaWin(log);
    case LogType::WinSetAttr:
        return opSetAttrWin(log);
    case LogType::WinLink:
        return opLinkWin(log);
    case LogType::WinUnlink:
        return opUnlinkWin(log);
    case LogType::WinSetQuota: {
        MORVA_METHOD("opSetQuotaWin");
        return scope.result(true);
    }
    case LogType::WinSetSecurity:
        return opSetSecurityWin(log);
    case LogType::WinSetVolumeInfo: {
        MORVA_METHOD("opSetVolumeInfoWin");
        return scope.result(true);
    }
    case LogType::WinSetFsctl:
        return opSetFsctlWin(log);
    case LogType::WinWritePath:
        return opWritePathWin(log);
    case LogType::WinTruncate:
        return opTruncateWin(log);
    case LogType::WinResync:
        return opResyncWin(log);
    case LogType::WinSetValidLength:
        return opSetValidLengthWin(log);
    case LogType::Read:
    case LogType::WinGetEa:
    case LogType::WinGetAttr:
    case LogType::WinGetQuota:
    case LogType::WinGetSecurity:
    case LogType::WinGetVolumeInfo:
    case LogType::WinGetFsctl:
        return true;
    default:
        break;
    }
    auto const type = static_cast<std::uint32_t>(log.type());
    if (log.type() >= LogType::PosixCreate && log.type() <= LogType::PosixReopen)
        MORVA_TRACE(Normal) << "Do not handle Posix logs" << type;
    else if (log.type() >= LogType::ExchangeCreateObject &&
             log.type() <= LogType::ExchangeDeleteObjectToo)
        MORVA_TRACE(Normal) << "Do not handle Exchange logs" << type;
    else
        MORVA_TRACE(Normal) << "Unknown log" << type << ", error code"
                            << log.number(LogField::Status);
    return true;
}

QString const& RepositoryWindows::rootPrefix() {
    if (prefixSource_ != sourceRoot() || prefixSource_.isNull()) {
        prefixSource_ = sourceRoot();
        prefix_ = prefixSource_;
        prefix_.replace(u'/', separator);
        while (prefix_.endsWith(separator))
            prefix_.chop(1);
    }
    return prefix_;
}

QString RepositoryWindows::streamName(LogPath const& path) {
    // Without a preserved name the stream's is the one in canonical case.
    auto const rest = path.casePreservedStreamOffset != 0 || path.casePreserved.starts_with(':')
                          ? path.casePreserved.substr(path.casePreservedStreamOffset)
                          : path.text.substr(path.streamOffset);
    auto name = posixText(rest);
    if (name.endsWith(dataSuffix, Qt::CaseInsensitive))
        name.chop(dataSuffix.size());
    if (name.endsWith(u':'))
        name.chop(1);
    if (name.isEmpty())
        return dataStreamName;
    return name.startsWith(u':') ? name : u':' + name;
}

bool RepositoryWindows::translate(LogPath const& path, Target& out, QStringList& parts) {
    MORVA_TRACE(Debug) << "translate" << path.text << "CaseSensitive" << path.caseSensitive
                       << "FilenameOffset" << path.filenameOffset << "StreamOffset"
                       << path.streamOffset << "CasePreserved" << path.casePreserved
                       << "CasePreservedStreamOffset" << path.casePreservedStreamOffset;
    parts.clear();
    translated_ = posixText(path.text.substr(0, path.streamOffset));
    translated_.replace(u'/', separator);
    auto const& prefix = rootPrefix();
    // The root ends where an element of the path does.
    if (!translated_.startsWith(prefix, Qt::CaseInsensitive) ||
        (translated_.size() > prefix.size() && translated_[prefix.size()] != separator)) {
        MORVA_TRACE(Normal) << translated_ << "does not start with" << sourceRoot();
        return false;
    }
    translated_.remove(0, prefix.size());
    MORVA_TRACE(Debug) << "Translated to" << translated_;
    out.stream = streamName(path);
    out.unnameable = translated_.size() > maximumPath || out.stream.size() > maximumStreamName ||
                     (out.stream != dataStreamName &&
                      (out.stream.indexOf(separator) >= 0 || out.stream.indexOf(u'/') >= 0));
    auto const names = QStringView(translated_).split(separator, Qt::SkipEmptyParts);
    for (qsizetype i = 0; i < names.size() && !out.unnameable; ++i) {
        auto name = names[i].toString();
        if (i + 1 == names.size() && path.casePreservedStreamOffset != 0)
            name = posixText(path.casePreserved.substr(0, path.casePreservedStreamOffset));
        // The colon of a stream is no part of the file's name; that of a drive is.
        bool const drive = i == 0 && prefix.isEmpty();
        if (i + 1 == names.size() && !drive && name.endsWith(u':'))
            name.chop(1);
        out.unnameable = !isName(name);
        if (!out.unnameable)
            parts += name;
    }
    if (out.unnameable)
        leaveOut(posixText(path.text), QStringLiteral("a name in its path can't be stored"));
    return !out.unnameable;
}

RepositoryWindows::Target RepositoryWindows::target(LogEntry const& log, bool isDirectory) {
    Target result;
    QStringList parts;
    if (translate(log.path(), result, parts))
        static_cast<Place&>(result) = place(std::move(parts), isDirectory);
    else
        result.path = std::move(parts);
    return result;
}

void RepositoryWindows::askFor(QStringList const& path) {
    auto const text = path.join(u'/');
    MORVA_TRACE(Normal) << "Need to partial resync" << text;
    if (addResyncPath(text, false))
        LogLine(logSource, LogLevelE::Notice)
            << "Partial resynchronization of %1m to %2s required %3p" << identity().sourceMachine
            << identity().target << Morva::PlainText(text);
}

bool RepositoryWindows::askFor(LogEntry const& log, SinkHandle const& handle, char const* fault) {
    MORVA_TRACE(Always) << fault << "OpenSeqNo" << log.fileId() << pathOf(handle).join(u'/');
    askFor(pathOf(handle));
    return true;
}

bool RepositoryWindows::opSymlinkWin(LogEntry const& log) {
    MORVA_TRACE(Always) << "Symlinks are not supported"
                        << "Failed to symlink OpenSeqNo" << log.fileId();
    return true;
}

bool RepositoryWindows::opResyncWin(LogEntry const& log) {
    MORVA_TRACE(Normal) << "Resynchronization asked for" << log.path().text << ", error code"
                        << log.number(LogField::Status);
    auto const where = target(log, (log.flags() & logFlagDirectory) != 0);
    if (where.space != Space::Inside) {
        MORVA_TRACE(Normal) << "Failed to translate path" << log.path().text;
        return true;
    }
    if (addResyncPath(where.path.join(u'/'), false))
        LogLine(logSource, LogLevelE::Notice)
            << "Filter on source node '%1m' has requested a resynchronization for file %2s"
            << identity().sourceMachine << posixText(log.path().text);
    return true;
}

} // namespace Replication
