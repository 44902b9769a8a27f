#include "replication/repository/store/Version.h"

#include "base/trace/Trace.h"

namespace Replication {

void Version::clear() {
    std::uint32_t const type = fileType;
    *this = Version();
    fileType = type;
}

void Version::pack(Morva::PackBuffer& record) const {
    record.append(fileNode.value);
    record.append(link.value);
    record.append(prevFileNode.value);
    record.append(prevLink.value);
    record.append(directory.value);
    record.append(path.join(QLatin1Char('/')));
    record.append(user);
    record.append(process);
    record.append(resync);
    record.append(weak);
    record.append(time);
    record.append(ruleSet);
    record.append(static_cast<std::uint32_t>(rules.size()));
    for (std::uint32_t rule : rules)
        record.append(rule);
}

bool Version::unpack(std::uint32_t form, Morva::UnpackBuffer& record) {
    constexpr std::uint32_t current = 3;
    if (form < 1 || form > current)
        return false;
    clear();
    QString joined;
    std::uint32_t count = 0;
    auto const takeId = [&](std::uint64_t& id, LinkId& number) {
        return record.take(id) && (form < current || record.take(number.value));
    };
    if (!takeId(fileNode.value, link) || !takeId(prevFileNode.value, prevLink) ||
        !record.take(directory.value) || !record.take(joined) || !record.take(user) ||
        !record.take(process) || !record.take(resync) || !record.take(weak) || !record.take(time) ||
        !record.take(ruleSet) || !record.take(count))
        return false;
    path = joined.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    // The count can be damaged: what ends the loop then is the record's end.
    for (; count != 0; --count) {
        std::uint32_t rule = 0;
        if (!record.take(rule))
            return false;
        rules.push_back(rule);
    }
    return true;
}

void Version::print(int traceLevel) const {
    auto const level = static_cast<Morva::TraceLevel>(traceLevel);
    if (!Morva::Trace::enabled(level))
        return;
    Morva::TraceLine(level, __FILE__, __LINE__)
        << "%%% Version FileNode" << fileNode << "Link" << link << "PrevFileNode" << prevFileNode
        << "PrevLink" << prevLink << "Directory" << directory << "Path"
        << path.join(QLatin1Char('/')) << "User" << user << "Process" << process << "Resync"
        << resync << "Weak" << weak << "Time" << time << "FileType" << fileType << "RuleSet"
        << ruleSet << "Rules" << rules.size();
}

} // namespace Replication
