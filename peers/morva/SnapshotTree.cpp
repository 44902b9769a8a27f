#include "peers/morva/SnapshotTree.h"

#include "base/values/PosixText.h"
#include "peers/morva/ExitCode.h"
#include "peers/morva/SnapshotName.h"
#include "replication/repository/store/Store.h"

#include <sys/stat.h>

namespace Morva {

using Replication::Instance;

OpenStore::OpenStore(Output const& output, std::string const& storeName)
    : root_(output, Root::For::Reading),
      source_(root_.source(argumentText(storeName))),
      store_(root_.store(source_)) {}

FileTree OpenStore::tree(QString const& name) const {
    auto const isLive = name == QLatin1String("live");
    return {*store_, isLive ? Instance{} : snapshotNamed(*store_, name)};
}

void OpenStore::finish() {
    store_.reset();
    root_.finish();
}

NamedObject objectNamed(OpenStore const& store, std::string const& text) {
    auto const [name, path] = splitSnapshotPath(argumentText(text));
    auto const tree = store.tree(name);
    auto parts = pathParts(path);
    parts.removeAll(QStringLiteral("."));
    auto const entry = tree.find(parts);
    if (!entry)
        throw CommandFailure(ExitCode::Failed, "there is no \"" + path + "\" in " + name);
    return {tree, *entry, encodePosixText(parts.join(u'/'))};
}

QString treeName(FileTree const& tree) {
    return tree.live() ? QStringLiteral("live") : QString::number(tree.instance().value);
}

QString argumentText(std::string const& argument) {
    return decodePosixText({argument.data(), static_cast<qsizetype>(argument.size())});
}

QString modeText(std::uint32_t mode) {
    QString text = QStringLiteral("?rwxrwxrwx");
    for (int bit = 0; bit < 9; ++bit)
        if ((mode & (0400U >> bit)) == 0)
            text[bit + 1] = u'-';
    auto const special = [&](std::uint32_t flag, int at, char16_t with, char16_t without) {
        if (mode & flag)
            text[at] = text[at] == u'x' ? with : without;
    };
    special(S_ISUID, 3, u's', u'S');
    special(S_ISGID, 6, u's', u'S');
    special(S_ISVTX, 9, u't', u'T');
    text[0] = S_ISREG(mode)    ? u'-'
              : S_ISDIR(mode)  ? u'd'
              : S_ISLNK(mode)  ? u'l'
              : S_ISFIFO(mode) ? u'p'
              : S_ISSOCK(mode) ? u's'
              : S_ISCHR(mode)  ? u'c'
              : S_ISBLK(mode)  ? u'b'
                               : u'?';
    return text;
}

QString kindText(std::uint32_t mode) {
    return S_ISREG(mode)    ? QStringLiteral("file")
           : S_ISDIR(mode)  ? QStringLiteral("directory")
           : S_ISLNK(mode)  ? QStringLiteral("symlink")
           : S_ISFIFO(mode) ? QStringLiteral("fifo")
           : S_ISSOCK(mode) ? QStringLiteral("socket")
                            : QStringLiteral("device");
}

} // namespace Morva
