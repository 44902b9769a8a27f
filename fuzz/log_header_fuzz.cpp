// The outer header of a log: what is received can be sent, and comes back the same.

#include "fuzz/Input.h"
#include "replication/common/log/LogHeader.h"

#include <QByteArray>

using Morva::Extent;
using Morva::Fuzzing::require;
using Replication::LogHeader;
using Replication::logIo;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static LogHeader header; // used again, as a receiver does
    Extent source(data, static_cast<std::uint32_t>(size));
    if (!header.receive(logIo(source)))
        return 0;
    auto const type = header.type();
    auto const ids = header.ruleIds();
    auto const name = type == LogHeader::Log ? header.source() : header.name();
    auto const sequence = header.sequenceNumber();
    auto const body = header.bodySize();
    QByteArray sent;
    header.send(sent);
    Extent again(sent);
    LogHeader second;
    require(second.receive(logIo(again)), "a sent header is received");
    require(second.type() == type, "type");
    require((type == LogHeader::Log ? second.source() : second.name()) == name, "text");
    if (type == LogHeader::Log)
        require(second.ruleIds() == ids && second.sequenceNumber() == sequence &&
                    second.bodySize() == body,
                "values");
    return 0;
}
