#include "base/process/Config.h"

#include "base/files/RawFile.h"
#include "base/process/FixedPath.h"
#include "base/values/Sha1.h"

#include <QFileInfo>

namespace Morva {

namespace {

/// Larger than any configuration that a person or the rule distribution writes.
constexpr std::uint64_t maxFileBytes = 64 << 20;

Status writeWhole(QString const& path, QByteArray const& text) {
    auto const file = RawFile::make();
    MORVA_TRY(file->create(path, RawFile::Mode::ReadWrite));
    MORVA_TRY(file->write(Extent(text)));
    MORVA_TRY(file->sync());
    return file->close();
}

Result<QByteArray> readWhole(QString const& path) {
    auto const file = RawFile::make();
    MORVA_TRY(file->open(path, RawFile::Mode::ReadOnly));
    MORVA_TRY_LET(auto const length, file->length());
    if (length > maxFileBytes)
        return Status::corruption("read", path, QStringLiteral("is too large"));
    QByteArray text(static_cast<qsizetype>(length), Qt::Uninitialized);
    MORVA_TRY(file->readWhole(0, text.data(), static_cast<std::uint32_t>(length)));
    return text;
}

Status replace(QString const& path, QByteArray const& text) {
    auto& files = FileSystem::inForce();
    auto const fresh = path + QStringLiteral(".new");
    auto status = writeWhole(fresh, text);
    if (status)
        status = files.rename(fresh, path);
    if (!status) {
        (void)files.removeIfThere(fresh); // the first failure is the one to tell
        return status;
    }
    return files.syncDirectory(QFileInfo(path).absolutePath());
}

constexpr char const* sumBegin = "<!-- sha1 ";
constexpr char const* sumEnd = " -->\n";

QByteArray sumLine(QByteArrayView text) {
    Sha1 sha;
    sha.addData(text.data(), static_cast<std::uint32_t>(text.size()));
    auto const& digest = sha.result();
    return QByteArray(sumBegin) + digest.toByteArray().toHex() + sumEnd;
}

/// False when the text ends with a sum of something else.
bool fitsItsSum(QByteArrayView text) {
    auto const at = text.lastIndexOf(QByteArrayView(sumBegin));
    return at < 0 || text.sliced(at) == sumLine(text.first(at));
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
    if (path.isEmpty())
        return result;
    auto const text = readWhole(path);
    if (text.code() == Status::Code::NotFound)
        return result;
    result.absent_ = false;
    QString error = text.status().text();
    if (text && !fitsItsSum(*text)) {
        MORVA_TRACE(Always) << "Configuration file" << path << "is not what its sum was made of";
        return result;
    }
    auto list = text ? XmlList::fromXml(*text, &error) : std::nullopt;
    if (!list) {
        MORVA_TRACE(Always) << "Configuration file" << path << error;
        return result;
    }
    static_cast<XmlList&>(result) = *list;
    result.usable_ = true;
    return result;
}

bool Config::save(QString const& path, XmlList const& list, Protection protection) {
    auto text = list.toXml();
    if (text.isEmpty())
        return false;
    if (protection == Protection::Sum)
        text += sumLine(text);
    if (replace(path, text))
        return true;
    MORVA_TRACE(Always) << "Failed to write configuration file" << path;
    return false;
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
