// Contents and attributes of open files.

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "replication/common/log/SecurityText.h"
#include "replication/repository/replay/RepositoryWindows.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <algorithm>
#include <array>

namespace Replication {

using Morva::Extent;
using Morva::loadLittle;

namespace {

constexpr std::uint32_t absentTime = 0xFFFFFFFF;
constexpr std::uint32_t blockSize = 4096;
constexpr std::uint32_t zeroRangeSize = 16;

bool isTime(std::uint32_t time) {
    return time != 0 && time != absentTime;
}

} // namespace

// --- contents

bool RepositoryWindows::opWrite(LogEntry const& log) {
    return writeOpen(log);
}

bool RepositoryWindows::opWritePathWin(LogEntry const& log) {
    MORVA_METHOD("opWritePathWin");
    if (!validWrite(log))
        return scope.result(true);
    auto const where = target(log, false);
    if (where.space == Space::Outside) {
        MORVA_TRACE(Always) << "Failed to translate" << log.file();
        return scope.result(false);
    }
    if (where.space == Space::Excluded ||
        worked(store().paths().write(context(log, where.path, where.opType), where.path,
                                     where.stream, log.offset(), log.data().data, log.data().size)))
        return scope.result(true);
    MORVA_TRACE(Always) << "WritePath failed" << where.path.join(u'/');
    return scope.result(false);
}

bool RepositoryWindows::opTruncateWin(LogEntry const& log) {
    MORVA_METHOD("opTruncateWin");
    MORVA_TRACE(Debug) << "Truncate" << log.fileId() << log.size();
    auto const known = handle(log.fileId());
    if (known->type == SinkHandle::Unknown) {
        if (log.fileText().empty())
            noteUnknown(log, *known);
        return scope.result(truncatePath(log));
    }
    if (known->type == SinkHandle::Excluded ||
        worked(store().paths().truncate(through(log), *known, log.size(), log.bodyFlags())))
        return scope.result(true);
    MORVA_TRACE(Always) << "Failed to truncate OpenSeqNo" << log.fileId();
    return scope.result(false);
}

bool RepositoryWindows::truncatePath(LogEntry const& log) {
    auto const where = target(log, false);
    if (where.space == Space::Outside)
        MORVA_TRACE(Normal) << "Failed to translate" << log.file();
    if (where.space != Space::Inside)
        return true;
    auto const context = this->context(log, where.path, where.opType);
    bool done = true;
    if (where.stream == dataStreamName) {
        done = worked(store().paths().truncate(context, where.path, log.size(), log.bodyFlags()));
    } else if (auto const stream =
                   valueOf(store().paths().openStream(context, where.path, where.stream))) {
        done = worked(store().paths().truncate(context, *stream, log.size(), log.bodyFlags()));
    }
    if (!done)
        MORVA_TRACE(Always) << "Failed to truncate" << where.path.join(u'/');
    return done;
}

bool RepositoryWindows::opSetValidLengthWin(LogEntry const& log) {
    MORVA_METHOD("opSetValidLengthWin");
    auto const known = validHandle(log);
    if (!known || !known->streamHandle)
        return scope.result(true);
    // What then lies below the valid length was never logged.
    MORVA_TRACE(Normal) << pathOf(*known).join(u'/') << "has dirty blocks"
                        << "OpenSeqNo" << log.fileId() << log.size();
    return scope.result(worked(known->activeHandle->dirty(known->link, *known->streamHandle)));
}

bool RepositoryWindows::opSetFsctlWin(LogEntry const& log) {
    MORVA_METHOD("opSetFsctlWin");
    auto const code = log.number(LogField::ControlCode);
    auto const data = log.data();
    MORVA_TRACE(Debug) << "SetFsctl control code" << Morva::hex << code << Morva::dec
                       << "Data Length" << data.size;
    auto const known = code == winSetZeroData ? validHandle(log) : nullptr;
    if (!known || !known->streamHandle)
        return scope.result(true);
    if (data.size < zeroRangeSize)
        return scope.result(askFor(log, *known, "Failed to zeroData"));
    auto const start = loadLittle<std::uint64_t>(data.bytes());
    auto const end = loadLittle<std::uint64_t>(data.bytes() + 8);
    constexpr std::uint64_t sign = std::uint64_t{1} << 63;
    if (start > end || end >= sign)
        return scope.result(askFor(log, *known, "Failed to zeroData"));
    MORVA_TRACE(Debug) << "zeroData" << start << end;
    if (zeroData(log, *known, start, end))
        return scope.result(true);
    MORVA_TRACE(Always) << "Failed to zeroData OpenSeqNo" << log.fileId();
    return scope.result(false);
}

bool RepositoryWindows::zeroData(LogEntry const& log, SinkHandle& handle, std::uint64_t start,
                                 std::uint64_t end) {
    static constexpr std::array<std::uint8_t, blockSize> zeros{};
    auto& file = *handle.activeHandle;
    // Nothing behind the end is meant. By name, since a copy may have replaced the stream.
    auto const size = file.size(handle.stream);
    if (!worked(size.status()))
        return false;
    end = std::min(end, *size);
    if (start >= end)
        return true;
    // The stream clears a block that it begins within to its end, so that part is written.
    auto const whole = std::min(end, (start + blockSize - 1) / blockSize * blockSize);
    auto const count = static_cast<std::uint32_t>(whole - start);
    return (count == 0 || worked(file.write(handle.link, handle.streamHandle, start, zeros.data(),
                                            count, log.time()))) &&
           (whole == end ||
            worked(file.zeroData(handle.link, handle.streamHandle, whole, end, log.time())));
}

// --- attributes

bool RepositoryWindows::opSetAttrWin(LogEntry const& log) {
    MORVA_METHOD("opSetAttrWin");
    auto const flags = log.bodyFlags();
    auto const modified = log.modificationTime();
    auto const changed = log.changeTime();
    auto const setModified = (flags & winAttrModificationTime) != 0 && isTime(modified);
    auto const setChanged = (flags & winAttrChangeTime) != 0 && isTime(changed);
    auto const setAttributes = (flags & winAttrAttributes) != 0;
    if (!setModified && !setChanged && !setAttributes)
        return scope.result(true);
    auto const known = validHandle(log);
    if (!known ||
        worked(known->activeHandle->attr(known->link, setModified, modified, setChanged, changed,
                                         setAttributes, log.number(LogField::WindowsAttributes))))
        return scope.result(true);
    MORVA_TRACE(Always) << "Failed to set attributes OpenSeqNo" << log.fileId();
    return scope.result(false);
}

bool RepositoryWindows::opSetSecurityWin(LogEntry const& log) {
    MORVA_METHOD("opSetSecurityWin");
    auto const known = validHandle(log);
    if (!known)
        return scope.result(true);
    auto const given = log.bytes(LogField::Security);
    auto const owner = log.bytes(LogField::Owner);
    auto const info = log.number(LogField::Info);
    if (!WindowsSecurity::valid(given) || (owner.size != 0 && !WindowsSecurity::validSid(owner)))
        return scope.result(askFor(log, *known, "Failed to set security"));
    // The log has the parts that were set; the file keeps the others.
    auto const stored = readWhole(*known, securityStreamName);
    auto const present = WindowsSecurity::valid(Extent(stored)) ? Extent(stored) : Extent();
    auto const merged = WindowsSecurity::merged(present, given, info);
    if (worked(store().paths().replaceContent(through(log), *known, securityStreamName, merged)) &&
        (owner.size == 0 ||
         worked(known->activeHandle->owner(known->link, QString::fromStdString(sidText(owner))))))
        return scope.result(true);
    MORVA_TRACE(Always) << "Failed to set security OpenSeqNo" << log.fileId();
    return scope.result(false);
}

bool RepositoryWindows::opSetEaWin(LogEntry const& log) {
    MORVA_METHOD("opSetEaWin");
    auto const known = validHandle(log);
    if (!known) {
        MORVA_TRACE(Normal) << "Not a valid handle" << log.fileId();
        return scope.result(true);
    }
    auto const name = QString::fromUtf16(WindowsStream::attributes);
    auto const read = [](Extent const& record, char const* what) {
        std::uint32_t left = 0;
        auto result = WindowsAttributes::decode(record, left);
        MORVA_TRACE(Debug) << what << record.size << "Left" << left;
        return result;
    };
    auto const record = readWhole(*known, name);
    auto stored = read(Extent(record), "Read existing EAs");
    auto const given = read(log.data(), "Read new EAs");
    auto const tell = [&] {
        MORVA_TRACE(Always) << "Failed to SetEa" << log.data().size << "bytes OpenSeqNo"
                            << log.fileId();
    };
    if (!given) {
        tell();
        return scope.result(askFor(log, *known, "Damaged extended attributes"));
    }
    if (!stored) {
        (void)askFor(log, *known, "Damaged extended attributes");
        stored.emplace();
    }
    stored->merge(*given);
    auto const merged = stored->encode();
    if (merged.size() > static_cast<qsizetype>(WindowsAttributes::maximumList)) {
        tell();
        return scope.result(askFor(log, *known, "Too many extended attributes"));
    }
    if (merged.isEmpty())
        MORVA_TRACE(Debug) << "Set no Eas" << log.fileId();
    if (merged == record ||
        worked(store().paths().replaceContent(through(log), *known, name, merged)))
        return scope.result(true);
    tell();
    return scope.result(false);
}

} // namespace Replication
