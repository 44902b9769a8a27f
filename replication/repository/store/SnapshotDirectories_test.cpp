#include "replication/repository/store/SnapshotDirectories.h"

#include "base/messages/XmlList.h"
#include "base/trees/PagedList.h"
#include "base/values/PackBuffer.h"
#include "replication/common/values/RepMetadata.h"
#include "replication/repository/store/DirectoriesFixture.h"

#include <array>
#include <vector>

namespace Replication {
namespace {

using Morva::Extent;
using Answer = DirectoryStatus;

struct Read {
    std::uint32_t status = 0;
    bool eof = false;
    QStringList names;
    std::uint64_t cookie = 0;
    std::vector<FileHandle> handles;
    std::vector<RepMetadata> descriptions;
};

class SnapshotDirectories_ : public DirectoriesFixture {
protected:
    SnapshotDirectories& snapshots() { return store().snapshotDirectories(); }

    Read read(FileId directory, Instance instance, std::uint64_t cookie, std::uint32_t maximum = 0,
              std::uint32_t space = 65536, bool attributes = false, bool handles = false) {
        Read result;
        std::vector<std::uint8_t> bytes(space);
        Extent buffer(bytes.data(), space);
        auto const node = value(store().passiveHandle(directory, instance));
        result.status = snapshots().dirRead(result.eof, buffer, *node, instance, cookie, maximum,
                                            attributes, handles);
        EXPECT_EQ(buffer.size % 8, 0u);
        Morva::UnpackBuffer record;
        for (std::uint32_t at = 0; at < buffer.size;) {
            record.fromRawData(Extent(buffer.bytes() + at, buffer.size - at));
            std::uint32_t type = 0;
            QString name;
            EXPECT_TRUE(record.take(result.cookie) && record.take(type) && record.take(name));
            result.names.append(name);
            if (handles) {
                std::array<std::uint8_t, 32> packed;
                EXPECT_TRUE(record.take(packed.data(), 32));
                EXPECT_TRUE(result.handles.emplace_back().decode(Extent(packed.data(), 32u)));
            }
            if (attributes) {
                EXPECT_TRUE(result.descriptions.emplace_back().deserialize(record));
            }
            std::uint32_t const left = record.extent().size;
            at = (buffer.size - left + 7) / 8 * 8;
        }
        return result;
    }
    FileHandle fileHandle(FileId id) {
        return value(store().fileHandle(id, {}, FileHandle::FileIdOnly));
    }
    FileHandle snapshotHandle(Instance instance) {
        return value(store().fileHandle(root(), instance, FileHandle::Snapshot));
    }
};

TEST_F(SnapshotDirectories_, LargeDirectoryFindsEveryNameInEitherCase) {
    make(false);
    std::vector<FileId> ids;
    for (int i = 0; i < 1000; ++i)
        ids.push_back(make(root(), QString("Name-%1-of-a-Large-Directory").arg(i)));
    Instance const instance = snapshot();
    ASSERT_TRUE(removeName(root(), "name-5-of-a-large-directory"));
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(value(snapshots().findName(root(), instance,
                                             QString("nAME-%1-of-a-large-directory").arg(i))),
                  ids[i]);
    EXPECT_FALSE(value(snapshots().findName(root(), instance, "name-1000-of-a-large-directory")));
    Instance const later = snapshot();
    EXPECT_FALSE(value(snapshots().findName(root(), later, "name-5-of-a-large-directory")));
    EXPECT_EQ(value(snapshots().findName(root(), later, "name-6-of-a-large-directory")), ids[6]);
}

TEST_F(SnapshotDirectories_, DirReadGoesOnAtItsCookie) {
    QStringList names;
    for (int i = 0; i < 200; ++i) {
        names.append(QString("entry-%1").arg(i, 20, 10, QChar('0')));
        ASSERT_TRUE(make(root(), names.last()));
    }
    ASSERT_TRUE(make(root(), "hidden", fileType, LiveMode::LiveOnly));
    Instance const instance = snapshot();
    EXPECT_EQ(read(root(), instance, 0).names, names);
    EXPECT_TRUE(read(root(), instance, 0).eof);
    EXPECT_TRUE(value(snapshots().findName(root(), instance, "hidden")));
    for (auto const& [maximum, space] : {std::pair{7u, 65536u}, {0u, 300u}}) {
        QStringList all;
        std::uint64_t cookie = 0;
        for (int round = 0; round < 1000; ++round) {
            Read const part = read(root(), instance, cookie, maximum, space);
            ASSERT_EQ(part.status, Answer::ok);
            all += part.names;
            if (part.eof)
                break;
            ASSERT_FALSE(part.names.isEmpty());
            cookie = part.cookie;
        }
        EXPECT_EQ(all, names);
    }
}

TEST_F(SnapshotDirectories_, DirReadRefusesWhatIsNoEntry) {
    FileId const empty = make(root(), "empty", directoryType);
    FileId const file = make(root(), "file");
    Instance const instance = snapshot();
    Read result = read(empty, instance, 0);
    EXPECT_TRUE(result.status == Answer::ok && result.eof && result.names.isEmpty());
    struct {
        std::uint64_t cookie;
        std::uint32_t status;
        bool eof;
    } const cases[] = {{36, Answer::badCookie, false},
                       {3000, Answer::badCookie, false},
                       {32, Answer::ok, true},
                       {4096, Answer::ok, true},
                       {1ULL << 50, Answer::ok, true}};
    for (auto const& one : cases) {
        result = read(root(), instance, one.cookie);
        EXPECT_EQ(result.status, one.status) << one.cookie;
        EXPECT_EQ(result.eof, one.eof) << one.cookie;
    }
    result = read(root(), instance, 0, 0, 16);
    EXPECT_TRUE(result.status == Answer::ok && !result.eof && result.names.isEmpty());
    EXPECT_EQ(read(file, instance, 0).status, Answer::badHandle);

    Morva::XmlList reply;
    std::vector<std::uint8_t> bytes(4096);
    auto const readDir = [&](FileHandle const& handle) {
        Extent buffer(bytes.data(), 4096u);
        return snapshots().readDir(reply, buffer, handle, 0, 0, false, false);
    };
    EXPECT_EQ(readDir(fileHandle(root())), Answer::badHandle);
    EXPECT_EQ(readDir(value(store().fileHandle(FileId{999}, instance, FileHandle::Passive))),
              Answer::handleExpired);
    EXPECT_EQ(readDir(value(store().fileHandle(file, instance, FileHandle::Passive))),
              Answer::notDirectory);
    EXPECT_EQ(readDir(snapshotHandle(instance)), Answer::ok);
    EXPECT_TRUE(reply.getBool(nullptr, "DirEOF"));
}

TEST_F(SnapshotDirectories_, DirReadGivesHandlesAndDescriptions) {
    FileId const folder = make(root(), "folder", directoryType);
    FileId const file = make(root(), "file");
    Instance const instance = snapshot();
    Read const result = read(root(), instance, 0, 0, 65536, true, true);
    ASSERT_EQ(result.names, QStringList({"folder", "file"}));
    EXPECT_EQ(result.handles[0], value(store().fileHandle(folder, instance, FileHandle::Passive)));
    EXPECT_EQ(result.handles[1], value(store().fileHandle(file, instance, FileHandle::Passive)));
    EXPECT_EQ(result.descriptions[0].type, directoryType);
    EXPECT_EQ(result.descriptions[1].kind, RepMetadata::eSnapshot);
    EXPECT_EQ(result.descriptions[1].linkCount, 1u);
}

TEST_F(SnapshotDirectories_, PathsAndNamesClimbToTheRoot) {
    FileId const a = make(root(), "a", directoryType);
    FileId const b = make(a, "b", directoryType);
    FileId const c = make(b, "c", directoryType);
    FileId const file = make(b, "file");
    // The content of this one would pass for a parent entry.
    QByteArray forged(32, '\0');
    forged[0] = 32;
    forged[8] = 1;
    ASSERT_TRUE(writeFile("forged", forged));
    Instance const first = snapshot();
    ASSERT_TRUE(move(b, "c", root(), "moved"));
    Instance const second = snapshot();
    QString text;
    EXPECT_EQ(snapshots().directoryPath(text, snapshotHandle(first), fileHandle(c)), 0u);
    EXPECT_EQ(text, QString("a/b/c"));
    EXPECT_EQ(snapshots().directoryPath(text, snapshotHandle(second), fileHandle(c)), 0u);
    EXPECT_EQ(text, QString("moved"));
    EXPECT_EQ(snapshots().directoryPath(text, snapshotHandle(second), fileHandle(root())), 0u);
    EXPECT_EQ(text, QString());
    EXPECT_EQ(snapshots().directoryPath(text, snapshotHandle(first), fileHandle(file)),
              Answer::stale);
    EXPECT_EQ(snapshots().directoryPath(text, fileHandle(c), fileHandle(c)), Answer::badArguments);
    FileHandle strange = fileHandle(c);
    strange.store = StoreId{999};
    EXPECT_EQ(snapshots().directoryPath(text, snapshotHandle(first), strange),
              Answer::badArguments);
    FileHandle future = snapshotHandle(Instance{second.value + 1});
    EXPECT_EQ(snapshots().directoryPath(text, future, fileHandle(c)), Answer::badArguments);

    EXPECT_EQ(snapshots().objectName(text, fileHandle(file), fileHandle(b), snapshotHandle(first)),
              0u);
    EXPECT_EQ(text, QString("file"));
    EXPECT_EQ(snapshots().objectName(text, fileHandle(file), fileHandle(a), snapshotHandle(first)),
              Answer::stale);
    EXPECT_EQ(value(snapshots().parentId(*value(store().passiveHandle(c, first)))), b);
    EXPECT_EQ(value(snapshots().parentId(*value(store().passiveHandle(c, second)))), root());
    FileHandle handle =
        value(store().fileHandle(found(root(), "forged").fileId(), first, FileHandle::Passive));
    EXPECT_EQ(store().lookupParent(handle, handle), Answer::serverFault);
}

TEST_F(SnapshotDirectories_, DirscanTellsEveryName) {
    FileId const folder = make(root(), "folder", directoryType);
    ASSERT_TRUE(make(root(), "hidden", fileType, LiveMode::LiveOnly));
    Instance const instance = snapshot();
    Morva::PagedList list(root_.filePath("list"));
    std::uint32_t count = 0;
    auto const version = value(store().passiveHandle(root(), instance));
    ASSERT_TRUE(snapshots().dirscan(count, list, *version, root(), instance));
    ASSERT_TRUE(directories().dirscan(count, list, *node(root()), root()));
    EXPECT_EQ(count, 4u);
    list.setPositionStart();
    Extent bytes;
    DirscanRecord record;
    ASSERT_TRUE(*list.read(bytes));
    EXPECT_EQ(bytes.size, 30u);
    ASSERT_TRUE(record.decode(bytes));
    EXPECT_EQ(record.name, QString("folder"));
    EXPECT_EQ(record.fileId, folder);
    EXPECT_EQ(record.type, directoryType);
    EXPECT_EQ(record.link, LinkId{1});
    EXPECT_FALSE(record.decode(Extent(bytes.data, 17u)));
    EXPECT_FALSE(record.decode(Extent(bytes.data, 19u)));
    EXPECT_TRUE(*list.read(bytes) && *list.read(bytes) && *list.read(bytes) && !*list.read(bytes));
}

TEST_F(SnapshotDirectories_, DamagedPageEndsEveryScan) {
    for (int i = 0; i < 300; ++i)
        ASSERT_TRUE(make(root(), QString("name-%1").arg(i)));
    auto const open = handle(root());
    auto stream = value(node(root())->openStream("Data"));
    std::uint32_t const length = 30;
    std::uint64_t const position = found(root(), "name-100").position();
    ASSERT_TRUE(open->write(LinkId{1}, stream, position, &length, 4, 0));
    directories().forget();
    Instance const instance = snapshot();
    auto const version = value(store().passiveHandle(root(), instance));
    EXPECT_FALSE(snapshots().validDirectory(*version, root(), instance));
    EXPECT_FALSE(directories().validDirectory(*node(root()), root()));
    EXPECT_TRUE(value(snapshots().findName(root(), instance, "name-99")));
    // Whether they are there can't be told.
    EXPECT_EQ(snapshots().findName(root(), instance, "name-100").code(),
              Morva::Status::Code::Corruption);
    EXPECT_EQ(snapshots().findName(root(), instance, "name-299").code(),
              Morva::Status::Code::Corruption);
    Read const part = read(root(), instance, 0);
    EXPECT_EQ(part.status, Answer::serverFault);
    EXPECT_FALSE(part.eof);
    EXPECT_EQ(part.names.size(), 100);
    std::uint32_t count = 0;
    Morva::PagedList list(root_.filePath("list"));
    EXPECT_FALSE(snapshots().dirscan(count, list, *version, root(), instance));
    EXPECT_EQ(count, 100u);
    // A name that fits before the damage is entered there, any other is refused.
    EXPECT_FALSE(make(root(), QString("x").repeated(500)));
    EXPECT_FALSE(exists(root(), QString("x").repeated(500)));
}

} // namespace
} // namespace Replication
