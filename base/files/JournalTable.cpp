#include "base/files/JournalTable.h"

#include "base/values/PosixText.h"

#include <utility>

namespace Morva {

using Type = JournalRecord::Type;

QByteArray JournalTable::relativeName(QString const& name, QString const& base) {
    return encodePosixText(name.startsWith(base + u'/') ? name.mid(base.size() + 1) : name);
}

QString JournalTable::absoluteName(QByteArray const& name, QString const& base) {
    QString const text = decodePosixText(name);
    return text.startsWith(u'/') ? text : base + u'/' + text;
}

QByteArray JournalTable::encode(QString const& base) const {
    QByteArray bytes;
    JournalRecord{Type::Checkpoint, {}, {}, {sequence, time}}.appendTo(bytes);
    if (format > 1)
        JournalRecord{Type::Format, {}, {}, {format, converted}}.appendTo(bytes);
    for (std::uint64_t i = 0; i < files.size(); ++i) {
        JournalRecord{Type::File,
                      relativeName(files[i].name, base),
                      files[i].sums,
                      {files[i].length, files[i].id}}
            .appendTo(bytes);
        for (GuardedContent::Run const& run : files[i].runs)
            JournalRecord{Type::Pages, {}, {}, {i, run.page, run.slot, run.count}}.appendTo(bytes);
    }
    for (QString const& name : hidden)
        JournalRecord{Type::Hidden, relativeName(name, base), {}, {}}.appendTo(bytes);
    JournalRecord{Type::End, {}, {}, {applied}}.appendTo(bytes);
    return bytes;
}

std::optional<JournalTable> JournalTable::decode(QByteArray const& bytes, QString const& base) {
    qsizetype position = 0;
    auto record = JournalRecord::take(bytes, position);
    if (!record || record->type != Type::Checkpoint)
        return std::nullopt;
    JournalTable table;
    table.sequence = record->numbers[0];
    table.time = record->numbers[1];
    table.format = 1;
    bool ended = false, second = true;
    while ((record = JournalRecord::take(bytes, position))) {
        auto const& numbers = record->numbers;
        bool const isSecond = std::exchange(second, false);
        switch (record->type) {
        case Type::File:
            table.files.push_back(
                {absoluteName(record->name, base), numbers[0], {}, numbers[1], record->second});
            break;
        case Type::Format:
            if (!isSecond || numbers[0] < 2)
                return std::nullopt;
            table.format = numbers[0];
            table.converted = numbers[1] != 0;
            if (table.format > newestFormat)
                return table;
            break;
        case Type::Pages:
            if (ended || numbers[0] >= table.files.size())
                return std::nullopt;
            table.files[numbers[0]].runs.push_back({numbers[1], numbers[2], numbers[3]});
            break;
        case Type::Hidden:
            table.hidden.append(absoluteName(record->name, base));
            break;
        case Type::End:
            ended = true;
            table.applied = numbers[0] != 0;
            break;
        case Type::Applied:
            table.applied = true;
            break;
        case Type::Created:
        case Type::Removed:
        case Type::Renamed:
            table.changes.push_back(*record);
            break;
        case Type::TakenBack:
            if (table.changes.empty())
                return std::nullopt;
            table.changes.pop_back();
            break;
        default:
            return std::nullopt;
        }
    }
    table.size = static_cast<std::uint64_t>(position);
    return ended ? std::optional(std::move(table)) : std::nullopt;
}

} // namespace Morva
