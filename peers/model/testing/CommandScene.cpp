#include "peers/model/testing/CommandScene.h"

#include "base/process/Config.h"
#include "base/process/Context.h"
#include "base/process/FixedPath.h"
#include "peers/check/Checker.h"
#include "peers/model/FaultFixture.h"
#include "peers/morva/Commands.h"
#include "peers/morva/Root.h"
#include "peers/morva/SnapshotName.h"
#include "peers/source/LogFileSink.h"
#include "peers/source/OperationLogger.h"

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>

using namespace Morva;
namespace fs = std::filesystem;

namespace CommandScene {

namespace {

Contents contentsOfRoot(Root& root) {
    Contents result;
    for (auto const& source : root.sources()) {
        auto const store = root.store(source, Root::Marked::Given);
        auto const name = source.name.toStdString();
        auto const live = FaultFixture::treeText(*store, Replication::Instance{0});
        bool seen = false;
        for (auto const& file : store->snapshots().all())
            if (isVisible(*file)) {
                seen = true;
                result[name + ':' + std::to_string(file->instance().value)] =
                    FaultFixture::treeText(*store, file->instance());
            }
        // A store that has never been fed is as good as none: it has the line of its root.
        if (seen || std::count(live.begin(), live.end(), '\n') > 1)
            result[name + ":live"] = live;
    }
    return result;
}

std::string bytes(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string text(size, '\0');
    for (auto& byte : text)
        byte = static_cast<char>(random());
    return text;
}

void write(std::string const& path, std::string const& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    ASSERT_TRUE(file.flush()) << path;
}

} // namespace

Outcome runCommand(std::string const& root, std::vector<std::string> arguments) {
    Output output;
    output.root = QString::fromStdString(root);
    Outcome result;
    CLI::App app;
    app.require_subcommand(1);
    CommandLine line{app, output, result.code};
    addRootCommands(line);
    addLogCommands(line);
    addReplicateCommand(line);
    addExcludeCommand(line);
    addSnapshotCommands(line);
    addBrowseCommands(line);
    addRestoreCommand(line);
    addCheckCommand(line);
    addStatisticsCommands(line);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    std::string message;
    try {
        // CLI11 takes the words from the last to the first.
        std::reverse(arguments.begin(), arguments.end());
        app.parse(std::move(arguments));
        output.flushResults();
    } catch (CLI::ParseError const& error) {
        result.code = ExitCode::Usage;
        message = error.what();
    } catch (CommandFailure const& failure) {
        result.code = failure.code();
        message = failure.what();
    }
    result.output = testing::internal::GetCapturedStdout();
    result.errors = testing::internal::GetCapturedStderr() + message;
    return result;
}

Contents contentsOf(std::string const& path) {
    try {
        Root root(QString::fromStdString(path), Root::For::Reading);
        auto result = contentsOfRoot(root);
        root.finish();
        return result;
    } catch (CommandFailure const& failure) {
        return {{"failure", failure.what()}};
    }
}

std::string difference(Contents const& found, Contents const& wanted) {
    for (auto const& [name, tree] : wanted) {
        auto const other = found.find(name);
        if (other == found.end())
            return name + " is missing";
        if (auto const line = FaultFixture::difference(other->second, tree); !line.empty())
            return name + ": " + line;
    }
    for (auto const& [name, tree] : found)
        if (!wanted.contains(name))
            return name + " is too many: " + tree.substr(0, 200);
    return {};
}

std::string faultsIn(std::string const& root) {
    if (!FixedPath::setRoot(QString::fromStdString(root)))
        return "the root can't be used";
    auto const journal = Root::openJournal();
    CheckOptions options;
    options.readData = true;
    std::string result;
    std::size_t count = 0;
    auto const report = checkRepository(RepositoryPaths::current(), options);
    for (auto const& fault : report.faults())
        if (fault.kind != FaultKind::LostSpace && ++count <= 3)
            result += fault.line().toStdString() + '\n';
    return count > 3 ? result + "and " + std::to_string(count - 3) + " more" : result;
}

// --- the scene

Scene::Scene() {
    auto const base = path() + "/base";
    makeSource();
    Root::init(QString::fromStdString(base));
    FaultFixture::writeConfiguration();
    fs::copy(base, path() + "/empty", fs::copy_options::recursive);
    auto const run = [&](std::vector<std::string> const& arguments) {
        auto const outcome = runCommand(base, arguments);
        EXPECT_EQ(outcome.code, ExitCode::Done) << arguments.front() << ": " << outcome.errors;
    };
    run({"replicate", source(), "--store", "main"});
    run({"dedup"});
    write(source() + "/a/two", bytes(9000, 77));
    write(source() + "/b/equal", bytes(20'000, 4));
    fs::remove(source() + "/b/gone");
    run({"replicate", source(), "--store", "main"});
    for (auto const& [name, tree] : contentsOf(base))
        if (auto const number = name.substr(name.find(':') + 1); number != "live")
            snapshots_.push_back(number);
    EXPECT_EQ(snapshots_.size(), 2U);
    changeSource();
    makeLog();
    XmlList entry, details;
    entry.set("Path", QStringLiteral("*/a/two"));
    details.set("Entry", entry, XmlList::SetTypeE::Add);
    EXPECT_TRUE(Config::save(QString::fromStdString(exclusions()), details));
}

void Scene::startOver(bool emptyRoot) {
    auto const run = path() + "/run";
    fs::remove_all(run);
    fs::create_directories(run + "/target");
    // Not by way of the guarded files: this is another process's repository as far as they go.
    fs::copy(path() + (emptyRoot ? "/empty" : "/base"), root(), fs::copy_options::recursive);
}

void Scene::makeSource() const {
    for (char const* directory : {"/a/deep/er", "/b", "/c"})
        fs::create_directories(source() + directory);
    write(source() + "/a/empty", "");
    write(source() + "/a/one", bytes(150, 1));
    write(source() + "/a/two", bytes(5000, 2));
    write(source() + "/a/deep/er/large", bytes(150'000, 3));
    write(source() + "/b/same", bytes(20'000, 4));
    write(source() + "/b/again", bytes(20'000, 4));
    write(source() + "/b/gone", bytes(12'000, 5));
    for (int i = 0; i < 12; ++i)
        write(source() + "/c/" + std::string(30, 'n') + std::to_string(i),
              bytes(static_cast<std::size_t>(i) * 700, 10U + static_cast<unsigned>(i)));
    fs::create_hard_link(source() + "/a/one", source() + "/b/one");
    fs::create_symlink("a/one", source() + "/link");
}

void Scene::changeSource() const {
    write(source() + "/a/two", bytes(4000, 78));
    write(source() + "/b/new", bytes(30'000, 79));
    fs::remove_all(source() + "/a/deep");
    fs::rename(source() + "/b/again", source() + "/b/renamed");
}

void Scene::makeLog() const {
    int const descriptor = ::open(log().c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(descriptor, 0);
    Replication::LogFileSink sink(descriptor);
    Replication::LogSourceOptions options;
    options.source = Context::machineName().name();
    options.firstSequenceNumber = 1'000'000;
    Replication::OperationLogger logger(options, sink);
    auto const at = [&](char const* name) { return source() + name; };
    auto const data = bytes(10'000, 80);
    std::uint32_t id = 0;
    EXPECT_TRUE(logger.create(at("/b/logged"), S_IFREG | 0644, 0, 0, id));
    EXPECT_TRUE(logger.write(id, 0, Extent(data.data(), static_cast<std::uint32_t>(data.size()))));
    EXPECT_TRUE(logger.write(id, 20'000, Extent(data.data(), 3000)));
    EXPECT_TRUE(logger.close(id));
    EXPECT_TRUE(logger.writePath(at("/b/same"), 500, Extent(data.data(), 7000)));
    EXPECT_TRUE(logger.rename(at("/a/one"), at("/c/moved")));
    EXPECT_TRUE(logger.unlink(at("/c/nnnnnnnnnnnnnnnnnnnnnnnnnnnnnn7")));
    EXPECT_TRUE(logger.truncate(at("/a/deep/er/large"), 70'000));
    EXPECT_TRUE(logger.mkdir(at("/d"), S_IFDIR | 0755, 0, 0));
    EXPECT_TRUE(sink.flush());
    ::close(descriptor);
}

} // namespace CommandScene
