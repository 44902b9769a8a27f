#include "base/values/PosixText.h"
#include "peers/morva/Commands.h"
#include "peers/morva/SnapshotName.h"
#include "peers/morva/SnapshotTree.h"
#include "peers/morva/TreeDiff.h"
#include "peers/morva/VersionList.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/StreamHandle.h"

#include <CLI/CLI.hpp>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <fnmatch.h>
#include <map>

namespace Morva {

using Replication::FileNode;

namespace {

struct Arguments {
    std::string store;
    std::string object = "live";
    std::string other;
    std::string path;
    std::string pattern;
    bool isLong = false;
    bool recursive = false;
};

constexpr char const* cannotRead = "can't read ";

/// Prints objects, one a line.
class Lister {
public:
    Lister(CommandLine& line, FileTree const& tree, bool isLong)
        : line_(line), tree_(tree), isLong_(isLong) {}

    void print(QByteArray const& path, FileTree::Entry const& entry) {
        auto& output = line_.output;
        if (!isLong_ && !output.json)
            return output.name(path);
        auto const node = tree_.node(entry.id);
        auto const attributes = node ? FileTree::attributes(*node) : std::nullopt;
        if (attributes)
            printLong(path, *node, *attributes);
        else
            unread(path);
    }
    void unread(QByteArray const& path) {
        line_.output.unreadable(path.isEmpty() ? "/" : path, QStringLiteral("can't be read"));
        line_.code = ExitCode::SomeUnread;
    }

private:
    void printLong(QByteArray const& path, FileNode& node, ObjectAttributes const& attributes) {
        auto const& security = attributes.security;
        auto const size = FileTree::size(node, attributes);
        auto const isDevice = S_ISCHR(security.mode) || S_ISBLK(security.mode);
        auto const target = S_ISLNK(security.mode)
                                ? FileTree::linkTarget(node).value_or(QByteArray())
                                : QByteArray();
        auto const sizeText =
            isDevice
                ? QStringLiteral("%1, %2").arg(major(security.device)).arg(minor(security.device))
                : QString::number(size);
        auto text = QStringLiteral("%1 %2 %3 %4 %5 %6 ")
                        .arg(modeText(security.mode))
                        .arg(attributes.links ? QString::number(attributes.links) : "?", 3)
                        .arg(security.uid, 5)
                        .arg(security.gid, 5)
                        .arg(sizeText, 12)
                        .arg(readableTime(attributes.modified));
        text += shownPath(path);
        if (!target.isEmpty())
            text += QStringLiteral(" -> ") + shownPath(target);
        QJsonObject object{{"path", decodePosixText(path)},
                           {"kind", kindText(security.mode)},
                           {"mode", QString::number(security.mode & 07777, 8)},
                           {"uid", jsonNumber(security.uid)},
                           {"gid", jsonNumber(security.gid)},
                           {"size", jsonNumber(size)}};
        addTime(object, "modified", attributes.modified);
        addTime(object, "changed", attributes.changed);
        if (attributes.accessed.known())
            addTime(object, "accessed", attributes.accessed);
        if (attributes.links != 0)
            object.insert("links", jsonNumber(attributes.links));
        if (isDevice)
            object.insert("device", sizeText);
        if (!target.isEmpty())
            object.insert("target", decodePosixText(target));
        line_.output.result(text, "object", object);
    }

