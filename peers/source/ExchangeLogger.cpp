#include "peers/source/ExchangeLogger.h"

namespace Replication {

bool ExchangeLogger::createObject(std::string_view sequence, std::string_view path) {
    begin(LogType::ExchangeCreateObject)
        .text(LogField::Sque, sequence)
        .text(LogField::ObjectPath, path);
    return put();
}

bool ExchangeLogger::createStream(std::string_view sequence, std::string_view stream) {
    begin(LogType::ExchangeCreateStream)
        .text(LogField::Sque, sequence)
        .text(LogField::Stream, stream);
    return put();
}

std::uint8_t* ExchangeLogger::beginWrite(std::string_view sequence, std::string_view stream,
                                         std::uint32_t offset, std::uint32_t size) {
    begin(LogType::ExchangeWriteStream)
        .text(LogField::Sque, sequence)
        .text(LogField::Stream, stream)
        .number(LogField::Offset, offset);
    return sink().dataSpace(builder(), size);
}

bool ExchangeLogger::endWrite(std::uint8_t const* data, std::uint32_t count) {
    builder().bytes(LogField::Data, {static_cast<void const*>(data), count});
    return put();
}

bool ExchangeLogger::writeStream(std::string_view sequence, std::string_view stream,
                                 std::uint32_t offset, Morva::Extent const& data) {
    begin(LogType::ExchangeWriteStream)
        .text(LogField::Sque, sequence)
        .text(LogField::Stream, stream)
        .number(LogField::Offset, offset);
    return endWrite(data.bytes(), data.size);
}

bool ExchangeLogger::closeObject(std::string_view sequence) {
    begin(LogType::ExchangeCloseObject).text(LogField::Sque, sequence);
    return put();
}

bool ExchangeLogger::deleteObject(std::string_view path) {
    begin(LogType::ExchangeDeleteObject).text(LogField::ObjectPath, path);
    return put();
}

} // namespace Replication
