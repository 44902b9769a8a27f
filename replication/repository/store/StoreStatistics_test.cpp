#include "base/process/Context.h"
#include "replication/repository/store/StoreFixture.h"

#include <QRegularExpression>

namespace Replication {
namespace {

using Morva::XmlList;
using Morva::XmlListIterator;

class StoreStatistics : public StoreFixture {
protected:
    [[nodiscard]] static QString keysOf(XmlList const& list) {
        QStringList keys;
        for (XmlListIterator key(list); key; ++key)
            keys += key.name();
        return keys.join(' ');
    }
    /// The values of the rows, by label, in the order of the text.
    [[nodiscard]] QString rows(QStringList* values = nullptr) const {
        QString html;
        store_->statistics(html);
        EXPECT_TRUE(html.startsWith("<TABLE><TR><TD>") && html.endsWith("</Table>"));
        QStringList labels = html.mid(7).chopped(8).split("<TR><TD>", Qt::SkipEmptyParts);
        for (QString& label : labels) {
            QStringList const row = label.split("<TD align=\"right\">");
            EXPECT_EQ(2, row.size());
            label = row.first();
            if (values)
                values->append(row.last());
        }
        return labels.join(", ");
    }
};

TEST_F(StoreStatistics, ThreeFormsTellTheSameFiguresInTheirOrder) {
    create();
    for (char const* path : {"d/a", "d/b", "c"})
        ASSERT_TRUE(writeFile(path, "1"));
    ASSERT_TRUE(writeFile("gone", "1"));
    ASSERT_TRUE(removeFile("gone"));
    ASSERT_GT(store_->nodes().freeBlocks(), 0u);
    for (char const* label : {"first", "second"})
        (void)snapshot(label); // instances 2 and 3; the Initial one is listed nowhere
    auto const held = value(store_->passiveHandle({"d", "a"}, Instance{2}));

    XmlList binary;
    store_->statistics(binary);
    EXPECT_EQ(keysOf(binary),
              "StoreId ReplayId StoreActive StoreMarkedForDeletion StoreDirecoryCount "
              "StoreFileCount StoreFileDirtyCount StoreFileTotalData StoreFileUsedData "
              "StoreFileOpenCount StoreDirectoryCacheHits StoreDirectoryCacheMisses "
              "StoreDirectoryCacheSize StoreNodeCacheHits StoreNodeCacheMisses "
              "StoreNodeCacheSize StorePointerCacheHits StorePointerCacheMisses "
              "StorePointerCacheSize SnapShotList");
    EXPECT_EQ(7u, binary.getUint32(nullptr, "ReplayId"));
    EXPECT_TRUE(binary.getBool(nullptr, "StoreActive"));
    EXPECT_EQ((usedNodes() + 2) * 1024, binary.getUint64(nullptr, "StoreFileUsedData"));
    EXPECT_EQ(store_->nodes().totalBlocks() * 1024,
              binary.getUint64(nullptr, "StoreFileTotalData"));
    EXPECT_EQ(keysOf(binary.getXmlList(nullptr, "SnapShotList")), "SnapShotEntry SnapShotEntry");

    QStringList values;
    EXPECT_EQ(rows(&values),
              "StoreId, Active, Marked for Deletion, Directories, Files, Dirty Files, Open Files, "
              "Directory Cache Hits, Directory Cache Misses, Directory Cache Size, File Node Total "
              "Data, File Node Used Data, File Node Cache Hits, File Node Cache Misses, File Node "
              "Cache Size, File Pointer Cache Hits, File Pointer Cache Misses, File Pointer Cache "
              "Size, Snapshots");
    EXPECT_EQ(values.mid(0, 6).join(' '), QString("%1 true false 1 3 0").arg(storeId.value));
    EXPECT_EQ(values[6].toULong(), store_->passiveHandles().size());
    EXPECT_EQ(values[11].toULong(), binary.getUint64(nullptr, "StoreFileUsedData"));
    EXPECT_EQ(values.last(), "3");

    XmlList all, late;
    store_->statistics(all, "from", "home");
    EXPECT_EQ(keysOf(all), "Snapshot Snapshot");
    XmlList const second = [&] {
        XmlListIterator entry(all);
        return (++entry).getXmlList();
    }();
    EXPECT_EQ(keysOf(second),
              "Destination Machine Store InstanceType StoreId ReplayId Active MarkedForDeletion "
              "DirectoryCount FileCount DirectoryCacheHits DirectoryCacheMisses "
              "DirectoryCacheSize TotalNodeData UsedNodeData NodeCacheHits NodeCacheMisses "
              "NodeCacheSize PointerCacheHits PointerCacheMisses PointerCacheSize Instance "
              "Snapshot");
    EXPECT_EQ(Morva::Context::machineName().name(), second.getString(nullptr, "Destination"));
    EXPECT_EQ("from home",
              second.getString(nullptr, "Machine") + ' ' + second.getString(nullptr, "Store"));
    EXPECT_EQ("Filesystem", second.getString(nullptr, "InstanceType"));
    EXPECT_EQ(3u, second.getUint32(nullptr, "Instance"));
    XmlList const own = second.getXmlList(nullptr, "Snapshot");
    EXPECT_EQ("second", own.getString(nullptr, "Label"));
    FileHandle root;
    EXPECT_TRUE(root.decode(Morva::Extent(own.getBuffer(nullptr, "Id"))));
    EXPECT_EQ(root, value(store_->fileHandle(store_->rootId(), Instance{3}, FileHandle::Snapshot)));
    store_->statistics(late, "from", "home", 1, 2); // seconds long before the snapshots
    EXPECT_TRUE(late.empty());
}

TEST_F(StoreStatistics, WhatIsntOpenCountsAsZero) {
    create();
    ASSERT_TRUE(writeFile("d/a", "1"));
    (void)snapshot();
    ASSERT_TRUE(store_->active(false));
    ASSERT_TRUE(store_->markForDeletion());
    EXPECT_TRUE(rows().contains("Marked for Deletion")); // still valid
    store_.reset();
    store_ = open(storeId, true);
    ASSERT_TRUE(store_);
    QStringList values;
    EXPECT_EQ(rows(&values), "StoreId, Waiting for Deletion");
    EXPECT_EQ(values.join(' '), QString("%1 true").arg(storeId.value));
    XmlList list;
    store_->statistics(list);
    EXPECT_TRUE(list.getBool(nullptr, "StoreMarkedForDeletion"));
    EXPECT_EQ(0u, list.getUint64(nullptr, "StoreDirectoryCacheSize") +
                      list.getUint64(nullptr, "StorePointerCacheSize"));
    EXPECT_TRUE(list.getXmlList(nullptr, "SnapShotList").empty());
    EXPECT_TRUE(store_->close());
    QString html;
    store_->statistics(html);
    EXPECT_EQ("<TABLE></Table>", html);
    XmlList closed;
    store_->statistics(closed);
    EXPECT_EQ(0u, closed.getUint64(nullptr, "StoreFileTotalData"));
}

} // namespace
} // namespace Replication
