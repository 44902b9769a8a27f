#pragma once

#include "base/values/DataSize.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <functional>
#include <mutex>

namespace Morva {

enum class LogLevelE : std::uint32_t { Information = 1, Notice = 2, Warning = 3, Error = 4 };
enum class LogProcessStateE : std::uint32_t { Stopped = 0, Starting = 1, Started = 2 };

/// A log insert of HTML content.
struct Html {
    QString text;
};
/// A log insert of plain text of several lines, as a list of paths.
struct PlainText {
    QString text;

    explicit PlainText(QString content) : text(std::move(content)) {}
    explicit PlainText(QStringList const& lines) : text(lines.join(QLatin1Char('\n'))) {}
};

using LogTags = QList<QPair<QString, QString>>;

/// One finished message.
struct LogMessage {
    QString source;
    LogLevelE level = LogLevelE::Information;
    LogTags tags;
    /// With all inserts put in.
    QString text;
    /// Set when this is a change of a process's state; then `text` is the process's name.
    bool isState = false;
    LogProcessStateE state = LogProcessStateE::Stopped;
};

/// The log for the user: messages of text with typed inserts, handed on to a receiver.
///
/// A text names its inserts by number and kind: "%1m" a machine, "%2s" a string, "%1i" and "%1l"
/// a number, "%1c" a data size, "%3p" plain text, "%1h" HTML. The number picks the insert; the
/// kind is for the reader. A number with no insert stays as it stands.
///
/// The message under construction belongs to the calling thread, so that all threads may use the
/// one object. `LogLine` below is the short way that tolerates a missing object.
class Log {
public:
    using Receiver = std::function<void(LogMessage const&)>;

    /// The process's log; null until `install`. Each use looks.
    [[nodiscard]] static Log* object();
    /// Makes the process's log. The receiver is called for one message at a time, on the thread
    /// that sends; it must not log itself. Without one, lines go to standard error.
    static void install(Receiver receiver = {});
    /// To be called when no other thread logs any more.
    static void remove();
    static void addTagToList(LogTags& tags, QString const& name, QString const& value);

    /// Starts a message; one that was started on this thread and not sent is dropped. `source` is
    /// "Repository", "Replication" or "Mirror".
    Log& initialiseMessage(QString const& source, LogLevelE level, LogTags const& tags = {});
    /// Starts a message on the state of the process `name`, which takes no text.
    Log& initialiseStateLogging(QString const& source, QString const& name, LogProcessStateE state);

    /// The first is the text, all others the inserts in order. Does nothing without a message.
    Log& operator<<(char const* text);
    Log& operator<<(QString const& text);
    Log& operator<<(int number);
    Log& operator<<(unsigned number);
    Log& operator<<(std::uint64_t number);
    Log& operator<<(bool value);
    Log& operator<<(DataSize size);
    Log& operator<<(Html const& content);
    Log& operator<<(PlainText const& content);
    /// Hands the message to the receiver. Does nothing without a message.
    void sendMessage();

private:
    explicit Log(Receiver receiver) : receiver_(std::move(receiver)) {}

    std::mutex lock_;
    Receiver receiver_;
};

/// One message, sent at the end of the statement; nothing at all when there is no log:
///     LogLine("Repository", LogLevelE::Error, tags) << "Failed to load ruleset %1i" << id;
class LogLine {
public:
    LogLine(QString const& source, LogLevelE level, LogTags const& tags = {})
        : log_(Log::object()) {
        if (log_)
            log_->initialiseMessage(source, level, tags);
    }
    ~LogLine() {
        if (log_)
            log_->sendMessage();
    }
    LogLine(LogLine const&) = delete;
    LogLine& operator=(LogLine const&) = delete;

    template <class T> LogLine& operator<<(T const& value) {
        if (log_)
            *log_ << value;
        return *this;
    }

private:
    Log* log_;
};

} // namespace Morva
