#include "replication/common/log/SecurityText.h"

#include "base/values/LittleEndian.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <optional>
#include <span>
#include <string_view>

namespace Replication {

namespace {

using Bytes = std::span<std::uint8_t const>;
using Morva::loadLittle;

// SID: revision, count of sub-authorities, authority (6 bytes, big-endian), the sub-authorities.
constexpr std::size_t sidHeadSize = 8;
constexpr std::size_t maximumSubAuthorities = 15;

// Descriptor: revision, reserved, control (2), then the offsets of owner, group, SACL and DACL.
constexpr std::size_t descriptorHeadSize = 20;
constexpr std::size_t controlAt = 2;
constexpr std::size_t ownerAt = 4;
constexpr std::size_t groupAt = 8;
constexpr std::size_t saclAt = 12;
constexpr std::size_t daclAt = 16;

// ACL: revision, reserved, size (2), count (2), reserved (2). ACE: type, flags, size (2), mask.
constexpr std::size_t aclHeadSize = 8;
constexpr std::size_t aceHeadSize = 8;
constexpr std::size_t guidSize = 16;

enum Control : std::uint16_t {
    daclPresent = 0x0004,
    saclPresent = 0x0010,
    daclAutoInheritRequired = 0x0100,
    saclAutoInheritRequired = 0x0200,
    daclAutoInherited = 0x0400,
    saclAutoInherited = 0x0800,
    daclProtected = 0x1000,
    saclProtected = 0x2000,
    selfRelative = 0x8000
};

struct Code {
    std::uint32_t value;
    char const* text;
};

constexpr Code aceFlags[] = {{0x01, "OI"}, {0x02, "CI"}, {0x04, "NP"}, {0x08, "IO"},
                             {0x10, "ID"}, {0x20, "CR"}, {0x40, "SA"}, {0x80, "FA"}};
constexpr Code wholeRights[] = {{0x1F01FF, "FA"}, {0x120089, "FR"}, {0x120116, "FW"},
                                {0x1200A0, "FX"}, {0xF003F, "KA"},  {0x20019, "KR"},
                                {0x20006, "KW"}};
constexpr Code rights[] = {{0x00000001, "CC"}, {0x00000002, "DC"}, {0x00000004, "LC"},
                           {0x00000008, "SW"}, {0x00000010, "RP"}, {0x00000020, "WP"},
                           {0x00000040, "DT"}, {0x00000080, "LO"}, {0x00000100, "CR"},
                           {0x00010000, "SD"}, {0x00020000, "RC"}, {0x00040000, "WD"},
                           {0x00080000, "WO"}, {0x10000000, "GA"}, {0x20000000, "GX"},
                           {0x40000000, "GW"}, {0x80000000, "GR"}};
constexpr Code labelRights[] = {{0x1, "NW"}, {0x2, "NR"}, {0x4, "NX"}};

enum class AceShape { Plain, Object, Callback, CallbackObject };
struct AceType {
    std::uint8_t type;
    char const* text;
    AceShape shape;
};
constexpr std::uint8_t mandatoryLabel = 0x11;
constexpr AceType aceTypes[] = {{0x00, "A", AceShape::Plain},
                                {0x01, "D", AceShape::Plain},
                                {0x02, "AU", AceShape::Plain},
                                {0x03, "AL", AceShape::Plain},
                                {0x05, "OA", AceShape::Object},
                                {0x06, "OD", AceShape::Object},
                                {0x07, "OU", AceShape::Object},
                                {0x08, "OL", AceShape::Object},
                                {0x09, "XA", AceShape::Callback},
                                {0x0A, "XD", AceShape::Callback},
                                {0x0B, "ZA", AceShape::CallbackObject},
                                {0x0D, "XU", AceShape::Callback},
                                {mandatoryLabel, "ML", AceShape::Plain},
                                {0x12, "RA", AceShape::Callback},
                                {0x13, "SP", AceShape::Plain},
                                {0x14, "TL", AceShape::Plain},
                                {0x15, "FL", AceShape::Callback}};

struct KnownSid {
    std::string_view sid;
    char const* text;
};
constexpr KnownSid knownSids[] = {{"S-1-1-0", "WD"},
                                  {"S-1-3-0", "CO"},
                                  {"S-1-3-1", "CG"},
                                  {"S-1-3-4", "OW"},
                                  {"S-1-5-2", "NU"},
                                  {"S-1-5-4", "IU"},
                                  {"S-1-5-6", "SU"},
                                  {"S-1-5-7", "AN"},
                                  {"S-1-5-9", "ED"},
                                  {"S-1-5-10", "PS"},
                                  {"S-1-5-11", "AU"},
                                  {"S-1-5-12", "RC"},
                                  {"S-1-5-18", "SY"},
                                  {"S-1-5-19", "LS"},
                                  {"S-1-5-20", "NS"},
                                  {"S-1-5-33", "WR"},
                                  {"S-1-5-32-544", "BA"},
                                  {"S-1-5-32-545", "BU"},
                                  {"S-1-5-32-546", "BG"},
                                  {"S-1-5-32-547", "PU"},
                                  {"S-1-5-32-548", "AO"},
                                  {"S-1-5-32-549", "SO"},
                                  {"S-1-5-32-550", "PO"},
                                  {"S-1-5-32-551", "BO"},
                                  {"S-1-5-32-552", "RE"},
                                  {"S-1-5-32-554", "RU"},
                                  {"S-1-5-32-555", "RD"},
                                  {"S-1-5-32-556", "NO"},
                                  {"S-1-5-32-558", "MU"},
                                  {"S-1-5-32-559", "LU"},
                                  {"S-1-5-32-568", "IS"},
                                  {"S-1-5-32-569", "CY"},
                                  {"S-1-5-32-573", "ER"},
                                  {"S-1-5-32-574", "CD"},
                                  {"S-1-5-32-575", "RA"},
                                  {"S-1-5-32-576", "ES"},
                                  {"S-1-5-32-577", "MS"},
                                  {"S-1-5-32-578", "HA"},
                                  {"S-1-5-32-579", "AA"},
                                  {"S-1-5-32-580", "RM"},
                                  {"S-1-5-84-0-0-0-0-0", "UD"},
                                  {"S-1-15-2-1", "AC"},
                                  {"S-1-16-4096", "LW"},
                                  {"S-1-16-8192", "ME"},
                                  {"S-1-16-8448", "MP"},
                                  {"S-1-16-12288", "HI"},
                                  {"S-1-16-16384", "SI"},
                                  {"S-1-18-1", "AS"},
                                  {"S-1-18-2", "SS"}};

std::string hexText(std::uint64_t value, int digits = 0) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%0*llx", digits, static_cast<unsigned long long>(value));
    return text;
}

/// The string form of the SID at the start of `bytes`; `size` becomes its length.
std::optional<std::string> readSid(Bytes bytes, std::size_t& size) {
    if (bytes.size() < sidHeadSize || bytes[0] != 1 || bytes[1] > maximumSubAuthorities)
        return {};
    size = sidHeadSize + std::size_t{bytes[1]} * sizeof(std::uint32_t);
    if (bytes.size() < size)
        return {};
    std::uint64_t authority = 0;
    for (std::size_t i = 2; i < sidHeadSize; ++i)
        authority = authority << 8 | bytes[i];
    // [MS-DTYP]: an authority of 2^32 or more is written with twelve hexadecimal digits.
    std::string text = "S-1-";
    text += authority >> 32 ? hexText(authority, 12) : std::to_string(authority);
    for (std::size_t at = sidHeadSize; at < size; at += sizeof(std::uint32_t))
        text += '-' + std::to_string(loadLittle<std::uint32_t>(bytes.data() + at));
    return text;
}

std::optional<std::string> shortSid(Bytes bytes, std::size_t& size) {
    std::optional<std::string> text = readSid(bytes, size);
    if (text)
        for (KnownSid const& known : knownSids)
            if (known.sid == *text)
                return known.text;
    return text;
}

/// All bits as codes, or nothing when a bit has none.
std::optional<std::string> codesOf(std::uint32_t mask, std::span<Code const> codes) {
    std::string text;
    for (Code const& code : codes)
        if (mask & code.value) {
            text += code.text;
            mask &= ~code.value;
        }
    if (mask)
        return {};
    return text;
}

std::string rightsText(std::uint8_t aceType, std::uint32_t mask) {
    if (aceType == mandatoryLabel)
        return codesOf(mask, labelRights).value_or(hexText(mask));
    for (Code const& whole : wholeRights)
        if (whole.value == mask)
            return whole.text;
    return codesOf(mask, rights).value_or(hexText(mask));
}

std::string guidText(std::uint8_t const* guid) {
    char text[40];
    std::snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                  loadLittle<std::uint32_t>(guid), loadLittle<std::uint16_t>(guid + 4),
                  loadLittle<std::uint16_t>(guid + 6), guid[8], guid[9], guid[10], guid[11],
                  guid[12], guid[13], guid[14], guid[15]);
    return text;
}

