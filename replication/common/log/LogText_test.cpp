#include "replication/common/log/LogBuilder.h"
#include "replication/common/log/SecurityText.h"

#include <gtest/gtest.h>

#include <cstring>

namespace Replication {
namespace {

std::string textOf(LogBuilder const& builder) {
    LogEntry log;
    EXPECT_TRUE(log.build(builder));
    return log.toText();
}

std::string secondLine(LogBuilder const& builder) {
    std::string const text = textOf(builder);
    return text.substr(text.find('\n') + 1);
}

TEST(LogText, FirstLineHoldsTheCommonPart) {
    LogBuilder builder;
    std::uint32_t const rules[] = {1, 23456};
    builder.rules(rules);
    builder.process("cp");
    builder.ruleSet(4);
    builder.begin(LogType::Close, 0x100000002).flags(0x12).time(3723).shc(7);
    builder.number(LogField::FileId, 9);
    EXPECT_EQ(textOf(builder),
              "SEQ:0x0000000100000002 RULESET:4 RULES=0001,23456 PKT:100 FLAGS:0x0012 "
              "PROC:'cp       ' TIME:01:02:03\nCLOSE   :: cp SHC:7 FILEID:9");
    std::vector<std::uint32_t> const many(1000, 1);
    builder.rules(many);
    std::string const text = textOf(builder);
    std::size_t const at = text.find("RULES=") + 6;
    EXPECT_EQ(text.find(" PKT:") - at, 511U);
    builder.rules({});
    EXPECT_NE(textOf(builder).find("RULES=None "), std::string::npos);
}

TEST(LogText, SecondLinesKeepTheirOddities) {
    LogBuilder builder;
    builder.process("p");
    builder.begin(LogType::PosixSetEa, 1)
        .text(LogField::File, "/f")
        .text(LogField::EaName, "user.a");
    EXPECT_EQ(secondLine(builder), "SETEA   :: p SHC:0 FILE:'/f' EANAME'user.a' FLAGS:0x0000");
    builder.begin(LogType::PosixMkdir, 1).text(LogField::File, "/d").number(LogField::Mode, 040755);
    EXPECT_EQ(secondLine(builder), "POSIX MKDIR:: p SHC:0 FILE:'/d' MODE:040755 UID:000 GID::000");
    builder.begin(LogType::PosixUnlink, 1).text(LogField::File, "a\nSEQ:\x1b");
    EXPECT_EQ(secondLine(builder), "POSIX UNLINK:: p SHC:0 FILE:'a\\x0aSEQ:\\x1b'");
    builder.begin(LogType::WinReopen, 1);
    EXPECT_EQ(textOf(builder).find('\n'), std::string::npos);
    builder.begin(static_cast<LogType>(77), 1);
    EXPECT_EQ(secondLine(builder), "HEADER ONLY:: p SHC:0 MESSAGE:77");
}

TEST(LogText, CreateShowsItsDescriptorAndUser) {
    LogBuilder builder;
    builder.process("p");
    std::uint8_t const sid[] = {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0};
    std::uint8_t const junk[] = {9, 9, 9};
    builder.begin(LogType::WinCreate, 1)
        .path(LogField::File, {.text = "C:\\A"})
        .text(LogField::SecondName, "A~1")
        .bytes(LogField::Security, {junk, sizeof junk})
        .bytes(LogField::User, {sid, sizeof sid});
    EXPECT_EQ(secondLine(builder),
              "WIN CREATE:: p SHC:0 FILEID:0 FILE:'C:\\A' (A~1) ORIGTIME:0 EXISTS:0 "
              "SEC:'invalid security descriptor' SECLEN:3 ATTR:0x0 OPT:0x0 USER:'S-1-5-18'");
}

using Bytes = std::vector<std::uint8_t>;

Bytes sid(std::uint64_t authority, std::vector<std::uint32_t> const& parts) {
    Bytes bytes = {1, static_cast<std::uint8_t>(parts.size())};
    for (int shift = 40; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<std::uint8_t>(authority >> shift));
    for (std::uint32_t const part : parts)
        for (int shift = 0; shift < 32; shift += 8)
            bytes.push_back(static_cast<std::uint8_t>(part >> shift));
    return bytes;
}

void put(Bytes& bytes, std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i)
        bytes.push_back(static_cast<std::uint8_t>(value >> 8 * i));
}

Bytes ace(std::uint8_t type, std::uint8_t flags, std::uint32_t mask, Bytes const& behindMask) {
    Bytes bytes = {type, flags};
    put(bytes, 8 + behindMask.size(), 2);
    put(bytes, mask, 4);
    bytes.insert(bytes.end(), behindMask.begin(), behindMask.end());
    return bytes;
}

Bytes acl(std::vector<Bytes> const& aces) {
    Bytes list;
    for (Bytes const& one : aces)
        list.insert(list.end(), one.begin(), one.end());
    Bytes bytes = {2, 0};
    put(bytes, 8 + list.size(), 2);
    put(bytes, aces.size(), 2);
    put(bytes, 0, 2);
    bytes.insert(bytes.end(), list.begin(), list.end());
    return bytes;
}

/// Owner, group, SACL, DACL; an empty part gets offset 0.
Bytes descriptor(std::uint16_t control, std::vector<Bytes> const& parts) {
    Bytes bytes = {1, 0};
    put(bytes, control, 2);
    std::size_t offset = 20;
    for (Bytes const& part : parts) {
        put(bytes, part.empty() ? 0 : offset, 4);
        offset += part.size();
    }
    for (Bytes const& part : parts)
        bytes.insert(bytes.end(), part.begin(), part.end());
    return bytes;
}

std::string sddl(Bytes const& bytes) {
    return securityDescriptorText(
        {static_cast<void const*>(bytes.data()), static_cast<std::uint32_t>(bytes.size())});
}

Bytes const everyone = sid(1, {0});
Bytes const system = sid(5, {18});
Bytes const administrators = sid(5, {32, 544});
Bytes const domainUser = sid(5, {21, 1, 2, 3, 1001});

TEST(SecurityText, Sids) {
    auto const text = [](Bytes const& bytes) {
        return sidText(
            {static_cast<void const*>(bytes.data()), static_cast<std::uint32_t>(bytes.size())});
    };
    EXPECT_EQ(text(everyone), "S-1-1-0");
    EXPECT_EQ(text(domainUser), "S-1-5-21-1-2-3-1001");
    EXPECT_EQ(text(sid(0x123456789ABC, {4294967295U})), "S-1-0x123456789abc-4294967295");
    EXPECT_EQ(text(sid(5, {})), "S-1-5");
    EXPECT_EQ(text({}), "");
    for (std::size_t size = 1; size < domainUser.size(); ++size)
        EXPECT_EQ(text({domainUser.begin(), domainUser.begin() + static_cast<long>(size)}),
                  "invalid SID");
    Bytes const tooMany = sid(5, std::vector<std::uint32_t>(16, 1));
    EXPECT_EQ(text(tooMany), "invalid SID");
}

TEST(SecurityText, Descriptors) {
    Bytes const dacl = acl({ace(0, 3, 0x1F01FF, administrators), ace(1, 0x10, 0x1200A9, everyone),
                            ace(0, 0x0B, 0xE0010000, sid(5, {11}))});
    Bytes const sacl = acl({ace(0x11, 0, 1, sid(16, {4096})), ace(2, 0xC0, 0x100116, everyone)});
    EXPECT_EQ(sddl(descriptor(0x8014 | 0x1400, {administrators, system, sacl, dacl})),
              "O:BAG:SYD:PAI(A;OICI;FA;;;BA)(D;ID;0x1200a9;;;WD)(A;OICIIO;SDGXGWGR;;;AU)"
              "S:(ML;;NW;;;LW)(AU;SAFA;0x100116;;;WD)");
    EXPECT_EQ(sddl(descriptor(0x8000, {domainUser, {}, {}, {}})), "O:S-1-5-21-1-2-3-1001");
    EXPECT_EQ(sddl(descriptor(0x8004, {{}, {}, {}, {}})), "D:NO_ACCESS_CONTROL");
    EXPECT_EQ(sddl(descriptor(0x8004, {{}, {}, {}, acl({})})), "D:");
    EXPECT_EQ(sddl({}), "");
}

TEST(SecurityText, ObjectAndConditionalEntries) {
    Bytes object;
    put(object, 1, 4);
    for (std::uint8_t i = 0; i < 16; ++i)
        object.push_back(i);
    object.insert(object.end(), system.begin(), system.end());
    Bytes conditional = everyone;
    for (char const byte : {'a', 'r', 't', 'x'})
        conditional.push_back(static_cast<std::uint8_t>(byte));
    EXPECT_EQ(sddl(descriptor(0x8004, {{}, {}, {}, acl({ace(5, 0, 0x100, object)})})),
              "D:(OA;;CR;03020100-0504-0706-0809-0a0b0c0d0e0f;;SY)");
    EXPECT_EQ(sddl(descriptor(0x8004, {{}, {}, {}, acl({ace(9, 0, 0x1200A0, conditional)})})),
              "D:(XA;;FX;;;WD;#61727478)");
}

TEST(SecurityText, DamagedDescriptorsAreInvalid) {
    Bytes const dacl = acl({ace(0, 3, 0x1F01FF, administrators)});
    Bytes const whole = descriptor(0x8004, {administrators, system, {}, dacl});
    ASSERT_EQ(sddl(whole), "O:BAG:SYD:(A;OICI;FA;;;BA)");
    for (std::size_t size = 1; size < whole.size(); ++size) {
        auto const cut = std::make_unique<std::uint8_t[]>(size);
        std::memcpy(cut.get(), whole.data(), size);
        EXPECT_EQ(securityDescriptorText({cut.get(), static_cast<std::uint32_t>(size)}),
                  "invalid security descriptor");
    }
    std::size_t const daclAt = whole.size() - dacl.size();
    struct Damage {
        std::size_t at;
        std::uint8_t value;
    };
    for (Damage const damage : {Damage{0, 2},
                                {3, 0},
                                {7, 0xFF},
                                {4, 1},
                                {16, 19},
                                {daclAt + 2, 7},
                                {daclAt + 2, 200},
                                {daclAt + 4, 2},
                                {daclAt + 8, 0x77},
                                {daclAt + 10, 7},
                                {daclAt + 10, 200},
                                {daclAt + 17, 15}}) {
        SCOPED_TRACE(damage.at);
        Bytes damaged = whole;
        damaged[damage.at] = damage.value;
        EXPECT_EQ(sddl(damaged), "invalid security descriptor");
    }
}

} // namespace
} // namespace Replication
