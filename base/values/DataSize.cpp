#include "base/values/DataSize.h"

#include <array>

namespace Morva {

namespace {

constexpr std::array unitNames{"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
constexpr unsigned bitsPerUnit = 10;

} // namespace

void ConvertableDataSize::normalise() {
    unit_ = 0;
    while (unit_ + 1 < unitNames.size() && (bytes_ >> (bitsPerUnit * (unit_ + 1))) > 0)
        ++unit_;
}

QString ConvertableDataSize::toString() const {
    if (unit_ == 0 && bytes_ == 1)
        return QStringLiteral("1 byte");
    unsigned const shift = bitsPerUnit * unit_;
    QString number = QString::number(bytes_ >> shift);
    if (unit_ > 0) {
        // The ten bits below the point are enough for a tenth, and can't overflow.
        std::uint64_t const fraction = (bytes_ >> (shift - bitsPerUnit)) & 0x3FF;
        if (std::uint64_t const tenths = fraction * 10 >> bitsPerUnit; tenths > 0)
            number += QLatin1Char('.') + QString::number(tenths);
    }
    return number + QLatin1Char(' ') + QLatin1String(unitNames[unit_]);
}

} // namespace Morva
