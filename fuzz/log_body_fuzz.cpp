// The body of a log: every value can be read and printed, in whole and in two steps; added rules
// leave the rest as it was.

#include "fuzz/Input.h"
#include "replication/common/log/LogEntry.h"

#include <vector>

using Morva::Extent;
using Morva::Fuzzing::require;
using Replication::LogDecode;
using Replication::LogEntry;
using Replication::LogField;
using Replication::logIo;

namespace {

std::size_t touch(std::string_view bytes) {
    std::size_t sum = 0;
    for (char const byte : bytes)
        sum += static_cast<unsigned char>(byte);
    return sum;
}

/// Reads all that a log shows.
std::size_t readAll(LogEntry const& log) {
    std::size_t sum = touch(log.process()) + log.rules().size() + log.error() + log.flags();
    for (std::uint32_t i = 0; i <= static_cast<std::uint32_t>(LogField::Count); ++i) {
        auto const field = static_cast<LogField>(i);
        if (field == LogField::Count)
            break;
        auto const range = log.bytes(field);
        sum += touch(log.text(field)) + log.number(field) + log.wide(field) +
               touch({static_cast<char const*>(range.data), range.size});
    }
    auto const path = log.path();
    require(path.filenameOffset <= path.text.size() && path.streamOffset <= path.text.size() &&
                path.casePreservedStreamOffset <= path.casePreserved.size(),
            "offsets of a path lie in its text");
    sum += touch(path.text) + touch(path.casePreserved) + touch(log.fileText());
    return sum + log.toText().size() + log.headerText().size();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static LogEntry log; // used again, as a receiver does
    Extent source(data, static_cast<std::uint32_t>(size));
    auto const whole = log.receive(logIo(source), static_cast<std::uint32_t>(size));
    auto sum = readAll(log);

    static LogEntry stepped;
    Extent second(data, static_cast<std::uint32_t>(size));
    auto const header =
        stepped.receive(logIo(second), static_cast<std::uint32_t>(size), LogDecode::HeaderOnly);
    if (header) {
        sum += readAll(stepped);
        require(stepped.decode(LogDecode::BodyOnly) == whole, "two steps decode as one does");
        sum += readAll(stepped);
    }
    if (!whole)
        return static_cast<int>(sum & 0);
    require(header, "a whole log has a common part");

    auto const rules = log.rules().size();
    auto const type = log.type();
    auto const path = std::string(log.fileText());
    std::vector<std::uint32_t> const added{1, 0xFFFFFFFF};
    if (log.addRules(added)) {
        require(log.rules().size() == rules + 2 && log.rules().back() == 0xFFFFFFFF, "rules");
        require(log.type() == type && log.fileText() == path, "the rest stays");
        sum += readAll(log);
        auto body = log.body().toByteArray();
        Extent again(body);
        LogEntry third;
        require(third.receive(logIo(again), static_cast<std::uint32_t>(body.size())),
                "a log with added rules is received");
        require(third.toText() == log.toText(), "and is the same");
    }
    return static_cast<int>(sum & 0);
}
