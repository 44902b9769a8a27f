#pragma once

// Records for tests and for the corpus of the fuzz targets.

#include "replication/repository/store/Event.h"

namespace Replication {

/// A version with a value in every field that is packed.
inline Version sampleVersion() {
    Version version;
    version.fileNode = NodeNumber{0x21};
    version.link = LinkId{2};
    version.prevFileNode = NodeNumber{0x22};
    version.prevLink = LinkId{4};
    version.directory = FileId{256};
    version.path = {QStringLiteral("a"), QStringLiteral("bc")};
    version.user = QStringLiteral("u");
    version.process = QStringLiteral("p");
    version.time = 12;
    version.ruleSet = 5;
    version.rules = {7, 8};
    return version;
}

/// Sends every kind of event. False when one was refused.
inline bool sendEveryKind(Event& event) {
    RepMetadata metadata;
    metadata.kind = RepMetadata::eSnapshot;
    metadata.size = 0x123456789A;
    metadata.owner = QStringLiteral("0");
    Version const first = sampleVersion();
    Version weak = first;
    weak.weak = true;
    weak.prevFileNode = {};
    weak.rules.clear();
    Version resync = weak;
    resync.resync = true; // outside of a resynchronisation: weak
    QString const name = QStringLiteral("n");
    return event.version(first, metadata, false) && event.version(weak, metadata, false) &&
           event.version(resync, metadata, false) && event.version(resync, metadata, true) &&
           event.snapshot(Instance{3}, 1, 2, 3, true, 4) &&
           event.userSnapshot(Instance{3}, 1, true, 4, QStringLiteral("label")) &&
           event.resyncSnapshot(Instance{3}, 1, 4) &&
           event.created(FileId{1}, LinkId{2}, FileId{3}, name, 4) &&
           event.changed(FileId{1}, LinkId{2}, FileId{3}, FileId{5}, 4) &&
           event.changed(FileId{1}, LinkId{1}, {}, {}, 4) &&
           event.removed(FileId{1}, LinkId{2}, FileId{3}, 4) &&
           event.renamed(FileId{1}, LinkId{2}, FileId{3}, name, 4) &&
           event.snapshotDeduped(Instance{3}) && event.deleteStore(ReplayId{88}, StoreId{99}) &&
           event.deleteSnapshot(Instance{3});
}

} // namespace Replication
