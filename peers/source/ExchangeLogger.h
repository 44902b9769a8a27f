#pragma once

#include "peers/source/LogMaker.h"

#include <cstdint>
#include <string_view>

namespace Replication {

/// Makes one log for each operation on a mail store. An open object is named by the text under
/// which it was opened. Each is false when the sink has failed. Not thread-safe.
class ExchangeLogger : public LogMaker {
public:
    /// The sink must outlive the logger.
    ExchangeLogger(LogSourceOptions options, LogSink& sink) : LogMaker(std::move(options), sink) {}

    /// Opens an object, or makes it.
    [[nodiscard]] bool createObject(std::string_view sequence, std::string_view path);
    [[nodiscard]] bool createStream(std::string_view sequence, std::string_view stream);
    [[nodiscard]] bool writeStream(std::string_view sequence, std::string_view stream,
                                   std::uint32_t offset, Morva::Extent const& data);
    /// A write in two steps, as `LogMaker::beginWrite`; the texts must stay until the second.
    [[nodiscard]] std::uint8_t* beginWrite(std::string_view sequence, std::string_view stream,
                                           std::uint32_t offset, std::uint32_t size);
    [[nodiscard]] bool endWrite(std::uint8_t const* data, std::uint32_t count);
    [[nodiscard]] bool closeObject(std::string_view sequence);
    [[nodiscard]] bool deleteObject(std::string_view path);
};

} // namespace Replication
