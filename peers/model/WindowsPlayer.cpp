#include "peers/model/WindowsPlayer.h"

#include "peers/model/WindowsValues.h"
#include "replication/common/values/WindowsObject.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <algorithm>
#include <stdexcept>

namespace Morva::Model {

using Replication::FileTime;
using Replication::Instance;
using Replication::LogBuilder;
using Replication::LogType;
using Replication::SourceKind;
using F = Replication::LogField;

namespace {

constexpr char const* sourceRoot = "C:\\Src";
constexpr char const* elsewhere = "D:\\Elsewhere";

} // namespace

WindowsPlayer::WindowsPlayer(QString const& rootPath, std::uint64_t seed)
    : PlayedStore(rootPath, seed) {
    root_->addSource(storeName, sourceRoot, {}, SourceKind::Windows);
    open();
    XmlList exclusions;
    Replication::NotToBackup::addEntry(exclusions, "*.TMP", false, false);
    Replication::NotToBackup::addEntry(exclusions, "cache", true, false);
    auto const bytes = exclusions.toBinary();
    log(LogType::Message, [&](LogBuilder& log) {
        log.number(F::MessageType, Replication::DataSink::NotToBackupDetails)
            .bytes(F::Data, Extent(bytes));
    });
    snapshot();
}

WindowsPlayer::~WindowsPlayer() {
    closeQuietly();
}

void WindowsPlayer::log(LogType type, Change const& change) {
    builder_.begin(type, ++sequence_).time(clock_);
    change(builder_);
    if (!sink_.put(builder_))
        throw std::runtime_error("failed: log of type " +
                                 std::to_string(static_cast<std::uint32_t>(type)));
}

void WindowsPlayer::play(int operations) {
    struct Choice {
        int weight;
        void (WindowsPlayer::*operation)();
    };
    using W = WindowsPlayer;
    static constexpr Choice choices[] = {
        {110, &W::create},      {90, &W::openExisting}, {15, &W::reopenFile},
        {140, &W::write},       {40, &W::writePath},    {60, &W::truncate},
        {8, &W::validLength},   {30, &W::zero},         {40, &W::setAttributes},
        {25, &W::setSecurity},  {40, &W::setExtended},  {90, &W::rename},
        {12, &W::renameStream}, {35, &W::link},         {60, &W::unlink},
        {150, &W::closeFile},   {4, &W::askByFilter},   {3, &W::startSnapshot},
        {10, &W::snapshot},     {7, &W::retire},        {2, &W::reopen},
        {2, &W::kill},
    };
    for (; operations > 0; --operations) {
        // Slow, so that no number that was set aside is forgotten before it is used again.
        clock_ += pick(8) == 0;
        (this->*choose(choices).operation)();
    }
}

// --- choices

QByteArray WindowsPlayer::randomName() {
    static char const* const names[] = {"Name", "name two", "n\xc3\xa4me", "N\xc3\x84ME.txt",
                                        "Data", "Security", "Ea"};
    if (pick(4) == 0)
        return names[pick(std::size(names))];
    QByteArray name;
    for (auto length = pick(20) == 0 ? 200 + pick(56) : 1 + pick(9); length > 0; --length)
        name += static_cast<char>((pick(2) ? 'a' : 'A') + static_cast<char>(pick(26)));
    return name;
}

QByteArray WindowsPlayer::randomStream() {
    static char const* const names[] = {":one", ":Two", ":Data", ":Security"};
    return cased(names[pick(std::size(names))]);
}

QByteArray WindowsPlayer::cased(QByteArray const& text) {
    auto const whole = QString::fromUtf8(text);
    switch (pick(3)) {
    case 0:
        return whole.toLower().toUtf8();
    case 1:
        return whole.toUpper().toUtf8();
    default:
        return text;
    }
}

WindowsPlayer::Spot WindowsPlayer::anySpot(bool existing, bool inside) {
    Spot spot;
    auto names = allNames(tree_);
    auto const use = [&](Name const& name) {
        for (auto const& part : name.path.split('/'))
            spot.parts.push_back(part);
    };
    if (existing && inside && !names.empty()) {
        auto const& name = names[pick(names.size())];
        use(name);
        spot.directory = name.directory;
        spot.object = name.object;
        return spot;
    }
    std::erase_if(names, [](Name const& name) { return name.object->kind != Kind::Directory; });
    spot.directory = tree_;
    if (auto const chosen = pick(names.size() + 1); chosen < names.size()) {
        use(names[chosen]);
        spot.directory = names[chosen].object;
    }
    if (!inside) {
        spot.directory.reset();
        spot.type = pick(2) ? Type::Excluded : Type::Unknown;
        if (spot.type == Type::Unknown)
            spot.parts = {randomName()};
        else if (pick(2))
            spot.parts.push_back(randomName() + cased(".tmp"));
        else
            spot.parts.insert(spot.parts.end(), {cased("Cache"), randomName()});
        return spot;
    }
    QByteArray name;
    do
        name = randomName();
    while (findName(*spot.directory, name) != spot.directory->names.end());
    spot.parts.push_back(name);
    return spot;
}

WindowsPlayer::Spot WindowsPlayer::spotOf(Open const& open) {
    auto const& [directory, key] = places_.at(open.link);
    for (auto const& name : allNames(tree_)) {
        if (name.directory != directory || lower(name.name) != key)
            continue;
        Spot spot{directory, {}, name.object};
        for (auto const& part : name.path.split('/'))
            spot.parts.push_back(part);
        return spot;
    }
    throw std::logic_error("a name that isn't there");
}

WindowsPlayer::OpenPointer WindowsPlayer::anyOpen(std::function<bool(Open const&)> const& fits) {
    std::vector<OpenPointer> candidates;
    for (auto const& [fileId, each] : open_)
        if (fits(*each))
            candidates.push_back(each);
    return candidates.empty() ? nullptr : candidates[pick(candidates.size())];
}

WindowsPlayer::OpenPointer WindowsPlayer::anyValid() {
    return anyOpen([](Open const& each) { return each.type == Type::Valid; });
}

WindowsPlayer::OpenPointer& WindowsPlayer::numbered(std::uint32_t fileId) {
    auto& entry = open_[fileId];
    entry = std::make_shared<Open>();
    entry->fileId = fileId;
    return entry;
}

void WindowsPlayer::logPath(LogBuilder& log, F field, Spot const& spot, QByteArray const& stream) {
    // The builder refers to them until the log is made.
    static QByteArray text, preserved;
    auto const suffix = stream + (pick(3) == 0 ? (stream.isEmpty() ? "::$DATA" : ":$Data") : "");
    text = spot.type == Type::Unknown ? elsewhere : sourceRoot;
    for (auto const& part : spot.parts)
        text += '\\' + part;
    Replication::LogPath path;
    path.filenameOffset = static_cast<std::uint32_t>(text.lastIndexOf('\\') + 1);
    preserved.clear();
    if (pick(4) != 0) {
        text = cased(text);
        preserved = spot.parts.back() + suffix;
        path.casePreservedStreamOffset = static_cast<std::uint32_t>(spot.parts.back().size());
    }
    path.streamOffset = static_cast<std::uint32_t>(text.size());
    text += suffix;
    path.text = {text.constData(), static_cast<std::size_t>(text.size())};
    path.casePreserved = {preserved.constData(), static_cast<std::size_t>(preserved.size())};
    log.path(field, path);
}

// --- the model

void WindowsPlayer::enter(Spot const& spot, ObjectPointer const& object, int link) {
    auto const& name = spot.parts.back();
    spot.directory->names[name] = object;
    places_[link] = {spot.directory, lower(name)};
    links_[{spot.directory.get(), lower(name)}] = link;
}

void WindowsPlayer::removeName(ObjectPointer const& directory, QByteArray const& name) {
    auto const at = findName(*directory, name);
    auto const object = at->second;
    while (object->kind == Kind::Directory && !object->names.empty())
        removeName(object, object->names.begin()->first);
    --object->links;
    auto const link = links_.find({directory.get(), lower(name)});
    places_.erase(link->second);
    links_.erase(link);
    directory->names.erase(at);
}

void WindowsPlayer::dropNameless(Type type) {
    for (auto const& [fileId, each] : open_)
        if (each->type == Type::Valid && each->object->links == 0) {
            each->type = type;
            each->directory = each->object->kind == Kind::Directory;
            each->object.reset();
        }
}

void WindowsPlayer::dropStream(Object& object, QByteArray const& stream) {
    object.windows.dirty.erase(stream);
    for (auto const& [fileId, each] : open_)
        if (each->object.get() == &object && each->stream == stream) {
            each->type = Type::Unknown;
            each->directory = object.kind == Kind::Directory;
            each->object.reset();
        }
}

void WindowsPlayer::perform(Open const& marked) {
    auto const keep = marked.object;
    auto& object = *keep;
    if (!marked.stream.isEmpty()) {
        object.windows.streams.erase(marked.stream);
        dropStream(object, marked.stream);
    } else if (hasName(marked)) {
        auto const place = places_.at(marked.link);
        auto const isDirectory = object.kind == Kind::Directory;
        removeName(place.first, place.second);
        if (isDirectory)
            dropNameless(Type::Unknown);
    }
}

void WindowsPlayer::finish(std::function<bool(Open const&)> const& fits, bool also) {
    std::vector<OpenPointer> due;
    std::erase_if(marked_, [&](OpenPointer const& marked) {
        if (!marked->object)
            return true;
        auto const inUse = std::any_of(open_.begin(), open_.end(), [&](auto const& entry) {
            auto const& other = *entry.second;
            return other.object == marked->object && other.link == marked->link &&
                   (marked->stream.isEmpty() || other.stream == marked->stream);
        });
        if (!fits(*marked) || (!also && inUse))
            return false;
        due.push_back(marked);
        return true;
    });
    for (auto const& marked : due)
        if (marked->object)
            perform(*marked);
}

void WindowsPlayer::ask(Parts const& parts) {
    QByteArray text;
    for (auto const& part : parts)
        text += (text.isEmpty() ? "" : "/") + part;
    asked_.insert(lower(text));
}

Content* WindowsPlayer::contentOf(Open const& open) {
    if (open.type != Type::Valid)
        return nullptr;
    if (open.stream.isEmpty())
        return open.object->kind == Kind::File ? &open.object->content : nullptr;
    return &open.object->windows.streams.at(open.stream).content;
}

void WindowsPlayer::touch(Open const& open) {
    open.object->modified = FileTime::wholeSeconds(clock_);
}

WindowsPlayer::OpenPointer WindowsPlayer::attach(Spot const& spot, QByteArray const& stream) {
    auto& open = numbered(++lastFileId_);
    open->type = Type::Valid;
    open->object = spot.object;
    open->link = links_.at({spot.directory.get(), lower(spot.parts.back())});
    open->stream = lower(stream);
    return open;
}

WindowsPlayer::OpenPointer WindowsPlayer::openNew(Spot const& where, QByteArray const& stream,
                                                  std::uint32_t attributes, bool directory,
                                                  QByteArray const& owner,
                                                  QByteArray const& security) {
    auto spot = where;
    if (spot.object) {
        // A deletion that waits has happened when its name comes anew.
        finish([&](Open const& marked) { return marked.object == where.object; }, true);
        auto const still = findName(*spot.directory, spot.parts.back());
        spot.object = still == spot.directory->names.end() ? nullptr : still->second;
    }
    auto const describe = [&](Object& object) {
        object.windows.attributes = directory ? (attributes | 0x10) & ~0x80U : attributes;
        if (!owner.isEmpty())
            object.windows.owner = owner;
        if (!security.isEmpty())
            object.windows.security = security;
    };
    auto const again = spot.object && directory && spot.object->kind == Kind::Directory;
    if (again)
        describe(*spot.object);
    if (spot.object && stream.isEmpty() && !again) {
        removeName(spot.directory, spot.parts.back());
        spot.object.reset();
    }
    if (!spot.object) {
        spot.object = std::make_shared<Object>();
        spot.object->kind = directory ? Kind::Directory : Kind::File;
        spot.object->modified = FileTime::wholeSeconds(clock_);
        describe(*spot.object);
        enter(spot, spot.object, ++lastLink_);
    }
    auto open = attach(spot, stream);
    if (!stream.isEmpty()) {
        auto const [at, made] = spot.object->windows.streams.try_emplace(
            lower(stream), WindowsParts::Stream{stream, {}});
        if (!made && at->second.content.size() != 0) {
            at->second.content.truncate(0);
            touch(*open);
        }
    }
    return open;
}

// --- the repository

void WindowsPlayer::startSnapshot() {
    log(LogType::Message, [](LogBuilder& log) {
        log.number(F::MessageType, Replication::DataSink::StartOfSnapshot);
    });
    count("start of snapshot");
}

} // namespace Morva::Model
