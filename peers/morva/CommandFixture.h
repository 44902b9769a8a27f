#pragma once

// For tests of this room alone.

#include "base/process/FixedPath.h"
#include "peers/check/Checker.h"
#include "peers/morva/Commands.h"
#include "peers/morva/Root.h"

#include <CLI/CLI.hpp>

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace Morva {

/// Runs commands as a user would, on an empty repository and a source directory.
class CommandFixture : public testing::Test {
protected:
    CommandFixture() {
        std::filesystem::create_directory(source);
        Root::init(QString::fromStdString(path + "/root"));
    }

    ~CommandFixture() override {
        // Not every name here is one that Qt can remove.
        std::error_code error;
        std::filesystem::remove_all(path, error);
    }

    /// Runs a command line; its results are in `results`, the text of its failure in `message`.
    ExitCode run(std::string const& line, bool json = false) {
        Output output;
        output.root = QString::fromStdString(path + "/root");
        output.json = json;
        auto code = ExitCode::Done;
        message.clear();
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        try {
            CLI::App app;
            app.fallthrough();
            CommandLine commands{app, output, code};
            addRootCommands(commands);
            addLogCommands(commands);
            addReplicateCommand(commands);
            addExcludeCommand(commands);
            addSnapshotCommands(commands);
            addBrowseCommands(commands);
            addRestoreCommand(commands);
            addCheckCommand(commands);
            addStatisticsCommands(commands);
            app.parse(line);
            output.flushResults();
        } catch (CommandFailure const& failure) {
            code = failure.code();
            message = failure.what();
        } catch (CLI::ParseError const& error) {
            code = ExitCode::Usage;
            message = error.what();
        }
        std::fflush(stdout);
        results = testing::internal::GetCapturedStdout();
        errors = testing::internal::GetCapturedStderr();
        return code;
    }
    ExitCode replicate(std::string const& more = {}) {
        return run("replicate " + source + " --store main " + more);
    }
    /// The paths of the latest snapshot, one a line.
    std::string stored() {
        EXPECT_EQ(run("ls latest -R --store main"), ExitCode::Done) << message;
        return results;
    }
    void write(std::string const& name, std::string const& text) const {
        auto const file = source + '/' + name;
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
        std::ofstream(file) << text;
    }
    /// The faults of the repository.
    std::string faults() {
        EXPECT_NE(run("check --read-data"), ExitCode::NoRepository) << message;
        return results.find("no faults") == std::string::npos ? results + message : "";
    }

    QTemporaryDir directory;
    std::string path = std::filesystem::canonical(directory.path().toStdString()).string();
    std::string source = path + "/source";
    std::string message;
    std::string results;
    std::string errors;
};

} // namespace Morva
