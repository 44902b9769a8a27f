#include "base/process/Context.h"
#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "peers/morva/Commands.h"

#include <CLI/CLI.hpp>

#include <QDir>
#include <QFile>
#include <QLibraryInfo>

#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <string>

namespace {

using Morva::ExitCode;
using Morva::Output;

extern "C" void noteInterrupt(int) {
    Output::interrupted = true;
}

void catchSignals() {
    struct sigaction action {};
    action.sa_handler = noteInterrupt;
    for (int const number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before {};
        // What nohup, or a shell for its background, has it ignore stays ignored.
        if (sigaction(number, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
            sigaction(number, &action, nullptr);
    }
    // A reader that goes away shows as a failed write.
    std::signal(SIGPIPE, SIG_IGN);
}

void logToUser(Output& output) {
    Morva::Log::install([&output](Morva::LogMessage const& message) {
        if (message.level >= Morva::LogLevelE::Warning)
            output.error(message.text);
        else
            output.remark(message.text);
    });
}

void addCommands(Morva::CommandLine& line) {
    addRootCommands(line);
    addLogCommands(line);
    addReplicateCommand(line);
    addExcludeCommand(line);
    addSnapshotCommands(line);
    addBrowseCommands(line);
    addRestoreCommand(line);
    addCheckCommand(line);
    addUpgradeCommand(line);
    addInspectCommand(line);
    addStatisticsCommands(line);
}

/// "help" and "help COMMAND" are what "--help" and "COMMAND --help" are.
void addHelp(CLI::App& app) {
    auto const name = std::make_shared<std::string>();
    auto* const help = app.add_subcommand("help", "Tells how a command is used");
    help->add_option("command", *name, "Its name");
    help->callback([&app, name] {
        if (name->empty()) {
            std::fputs(app.help().c_str(), stdout);
            return;
        }
        auto const named =
            app.get_subcommands([&](CLI::App const* each) { return each->get_name() == *name; });
        if (named.empty())
            throw Morva::CommandFailure(ExitCode::Usage, "there is no command '" +
                                                             QFile::decodeName(name->c_str()) +
                                                             "': 'morva --help' lists them");
        std::fputs(named.front()->help(app.get_name()).c_str(), stdout);
    });
}

/// What the user wrote wrongly, or asked the parser for.
ExitCode endParsing(CLI::App& app, CLI::ParseError const& error, Output const& output) {
    auto const rest = app.remaining();
    if (app.get_subcommands().empty() && !rest.empty() && !rest.front().starts_with('-')) {
        output.error("there is no command '" + QFile::decodeName(rest.front().c_str()) +
                     "': 'morva --help' lists them");
        return ExitCode::Usage;
    }
    if (error.get_exit_code() == 0) {
        app.exit(error); // prints the help or the version
        return ExitCode::Done;
    }
    output.usage(QFile::decodeName(error.what()) + "\n" +
                 QStringLiteral("'morva --help' and 'morva COMMAND --help' tell how it is used"));
    return ExitCode::Usage;
}

ExitCode run(int argc, char** argv) {
    Output output;
    auto code = ExitCode::Done;
    CLI::App app{"Keeps every state of a file tree that a snapshot saw.", "morva"};
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", "morva " MORVA_VERSION);
    std::string root;
    double wait = 0;
    app.add_option("--root", root, "Root directory of the repository")->envname("MORVA_ROOT");
    app.add_option("--wait", wait, "Seconds to wait while another process has the repository")
        ->transform(CLI::AsNumberWithUnit(
            std::map<std::string, double>{{"s", 1}, {"m", 60}, {"min", 60}, {"h", 3600}},
            CLI::AsNumberWithUnit::CASE_SENSITIVE, "TIME"))
        ->check(CLI::Range(0.0, 1e6));
    app.add_flag("-q,--quiet", output.quiet, "No summaries");
    app.add_flag("-v,--verbose", output.verbose, "Remarks and the trace of failures");
    app.add_flag("--json", output.json, "One JSON object a line");
    app.parse_complete_callback([&] {
        output.root = QDir(QFile::decodeName(root.c_str())).absolutePath();
        if (root.empty())
            output.root.clear();
        output.wait = std::chrono::milliseconds(static_cast<std::int64_t>(wait * 1000));
        if (output.verbose || !Morva::Context::traceFile().isEmpty())
            Morva::Context::startTrace();
        logToUser(output);
    });
    Morva::CommandLine line{app, output, code};
    addCommands(line);
    addHelp(app);
    try {
        app.parse(argc, argv);
        output.flushResults();
    } catch (CLI::ParseError const& error) {
        return endParsing(app, error, output);
    } catch (Morva::CommandFailure const& failure) {
        output.endProgress();
        if (failure.code() == ExitCode::Usage)
            output.usage(failure.text());
        else if (!failure.text().isEmpty())
            output.error(failure.text());
        return failure.code();
    } catch (std::exception const& fault) {
        output.endProgress();
        output.error(QStringLiteral("unexpected failure: ") + fault.what());
        return ExitCode::Failed;
    }
    return code;
}

} // namespace

int main(int argc, char** argv) {
    catchSignals();
    return static_cast<int>(run(argc, argv));
}
