// The operations of a Windows source.

#include "base/values/LittleEndian.h"
#include "peers/model/WindowsPlayer.h"
#include "peers/model/WindowsValues.h"
#include "replication/common/log/SecurityText.h"
#include "replication/common/values/WindowsObject.h"
#include "replication/repository/streams/StreamHandle.h"

namespace Morva::Model {

using Replication::FileTime;
using Replication::LogBuilder;
using Replication::LogType;
using F = Replication::LogField;

namespace {

QByteArray randomParts(std::uint64_t random) {
    QByteArray parts(3, '0');
    for (auto& part : parts) {
        part = static_cast<char>('0' + random % 4);
        random /= 4;
    }
    return parts;
}

std::uint32_t directoryFlag(bool isDirectory) {
    return isDirectory ? std::uint32_t{Replication::logFlagDirectory} : 0U;
}

} // namespace

void WindowsPlayer::create() {
    auto const stream = pick(4) == 0 ? randomStream() : QByteArray();
    // A stream is new where its file isn't; now and then the store has what is new at the source.
    auto spot = anySpot(stream.isEmpty() ? pick(12) == 0 : pick(3) != 0, pick(10) != 0);
    auto const directory = stream.isEmpty() && (spot.object ? spot.object->kind == Kind::Directory
                                                            : spot.directory && pick(4) == 0);
    auto const attributes = static_cast<std::uint32_t>(random_() & 0xFF);
    auto const owner = pick(3) == 0 ? QByteArray() : sid(static_cast<char>('1' + pick(3)));
    auto const parts = pick(2) ? randomParts(random_()) : QByteArray();
    auto const security = parts.isEmpty() ? QByteArray() : descriptor(parts);
    static constexpr std::uint32_t dispositions[] = {0, 2, 3, 5};
    auto const disposition = dispositions[pick(4)];
    log(LogType::WinCreate, [&](LogBuilder& log) {
        log.flags(directoryFlag(directory))
            .number(F::FileId, lastFileId_ + 1)
            .number(F::Attributes, attributes)
            .number(F::Options, disposition << 24 | 0x20)
            .bytes(F::User, Extent(owner))
            .bytes(F::Security, Extent(security));
        logPath(log, F::File, spot, stream);
    });
    count("create");
    if (spot.type != Type::Valid) {
        numbered(++lastFileId_)->type = spot.type;
        return;
    }
    openNew(spot, stream, attributes, directory,
            QByteArray::fromStdString(Replication::sidText(Extent(owner))), parts);
}

void WindowsPlayer::openExisting() {
    auto spot = anySpot(pick(6) != 0, pick(7) != 0);
    QByteArray stream;
    if (pick(4) == 0)
        stream = spot.object && !spot.object->windows.streams.empty() && pick(3) != 0
                     ? cased(spot.object->windows.streams.begin()->second.name)
                     : randomStream();
    auto const isDirectory = spot.object && spot.object->kind == Kind::Directory;
    auto disposition = static_cast<std::uint32_t>(pick(20) == 0 ? 6 + pick(250) : pick(6));
    if (isDirectory && stream.isEmpty())
        disposition = pick(2) ? 1 : 3;
    log(LogType::WinCreate, [&](LogBuilder& log) {
        log.flags(directoryFlag(isDirectory))
            .number(F::FileId, lastFileId_ + 1)
            .number(F::Exists, 1)
            .number(F::Options, disposition << 24);
        logPath(log, F::File, spot, stream);
    });
    count("open");
    if (spot.type != Type::Valid) {
        numbered(++lastFileId_)->type = spot.type;
        return;
    }
    auto const hasStream =
        spot.object && (stream.isEmpty() || spot.object->windows.streams.contains(lower(stream)));
    auto const truncates = disposition == 0 || disposition == 4 || disposition == 5;
    if (hasStream && disposition < 6) {
        auto const open = attach(spot, stream);
        if (!truncates)
            return;
        auto& content = *contentOf(*open);
        if (content.size() != 0)
            touch(*open);
        content.truncate(0);
        if (!stream.isEmpty())
            return;
        auto& parts = spot.object->windows;
        for (auto const& [name, value] : parts.streams)
            dropStream(*spot.object, name);
        parts.streams.clear();
        parts.extended.clear();
    } else if (truncates && disposition != 4 && (spot.object || stream.isEmpty())) {
        openNew(spot, stream, 0, false, {}, {});
    } else {
        numbered(++lastFileId_)->directory = isDirectory;
        ask(spot.parts);
    }
}

void WindowsPlayer::reopenFile() {
    auto const known = pick(3) == 0 ? anyOpen([](Open const&) { return true; }) : nullptr;
    auto const spot = anySpot(pick(4) != 0, pick(6) != 0);
    auto const fileId = known ? known->fileId : lastFileId_ + 1;
    log(LogType::WinReopen, [&](LogBuilder& log) {
        log.number(F::FileId, fileId);
        logPath(log, F::File, spot);
    });
    count("reopen");
    if (known && known->type != Type::Unknown)
        return;
    lastFileId_ = std::max(lastFileId_, fileId);
    if (spot.type == Type::Valid && spot.object) {
        auto const last = std::exchange(lastFileId_, fileId - 1);
        attach(spot, {});
        lastFileId_ = last;
        return;
    }
    numbered(fileId)->type = spot.type == Type::Valid ? Type::Unknown : spot.type;
    if (spot.type == Type::Valid)
        ask(spot.parts);
}

void WindowsPlayer::write() {
    auto const open = anyOpen([](Open const&) { return true; });
    if (!open)
        return;
    auto* const content = contentOf(*open);
    auto const offset = content ? randomOffset(*content) : pick(100);
    auto const data = randomData(9000);
    auto const whole = pick(12) != 0;
    log(LogType::Write, [&](LogBuilder& log) {
        log.number(F::FileId, open->fileId)
            .number(F::Offset, offset)
            .number(F::Length, static_cast<std::uint64_t>(data.size()) + !whole)
            .bytes(F::Data, Extent(data));
    });
    count(content ? "write" : "write to nothing");
    if (!content || !whole)
        return;
    content->write(offset, data);
    touch(*open);
}

void WindowsPlayer::writePath() {
    auto const spot = anySpot(pick(8) != 0, true);
    auto const stream = pick(4) == 0 ? randomStream() : QByteArray();
    auto const data = randomData(pick(10) == 0 ? 200000 : 9000);
    auto const isFile = spot.object && spot.object->kind == Kind::File;
    auto const offset = isFile ? randomOffset(spot.object->content) : 0;
    log(LogType::WinWritePath, [&](LogBuilder& log) {
        log.number(F::Offset, offset)
            .number(F::Length, static_cast<std::uint64_t>(data.size()))
            .bytes(F::Data, Extent(data));
        logPath(log, F::File, spot, stream);
    });
    count("write by path");
    if (!spot.object || (!isFile && stream.isEmpty()))
        return;
    auto& object = *spot.object;
    if (stream.isEmpty())
        object.content.write(offset, data);
    else
        object.windows.streams.try_emplace(lower(stream), WindowsParts::Stream{stream, {}})
            .first->second.content.write(offset, data);
    object.modified = FileTime::wholeSeconds(clock_);
}

void WindowsPlayer::truncate() {
    auto const byPath = pick(4) == 0;
    auto const open = byPath ? nullptr : anyValid();
    auto const spot = anySpot(pick(8) != 0, byPath && pick(8) == 0 ? false : true);
    if (!byPath && !open)
        return;
    auto* content = open ? contentOf(*open) : nullptr;
    if (byPath && spot.object && spot.object->kind == Kind::File)
        content = &spot.object->content;
    auto const size = content ? randomOffset(*content) : 5;
    auto const growOnly = pick(4) == 0;
    auto const fileId = open ? open->fileId : ++lastFileId_;
    log(LogType::WinTruncate, [&](LogBuilder& log) {
        log.number(F::FileId, fileId)
            .number(F::Size, size)
            .number(F::Flags, growOnly ? Replication::StreamHandle::growOnly : 0);
        logPath(log, F::File, spot);
    });
    count("truncate");
    if (!open)
        numbered(fileId); // it has been spoken of
    if (!content || size == content->size() || (growOnly && size < content->size()))
        return;
    content->truncate(size);
    (open ? *open->object : *spot.object).modified = FileTime::wholeSeconds(clock_);
}

void WindowsPlayer::validLength() {
    auto const open = anyValid();
    if (!open)
        return;
    log(LogType::WinSetValidLength, [&](LogBuilder& log) {
        log.number(F::FileId, open->fileId).number(F::Size, pick(100000));
    });
    if (contentOf(*open))
        dirtied_ += open->object->windows.dirty.insert(open->stream).second;
    count("valid length");
}

void WindowsPlayer::zero() {
    auto const open = anyValid();
    auto* const content = open ? contentOf(*open) : nullptr;
    if (!content)
        return;
    auto start = pick(content->size() + 1000);
    auto end = start + pick(20000);
    auto const bad = pick(10) == 0;
    if (bad && !hasName(*open))
        return;
    QByteArray range(pick(2) && bad ? 15 : 16, '\0');
    if (bad)
        std::swap(start, ++end);
    if (range.size() == 16) {
        storeLittle(range.data(), start);
        storeLittle(range.data() + 8, end);
    }
    log(LogType::WinSetFsctl, [&](LogBuilder& log) {
        log.number(F::FileId, open->fileId)
            .number(F::ControlCode, Replication::winSetZeroData)
            .bytes(F::Data, Extent(range));
    });
    count("zero");
    if (bad)
        return ask(spotOf(*open).parts);
    if (start >= std::min(end, content->size()))
        return;
    content->zero(start, end);
    touch(*open);
}

void WindowsPlayer::setAttributes() {
    auto const open = anyValid();
    if (!open)
        return;
    auto const flags = static_cast<std::uint32_t>(random_()) & 0xFF;
    auto const time = pick(4) == 0 ? (pick(2) ? 0U : 0xFFFFFFFFU)
                                   : static_cast<std::uint32_t>(1 + pick(1'000'000'000));
    auto const attributes = static_cast<std::uint32_t>(pick(0x1000));
    log(LogType::WinSetAttr, [&](LogBuilder& log) {
        log.number(F::FileId, open->fileId)
            .number(F::Flags, flags)
            .number(F::ModificationTime, time)
            .number(F::ChangeTime, time)
            .number(F::WindowsAttributes, attributes);
    });
    count("setattr");
    if ((flags & 0x10) && time != 0 && time != 0xFFFFFFFF)
        open->object->modified = FileTime::wholeSeconds(time);
    if (flags & 0x80)
        open->object->windows.attributes = attributes;
}

void WindowsPlayer::setSecurity() {
    auto const open = anyValid();
    if (!open)
        return;
    auto const parts = randomParts(random_());
    auto given = descriptor(parts);
    auto const info = static_cast<std::uint32_t>(pick(8));
    auto const owner = info & 1 ? sid(static_cast<char>('1' + pick(3))) : QByteArray();
    auto const bad = pick(10) == 0;
    if (bad && !hasName(*open))
        return;
    if (bad)
        given.chop(1 + static_cast<qsizetype>(pick(static_cast<std::uint64_t>(given.size()))));
    // What was cut off a descriptor with nothing in it leaves no damage but in its head.
    auto const damaged = bad && !Replication::WindowsSecurity::valid(Extent(given));
    log(LogType::WinSetSecurity, [&](LogBuilder& log) {
        log.number(F::FileId, open->fileId)
            .number(F::Info, info)
            .bytes(F::Security, Extent(given))
            .bytes(F::Owner, Extent(owner));
    });
    count("setsecurity");
    if (damaged)
        return ask(spotOf(*open).parts);
    auto& windows = open->object->windows;
    if (windows.security.isEmpty())
        windows.security = "000";
    for (int part = 0; part < 3; ++part)
        if (info >> part & 1)
            windows.security[part] = parts[part];
    if (!owner.isEmpty())
        windows.owner = QByteArray::fromStdString(Replication::sidText(Extent(owner)));
}

void WindowsPlayer::setExtended() {
    auto const open = anyValid();
    if (!open)
        return;
    static char const* const names[] = {"Name", "Second", "z"};
    Replication::WindowsAttributes list;
    for (auto left = 1 + pick(3); left > 0; --left)
        list.append({cased(names[pick(3)]), pick(3) == 0 ? QByteArray() : randomData(40),
                     static_cast<std::uint32_t>(pick(2) * 0x80)});
    auto bytes = list.encode();
    auto const bad = pick(10) == 0;
    if (bad && !hasName(*open))
        return;
    if (bad)
        storeLittle(bytes.data() + 4, static_cast<std::uint32_t>(bytes.size()));
    log(LogType::WinSetEa, [&](LogBuilder& log) {
        log.number(F::FileId, open->fileId).bytes(F::Data, Extent(bytes));
    });
    count("setea");
    if (bad)
        return ask(spotOf(*open).parts);
    for (auto const& entry : list.all()) {
        auto& extended = open->object->windows.extended;
        if (entry.value.isEmpty())
            extended.erase(entry.name.toUpper());
        else
            extended[entry.name.toUpper()] = entry.name + '\0' + entry.value;
    }
}

void WindowsPlayer::rename() {
    auto const open = anyOpen([](Open const& each) { return each.stream.isEmpty(); });
    if (!open || (open->type == Type::Valid && !hasName(*open)))
        return;
    auto const valid = open->type == Type::Valid;
    auto const directory = valid ? open->object->kind == Kind::Directory : open->directory;
    auto to = anySpot(pick(4) == 0, pick(4) != 0);
    auto const from = valid ? spotOf(*open) : Spot();
    auto const below = [](Parts const& a, Parts const& b) {
        return a.size() > b.size() && std::equal(b.begin(), b.end(), a.begin());
    };
    if (valid && pick(8) == 0) {
        to = from; // by case alone
        to.parts.back() = cased(to.parts.back());
    }
    // What the file system refuses is never logged; nor is a directory to be replaced by anything.
    if (valid && (below(to.parts, from.parts) || below(from.parts, to.parts)))
        return;
    if (valid && to.object && to.object != open->object &&
        (directory || to.object->kind == Kind::Directory))
        return;
    // Names of files alone.
    if (directory && to.type == Type::Excluded && lower(to.parts.back()).endsWith(".tmp"))
        return;
    auto const overlong = pick(30) == 0 && to.type == Type::Valid;
    if (overlong)
        to.parts.back() = QByteArray(2034, 'n');
    log(LogType::WinRename, [&](LogBuilder& log) {
        log.number(F::FileId, open->fileId).number(F::TargetRuleCount, pick(3));
        logPath(log, F::To, to);
    });
    count("rename");
    if (overlong) {
        if (valid)
            ask(from.parts);
        to.parts.pop_back();
        ask(to.parts);
        numbered(open->fileId)->directory = directory;
        return;
    }
    if (!valid) {
        if (to.type != Type::Unknown) {
            if (to.type == Type::Valid)
                ask(to.parts);
            numbered(open->fileId)->directory = directory;
        } else if (open->type == Type::Excluded && to.type == Type::Unknown) {
            open_.erase(open->fileId);
        }
        return;
    }
    auto const object = open->object;
    if (to.type != Type::Valid) {
        removeName(from.directory, from.parts.back());
        dropNameless(to.type);
        return;
    }
    if (to.object &&
        (to.directory != from.directory || lower(to.parts.back()) != lower(from.parts.back())))
        removeName(to.directory, to.parts.back());
    links_.erase({from.directory.get(), lower(from.parts.back())});
    from.directory->names.erase(from.parts.back());
    enter(to, object, open->link);
    if (directory)
        dropNameless(Type::Excluded);
}

void WindowsPlayer::renameStream() {
    auto const open = anyOpen([this](Open const& each) {
        return each.type == Type::Valid && !each.stream.isEmpty() && hasName(each);
    });
    if (!open)
        return;
    auto const spot = spotOf(*open);
    auto const to = randomStream();
    log(LogType::WinRename, [&](LogBuilder& log) {
        log.number(F::FileId, open->fileId);
        logPath(log, F::To, spot, to);
    });
    count("rename stream");
    auto const from = QByteArray(open->stream);
    if (lower(to) == from)
        return;
    auto& streams = open->object->windows.streams;
    dropStream(*open->object, lower(to));
    if (open->object->windows.dirty.erase(from) != 0)
        open->object->windows.dirty.insert(lower(to));
    auto moved = std::move(streams.at(from));
    moved.name = to;
    streams.erase(from);
    streams[lower(to)] = std::move(moved);
    for (auto const& [fileId, each] : open_)
        if (each->object == open->object && each->stream == from)
            each->stream = lower(to);
}

void WindowsPlayer::link() {
    auto const open = anyOpen([](Open const&) { return true; });
    if (!open || (open->type == Type::Valid && !hasName(*open)))
        return;
    auto const to = anySpot(pick(5) == 0, pick(6) != 0);
    if (to.object && (to.object->kind == Kind::Directory || open->type != Type::Valid))
        return;
    log(LogType::WinLink, [&](LogBuilder& log) {
        log.number(F::FileId, open->fileId);
        logPath(log, F::To, to);
    });
    count("link");
    if (to.type != Type::Valid)
        return;
    if (open->type != Type::Valid)
        return ask(to.parts);
    if (open->object->kind == Kind::Directory) {
        ask(spotOf(*open).parts);
        return ask(to.parts);
    }
    if (to.object == open->object)
        return;
    if (to.object)
        removeName(to.directory, to.parts.back());
    ++open->object->links;
    enter(to, open->object, ++lastLink_);
}

void WindowsPlayer::unlink() {
    auto const open = anyOpen([](Open const&) { return true; });
    if (!open)
        return;
    // A directory that isn't empty can't go, and an empty one takes no more names once it is to go.
    auto const directory = open->type == Type::Valid && open->stream.isEmpty() &&
                           open->object->kind == Kind::Directory;
    if (directory &&
        (!open->object->names.empty() || std::any_of(open_.begin(), open_.end(), [&](auto& each) {
            return each.second != open && each.second->object == open->object;
        })))
        return;
    log(LogType::WinUnlink, [&](LogBuilder& log) { log.number(F::FileId, open->fileId); });
    count("unlink");
    if (open->type != Type::Valid)
        return;
    if (!open->marked)
        marked_.push_back(open);
    open->marked = true;
    if (!directory)
        return;
    log(LogType::Close, [&](LogBuilder& log) { log.number(F::FileId, open->fileId); });
    open_.erase(open->fileId);
    finish([&](Open const& marked) { return marked.object == open->object; }, false);
}

void WindowsPlayer::closeFile() {
    auto const open = anyOpen([](Open const&) { return true; });
    if (!open)
        return;
    log(LogType::Close, [&](LogBuilder& log) { log.number(F::FileId, open->fileId); });
    count("close");
    open_.erase(open->fileId);
    if (auto const object = open->object)
        finish([&](Open const& marked) { return marked.object == object; }, false);
}

void WindowsPlayer::askByFilter() {
    auto const spot = anySpot(pick(2) == 0, pick(3) != 0);
    log(LogType::WinResync, [&](LogBuilder& log) {
        log.number(F::FileId, 1).number(F::Status, 0xC0000001);
        logPath(log, F::File, spot);
    });
    count("resync log");
    if (spot.type == Type::Valid)
        ask(spot.parts);
}

} // namespace Morva::Model
