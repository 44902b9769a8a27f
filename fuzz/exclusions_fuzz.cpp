// Details of exclusions as a source sends them, asked about paths.
//
// An input: whether names are case-sensitive, lines of paths up to an empty line, the details as
// XML text. Whatever they say, an answer comes, and all ways to ask for it give the same one.

#include "base/messages/XmlList.h"
#include "fuzz/Input.h"
#include "replication/common/rules/NotToBackup.h"

using Morva::XmlList;
using Morva::XmlListIterator;
using Morva::Fuzzing::require;
using Replication::NotToBackup;

namespace {

constexpr qsizetype maximumPath = 200;
constexpr int maximumEntries = 50;

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
    int entries = 0;
    for (XmlListIterator item(*details); item; ++item)
        ++entries;
    if (entries > maximumEntries)
        return 0;
    auto const again = XmlList::fromBinary(details->toBinary());
    require(again.has_value(), "details come back");
    NotToBackup const rules(*again, caseSensitive);
    require(rules.directoryOpType({}) == NotToBackup::eNothing, "the root stays");
    for (auto const& line : rest.first(end).split('\n')) {
        auto const text = QString::fromUtf8(line).left(maximumPath);
        auto const path = text.split(u'/', Qt::SkipEmptyParts);
        if (path.isEmpty())
            continue;
        auto const directory = path.first(path.size() - 1);
        auto const answer = rules.fileOpType(path);
        require(rules.fileOpType(directory, path.last()) == answer, "file by directory and name");
        require(rules.expressions(directory).opType(path.last()) == answer, "file by expressions");
        // What holds for a directory holds for what is in it.
        auto const above = rules.directoryOpType(directory);
        require(above != NotToBackup::eExcluded ||
                    (answer == above && rules.directoryOpType(path) == above),
                "what is excluded stays so below");
        require(above == NotToBackup::eNothing || answer != NotToBackup::eNothing,
                "and what is live only isn't stored below");
    }
    return 0;
}
