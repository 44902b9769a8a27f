// The text form of a list: what is read can be written, in both forms, and comes back the same.

#include "base/messages/XmlList.h"
#include "fuzz/Input.h"

using Morva::XmlList;
using Morva::Fuzzing::require;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    QByteArray const text(reinterpret_cast<char const*>(data), static_cast<qsizetype>(size));
    QString error;
    auto const list = XmlList::fromXml(text, &error);
    require(list || !error.isEmpty(), "a failure is explained");
    if (!list)
        return 0;
    auto const written = XmlList::fromXml(list->toXml());
    require(written && *written == *list, "text form");
    auto const binary = XmlList::fromBinary(list->toBinary());
    require(binary && *binary == *list, "binary form");
    require(list->clone() == *list, "clone");
    return 0;
}
