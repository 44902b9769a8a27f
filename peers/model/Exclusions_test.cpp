// Random trees under random exclusions, which change while files are made, moved and linked between
// places that are stored, excluded and live only. MORVA_SEED repeats a run, MORVA_ROUNDS sets the
// number of changes of the exclusions.

#include "peers/model/Player.h"

#include "base/values/PosixText.h"
#include "replication/common/intake/DataSink.h"
#include "replication/common/rules/NotToBackup.h"
#include "replication/repository/store/ControlBlock.h"
#include "replication/repository/store/Store.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <set>

namespace Morva::Model {
namespace {

using Replication::DataSink;
using Replication::NotToBackup;
using Replication::OperationLogger;

/// One entry of the details, and the plain meaning of it.
struct Entry {
    QString path;
    bool directory = false;
    bool liveOnly = false;

    static bool matches(QStringView pattern, QStringView name) {
        if (pattern.isEmpty())
            return name.isEmpty();
        auto const width =
            name.size() > 1 && name[0].isHighSurrogate() && name[1].isLowSurrogate() ? 2 : 1;
        if (pattern[0] == u'*')
            return matches(pattern.mid(1), name) ||
                   (!name.isEmpty() && matches(pattern, name.mid(width)));
        if (name.isEmpty())
            return false;
        return pattern[0] == u'?' ? matches(pattern.mid(1), name.mid(width))
                                  : pattern[0] == name[0] && matches(pattern.mid(1), name.mid(1));
    }
    /// Whether it holds for exactly this object.
    [[nodiscard]] bool names(QStringList const& object) const {
        if (!path.contains(u'/'))
            return matches(path, object.last());
        auto const elements = path.split(u'/', Qt::SkipEmptyParts);
        bool same = elements.size() == object.size();
        for (qsizetype i = 0; same && i < elements.size(); ++i)
            same = matches(elements[i], object[i]);
        return same;
    }
    [[nodiscard]] bool holds(QStringList const& object, bool isDirectory) const {
        if (!directory)
            return !isDirectory && names(object);
        for (qsizetype depth = 1; depth <= object.size() - !isDirectory; ++depth)
            if (names(object.first(depth)))
                return true;
        return false;
    }
};

/// Does what `Player` does in a store that leaves things out, and logs what comes in anew, as a
/// resynchronisation would.
class Excluder : public Player {
public:
    using Player::Player;

    /// Other exclusions, told as a source tells them.
    void changeExclusions() {
        auto const before = rules_;
        closeFiles();
        rules_.clear();
        for (auto entries = pick(5); entries > 0; --entries)
            addEntry();
        XmlList details;
        for (auto const& entry : rules_)
            NotToBackup::addEntry(details, entry.path, entry.directory, entry.liveOnly);
        auto const bytes = details.toBinary();
        ASSERT_TRUE(logger_->message(
            pick(4) == 0 ? DataSink::SourceStarted : DataSink::NotToBackupDetails, Extent(bytes)));
        std::set<QByteArray> missing;
        for (auto const& name : allNames(tree_))
            if (stores(name) && answer(before, name.path, name.object) == NotToBackup::eExcluded)
                missing.insert(name.path);
        bringIn(missing);
    }
    void operateOn(int operations) { play(operations); }
    /// Names that the next snapshot shows.
    [[nodiscard]] std::pair<std::uint64_t, std::uint64_t> expectedCounts() const {
        std::pair<std::uint64_t, std::uint64_t> result{1, 0}; // with the top
        for (auto const& name : allNames(tree_))
            if (answer(rules_, name.path, name.object) == NotToBackup::eNothing)
                ++(name.object->kind == Kind::Directory ? result.first : result.second);
        return result;
    }
    [[nodiscard]] std::pair<std::uint64_t, std::uint64_t> countsOfStore() {
        auto const counters = root_->store(root_->sources().front())->control().counters();
        return {counters[0], counters[1]};
    }
    [[nodiscard]] std::string rules() const {
        std::string result;
        for (auto const& entry : rules_)
            result += "  " + encodePosixText(entry.path).toPercentEncoding("/*?").toStdString() +
                      (entry.directory ? " directory" : "") + (entry.liveOnly ? " live only" : "") +
                      '\n';
        return result;
    }
    void endExclusions() {
        closeFiles();
        rules_.clear();
        ASSERT_TRUE(logger_->message(DataSink::NotToBackupDetails, Extent(XmlList().toBinary())));
    }

private:
    using Rules = std::vector<Entry>;