/// The two identifiers of an object entry at the start of `rest`, which moves behind them.
std::optional<std::string> objectText(Bytes& rest) {
    constexpr std::uint32_t hasObject = 1;
    constexpr std::uint32_t hasInherited = 2;
    if (rest.size() < sizeof(std::uint32_t))
        return {};
    auto const flags = loadLittle<std::uint32_t>(rest.data());
    rest = rest.subspan(sizeof flags);
    std::string text;
    for (std::uint32_t const flag : {hasObject, hasInherited}) {
        text += ';';
        if (!(flags & flag))
            continue;
        if (rest.size() < guidSize)
            return {};
        text += guidText(rest.data());
        rest = rest.subspan(guidSize);
    }
    return text;
}

std::optional<std::string> aceText(Bytes ace) {
    auto const* const type =
        std::find_if(std::begin(aceTypes), std::end(aceTypes),
                     [&](AceType const& known) { return known.type == ace[0]; });
    if (type == std::end(aceTypes))
        return {};
    std::string text = std::string("(") + type->text + ';' + *codesOf(ace[1], aceFlags) + ';' +
                       rightsText(ace[0], loadLittle<std::uint32_t>(ace.data() + 4));
    Bytes rest = ace.subspan(aceHeadSize);
    if (type->shape == AceShape::Object || type->shape == AceShape::CallbackObject) {
        std::optional<std::string> const object = objectText(rest);
        if (!object)
            return {};
        text += *object;
    } else {
        text += ";;";
    }
    std::size_t sidSize = 0;
    std::optional<std::string> const sid = shortSid(rest, sidSize);
    if (!sid)
        return {};
    text += ';' + *sid;
    rest = rest.subspan(sidSize);
    if ((type->shape == AceShape::Callback || type->shape == AceShape::CallbackObject) &&
        !rest.empty()) {
        text += ";#";
        for (std::uint8_t const byte : rest) {
            constexpr char digits[] = "0123456789abcdef";
            text += digits[byte >> 4];
            text += digits[byte & 15];
        }
    }
    return text + ')';
}

