#include "base/process/FixedPath.h"
#include "peers/check/Checker.h"
#include "peers/morva/Commands.h"
#include "peers/morva/Root.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace Morva {

namespace {

void check(CommandLine& line, bool readData) {
    RootLock const lock(line.output.root, RootLock::Mode::Shared, line.output.wait);
    if (!FixedPath::setRoot(line.output.root))
        throw CommandFailure(ExitCode::Failed,
                             "the \"paths.cfg\" of " + line.output.root + " can't be read");
    ReadingFiles const files; // nothing is changed, nor is it where a recovery comes first
    auto const journal = Root::openJournal();
    CheckOptions options;
    options.readData = readData;
    options.journal = journal.get();
    options.progress = [&line](std::uint64_t bytesRead) {
        Output::checkInterrupt();
        line.output.progress(bytesRead, 0, 0);
    };
    CheckReport const report = checkRepository(RepositoryPaths::current(), options);
    line.output.endProgress();
    for (QString const& note : report.notes())
        line.output.remark(note);
    if (line.output.json)
        for (Fault const& fault : report.faults())
            line.output.result({}, "fault", fault.json());
    else
        for (QString const& text : report.lines())
            line.output.result(text, {}, {});
    auto object = report.summaryJson();
    object.insert("readData", readData);
    line.output.summary(readData ? report.summary()
                                 : report.summary() + QStringLiteral(" (contents were not read: "
                                                                     "--read-data does)"),
                        "check", object);
    if (!report.clean())
        line.code = ExitCode::Failed;
}

} // namespace

void addCheckCommand(CommandLine& line) {
    auto* const command = line.app.add_subcommand(
        "check", "Checks every record of the repository, and changes nothing");
    auto const readData = std::make_shared<bool>(false);
    command->add_flag("--read-data", *readData,
                      "Also read all contents, and verify the digests that are known");
    command->callback([&line, readData] { check(line, *readData); });
}

} // namespace Morva