    [[nodiscard]] static NotToBackup::OpType answer(Rules const& rules, QByteArray const& path,
                                                    ObjectPointer const& object) {
        auto const parts = decodePosixText("r/" + path).split(u'/');
        auto result = NotToBackup::eNothing;
        for (auto const& entry : rules)
            if (entry.holds(parts, object->kind == Kind::Directory)) {
                if (!entry.liveOnly)
                    return NotToBackup::eExcluded;
                result = NotToBackup::eLiveOnly;
            }
        return result;
    }
    [[nodiscard]] bool stores(Name const& name) const {
        return answer(rules_, name.path, name.object) != NotToBackup::eExcluded;
    }

    /// Mostly made from a name that is there, so that it meets something.
    void addEntry() {
        auto const names = allNames(tree_);
        Entry entry;
        entry.directory = pick(2) == 0;
        entry.liveOnly = pick(2) == 0;
        auto parts = names.empty()
                         ? QStringList{QStringLiteral("r"), QStringLiteral("x")}
                         : decodePosixText("r/" + names[pick(names.size())].path).split(u'/');
        for (qsizetype i = 1; i < parts.size(); ++i) {
            auto& part = parts[i];
            auto const at = static_cast<qsizetype>(pick(static_cast<std::uint64_t>(part.size())));
            if (pick(4) == 0)
                part = part.left(at) + u'*';
            else if (pick(4) == 0)
                part[at] = u'?';
        }
        entry.path = pick(2) == 0 ? parts.last() : u'/' + parts.join(u'/');
        // The top stays.
        if (!entry.holds({QStringLiteral("r")}, true))
            rules_.push_back(entry);
    }

    /// A copy of the tree with the names that fit, and their numbers.
    template <class Fits>
    ObjectPointer filtered(ObjectPointer const& directory, QByteArray const& prefix,
                           std::map<Object const*, ObjectPointer>& done, Fits const& fits) const {
        auto result = std::make_shared<Object>(*directory);
        result->names.clear();
        for (auto const& [name, object] : directory->names) {
            if (!fits(answer(rules_, prefix + name, object)))
                continue;
            if (object->kind == Kind::Directory) {
                result->names[name] = filtered(object, prefix + name + '/', done, fits);
                continue;
            }
            auto& copy = done[object.get()];
            if (copy) {
                ++copy->links;
            } else {
                copy = std::make_shared<Object>(*object);
                copy->links = 1;
            }
            result->names[name] = copy;
        }
        return result;
    }
    ObjectPointer stored() override {
        std::map<Object const*, ObjectPointer> done;
        return filtered(tree_, {}, done,
                        [](auto answer) { return answer != NotToBackup::eExcluded; });
    }
    ObjectPointer shown() override {
        std::map<Object const*, ObjectPointer> done, all;
        (void)filtered(tree_, {}, all, // for the counts alone
                       [](auto answer) { return answer != NotToBackup::eExcluded; });
        auto result =
            filtered(tree_, {}, done, [](auto answer) { return answer == NotToBackup::eNothing; });
        // A live-only name counts, though snapshots don't show it.
        for (auto const& [object, copy] : done)
            copy->links = all.at(object)->links;
        return result;
    }

    /// What is done by an excluded name of an object is not seen by its others.
    bool usable(Name const& name) override {
        if (name.object->kind == Kind::Directory || name.object->links == 1 || stores(name))
            return true;
        for (auto const& other : allNames(tree_))
            if (other.object == name.object && stores(other))
                return false;
        return true;
    }
    bool renamesOntoItself() const override { return false; }
    void renamed(QByteArray const& from, Name const& to) override {
        std::set<QByteArray> missing;
        for (auto const& name : allNames(tree_)) {
            if (name.path != to.path && !name.path.startsWith(to.path + '/'))
                continue;
            auto const old = from + name.path.mid(to.path.size());
            if (stores(name) && answer(rules_, old, name.object) == NotToBackup::eExcluded)
                missing.insert(name.path);
        }
        bringIn(missing);
    }
    void linked(QByteArray const& from, Name const& to) override {
        if (answer(rules_, from, to.object) == NotToBackup::eExcluded && stores(to))
            bringIn({to.path});
    }

