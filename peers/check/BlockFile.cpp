#include "peers/check/BlockFile.h"

#include <algorithm>

namespace Morva {

namespace {

constexpr std::uint64_t scanBytes = 1U << 20;

} // namespace

bool BlockFile::open(QString const& path, QString const& where, std::uint32_t blockSize,
                     CheckReport& report) {
    where_ = where;
    auto file = RawFile::make();
    if (!file->open(path, RawFile::Mode::ReadOnly)) {
        report.fault(FaultKind::Unreadable, where, QStringLiteral("can't be opened"));
        return false;
    }
    if (!blocks_.open(path, 0, RawFile::Mode::ReadOnly)) {
        report.fault(FaultKind::BlockFile, where, QStringLiteral("has no sound header"));
        return false;
    }
    if (blocks_.blockSize() != blockSize) {
        report.fault(FaultKind::BlockFile, where,
                     QStringLiteral("has blocks of %1 bytes and not of %2")
                         .arg(blocks_.blockSize())
                         .arg(blockSize));
        (void)blocks_.close(); // it was only looked at
        return false;
    }
    file_ = std::move(file);
    findFree(report);
    return true;
}

void BlockFile::findFree(CheckReport& report) {
    free_.assign(blocks_.blockCount(), false);
    bool repeated = false;
    Morva::Status const whole = blocks_.forEachFree([&](std::uint64_t number) {
        repeated = free_[number];
        free_[number] = true;
        return !repeated;
    });
    if (repeated)
        report.fault(FaultKind::BlockFile, where_,
                     QStringLiteral("the chain of free blocks runs in a circle"));
    else if (!whole)
        report.fault(FaultKind::BlockFile, where_,
                     QStringLiteral("the chain of free blocks is damaged"));
}

void BlockFile::scan(
    std::uint64_t first, CheckReport& report,
    std::function<void(std::uint64_t number, std::uint8_t const* bytes)> const& visit) {
    if (!isOpen())
        return;
    std::uint32_t const size = blocks_.blockSize();
    std::uint64_t const end = blocks_.blockCount();
    std::vector<std::uint8_t> buffer(scanBytes / size * size);
    bool oneByOne = false;
    while (first < end) {
        std::uint64_t const wanted =
            oneByOne ? 1 : std::min<std::uint64_t>(buffer.size() / size, end - first);
        auto const read =
            file_->readAt(first * size, buffer.data(), static_cast<std::uint32_t>(wanted * size));
        if (!read && wanted > 1) {
            oneByOne = true; // up to the block that can't be read
            continue;
        }
        std::uint64_t const got = read ? *read / size : 0;
        for (std::uint64_t i = 0; i < got; ++i)
            visit(first + i, buffer.data() + i * size);
        report.figures.blocksRead += got;
        report.figures.bytesRead += got * size;
        first += got;
        if (got < wanted) {
            report.fault(FaultKind::Unreadable, where_,
                         QStringLiteral("block %1 can't be read").arg(first));
            ++first;
            oneByOne = false;
        }
    }
}

} // namespace Morva
