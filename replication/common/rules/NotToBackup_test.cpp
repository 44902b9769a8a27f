#include "replication/common/rules/NotToBackup.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

namespace Replication {
namespace {

using Morva::XmlList;

struct Entry {
    char const* path;
    bool directory;
    bool liveOnly;
};

NotToBackup make(std::initializer_list<Entry> entries, bool caseSensitive = true) {
    XmlList details;
    for (auto const& entry : entries)
        NotToBackup::addEntry(details, QString::fromUtf8(entry.path), entry.directory,
                              entry.liveOnly);
    return NotToBackup(details, caseSensitive);
}

QStringList parts(char const* path) {
    return QString::fromUtf8(path).split(QLatin1Char('/'), Qt::SkipEmptyParts);
}

/// The three ways to ask for a file must agree.
NotToBackup::OpType fileAnswer(NotToBackup const& rules, char const* path) {
    auto const whole = parts(path);
    auto directory = whole;
    auto const name = directory.takeLast();
    auto const answer = rules.fileOpType(whole);
    EXPECT_EQ(rules.fileOpType(directory, name), answer) << path;
    EXPECT_EQ(rules.expressions(directory).opType(name), answer) << path;
    return answer;
}

TEST(NotToBackup, WithoutEntriesNothingIsExcluded) {
    NotToBackup const none;
    EXPECT_TRUE(none.empty());
    EXPECT_TRUE(make({{"", true, false}, {"/", true, false}}).empty())
        << "the root can't be excluded";
    EXPECT_EQ(none.directoryOpType({}), NotToBackup::eNothing);
    EXPECT_EQ(fileAnswer(none, "/a/b"), NotToBackup::eNothing);
}

TEST(NotToBackup, PatternsMatchWholePathsOrNamesAnywhere) {
    auto const rules = make({{"/etc/secret", false, false},
                             {"/var/*/c?che", true, false},
                             {"*.tmp", false, false},
                             {"node_modules", true, true},
                             {"/\u00e4?z", false, true}});
    struct {
        char const* path;
        bool directory;
        NotToBackup::OpType answer;
    } const cases[] = {
        {"/etc/secret", false, NotToBackup::eExcluded},
        {"/etc/secret", true, NotToBackup::eNothing},
        {"/x/etc/secret", false, NotToBackup::eNothing},
        {"/usr/secret", false, NotToBackup::eNothing},
        {"/etc/secret/below", false, NotToBackup::eNothing},
        {"/var/a/cache", true, NotToBackup::eExcluded},
        {"/var/a/b/cache", true, NotToBackup::eNothing},
        {"/var/a/cche", true, NotToBackup::eNothing},
        {"/var/a/cache/deep/down", true, NotToBackup::eExcluded},
        {"/var/a/cache/deep/file", false, NotToBackup::eExcluded},
        {"/var/a/cache", false, NotToBackup::eNothing},
        {"/a.tmp", false, NotToBackup::eExcluded},
        {"/x/y/.tmp", false, NotToBackup::eExcluded},
        {"/x/y/a.TMP", false, NotToBackup::eNothing},
        {"/a.tmp/file", false, NotToBackup::eNothing},
        {"/p/node_modules", true, NotToBackup::eLiveOnly},
        {"/p/node_modules/q/r", false, NotToBackup::eLiveOnly},
        {"/p/node_modules/q.tmp", false, NotToBackup::eExcluded},
        {"/\u00e4\U0001F600z", false, NotToBackup::eLiveOnly},
        {"", true, NotToBackup::eNothing},
    };
    for (auto const& test : cases) {
        if (test.directory) {
            EXPECT_EQ(rules.directoryOpType(parts(test.path)), test.answer) << test.path;
        } else {
            EXPECT_EQ(fileAnswer(rules, test.path), test.answer) << test.path;
        }
    }
}

TEST(NotToBackup, AnEntryThatHasAPathAloneExcludesFiles) {
    XmlList entry;
    entry.set("Path", "a");
    XmlList details;
    details.set("Entry", entry);
    NotToBackup const rules(details, true);
    EXPECT_EQ(fileAnswer(rules, "/x/a"), NotToBackup::eExcluded);
    EXPECT_EQ(rules.directoryOpType(parts("/a")), NotToBackup::eNothing);
}

TEST(NotToBackup, ExcludedBeatsLiveOnlyInEitherOrder) {
    for (bool const first : {false, true}) {
        auto const rules = make({{"/a", true, first}, {"/a/b", true, !first}});
        EXPECT_EQ(rules.directoryOpType(parts("/a/b/c")), NotToBackup::eExcluded);
        EXPECT_EQ(fileAnswer(rules, "/a/b/c"), NotToBackup::eExcluded);
        EXPECT_EQ(rules.directoryOpType(parts("/a")),
                  first ? NotToBackup::eLiveOnly : NotToBackup::eExcluded);
    }
}

TEST(NotToBackup, CaseAndSeparatorFollowTheFlag) {
    std::initializer_list<Entry> const entries = {{"\\Windows\\*.LOG", false, false}};
    EXPECT_EQ(fileAnswer(make(entries, false), "/wINDOWS/setup.log"), NotToBackup::eExcluded);
    EXPECT_EQ(fileAnswer(make(entries, true), "/Windows/SETUP.LOG"), NotToBackup::eNothing);
    EXPECT_EQ(fileAnswer(make({{"a\\b", false, false}}, true), "/x/a\\b"), NotToBackup::eExcluded)
        << "a backslash is a character of POSIX names";
}

TEST(NotToBackup, UndecodableBytesAreSingleCharacters) {
    QString const name = QStringLiteral("a") + QChar(0xDC80) + QStringLiteral("b");
    XmlList details;
    NotToBackup::addEntry(details, QStringLiteral("a?b"), false, false);
    auto const form = XmlList::fromBinary(details.toBinary());
    ASSERT_TRUE(form);
    EXPECT_EQ(NotToBackup(*form, true).fileOpType({name}), NotToBackup::eExcluded);
    XmlList exact;
    NotToBackup::addEntry(exact, name, false, false);
    EXPECT_EQ(NotToBackup(*XmlList::fromXml(exact.toXml()), true).fileOpType({name}),
              NotToBackup::eExcluded);
}

TEST(NotToBackup, WildcardsMatchAsTheirDefinitionSays) {
    std::function<bool(QStringView, QStringView)> const model = [&](QStringView p, QStringView n) {
        if (p.isEmpty())
            return n.isEmpty();
        if (p[0] == QLatin1Char('*'))
            return model(p.mid(1), n) || (!n.isEmpty() && model(p, n.mid(1)));
        return !n.isEmpty() && (p[0] == QLatin1Char('?') || p[0] == n[0]) &&
               model(p.mid(1), n.mid(1));
    };
    auto const seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    auto const text = [&](char const* letters, std::size_t count, std::size_t least) {
        QString result;
        for (auto n = least + random() % 8; n > 0; --n)
            result.append(QLatin1Char(letters[random() % count]));
        return result;
    };
    int matched = 0;
    for (int round = 0; round < 20000; ++round) {
        auto const pattern = text("ab*?", 4, 1);
        auto const name = text("ab", 2, 1);
        XmlList details;
        NotToBackup::addEntry(details, pattern, false, false);
        bool const expected = model(pattern, name);
        matched += expected ? 1 : 0;
        ASSERT_EQ(NotToBackup(details, true).fileOpType({name}) == NotToBackup::eExcluded, expected)
            << pattern.toStdString() << " " << name.toStdString();
    }
    EXPECT_GT(matched, 1000);
    // Many stars take no more than the product of the lengths.
    XmlList details;
    NotToBackup::addEntry(details, QStringLiteral("*a").repeated(500) + "b", false, false);
    EXPECT_EQ(NotToBackup(details, true).fileOpType({QString(20000, QLatin1Char('a'))}),
              NotToBackup::eNothing);
}

TEST(NotToBackup, CopiesAndExpressionsOutliveTheirOrigin) {
    NotToBackup::Expressions expressions;
    NotToBackup copy;
    {
        auto const rules = make({{"*.o", false, false}});
        expressions = rules.expressions({QStringLiteral("d")});
        copy = rules;
    }
    EXPECT_EQ(expressions.opType(QStringLiteral("x.o")), NotToBackup::eExcluded);
    EXPECT_EQ(copy.fileOpType({QStringLiteral("x.o")}), NotToBackup::eExcluded);
}

} // namespace
} // namespace Replication
