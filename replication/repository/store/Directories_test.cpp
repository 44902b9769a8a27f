#include "replication/repository/store/Directories.h"

#include "base/files/FaultyFiles.h"
#include "base/messages/XmlList.h"
#include "replication/repository/store/DirectoriesFixture.h"
#include "replication/repository/store/DirectoryScan.h"

#include <map>

namespace Replication {
namespace {

using Directories_ = DirectoriesFixture;

std::map<QString, FileId> namesOf(FileNode& node) {
    std::map<QString, FileId> result;
    DirectoryScan scan(node, {}, "test");
    while (scan.nextName())
        result.emplace(scan.entry().name().toString(), scan.entry().fileId());
    EXPECT_FALSE(scan.failed());
    return result;
}

TEST_F(Directories_, NameThatDoesNotFitAPageIsRefused) {
    EXPECT_TRUE(make(root(), QString(2033, 'x')));
    EXPECT_EQ(found(root(), QString(2033, 'x')).position(), 4096u);
    for (int length : {2034, 4064, 4065, 70000}) {
        EXPECT_FALSE(make(root(), QString(length, 'x'))) << length;
        EXPECT_FALSE(exists(root(), QString(length, 'x')));
    }
    EXPECT_FALSE(make(root(), ""));
    EXPECT_EQ(files(), 1u);
    EXPECT_TRUE(valid(root()));
}

TEST_F(Directories_, CaseInsensitiveStoreKeepsTheFirstSpelling) {
    make(false);
    FileId const id = make(root(), "ReadMe");
    EXPECT_EQ(found(root(), "README").fileId(), id);
    EXPECT_EQ(namesOf(*node(root())).begin()->first, QString("ReadMe"));
    // Lower case of this one isn't what a comparison by character takes for equal.
    QString const dotted = QString(QChar(0x130)) + "x";
    ASSERT_TRUE(make(root(), dotted));
    EXPECT_TRUE(valid(root()));
    EXPECT_TRUE(removeName(root(), dotted));
    EXPECT_TRUE(removeName(root(), "readME"));
    EXPECT_EQ(files(), 0u);
}

TEST_F(Directories_, DirectoryWithNamesIsRemovedByForceOrUnlinkAlone) {
    FileId const folder = make(root(), "folder", directoryType);
    ASSERT_TRUE(make(folder, "inside"));
    EXPECT_FALSE(value(directories().emptyDirectory(found(root(), "folder"))));
    EXPECT_FALSE(removeName(root(), "folder"));
    EXPECT_TRUE(exists(root(), "folder"));
    DirKey key = found(root(), "folder");
    // Only the stream goes, not what the directory holds.
    EXPECT_FALSE(directories().unlink(key, *handle(folder), "Ea"));
    EXPECT_TRUE(exists(folder, "inside"));
    EXPECT_TRUE(directories().unlink(key, *handle(folder), "Data"));
    EXPECT_FALSE(exists(root(), "folder"));
    EXPECT_FALSE(exists(folder, "inside"));
    EXPECT_EQ(files() + folders(), 0u);
    DirKey top = DirKey::root(root());
    EXPECT_FALSE(directories().unlink(top, *handle(root()), "Data"));
}

TEST_F(Directories_, UnlinkOfANameThatStandsForAnotherFileChangesNothing) {
    FileId const first = make(root(), "name");
    DirKey key = found(root(), "name");
    auto const open = handle(first);
    ASSERT_TRUE(removeName(root(), "name"));
    EXPECT_TRUE(directories().unlink(key, *open, "Data"));
    FileId const second = make(root(), "name");
    ASSERT_NE(first, second);
    EXPECT_TRUE(directories().unlink(key, *open, "Data"));
    EXPECT_EQ(found(root(), "name").fileId(), second);
}

TEST_F(Directories_, RemoveOfAKeyThatDoesNotMatchThePageLeavesTheTree) {
    ASSERT_TRUE(make(root(), "a"));
    ASSERT_TRUE(make(root(), "b"));
    DirKey const a = found(root(), "a");
    struct {
        std::uint64_t position;
        FileId id;
    } const cases[] = {{found(root(), "b").position(), a.fileId()},
                       {a.position(), FileId{a.fileId().value + 1}},
                       {a.position() + 4, a.fileId()},
                       {4092, a.fileId()},
                       {1ULL << 40, a.fileId()}};
    for (auto const& one : cases) {
        DirKey key = a;
        key.position(one.position);
        key.fileId(one.id);
        EXPECT_FALSE(directories().remove(key, false)) << one.position;
        EXPECT_TRUE(exists(root(), "a"));
        EXPECT_TRUE(valid(root()));
    }
}

TEST_F(Directories_, LocateWalksAndBuildsPaths) {
    auto located = value(directories().locate({}, PathMode::DoNotBuildPath));
    EXPECT_TRUE(located.found);
    EXPECT_EQ(located.key.fileId(), root());
    located = value(directories().locate({"a", "b", "c"}, PathMode::DoNotBuildPath));
    EXPECT_FALSE(located.found || located.parentFound);
    EXPECT_EQ(folders(), 0u);
    located = value(directories().locate({"a", "b", "c"}, PathMode::BuildPath));
    EXPECT_FALSE(located.found);
    ASSERT_TRUE(located.parentFound);
    EXPECT_EQ(located.parent.name(), QString("b"));
    EXPECT_EQ(folders(), 2u);
    EXPECT_TRUE(node(located.parent.fileId())->placeHolder());
    ASSERT_TRUE(make(located.parent.fileId(), "c"));
    EXPECT_TRUE(value(directories().locate({"a", "b", "c"}, PathMode::DoNotBuildPath)).found);
    located = value(directories().locate({"a", "b", "c", "d"}, PathMode::BuildPath));
    EXPECT_FALSE(located.found || located.parentFound);
}

TEST_F(Directories_, RenameMovesAndReplaces) {
    FileId const from = make(root(), "from", directoryType);
    FileId const to = make(root(), "to", directoryType);
    FileId const folder = make(from, "folder", directoryType);
    ASSERT_TRUE(make(folder, "inside"));
    ASSERT_TRUE(make(to, "empty", directoryType));
    ASSERT_TRUE(make(to, "full", directoryType));
    ASSERT_TRUE(make(found(to, "full").fileId(), "x"));
    std::uint64_t const before = folders();

    EXPECT_TRUE(move(from, "folder", from, "folder"));
    EXPECT_FALSE(move(from, "folder", to, "full"));
    EXPECT_TRUE(exists(from, "folder") && exists(to, "full"));
    EXPECT_TRUE(move(from, "folder", to, "empty"));
    EXPECT_EQ(found(to, "empty").fileId(), folder);
    EXPECT_TRUE(exists(folder, "inside"));
    EXPECT_EQ(value(parentOf(*node(folder))), to);
    EXPECT_EQ(folders(), before - 1);
    EXPECT_FALSE(exists(from, "folder"));
    for (FileId id : {root(), from, to, folder})
        EXPECT_TRUE(valid(id));

    DirKey absent = directories().key(from, "absent");
    DirKey target = directories().key(to, "absent");
    EXPECT_FALSE(
        directories().rename(NotToBackup::eNothing, *handle(folder), absent, target, "absent"));
    DirKey key = found(to, "empty");
    DirKey tooLong = directories().key(from, QString(2034, 'n'));
    EXPECT_FALSE(directories().rename(NotToBackup::eNothing, *handle(folder), key, tooLong,
                                      QString(2034, 'n')));
    EXPECT_TRUE(exists(to, "empty"));
}

TEST_F(Directories_, DirectoryCannotMoveBelowItself) {
    FileId const a = make(root(), "a", directoryType);
    FileId const b = make(a, "b", directoryType);
    FileId const c = make(b, "c", directoryType);
    EXPECT_FALSE(move(root(), "a", a, "self"));
    EXPECT_FALSE(move(root(), "a", c, "below"));
    EXPECT_FALSE(move(a, "b", c, "below"));
    EXPECT_TRUE(move(b, "c", root(), "c"));
    EXPECT_TRUE(move(root(), "a", c, "a"));
    EXPECT_TRUE(value(directories().locate({"c", "a", "b"}, PathMode::DoNotBuildPath)).found);
}

TEST_F(Directories_, LinksCountTheirNames) {
    FileId const id = make(root(), "one");
    DirKey key = found(root(), "one");
    EXPECT_FALSE(directories().link(NotToBackup::eNothing, key, {}));
    EXPECT_FALSE(directories().link(NotToBackup::eNothing, key, {"one"}));
    EXPECT_TRUE(directories().link(NotToBackup::eNothing, key, {"new", "two"}));
    DirKey folder = found(root(), "new");
    EXPECT_FALSE(directories().link(NotToBackup::eNothing, folder, {"three"}));
    DirKey const two = found(folder.fileId(), "two");
    EXPECT_EQ(two.fileId(), id);
    EXPECT_EQ(two.linkId(), LinkId{2});
    EXPECT_EQ(files(), 2u);
    ASSERT_TRUE(removeName(root(), "one"));
    EXPECT_EQ(files(), 1u);
    EXPECT_EQ(handle(id)->linkCount(), 1u);
    ASSERT_TRUE(removeName(folder.fileId(), "two"));
    EXPECT_EQ(files(), 0u);
    EXPECT_FALSE(handle(id));
}

TEST_F(Directories_, DeepTreeIsDiscarded) {
    FileId const top = make(root(), "top", directoryType);
    FileId parent = top;
    for (int level = 0; level < 3000; ++level) {
        parent = make(parent, "d", directoryType);
        ASSERT_TRUE(parent);
    }
    ASSERT_TRUE(make(parent, "file"));
    DirKey key = found(root(), "top");
    EXPECT_TRUE(directories().unlink(key, *handle(top), "Data"));
    EXPECT_EQ(files() + folders(), 0u);
    EXPECT_EQ(directories().keyCount(), 0u);
}

TEST_F(Directories_, DiscardKeepsWhatTheTreeDoesNotKnow) {
    FileId const folder = make(root(), "folder", directoryType);
    for (char const* name : {"a", "b", "c", "d"})
        ASSERT_TRUE(make(folder, name));
    // An entry that has no key is what a crash can leave.
    auto open = handle(folder);
    auto stream = value(node(folder)->openStream("Data"));
    std::uint64_t const strange = 99;
    ASSERT_TRUE(open->write(LinkId{1}, stream, found(folder, "b").position() + 8, &strange, 8, 0));
    directories().forget();
    EXPECT_FALSE(valid(folder));
    EXPECT_FALSE(directories().discardDirectory(*open));
    EXPECT_EQ(namesOf(*node(folder)).size(), 1u);
    EXPECT_TRUE(namesOf(*node(folder)).contains("b"));
}

NotToBackup someRules() {
    Morva::XmlList details;
    NotToBackup::addEntry(details, "*.tmp", false, false);
    NotToBackup::addEntry(details, "*.log", false, true);
    NotToBackup::addEntry(details, "gone", true, false);
    return {details, true};
}

TEST_F(Directories_, RulesAreAppliedToEveryPageAndTakenBack) {
    FileId const folder = make(root(), "folder", directoryType);
    char const* const ends[] = {"tmp", "log", "txt"};
    for (int i = 0; i < 300; ++i)
        ASSERT_TRUE(make(folder, QString("file%1.%2").arg(i).arg(ends[i % 3])));
    QStringList path{"folder"};
    EXPECT_TRUE(directories().checkOperations(someRules(), *handle(folder), path));
    EXPECT_EQ(path, QStringList{"folder"});
    EXPECT_EQ(namesOf(*node(folder)).size(), 200u);
    EXPECT_EQ(files(), 100u);
    EXPECT_TRUE(found(folder, "file298.log").liveOnly());
    EXPECT_TRUE(valid(folder));
    // Without rules all marks go again.
    EXPECT_TRUE(directories().checkOperations(NotToBackup(), *handle(folder), path));
    EXPECT_FALSE(found(folder, "file298.log").liveOnly());
    EXPECT_EQ(files(), 200u);
}

struct Faults {
    Morva::FaultyFiles files_;
};
class FaultyDirectories : protected Faults, public DirectoriesFixture {};

TEST_F(FaultyDirectories, RulesThatTheDiskCutShortAreAppliedWholeTheNextTime) {
    NotToBackup const rules = someRules();
    files_.onlyNamesEndingWith("data.blocks");
    bool cut = true;
    for (int writes = 0; cut; ++writes) {
        SCOPED_TRACE(writes);
        QString const name = QString("folder%1").arg(writes);
        FileId const folder = make(root(), name, directoryType);
        ASSERT_TRUE(make(folder, "a.tmp"));
        ASSERT_TRUE(make(folder, "b.log"));
        ASSERT_TRUE(make(make(folder, "gone", directoryType), "below"));
        ASSERT_TRUE(make(folder, "c.log"));
        ASSERT_TRUE(make(folder, "d.tmp"));
        snapshot();
        QStringList path{name};
        std::uint64_t const before = files_.faults();
        files_.failWritesAfter(writes);
        bool const whole = directories().checkOperations(rules, *handle(folder), path).ok();
        cut = files_.faults() != before;
        // Success may leave something to be done later, and then nothing is committed before.
        EXPECT_EQ(whole && store().settle(), !cut);
        files_.heal();
        ASSERT_TRUE(store().settle());
        EXPECT_TRUE(directories().checkOperations(rules, *handle(folder), path));
        EXPECT_TRUE(valid(folder));
        QStringList left;
        DirectoryScan scan(*node(folder), folder, "test");
        while (scan.nextName())
            if (scan.entry().liveOnly() == found(folder, scan.entry().name().toString()).liveOnly())
                left.append(scan.entry().name().toString());
        EXPECT_EQ(left, (QStringList{"b.log", "c.log"}));
        EXPECT_TRUE(found(folder, "b.log").liveOnly());
        EXPECT_TRUE(found(folder, "c.log").liveOnly());
        EXPECT_EQ(files(), 0u);
        EXPECT_EQ(folders(), writes + 1u);
    }
}

} // namespace
} // namespace Replication
