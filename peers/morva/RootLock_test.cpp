#include "peers/morva/ExitCode.h"
#include "peers/morva/RootLock.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>

namespace Morva {
namespace {

using Mode = RootLock::Mode;

class RootLockTest : public testing::Test {
protected:
    RootLockTest() { RootLock::make(path); }
    /// How taking the lock ends.
    ExitCode take(Mode mode) {
        try {
            RootLock const lock(path, mode, {});
            return ExitCode::Done;
        } catch (CommandFailure const& failure) {
            message = failure.what();
            return failure.code();
        }
    }
    [[nodiscard]] mode_t modeOfFile() const {
        struct stat status {};
        EXPECT_EQ(::stat(RootLock::fileName(path).toStdString().c_str(), &status), 0);
        return status.st_mode & 0777;
    }

    QTemporaryDir directory;
    QString path = directory.path();
    std::string message;
};

TEST_F(RootLockTest, ReadersShareItAndAWriterHasItAlone) {
    {
        RootLock const reader(path, Mode::Shared, {});
        EXPECT_EQ(take(Mode::Shared), ExitCode::Done);
        EXPECT_EQ(take(Mode::Exclusive), ExitCode::InUse);
    }
    RootLock const writer(path, Mode::Exclusive, {});
    EXPECT_EQ(take(Mode::Shared), ExitCode::InUse);
    EXPECT_NE(message.find("pid " + std::to_string(::getpid())), std::string::npos) << message;
}

TEST_F(RootLockTest, WaitsForTheEndOfTheOther) {
    std::optional<RootLock> writer(std::in_place, path, Mode::Exclusive,
                                   std::chrono::milliseconds(0));
    std::atomic<bool> ended = false;
    std::thread other([&] {
        RootLock const reader(path, Mode::Shared, std::chrono::hours(1));
        EXPECT_TRUE(ended);
    });
    ended = true;
    writer.reset();
    other.join();
}

TEST_F(RootLockTest, OpensToItsOwnerAlone) {
    EXPECT_EQ(modeOfFile(), 0600U);
    auto const name = RootLock::fileName(path).toStdString();
    ASSERT_EQ(::chmod(name.c_str(), 0644), 0);
    EXPECT_EQ(take(Mode::Exclusive), ExitCode::Done);
    EXPECT_EQ(modeOfFile(), 0600U);
}

TEST_F(RootLockTest, AnotherUsersRootIsRefusedForChangingAlone) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    ASSERT_EQ(::chown(RootLock::fileName(path).toStdString().c_str(), 1234, 1234), 0);
    EXPECT_EQ(take(Mode::Exclusive), ExitCode::Failed);
    EXPECT_NE(message.find("belongs to 1234"), std::string::npos) << message;
    EXPECT_EQ(take(Mode::Shared), ExitCode::Done);
}

} // namespace
} // namespace Morva
