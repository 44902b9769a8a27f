// Each operation on names and contents with a disk that fails from its nth read or write on: it has
// worked or says that it hasn't, and once the disk is well the same operation ends as it should.

#include "base/files/FaultyFiles.h"
#include "replication/repository/store/DirectoryScan.h"
#include "replication/repository/store/StoreFixture.h"

#include <array>
#include <functional>
#include <map>

namespace Replication {
namespace {

using Morva::Status;

using Contents = std::map<QString, QByteArray>;

struct Operation {
    char const* name;
    Contents before; ///< files that are there
    Contents after;  ///< and those that are to be
    std::function<Status(PathOperations&, FileContext const&)> run;
};

QStringList at(char const* name) {
    return {QStringLiteral("dir"), QString::fromLatin1(name)};
}

Status overwrite(PathOperations& paths, FileContext const& context) {
    return paths.write(context, at("a"), dataStreamName, 0, "new", 3);
}

std::vector<Operation> const& operations() {
    static std::vector<Operation> const all = {
        {"create",
         {},
         {{"a", ""}},
         [](auto& paths, auto& context) {
             return paths.createStream(context, at("a"), dataStreamName, {}).status();
         }},
        {"create and write",
         {},
         {{"a", "text"}},
         [](auto& paths, auto& context) -> Status {
             MORVA_TRY_LET(auto const made,
                           paths.createStream(context, at("a"), dataStreamName, {}));
             return paths.write(context, *made, 0, "text", 4);
         }},
        {"open",
         {{"a", "one"}},
         {{"a", "one"}},
         [](auto& paths, auto& context) {
             return paths.openStream(context, at("a"), dataStreamName).status();
         }},
        {"write", {{"a", "one"}}, {{"a", "new"}}, overwrite},
        {"rename",
         {{"a", "one"}},
         {{"b", "one"}},
         [](auto& paths, auto& context) { return paths.rename(context, {}, at("a"), at("b")); }},
        {"rename over a file",
         {{"a", "one"}, {"b", "two"}},
         {{"b", "one"}},
         [](auto& paths, auto& context) { return paths.rename(context, {}, at("a"), at("b")); }},
        {"link",
         {{"a", "one"}},
         {{"a", "one"}, {"b", "one"}},
         [](auto& paths, auto& context) { return paths.link(context, at("a"), at("b")); }},
        {"remove",
         {{"a", "one"}, {"b", "two"}},
         {{"b", "two"}},
         [](auto& paths, auto& context) { return paths.unlink(context, at("a")); }},
    };
    return all;
}

struct Faults {
    Morva::FaultyFiles files_;
};

class NodeSweep : protected Faults, public StoreFixture {
protected:
    /// Beside the names of an operation there are so many others that the directory has pages.
    static constexpr int others = 150;

    NodeSweep() {
        create();
        for (int i = 0; i < others; ++i)
            EXPECT_TRUE(writeFile(QStringLiteral("dir/some other file %1").arg(i), "other"));
    }

    /// All names in the directory with their contents, but for the others; an empty map, and the
    /// test has failed, when they can't be had or one is there twice.
    Contents contents() {
        Contents result;
        auto const located =
            value(store_->directories().locate({QStringLiteral("dir")}, PathMode::DoNotBuildPath));
        auto const directory = value(store_->activeHandles().get(located.key.fileId()));
        if (!directory)
            return result;
        int found = 0;
        DirectoryScan scan(*directory->fileNode(), directory->id(), "test");
        while (scan.nextName()) {
            QString const name = scan.entry().name().toString();
            if (name.startsWith(QStringLiteral("some other"))) {
                ++found;
                continue;
            }
            auto const file = value(store_->activeHandles().get(scan.entry().fileId()));
            auto const stream =
                file ? value(file->fileNode()->openStream(dataStreamName)) : nullptr;
            QByteArray bytes(stream ? static_cast<qsizetype>(stream->length()) : 0, '\0');
            EXPECT_TRUE(stream && stream->readWhole(0, bytes.data(),
                                                    static_cast<std::uint32_t>(bytes.size())))
                << name.toStdString();
            EXPECT_TRUE(result.emplace(name, bytes).second) << "twice: " << name.toStdString();
        }
        EXPECT_TRUE(scan.status()) << scan.status().text().toStdString();
        EXPECT_EQ(found, others);
        EXPECT_TRUE(store_->directories().validDirectory(*directory->fileNode(), directory->id()));
        return result;
    }

