#include "base/process/FixedPath.h"
#include "base/values/PosixText.h"
#include "peers/check/Inspector.h"
#include "peers/morva/Commands.h"
#include "peers/morva/Root.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Morva {

namespace {

struct Arguments {
    std::uint64_t store = 0;
    std::vector<std::string> words;
};

/// Single files are looked at without a root; a root that is open may change under the look.
void inspect(CommandLine& line, Arguments const& given) {
    QStringList words;
    for (std::string const& word : given.words)
        words.append(decodePosixText({word.data(), static_cast<qsizetype>(word.size())}));
    bool const single =
        !words.isEmpty() && (words[0] == QLatin1String("state") ||
                             words[0] == QLatin1String("list") || words[0] == QLatin1String("log"));
    std::optional<RootLock> lock;
    if (!single) {
        lock.emplace(line.output.root, RootLock::Mode::Shared, line.output.wait);
        if (!FixedPath::setRoot(line.output.root))
            throw CommandFailure(ExitCode::Failed,
                                 "the \"paths.cfg\" of " + line.output.root + " can't be read");
    }
    Inspector inspector(RepositoryPaths::current(), Replication::StoreId{given.store},
                        [&line](QString const& text) {
                            Output::checkInterrupt();
                            line.output.result(text, "record", {{"text", text}});
                        });
    switch (inspector.inspect(words)) {
    case Inspector::Result::Done:
        return;
    case Inspector::Result::Damaged:
        line.code = ExitCode::Failed;
        return;
    case Inspector::Result::Usage:
        throw CommandFailure(ExitCode::Usage,
                             QStringLiteral("inspect one of:\n") + Inspector::help());
    }
}

} // namespace

void addInspectCommand(CommandLine& line) {
    auto* const command =
        line.app.add_subcommand("inspect", "Prints any record, also a damaged one");
    auto const given = std::make_shared<Arguments>();
    command->add_option("what", given->words, "What to print")->required();
    command->add_option("--store-id", given->store, "Number of the store, if there are several");
    command->footer("What can be printed:\n" + Inspector::help().toStdString());
    command->callback([&line, given] { inspect(line, *given); });
}

} // namespace Morva
