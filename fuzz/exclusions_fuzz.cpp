// Details of exclusions as a source sends them, asked about paths.
//
// An input: whether names are case-sensitive, lines of paths up to an empty line, the details as
// XML text. The answers are compared with those of a plain reading of the same entries.

#include "base/messages/XmlList.h"
#include "fuzz/Input.h"
#include "replication/common/rules/NotToBackup.h"

#include <algorithm>
#include <vector>

using Morva::XmlList;
using Morva::XmlListIterator;
using Morva::Fuzzing::require;
using Replication::NotToBackup;

namespace {

constexpr qsizetype maximumPath = 200;
constexpr std::size_t maximumEntries = 50;

qsizetype unitsAt(QStringView text) {
    return text.size() > 1 && text[0].isHighSurrogate() && text[1].isLowSurrogate() ? 2 : 1;
}

/// By the definition, row by row: work grows with the product of the two lengths.
bool matches(QStringView pattern, QStringView name) {
    std::vector<char> row(static_cast<std::size_t>(name.size()) + 1, 0);
    row[0] = 1;
    for (auto const wanted : pattern) {
        std::vector<char> next(row.size(), 0);
        for (qsizetype i = 0; i <= name.size(); ++i) {
            if (!row[static_cast<std::size_t>(i)])
                continue;
            if (wanted == u'*') {
                for (auto j = i; j <= name.size(); j += j < name.size() ? unitsAt(name.mid(j)) : 1)
                    next[static_cast<std::size_t>(j)] = 1;
            } else if (i < name.size() && wanted == u'?') {
                next[static_cast<std::size_t>(i + unitsAt(name.mid(i)))] = 1;
            } else if (i < name.size() && wanted == name[i]) {
                next[static_cast<std::size_t>(i + 1)] = 1;
            }
        }
        row = std::move(next);
    }
    return row.back() != 0;
}

struct Entry {
    QStringList elements;
    bool anywhere = false;
    bool directory = false;
    bool liveOnly = false;

    [[nodiscard]] bool names(QStringList const& object) const {
        if (anywhere)
            return matches(elements.front(), object.last());
        return std::equal(elements.begin(), elements.end(), object.begin(), object.end(),
                          [](auto const& a, auto const& b) { return matches(a, b); });
    }
};

std::vector<Entry> read(XmlList const& details, bool caseSensitive) {
    std::vector<Entry> result;
    for (XmlListIterator item(details, QStringLiteral("Entry")); item; ++item) {
        auto const list = item.getXmlList();
        auto path = list.getString(nullptr, QStringLiteral("Path"));
        if (!caseSensitive)
            path = path.replace(u'\\', u'/').toCaseFolded();
        Entry entry{path.split(u'/', Qt::SkipEmptyParts), !path.contains(u'/'),
                    list.get(QStringLiteral("Directory"), false),
                    list.get(QStringLiteral("LiveOnly"), false)};
        if (!entry.elements.isEmpty())
            result.push_back(std::move(entry));
    }
    return result;
}

NotToBackup::OpType plain(std::vector<Entry> const& entries, QStringList const& path,
                          bool isDirectory) {
    auto result = NotToBackup::eNothing;
    for (auto const& entry : entries) {
        bool holds = !entry.directory && !isDirectory && !path.isEmpty() && entry.names(path);
        if (entry.directory)
            for (qsizetype depth = 1; depth <= path.size() - !isDirectory; ++depth)
                holds = holds || entry.names(path.first(depth));
        if (holds && !entry.liveOnly)
            return NotToBackup::eExcluded;
        if (holds)
            result = NotToBackup::eLiveOnly;
    }
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Morva::Fuzzing::Input input(data, size);
    bool const caseSensitive = input.byte() % 2 == 0;
    QByteArray const rest(reinterpret_cast<char const*>(input.data()),
                          static_cast<qsizetype>(input.size()));
    auto const end = rest.indexOf("\n\n");
    if (end < 0)
        return 0;
    auto const details = XmlList::fromXml(rest.mid(end + 2));
    if (!details)
        return 0;
    auto const entries = read(*details, caseSensitive);
    if (entries.size() > maximumEntries)
        return 0;
    auto const again = XmlList::fromBinary(details->toBinary());
    require(again.has_value(), "details come back");
    NotToBackup const rules(*again, caseSensitive);
    require(rules.empty() == entries.empty(), "entries without a path don't count");
    require(rules.directoryOpType({}) == NotToBackup::eNothing, "the root stays");
    for (auto const& line : rest.first(end).split('\n')) {
        auto const text = QString::fromUtf8(line).left(maximumPath);
        auto const path = text.split(u'/', Qt::SkipEmptyParts);
        auto asked = path;
        if (!caseSensitive)
            for (auto& part : asked)
                part = part.toCaseFolded();
        require(rules.directoryOpType(path) == plain(entries, asked, true), "directory");
        if (path.isEmpty())
            continue;
        auto const answer = plain(entries, asked, false);
        auto const directory = path.first(path.size() - 1);
        require(rules.fileOpType(path) == answer, "file by path");
        require(rules.fileOpType(directory, path.last()) == answer, "file by directory and name");
        require(rules.expressions(directory).opType(path.last()) == answer, "file by expressions");
    }
    return 0;
}
