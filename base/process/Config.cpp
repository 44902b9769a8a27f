#include "base/process/Config.h"

#include "base/files/RawFile.h"
#include "base/process/FixedPath.h"
#include "base/values/PosixText.h"

#include <QFileInfo>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace Morva {

namespace {

/// Larger than any configuration that a person or the rule distribution writes.
constexpr std::uint64_t maxFileBytes = 64 << 20;

bool writeWhole(QString const& path, QByteArray const& text) {
    auto const file = RawFile::make();
    if (!file->create(path, RawFile::Mode::ReadWrite))
        return false;
    bool const fine = file->write(Extent(text)) && file->sync();
    file->close();
    return fine;
}

/// Brings a rename to the disk; a failure only means that a power cut can undo it.
void syncDirectory(QString const& path) {
    int const directory = ::open(encodePosixText(path).constData(), O_RDONLY | O_DIRECTORY);
    if (directory >= 0) {
        (void)::fsync(directory);
        ::close(directory);
    }
}

std::optional<QByteArray> readWhole(QString const& path, QString& error) {
    auto const file = RawFile::make();
    if (!file->open(path, RawFile::Mode::ReadOnly)) {
        error = QStringLiteral("can't be opened");
        return std::nullopt;
    }
    std::uint64_t const length = file->length();
    if (length > maxFileBytes) {
        error = QStringLiteral("is too large");
        return std::nullopt;
    }
    QByteArray text(static_cast<qsizetype>(length), Qt::Uninitialized);
    if (file->read(text.data(), static_cast<std::uint32_t>(length)) != length) {
        error = QStringLiteral("can't be read");
        return std::nullopt;
    }
    return text;
}

QString localPath(QString const& fileName) {
    if (fileName.contains(QLatin1Char('/')))
        return fileName;
    auto const directory = FixedPath::configuration();
    return directory.isEmpty() ? QString() : directory + QLatin1Char('/') + fileName;
}

} // namespace

Config Config::load(QString const& path) {
    Config result;
    if (path.isEmpty() || ::access(encodePosixText(path).constData(), F_OK) != 0)
        return result;
    result.absent_ = false;
    QString error;
    auto const text = readWhole(path, error);
    auto list = text ? XmlList::fromXml(*text, &error) : std::nullopt;
    if (!list) {
        MORVA_TRACE(Always) << "Configuration file" << path << error;
        return result;
    }
    static_cast<XmlList&>(result) = *list;
    result.usable_ = true;
    return result;
}

bool Config::save(QString const& path, XmlList const& list) {
    auto const text = list.toXml();
    auto const fresh = path + QStringLiteral(".new");
    auto const freshName = encodePosixText(fresh);
    if (text.isEmpty() || !writeWhole(fresh, text) ||
        std::rename(freshName.constData(), encodePosixText(path).constData()) != 0) {
        MORVA_TRACE(Always) << "Failed to write configuration file" << path;
        (void)std::remove(freshName.constData());
        return false;
    }
    syncDirectory(QFileInfo(path).absolutePath());
    return true;
}

ConfigLocal::ConfigLocal(QString const& fileName) : Config(load(localPath(fileName))) {}

TraceSettings TraceSettings::read(XmlList const& list) {
    static constexpr std::pair<char const*, TraceLevel> levels[] = {
        {"TraceAlways", TraceLevel::Always}, {"TraceTesting", TraceLevel::Testing},
        {"TraceNormal", TraceLevel::Normal}, {"TraceVerbose", TraceLevel::Verbose},
        {"TraceDebug", TraceLevel::Debug},
    };
    TraceSettings result;
    auto const level = list.get(QStringLiteral("DefaultTraceLevel"), 0U);
    if (level <= static_cast<std::uint32_t>(TraceLevel::Debug))
        result.level = static_cast<TraceLevel>(level);
    else
        MORVA_TRACE(Always) << "DefaultTraceLevel is no level" << level;
    for (auto const& [key, moduleLevel] : levels) {
        for (XmlListIterator module(list, QString::fromLatin1(key)); module; ++module)
            result.modules.emplace_back(module.getString(), moduleLevel);
    }
    result.toFile = list.get(QStringLiteral("BoolTraceToFile"), result.toFile);
    result.linesPerFile = list.get(QStringLiteral("DefaultTraceLinesPerFile"), result.linesPerFile);
    result.filesToKeep = list.get(QStringLiteral("DefaultTraceFilesToKeep"), result.filesToKeep);
    return result;
}

} // namespace Morva
