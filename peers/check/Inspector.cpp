#include "peers/check/Inspector.h"

#include "base/blocks/Blocks.h"
#include "base/files/RawFile.h"
#include "base/values/LittleEndian.h"
#include "peers/check/BlockFile.h"
#include "peers/check/Printable.h"
#include "peers/check/TreeReader.h"
#include "replication/repository/streams/RawRefCountedBlocks.h"
#include "replication/repository/streams/StreamNode.h"

#include <algorithm>

namespace Morva {

using Replication::RawRefCountedBlocks;
using Replication::StoreId;
using Replication::TreeRecord;

namespace {

constexpr std::uint32_t cacheBlocks = 64;
constexpr int storeIdDigits = 16;

} // namespace

struct Inspector::Command {
    char const* word;
    char const* arguments;
    int least;
    int most;
    char const* text;
    void (Inspector::*run)(Words);
};

std::vector<Inspector::Command> const& Inspector::commands() {
    using I = Inspector;
    static std::vector<Command> const table{
        {"headers", "", 0, 0, "the header of every block file", &I::headers},
        {"pool", "", 0, 0, "the control record of the pool", &I::pool},
        {"stream", "N", 1, 1, "a stream's node and its tree", &I::stream},
        {"data", "N", 1, 1, "a data block: its count and its first bytes", &I::dataBlock},
        {"indirect", "N", 1, 1, "an indirect block: its count and entries", &I::indirectBlock},
        {"free", "", 0, 0, "the free list of data blocks", &I::freeList},
        {"keys", "", 0, 0, "the keys of the deduplication index", &I::keys},
        {"queue", "cleanup|dedup", 1, 1, "the requests that wait", &I::queue},
        {"stores", "", 0, 0, "the stores that are there", &I::stores},
        {"control", "", 0, 0, "a store's control block", &I::control},
        {"node", "N", 1, 1, "a node, its tree and its record", &I::node},
        {"id", "N", 1, 1, "the pointer chain of a file id", &I::pointerChain},
        {"pointers", "", 0, 0, "the free list of the pointer file", &I::pointers},
        {"dir", "N [INSTANCE]", 1, 2, "a directory, live or at a snapshot", &I::directory},
        {"pages", "N", 1, 1, "the directory pages of a stream", &I::pages},
        {"tree", "", 0, 0, "the keys of the tree of names", &I::nameTree},
        {"snapshots", "", 0, 0, "the header of each snapshot", &I::snapshots},
        {"snapshot", "N", 1, 1, "header and entries of a snapshot", &I::snapshot},
        {"dedup", "[N]", 0, 1, "a list of streams to deduplicate", &I::dedupList},
        {"state", "FILE", 1, 1, "a sink's state file", &I::state},
        {"list", "FILE", 1, 1, "a value list, text or binary", &I::valueList},
        {"log", "FILE", 1, 1, "the logs of a file", &I::logFile},
    };
    return table;
}

QString Inspector::help() {
    QString text;
    for (Command const& command : commands())
        text += QStringLiteral("  %1 %2\n")
                    .arg(QStringLiteral("%1 %2")
                             .arg(QLatin1String(command.word), QLatin1String(command.arguments))
                             .leftJustified(24),
                         QLatin1String(command.text));
    return text;
}

Inspector::Inspector(RepositoryPaths paths, StoreId store, Print print)
    : paths_(std::move(paths)), store_(store), print_(std::move(print)) {}

Inspector::~Inspector() = default;

Inspector::Result Inspector::inspect(QStringList const& words) {
    damaged_ = usage_ = false;
    lines_ = 0;
    auto const arguments = words.mid(1);
    auto const found = std::ranges::find_if(commands(), [&](Command const& command) {
        return !words.isEmpty() && words.front() == QLatin1String(command.word) &&
               arguments.size() >= command.least && arguments.size() <= command.most;
    });
    if (found == commands().end())
        return Result::Usage;
    (this->*found->run)(arguments);
    if (usage_)
        return Result::Usage;
    return damaged_ ? Result::Damaged : Result::Done;
}

void Inspector::say(QString const& line) {
    if (++lines_ < mostLines)
        print_(line);
    else if (lines_ == mostLines)
        print_(QStringLiteral("... and more"));
}

void Inspector::fault(QString const& text) {
    damaged_ = true;
    print_(QStringLiteral("fault: ") + text);
}

bool Inspector::number(QString const& word, std::uint64_t& value) {
    bool good = false;
    value = word.startsWith(QLatin1String("0x")) ? word.mid(2).toULongLong(&good, 16)
                                                 : word.toULongLong(&good, 10);
    usage_ = usage_ || !good;
    return good;
}

QString Inspector::storePath() {
    auto id = store_;
    if (!id) {
        auto const names = FileSystem::inForce().names(paths_.stores, FileSystem::Kind::Directory);
        if (!names) {
            fault(names.status().text());
            return {};
        }
        QList<StoreId> ids;
        for (QString const& name : *names) {
            bool good = false;
            StoreId const each{name.toULongLong(&good, 16)};
            if (good && name.size() == storeIdDigits)
                ids.append(each);
        }
        if (ids.size() != 1) {
            fault(QStringLiteral("there are %1 stores: say which one").arg(ids.size()));
            return {};
        }
        id = ids.front();
    }
    return paths_.stores + "/" + QString::number(id.value, 16).rightJustified(storeIdDigits, u'0');
}

void Inspector::hexDump(void const* data, std::uint32_t count) {
    constexpr std::uint32_t perLine = 16;
    auto const* bytes = static_cast<std::uint8_t const*>(data);
    for (std::uint32_t at = 0; at < count; at += perLine) {
        QString line = QStringLiteral("  %1 ").arg(at, 4, 16, QLatin1Char('0'));
        QString letters;
        for (std::uint32_t i = at; i < std::min(at + perLine, count); ++i) {
            line += QStringLiteral(" %1").arg(bytes[i], 2, 16, QLatin1Char('0'));
            letters += bytes[i] >= 0x20 && bytes[i] < 0x7F ? QChar(bytes[i]) : QChar(u'.');
        }
        say(line.leftJustified(56) + letters);
    }
}

/// A block by its place, whatever the file's header says.
bool Inspector::record(QString const& path, std::uint32_t size, std::uint64_t number,
                       std::vector<std::uint8_t>& bytes) {
    auto const file = RawFile::make();
    if (!file->open(path, RawFile::Mode::ReadOnly)) {
        fault(path + QStringLiteral(" can't be opened"));
        return false;
    }
    bytes.assign(size, 0);
    auto const length = file->length();
    if (!length) {
        fault(length.status().text());
        return false;
    }
    if (number >= *length / size) {
        fault(QStringLiteral("%1 has %2 blocks and no block %3")
                  .arg(path)
                  .arg(*length / size)
                  .arg(number));
        return false;
    }
    if (file->readWhole(number * size, bytes.data(), size))
        return true;
    fault(QStringLiteral("block %1 of %2 can't be read").arg(number).arg(path));
    return false;
}

void Inspector::openReader() {
    if (reader_)
        return;
    CheckReport report;
    std::uint64_t nextBlock = 0;
    data_ = RawFile::make();
    if (data_->open(paths_.streamData + "/data.blocks", RawFile::Mode::ReadOnly)) {
        RawRefCountedBlocks::Control control;
        if (!RawRefCountedBlocks::readControl(*data_, control))
            fault(QStringLiteral("data.blocks has no sound control block"));
        auto const length = data_->length();
        if (!length)
            fault(length.status().text());
        nextBlock = length ? *length / TreeReader::blockSize : 0;
    } else {
        fault(QStringLiteral("data.blocks can't be opened"));
        data_.reset();
    }
    indirect_ = std::make_unique<BlockFile>(cacheBlocks);
    (void)indirect_->open(paths_.streams + "/indirectdata.blocks",
                          QStringLiteral("indirectdata.blocks"), TreeReader::blockSize, report);
    for (Fault const& each : report.faults())
        fault(each.line());
    reader_ = std::make_unique<TreeReader>(data_.get(), nextBlock, *indirect_);
}

// --- trees of blocks

/// Runs of consecutive numbers, and where in the content they stand.
void Inspector::runs(std::uint8_t const* entries, std::uint32_t count, int indent) {
    auto const entry = [entries](std::uint32_t i) {
        return loadLittle<std::uint64_t>(entries + i * 8);
    };
    for (std::uint32_t i = 0; i < count;) {
        std::uint64_t const first = entry(i);
        std::uint32_t end = i + 1;
        while (end < count && entry(end) == (first == 0 ? 0 : first + (end - i)))
            ++end;
        if (first != 0)
            say(QStringLiteral("%1entries %2 to %3: blocks %4 to %5")
                    .arg(QString(indent, u' '))
                    .arg(i)
                    .arg(end - 1)
                    .arg(first)
                    .arg(first + (end - i) - 1));
        i = end;
    }
}

void Inspector::tree(TreeRecord record, std::uint32_t width) {
    say(QStringLiteral("  length %1, depth %2").arg(record.length()).arg(record.depth()));
    std::uint32_t const entries = TreeReader::entries(width);
    if (!TreeReader::sound(record, width)) {
        fault(QStringLiteral("a depth of %1 with a length of %2 can't be")
                  .arg(record.depth())
                  .arg(record.length()));
        hexDump(record.bytes(), width);
    } else if (record.depth() == 0) {
        hexDump(record.entries(), static_cast<std::uint32_t>(record.length()));
    } else if (record.depth() == 1) {
        runs(record.entries(), entries, 2);
    } else {
        for (std::uint32_t i = 0; i < entries; ++i)
            if (record.entry(i) != 0)
                subtree(record.entry(i), record.depth() - 1, i);
    }
}

void Inspector::subtree(std::uint64_t block, std::uint32_t height, std::uint64_t index) {
    int const indent = 2 * static_cast<int>(TreeRecord::maximumDepth + 1 - height);
    say(QStringLiteral("%1entry %2: indirect block %3, level %4")
            .arg(QString(indent, u' '))
            .arg(index)
            .arg(block)
            .arg(height));
    std::vector<std::uint8_t> bytes;
    if (!record(paths_.streams + "/indirectdata.blocks", TreeReader::blockSize, block, bytes))
        return;
    if (height == 1)
        return runs(bytes.data(), TreeReader::fanOut, indent + 2);
    for (std::uint32_t i = 0; i < TreeReader::fanOut && lines_ < mostLines; ++i)
        if (auto const child = loadLittle<std::uint64_t>(bytes.data() + i * 8))
            subtree(child, height - 1, i);
}

} // namespace Morva
