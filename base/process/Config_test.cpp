#include "base/process/Config.h"
#include "base/process/Context.h"
#include "base/process/FixedPath.h"

#include "base/files/RawFile.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <unistd.h>

namespace Morva {
namespace {

class ConfigFiles : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(FixedPath::setRoot(root_.path())); }
    void TearDown() override {
        (void)FixedPath::setRoot({});
        Context::machineName(MachineName());
    }
    QString path(char const* below) const {
        return root_.path() + "/" + QString::fromLatin1(below);
    }
    static void write(QString const& path, QByteArray const& text) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(text), text.size());
    }

    QTemporaryDir root_;
};

TEST_F(ConfigFiles, PathsLieBelowTheRootAndNoneIsSetWithoutIt) {
    EXPECT_EQ(FixedPath::repositoryStreamData(), path("repository/streamdata"));
    EXPECT_EQ(FixedPath::rules(12), path("rules/12"));
    EXPECT_TRUE(QDir(root_.path()).isEmpty()) << "asking makes no directory";
    EXPECT_TRUE(FixedPath::setRoot({}));
    EXPECT_EQ(FixedPath::repository(), QString());
    EXPECT_EQ(FixedPath::rules(1), QString());
}

TEST_F(ConfigFiles, PathsFileSetsEachPathOnItsOwn) {
    XmlList list;
    list.set("RepositoryStreams", "/elsewhere/streams");
    list.set("RepositoryStreamData", "data");
    list.set("Runtime", "");
    list.set("Rules", "");
    ASSERT_TRUE(Config::save(path("paths.cfg"), list));
    ASSERT_TRUE(FixedPath::setRoot(root_.path()));
    EXPECT_EQ(FixedPath::repository(), path("repository"));
    EXPECT_EQ(FixedPath::repositoryStreams(), QStringLiteral("/elsewhere/streams"));
    EXPECT_EQ(FixedPath::repositoryStreamData(), path("data"));
    EXPECT_EQ(FixedPath::runtime(), QString());
    EXPECT_EQ(FixedPath::rules(3), QString());
}

TEST_F(ConfigFiles, DamagedPathsFileLeavesNothingSet) {
    write(path("paths.cfg"), "<XmlList>");
    EXPECT_FALSE(FixedPath::setRoot(root_.path()));
    EXPECT_EQ(FixedPath::repository(), QString());
}

TEST_F(ConfigFiles, AbsentMalformedAndGoodFilesAreToldApart) {
    auto const absent = Config::load(path("none.cfg"));
    EXPECT_FALSE(absent.usable());
    EXPECT_TRUE(absent.absent());
    EXPECT_TRUE(absent.empty());
    write(path("bad.cfg"), "<XmlList><Item/>");
    auto const bad = Config::load(path("bad.cfg"));
    EXPECT_FALSE(bad.usable());
    EXPECT_FALSE(bad.absent());
    write(path("empty.cfg"), "<XmlList/>");
    EXPECT_TRUE(Config::load(path("empty.cfg")).usable());
    EXPECT_FALSE(Config::load(root_.path()).usable()) << "a directory is no file";
}

TEST_F(ConfigFiles, EveryDamagedByteOfAFileWithASumIsFound) {
    XmlList list;
    list.set("Name", "value");
    auto const name = path("sum.cfg");
    ASSERT_TRUE(Config::save(name, list, Config::Protection::Sum));
    QFile file(name);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    auto const whole = file.readAll();
    EXPECT_EQ(Config::load(name).get("Name", QString()), "value");
    // A damaged mark of the sum leaves a list that is whole.
    for (qsizetype at = 0; at < whole.size(); ++at) {
        auto damaged = whole;
        damaged[at] = static_cast<char>(damaged[at] ^ 1);
        write(name, damaged);
        auto const read = Config::load(name);
        EXPECT_TRUE(!read.usable() || read.get("Name", QString()) == "value") << at;
    }
    for (qsizetype size = 0; size < whole.size(); ++size) {
        write(name, whole.first(size));
        auto const read = Config::load(name);
        EXPECT_TRUE(!read.usable() || read.get("Name", QString()) == "value") << size;
    }
}

