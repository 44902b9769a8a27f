#include "replication/repository/store/SavedRecords.h"

#include "base/trace/Trace.h"
#include "base/trees/RecordCheck.h"
#include "base/values/LittleEndian.h"

#include <cstring>
#include <utility>

namespace Replication {

using Morva::Extent;
using Morva::loadLittle;
using Morva::Status;
using Morva::storeLittle;

namespace {

constexpr std::uint32_t pageSize = 32768;
constexpr std::uint32_t atSection = 8, atKeySize = 12, frameSize = 16, sectionSize = 4;
constexpr std::uint32_t removedBit = 0x80000000U;
/// Below this a file is never written anew.
constexpr std::uint64_t smallFile = 65536;

} // namespace

SavedRecords::SavedRecords(QString path) : path_(std::move(path)) {}

std::uint64_t SavedRecords::sizeOf(QByteArray const& key, QByteArray const& body) {
    return frameSize + static_cast<std::uint64_t>(key.size() - sectionSize + body.size());
}

// --- reading

Status SavedRecords::load() {
    MORVA_METHOD("load");
    clear();
    broken_ = false;
    list_ = std::make_unique<Morva::PagedList>(path_, pageSize);
    auto read = list_->open();
    found_ = !read.is(Status::Code::NotFound);
    if (!found_)
        return {};
    if (read)
        read = readAll();
    if (!read) {
        clear();
        list_.reset();
    }
    return read;
}

Status SavedRecords::readAll() {
    Extent record;
    std::uint64_t count = 0;
    for (;; ++count) {
        MORVA_TRY_LET(bool const more, list_->read(record));
        if (!more)
            break;
        MORVA_TRY(take(record));
    }
    return count == list_->count() ? Status()
                                   : Status::corruption("read saved state", path_,
                                                        QStringLiteral("records are missing"));
}

Status SavedRecords::take(Extent record) {
    auto const damaged = [this] {
        return Status::corruption("read saved state", path_, QStringLiteral("a record is damaged"));
    };
    auto const* const bytes = record.bytes();
    if (record.size < frameSize ||
        loadLittle<std::uint64_t>(bytes) !=
            Morva::recordCheck(0, bytes + atSection, record.size - atSection))
        return damaged();
    auto const word = loadLittle<std::uint32_t>(bytes + atKeySize);
    auto const keySize = word & ~removedBit;
    if (keySize > record.size - frameSize)
        return damaged();
    QByteArray key(reinterpret_cast<char const*>(bytes + atSection), sectionSize);
    key.append(reinterpret_cast<char const*>(bytes + frameSize), keySize);
    listBytes_ += record.size;
    if (auto const known = records_.constFind(key); known != records_.cend()) {
        liveBytes_ -= sizeOf(key, known->body);
        records_.erase(known);
    }
    if ((word & removedBit) != 0)
        return {};
    QByteArray body(reinterpret_cast<char const*>(bytes + frameSize + keySize),
                    static_cast<qsizetype>(record.size - frameSize - keySize));
    liveBytes_ += sizeOf(key, body);
    records_.insert(key, {std::move(body), round_});
    return {};
}

QByteArray SavedRecords::nameOf(Section section, Extent key) {
    QByteArray name(sectionSize, '\0');
    storeLittle(name.data(), static_cast<std::uint32_t>(section));
    return name.append(static_cast<char const*>(key.data), static_cast<qsizetype>(key.size));
}

QByteArray const* SavedRecords::find(Section section, Extent key) const {
    auto const found = records_.constFind(nameOf(section, key));
    return found == records_.cend() ? nullptr : &found->body;
}

Status SavedRecords::forEach(Section section, Visit const& visit) const {
    for (auto at = records_.cbegin(); at != records_.cend(); ++at) {
        auto const* const key = reinterpret_cast<std::uint8_t const*>(at.key().constData());
        if (loadLittle<std::uint32_t>(key) != static_cast<std::uint32_t>(section))
            continue;
        auto const size = static_cast<std::uint32_t>(at.key().size()) - sectionSize;
        MORVA_TRY(visit(Extent(key + sectionSize, size), Extent(at->body)));
    }
    return {};
}

void SavedRecords::clear() {
    records_.clear();
    changed_.clear();
    listBytes_ = liveBytes_ = 0;
    broken_ = true;
}

// --- saving

void SavedRecords::put(Section section, Extent key, Extent body) {
    auto name = nameOf(section, key);
    auto const bytes = QByteArray::fromRawData(static_cast<char const*>(body.data),
                                               static_cast<qsizetype>(body.size));
    auto& record = records_[name];
    auto const fresh = record.round == 0;
    record.round = round_;
    if (!fresh && record.body == bytes)
        return;
    if (!fresh)
        liveBytes_ -= sizeOf(name, record.body);
    record.body = body.toByteArray();
    liveBytes_ += sizeOf(name, record.body);
    changed_.push_back(std::move(name));
}

Status SavedRecords::commit() {
    MORVA_METHOD("commit");
    std::vector<QByteArray> gone;
    for (auto at = records_.begin(); at != records_.end();) {
        if (at->round == round_) {
            ++at;
            continue;
        }
        gone.push_back(at.key());
        liveBytes_ -= sizeOf(at.key(), at->body);
        at = records_.erase(at);
    }
    if (changed_.empty() && gone.empty() && !broken_)
        return {};
    auto const saved = [&]() -> Status {
        if (broken_ || !list_ || (listBytes_ > smallFile && listBytes_ > 2 * liveBytes_))
            return rewrite();
        for (auto const& key : changed_)
            MORVA_TRY(append(key, &records_[key].body));
        for (auto const& key : gone)
            MORVA_TRY(append(key, nullptr));
        return list_->flush();
    }();
    changed_.clear();
    broken_ = !saved.ok();
    found_ = found_ || saved.ok();
    return saved;
}

Status SavedRecords::rewrite() {
    if (!list_)
        list_ = std::make_unique<Morva::PagedList>(path_, pageSize);
    list_->clear();
    listBytes_ = 0;
    for (auto at = records_.cbegin(); at != records_.cend(); ++at)
        MORVA_TRY(append(at.key(), &at->body));
    return list_->flush();
}

Status SavedRecords::append(QByteArray const& key, QByteArray const* body) {
    auto const keySize = static_cast<std::uint32_t>(key.size()) - sectionSize;
    QByteArray record(frameSize, '\0');
    std::memcpy(record.data() + atSection, key.constData(), sectionSize);
    storeLittle(record.data() + atKeySize, keySize | (body ? 0 : removedBit));
    record.append(key.constData() + sectionSize, keySize);
    if (body)
        record.append(*body);
    auto const size = static_cast<std::uint32_t>(record.size());
    storeLittle(
        record.data(),
        Morva::recordCheck(0, reinterpret_cast<std::uint8_t const*>(record.constData()) + atSection,
                           size - atSection));
    MORVA_TRY(list_->write(Extent(record)));
    listBytes_ += size;
    return {};
}

Status SavedRecords::close() {
    if (!list_)
        return {};
    auto closed = list_->close();
    list_.reset();
    return closed;
}

} // namespace Replication
