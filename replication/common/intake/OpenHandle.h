#pragma once

namespace Replication {

/// What a source's open-file number stands for; each kind of sink has its own.
struct OpenHandle {
    virtual ~OpenHandle() = default;
    /// Writes the handle to the trace.
    virtual void print() const = 0;
};

} // namespace Replication
