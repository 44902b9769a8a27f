#pragma once

#include <QString>

#include <cstdint>

namespace Morva {

/// The directories of an installation. All lie below one root, and an empty string means "not
/// set", as everything is without a root. None is made here.
///
///  operation               below the root            key in "paths.cfg"
///  repository()            repository                Repository
///  repositoryStores()      repository/stores         RepositoryStores
///  repositoryStreams()     repository/streams        RepositoryStreams
///  repositoryStreamData()  repository/streamdata     RepositoryStreamData
///  runtime()               run                       Runtime
///  configuration()         config                    Configuration
///  rules(number)           rules/<number>            Rules (the directory above the number)
///
/// An optional "paths.cfg" in the root sets each on its own: a relative path is taken from the
/// root, an empty one makes it not set. "Repository" doesn't move the three paths below it.
///
/// Thread-safe; `setRoot` belongs to the start of a process or a test.
class FixedPath {
public:
    /// Takes another root than MORVA_ROOT, which is read at the first use of any operation. False,
    /// with every path not set, if "paths.cfg" is there and can't be read: data would go astray.
    static bool setRoot(QString const& path);

    [[nodiscard]] static QString root();
    [[nodiscard]] static QString repository();
    [[nodiscard]] static QString repositoryStores();
    [[nodiscard]] static QString repositoryStreams();
    [[nodiscard]] static QString repositoryStreamData();
    [[nodiscard]] static QString runtime();
    [[nodiscard]] static QString configuration();
    [[nodiscard]] static QString rules(std::uint32_t number);

    /// Makes a directory and those above it. False if it is not there then.
    [[nodiscard]] static bool make(QString const& path);
};

} // namespace Morva
