#include "peers/morva/RestoreFixture.h"
#include "peers/morva/TreeDiff.h"
#include "peers/morva/VersionList.h"

#include <CLI/CLI.hpp>

#include <numeric>

using namespace Morva;
using namespace Replication;

namespace {

/// Two snapshots of a tree in which everything changed that a comparison tells apart.
class TreeDiffTest : public RestoreFixture {
protected:
    TreeDiffTest() {
        apply([&](OperationLogger& log) {
            ok_ = log.mkdir(name("dir"), S_IFDIR | 0755, 0, 0) &&
                  log.mkdir(name("dir/sub"), S_IFDIR | 0755, 0, 0) &&
                  log.mkdir(name("gone"), S_IFDIR | 0755, 0, 0);
            for (char const* file : {"dir/changed", "dir/same", "dir/sub/rewritten", "gone/file",
                                     "mode", "moved", "type", "attributes"})
                put(log, file, "content");
            ok_ = ok_ && log.symlink("old", name("link"), 0, 0);
        });
        before = snapshot();
        apply([&](OperationLogger& log) {
            put(log, "dir/changed", "CONTENT");
            put(log, "dir/sub/rewritten", "content");
            put(log, "new", "content");
            ok_ = ok_ && log.unlink(name("gone/file")) && log.rmdir(name("gone")) &&
                  log.rename(name("moved"), name("dir/moved")) && log.unlink(name("type")) &&
                  log.mkdir(name("type"), S_IFDIR | 0755, 0, 0) && log.unlink(name("link")) &&
                  log.symlink("new", name("link"), 0, 0) &&
                  log.setEa(name("attributes"), "user.a", Extent(QByteArray("v"))) &&
                  log.setAttr(name("mode"), {posixAttrMode, S_IFREG | 0600});
            put(log, "type/in", "content");
        });
        after = snapshot();
        EXPECT_TRUE(ok_);
    }

    [[nodiscard]] std::string name(std::string const& file) const { return source + '/' + file; }
    void put(OperationLogger& log, std::string const& file, char const* content) {
        std::uint32_t id = 0;
        ok_ = ok_ && log.create(name(file), S_IFREG | 0644, 0, 0, id) &&
              log.write(id, 0, Extent(QByteArray(content))) && log.close(id) &&
              log.setAttr(name(file), {posixAttrModificationTime, 0, 0, 0, 0, 1000});
    }
    [[nodiscard]] std::string diff(FileTree const& a, FileTree const& b, QString const& at = {}) {
        std::string text;
        TreeDiff compared(a, b, [&](TreeDiff::Change change, QByteArray const& path) {
            text += static_cast<char>(change) + (' ' + path.toStdString()) + '\n';
        });
        auto const parts = at.split('/', Qt::SkipEmptyParts);
        compared.compare(at.toUtf8(), a.find(parts), b.find(parts));
        return text;
    }
    /// What a command prints; `code` gets its result.
    std::string run(std::string const& command) {
        root->finish();
        root.reset();
        output.root = QString::fromStdString(path + "/root");
        CLI::App app;
        code = ExitCode::Done;
        CommandLine line{app, output, code};
        addBrowseCommands(line);
        addRestoreCommand(line);
        testing::internal::CaptureStdout();
        try {
            app.parse(command);
        } catch (CommandFailure const& failure) {
            code = failure.code();
        }
        std::fflush(stdout);
        auto const text = testing::internal::GetCapturedStdout();
        root.emplace(output.root);
        return text;
    }

    Instance before, after;
    ExitCode code = ExitCode::Done;

private:
    bool ok_ = true;
};

} // namespace

TEST_F(TreeDiffTest, EachKindOfChangeIsTold) {
    FileTree const a(*store(), before);
    FileTree const b(*store(), after);
    EXPECT_EQ(diff(a, b), "m attributes\n"
                          "M dir/changed\n"
                          "+ dir/moved\n"
                          "- gone\n"
                          "- gone/file\n"
                          "M link\n"
                          "m mode\n"
                          "- moved\n"
                          "+ new\n"
                          "T type\n"
                          "+ type/in\n");
    EXPECT_EQ(diff(a, b, "dir"), "M dir/changed\n+ dir/moved\n");
    EXPECT_EQ(diff(b, a, "gone"), "+ gone\n+ gone/file\n");
    EXPECT_EQ(diff(a, a), "");
    EXPECT_EQ(diff(b, FileTree(*store(), {})), "");
}

TEST_F(TreeDiffTest, VersionsAreListedOnceForARunOfEqualOnes) {
    auto const third = snapshot();
    apply([&](OperationLogger& log) { put(log, "dir/changed", "third content"); });
    auto const summary = [&](QStringList const& path) {
        std::string text;
        for (auto const& version : versionList(*store(), path))
            text +=
                std::to_string(version.instance.value) + ':' + std::to_string(version.size) + ' ';
        return text;
    };
    auto const text = [](Instance instance) { return std::to_string(instance.value); };
    EXPECT_EQ(summary({"dir", "changed"}), text(before) + ":7 " + text(after) + ":7 0:13 ");
    EXPECT_EQ(summary({"dir", "same"}), text(before) + ":7 ");
    EXPECT_EQ(summary({"gone", "file"}), text(before) + ":7 ");
    EXPECT_EQ(summary({"new"}), text(after) + ":7 ");
    EXPECT_EQ(summary({"never"}), "");
    EXPECT_GT(third, after);
}

TEST_F(TreeDiffTest, CommandsNameSnapshotsAndPaths) {
    auto const old = std::to_string(before.value);
    EXPECT_EQ(run("ls"), "attributes\ndir\nlink\nmode\nnew\ntype\n");
    EXPECT_EQ(run("ls -R " + old + ":/dir/"), "changed\nsame\nsub\nsub/rewritten\n");
    EXPECT_NE(run("ls -l latest:link").find("lrwxrwxrwx"), std::string::npos);
    EXPECT_EQ(run("cat " + old + ":dir/changed"), "content");
    EXPECT_EQ(run("cat latest:dir/changed"), "CONTENT");
    EXPECT_EQ(run("find ch?nged"), "dir/changed\n");
    EXPECT_EQ(run("find dir/*e* latest"), "dir/changed\ndir/moved\ndir/same\n");
    EXPECT_EQ(run("diff " + old + " latest dir/changed").substr(0, 14), "M dir/changed\n");
    output.json = true;
    auto const json = run("versions dir/changed");
    EXPECT_EQ(std::count(json.begin(), json.end(), '\n'), 2);
    EXPECT_NE(json.find("\"type\":\"version\""), std::string::npos);
    output.json = false;
    for (auto const& [command, expected] : std::initializer_list<std::pair<char const*, ExitCode>>{
             {"cat latest:dir", ExitCode::Failed},
             {"cat latest:none", ExitCode::Failed},
             {"ls 99", ExitCode::Failed},
             {"ls whatever", ExitCode::Usage},
             {"versions none", ExitCode::Failed}}) {
        EXPECT_EQ(run(command), "") << command;
        EXPECT_EQ(code, expected) << command;
    }
    std::filesystem::create_directories(target + "/taken");
    run("restore latest --target " + target);
    EXPECT_EQ(code, ExitCode::Failed);
    EXPECT_NE(run("restore latest --overwrite --target " + target).find("snapshot"),
              std::string::npos);
    EXPECT_EQ(code, ExitCode::Done);
    EXPECT_TRUE(std::filesystem::exists(target + "/type/in"));
}