    CommandLine& line_;
    FileTree const& tree_;
    bool isLong_;
};

void list(CommandLine& line, Arguments const& given) {
    OpenStore store(line.output, given.store);
    auto const object = objectNamed(store, given.object);
    Lister lister(line, object.tree, given.isLong);
    if (!object.entry.isDirectory)
        lister.print(object.path, object.entry);
    else
        object.tree.walk(object.entry, {}, [&](QByteArray const& path, auto const& entry) {
            Output::checkInterrupt();
            if (!entry.id) {
                lister.unread(joinPath(object.path, path));
                return false;
            }
            if (path.isEmpty())
                return true;
            lister.print(path, entry);
            return given.recursive;
        });
    store.finish();
}

void writeOut(std::uint8_t const* bytes, std::uint64_t count) {
    while (count > 0) {
        auto const done = ::write(STDOUT_FILENO, bytes, count);
        if (done < 0 && errno == EINTR) {
            Output::checkInterrupt();
            continue;
        }
        if (done < 0)
            failOutput(errno);
        bytes += done;
        count -= static_cast<std::uint64_t>(done);
    }
}

void printContent(NamedObject const& object) {
    auto const path = shownPath(object.path);
    auto const node = object.tree.node(object.entry.id);
    auto const attributes = node ? FileTree::attributes(*node) : std::nullopt;
    if (attributes && !S_ISREG(attributes->security.mode))
        throw CommandFailure(ExitCode::Failed,
                             '/' + path + " is a " + kindText(attributes->security.mode));
    auto const content = attributes ? FileTree::content(*node) : nullptr;
    if (!content)
        throw CommandFailure(ExitCode::SomeUnread, cannotRead + path);
    std::vector<std::uint8_t> bytes(1 << 20);
    auto const length = content->length();
    for (std::uint64_t at = 0; at < length;) {
        Output::checkInterrupt();
        auto const count =
            content->readWhole(at, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
        if (!count || *count == 0)
            throw CommandFailure(ExitCode::SomeUnread,
                                 cannotRead + path + QStringLiteral(" at byte %1").arg(at));
        writeOut(bytes.data(), *count);
        at += *count;
    }
}

void cat(CommandLine& line, Arguments const& given) {
    OpenStore store(line.output, given.store);
    printContent(objectNamed(store, given.object));
    store.finish();
}

/// Matches patterns by characters, whatever the locale of the process is.
class Pattern {
public:
    explicit Pattern(std::string pattern)
        : pattern_(std::move(pattern)),
          onPath_(pattern_.find('/') != std::string::npos),
          locale_(::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)),
          before_(locale_ ? ::uselocale(locale_) : nullptr) {
        while (pattern_.starts_with('/'))
            pattern_.erase(0, 1);
    }
    ~Pattern() {
        if (!locale_)
            return;
        ::uselocale(before_);
        ::freelocale(locale_);
    }
    Pattern(Pattern const&) = delete;
    Pattern& operator=(Pattern const&) = delete;

    [[nodiscard]] bool matches(QByteArray const& path) const {
        auto const* text = path.constData();
        if (!onPath_)
            text += path.lastIndexOf('/') + 1;
        return ::fnmatch(pattern_.c_str(), text, onPath_ ? FNM_PATHNAME : 0) == 0;
    }

private:
    std::string pattern_;
    bool onPath_;
    locale_t locale_;
    locale_t before_;
};

void find(CommandLine& line, Arguments const& given) {
    OpenStore store(line.output, given.store);
    auto const object = objectNamed(store, given.object);
    Pattern const pattern(given.pattern);
    Lister lister(line, object.tree, given.isLong);
    object.tree.walk(object.entry, object.path, [&](QByteArray const& path, auto const& entry) {
        Output::checkInterrupt();
        if (!entry.id)
            lister.unread(path);
        else if (!path.isEmpty() && pattern.matches(path))
            lister.print(path, entry);
        return true;
    });
    store.finish();
}

void diff(CommandLine& line, Arguments const& given) {
    OpenStore store(line.output, given.store);
    auto const before = store.tree(argumentText(given.object));
    auto const after = store.tree(argumentText(given.other));
    auto const parts = pathParts(argumentText(given.path));
    auto const from = before.find(parts);
    auto const to = after.find(parts);
    if (!from && !to)
        throw CommandFailure(ExitCode::Failed,
                             "there is no " + argumentText(given.path) + " in either of them");
    std::map<TreeDiff::Change, std::uint64_t> counts;
    TreeDiff compared(before, after, [&](TreeDiff::Change change, QByteArray const& path) {
        Output::checkInterrupt();
        ++counts[change];
        auto const shown = shownPath(path.isEmpty() ? "/" : path);
        if (change == TreeDiff::Change::Unread) {
            line.output.unreadable(path.isEmpty() ? "/" : path, QStringLiteral("can't be read"));
            line.code = ExitCode::SomeUnread;
            return;
        }
        auto const letter = QString(QLatin1Char(static_cast<char>(change)));
        line.output.result(letter + ' ' + shown, "change",
                           {{"change", letter}, {"path", decodePosixText(path)}});
    });
    compared.compare(encodePosixText(parts.join(u'/')), from, to);
    store.finish();
    auto const count = [&](TreeDiff::Change change) { return counts[change]; };
    using enum TreeDiff::Change;
    line.output.summary(
        QStringLiteral("%1 added, %2 removed, %3 with other content, %4 with other attributes, "
                       "%5 of another type")
            .arg(count(Added))
            .arg(count(Removed))
            .arg(count(Content))
            .arg(count(Metadata))
            .arg(count(Type)),
        "diff",
        {{"before", treeName(before)},
         {"after", treeName(after)},
         {"added", jsonNumber(count(Added))},
         {"removed", jsonNumber(count(Removed))},
         {"content", jsonNumber(count(Content))},
         {"metadata", jsonNumber(count(Metadata))},
         {"types", jsonNumber(count(Type))}});
}

void versions(CommandLine& line, Arguments const& given) {
    OpenStore store(line.output, given.store);
    auto const all = versionList(store.store(), pathParts(argumentText(given.path)));
    if (all.empty())
        throw CommandFailure(ExitCode::Failed,
                             "there is no " + argumentText(given.path) + " in any snapshot");
    for (auto const& version : all) {
        Output::checkInterrupt();
        auto const name =
            version.instance ? QString::number(version.instance.value) : QStringLiteral("live");
        if (!version.attributes) {
            line.output.error("can't read the version of snapshot " + name);
            line.code = ExitCode::SomeUnread;
            continue;
        }
        auto const modified = version.attributes->modified;
        QJsonObject object{{"snapshot", name},
                           {"taken", jsonNumber(version.taken)},
                           {"kind", kindText(version.attributes->security.mode)},
                           {"size", jsonNumber(version.size)},
                           {"sha1", QString::fromLatin1(version.sha1)}};
        addTime(object, "modified", modified);
        line.output.result(QStringLiteral("%1  %2  %3  %4 %5  %6")
                               .arg(name, 5)
                               .arg(version.taken ? readableTime(version.taken) : QString(19, u' '))
                               .arg(modeText(version.attributes->security.mode))
                               .arg(version.size, 12)
                               .arg(readableTime(modified),
                                    version.sha1.isEmpty() ? QStringLiteral("-")
                                                           : QString::fromLatin1(version.sha1)),
                           "version", object);
    }
    store.finish();
}

} // namespace

void addBrowseCommands(CommandLine& line) {
    auto const given = std::make_shared<Arguments>();
    auto const command = [&](char const* name, char const* text, auto&& run) {
        auto* added = line.app.add_subcommand(name, text);
        added->add_option("--store", given->store, "Name of the store; the only one by default");
        added->callback([line, given, run]() mutable { run(line, *given); });
        return added;
    };
    auto const nulEnds = [&line](CLI::App* to) {
        to->add_flag("-0,--print0", line.output.nulEnds,
                     "Names as they are, each ended by a NUL instead of a line end")
            ->excludes("--long");
    };
    constexpr char const* whichObject =
        "A snapshot's number, \"latest\" or \"live\", and a path in it, as SNAPSHOT:PATH";
    constexpr char const* whichTree = "A snapshot's number, \"latest\" or \"live\"";

    auto* ls = command("ls", "Lists a directory of a snapshot or of the live tree", list);
    ls->add_option("object", given->object, whichObject)->capture_default_str();
    ls->add_flag("-l,--long", given->isLong, "With modes, owners, sizes and times");
    ls->add_flag("-R,--recursive", given->recursive, "With all that is below it");
    nulEnds(ls);

    auto* print = command("cat", "Writes a file's content to standard output", cat);
    print->add_option("object", given->object, whichObject)->required();

    auto* compare = command("diff", "Tells what changed between two snapshots", diff);
    compare->add_option("before", given->object, whichTree)->required();
    compare->add_option("after", given->other, whichTree)->required();
    compare->add_option("path", given->path, "Only what is at or below this path");

    auto* search = command("find", "Lists the objects whose name, or path, fits a pattern", find);
    search->add_option("pattern", given->pattern, "With *, ? and [...]; of paths if it has a \"/\"")
        ->required();
    search->add_option("object", given->object, whichObject)->capture_default_str();
    search->add_flag("-l,--long", given->isLong, "With modes, owners, sizes and times");
    nulEnds(search);

    auto* history = command("versions", "Lists the versions of a file in all snapshots", versions);
    history->add_option("path", given->path, "The file's path in the store")->required();
}

} // namespace Morva
