#include "peers/morva/Output.h"

#include "base/values/DataSize.h"
#include "base/values/PosixText.h"
#include "peers/morva/ExitCode.h"

#include <QDateTime>
#include <QJsonDocument>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Morva {

std::atomic<bool> Output::interrupted{false};

namespace {

bool print(std::FILE* file, QByteArray const& line) {
    auto const size = static_cast<std::size_t>(line.size());
    return std::fwrite(line.constData(), 1, size, file) == size && std::fputc('\n', file) != EOF;
}

void checkWritten(bool written) {
    if (written)
        return;
    // Whoever has stopped reading needs no message.
    auto const why = errno == EPIPE
                         ? QString()
                         : QStringLiteral("can't write the results: ") + std::strerror(errno);
    throw CommandFailure(ExitCode::Failed, why);
}

} // namespace

void Output::result(QString const& text, QString const& type, QJsonObject object) const {
    if (json) {
        object.insert("type", type);
        checkWritten(print(stdout, QJsonDocument(object).toJson(QJsonDocument::Compact)));
    } else if (!text.isEmpty()) {
        checkWritten(print(stdout, encodePosixText(text)));
    }
}

void Output::summary(QString const& text, QString const& type, QJsonObject object) const {
    if (json || !quiet)
        result(text, type, std::move(object));
}

void Output::flushResults() const {
    checkWritten(std::fflush(stdout) == 0);
}

void Output::remark(QString const& text) const {
    if (verbose)
        print(stderr, encodePosixText(text));
}

void Output::error(QString const& text) const {
    print(stderr, "morva: " + encodePosixText(text));
}

void Output::progress(std::uint64_t doneBytes, std::uint64_t totalBytes, std::uint64_t files) {
    static bool const shown = ::isatty(STDERR_FILENO) != 0;
    if (quiet || json || !shown)
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
        line = QStringLiteral("%1 %, ").arg(doneBytes * 100 / totalBytes) + line +
               QStringLiteral(", %1 s left").arg(left, 0, 'f', 0);
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

QString readableSize(std::uint64_t bytes) {
    ConvertableDataSize size(bytes);
    size.normalise();
    return size.toString();
}

QString readableTime(std::uint32_t secondsSince1970) {
    return QDateTime::fromSecsSinceEpoch(secondsSince1970).toString("yyyy-MM-dd HH:mm:ss");
}

QJsonValue jsonNumber(std::uint64_t value) {
    return static_cast<double>(value);
}

} // namespace Morva
