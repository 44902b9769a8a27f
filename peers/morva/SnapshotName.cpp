#include "peers/morva/SnapshotName.h"

#include "peers/morva/Failure.h"
#include "replication/repository/store/RetireList.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"

#include <ctime>

namespace Morva {

using Replication::Instance;
using Replication::SnapshotFile;
using Replication::SnapshotType;
using Replication::Store;

bool isVisible(SnapshotFile const& file) {
    if (!file.status())
        return false;
    auto const type = file.type();
    return !file.retire() && !file.retired() && type != SnapshotType::Old &&
           type != SnapshotType::Initial && type != SnapshotType::Validate;
}

Instance snapshotNamed(Store& store, QString const& name) {
    auto const all = store.snapshots().all();
    if (name == QLatin1String("latest")) {
        for (auto file = all.rbegin(); file != all.rend(); ++file)
            if (isVisible(**file))
                return (*file)->instance();
        throw CommandFailure(ExitCode::Failed, "the store has no snapshot");
    }
    bool isNumber = false;
    Instance const instance{name.toUInt(&isNumber)};
    if (!isNumber && name == QLatin1String("live"))
        throw CommandFailure(ExitCode::Usage, "\"live\" is no snapshot: give one's number");
    if (!isNumber)
        throw CommandFailure(ExitCode::Usage, "\"" + name +
                                                  "\" is neither a snapshot's number nor a name as "
                                                  "\"latest\"; a path stands behind it, as "
                                                  "latest:PATH");
    auto const file = store.snapshots().find(instance);
    if (file)
        if (Status const known = file->status(); !known)
            throw commandFailure("snapshot " + name + " can't be read", known);
    if (!file || !isVisible(*file))
        throw CommandFailure(ExitCode::Failed, "there is no snapshot " + name);
    return instance;
}

Instance takeSnapshot(Store& store, QString const& label) {
    auto const now = static_cast<std::uint32_t>(std::time(nullptr));
    store.retired().timeStamp(now);
    if (Status const taken = store.snapshots().userSnapshot(0, now, label); !taken)
        throw commandFailure("the snapshot could not be taken", taken);
    return store.currentInstance();
}

SnapshotPath splitSnapshotPath(QString const& text) {
    auto const colon = text.indexOf(u':');
    if (colon < 0)
        return {text, {}};
    return {text.left(colon), text.mid(colon + 1)};
}

QStringList pathParts(QString const& path) {
    return path.split(u'/', Qt::SkipEmptyParts);
}

} // namespace Morva
