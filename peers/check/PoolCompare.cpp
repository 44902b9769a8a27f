// What the pool's files say of blocks and streams, against what was found.

#include "base/blocks/FreeList.h"
#include "base/blocks/ReferenceCount.h"
#include "base/values/Sha1.h"
#include "peers/check/Fingerprint.h"
#include "peers/check/PoolCheck.h"

#include <algorithm>
#include <cstring>

namespace Morva {

using Replication::Digest;
using Replication::StreamNode;
using Replication::TreeRecord;

namespace {

constexpr std::uint32_t pageCache = 16;
constexpr std::uint32_t readBuffer = 1U << 20;

QString references(std::uint32_t count) {
    return count == 1 ? QStringLiteral("1 reference was found")
                      : QStringLiteral("%1 references were found").arg(count);
}

/// Compares the counts of a table with those found. Gives the set of blocks with a count; empty
/// when the table doesn't open.
std::vector<bool> compareCounts(QString const& path, QString const& where, std::uint64_t limit,
                                CountTable const& found, CheckReport& report) {
    ReferenceCount counts(pageCache);
    if (!counts.open(path, limit, 0, RawFile::Mode::ReadOnly)) {
        report.fault(FaultKind::Unreadable, where, QStringLiteral("is no sound table of counts"));
        return {};
    }
    std::vector<bool> counted(found.size());
    Morva::Status const read = counts.forEach([&](std::uint64_t block, std::uint32_t count) {
        if (block == 0 || block >= counted.size()) {
            report.fault(
                FaultKind::ReferenceCount, where,
                QStringLiteral("block %1 has count %2, but doesn't exist").arg(block).arg(count));
            return true;
        }
        counted[block] = true;
        if (found.get(block) != count)
            report.fault(FaultKind::ReferenceCount, where,
                         QStringLiteral("block %1 has count %2, but %3")
                             .arg(block)
                             .arg(count)
                             .arg(references(found.get(block))));
        return true;
    });
    if (!read)
        report.fault(FaultKind::Unreadable, where, QStringLiteral("can't be read to its end"));
    for (std::uint64_t block = 1; block < counted.size(); ++block)
        if (!counted[block] && found.get(block) != 0)
            report.fault(FaultKind::ReferenceCount, where,
                         QStringLiteral("block %1 has no count, but %2")
                             .arg(block)
                             .arg(references(found.get(block))));
    report.figures.blocksRead += counted.size() / 1024 + 1;
    return counted;
}

} // namespace

void PoolCheck::finish() {
    compareStreams();
    compareData();
    compareIndirect();
    if (options_.readData)
        readData();
    report_.figures.bytesRead += reader_->bytesRead();
    report_.figures.blocksRead += reader_->bytesRead() / TreeReader::blockSize;
}

void PoolCheck::lost(QString const& where, std::uint64_t first, std::uint64_t end,
                     char const* what) {
    QString const text =
        end - first == 1
            ? QStringLiteral("%1 %2 is").arg(QLatin1String(what)).arg(first)
            : QStringLiteral("%1s %2 to %3 are").arg(QLatin1String(what)).arg(first).arg(end - 1);
    report_.fault(FaultKind::LostSpace, where, text + QStringLiteral(" neither in use nor free"));
}

void PoolCheck::compareStreams() {
    for (std::uint64_t number = 1; number < streams_.size(); ++number) {
        Stream const& stream = streams_[number];
        if ((stream.flags & Exists) == 0)
            continue;
        if (stream.counted != stream.found)
            streamFault(FaultKind::StreamCount, number,
                        QStringLiteral("it has count %1, but %2")
                            .arg(stream.counted)
                            .arg(references(stream.found)));
        else if (stream.counted == 0 && (stream.flags & Waiting) == 0)
            streamFault(FaultKind::StreamCount, number,
                        QStringLiteral("nothing refers to it, and it doesn't wait for cleanup"));
    }
}

void PoolCheck::compareData() {
    if (!data_)
        return;
    auto const counted =
        compareCounts(paths_.streamData + "/data.refs", QStringLiteral("data.refs"), dataMask_,
                      census_->data(), report_);
    if (counted.empty())
        return;
    report_.figures.dataBlocks =
        static_cast<std::uint64_t>(std::count(counted.begin(), counted.end(), true));
    compareFree(counted);
}

void PoolCheck::compareFree(std::vector<bool> const& counted) {
    auto const where = QStringLiteral("data.free");
    FreeList list(pageCache);
    if (!list.open(paths_.streamData + "/data.free", dataMask_, RawFile::Mode::ReadOnly)) {
        report_.fault(FaultKind::Unreadable, where, QStringLiteral("is no sound free list"));
        return;
    }
    auto const fault = [&](std::uint64_t block, char const* text) {
        report_.fault(FaultKind::FreeList, where,
                      QStringLiteral("block %1 %2").arg(block).arg(QLatin1String(text)));
    };
    std::vector<bool> isFree(counted.size());
    std::uint64_t numbers = 0;
    Morva::Status const read = list.forEach([&](std::uint64_t first, std::uint64_t count) {
        numbers += count;
        if (first >= isFree.size() || count > isFree.size() - first)
            fault(first, "is free, but doesn't exist");
        for (std::uint64_t block = first; count > 0 && block < isFree.size(); ++block, --count) {
            if (isFree[block])
                fault(block, "is free twice");
            else if (counted[block])
                fault(block, "is free and in use");
            isFree[block] = true;
        }
        return true;
    });
    if (!read)
        report_.fault(FaultKind::FreeList, where, QStringLiteral("a run of numbers is damaged"));
    if (numbers != list.count())
        report_.fault(
            FaultKind::FreeList, where,
            QStringLiteral("it counts %1 numbers and has %2").arg(list.count()).arg(numbers));
    std::uint64_t from = 0;
    for (std::uint64_t block = 1; block <= isFree.size(); ++block) {
        bool const isLost = block < isFree.size() && !isFree[block] && !counted[block] &&
                            census_->data().get(block) == 0;
        if (isLost && from == 0)
            from = block;
        else if (!isLost && from != 0)
            lost(QStringLiteral("data.blocks"), std::exchange(from, 0), block, "data block");
    }
}

void PoolCheck::compareIndirect() {
    if (!indirect_.isOpen())
        return;
    auto const counted =
        compareCounts(paths_.streams + "/indirectdata.refs", QStringLiteral("indirectdata.refs"),
                      indirect_.mask(), census_->indirect(), report_);
    std::uint64_t from = 0;
    for (std::uint64_t block = Blocks::firstBlock(); block <= counted.size(); ++block) {
        bool const exists = block < counted.size();
        if (exists && counted[block] && indirect_.isFree(block))
            report_.fault(FaultKind::BlockFile, indirect_.where(),
                          QStringLiteral("block %1 is free and in use").arg(block));
        if (exists && counted[block])
            ++report_.figures.indirectBlocks;
        bool const isLost = exists && !counted[block] && !indirect_.isFree(block) &&
                            census_->indirect().get(block) == 0;
        if (isLost && from == 0)
            from = block;
        else if (!isLost && from != 0)
            lost(indirect_.where(), std::exchange(from, 0), block, "indirect block");
    }
}

// --- contents

void PoolCheck::readData() {
    std::vector<std::uint8_t> buffer(readBuffer);
    nodes_.scan(Blocks::firstBlock() + 1, report_, [&](std::uint64_t number, auto const* bytes) {
        if ((streams_[number].flags & Exists) == 0)
            return;
        readStream(number, bytes, buffer);
        if (options_.progress)
            options_.progress(report_.figures.bytesRead + reader_->bytesRead());
    });
}

void PoolCheck::readStream(std::uint64_t number, std::uint8_t const* bytes,
                           std::vector<std::uint8_t>& buffer) {
    StreamNode const node(const_cast<std::uint8_t*>(bytes));
    TreeRecord const record = node.record();
    Digest const digest = node.digest();
    bool const known = digest.type == Digest::eRepDigestSha1;
    // Streams that share all their blocks and a digest are read once.
    if (record.depth() != 0 && !verified_
                                    .insert(fingerprint(record.bytes(), TreeRecord::streamSize,
                                                        fingerprint(&digest, sizeof digest)))
                                    .second)
        return;
    Sha1 sha;
    for (std::uint64_t at = 0; at < record.length();) {
        auto const count =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(readBuffer, record.length() - at));
        if (!reader_->read(record, TreeRecord::streamSize, at, buffer.data(), count)) {
            streamFault(FaultKind::Data, number,
                        QStringLiteral("its bytes from %1 on can't be read").arg(at));
            return;
        }
        if (known)
            sha.addData(buffer.data(), count);
        at += count;
    }
    if (!known)
        return;
    ++report_.figures.digestsVerified;
    if (std::memcmp(sha.result().data, digest.value.data(), Digest::sha1Size) != 0)
        streamFault(FaultKind::Data, number, QStringLiteral("its bytes don't have its digest"));
}

} // namespace Morva
