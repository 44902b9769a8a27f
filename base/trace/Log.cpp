#include "base/trace/Log.h"

#include "base/values/PosixText.h"

#include <atomic>
#include <cstdio>
#include <optional>

namespace Morva {

namespace {

struct Pending {
    LogMessage message;
    bool hasText = false;
    QStringList inserts;
};

std::atomic<Log*> processLog{nullptr};
thread_local std::optional<Pending> pending;

bool isDigit(QChar c) {
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}
bool isKind(QChar c) {
    return c >= QLatin1Char('a') && c <= QLatin1Char('z');
}

/// One pass over the text, so that an insert which holds a "%1s" itself stays as it is.
QString putIn(QString const& text, QStringList const& inserts) {
    QString result;
    qsizetype at = 0;
    while (at < text.size()) {
        qsizetype const mark = text.indexOf(QLatin1Char('%'), at);
        if (mark < 0)
            break;
        result += QStringView(text).mid(at, mark - at);
        qsizetype end = mark + 1;
        qsizetype number = 0;
        while (end < text.size() && end - mark <= 3 && isDigit(text[end]))
            number = number * 10 + text[end++].digitValue();
        if (end < text.size() && isKind(text[end]) && number > 0 && number <= inserts.size()) {
            result += inserts[number - 1];
            ++end;
        } else {
            result += QStringView(text).mid(mark, end - mark);
        }
        at = end;
    }
    result += QStringView(text).mid(at);
    return result;
}

char const* levelName(LogLevelE level) {
    switch (level) {
    case LogLevelE::Notice:
        return "notice";
    case LogLevelE::Warning:
        return "warning";
    case LogLevelE::Error:
        return "error";
    default:
        return "information";
    }
}

char const* stateName(LogProcessStateE state) {
    switch (state) {
    case LogProcessStateE::Starting:
        return "starting";
    case LogProcessStateE::Started:
        return "started";
    default:
        return "stopped";
    }
}

void toStandardError(LogMessage const& message) {
    QString line = message.source + QLatin1Char(' ') + QLatin1String(levelName(message.level)) +
                   QLatin1String(": ") + message.text;
    if (message.isState)
        line += QLatin1Char(' ') + QLatin1String(stateName(message.state));
    for (auto const& [name, value] : message.tags)
        line += QLatin1String(" [") + name + QLatin1Char('=') + value + QLatin1Char(']');
    QByteArray const bytes = encodePosixText(line + QLatin1Char('\n'));
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stderr);
}

} // namespace

Log* Log::object() {
    return processLog.load(std::memory_order_acquire);
}

void Log::install(Receiver receiver) {
    remove();
    processLog.store(new Log(receiver ? std::move(receiver) : Receiver(toStandardError)),
                     std::memory_order_release);
}

void Log::remove() {
    delete processLog.exchange(nullptr, std::memory_order_acq_rel);
}

void Log::addTagToList(LogTags& tags, QString const& name, QString const& value) {
    tags.append({name, value});
}

Log& Log::initialiseMessage(QString const& source, LogLevelE level, LogTags const& tags) {
    pending.emplace(Pending{.message = {.source = source, .level = level, .tags = tags}});
    return *this;
}

Log& Log::initialiseStateLogging(QString const& source, QString const& name,
                                 LogProcessStateE state) {
    pending.emplace(
        Pending{.message = {.source = source, .text = name, .isState = true, .state = state},
                .hasText = true});
    return *this;
}

Log& Log::operator<<(char const* text) {
    return *this << QString::fromUtf8(text);
}

Log& Log::operator<<(QString const& text) {
    if (!pending)
        return *this;
    if (pending->hasText)
        pending->inserts.append(text);
    else
        pending->message.text = text;
    pending->hasText = true;
    return *this;
}

Log& Log::operator<<(int number) {
    return *this << QString::number(number);
}

Log& Log::operator<<(unsigned number) {
    return *this << QString::number(number);
}

Log& Log::operator<<(std::uint64_t number) {
    return *this << QString::number(number);
}

Log& Log::operator<<(bool value) {
    return *this << (value ? "true" : "false");
}

Log& Log::operator<<(DataSize size) {
    ConvertableDataSize readable(size);
    readable.normalise();
    return *this << readable.toString();
}

Log& Log::operator<<(Html const& content) {
    return *this << content.text;
}

Log& Log::operator<<(PlainText const& content) {
    return *this << content.text;
}

void Log::sendMessage() {
    if (!pending)
        return;
    Pending const finished = std::move(*pending);
    pending.reset();
    LogMessage message = finished.message;
    if (!message.isState)
        message.text = putIn(message.text, finished.inserts);
    std::lock_guard const hold(lock_);
    receiver_(message);
}

} // namespace Morva
