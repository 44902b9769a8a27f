#pragma once

#include "base/values/Printable.h"

#include <QString>
#include <QStringView>

#include <cstdint>

namespace Morva {

/// A name between quotes, as a person can be shown it.
[[nodiscard]] inline QString quoted(QStringView text) {
    return u'"' + printable(text) + u'"';
}

[[nodiscard]] inline QString hexNumber(std::uint64_t value) {
    return QStringLiteral("0x%1").arg(qulonglong{value}, 0, 16);
}

} // namespace Morva
