#include "base/trace/Log.h"
#include "base/trace/TracedLock.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <thread>

using namespace Morva;

namespace {

class TraceFile : public ::testing::Test {
protected:
    void SetUp() override { Trace::install(path()); }
    void TearDown() override { Trace::remove(); }

    QString path() const { return dir_.filePath(QStringLiteral("trace")); }
    /// The texts of all lines, behind the place.
    QStringList lines() {
        Trace::object()->write(TraceLevel::Always, "x", 0, "end");
        QFile file(path());
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        QStringList result;
        static QRegularExpression const form(
            QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} \\[\\d+\\] "
                           "(\\w|\\.)+\\(\\d+\\) (.*)$"));
        for (QByteArray const& line : file.readAll().split('\n')) {
            if (line.isEmpty())
                continue;
            auto const match = form.match(QString::fromLatin1(line));
            EXPECT_TRUE(match.hasMatch()) << line.toStdString();
            result << match.captured(2);
        }
        EXPECT_EQ(result.takeLast(), QStringLiteral("end"));
        return result;
    }
    static void level(TraceLevel level) { Trace::object()->setLevel(level, Trace::module); }

private:
    QTemporaryDir dir_;
};

int evaluated = 0;
int evaluate() {
    return ++evaluated;
}

int traced(bool early) {
    MORVA_METHOD("traced");
    if (early)
        return scope.result(7);
    return 1;
}

} // namespace

TEST(Trace, WithoutAnObjectNothingIsEvaluatedOrWritten) {
    ASSERT_EQ(Trace::object(), nullptr);
    evaluated = 0;
    MORVA_TRACE(Always) << evaluate();
    MORVA_CHECK(evaluate() == 1, "condition");
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(traced(true), 7);
}

TEST_F(TraceFile, PartsValuesByBlanksAndHonoursItsSwitches) {
    QByteArray const name = "caf\xE9\nx";
    MORVA_TRACE(Always) << "Text" << QStringLiteral("é") << 42 << hex << 255U << dec << -1 << true
                        << std::uint8_t{65} << "a" << pack << "b"
                        << "c";
    MORVA_TRACE(Always) << "Name" << name << static_cast<char const*>(nullptr);
    MORVA_TRACE(Always) << TraceErrorCode{ENOSPC};
    if (evaluated >= 0)
        MORVA_TRACE(Always) << "bare";
    else
        MORVA_TRACE(Always) << "never";
    EXPECT_EQ(lines(), (QStringList{
                           QString::fromLatin1("Text \xC3\xA9 42 ff -1 true 65 ab c"),
                           QString::fromLatin1("Name caf\xE9\\nx (null)"),
                           QStringLiteral("No space left on device (28)"),
                           QStringLiteral("bare"),
                       }));
}

TEST_F(TraceFile, LevelsThatAreOffEvaluateNothing) {
    evaluated = 0;
    EXPECT_EQ(Trace::object()->getLevel(Trace::module), TraceLevel::Always);
    MORVA_TRACE(Testing) << evaluate();
    EXPECT_EQ(evaluated, 0);
    level(TraceLevel::Verbose);
    MORVA_TRACE(Verbose) << evaluate();
    MORVA_TRACE(Debug) << evaluate();
    EXPECT_EQ(evaluated, 1);
    Trace::object()->lowerLevel(TraceLevel::Debug, Trace::module);
    EXPECT_EQ(Trace::object()->getLevel(Trace::module), TraceLevel::Verbose);
    Trace::object()->lowerLevel(TraceLevel::Normal, Trace::module);
    EXPECT_EQ(Trace::object()->getLevel(Trace::module), TraceLevel::Normal);
    Trace::object()->setLevel(TraceLevel::Debug, 1);
    EXPECT_EQ(Trace::object()->getLevel(Trace::module), TraceLevel::Normal);
    EXPECT_EQ(lines(), QStringList{QStringLiteral("1")});
}

