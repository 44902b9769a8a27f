#include "base/process/Context.h"
#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "peers/morva/Commands.h"

#include <CLI/CLI.hpp>

#include <QDir>
#include <QFile>
#include <QLibraryInfo>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <exception>
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
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // A reader that goes away shows as a failed write, with a message.
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

int run(int argc, char** argv) {
    Output output;
    auto code = ExitCode::Done;
    CLI::App app{"Keeps every state of a file tree that a snapshot saw."};
    app.require_subcommand(1);
    app.fallthrough();
    std::string root;
    app.add_option("--root", root, "Root directory of the repository")->envname("MORVA_ROOT");
    app.add_flag("-q,--quiet", output.quiet, "No summaries");
    app.add_flag("-v,--verbose", output.verbose, "Remarks and the trace of failures");
    app.add_flag("--json", output.json, "One JSON object a line");
    app.parse_complete_callback([&] {
        output.root = QDir(QFile::decodeName(root.c_str())).absolutePath();
        if (root.empty())
            output.root.clear();
        if (output.verbose || !Morva::Context::traceFile().isEmpty())
            Morva::Context::startTrace();
        logToUser(output);
    });

    Morva::CommandLine line{app, output, code};
    addRootCommands(line);
    addLogCommands(line);
    addExcludeCommand(line);
    addSnapshotCommands(line);
    addBrowseCommands(line);
    addRestoreCommand(line);
    addCheckCommand(line);
    addInspectCommand(line);
    addStatisticsCommands(line);
    try {
        app.parse(argc, argv);
        output.flushResults();
    } catch (CLI::ParseError const& error) {
        auto const rest = app.remaining();
        if (app.get_subcommands().empty() && !rest.empty() && !rest.front().starts_with('-')) {
            output.error("there is no command '" + QFile::decodeName(rest.front().c_str()) +
                         "': 'morva --help' lists them");
            return static_cast<int>(ExitCode::Usage);
        }
        auto const result = app.exit(error);
        return result == 0 ? 0 : static_cast<int>(ExitCode::Usage);
    } catch (Morva::CommandFailure const& failure) {
        output.endProgress();
        if (*failure.what())
            output.error(QString::fromUtf8(failure.what()));
        return static_cast<int>(failure.code());
    } catch (std::exception const& fault) {
        output.error(QStringLiteral("unexpected failure: ") + fault.what());
        return static_cast<int>(ExitCode::Failed);
    }
    return static_cast<int>(code);
}

} // namespace

int main(int argc, char** argv) {
    catchSignals();
    return run(argc, argv);
}
