// The file of a snapshot: looked at, opened to be changed, its entries read and added to.

#include "base/messages/XmlList.h"
#include "fuzz/Input.h"
#include "fuzz/MemoryFiles.h"
#include "replication/repository/store/SnapshotFile.h"
#include "replication/repository/streams/DedupStatistics.h"

using Morva::Fuzzing::MemoryFiles;
using Morva::Fuzzing::require;
using Replication::FileId;
using Replication::Instance;
using Replication::SnapshotFile;

namespace {

std::uint64_t entries(SnapshotFile& file) {
    if (!file.openForRead())
        return 0;
    std::uint64_t count = 0;
    auto const next = [&file] {
        auto const entry = file.readEntry();
        return entry && entry->has_value();
    };
    while (next())
        ++count;
    require(file.rewind().ok(), "rewind");
    for (std::uint64_t again = 0; again < count; ++again)
        require(next(), "the entries are there again");
    (void)file.close();
    return count;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static MemoryFiles files;
    static auto const directory = QStringLiteral("/memory");
    Instance const instance{7};
    auto const name = SnapshotFile::fileName(instance);
    files.clear();
    files.put(name, data, size);
    std::uint64_t seen = 0;
    {
        SnapshotFile looked(directory, instance, SnapshotFile::ReadOnly());
        seen = entries(looked);
        require(files.get(name) == MemoryFiles::Bytes(data, data + size), "a look changes nothing");
    }
    SnapshotFile file(directory, instance);
    if (!file.instance())
        return 0;
    auto const before = entries(file);
    Morva::XmlList list;
    file.statistics(list, {});
    (void)file.dedupStatistics();
    require(file.label().size() <= SnapshotFile::maximumLabel, "label");
    if (file.openForAppend()) {
        require(file.addEntry(FileId{5}, Instance{3}).ok(), "an entry is added");
        (void)file.close();
        require(entries(file) == before + 1, "and read");
    }
    file.setLabel(QStringLiteral("label"));
    file.setRetire();
    require(file.writeHeader().ok(), "the header is written");
    SnapshotFile const again(directory, instance);
    require(again.instance() == instance, "what was written is read");
    return static_cast<int>(seen & 0);
}
