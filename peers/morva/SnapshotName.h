#pragma once

#include "replication/repository/store/SnapshotFile.h"

#include <QString>

namespace Replication {
class Store;
}

namespace Morva {

/// Whether a snapshot is one that a user took or may want: not the empty first one, no validation,
/// none that is being retired, none that is damaged.
[[nodiscard]] bool isVisible(Replication::SnapshotFile const& file);
/// The instance that a user means: a number, or "latest". Throws `CommandFailure` when the store
/// has no such snapshot.
[[nodiscard]] Replication::Instance snapshotNamed(Replication::Store& store, QString const& name);

/// Takes a user snapshot of the live tree, now by this machine's clock, which is the source's too.
/// Throws `CommandFailure` when that fails.
Replication::Instance takeSnapshot(Replication::Store& store, QString const& label);

/// "3:some/path" or "latest:/some/path" in its two halves; without a colon the path is empty.
struct SnapshotPath {
    QString snapshot;
    QString path;
};
[[nodiscard]] SnapshotPath splitSnapshotPath(QString const& text);

/// The parts of a path in a store, as a user writes it.
[[nodiscard]] QStringList pathParts(QString const& path);

} // namespace Morva
