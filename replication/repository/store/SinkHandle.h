#pragma once

#include "replication/common/intake/OpenHandle.h"
#include "replication/repository/store/ActiveHandle.h"

#include <QString>
#include <QStringList>

#include <cstdint>
#include <memory>

namespace Replication {

class StreamHandle;

/// What a source's open-file number stands for on the repository side.
struct SinkHandle : OpenHandle {
    enum Type : std::uint32_t { Valid = 1, Excluded = 2, Unknown = 3 };
    /// Of the flags of an unknown one: no opening of its number is known.
    static constexpr std::uint32_t neverOpened = 0x80000000U;
    /// Of the flags of an unknown one: its path could not be opened.
    static constexpr std::uint32_t lost = 0x40000000U;

    SinkHandle() = default;
    explicit SinkHandle(Type kind) : type(kind) {}
    void print() const override;

    Type type = Unknown;
    /// Writes so far, for a valid handle.
    std::uint32_t id = 0;
    ActiveHandle::Pointer activeHandle;
    std::shared_ptr<StreamHandle> streamHandle;
    QStringList parent;
    QString name;
    QString stream;
    LinkId link{1};
    bool dedup = true;
    std::uint32_t flags = 0;
};

} // namespace Replication
