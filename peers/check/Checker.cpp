#include "peers/check/Checker.h"

#include "base/files/Journal.h"
#include "base/process/FixedPath.h"
#include "peers/check/PageCheck.h"
#include "peers/check/PoolCheck.h"
#include "peers/check/StoreCheck.h"

#include <chrono>

namespace Morva {

using Replication::StoreId;

RepositoryPaths RepositoryPaths::current() {
    return {FixedPath::repositoryStreams(), FixedPath::repositoryStreamData(),
            FixedPath::repositoryStores()};
}

namespace {

constexpr int idDigits = 16;

/// Every directory whose name is the id of a store, ascending.
Result<QList<StoreId>> storesIn(QString const& path) {
    QList<StoreId> result;
    MORVA_TRY_LET(auto const names, FileSystem::inForce().names(path, FileSystem::Kind::Directory));
    for (QString const& name : names) {
        bool isId = false;
        StoreId const id{name.toULongLong(&isId, 16)};
        if (isId && name.size() == idDigits)
            result.append(id);
    }
    return result;
}

/// A root that was made and not used: it gets its pool when it is.
bool isNew(RepositoryPaths const& paths, CheckOptions const& options) {
    if (!options.journal || !options.journal->files().isEmpty())
        return false;
    for (QString const& path : {paths.streams, paths.streamData})
        if (auto const files = FileSystem::inForce().names(path, FileSystem::Kind::File);
            !files || !files->isEmpty())
            return false;
    auto const stores = storesIn(paths.stores);
    return stores && stores->isEmpty();
}

} // namespace

CheckReport checkRepository(RepositoryPaths const& paths, CheckOptions const& options) {
    auto const begun = std::chrono::steady_clock::now();
    CheckReport report;
    if (isNew(paths, options))
        return report;
    if (options.journal)
        checkPages(*options.journal, options, report);
    PoolCheck pool(paths, options, report);
    pool.begin();
    auto const stores = storesIn(paths.stores);
    if (!stores)
        report.fault(FaultKind::Unreadable, QStringLiteral("stores"), stores.status().text());
    for (StoreId const id : stores ? *stores : QList<StoreId>()) {
        auto const name = QString::number(id.value, 16).rightJustified(idDigits, u'0');
        StoreCheck(id, paths.stores + "/" + name, pool).run();
        if (options.progress)
            options.progress(report.figures.bytesRead);
    }
    pool.finish();
    report.figures.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
    return report;
}

} // namespace Morva
