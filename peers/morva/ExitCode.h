#pragma once

#include <QString>

#include <stdexcept>

namespace Morva {

/// How the command line ends. The manual (docs/morva.md) has the same table.
enum class ExitCode : int {
    Done = 0,
    Failed = 1,
    Usage = 2,
    SomeUnread = 3, ///< done, but some files could not be read, stored or restored
    NoRepository = 10,
    InUse = 11, ///< by another process
    Interrupted = 130
};

/// Ends a command: thrown anywhere below a command, caught in `main`, which prints the text and
/// exits with the code. The engine below the commands throws nothing.
class CommandFailure : public std::runtime_error {
public:
    CommandFailure(ExitCode code, QString const& text)
        : std::runtime_error(text.toStdString()), code_(code), text_(text) {}
    [[nodiscard]] ExitCode code() const { return code_; }
    /// With names as they are; empty when nobody needs to be told.
    [[nodiscard]] QString const& text() const { return text_; }

private:
    ExitCode code_;
    QString text_;
};

} // namespace Morva
