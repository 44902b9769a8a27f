#pragma once

#include "peers/morva/Root.h"

#include <QString>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Morva {

/// What the command line says of the store that a command feeds, and that may be new.
struct FedStoreArguments {
    std::string store;
    std::vector<std::string> dedupExclude;
    std::optional<std::string> source; ///< directory of the source that it holds
    std::optional<Replication::SourceKind> kind;
};

void addStoreOption(CLI::App& command, FedStoreArguments& given);   ///< --store
void addNoDedupOption(CLI::App& command, FedStoreArguments& given); ///< --no-dedup
void addSourceOptions(CLI::App& command, FedStoreArguments& given); ///< --source, --as
/// The option "--as KIND".
void addKindOption(CLI::App& command, std::optional<Replication::SourceKind>& kind,
                   char const* help);

/// The store that a command feeds; a new one is entered, and taken out again if no checkpoint holds
/// it when the object ends. It ends before its root.
class FedStore {
public:
    /// `sourceRoot` is that of a new store. Throws `CommandFailure`, also when `given` contradicts
    /// the store that is there.
    FedStore(Root& root, FedStoreArguments const& given, QString const& sourceRoot);
    ~FedStore();
    FedStore(FedStore const&) = delete;
    FedStore& operator=(FedStore const&) = delete;

    [[nodiscard]] Source const& source() const { return source_; }

private:
    Root& root_;
    Source source_;
};

} // namespace Morva
