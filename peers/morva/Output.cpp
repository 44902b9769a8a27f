#include "peers/morva/Output.h"

#include "base/values/DataSize.h"
#include "base/values/PosixText.h"
#include "base/values/Printable.h"
#include "peers/morva/ExitCode.h"

#include <QDateTime>
#include <QJsonDocument>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Morva {

using Replication::FileTime;

std::atomic<bool> Output::interrupted{false};

namespace {

/// One call, so that lines of several threads don't mix. 0, or an errno.
int print(std::FILE* file, QByteArray line, char end = '\n') {
    line += end;
    auto const size = static_cast<std::size_t>(line.size());
    errno = 0;
    if (std::fwrite(line.constData(), 1, size, file) == size)
        return 0;
    return errno != 0 ? errno : EIO;
}

void tell(QString const& printableText) {
    (void)print(stderr, "morva: " + encodePosixText(printableText)); // there is nobody else to tell
}

} // namespace

void failOutput(int error) {
    // Whoever has stopped reading needs no message.
    throw CommandFailure(ExitCode::Failed,
                         error == EPIPE
                             ? QString()
                             : QStringLiteral("can't write the results: ") + std::strerror(error));
}

void Output::result(QString const& text, QString const& type, QJsonObject object) const {
    int error = 0;
    if (json) {
        if (object.isEmpty() && type.isEmpty())
            return;
        object.insert("type", type);
        error = print(stdout, QJsonDocument(object).toJson(QJsonDocument::Compact));
    } else if (!text.isEmpty()) {
        error = print(stdout, encodePosixText(printableLines(text)));
    }
    if (error != 0)
        failOutput(error);
}

void Output::name(QByteArray const& bytes) const {
    if (auto const error =
            nulEnds ? print(stdout, bytes, '\0') : print(stdout, encodePosixText(shownPath(bytes))))
        failOutput(error);
}

void Output::summary(QString const& text, QString const& type, QJsonObject object) const {
    if (json || !quiet)
        result(text, type, std::move(object));
}

void Output::flushResults() const {
    errno = 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        failOutput(errno != 0 ? errno : EIO);
}

void Output::remark(QString const& text) const {
    if (verbose)
        tell(printable(text));
}

void Output::error(QString const& text) const {
    tell(printable(text));
}

void Output::usage(QString const& text) const {
    tell(printableLines(text));
}

void Output::unreadable(QByteArray const& path, QString const& reason) const {
    error(shownPath(path) + ": " + reason);
    if (!json)
        return;
    QJsonObject const object{
        {"type", "unreadable"}, {"path", decodePosixText(path)}, {"reason", reason}};
    // `flushResults` sees that it failed; this may be a thread that must not throw.
    (void)print(stdout, QJsonDocument(object).toJson(QJsonDocument::Compact));
}

bool Output::showsProgress() const {
    static bool const isTerminal = ::isatty(STDERR_FILENO) != 0;
    return isTerminal && !quiet && !json;
}

void Output::progress(std::uint64_t doneBytes, std::uint64_t totalBytes, std::uint64_t files) {
    if (!showsProgress())
        return;
    auto const now = std::chrono::steady_clock::now();
    if (begun_.time_since_epoch().count() == 0)
        begun_ = now;
    if (now - shown_ < std::chrono::milliseconds(100))
        return;
    shown_ = now;
    progressShown_ = true;
    auto const seconds = std::chrono::duration<double>(now - begun_).count();
    auto const rate = seconds > 0 ? static_cast<double>(doneBytes) / seconds : 0;
    auto line = QStringLiteral("%1 files, %2, %3/s")
                    .arg(files)
                    .arg(readableSize(doneBytes), readableSize(static_cast<std::uint64_t>(rate)));
    if (totalBytes > 0 && rate > 0) {
        auto const left = static_cast<double>(totalBytes - std::min(doneBytes, totalBytes)) / rate;
        line = QStringLiteral("%1 %, ").arg(std::min(doneBytes, totalBytes) * 100 / totalBytes) +
               line + QStringLiteral(", %1 s left").arg(left, 0, 'f', 0);
    }
    std::fprintf(stderr, "\r\033[K%s", line.toUtf8().constData());
    std::fflush(stderr);
}

void Output::endProgress() {
    if (progressShown_)
        std::fprintf(stderr, "\r\033[K");
    progressShown_ = false;
    begun_ = {};
}

void Output::checkInterrupt() {
    if (interrupted.load(std::memory_order_relaxed))
        throw CommandFailure(ExitCode::Interrupted, "interrupted");
}

QString shownPath(QByteArray const& path) {
    return printable(decodePosixText(path));
}

QString readableSize(std::uint64_t bytes) {
    ConvertableDataSize size(bytes);
    size.normalise();
    return size.toString();
}

QString readableTime(std::uint32_t secondsSince1970) {
    return QDateTime::fromSecsSinceEpoch(secondsSince1970).toString("yyyy-MM-dd HH:mm:ss");
}

QString readableTime(FileTime time) {
    constexpr std::int64_t from = -62'167'219'200; // the years 0 to 9999
    constexpr std::int64_t to = 253'402'300'800;
    constexpr std::int64_t zones = 24 * 60 * 60;
    if (time.seconds < from + zones || time.seconds >= to - zones)
        return '@' + QString::fromStdString(time.text());
    return QDateTime::fromSecsSinceEpoch(time.seconds).toString("yyyy-MM-dd HH:mm:ss") +
           QStringLiteral(".%1").arg(time.nanoseconds, 9, 10, QLatin1Char('0'));
}

void addTime(QJsonObject& object, QString const& name, FileTime time) {
    object.insert(name, QJsonValue(static_cast<qint64>(time.seconds)));
    object.insert(name + "Nanoseconds", QJsonValue(static_cast<qint64>(time.nanoseconds)));
}

QJsonValue jsonNumber(std::uint64_t value) {
    return static_cast<double>(value);
}

} // namespace Morva
