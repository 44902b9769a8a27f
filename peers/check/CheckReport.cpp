#include "peers/check/CheckReport.h"

#include <QLocale>

#include <numeric>

namespace Morva {

namespace {

constexpr std::array<char const*, faultKinds> names{
    "unreadable",  "block-file",     "lost-space",   "free-list",   "reference-count",
    "tree-record", "stream",         "stream-count", "dedup-index", "queue",
    "control",     "node",           "lost-stream",  "pointer",     "orphan",
    "directory",   "directory-tree", "counter",      "snapshot",    "snapshot-entry",
    "dedup-file",  "saved-state",    "data",         "page"};

QString number(std::uint64_t value) {
    return QLocale::c().toString(qulonglong{value});
}

} // namespace

QString faultName(FaultKind kind) {
    return QString::fromLatin1(names[static_cast<std::size_t>(kind)]);
}

QString Fault::line() const {
    return QStringLiteral("%1: %2: %3").arg(faultName(kind), where, text);
}

QJsonObject Fault::json() const {
    return {{"kind", faultName(kind)}, {"where", where}, {"text", text}};
}

void CheckReport::fault(FaultKind kind, QString const& where, QString const& text) {
    if (counts_[static_cast<std::size_t>(kind)]++ < mostLines)
        faults_.push_back({kind, where, text});
}

std::uint64_t CheckReport::total() const {
    return std::accumulate(counts_.begin(), counts_.end(), std::uint64_t{0});
}

QStringList CheckReport::lines() const {
    QStringList result;
    for (Fault const& fault : faults_)
        result.append(fault.line());
    for (std::size_t i = 0; i < faultKinds; ++i)
        if (counts_[i] > mostLines)
            result.append(QStringLiteral("%1: and %2 more")
                              .arg(QLatin1String(names[i]), number(counts_[i] - mostLines)));
    return result;
}

QString CheckReport::summary() const {
    CheckFigures const& f = figures;
    QString text =
        QStringLiteral("%1 stores, %2 files, %3 directories, %4 snapshots; %5 nodes, %6 streams, "
                       "%7 dedup keys; %8 data and %9 indirect blocks in use; ")
            .arg(number(f.stores), number(f.files), number(f.directories), number(f.snapshots),
                 number(f.nodes), number(f.streams), number(f.keys), number(f.dataBlocks),
                 number(f.indirectBlocks));
    text += QStringLiteral("%1 blocks, %2 bytes read in %3 s; ")
                .arg(number(f.blocksRead), number(f.bytesRead))
                .arg(f.seconds, 0, 'f', 2);
    if (f.digestsVerified != 0)
        text += QStringLiteral("%1 digests verified; ").arg(number(f.digestsVerified));
    return text + (clean() ? QStringLiteral("no faults")
                           : QStringLiteral("%1 faults").arg(number(total())));
}

QJsonObject CheckReport::summaryJson() const {
    CheckFigures const& f = figures;
    auto const value = [](std::uint64_t count) { return static_cast<qint64>(count); };
    return {{"stores", value(f.stores)},
            {"files", value(f.files)},
            {"directories", value(f.directories)},
            {"snapshots", value(f.snapshots)},
            {"nodes", value(f.nodes)},
            {"streams", value(f.streams)},
            {"keys", value(f.keys)},
            {"dataBlocks", value(f.dataBlocks)},
            {"indirectBlocks", value(f.indirectBlocks)},
            {"blocksRead", value(f.blocksRead)},
            {"bytesRead", value(f.bytesRead)},
            {"digestsVerified", value(f.digestsVerified)},
            {"seconds", f.seconds},
            {"faults", value(total())}};
}

} // namespace Morva
