#pragma once

#include <QString>
#include <QStringView>

#include <cstdint>

namespace Morva {

/// A name between quotes, control characters as \x0a, so that it can't forge a line.
[[nodiscard]] inline QString quoted(QStringView text) {
    QString result(u'"');
    for (QChar const c : text) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7F)
            result += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
        else
            result += c;
    }
    return result + u'"';
}

[[nodiscard]] inline QString hexNumber(std::uint64_t value) {
    return QStringLiteral("0x%1").arg(qulonglong{value}, 0, 16);
}

} // namespace Morva
