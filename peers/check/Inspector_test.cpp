#include "peers/check/Inspector.h"

#include "base/blocks/TestSupport.h"
#include "peers/check/SampleRepository.h"

namespace Morva {
namespace {

using Testing::SampleRepository;

struct Look {
    Inspector::Result result = Inspector::Result::Usage;
    QString text;
};

Look look(QStringList const& words) {
    Look result;
    Inspector inspector(RepositoryPaths::current(), {},
                        [&](QString const& line) { result.text += line + u'\n'; });
    result.result = inspector.inspect(words);
    return result;
}

/// The first number behind a text.
QString numberBehind(QString const& text, QString const& before) {
    auto const at = text.indexOf(before);
    EXPECT_GE(at, 0) << before.toStdString() << " in\n" << text.toStdString();
    qsizetype end = at + before.size();
    while (end < text.size() && text[end].isDigit())
        ++end;
    return text.mid(at + before.size(), end - at - before.size());
}

TEST(Inspector, PrintsEveryRecordOfASoundRepository) {
    SampleRepository sample;
    sample.fill();
    sample.close();
    struct Case {
        QStringList words;
        char const* expected;
    };
    Case const cases[] = {
        {{"headers"}, "blocks of 1024 bytes"},
        {{"pool"}, "indexed streams "},
        {{"free"}, "numbers are free"},
        {{"keys"}, "length 20000, digest type 1 "},
        {{"queue", "cleanup"}, "delete stream "},
        {{"queue", "dedup"}, "0 requests wait"},
        {{"stores"}, "name \"repository-sample\""},
        {{"control"}, "instance 4, before it 3"},
        {{"id", "129"}, "(entry 129, generation 0): instance 3"},
        {{"pointers"}, "the free list begins at "},
        {{"dir", "129"}, "\"moved\""},
        {{"dir", "129", "2"}, "\"docs\""},
        {{"tree"}, "\"a name that fills pages 7\""},
        {{"snapshots"}, "snapshot 1: type Initial"},
        {{"snapshot", "2"}, "  ended: file "},
        {{"dedup"}, "stream "},
        {{"data", "1"}, "block 1: reference count "},
        {{"indirect", "1"}, "block 1: reference count "},
        {{"state", FixedPath::repository() + "/state-1"}, "target \"1\""},
        {{"list", FixedPath::rules(1) + "/replayrules.cfg"}, "\"StoreName\" = \"sample\""},
    };
    for (Case const& each : cases) {
        Look const seen = look(each.words);
        EXPECT_EQ(seen.result, Inspector::Result::Done) << each.words.join(u' ').toStdString();
        EXPECT_TRUE(seen.text.contains(QLatin1String(each.expected)))
            << each.words.join(u' ').toStdString() << ":\n"
            << seen.text.left(2000).toStdString();
    }
    EXPECT_FALSE(look({"dir", "129", "2"}).text.contains("\"moved\""));
}

TEST(Inspector, FollowsANameToItsBytes) {
    SampleRepository sample;
    sample.make("/hello", "found me here");
    sample.close();
    QString const directory = look({"dir", "129"}).text;
    QString const id = numberBehind(directory, " id ");
    QString const chain = look({"id", id}).text;
    QString const node = look({"node", numberBehind(chain, ", node ")}).text;
    EXPECT_TRUE(node.contains("\"Data\"") && node.contains("\"Security\"")) << node.toStdString();
    QString const stream =
        look({"stream", numberBehind(node.mid(node.indexOf("record type")), "  stream ")}).text +
        look({"stream", numberBehind(node.mid(node.indexOf("\"Data\"") - 30), "stream ")}).text;
    EXPECT_TRUE(stream.contains("found me here")) << stream.toStdString();
}

TEST(Inspector, PrintsLogsUpToATornOne) {
    SampleRepository sample;
    Replication::LogBuilder builder;
    builder.ruleSet(1);
    builder.begin(Replication::LogType::PosixMkdir, 5)
        .time(9)
        .text(Replication::LogField::File, "/made");
    auto const log = builder.encode();
    QByteArray bytes = log.head.toByteArray() + log.data.toByteArray();
    QString const path = sample.path("some.log");
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes + bytes.left(bytes.size() - 3));
    file.close();
    Look const seen = look({"log", path});
    EXPECT_EQ(seen.result, Inspector::Result::Damaged);
    EXPECT_EQ(seen.text.count("/made"), 1) << seen.text.toStdString();
    EXPECT_TRUE(seen.text.contains("torn or damaged")) << seen.text.toStdString();
}

TEST(Inspector, RefusesWordsThatAskForNothing) {
    SampleRepository sample;
    for (QStringList const& words :
         {QStringList{}, QStringList{"nonsense"}, QStringList{"node"}, QStringList{"node", "x"},
          QStringList{"node", "1", "2"}, QStringList{"queue", "other"}, QStringList{"pool", "1"}})
        EXPECT_EQ(look(words).result, Inspector::Result::Usage) << words.join(u' ').toStdString();
    EXPECT_EQ(look({"node", "0x7fffffffffffffff"}).result, Inspector::Result::Damaged);
    EXPECT_EQ(look({"id", "0xffffffffffffffff"}).result, Inspector::Result::Damaged);
}

TEST(Inspector, SeesNodesBehindADamagedHeader) {
    SampleRepository sample;
    sample.make("/hello", "x");
    sample.close();
    Testing::damage(sample.path("stores/0000000000000001/files"), 0, QByteArray(64, '\xff'));
    Look const header = look({"headers"});
    EXPECT_EQ(header.result, Inspector::Result::Damaged);
    EXPECT_TRUE(header.text.contains("has no sound header"));
    Look const node = look({"node", "2"});
    EXPECT_EQ(node.result, Inspector::Result::Done) << node.text.toStdString();
    EXPECT_TRUE(node.text.contains("node 2: type "));
}

} // namespace
} // namespace Morva
