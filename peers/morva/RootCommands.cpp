#include "peers/morva/Commands.h"
#include "peers/morva/Root.h"
#include "replication/repository/store/Store.h"

#include <CLI/CLI.hpp>

namespace Morva {

namespace {

void init(CommandLine& line) {
    if (line.output.root.isEmpty())
        throw CommandFailure(ExitCode::Usage, "say where with --root or MORVA_ROOT");
    Root::init(line.output.root);
    line.output.summary("made a repository at " + line.output.root, "init",
                        {{"root", line.output.root}});
}

QJsonValue jsonValue(XmlListIterator const& item) {
    switch (item.type()) {
    case XmlList::ValueTypeE::Bool:
        return item.getBool();
    case XmlList::ValueTypeE::String:
        return item.getString();
    default:
        return jsonNumber(item.getUint64());
    }
}

/// The plain values of a list of figures.
void printFigures(Output const& output, QString const& title, QString const& type,
                  XmlList const& list) {
    QJsonObject object;
    QString text = title;
    for (XmlListIterator item(list); item; ++item) {
        if (item.type() == XmlList::ValueTypeE::List || item.type() == XmlList::ValueTypeE::Buffer)
            continue;
        auto const value = jsonValue(item);
        object.insert(item.name(), value);
        text += QStringLiteral("\n  %1 %2")
                    .arg(item.name().leftJustified(40), value.toVariant().toString());
    }
    object.insert("name", title);
    output.result(text, type, object);
}

void stats(CommandLine& line) {
    Root root(line.output.root, Root::For::Reading);
    XmlList pool;
    root.pool().statistics(pool);
    printFigures(line.output, QStringLiteral("pool"), "pool", pool.getXmlList(nullptr, "Streams"));
    for (auto const& source : root.sources()) {
        XmlList figures;
        root.store(source)->statistics(figures);
        printFigures(line.output, source.name, "store", figures);
    }
    root.finish();
}

} // namespace

void addRootCommands(CommandLine& line) {
    line.app.add_subcommand("init", "Makes a repository")->callback([line]() mutable {
        init(line);
    });
    line.app.add_subcommand("stats", "Prints the figures of the pool and the stores")
        ->callback([line]() mutable { stats(line); });
}

} // namespace Morva
