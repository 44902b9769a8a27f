#pragma once

#include <QString>

namespace Replication {

/// A row of a table of figures in HTML. The label and the value must need no escaping.
[[nodiscard]] inline QString statisticsRow(QString const& label, QString const& value) {
    return QStringLiteral("<TR><TD>%1<TD align=\"right\">%2").arg(label, value);
}

} // namespace Replication
