#include "peers/check/Checker.h"

#include "base/process/FixedPath.h"
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

} // namespace

CheckReport checkRepository(RepositoryPaths const& paths, CheckOptions const& options) {
    auto const begun = std::chrono::steady_clock::now();
    CheckReport report;
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
