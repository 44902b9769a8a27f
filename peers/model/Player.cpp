#include "peers/model/Player.h"

#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"

#include <QDir>

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <stdexcept>

namespace Morva::Model {

using Replication::FileTime;
using Replication::FileTimes;
using Replication::Instance;
using Replication::LogBuilder;
using Replication::LogSourceOptions;
using Replication::OperationLogger;

namespace {

constexpr char const* sourceRoot = "/src";
constexpr char const* workName = "r";
constexpr char const* hugeSuffix = ".huge";

Extent view(QByteArray const& bytes) {
    return Extent(bytes);
}

} // namespace

Player::Player(QString const& rootPath, std::uint64_t seed) : PlayedStore(rootPath, seed) {
    LogSourceOptions options;
    options.clock = [this] { return clock_; };
    logger_ = std::make_unique<OperationLogger>(options, sink_);
    poolWithoutStore_ = poolInUse();
    root_->addSource(storeName, sourceRoot, {hugeSuffix});
    open();
    snapshot();
    applyPool();
    poolAtStart_ = poolInUse();
    firstSnapshot_ = snapshots_.begin()->first;
    must(logger_->mkdir(std::string(sourceRoot) + '/' + workName, S_IFDIR | 0755, 0, 0), "mkdir");
}

Player::~Player() {
    closeQuietly();
}

void Player::closeFiles() {
    for (auto const& file : open_)
        must(logger_->close(file.fileId), "close");
    open_.clear();
}

void Player::play(int operations) {
    struct Choice {
        int weight;
        void (Player::*operation)();
    };
    static constexpr Choice choices[] = {
        {90, &Player::create},
        {40, &Player::makeDirectory},
        {6, &Player::makeSpecial},
        {14, &Player::makeSymlink},
        {30, &Player::makeLink},
        {90, &Player::writePath},
        {90, &Player::writeOpen},
        {40, &Player::openFile},
        {60, &Player::closeFile},
        {60, &Player::truncatePath},
        {30, &Player::truncateOpen},
        {80, &Player::rename},
        {70, &Player::unlink},
        {20, &Player::removeDirectory},
        {50, &Player::setAttributes},
        {30, &Player::setExtended},
        {10, &Player::removeExtended},
        {4, &Player::outside},
        {10, &Player::snapshot},
        {7, &Player::retire},
        {3, &Player::dedup},
        {1, &Player::reopen},
        {1, &Player::kill},
    };
    for (; operations > 0; --operations) {
        clock_ += static_cast<std::uint32_t>(pick(3));
        (this->*choose(choices).operation)();
    }
}

QByteArray Player::randomName() {
    static char const* const pairs[] = {"name",        "Name",        "NAME",
                                        "n\xc3\xa4me", "N\xc3\x84ME", "name "};
    if (pick(4) == 0)
        return pairs[pick(std::size(pairs))];
    // Mostly short; now and then as long as a name can be.
    auto const length = pick(20) == 0 ? 200 + pick(56) : 1 + pick(12);
    QByteArray name;
    while (name.size() < static_cast<qsizetype>(length)) {
        auto const byte = static_cast<char>(pick(10) == 0 ? pick(256) : 'a' + pick(26));
        if (byte != '\0' && byte != '/')
            name += byte;
    }
    return name == "." || name == ".." ? QByteArray("dot") : name;
}

QByteArray Player::pathOf(Name const& name) const {
    return QByteArray(sourceRoot) + '/' + workName + '/' + name.path;
}

std::vector<ObjectPointer> Player::allDirectories(std::vector<QByteArray>& paths) {
    std::vector<ObjectPointer> result{tree_};
    paths = {QByteArray()};
    for (auto const& name : allNames(tree_)) {
        if (name.object->kind == Kind::Directory) {
            result.push_back(name.object);
            paths.push_back(name.path + '/');
        }
    }
    return result;
}

bool Player::anyName(Name& result, std::function<bool(Name const&)> const& fits) {
    auto names = allNames(tree_);
    std::erase_if(names, [&](Name const& name) { return !fits(name) || !usable(name); });
    if (names.empty())
        return false;
    result = names[pick(names.size())];
    return true;
}

bool Player::anyFile(Name& result) {
    return anyName(result, [](Name const& name) { return name.object->kind == Kind::File; });
}

Name Player::newPlace(bool mayExist) {
    std::vector<QByteArray> paths;
    auto const directories = allDirectories(paths);
    auto const chosen = pick(directories.size());
    Name result{directories[chosen], {}, {}, nullptr};
    if (mayExist && pick(5) == 0 && !result.directory->names.empty()) {
        auto at = result.directory->names.begin();
        std::advance(at, static_cast<std::ptrdiff_t>(pick(result.directory->names.size())));
        result.name = at->first;
        result.object = at->second;
    } else {
        do
            result.name = randomName();
        while (result.directory->names.contains(result.name));
    }
    result.path = paths[chosen] + result.name;
    return result;
}

void Player::enter(Name const& place, ObjectPointer const& object) {
    place.directory->names[place.name] = object;
    place.directory->modifiedKnown = false;
}

void Player::leave(ObjectPointer const& directory, QByteArray const& name) {
    auto const at = directory->names.find(name);
    --at->second->links;
    directory->names.erase(at);
    directory->modifiedKnown = false;
}

void Player::create() {
    auto place = newPlace(false);
    auto object = std::make_shared<Object>();
    object->huge = pick(8) == 0;
    if (object->huge) {
        place.name = place.name.left(200) + QByteArray::number(clock_) + hugeSuffix;
        place.path = place.path.left(place.path.lastIndexOf('/') + 1) + place.name;
        if (place.directory->names.contains(place.name))
            return;
    }
    object->mode = S_IFREG | static_cast<std::uint32_t>(pick(07777));
    object->uid = static_cast<std::uint32_t>(pick(3));
    object->gid = static_cast<std::uint32_t>(pick(3));
    object->modified = FileTime::wholeSeconds(clock_);
    std::uint32_t fileId = 0;
    must(logger_->create(pathOf(place).toStdString(), object->mode, object->uid, object->gid,
                         fileId),
         "create");
    enter(place, object);
    for (auto writes = pick(3); writes > 0; --writes) {
        auto const offset = randomOffset(object->content, object->huge);
        auto const data = randomData(20000);
        must(logger_->write(fileId, offset, view(data)), "write");
        object->content.write(offset, data);
    }
    if (pick(4) == 0)
        open_.push_back({fileId, object});
    else
        must(logger_->close(fileId), "close");
    count("create");
}

void Player::makeDirectory() {
    auto const place = newPlace(false);
    auto object = std::make_shared<Object>();
    object->kind = Kind::Directory;
    object->mode = S_IFDIR | static_cast<std::uint32_t>(pick(07777));
    object->modifiedKnown = false;
    must(logger_->mkdir(pathOf(place).toStdString(), object->mode, 0, 0), "mkdir");
    enter(place, object);
    count("mkdir");
}

void Player::makeSpecial() {
    static constexpr std::uint32_t types[] = {S_IFIFO, S_IFCHR, S_IFBLK, S_IFSOCK};
    auto const place = newPlace(false);
    auto object = std::make_shared<Object>();
    object->kind = Kind::Special;
    object->mode = types[pick(std::size(types))] | 0600;
    if (S_ISCHR(object->mode) || S_ISBLK(object->mode))
        object->device =
            makedev(static_cast<unsigned>(pick(300)), static_cast<unsigned>(pick(300)));
    object->modified = FileTime::wholeSeconds(clock_);
    must(logger_->mknod(pathOf(place).toStdString(), object->mode, 0, 0, object->device), "mknod");
    enter(place, object);
    count("mknod");
}

void Player::makeSymlink() {
    auto const place = newPlace(false);
    auto object = std::make_shared<Object>();
    object->kind = Kind::Symlink;
    object->mode = S_IFLNK | 0777;
    object->modified = FileTime::wholeSeconds(clock_);
    object->target = QByteArray(static_cast<qsizetype>(1 + pick(300)), 't') + randomName();
    must(logger_->symlink(object->target.toStdString(), pathOf(place).toStdString(), 0, 0),
         "symlink");
    enter(place, object);
    count("symlink");
}

void Player::makeLink() {
    Name from;
    if (!anyName(from, [](Name const& name) { return name.object->kind != Kind::Directory; }))
        return;
    auto const to = newPlace(false);
    must(logger_->link(pathOf(from).toStdString(), pathOf(to).toStdString()), "link");
    enter(to, from.object);
    ++from.object->links;
    count("link");
    linked(from.path, {to.directory, to.path, to.name, from.object});
}

void Player::writePath() {
    Name file;
    if (!anyFile(file))
        return;
    auto const offset = randomOffset(file.object->content, file.object->huge);
    auto const data = randomData(pick(10) == 0 ? 300000 : 9000);
    must(logger_->writePath(pathOf(file).toStdString(), offset, view(data)), "write by path");
    file.object->content.write(offset, data);
    file.object->modified = FileTime::wholeSeconds(clock_);
    count("write by path");
}

void Player::openFile() {
    Name file;
    if (!anyFile(file))
        return;
    std::uint32_t fileId = 0;
    must(logger_->open(pathOf(file).toStdString(), fileId), "open");
    open_.push_back({fileId, file.object});
    count("open");
}

void Player::writeOpen() {
    if (open_.empty())
        return;
    auto const& file = open_[pick(open_.size())];
    auto const offset = randomOffset(file.object->content, file.object->huge);
    auto const data = randomData(9000);
    must(logger_->write(file.fileId, offset, view(data)), "write");
    file.object->content.write(offset, data);
    file.object->modified = FileTime::wholeSeconds(clock_);
    count("write");
}

void Player::closeFile() {
    if (open_.empty())
        return;
    auto const at = open_.begin() + static_cast<std::ptrdiff_t>(pick(open_.size()));
    must(logger_->close(at->fileId), "close");
    open_.erase(at);
    count("close");
}

void Player::truncatePath() {
    Name file;
    if (!anyFile(file))
        return;
    auto const size = randomOffset(file.object->content, file.object->huge);
    must(logger_->truncate(pathOf(file).toStdString(), size), "truncate");
    if (size != file.object->content.size())
        file.object->modified = FileTime::wholeSeconds(clock_);
    file.object->content.truncate(size);
    count("truncate by path");
}

void Player::truncateOpen() {
    if (open_.empty())
        return;
    auto const& file = open_[pick(open_.size())];
    auto const size = randomOffset(file.object->content, file.object->huge);
    must(logger_->truncateOpen(file.fileId, size), "truncate open");
    if (size != file.object->content.size())
        file.object->modified = FileTime::wholeSeconds(clock_);
    file.object->content.truncate(size);
    count("truncate");
}

void Player::rename() {
    Name from;
    if (!anyName(from, [](Name const&) { return true; }))
        return;
    auto const to = newPlace(true);
    auto const movesDirectory = from.object->kind == Kind::Directory;
    // What rename(2) refuses is never logged.
    if (movesDirectory && (to.path + '/').startsWith(from.path + '/'))
        return;
    if (to.object) {
        auto const ontoDirectory = to.object->kind == Kind::Directory;
        if (movesDirectory != ontoDirectory || (ontoDirectory && !to.object->names.empty()))
            return;
    }
    if (to.object == from.object && !renamesOntoItself())
        return;
    must(logger_->rename(pathOf(from).toStdString(), pathOf(to).toStdString()), "rename");
    count("rename");
    if (to.object == from.object)
        return;
    if (to.object)
        leave(to.directory, to.name);
    from.directory->names.erase(from.name);
    from.directory->modifiedKnown = false;
    enter(to, from.object);
    if (movesDirectory)
        from.object->modifiedKnown = false;
    renamed(from.path, {to.directory, to.path, to.name, from.object});
}

void Player::unlink() {
    Name name;
    if (!anyName(name, [](Name const& each) { return each.object->kind != Kind::Directory; }))
        return;
    must(logger_->unlink(pathOf(name).toStdString()), "unlink");
    leave(name.directory, name.name);
    count("unlink");
}

void Player::removeDirectory() {
    Name name;
    if (!anyName(name, [](Name const& each) {
            return each.object->kind == Kind::Directory && each.object->names.empty();
        }))
        return;
    must(logger_->rmdir(pathOf(name).toStdString()), "rmdir");
    leave(name.directory, name.name);
    count("rmdir");
}

FileTimes Player::randomTimes() {
    auto const time = [&] {
        constexpr std::int64_t beyondWord = std::int64_t{1} << 32;
        std::int64_t const seconds[] = {
            static_cast<std::uint32_t>(random_()), -1 - static_cast<std::int64_t>(pick(beyondWord)),
            beyondWord + static_cast<std::int64_t>(pick(beyondWord)), 0, beyondWord - 1};
        std::uint32_t const nanoseconds[] = {
            0, 1, static_cast<std::uint32_t>(pick(FileTime::nanosecondsPerSecond)),
            FileTime::nanosecondsPerSecond - 1};
        return FileTime{seconds[pick(5)], nanoseconds[pick(4)]};
    };
    return {time(), time(), time()};
}

void Player::setAttributes() {
    Name name;
    if (!anyName(name, [](Name const&) { return true; }))
        return;
    auto& object = *name.object;
    Replication::PosixAttrValues values;
    values.flags = static_cast<std::uint32_t>(pick(0x40));
    if (object.kind == Kind::Symlink)
        values.flags &= ~static_cast<std::uint32_t>(Replication::posixAttrMode);
    values.mode = (object.mode & S_IFMT) | static_cast<std::uint32_t>(pick(07777));
    values.uid = static_cast<std::uint32_t>(pick(100000));
    values.gid = static_cast<std::uint32_t>(pick(100000));
    values.times = randomTimes();
    must(logger_->setAttr(pathOf(name).toStdString(), values), "setattr");
    if (values.flags & Replication::posixAttrMode)
        object.mode = values.mode;
    if (values.flags & Replication::posixAttrUid)
        object.uid = values.uid;
    if (values.flags & Replication::posixAttrGid)
        object.gid = values.gid;
    if (values.flags & Replication::posixAttrModificationTime) {
        object.modified = values.times.modification;
        object.modifiedKnown = true;
    }
    count("setattr");
}

void Player::setExtended() {
    Name name;
    if (!anyName(name, [](Name const&) { return true; }))
        return;
    auto const key = "user." + QByteArray::number(static_cast<qulonglong>(pick(4)));
    auto const value = pick(5) == 0 ? QByteArray() : randomData(pick(10) == 0 ? 5000 : 40);
    must(logger_->setEa(pathOf(name).toStdString(), key.toStdString(), view(value)), "setea");
    name.object->attributes[key] = value;
    count("setea");
}

void Player::removeExtended() {
    Name name;
    if (!anyName(name, [](Name const& each) { return !each.object->attributes.empty(); }))
        return;
    auto const key = name.object->attributes.begin()->first;
    must(logger_->removeEa(pathOf(name).toStdString(), key.toStdString()), "removeea");
    name.object->attributes.erase(key);
    count("removeea");
}

void Player::outside() {
    std::uint32_t fileId = 0;
    must(logger_->create("/srcs/elsewhere", S_IFREG | 0644, 0, 0, fileId), "create outside");
    must(logger_->write(fileId, 0, view(randomData(100))), "write outside");
    must(logger_->close(fileId), "close outside");
    must(logger_->unlink("/srcs/elsewhere"), "unlink outside");
    count("outside");
}

void Player::removeEverything() {
    closeFiles();
    auto names = allNames(tree_);
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        auto const path = pathOf(*name).toStdString();
        must(name->object->kind == Kind::Directory ? logger_->rmdir(path) : logger_->unlink(path),
             "remove");
        leave(name->directory, name->name);
    }
    must(logger_->rmdir(std::string(sourceRoot) + '/' + workName), "rmdir");
    snapshot();
    auto const last = snapshots_.rbegin()->first;
    for (auto const& [instance, tree] : snapshots_)
        if (instance != last)
            must(root_->store(root_->source(storeName))
                     ->snapshots()
                     .deleteSnapshot(Instance{instance})
                     .ok(),
                 "delete snapshot");
    std::erase_if(snapshots_, [last](auto const& each) { return each.first != last; });
    // What files held that were open at the last checkpoint goes with the next one.
    root_->checkpoint();
    applyPool();
}

void Player::eraseStore() {
    for (auto const& file : open_)
        must(logger_->close(file.fileId), "close");
    open_.clear();
    replay_->end();
    replay_.reset();
    root_->erase(storeName, true);
    applyPool();
}

std::string Player::poolInUse() {
    XmlList all;
    root_->pool().statistics(all);
    auto const list = all.getXmlList(nullptr, "Streams");
    std::string result;
    // Not the index: an id in a list of streams to deduplicate may have passed to a later stream,
    // so the few that are left can be in it or not. The checker proves the index itself.
    for (auto const* key : {"NodeCount", "StreamsUsedStreamData", "StreamsIndirectUsedSize",
                            "StreamsDedupQueueLength", "StreamsCleanupQueueLength"})
        result += std::string(key) + ' ' + std::to_string(list.get(key, std::uint64_t{0})) + '\n';
    return result;
}

} // namespace Morva::Model
