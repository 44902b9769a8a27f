#include "base/messages/MsgAddress.h"
#include "base/messages/XmlList.h"

#include <boost/crc.hpp>
#include <gtest/gtest.h>

#include <random>

namespace Morva {
namespace {

using Set = XmlList::SetTypeE;
using Type = XmlList::ValueTypeE;

XmlList sample() {
    XmlList inner;
    inner.set("File", "a", Set::Add);
    inner.set("File", "b", Set::Add);
    XmlList list;
    list.set("Bool", true);
    list.set("Int", std::int32_t(-5));
    list.set("Uint", std::uint32_t(4294967295U));
    list.set("Big", std::uint64_t(18446744073709551615ULL));
    list.set("Text", QStringLiteral("  <a> & \"b\"  "));
    list.set("Host", MachineName(QStringLiteral("alpha"), 7));
    list.set("Raw", QByteArray("\0\1\xFF", 3));
    list.set("Inner", inner);
    list.set("Empty", XmlList());
    list.set("EmptyText", "");
    return list;
}

/// A random tree with every type, and names and strings of any code units.
XmlList randomList(std::mt19937& random, int depth) {
    auto const text = [&] {
        QString result;
        for (auto n = random() % 6; n > 0; --n)
            result.append(QChar(static_cast<char16_t>(random() % 3 ? random() % 256 : random())));
        return result;
    };
    XmlList list;
    for (auto n = random() % 6; n > 0; --n) {
        switch (random() % (depth < 4 ? 8 : 7)) {
        case 0:
            list.set(text(), random() % 2 == 0, Set::Add);
            break;
        case 1:
            list.set(text(), static_cast<std::int32_t>(random()), Set::Add);
            break;
        case 2:
            list.set(text(), static_cast<std::uint32_t>(random()), Set::Add);
            break;
        case 3:
            list.set(text(), std::uint64_t(random()) << (random() % 33), Set::Add);
            break;
        case 4:
            list.set(text(), text(), Set::Add);
            break;
        case 5:
            list.set(text(), MachineName(text(), random() % 3), Set::Add);
            break;
        case 6:
            list.set(text(), text().toUtf8(), Set::Add);
            break;
        default:
            list.set(text(), randomList(random, depth + 1), Set::Add);
            break;
        }
    }
    return list;
}

TEST(XmlList, CopySharesTheTreeAndCloneDoesNot) {
    XmlList list;
    XmlList shared = list;
    shared.set("Inner", XmlList());
    ASSERT_TRUE(list.contains("Inner"));
    XmlList const clone = list.clone();
    list.getXmlList(nullptr, "Inner").set("Deep", 1U);
    EXPECT_TRUE(shared.getXmlList(nullptr, "Inner").contains("Deep"));
    EXPECT_FALSE(clone.getXmlList(nullptr, "Inner").contains("Deep"));
    list.set("Self", list);
    EXPECT_FALSE(list.getXmlList(nullptr, "Self").contains("Self"));
    EXPECT_FALSE(list.toBinary().isEmpty());
}

TEST(XmlList, AddKeepsOrderAndReplaceLeavesOneInThePlaceOfTheFirst) {
    XmlList list;
    list.set("A", "1", Set::Add);
    list.set("B", "2", Set::Add);
    list.set("A", "3", Set::Add);
    QStringList seen;
    for (XmlListIterator item(list, "A"); item; ++item)
        seen << item.getString();
    EXPECT_EQ(seen, QStringList({"1", "3"}));
    list.set("A", 4U);
    seen.clear();
    for (XmlListIterator item(list); item; ++item)
        seen << item.name();
    EXPECT_EQ(seen, QStringList({"A", "B"}));
    EXPECT_EQ(list.getUint32(nullptr, "A"), 4U);
    EXPECT_TRUE(list.remove("A"));
    EXPECT_FALSE(list.remove("A"));
}

TEST(XmlList, GettersTellWhetherTheTypeFits) {
    XmlList const list = sample();
    bool found = false;
    EXPECT_TRUE(list.getBool(&found, "Bool"));
    EXPECT_TRUE(found);
    EXPECT_EQ(list.getString(&found, "Bool"), QString());
    EXPECT_FALSE(found);
    EXPECT_EQ(list.getInt32(nullptr, "Int"), -5);
    EXPECT_EQ(list.getUint32(&found, "Int"), 0U);
    EXPECT_FALSE(found) << "a negative number has no unsigned value";
    EXPECT_EQ(list.getUint64(&found, "Uint"), 4294967295U);
    EXPECT_TRUE(found) << "a number that fits a wider type is found";
    EXPECT_EQ(list.getUint32(&found, "Big"), 0U);
    EXPECT_FALSE(found);
    EXPECT_EQ(list.getUint32(&found, "bool"), 0U) << "names are case-exact";
    EXPECT_FALSE(found);
    EXPECT_EQ(list.get("Missing", 9U), 9U);
    EXPECT_EQ(list.get("Text", "x"), QStringLiteral("  <a> & \"b\"  "));
    EXPECT_EQ(list.get("Bool", "x"), QStringLiteral("x"));
    EXPECT_EQ(static_cast<int>(list.type("Text")), 2);
    EXPECT_EQ(list.type("Missing"), Type::None);
}

TEST(XmlList, BothFormsGiveTheSameListAndEveryCodeUnitBack) {
    XmlList units = sample();
    for (std::uint32_t unit = 0; unit < 0x10000; ++unit)
        units.set("c", QString(QChar(static_cast<char16_t>(unit))), Set::Add);
    units.set("Pair", QStringLiteral("\U0001F600"));
    units.set("Ends", QStringLiteral("a\r\nb\tc\rd\n"));
    auto const seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 300; ++round) {
        XmlList const list = round ? randomList(random, 0) : units;
        QString error;
        auto const text = XmlList::fromXml(list.toXml(), &error);
        ASSERT_TRUE(text) << error.toStdString();
        EXPECT_EQ(*text, list) << round;
        auto const binary = XmlList::fromBinary(list.toBinary());
        ASSERT_TRUE(binary);
        EXPECT_EQ(*binary, list);
    }
}

TEST(XmlList, BinaryFormHasItsGoldenBytes) {
    XmlList list;
    list.set("Ab", 300U);
    EXPECT_EQ(list.toBinary().toHex(), QByteArray("4d584c3107000000"
                                                  "6651111a"
                                                  "0105044162ac02"));
}

TEST(XmlList, TruncatedOrDamagedBinaryIsRefused) {
    QByteArray const whole = sample().toBinary();
    for (qsizetype size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(XmlList::fromBinary(whole.left(size))) << size;
    EXPECT_FALSE(XmlList::fromBinary(whole + '\0'));
    for (qsizetype at = 0; at < whole.size(); ++at) {
        for (int bit = 0; bit < 8; ++bit) {
            QByteArray damaged = whole;
            damaged[at] = static_cast<char>(damaged[at] ^ (1 << bit));
            EXPECT_FALSE(XmlList::fromBinary(damaged)) << at << " " << bit;
        }
    }
}

/// A body with a right frame, so that the reader of the items itself has to refuse it.
QByteArray framed(QByteArray const& body) {
    boost::crc_32_type check;
    check.process_bytes(body.constData(), static_cast<std::size_t>(body.size()));
    QByteArray form("MXL1");
    for (std::uint32_t const word :
         {static_cast<std::uint32_t>(body.size()), static_cast<std::uint32_t>(check.checksum())}) {
        for (int shift = 0; shift < 32; shift += 8)
            form.append(static_cast<char>(word >> shift));
    }
    return form + body;
}

TEST(XmlList, ForgedBinaryBodiesAreRefused) {
    ASSERT_TRUE(XmlList::fromBinary(framed(QByteArray::fromHex("00"))));
    char const* const bodies[] = {
        "",                           // no count
        "01",                         // an item that isn't there
        "ffffffffffffffffff01",       // as many items as a count can tell
        "ffffffffffffffffffff01",     // a count of too many bytes
        "01000000",                   // tag 0
        "01090000",                   // an unknown tag
        "01030002",                   // a bool of 2
        "010500ffffffff7f",           // a number beyond 32 bits
        "0102feffffffffffffffff0100", // a name of nearly all bytes
        "0102ffffffffffffffffff0100", // the same, wide
        "010800ffffffffffffffffff01", // a buffer of nearly all bytes
        "0001",                       // a byte too many
        "010100ffffff7f",             // a nested count
    };
    for (auto const* body : bodies)
        EXPECT_FALSE(XmlList::fromBinary(framed(QByteArray::fromHex(body)))) << body;
}

TEST(XmlList, NestingIsBoundedBothWays) {
    XmlList list;
    list.set("Leaf", true);
    for (int depth = 0; depth < XmlList::maxDepth; ++depth) {
        XmlList outer;
        outer.set("L", list);
        list = outer;
    }
    EXPECT_TRUE(XmlList::fromBinary(list.toBinary()));
    EXPECT_TRUE(XmlList::fromXml(list.toXml()));
    XmlList outer;
    outer.set("L", list);
    EXPECT_TRUE(outer.toBinary().isEmpty());
    EXPECT_TRUE(outer.toXml().isEmpty());

    QByteArray text = "<XmlList>";
    QByteArray body = "\1";
    for (int depth = 0; depth < 100000; ++depth) {
        text += "<Item Name='L' Type='list'>";
        body += QByteArray("\1\0\1", 3);
    }
    QString error;
    EXPECT_FALSE(XmlList::fromXml(text, &error));
    EXPECT_TRUE(error.contains("nested too deep")) << error.toStdString();
    EXPECT_FALSE(XmlList::fromBinary(framed(body)));
}

TEST(XmlList, MalformedTextIsRefusedWithAReason) {
    auto const item = [](char const* inner) {
        return QByteArray("<XmlList>") + inner + "</XmlList>";
    };
    struct {
        QByteArray text;
        char const* reason;
    } const cases[] = {
        {"", "line"},
        {"not xml", "line"},
        {"<Other/>", "not an XmlList"},
        {"<XmlList>", "line"},
        {"<XmlList/><XmlList/>", "line"},
        {item("text"), "text outside"},
        {item("<Entry Name='a' Type='bool'>1</Entry>"), "no Item"},
        {item("<Item Type='bool'>1</Item>"), "without a name"},
        {item("<Item NameUtf16='YQ==' Type='bool'>1</Item>"), "without a name"},
        {item("<Item Name='a'>1</Item>"), "no known type"},
        {item("<Item Name='a' Type='float'>1</Item>"), "no known type"},
        {item("<Item Name='a' Type='bool'>yes</Item>"), "neither"},
        {item("<Item Name='a' Type='uint32'>-1</Item>"), "fit its type"},
        {item("<Item Name='a' Type='uint32'>4294967296</Item>"), "fit its type"},
        {item("<Item Name='a' Type='int32'>2147483648</Item>"), "fit its type"},
        {item("<Item Name='a' Type='uint64'>18446744073709551616</Item>"), "fit its type"},
        {item("<Item Name='a' Type='buffer'>!</Item>"), "not base64"},
        {item("<Item Name='a' Type='machine' Id='x'>m</Item>"), "no number"},
        {item("<Item Name='a' Type='string' Encoding='utf16'>YQ==</Item>"), "bad encoding"},
        {item("<Item Name='a' Type='string'><b/></Item>"), "line"},
        {item("<Item Name='a' Type='string'>&unknown;</Item>"), "line"},
        {"<!DOCTYPE XmlList [<!ENTITY a 'aaaaaaaa'><!ENTITY b '&a;&a;&a;'>]>"
         "<XmlList><Item Name='x' Type='string'>&b;</Item></XmlList>",
         "document type"},
    };
    for (auto const& test : cases) {
        QString error;
        EXPECT_FALSE(XmlList::fromXml(test.text, &error)) << test.text.toStdString();
        EXPECT_TRUE(error.contains(test.reason))
            << test.text.toStdString() << " -> " << error.toStdString();
    }
    QByteArray const whole = sample().toXml().trimmed();
    for (qsizetype size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(XmlList::fromXml(whole.left(size))) << size;
}

TEST(XmlList, HandWrittenTextIsRead) {
    auto const list = XmlList::fromXml("<?xml version='1.0'?>\n<!-- note -->\n<XmlList>\n"
                                       "  <Item Name='n' Type='uint32'> 12 </Item>\n"
                                       "  <Item Name='s' Type='string'>a &lt; &#98;</Item>\n"
                                       "  <Item Name='e' Type='list'/>\n"
                                       "  <Item Name='r' Type='buffer'>AAH\n /</Item>\n"
                                       "</XmlList>\n");
    ASSERT_TRUE(list);
    EXPECT_EQ(list->getUint32(nullptr, "n"), 12U);
    EXPECT_EQ(list->getString(nullptr, "s"), QStringLiteral("a < b"));
    EXPECT_EQ(list->type("e"), Type::List);
    EXPECT_EQ(list->getBuffer(nullptr, "r"), QByteArray("\0\1\xFF", 3));
}

TEST(MsgAddress, RoundTripsThroughAListAndTellsItsParts) {
    MsgRoute route;
    for (auto const* name : {"mid", "far"})
        route.append(MachineName(QString::fromLatin1(name)));
    MsgAddress const address(route, QStringLiteral("Distributor"), QStringLiteral("Distributor"));
    EXPECT_EQ(MsgAddress(address.toXml()), address);
    EXPECT_EQ(qHash(MsgAddress(address.toXml())), qHash(address));
    EXPECT_EQ(address.machine().name(), QStringLiteral("far"));
    EXPECT_EQ(address.id(), 0U);
    EXPECT_EQ(MsgAddress(MsgAddress::WellKnownE::NodeManager).id(), 2U);
    EXPECT_FALSE(MsgAddress(XmlList()));
    MsgAddress cleared = address;
    cleared.clear();
    EXPECT_FALSE(cleared);
    EXPECT_NE(cleared, address);
}

TEST(MsgRoute, ReturnRouteLeadsBackOverTheSameMachines) {
    MsgRoute route;
    for (auto const* name : {"a", "b", "target"})
        route.append(MachineName(QString::fromLatin1(name)));
    MsgRoute const back = route.returnRoute(MachineName(QStringLiteral("source")), 4);
    QStringList names;
    for (auto const& machine : back.machines())
        names << machine.name();
    EXPECT_EQ(names, QStringList({"b", "a", "source"}));
    EXPECT_EQ(back.destination().id(), 4U);
    EXPECT_EQ(MsgRoute().returnRoute(MachineName(QStringLiteral("s"))).machines().size(), 1);
    EXPECT_EQ(MachineName(MachineName(QStringLiteral("m"), 3).toXml()).id(), 3U);
}

} // namespace
} // namespace Morva
