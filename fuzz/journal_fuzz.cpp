// The table of a journal, and the names that changed since.

#include "base/files/JournalTable.h"
#include "fuzz/Input.h"

using Morva::JournalRecord;
using Morva::JournalTable;
using Morva::Fuzzing::Input;
using Morva::Fuzzing::require;

namespace {

/// Checksums would keep a fuzzer from the records, so most inputs are the fields of some.
QByteArray records(Input& input) {
    QByteArray bytes;
    while (input.size() != 0) {
        JournalRecord record;
        record.type = JournalRecord::Type{input.byte() % 12U};
        for (auto& number : record.numbers)
            number = input.byte();
        for (auto* const name : {&record.name, &record.second})
            for (auto left = std::size_t{input.byte()} % 16; left != 0; --left)
                name->append(static_cast<char>(input.byte()));
        record.appendTo(bytes);
    }
    return bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Input input(data, size);
    bool const isRaw = input.byte() % 4 == 0;
    auto const bytes = isRaw ? QByteArray(reinterpret_cast<char const*>(input.data()),
                                          static_cast<qsizetype>(input.size()))
                             : records(input);
    QString const base = QStringLiteral("/root");
    auto const table = JournalTable::decode(bytes, base);
    if (!table)
        return 0;
    require(table->size <= static_cast<std::uint64_t>(bytes.size()), "whole records");
    auto const again = JournalTable::decode(table->encode(base), base);
    require(again && again->applied == table->applied && again->hidden == table->hidden &&
                again->sequence == table->sequence && again->format == table->format &&
                again->converted == table->converted && again->files.size() == table->files.size(),
            "a table comes back");
    for (std::size_t i = 0; again && i < again->files.size(); ++i)
        require(again->files[i].name == table->files[i].name &&
                    again->files[i].length == table->files[i].length &&
                    again->files[i].id == table->files[i].id &&
                    again->files[i].sums == table->files[i].sums &&
                    again->files[i].runs.size() == table->files[i].runs.size(),
                "a file comes back");
    return 0;
}
