#include "peers/source/WindowsPaths.h"

#include "base/values/PosixText.h"

#include <QList>

namespace Replication {

namespace {

using Morva::decodePosixText;

constexpr char16_t substitutes = 0xF000;
constexpr char16_t firstByte = 0xDC80; // of the text of bytes that are not UTF-8
constexpr char16_t lastByte = 0xDCFF;
constexpr QChar separator = u'\\';

bool forbidden(QChar character) {
    return character < u' ' || QStringView(u"<>:\"|?*\\").contains(character);
}

QString decode(std::string_view text) {
    return decodePosixText({text.data(), static_cast<qsizetype>(text.size())});
}

std::uint32_t size32(QByteArray const& bytes) {
    return static_cast<std::uint32_t>(bytes.size());
}

} // namespace

WindowsPath::WindowsPath(QString const& canonical, QString const& preserved)
    : text_(canonical.toUtf8()),
      preserved_(preserved.mid(preserved.lastIndexOf(separator) + 1).toUtf8()),
      filenameOffset_(static_cast<std::uint32_t>(text_.lastIndexOf('\\') + 1)),
      streamOffset_(size32(text_)),
      preservedStreamOffset_(size32(preserved_)) {}

WindowsPath WindowsPath::stream(QString const& name) const {
    WindowsPath result(*this);
    result.text_ = text_.first(streamOffset_) + ':' + WindowsPaths::canonical(name).toUtf8();
    result.preserved_ = preserved_.first(preservedStreamOffset_) + name.toUtf8();
    return result;
}

LogPath WindowsPath::log() const {
    LogPath result;
    result.text = {text_.constData(), static_cast<std::size_t>(text_.size())};
    result.filenameOffset = filenameOffset_;
    result.streamOffset = streamOffset_;
    result.casePreserved = {preserved_.constData(), static_cast<std::size_t>(preserved_.size())};
    result.casePreservedStreamOffset = preservedStreamOffset_;
    return result;
}

WindowsPaths::WindowsPaths(std::string_view top, WindowsPlace const& place)
    : topSize_(top == "/" ? 0 : top.size()) {
    auto path = place.top.empty() ? decode(top.substr(0, topSize_)) : decode(place.top);
    if (!place.top.empty())
        path.replace(separator, u'/');
    path = translated(path);
    while (path.endsWith(separator))
        path.chop(1);
    if (!path.isEmpty() && !path.startsWith(separator))
        path.prepend(separator);
    auto drive = decode(place.drive);
    if (!drive.endsWith(u':'))
        drive += u':';
    preservedTop_ = drive + path;
    canonicalTop_ = canonical(preservedTop_);
}

QString WindowsPaths::name(QStringView name) {
    auto result = name.toString();
    auto const substitute = [](char16_t character) {
        return QChar(static_cast<char16_t>(substitutes + (character & 0xFF)));
    };
    for (qsizetype i = 0; i < result.size(); ++i) {
        auto const character = result[i];
        if (character.isHighSurrogate() && i + 1 < result.size() && result[i + 1].isLowSurrogate())
            ++i; // one character of two
        else if (forbidden(character) || character == u'/' ||
                 (character.unicode() >= firstByte && character.unicode() <= lastByte))
            result[i] = substitute(character.unicode());
    }
    if (result.endsWith(u'.') || result.endsWith(u' '))
        result.back() = substitute(result.back().unicode());
    return result;
}

QString WindowsPaths::translated(QStringView path) {
    QString result;
    result.reserve(path.size());
    bool first = true;
    for (auto const part : path.split(u'/')) {
        if (!first)
            result += separator;
        first = false;
        result += part == u"." || part == u".." ? part.toString() : name(part);
    }
    return result;
}

WindowsPath WindowsPaths::of(std::string_view path) const {
    auto const below = translated(decode(path.substr(topSize_)));
    // The top of a drive is written with a separator.
    auto const slash = below.isEmpty() && !canonicalTop_.contains(separator) ? "\\" : "";
    return {canonicalTop_ + canonical(below) + slash, preservedTop_ + below + slash};
}

QString WindowsPaths::target(std::string_view target) {
    return translated(decode(target));
}

} // namespace Replication
