// Writes the corpus of the fuzz targets from real records: make_corpus FOLDER.
// To be run again when a format changes.
//
// Not made here but kept as they are: security/*, windows/descriptor, whose format is another's,
// and journal/fields, exchange/row, windows/files, windows/links, windows/values, which are steps
// of their targets.

#include "base/blocks/Blocks.h"
#include "base/blocks/FreeList.h"
#include "base/blocks/ReferenceCount.h"
#include "base/files/JournalTable.h"
#include "base/messages/XmlList.h"
#include "base/process/Context.h"
#include "base/trees/BPlusTree.h"
#include "base/trees/PagedList.h"
#include "base/trees/PagedQueue.h"
#include "fuzz/Input.h"
#include "replication/common/intake/StateFile.h"
#include "replication/common/log/LogBuilder.h"
#include "replication/common/rules/NotToBackup.h"
#include "replication/common/rules/RuleFiles.h"
#include "replication/common/values/PosixObject.h"
#include "replication/common/values/RepMetadata.h"
#include "replication/common/values/WindowsObject.h"
#include "replication/repository/store/DirectoryPage.h"
#include "replication/repository/store/EventSamples.h"
#include "replication/repository/store/NodeInfo.h"
#include "replication/repository/store/SnapshotFile.h"
#include "replication/repository/streams/DedupFile.h"
#include "replication/repository/streams/DedupRequest.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

using namespace Morva;
using namespace Replication;
using Fuzzing::require;

