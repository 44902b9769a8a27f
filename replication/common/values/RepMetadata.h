#pragma once

#include "base/values/Buffer.h"
#include "base/values/PackBuffer.h"
#include "replication/common/values/Digest.h"

#include <QString>

#include <cstdint>
#include <vector>

namespace Replication {

/// The portable description of one object, as it travels to browse and restore clients and to the
/// metadata store. Packed by `PackBuffer`, in this order:
///
///  field           type      kinds  meaning
///  kind            u32       all
///  type            u32       1, 2   the node's type
///  flag            bool      1, 2   the placeholder mark
///  attributes      u32       1, 2
///  four times      u32 each  1, 2   created and modified here, created and modified at the source;
///                                   seconds since 1970
///  name            string    1, 2   the owner
///  source machine  string    1, 2   empty unless asked for
///  count           u32       1, 2   names of the object
///  size            u64       1      bytes of the data stream
///  deduped         bool      1
///  digest          36 bytes  1      type (u32) and 32 bytes
///  streams         list      2      to the end of the record; each: Name (string), Id (u64),
///                                   Size (u64), Deduped (bool), digest (36 bytes)
///
/// Kind 0 is the one value 0.
class RepMetadata {
public:
    enum Kind : std::uint32_t { eInvalid = 0, eSnapshot = 1, eBackup = 2 };

    struct Stream {
        QString name;
        std::uint64_t id = 0;
        std::uint64_t size = 0;
        bool deduped = false;
        Digest digest;
        bool operator==(Stream const&) const = default;
    };

    std::uint32_t kind = eInvalid;
    std::uint32_t type = 0;
    bool placeHolder = false;
    std::uint32_t attributes = 0;
    std::uint32_t createdHere = 0;
    std::uint32_t modifiedHere = 0;
    std::uint32_t createdSource = 0;
    std::uint32_t modifiedSource = 0;
    QString owner;
    QString sourceMachine;
    std::uint32_t linkCount = 0;
    std::uint64_t size = 0;
    bool deduped = false;
    Digest digest;
    std::vector<Stream> streams;

    /// Appends the record.
    void serialize(Morva::PackBuffer& record) const;
    /// The same for a raw reply, aligned from the record's own start. False when the buffer can't
    /// take it.
    [[nodiscard]] bool serialize(Morva::Buffer& reply) const;
    /// Takes one record. False for an unknown kind and for a record that is too short; what was
    /// read so far is undefined then.
    [[nodiscard]] bool deserialize(Morva::UnpackBuffer& record);

    bool operator==(RepMetadata const&) const = default;
};

} // namespace Replication