std::optional<std::string> aclText(Bytes bytes) {
    if (bytes.size() < aclHeadSize)
        return {};
    std::size_t const size = loadLittle<std::uint16_t>(bytes.data() + 2);
    std::size_t const count = loadLittle<std::uint16_t>(bytes.data() + 4);
    if (size < aclHeadSize || size > bytes.size())
        return {};
    Bytes rest = bytes.subspan(aclHeadSize, size - aclHeadSize);
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        if (rest.size() < aceHeadSize)
            return {};
        std::size_t const aceSize = loadLittle<std::uint16_t>(rest.data() + 2);
        if (aceSize < aceHeadSize || aceSize > rest.size())
            return {};
        std::optional<std::string> const ace = aceText(rest.first(aceSize));
        if (!ace)
            return {};
        text += *ace;
        rest = rest.subspan(aceSize);
    }
    return text;
}

/// An optional part of a descriptor, told by an offset of its head. False when it is damaged.
bool addSid(std::string& text, char const* label, Bytes descriptor, std::size_t offsetAt) {
    std::size_t const offset = loadLittle<std::uint32_t>(descriptor.data() + offsetAt);
    if (offset == 0)
        return true;
    if (offset < descriptorHeadSize || offset > descriptor.size())
        return false;
    std::size_t size = 0;
    std::optional<std::string> const sid = shortSid(descriptor.subspan(offset), size);
    if (!sid)
        return false;
    text += label + *sid;
    return true;
}

bool addAcl(std::string& text, char const* label, Bytes descriptor, std::size_t offsetAt,
            std::string const& flags) {
    std::size_t const offset = loadLittle<std::uint32_t>(descriptor.data() + offsetAt);
    text += label + flags;
    if (offset == 0) {
        text += "NO_ACCESS_CONTROL";
        return true;
    }
    if (offset < descriptorHeadSize || offset > descriptor.size())
        return false;
    std::optional<std::string> const acl = aclText(descriptor.subspan(offset));
    if (!acl)
        return false;
    text += *acl;
    return true;
}

std::string aclFlags(std::uint16_t control, std::uint16_t isProtected, std::uint16_t required,
                     std::uint16_t inherited) {
    return std::string(control & isProtected ? "P" : "") + (control & required ? "AR" : "") +
           (control & inherited ? "AI" : "");
}

} // namespace

std::string sidText(Morva::Extent const& sid) {
    if (sid.size == 0)
        return {};
    std::size_t size = 0;
    return readSid({sid.bytes(), sid.size}, size).value_or("invalid SID");
}

std::string securityDescriptorText(Morva::Extent const& descriptor) {
    if (descriptor.size == 0)
        return {};
    constexpr char const* invalid = "invalid security descriptor";
    Bytes const bytes(descriptor.bytes(), descriptor.size);
    if (bytes.size() < descriptorHeadSize || bytes[0] != 1)
        return invalid;
    auto const control = loadLittle<std::uint16_t>(bytes.data() + controlAt);
    if (!(control & selfRelative))
        return invalid;
    std::string text;
    if (!addSid(text, "O:", bytes, ownerAt) || !addSid(text, "G:", bytes, groupAt))
        return invalid;
    if (control & daclPresent &&
        !addAcl(text, "D:", bytes, daclAt,
                aclFlags(control, daclProtected, daclAutoInheritRequired, daclAutoInherited)))
        return invalid;
    if (control & saclPresent &&
        !addAcl(text, "S:", bytes, saclAt,
                aclFlags(control, saclProtected, saclAutoInheritRequired, saclAutoInherited)))
        return invalid;
    return text;
}

} // namespace Replication
