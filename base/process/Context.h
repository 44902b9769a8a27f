#pragma once

#include "base/messages/MachineName.h"

#include <QString>

#include <cstdint>

namespace Morva {

class Log;
enum class TraceLevel : std::uint8_t;

/// The frame of the process: its clock, its ids, its machine and its name. All is thread-safe but
/// the setters, which belong to the start of a process or a test.
class Context {
public:
    /// The wall clock in milliseconds since 1970.
    [[nodiscard]] static std::uint64_t systemTime();
    /// A number that this process has not given out before, until 2^32 - 1 of them are used up.
    /// Never 0.
    [[nodiscard]] static std::uint32_t uniqueId();

    /// This machine: "MachineName" of "runtime.cfg", else the host name. Read at the first use.
    [[nodiscard]] static MachineName machineName();
    static void machineName(MachineName const& machine);
    /// Writes the name in force into "runtime.cfg", so that the rule sets of this root go on to
    /// be its own when the host gets another name. False, with a trace, if it can't be written.
    [[nodiscard]] static bool pinMachineName();

    /// The log for the user; null if there is none, and every caller must bear that.
    [[nodiscard]] static Log* logging();

    /// From MORVA_CONTEXT_NAME, MORVA_CONTEXT_GROUP and MORVA_CONTEXT_TITLE; else the given text.
    [[nodiscard]] static QString name(QString const& otherwise = {});
    [[nodiscard]] static QString group(QString const& otherwise = {});
    [[nodiscard]] static QString title(QString const& otherwise = {});
    /// From MORVA_CONTEXT_TRACE_FILE.
    [[nodiscard]] static QString traceFile();

    /// Writes the open file descriptors of the process, each with what it stands for, to the trace.
    static void traceHandles(TraceLevel level);

    /// Makes the trace of the process as "runtime.cfg" and the environment want it. A trace file
    /// named in the environment is used whatever the configuration says.
    static void startTrace();
};

} // namespace Morva
