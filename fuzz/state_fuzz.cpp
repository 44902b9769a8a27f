// The state file of a target: read whatever it holds, changed, and read again.

#include "fuzz/Input.h"
#include "fuzz/MemoryFiles.h"
#include "replication/common/intake/StateFile.h"

using Morva::RawFile;
using Morva::Fuzzing::MemoryFiles;
using Morva::Fuzzing::require;
using Replication::StateFile;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static MemoryFiles files;
    static auto const name = QStringLiteral("/memory/state-1");
    files.clear();
    files.put(name, data, size);
    StateFile file(name);
    file.readHeader();
    if (!file.valid()) {
        require(file.sequenceNumber() == 0, "an invalid file has no position");
        return 0;
    }
    require(file.target().toUtf8().size() <= 3 * qsizetype{StateFile::maximumTarget}, "target");
    auto const details = file.details();
    require(static_cast<std::size_t>(details.size()) <= size, "details come from the file");
    auto const target = file.target();
    if (!file.open(RawFile::Mode::ReadWrite))
        return 0;
    require(file.sequenceNumber(77, 88) && file.flag(StateFile::resyncFlag, true), "changes");
    StateFile again(name);
    again.readHeader();
    require(again.valid() && again.sequenceNumber() == 77 && again.target() == target &&
                again.details() == details,
            "what was written is read");
    require(file.target(QStringLiteral("other")) && file.details("bytes"), "target and details");
    StateFile third(name);
    third.readHeader();
    require(third.valid() && third.target() == QLatin1String("other") && third.details() == "bytes",
            "both come back");
    return 0;
}