    /// Brings the directory to these contents.
    void prepare(Contents const& wanted) {
        for (auto const& [name, bytes] : contents())
            ASSERT_TRUE(removeFile(QStringLiteral("dir/") + name));
        for (auto const& [name, bytes] : wanted)
            ASSERT_TRUE(writeFile(QStringLiteral("dir/") + name, bytes));
        (void)snapshot(); // so that the first change makes copies
        reopen();         // with nothing in the store's caches
    }

    /// Whether the order was met.
    bool once(Operation const& operation, std::function<void()> const& order) {
        prepare(operation.before);
        std::uint64_t const faults = files_.faults();
        order();
        Status const status = operation.run(store_->paths(), writing());
        bool const met = files_.faults() != faults;
        EXPECT_TRUE(status.ok() || met)
            << "a failure without a fault " << status.text().toStdString();
        files_.heal();
        EXPECT_TRUE(store_->settle());
        if (status) {
            EXPECT_EQ(contents(), operation.after) << "it was to have worked";
            return met;
        }
        Status const again = operation.run(store_->paths(), writing());
        EXPECT_TRUE(again) << again.text().toStdString();
        EXPECT_EQ(contents(), operation.after) << "done again";
        return met;
    }

    void sweep(std::function<void(std::uint64_t)> const& order) {
        for (Operation const& operation : operations()) {
            bool met = true;
            for (std::uint64_t n = 0; met && !HasFailure(); ++n) {
                SCOPED_TRACE(testing::Message() << operation.name << " at " << n);
                met = once(operation, [&] { order(n); });
            }
        }
    }
};

TEST_F(NodeSweep, OperationsSurviveFailedReads) {
    sweep([this](std::uint64_t n) { files_.failReadsAfter(n); });
}

TEST_F(NodeSweep, OperationsSurviveFailedWrites) {
    sweep([this](std::uint64_t n) { files_.failWritesAfter(n); });
}

TEST_F(NodeSweep, ScansEndOrSayThatTheyFailed) {
    prepare({{"a", "one"}});
    bool met = true;
    for (std::uint64_t n = 0; met; ++n) {
        SCOPED_TRACE(n);
        reopen();
        std::uint64_t const faults = files_.faults();
        files_.failReadsAfter(n);
        auto const empty = [&]() -> Morva::Result<bool> {
            MORVA_TRY_LET(
                auto const located,
                store_->directories().locate({QStringLiteral("dir")}, PathMode::DoNotBuildPath));
            EXPECT_TRUE(located.found);
            return store_->directories().emptyDirectory(located.key);
        }();
        met = files_.faults() != faults;
        files_.heal();
        EXPECT_EQ(empty.ok(), !met);
        EXPECT_FALSE(empty.ok() && *empty);
    }
}

TEST_F(NodeSweep, ADirectoryWithADamagedPageIsNotEmpty) {
    auto const located =
        value(store_->directories().locate({QStringLiteral("dir")}, PathMode::DoNotBuildPath));
    auto const directory = value(store_->activeHandles().get(located.key.fileId()));
    auto stream = value(directory->fileNode()->openStream(dataStreamName));
    // The parent entry takes the whole of the first page but for the end, where nothing is valid.
    std::array<std::uint8_t, 4> const length{0xFC, 0x0F, 0, 0};
    ASSERT_TRUE(directory->write(LinkId{1}, stream, 0, length.data(), 4, 0));
    store_->directories().forget();
    EXPECT_EQ(store_->directories().emptyDirectory(located.key).code(), Status::Code::Corruption);
    DirKey key = located.key;
    EXPECT_EQ(store_->directories().removeLink(key).code(), Status::Code::Corruption);
    EXPECT_TRUE(
        value(store_->directories().locate(at("some other file 7"), PathMode::DoNotBuildPath))
            .found);
}

TEST_F(NodeSweep, ADirectoryWithNamesIsNoRoomForAFile) {
    PathOperations::NewFile file;
    file.replaces = true;
    QStringList const dir{QStringLiteral("dir")};
    EXPECT_EQ(store_->paths().createStream(writing(), dir, dataStreamName, file).code(),
              Status::Code::InvalidArgument);
    ASSERT_TRUE(writeFile("file", "x"));
    EXPECT_EQ(store_->paths().rename(writing(), {}, {QStringLiteral("file")}, dir).code(),
              Status::Code::InvalidArgument);
    EXPECT_EQ(contents(), Contents()) << "the others are there";
    PathOperations::NewFile directory;
    directory.nodeType = directoryType;
    ASSERT_TRUE(store_->paths().createObject(writing(), {QStringLiteral("empty")}, directory));
    EXPECT_TRUE(
        store_->paths().createStream(writing(), {QStringLiteral("empty")}, dataStreamName, file));
}

} // namespace
} // namespace Replication
