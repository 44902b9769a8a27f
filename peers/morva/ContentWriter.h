#pragma once

#include "peers/morva/ObjectWriter.h"

namespace Morva {

/// Writes stored content to an empty open file and leaves its holes out. Blocks that can't be read
/// become zeros and are a reason in `result`, as is content that differs from its stored digest
/// (which is verified where there is one and no hole). False when the file can't be used.
[[nodiscard]] bool writeContent(int file, Replication::StreamHandle& content,
                                ObjectWriter::Buffer& buffer, ObjectWriter::Written const& written,
                                WriteResult& result);

/// Whether an open file holds just what is stored. False also when either can't be read.
[[nodiscard]] bool holdsContent(int file, Replication::StreamHandle& content,
                                ObjectWriter::Buffer& buffer, ObjectWriter::Written const& goOn);

} // namespace Morva
