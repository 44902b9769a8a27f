#include "peers/source/UnixSecurity.h"

#include "base/values/LittleEndian.h"

#include <sys/stat.h>

#include <initializer_list>

namespace Replication {

namespace {

constexpr std::uint8_t revision = 1;
constexpr std::uint8_t accessListRevision = 2;
constexpr std::uint8_t worldAuthority = 1;
constexpr std::uint8_t unixAuthority = 22;
constexpr std::uint32_t usersAuthority = 1;
constexpr std::uint32_t groupsAuthority = 2;

constexpr std::uint16_t accessListPresent = 0x0004;
constexpr std::uint16_t accessListProtected = 0x1000;
constexpr std::uint16_t selfRelative = 0x8000;
constexpr std::uint32_t headSize = 20;
constexpr std::uint32_t listHeadSize = 8;
constexpr std::uint32_t entryHeadSize = 8;

// Rights, each with what goes with it, and those that are denied by themselves.
constexpr std::uint32_t genericRead = 0x120089;
constexpr std::uint32_t genericWrite = 0x120116;
constexpr std::uint32_t genericExecute = 0x1200A0;
constexpr std::uint32_t deleteChild = 0x40;
constexpr std::uint32_t onlyRead = 0x9;
constexpr std::uint32_t onlyWrite = 0x16;
constexpr std::uint32_t onlyExecute = 0x20;
/// What everyone has: to see attributes and the descriptor, and to wait.
constexpr std::uint32_t least = 0x120080;
/// What the owner has: to change attributes, the descriptor and the owner, and to delete.
constexpr std::uint32_t owners = 0x1F0180;

enum EntryType : std::uint8_t { Allowed = 0, Denied = 1 };

template <class T> void append(QByteArray& bytes, T value) {
    char little[sizeof(T)];
    Morva::storeLittle(little, value);
    bytes.append(little, sizeof little);
}

QByteArray identifier(std::uint8_t authority, std::initializer_list<std::uint32_t> parts) {
    QByteArray sid;
    append(sid, revision);
    append(sid, static_cast<std::uint8_t>(parts.size()));
    sid.append(5, '\0').append(static_cast<char>(authority)); // six bytes, big-endian
    for (auto const part : parts)
        append(sid, part);
    return sid;
}

void addEntry(QByteArray& list, EntryType type, std::uint32_t mask, QByteArray const& sid) {
    if (mask == 0)
        return;
    append(list, std::uint8_t{type});
    append(list, std::uint8_t{0});
    append(list, static_cast<std::uint16_t>(entryHeadSize + sid.size()));
    append(list, mask);
    list += sid;
}

std::uint32_t allowed(std::uint32_t bits, bool directory) {
    return least | (bits & S_IROTH ? genericRead : 0) |
           (bits & S_IWOTH ? genericWrite | (directory ? deleteChild : 0) : 0) |
           (bits & S_IXOTH ? genericExecute : 0);
}

std::uint32_t denied(std::uint32_t bits, bool directory) {
    return (bits & S_IROTH ? onlyRead : 0) |
           (bits & S_IWOTH ? onlyWrite | (directory ? deleteChild : 0) : 0) |
           (bits & S_IXOTH ? onlyExecute : 0);
}

} // namespace

QByteArray unixUser(std::uint32_t uid) {
    return identifier(unixAuthority, {usersAuthority, uid});
}

QByteArray unixGroup(std::uint32_t gid) {
    return identifier(unixAuthority, {groupsAuthority, gid});
}

QByteArray unixSecurity(std::uint32_t uid, std::uint32_t gid, std::uint32_t mode) {
    auto const directory = S_ISDIR(mode);
    auto const user = unixUser(uid);
    auto const group = unixGroup(gid);
    auto const everyone = identifier(worldAuthority, {0});
    std::uint32_t const ofUser = mode >> 6 & 07;
    std::uint32_t const ofGroup = mode >> 3 & 07;
    std::uint32_t const ofOthers = mode & 07;

    QByteArray entries;
    addEntry(entries, Denied, denied((ofGroup | ofOthers) & ~ofUser, directory), user);
    addEntry(entries, Allowed, allowed(ofUser, directory) | owners, user);
    addEntry(entries, Denied, denied(ofOthers & ~ofGroup, directory), group);
    addEntry(entries, Allowed, allowed(ofGroup, directory), group);
    addEntry(entries, Allowed, allowed(ofOthers, directory), everyone);
    std::uint16_t const count =
        3 + (((ofGroup | ofOthers) & ~ofUser) != 0) + ((ofOthers & ~ofGroup) != 0);

    QByteArray result;
    append(result, revision);
    append(result, std::uint8_t{0});
    append(result,
           static_cast<std::uint16_t>(accessListPresent | accessListProtected | selfRelative));
    append(result, headSize);
    append(result, static_cast<std::uint32_t>(headSize + user.size()));
    append(result, std::uint32_t{0}); // no audit list
    append(result, static_cast<std::uint32_t>(headSize + user.size() + group.size()));
    result += user;
    result += group;
    append(result, accessListRevision);
    append(result, std::uint8_t{0});
    append(result, static_cast<std::uint16_t>(listHeadSize + entries.size()));
    append(result, count);
    append(result, std::uint16_t{0});
    return result + entries;
}

} // namespace Replication
