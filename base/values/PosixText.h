#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>
#include <QStringView>

namespace Morva {

/// The text of a POSIX name, which is any bytes and mostly UTF-8 (RFC 3629). A byte that is not
/// part of a well-formed sequence (also of an overlong form, an encoded surrogate, a number above
/// U+10FFFF, a cut sequence) becomes U+DC00 plus the byte, so U+DC80 to U+DCFF. A byte order mark
/// is kept. For every byte string, `encodePosixText(decodePosixText(bytes)) == bytes`.
[[nodiscard]] QString decodePosixText(QByteArrayView bytes);

/// The bytes of a name. A lone U+DC80 to U+DCFF becomes its byte; any other lone surrogate, which
/// decoding never makes, the three bytes of its number.
[[nodiscard]] QByteArray encodePosixText(QStringView text);

} // namespace Morva