TEST_F(TraceFile, MethodsAndLocksTellTheirBeginAndEnd) {
    TracedMutex mutex({"==== Lock Test ====", "==== Unlock Test ===="}, 9);
    traced(true);
    { TracedLock hold(mutex); }
    level(TraceLevel::Debug);
    traced(true);
    traced(false);
    {
        TracedLock hold(mutex);
        MORVA_TRACE(Always) << "inside";
        hold.release();
        MORVA_TRACE(Always) << "outside";
    }
    MORVA_CHECK(1 == 2, "bOrder");
    level(TraceLevel::Always);
    EXPECT_EQ(lines(), (QStringList{
                           QStringLiteral("IN:traced"),
                           QStringLiteral("OUT:traced , 7"),
                           QStringLiteral("IN:traced"),
                           QStringLiteral("OUT:traced"),
                           QStringLiteral("==== Lock Test ==== 9"),
                           QStringLiteral("inside"),
                           QStringLiteral("==== Unlock Test ==== 9"),
                           QStringLiteral("outside"),
                           QStringLiteral("Error: `bOrder' failed."),
                       }));
}

TEST_F(TraceFile, FullFilesAreNumberedAndTheOldestGoes) {
    Trace::install(path(), {.linesPerFile = 3, .filesToKeep = 3});
    for (int i = 0; i < 10; ++i)
        MORVA_TRACE(Always) << i;
    EXPECT_EQ(lines(), QStringList{QStringLiteral("9")});
    for (auto const& [name, last] : {std::pair{"/trace.1", "8\n"}, {"/trace.2", "5\n"}}) {
        QFile file(QFileInfo(path()).path() + QLatin1String(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << name;
        EXPECT_TRUE(file.readAll().endsWith(last)) << name;
    }
    EXPECT_FALSE(QFile::exists(path() + QStringLiteral(".3")));
}

TEST(Log, PutsInsertsInByTheirNumbers) {
    std::vector<LogMessage> sent;
    Log::install([&](LogMessage const& message) { sent.push_back(message); });
    LogTags tags;
    Log::addTagToList(tags, QStringLiteral("Store"), QStringLiteral("12"));
    Log& log = *Log::object();

    log.initialiseMessage(QStringLiteral("Replication"), LogLevelE::Error, tags)
        << "A resynchronization of %1m to %2s is required, %3s" << QStringLiteral("%2s host")
        << QStringLiteral("target") << "why %1";
    log.sendMessage();
    log.sendMessage();
    LogLine(QStringLiteral("Mirror"), LogLevelE::Information)
        << "%1i %2l of %3c, 100%% %4p %5h %6s %7s" << 2U << -3 << DataSize(1536)
        << PlainText(QStringList{QStringLiteral("/a"), QStringLiteral("/b")})
        << Html{QStringLiteral("<b>")} << true;
    log.initialiseStateLogging(QStringLiteral("Repository"), QStringLiteral("Repository"),
                               LogProcessStateE::Started);
    log.sendMessage();
    Log::remove();

    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(sent[0].text,
              QStringLiteral("A resynchronization of %2s host to target is required, why %1"));
    EXPECT_EQ(sent[0].source, QStringLiteral("Replication"));
    EXPECT_EQ(sent[0].level, LogLevelE::Error);
    EXPECT_EQ(sent[0].tags, tags);
    EXPECT_EQ(sent[1].text, QStringLiteral("2 -3 of 1.5 KiB, 100%% /a\n/b <b> true %7s"));
    EXPECT_TRUE(sent[2].isState);
    EXPECT_EQ(sent[2].state, LogProcessStateE::Started);
    EXPECT_EQ(sent[2].text, QStringLiteral("Repository"));
}

TEST(Log, EachThreadBuildsItsOwnMessage) {
    std::vector<QString> sent;
    Log::install([&](LogMessage const& message) { sent.push_back(message.text); });
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([i] {
            for (int n = 0; n < 200; ++n)
                LogLine(QStringLiteral("Mirror"), LogLevelE::Notice) << "%1i-%2i" << i << i;
        });
    for (auto& thread : threads)
        thread.join();
    Log::remove();
    ASSERT_EQ(sent.size(), 800U);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(std::count(sent.begin(), sent.end(), QStringLiteral("%1-%1").arg(i)), 200);
}

TEST(Log, WithoutAnObjectALineDoesNothing) {
    ASSERT_EQ(Log::object(), nullptr);
    LogLine(QStringLiteral("Mirror"), LogLevelE::Error) << "text %1i" << 1;
}
