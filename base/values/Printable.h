#pragma once

#include <QString>
#include <QStringView>

namespace Morva {

/// A name, or any text that holds names, as a person can be shown it: what could move the cursor,
/// forge a line or turn the reading order around is written as an escape. Escaped are the controls
/// below U+0020 and from U+007F to U+009F ("\x0a"), bytes that are no UTF-8 (U+DC80 to U+DCFF of
/// `decodePosixText`, "\x9b"), the marks of bidirectional text, invisible characters, and the
/// separators of lines and paragraphs ("\u202e"). All else stays, a backslash too, so that text
/// which was escaped stays as it is.
[[nodiscard]] QString printable(QStringView text);

/// The same for a text of several lines, whose ends of lines stay.
[[nodiscard]] QString printableLines(QStringView text);

} // namespace Morva