TEST_F(ConfigFiles, LocalNamesAreFoundInTheConfigurationDirectory) {
    XmlList list;
    list.set("Key", 5U);
    EXPECT_FALSE(Config::save(FixedPath::configuration() + "/a.cfg", list)) << "no directory yet";
    ASSERT_TRUE(QDir().mkpath(FixedPath::configuration()));
    ASSERT_TRUE(Config::save(FixedPath::configuration() + "/a.cfg", list));
    EXPECT_EQ(ConfigLocal("a.cfg"), list);
    EXPECT_EQ(ConfigLocal(path("config/a.cfg")), list);
    list.set("Key", 6U);
    ASSERT_TRUE(Config::save(FixedPath::configuration() + "/a.cfg", list));
    EXPECT_EQ(ConfigLocal("a.cfg").get("Key", 0U), 6U);
    EXPECT_EQ(QDir(FixedPath::configuration()).entryList(QDir::Files), QStringList("a.cfg"));
}

TEST_F(ConfigFiles, RootNeedNotBeUtf8) {
    QString const root = path("odd-") + QChar(0xDC80 + 0x7F);
    ASSERT_TRUE(FixedPath::setRoot(root));
    ASSERT_TRUE(FixedPath::make(FixedPath::configuration()));
    XmlList list;
    list.set("Key", 5U);
    ASSERT_TRUE(Config::save(FixedPath::configuration() + "/a.cfg", list));
    EXPECT_EQ(ConfigLocal("a.cfg"), list);
    EXPECT_EQ(::access((QFile::encodeName(path("odd-")) + "\xFF/config/a.cfg").constData(), F_OK),
              0);
}

TEST_F(ConfigFiles, TraceStartsAsConfiguredUnlessTheEnvironmentNamesAFile) {
    XmlList list;
    list.set("DefaultTraceLevel", 2U);
    list.set("BoolTraceToFile", true);
    ASSERT_TRUE(QDir().mkpath(FixedPath::configuration()));
    ASSERT_TRUE(Config::save(FixedPath::configuration() + "/runtime.cfg", list));
    auto debug = list.clone();
    debug.set("TraceDebug", "Repository");
    debug.set("DefaultTraceLevel", 9U);
    auto const settings = TraceSettings::read(debug);
    EXPECT_EQ(settings.level, TraceLevel::Always) << "9 is no level";
    ASSERT_EQ(settings.modules.size(), 1U);
    EXPECT_EQ(settings.modules[0].second, TraceLevel::Debug);
    Context::startTrace();
    EXPECT_TRUE(Trace::enabled(TraceLevel::Normal));
    EXPECT_FALSE(Trace::enabled(TraceLevel::Verbose));
    Context::traceHandles(TraceLevel::Normal);
    Trace::remove();
    QFile trace(path("run/morva.trace"));
    ASSERT_TRUE(trace.open(QIODevice::ReadOnly));
    EXPECT_TRUE(trace.readAll().contains("run/morva.trace")) << "it is open itself";
    qputenv("MORVA_CONTEXT_TRACE_FILE", QFile::encodeName(path("other.trace")));
    Context::startTrace();
    Trace::remove();
    qunsetenv("MORVA_CONTEXT_TRACE_FILE");
    EXPECT_TRUE(QFile::exists(path("other.trace")));
}

TEST_F(ConfigFiles, PinnedMachineNameOutlivesTheHostsName) {
    Context::machineName(MachineName());
    EXPECT_TRUE(Context::machineName()) << "there is always a name";
    Context::machineName(MachineName(QStringLiteral("pinned")));
    ASSERT_TRUE(Context::pinMachineName());
    Context::machineName(MachineName());
    EXPECT_EQ(Context::machineName().name(), QStringLiteral("pinned"));
}

} // namespace
} // namespace Morva