namespace {

QString target;
QString scratch;

void save(char const* corpus, char const* name, QByteArray const& bytes) {
    auto const folder = target + u'/' + QLatin1String(corpus);
    require(QDir().mkpath(folder), "folder");
    QFile file(folder + u'/' + QLatin1String(name));
    require(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size(), "file");
}

QByteArray record(PackBuffer& packed) {
    return packed.extentWithoutSize().toByteArray();
}

void logs() {
    LogBuilder builder;
    builder.source(QStringLiteral("source"));
    std::vector<std::uint32_t> const rules{1, 7};
    builder.rules(rules);
    builder.process("writer");
    builder.ruleSet(3);
    auto const take = [&](char const* name) {
        auto const log = builder.encode();
        auto all = log.head.toByteArray() + log.data.toByteArray();
        Extent source(all);
        LogHeader header;
        require(header.receive(logIo(source)), "header");
        auto const size = static_cast<qsizetype>(header.totalLength()) - header.bodySize();
        save("log_header", name, all.first(size));
        save("log_body", name, all.sliced(size));
    };
    // Every type with each of its values set.
    for (auto const& shape : logShapes()) {
        builder.begin(shape.type, 12345).time(1700000000).shc(9).flags(1);
        std::uint32_t number = 40;
        for (auto const& value : shape.values) {
            auto const windows = shape.type >= LogType::WinCreate;
            if (value.kind == LogKind::Text)
                builder.text(value.field, windows ? "dir\\file" : "/dir/file");
            else if (value.kind == LogKind::Bytes)
                builder.bytes(value.field, Extent("some bytes", 10));
            else
                builder.number(value.field, ++number);
        }
        if (shape.type == LogType::PosixCreate || shape.type == LogType::PosixRename ||
            shape.type == LogType::PosixSetAttr || shape.type == LogType::PosixSetEa ||
            shape.type == LogType::Write || shape.type == LogType::WinSetSecurity ||
            shape.type == LogType::Message || shape.type == LogType::PolicyEvent ||
            shape.type == LogType::WinSetQuota)
            take(shape.name);
    }
    LogPath path;
    path.text = "dir\\FILE:stream";
    path.filenameOffset = 4;
    path.streamOffset = 8;
    path.casePreserved = "File:stream";
    path.casePreservedStreamOffset = 4;
    builder.begin(LogType::WinCreate, 6).path(LogField::File, path);
    take("windows-path");
    LogHeader notification;
    notification.type(LogHeader::Notification);
    notification.name(QStringLiteral("hello"));
    save("log_header", "notification", notification.packed().toByteArray());
}

void nodes() {
    PackBuffer packed;
    NodeInfo file(Qt::CaseSensitive);
    file.owner = QStringLiteral("1000");
    file.attributes = 0644;
    file.addStream(QStringLiteral("Data"), StreamId{77}, false, true, true);
    file.addStream(QStringLiteral("Security"), StreamId{78}, true, false, false);
    file.pack(packed);
    save("node", "file", QByteArray(1, '\0') + record(packed));
    NodeInfo root(Qt::CaseSensitive, NodeInfo::Root);
    root.sourceMachine = QStringLiteral("machine");
    root.name = QStringLiteral("store");
    root.addStream(QStringLiteral("Data"), StreamId{5}, false, true, false);
    root.pack(packed);
    save("node", "root", QByteArray(1, '\0') + record(packed));
    QByteArray bytes(NodeBlock::size, '\0');
    NodeBlock node(bytes.data());
    node.number(NodeNumber{9});
    node.linkCount(1);
    node.referenceCount(1);
    node.typeWord(1);
    node.record().length(5000);
    node.record().depth(1);
    node.record().entry(0, 3);
    node.record().entry(1, 4);
    save("node", "block", QByteArray(1, '\1') + bytes);
}

void directories() {
    QByteArray page(DirectoryPage::size, '\0');
    auto* const bytes = reinterpret_cast<std::uint8_t*>(page.data());
    DirectoryPage::makeParent(bytes, FileId{1});
    for (int i = 0; i < 40; ++i) {
        auto const name = QStringLiteral("name %1").arg(i) + QString(i * 2, u'x');
        DirKey key(FileId{1}, name, i % 5 == 0 ? 2 : 1);
        key.fileId(FileId{static_cast<std::uint64_t>(100 + i)});
        auto const slot = DirectoryPage::takeSlot(
            bytes, DirectoryPage::usedSize(static_cast<std::uint32_t>(name.size())));
        if (!slot.offset)
            break;
        DirectoryEntry(bytes + *slot.offset).fill(key, name);
    }
    PageWalk walk(bytes);
    std::uint32_t third = 0;
    for (int i = 0; i < 4 && walk.next(); ++i)
        third = walk.offset();
    auto const input = [&](char const* name, char choice, std::uint32_t value) {
        QByteArray head(5, choice);
        storeLittle(reinterpret_cast<std::uint8_t*>(head.data()) + 1, value);
        save("directory", name, head + page);
    };
    input("insert", 0, 20);
    input("insert-large", 0, 1500);
    input("remove", 1, third);
    input("edit", 2, 0x55);
    input("trace", 3, third);
}

void snapshots() {
    {
        SnapshotFile file(scratch, Instance{7});
        file.setType(SnapshotType::User, false);
        file.setLabel(QStringLiteral("a label"));
        require(file.snapshot({10, 20, 3}, 1700000000, Instance{6}, true).ok(), "snapshot");
        require(file.openForAppend().ok(), "append");
        for (std::uint64_t id = 1; id < 6; ++id)
            require(file.addEntry(FileId{id}, Instance{static_cast<std::uint32_t>(id)}).ok(),
                    "entry");
    }
    QFile made(scratch + u'/' + SnapshotFile::fileName(Instance{7}));
    require(made.open(QIODevice::ReadOnly), "snapshot file");
    auto bytes = made.readAll();
    save("snapshot", "user", bytes);
    save("snapshot", "torn", bytes.first(bytes.size() - 5));
    // The old layout: no offset of the first entry, and entries from 512 on.
    bytes.replace(168, 8, QByteArray(8, '\0'));
    save("snapshot", "old", bytes.first(512) + bytes.sliced(4096));
}

QByteArray ruleInput(RuleFiles const& files) {
    QByteArray all;
    for (auto const* list :
         {&files.policyRules, &files.dispatcherRules, &files.forwardRules, &files.replayRules})
        all += list->toXml() + '\0';
    return all;
}

void ruleSets() {
    Context::machineName(MachineName(QStringLiteral("machine")));
    SourceRules one;
    one.storeName = QStringLiteral("one");
    auto const small = RuleFiles::make({one});
    SourceRules two;
    two.storeName = QStringLiteral("two");
    two.replayId = 2;
    two.firstRule = 5;
    two.sourceRoot = QStringLiteral("/home");
    two.dedupExclude = {QStringLiteral(".gz")};
    two.versioned = false;
    auto const both = RuleFiles::make({one, two});
    require(small && both, "rules");
    save("rules", "one", ruleInput(*small));
    save("rules", "two", ruleInput(*both));
    save("xmltext", "rules", small->replayRules.toXml());
    save("xmlbinary", "rules", small->replayRules.toBinary());
}

void lists() {
    XmlList list;
    list.set(QStringLiteral("Bool"), true);
    list.set(QStringLiteral("Int"), std::int32_t{-5});
    list.set(QStringLiteral("Uint"), std::uint32_t{7});
    list.set(QStringLiteral("Wide"), std::uint64_t{1} << 40);
    list.set(QStringLiteral("Text"), QStringLiteral("a < b & \u20ac"));
    list.set(QStringLiteral("Machine"), MachineName(QStringLiteral("machine")));
    list.set(QStringLiteral("Buffer"), QByteArray("\0\1\2", 3));
    XmlList inner;
    inner.set(QStringLiteral("Inner"), std::uint32_t{1});
    list.set(QStringLiteral("List"), inner);
    list.set(QStringLiteral("Uint"), std::uint32_t{8}, XmlList::SetTypeE::Add);
    save("xmltext", "all-types", list.toXml());
    save("xmlbinary", "all-types", list.toBinary());
    save("xmltext", "empty", XmlList().toXml());
    save("xmlbinary", "empty", XmlList().toBinary());
}

void events() {
    PackBuffer packed;
    sampleVersion().pack(packed);
    save("event", "version-3", QByteArray(1, '\5') + record(packed));
    // The older forms have no link ids: the three ids stand side by side.
    auto old = record(packed);
    old.remove(28, 12).remove(8, 8);
    save("event", "version-2", QByteArray(1, '\4') + old);
    RepMetadata metadata;
    for (auto const kind : {RepMetadata::eInvalid, RepMetadata::eSnapshot, RepMetadata::eBackup}) {
        metadata.kind = kind;
        metadata.owner = QStringLiteral("1000");
        metadata.linkCount = 1;
        if (kind == RepMetadata::eBackup) {
            metadata.linkCount = 0;
            metadata.streams.push_back({QStringLiteral("Data"), 7, 100, true, {}});
        }
        packed.reset();
        metadata.serialize(packed);
        auto const name = "metadata-" + std::to_string(kind);
        save("event", name.c_str(), QByteArray(1, '\6') + record(packed));
    }
    struct Keep : EventChannel {
        bool send(Extent const& bytes) override {
            auto const name = "event-" + std::to_string(++count);
            save("event", name.c_str(), QByteArray(1, '\0') + bytes.toByteArray());
            return true;
        }
        int count = 0;
    };
    Event event(std::make_shared<Keep>(), StoreId{1}, ReplayId{1}, 1, 1);
    require(sendEveryKind(event), "events");
    DedupRequest request;
    request.type = 1;
    auto const bytes = request.encode();
    save("event", "request",
         QByteArray(1, '\7') + QByteArray(reinterpret_cast<char const*>(bytes.data()), 24));
}

void exclusions() {
    XmlList details;
    NotToBackup::addEntry(details, QStringLiteral("*.tmp"), false, false);
    NotToBackup::addEntry(details, QStringLiteral("/home/*/c?che"), true, false);
    NotToBackup::addEntry(details, QStringLiteral("\\Scratch"), true, true);
    QByteArray const paths("/a/b.tmp\nhome/me/Cache/x\nscratch/y\n/\n\n");
    save("exclusions", "sensitive", '\0' + paths + details.toXml());
    save("exclusions", "insensitive", '\1' + paths + details.toXml());
}

void mail() {
    LogBuilder builder;
    builder.begin(LogType::ExchangeCreateObject, 0)
        .text(LogField::Sque, "1")
        .text(LogField::ObjectPath, "/mail/raw");
    auto const log = builder.encode();
    auto const body = log.head.toByteArray().last(static_cast<qsizetype>(builder.bodySize()));
    save("exchange", "raw", QByteArray("\7\0\0", 3) + body);
}

void posix() {
    PosixSecurity security;
    security.mode = 0100644;
    security.uid = 1000;
    save("posix", "security", security.encode());
    PosixAttributes attributes;
    attributes.set("user.one", "value");
    attributes.set("user.two", QByteArray(40, 'x'));
    save("posix", "attributes", attributes.encode());
}

void windows() {
    WindowsAttributes list;
    list.append({"Name", "value", 0x80});
    list.append({"name", {}, 0});
    list.append({"Other", QByteArray(40, 'x'), 0});
    save("windows", "attributes", 'a' + list.encode());
}

void states() {
    auto const name = scratch + "/state-1";
    {
        StateFile file(name);
        require(file.create() && file.open(RawFile::Mode::ReadWrite) &&
                    file.target(QStringLiteral("target")) && file.sequenceNumber(5, 1000) &&
                    file.details("own bytes"),
                "state file");
    }
    QFile made(name);
    require(made.open(QIODevice::ReadOnly), "state file");
    auto const bytes = made.readAll();
    save("state", "version-1", bytes);
    save("state", "torn", bytes.first(44));
    auto old = bytes.first(32) + QByteArray("the old target");
    old[16] = '\0';
    old[28] = 14;
    save("state", "version-0", old);
}

void journals() {
    JournalTable table;
    table.sequence = 7;
    table.files = {{QStringLiteral("/root/streams/nodes"), 9000, {{0, 0, 2}}},
                   {QStringLiteral("/other/state-1"), 40, {}}};
    table.hidden = QStringList{QStringLiteral("/root/stores/.removed-6-1")};
    auto const bytes = '\0' + table.encode(QStringLiteral("/root"));
    save("journal", "table", bytes);
    save("journal", "torn", bytes.first(bytes.size() - 9));
}

void file(char kind, char const* name, QString const& path) {
    QFile made(path);
    require(made.open(QIODevice::ReadOnly), "file");
    auto bytes = made.readAll();
    auto const whole = bytes.size();
    while (!bytes.isEmpty() && bytes.back() == '\0')
        bytes.chop(1);
    // What is left is brought to a whole unit behind by zeros.
    auto const kept = std::max<qsizetype>(bytes.size(), whole % 4096);
    bytes.resize(std::min(whole, (kept + 255) / 256 * 256), '\0');
    auto const units = std::min<qsizetype>(63, (whole - bytes.size() + 4095) / 4096);
    save("files", name, QByteArray(1, kind) + QByteArray(1, static_cast<char>(units)) + bytes);
}

void files() {
    auto const path = [](char const* name) { return scratch + u'/' + QLatin1String(name); };
    {
        BPlusTree tree(64);
        require(tree.create(path("tree"), 512).ok(), "tree");
        for (int i = 0; i < 60; ++i) {
            QString const name = i == 0    ? QStringLiteral("alpha")
                                 : i == 30 ? QString(350, u'y')
                                           : QStringLiteral("key %1").arg(i);
            DirKey key(FileId{1}, name, 1);
            require(tree.insert(key).ok(), "key");
        }
        DirKey gone(FileId{1}, QStringLiteral("key 7"), 1);
        require(tree.find(gone).ok() && tree.remove(gone) && tree.close(), "tree");
    }
    file(0, "tree", path("tree"));
    {
        Blocks blocks(16);
        require(blocks.create(path("blocks"), 256, 24, 4096, RawFile::Mode::Create).ok(), "blocks");
        for (int i = 0; i < 8; ++i) {
            std::uint64_t number = 0;
            auto pin = BlockPin::make(blocks, number);
            require(static_cast<bool>(pin), "block");
            storeLittle(pin.bytes(), number);
            pin.changed();
            if (i % 3 == 2)
                require(pin.free().ok(), "free");
        }
        require(blocks.close().ok(), "blocks");
    }
    file(1, "blocks", path("blocks"));
    {
        FreeList list(4);
        require(list.create(path("free"), 100000) && list.grow(10, 500), "free list");
        for (std::uint64_t number = 1000; number < 1100; number += 3)
            require(list.put(number).ok(), "number");
        require(list.close().ok(), "free list");
    }
    file(2, "free-list", path("free"));
    {
        ReferenceCount counts(4);
        require(counts.create(path("counts"), 100000, 2048).ok(), "counts");
        for (std::uint64_t number = 1; number < 1500; number += 11)
            require(counts.newId(number).ok(), "count");
        require(counts.close().ok(), "counts");
    }
    file(3, "counts", path("counts"));
    {
        PagedQueue queue(path("queue"), 4096, 2);
        for (int i = 0; i < 5; ++i)
            require(queue.send(Extent("a record of a queue", 12)).ok(), "send");
    }
    file(4, "queue", path("queue"));
    {
        PagedList list(path("list"), 256, 1024);
        for (int i = 0; i < 40; ++i)
            require(
                list.write(Extent("a record of a list", static_cast<std::uint32_t>(i % 18))).ok(),
                "write");
        require(list.close().ok(), "list");
    }
    file(5, "list", path("list"));
    save("files", "dedup", QByteArray("\6\0", 2) + QByteArray(20, '\3'));
}

} // namespace

int main(int argc, char** argv) {
    require(argc == 2, "make_corpus FOLDER");
    QTemporaryDir const directory;
    target = QString::fromLocal8Bit(argv[1]);
    scratch = directory.path();
    logs();
    nodes();
    directories();
    journals();
    snapshots();
    ruleSets();
    lists();
    events();
    posix();
    windows();
    exclusions();
    mail();
    states();
    files();
}
