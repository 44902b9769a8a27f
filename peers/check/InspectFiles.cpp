// Files that stand on their own.

#include "base/files/RawFile.h"
#include "base/messages/XmlList.h"
#include "peers/check/BlockFile.h"
#include "peers/check/Inspector.h"
#include "peers/check/Printable.h"
#include "peers/check/TreeReader.h"
#include "replication/common/intake/StateFile.h"
#include "replication/common/log/LogEntry.h"
#include "replication/common/log/LogHeader.h"
#include "replication/common/log/LogIo.h"

#include <vector>

namespace Morva {

using Replication::LogEntry;
using Replication::LogHeader;
using Replication::LogReadAhead;
using Replication::StateFile;

namespace {

constexpr std::uint32_t firstBytes = 64;

QString valueText(XmlListIterator const& item) {
    switch (item.type()) {
    case XmlList::ValueTypeE::Bool:
        return item.getBool() ? QStringLiteral("true") : QStringLiteral("false");
    case XmlList::ValueTypeE::Int32:
        return QString::number(item.getInt32());
    case XmlList::ValueTypeE::Uint32:
    case XmlList::ValueTypeE::Uint64:
        return QString::number(item.getUint64());
    case XmlList::ValueTypeE::String:
        return quoted(item.getString());
    case XmlList::ValueTypeE::Machine:
        return quoted(item.getMachine().name());
    case XmlList::ValueTypeE::Buffer:
        return QStringLiteral("%1 bytes %2")
            .arg(item.getBuffer().size())
            .arg(QString::fromLatin1(item.getBuffer().left(firstBytes).toHex()));
    default:
        return {};
    }
}

void printList(XmlList const& list, int indent, Inspector::Print const& print) {
    for (XmlListIterator item(list); item; ++item) {
        QString const name = QString(indent, u' ') + quoted(item.name());
        if (item.type() != XmlList::ValueTypeE::List) {
            print(name + QStringLiteral(" = ") + valueText(item));
            continue;
        }
        print(name + u':');
        printList(item.getXmlList(), indent + 2, print);
    }
}

} // namespace

void Inspector::state(Words words) {
    StateFile file(words[0]);
    if (!file.open(RawFile::Mode::ReadOnly))
        return fault(words[0] + QStringLiteral(" can't be opened"));
    file.readHeader();
    if (!file.valid())
        fault(QStringLiteral("the header is damaged"));
    say(QStringLiteral("sequence %1, bytes %2, rule set %3, last resynchronisation %4%5")
            .arg(file.sequenceNumber())
            .arg(file.bytesProcessed())
            .arg(file.ruleSet())
            .arg(file.lastResync())
            .arg((file.flags() & StateFile::resyncFlag) != 0
                     ? QStringLiteral(", needs a resynchronisation")
                     : QString()));
    say(QStringLiteral("target %1").arg(quoted(file.target())));
    if (QByteArray const details = file.details(); !details.isEmpty())
        say(QStringLiteral("details, %1 bytes").arg(details.size()));
    file.close();
}

void Inspector::valueList(Words words) {
    auto const file = RawFile::make();
    if (!file->open(words[0], RawFile::Mode::ReadOnly))
        return fault(words[0] + QStringLiteral(" can't be opened"));
    auto const length = file->length();
    if (!length)
        return fault(length.status().text());
    if (*length > static_cast<std::uint64_t>(XmlList::maxFormBytes))
        return fault(QStringLiteral("%1 bytes are too many for a value list").arg(*length));
    QByteArray bytes(static_cast<qsizetype>(*length), Qt::Uninitialized);
    auto const got = file->readAt(0, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    if (!got)
        return fault(got.status().text());
    bytes.resize(*got);
    QString error;
    auto list = XmlList::fromBinary(bytes);
    if (!list)
        list = XmlList::fromXml(bytes, &error);
    if (list)
        return printList(*list, 0, [this](QString const& line) { say(line); });
    fault(error);
    hexDump(bytes.constData(), std::min(static_cast<std::uint32_t>(bytes.size()), firstBytes));
}

void Inspector::logFile(Words words) {
    auto const file = RawFile::make();
    if (!file->open(words[0], RawFile::Mode::ReadOnly))
        return fault(words[0] + QStringLiteral(" can't be opened"));
    LogReadAhead input(*file);
    LogHeader header;
    LogEntry log;
    while (lines_ < mostLines && !input.atEnd()) {
        std::uint64_t const start = input.position();
        if (!header.receive(input.io()))
            return fault(QStringLiteral("the header at byte %1 is torn or damaged").arg(start));
        if (header.type() == LogHeader::Notification) {
            say(QStringLiteral("%1: notification").arg(start));
            continue;
        }
        if (!log.receive(input.io(), header)) {
            fault(QStringLiteral("the log at byte %1 is torn or damaged (%2)")
                      .arg(start)
                      .arg(log.error()));
            return;
        }
        say(QStringLiteral("%1: %2").arg(start).arg(QString::fromStdString(log.toText())));
    }
}

} // namespace Morva
