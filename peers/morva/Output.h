#pragma once

#include "replication/common/values/FileTime.h"

#include <QJsonObject>
#include <QString>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace Morva {

/// What every command is told on the command line, and how it speaks: results to standard output
/// as text or, with `--json`, as one object a line with a "type" in each; errors and the progress
/// line to standard error. Text is shown by `printable`; JSON holds names as they are.
///
/// Any thread can call `result`, `remark`, `error` and `unreadable`, whose lines stay whole; the
/// rest is for one thread.
class Output {
public:
    QString root;
    std::chrono::milliseconds wait{0}; ///< while another process has the root
    bool json = false;
    bool quiet = false;
    bool verbose = false;

    /// A result: text, of several lines if it has to be, or the object with --json. Nothing for an
    /// empty text or object. Ends the command when standard output takes no more, without a word
    /// when a reader has left.
    void result(QString const& text, QString const& type, QJsonObject object) const;
    /// A name or path alone as a line of text: for people, or exactly and ended by NUL with
    /// `nulEnds`.
    void name(QByteArray const& bytes) const;
    bool nulEnds = false;
    /// A summary: as `result`, but its text is left out with --quiet.
    void summary(QString const& text, QString const& type, QJsonObject object) const;
    /// To be called at the end: what `result` has gathered goes out, or the command fails.
    void flushResults() const;
    /// A remark for --verbose, as a line on standard error.
    void remark(QString const& text) const;
    /// A line on standard error.
    void error(QString const& text) const;
    /// How a command is used, in several lines, on standard error.
    void usage(QString const& text) const;
    /// An object that could not be read or restored whole: an error, and an object with --json.
    /// Throws nothing.
    void unreadable(QByteArray const& path, QString const& reason) const;

    /// Whether somebody sees the progress line.
    [[nodiscard]] bool showsProgress() const;
    /// The progress line, on a terminal only and at most ten times a second. A total of 0 means
    /// that it isn't known.
    void progress(std::uint64_t doneBytes, std::uint64_t totalBytes, std::uint64_t files);
    void endProgress();

    /// Set by the handler of SIGINT, SIGTERM and SIGHUP.
    static std::atomic<bool> interrupted;
    /// Ends the command with `Interrupted` if the user asked for it.
    static void checkInterrupt();

private:
    std::chrono::steady_clock::time_point begun_{};
    std::chrono::steady_clock::time_point shown_{};
    bool progressShown_ = false;
};

/// Ends a command whose results can't be written, for the reason in `error`, an errno.
[[noreturn]] void failOutput(int error);
/// A path for a person, see `printable`.
[[nodiscard]] QString shownPath(QByteArray const& path);
/// "1.5 GiB"
[[nodiscard]] QString readableSize(std::uint64_t bytes);
/// Local time, "2026-11-22 20:31:56".
[[nodiscard]] QString readableTime(std::uint32_t secondsSince1970);
/// The same with nanoseconds, "2026-11-22 20:31:56.000000001"; "@" and the seconds since 1970 of a
/// time without a year of four digits.
[[nodiscard]] QString readableTime(Replication::FileTime time);
/// Adds a time as `name`, its seconds since 1970, and `name` + "Nanoseconds".
void addTime(QJsonObject& object, QString const& name, Replication::FileTime time);
/// An unsigned 64-bit number as JSON, exact up to 2^53.
[[nodiscard]] QJsonValue jsonNumber(std::uint64_t value);

/// Seconds since it was made.
class Stopwatch {
public:
    [[nodiscard]] double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun_).count();
    }

private:
    std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();
};

} // namespace Morva