    void bringIn(std::set<QByteArray> missing) {
        if (missing.empty())
            return;
        closeFiles();
        auto const names = allNames(tree_);
        for (auto const& name : names)
            if (missing.contains(name.path)) {
                Name existing;
                for (auto const& other : names)
                    if (name.object->kind != Kind::Directory && other.object == name.object &&
                        stores(other) && !missing.contains(other.path))
                        existing = other;
                log(name, existing);
                missing.erase(name.path);
            }
        // Their own times go with what was put into them.
        for (auto name = names.rbegin(); name != names.rend(); ++name)
            if (name->object->kind == Kind::Directory && stores(*name) &&
                name->object->modifiedKnown)
                logAttributes(*name);
    }
    void log(Name const& name, Name const& existing) {
        auto const& object = *name.object;
        auto const path = pathOf(name).toStdString();
        count("brought in");
        if (existing.object) {
            ASSERT_TRUE(logger_->link(pathOf(existing).toStdString(), path));
            return;
        }
        switch (object.kind) {
        case Kind::Directory:
            ASSERT_TRUE(logger_->rmdir(path));
            ASSERT_TRUE(logger_->mkdir(path, object.mode, object.uid, object.gid));
            break;
        case Kind::File:
            logFile(path, object);
            break;
        case Kind::Symlink:
            ASSERT_TRUE(
                logger_->symlink(object.target.toStdString(), path, object.uid, object.gid));
            break;
        case Kind::Special:
            ASSERT_TRUE(logger_->mknod(path, object.mode, object.uid, object.gid, object.device));
            break;
        }
        for (auto const& [key, value] : object.attributes)
            ASSERT_TRUE(logger_->setEa(path, key.toStdString(), Extent(value)));
        logAttributes(name);
    }
    void logFile(std::string const& path, Object const& object) {
        std::uint32_t fileId = 0;
        ASSERT_TRUE(logger_->create(path, object.mode, object.uid, object.gid, fileId));
        for (auto const& [number, block] : object.content.blocks()) {
            auto const at = number * blockSize;
            if (at >= object.content.size())
                break;
            auto const size = std::min<std::uint64_t>(blockSize, object.content.size() - at);
            ASSERT_TRUE(logger_->write(
                fileId, at,
                {static_cast<void const*>(block.data()), static_cast<std::uint32_t>(size)}));
        }
        ASSERT_TRUE(logger_->truncateOpen(fileId, object.content.size()));
        ASSERT_TRUE(logger_->close(fileId));
    }
    void logAttributes(Name const& name) {
        auto const& object = *name.object;
        Replication::PosixAttrValues values;
        values.flags = Replication::posixAttrUid | Replication::posixAttrGid;
        if (object.kind != Kind::Symlink)
            values.flags |= Replication::posixAttrMode;
        if (object.modifiedKnown)
            values.flags |= Replication::posixAttrModificationTime;
        values.mode = object.mode;
        values.uid = object.uid;
        values.gid = object.gid;
        values.times.modification = object.modified;
        ASSERT_TRUE(logger_->setAttr(pathOf(name).toStdString(), values));
    }

    Rules rules_;
};

std::uint64_t fromEnvironment(char const* name, std::uint64_t otherwise) {
    auto const* text = std::getenv(name);
    return text ? std::strtoull(text, nullptr, 0) : otherwise;
}

std::vector<std::uint64_t> seeds() {
    if (std::getenv("MORVA_SEED"))
        return {fromEnvironment("MORVA_SEED", 0)};
    return {1, 3, std::random_device{}()};
}

class Exclusions : public testing::TestWithParam<std::uint64_t> {};

TEST_P(Exclusions, TheStoreHoldsWhatTheyLeaveAfterEveryChange) {
    auto const seed = GetParam();
    std::cout << "seed " << seed << std::endl;
    QTemporaryDir directory;
    Excluder player(directory.path() + "/root", seed);
    auto const rounds = static_cast<int>(fromEnvironment("MORVA_ROUNDS", 25));
    for (int round = 0; round < rounds; ++round) {
        auto const at = "seed " + std::to_string(seed) + " round " + std::to_string(round);
        player.operateOn(100);
        ASSERT_EQ(player.differences(), "") << at << '\n' << player.rules();
        player.changeExclusions();
        ASSERT_FALSE(HasFailure()) << at << '\n' << player.rules();
        ASSERT_EQ(player.differences(), "") << at << " changed\n" << player.rules();
        ASSERT_EQ(player.countsOfStore(), player.expectedCounts()) << at << '\n' << player.rules();
        if (round % 5 == 4) {
            ASSERT_EQ(player.faults(), "") << at << '\n' << player.rules();
        }
    }
    player.endExclusions();
    player.removeEverything();
    EXPECT_EQ(player.poolInUse(), player.poolAtStart()) << "seed " << seed;
    EXPECT_EQ(player.faults(), "") << "seed " << seed << " at the end";
    for (auto const& [what, count] : player.counts())
        std::cout << what << ' ' << count << "; ";
    std::cout << std::endl;
}

INSTANTIATE_TEST_SUITE_P(Seeds, Exclusions, testing::ValuesIn(seeds()),
                         [](auto const& info) { return "Seed" + std::to_string(info.index); });

} // namespace
} // namespace Morva::Model
