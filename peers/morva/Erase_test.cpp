#include "base/process/FixedPath.h"
#include "peers/check/Checker.h"
#include "peers/morva/RestoreFixture.h"

#include <QDir>

#include <fstream>

namespace Morva {
namespace {

class Erase : public RestoreFixture {
protected:
    Erase() {
        std::filesystem::create_directory(at("directory"));
        std::ofstream(at("directory/file")) << std::string(100000, 'x');
        std::ofstream(at("small")) << "y";
    }
    void replicateInto(char const* name) {
        if (!root->hasSource(name))
            root->addSource(name, QString::fromStdString(source));
        storeName = name;
        replicate();
        snapshot();
        root->drain(true);
    }
    /// The text of the failure; empty when the store is gone.
    std::string erase(char const* name, bool deactivate) {
        try {
            root->erase(name, deactivate);
            return {};
        } catch (CommandFailure const& failure) {
            return failure.what();
        }
    }
    /// Ends this process's use of the root, and checks it.
    std::string endAndCheck() {
        root->finish();
        root.reset();
        return checkRepository(RepositoryPaths::current()).lines().join('\n').toStdString();
    }
    void begin() { root.emplace(QString::fromStdString(path + "/root")); }
    [[nodiscard]] static qsizetype storesOnDisk() {
        return QDir(FixedPath::repositoryStores())
            .entryList(QDir::AllEntries | QDir::NoDotAndDotDot)
            .size();
    }
    [[nodiscard]] std::uint64_t nodesInUse() {
        XmlList pool;
        root->pool().statistics(pool);
        return pool.getXmlList(nullptr, "Streams").get("NodeCount", std::uint64_t{0});
    }
};

TEST_F(Erase, OnlyAStoreThatNothingFeedsAndNobodyHoldsGoes) {
    auto const nodesWhenNew = nodesInUse();
    replicateInto("main");
    replicateInto("other");
    EXPECT_NE(erase("main", false).find("is active"), std::string::npos);
    EXPECT_NE(erase("", true).find("no store"), std::string::npos);
    {
        auto const held = store();
        EXPECT_EQ(erase("other", true), "The store is currently in use");
        EXPECT_TRUE(held->active());
    }
    EXPECT_EQ(storesOnDisk(), 2);

    EXPECT_EQ(erase("main", true), "");
    EXPECT_FALSE(root->hasSource("main"));
    EXPECT_EQ(storesOnDisk(), 1);
    EXPECT_EQ(endAndCheck(), "");
    begin();
    FileTree const left(*store(), store()->currentInstance());
    EXPECT_EQ(restore(left, "", {}), Restorer::Result::Done) << problems;
    EXPECT_EQ(std::filesystem::file_size(target + "/directory/file"), 100000U);

    EXPECT_EQ(erase("other", true), "");
    EXPECT_EQ(nodesInUse(), nodesWhenNew);
    EXPECT_EQ(endAndCheck(), "");
}

TEST_F(Erase, TakesUpWhatWasInterruptedAndLeavesTheNameToANewStore) {
    replicateInto("main");
    replicateInto("other");
    auto const oldId = root->source("other").id;
    ASSERT_TRUE(store()->active(false));
    ASSERT_TRUE(store()->markForDeletion());
    ASSERT_EQ(endAndCheck(), "");
    begin();
    try {
        static_cast<void>(store());
        ADD_FAILURE() << "a store to be erased was given out";
    } catch (CommandFailure const& failure) {
        EXPECT_NE(std::string(failure.what()).find("waits for its deletion"), std::string::npos);
    }
    EXPECT_FALSE(root->store(root->source("other"), Root::Marked::Given)->valid());
    EXPECT_EQ(erase("other", false), ""); // it isn't active any more
    ASSERT_EQ(endAndCheck(), "");
    begin();
    replicateInto("other"); // all logs again, and no old position hides one
    EXPECT_GT(root->source("other").id, oldId);
    EXPECT_EQ(store()->control().counters()[1], 2U);
    EXPECT_EQ(endAndCheck(), "");
}

} // namespace
} // namespace Morva
