#include "base/process/FixedPath.h"

#include "base/process/Config.h"
#include "base/values/PosixText.h"

#include <QDir>

#include <filesystem>
#include <mutex>

namespace Morva {

namespace {

struct Paths {
    QString root;
    QString repository;
    QString repositoryStores;
    QString repositoryStreams;
    QString repositoryStreamData;
    QString runtime;
    QString configuration;
    QString rules;
};

struct Place {
    char const* key;
    char const* byDefault;
    QString Paths::*path;
};

constexpr Place places[] = {
    {"Repository", "repository", &Paths::repository},
    {"RepositoryStores", "repository/stores", &Paths::repositoryStores},
    {"RepositoryStreams", "repository/streams", &Paths::repositoryStreams},
    {"RepositoryStreamData", "repository/streamdata", &Paths::repositoryStreamData},
    {"Runtime", "run", &Paths::runtime},
    {"Configuration", "config", &Paths::configuration},
    {"Rules", "rules", &Paths::rules},
};

std::mutex lock;
std::optional<Paths> current;

bool load(QString const& root, Paths& paths) {
    paths = {};
    if (root.isEmpty())
        return true;
    QDir const base(QDir::cleanPath(QDir(root).absolutePath()));
    auto const config = Config::load(base.filePath(QStringLiteral("paths.cfg")));
    if (!config.usable() && !config.absent())
        return false;
    paths.root = base.path();
    for (auto const& place : places) {
        auto const path =
            config.get(QString::fromLatin1(place.key), QString::fromLatin1(place.byDefault));
        if (!path.isEmpty())
            paths.*place.path = QDir::cleanPath(base.absoluteFilePath(path));
    }
    return true;
}

QString get(QString Paths::*path) {
    std::scoped_lock const guard(lock);
    if (!current) {
        current.emplace();
        (void)load(decodePosixText(qgetenv("MORVA_ROOT")), *current);
    }
    return (*current).*path;
}

} // namespace

bool FixedPath::setRoot(QString const& path) {
    std::scoped_lock const guard(lock);
    current.emplace();
    return load(path, *current);
}

QString FixedPath::root() {
    return get(&Paths::root);
}
QString FixedPath::repository() {
    return get(&Paths::repository);
}
QString FixedPath::repositoryStores() {
    return get(&Paths::repositoryStores);
}
QString FixedPath::repositoryStreams() {
    return get(&Paths::repositoryStreams);
}
QString FixedPath::repositoryStreamData() {
    return get(&Paths::repositoryStreamData);
}
QString FixedPath::runtime() {
    return get(&Paths::runtime);
}
QString FixedPath::configuration() {
    return get(&Paths::configuration);
}
QString FixedPath::rules(std::uint32_t number) {
    auto const path = get(&Paths::rules);
    return path.isEmpty() ? path : path + QLatin1Char('/') + QString::number(number);
}

bool FixedPath::make(QString const& path) {
    // Not by QDir, which can't name what is not UTF-8.
    std::filesystem::path const native = encodePosixText(path).toStdString();
    std::error_code error;
    std::filesystem::create_directories(native, error);
    return std::filesystem::is_directory(native, error);
}

} // namespace Morva
