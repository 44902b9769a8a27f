#include "replication/repository/store/SnapshotFile.h"

#include "base/messages/XmlList.h"
#include "base/process/Context.h"
#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/streams/DedupStatistics.h"

#include <QDateTime>
#include <QFileInfo>

#include <algorithm>
#include <cstring>
#include <vector>

namespace Replication {

using Morva::loadLittle;
using Morva::RawFile;
using Morva::storeLittle;
using Morva::TracedLock;

namespace {

// The table in the header, as offsets.
enum Offset : std::uint32_t {
    atLength = 0,
    atVersion = 8,
    atCounters = 16,
    atDirectoryCount = 16,
    atFileCount = 24,
    atDedup = 80,
    atType = 120,
    atGeneration = 124,
    atPreviousInstance = 128,
    atSourceTime = 132,
    atRepositoryTime = 136,
    atPolicy = 140,
    atOpId = 144,
    atRuleSet = 148,
    atDedupState = 152,
    atRetire = 156,
    atRetired = 157,
    atNeedResync = 158,
    atDedupOffset = 160,
    atDeleteOffset = 168,
    atLogicalSize = 176,
    atLabelSize = 184,
    atAnalyzed = 188,
    atMarkedForDeletion = 189,
    atIndexed = 190,
    atLabel = 320
};

constexpr std::uint32_t labelArea = 2048;
constexpr std::uint32_t wholeHeader = atLabel + labelArea;
constexpr std::uint32_t oldHeader = 512;
constexpr std::uint32_t firstEntry = 4096;
constexpr std::uint32_t readBuffer = 32768;
constexpr int instanceDigits = 10;
QString const prefix = QStringLiteral("snapshot");

std::uint32_t word(std::uint8_t const* header, Offset at) {
    return loadLittle<std::uint32_t>(header + at);
}
std::uint64_t wide(std::uint8_t const* header, Offset at) {
    return loadLittle<std::uint64_t>(header + at);
}
template <class Header> void setWord(Header& header, Offset at, std::uint32_t value) {
    storeLittle(header.data() + at, value);
}
template <class Header> void setWide(Header& header, Offset at, std::uint64_t value) {
    storeLittle(header.data() + at, value);
}

/// Units that a label may have: in a converted file the entries begin early.
std::uint32_t labelRoom(std::uint8_t const* header) {
    std::uint64_t const area = wide(header, atDeleteOffset) - atLabel;
    return static_cast<std::uint32_t>(
        std::min<std::uint64_t>(SnapshotFile::maximumLabel, area / 2));
}

} // namespace

// --- opening

SnapshotFile::SnapshotFile(QString const& directory, Instance instance) : reader_(readBuffer) {
    if (!instance) {
        MORVA_TRACE(Always) << "Invalid instance value";
        return;
    }
    path_ = directory + QLatin1Char('/') + fileName(instance);
    instance_ = instance;
    auto file = RawFile::make();
    bool good = false;
    if (file->open(path_, RawFile::Mode::ReadWrite)) {
        good = load(*file, false);
    } else if (QFileInfo::exists(path_)) {
        // To make it anew would wipe out what it says of its snapshot.
        MORVA_TRACE(Always) << "Failed to open snapshot file" << path_ << file->lastError();
    } else {
        MORVA_TRACE(Normal) << "Create" << path_ << "as it does not exist";
        good = create(*file);
    }
    file->close();
    if (!good)
        instance_ = {};
}

SnapshotFile::SnapshotFile(QString const& directory, Instance instance, ReadOnly)
    : reader_(readBuffer) {
    path_ = directory + QLatin1Char('/') + fileName(instance);
    auto file = RawFile::make();
    if (instance && file->open(path_, RawFile::Mode::ReadOnly) && load(*file, true))
        instance_ = instance;
    file->close();
}

SnapshotFile::~SnapshotFile() {
    (void)close();
}

QString SnapshotFile::fileName(Instance instance) {
    return QStringLiteral("%1%2").arg(prefix).arg(instance.value, instanceDigits, 10,
                                                  QLatin1Char('0'));
}

Instance SnapshotFile::fromFileName(QString const& name) {
    if (name.size() != prefix.size() + instanceDigits || !name.startsWith(prefix))
        return {};
    auto const digits = QStringView(name).sliced(prefix.size());
    if (!std::all_of(digits.begin(), digits.end(), [](QChar c) { return c >= u'0' && c <= u'9'; }))
        return {};
    return Instance{digits.toUInt()};
}

bool SnapshotFile::load(RawFile& file, bool readOnly) {
    std::vector<std::uint8_t> bytes(wholeHeader);
    std::uint32_t const count = file.readAt(0, bytes.data(), wholeHeader);
    if (count < oldHeader) {
        MORVA_TRACE(Always) << "Failed to read snapshot header";
        return false;
    }
    std::memcpy(header_.data(), bytes.data(), headerSize);
    if (wide(header_.data(), atDeleteOffset) == 0) {
        convertHeader();
        return readOnly || convert(file);
    }
    if (wide(header_.data(), atDeleteOffset) < oldHeader) {
        MORVA_TRACE(Always) << "Failed to read snapshot header";
        return false;
    }
    if (type() != SnapshotType::Old)
        loadLabel(bytes.data(), count);
    // What lies outside the label's area is no label: nothing of it is carried on.
    setWord(header_, atLabelSize, static_cast<std::uint32_t>(label_.size()));
    return true;
}

void SnapshotFile::loadLabel(std::uint8_t const* bytes, std::uint32_t count) {
    if (count < wholeHeader) {
        MORVA_TRACE(Always) << "Failed to read snapshot header";
        return;
    }
    std::uint32_t const size = std::min(word(bytes, atLabelSize), labelRoom(bytes));
    label_ = QString(static_cast<qsizetype>(size), Qt::Uninitialized);
    std::memcpy(label_.data(), bytes + atLabel, std::size_t{2} * size);
}

void SnapshotFile::convertHeader() {
    auto const changed =
        static_cast<std::uint32_t>(QFileInfo(path_).lastModified().toSecsSinceEpoch());
    setWord(header_, atVersion, 0);
    setWide(header_, atDeleteOffset, oldHeader);
    setWord(header_, atSourceTime, changed);
    setWord(header_, atRepositoryTime, changed);
    setWord(header_, atLabelSize, 0);
}

bool SnapshotFile::convert(RawFile& file) {
    // The header of the old layout ends where the entries begin, so it is written whole.
    std::array<std::uint8_t, oldHeader> image{};
    std::memcpy(image.data(), header_.data(), headerSize);
    if (file.writeAt(0, image.data(), oldHeader) == oldHeader)
        return true;
    MORVA_TRACE(Always) << "Failed to write snapshot header";
    return false;
}

bool SnapshotFile::create(RawFile& file) {
    if (!file.create(path_, RawFile::Mode::Create)) {
        MORVA_TRACE(Always) << "Failed to create snapshot file" << path_;
        return false;
    }
    setWord(header_, atVersion, 1);
    setWide(header_, atDeleteOffset, firstEntry);
    setWord(header_, atGeneration, 1);
    std::array<std::uint8_t, firstEntry> image{};
    std::memcpy(image.data(), header_.data(), headerSize);
    if (file.writeAt(0, image.data(), firstEntry) == firstEntry)
        return true;
    MORVA_TRACE(Always) << "Failed to initialize snapshot file" << path_;
    file.deleteOnClose();
    return false;
}

// --- fields

template <class T> T SnapshotFile::read(T (*get)(std::uint8_t const*)) const {
    TracedLock lock(lock_);
    return get(header_.data());
}

Instance SnapshotFile::instance() const {
    TracedLock lock(lock_);
    return instance_;
}

Instance SnapshotFile::previousInstance() const {
    return read<Instance>([](auto* h) { return Instance{word(h, atPreviousInstance)}; });
}

SnapshotType SnapshotFile::type() const {
    return read<SnapshotType>([](auto* h) { return static_cast<SnapshotType>(word(h, atType)); });
}

bool SnapshotFile::retire() const {
    return read<bool>([](auto* h) { return h[atRetire] != 0; });
}

bool SnapshotFile::retired() const {
    return read<bool>([](auto* h) { return h[atRetired] != 0; });
}

bool SnapshotFile::needResync() const {
    return read<bool>([](auto* h) { return h[atNeedResync] != 0; });
}

SnapshotFile::Counters SnapshotFile::counters() const {
    return read<Counters>([](auto* h) {
        Counters result;
        std::memcpy(result.data(), h + atCounters, sizeof result);
        return result;
    });
}

DedupStatistics SnapshotFile::dedupStatistics() const {
    return read<DedupStatistics>([](auto* h) {
        DedupStatistics result;
        static_assert(sizeof result == 40);
        std::memcpy(&result, h + atDedup, sizeof result);
        return result;
    });
}

DedupState SnapshotFile::dedupState() const {
    return read<DedupState>([](auto* h) { return static_cast<DedupState>(word(h, atDedupState)); });
}

std::uint64_t SnapshotFile::dedupOffset() const {
    return read<std::uint64_t>([](auto* h) { return wide(h, atDedupOffset); });
}

std::uint64_t SnapshotFile::deleteOffset() const {
    return read<std::uint64_t>([](auto* h) { return wide(h, atDeleteOffset); });
}

std::uint64_t SnapshotFile::logicalSize() const {
    return read<std::uint64_t>([](auto* h) { return wide(h, atLogicalSize); });
}

std::uint64_t SnapshotFile::directoryCount() const {
    return read<std::uint64_t>([](auto* h) { return wide(h, atDirectoryCount); });
}

std::uint64_t SnapshotFile::fileCount() const {
    return read<std::uint64_t>([](auto* h) { return wide(h, atFileCount); });
}

std::uint32_t SnapshotFile::sourceTime() const {
    return read<std::uint32_t>([](auto* h) { return word(h, atSourceTime); });
}

std::uint32_t SnapshotFile::repositoryTime() const {
    return read<std::uint32_t>([](auto* h) { return word(h, atRepositoryTime); });
}

std::uint32_t SnapshotFile::version() const {
    return read<std::uint32_t>([](auto* h) { return word(h, atVersion); });
}

std::uint32_t SnapshotFile::policy() const {
    return read<std::uint32_t>([](auto* h) { return word(h, atPolicy); });
}

std::uint32_t SnapshotFile::opId() const {
    return read<std::uint32_t>([](auto* h) { return word(h, atOpId); });
}

std::uint32_t SnapshotFile::ruleSet() const {
    return read<std::uint32_t>([](auto* h) { return word(h, atRuleSet); });
}

QString SnapshotFile::label() const {
    TracedLock lock(lock_);
    return label_;
}

bool SnapshotFile::analyzed() const {
    return read<bool>([](auto* h) { return h[atAnalyzed] != 0; });
}

bool SnapshotFile::markedForDeletion() const {
    return read<bool>([](auto* h) { return h[atMarkedForDeletion] != 0; });
}

bool SnapshotFile::indexed() const {
    return read<bool>([](auto* h) { return h[atIndexed] != 0; });
}

void SnapshotFile::setPreviousInstance(Instance instance) {
    TracedLock lock(lock_);
    setWord(header_, atPreviousInstance, instance.value);
}

void SnapshotFile::setDedupState(DedupState state) {
    TracedLock lock(lock_);
    setWord(header_, atDedupState, static_cast<std::uint32_t>(state));
}

void SnapshotFile::setDedupOffset(std::uint64_t offset) {
    TracedLock lock(lock_);
    setWide(header_, atDedupOffset, offset);
}

void SnapshotFile::setDeleteOffset(std::uint64_t offset) {
    TracedLock lock(lock_);
    setWide(header_, atDeleteOffset, offset);
}

void SnapshotFile::setLength(std::uint64_t length) {
    TracedLock lock(lock_);
    setWide(header_, atLength, length);
}

void SnapshotFile::setCounters(Counters const& counters) {
    TracedLock lock(lock_);
    std::memcpy(header_.data() + atCounters, counters.data(), sizeof counters);
}

void SnapshotFile::setDedupStatistics(DedupStatistics const& statistics) {
    TracedLock lock(lock_);
    // The first word is carried through.
    std::memcpy(header_.data() + atDedup + 8, &statistics.streams, sizeof statistics - 8);
}

void SnapshotFile::setIndexed(bool value) {
    TracedLock lock(lock_);
    header_[atIndexed] = value;
}

void SnapshotFile::labelLocked(QString const& text) {
    label_ = text.left(labelRoom(header_.data()));
    setWord(header_, atLabelSize, static_cast<std::uint32_t>(label_.size()));
}

void SnapshotFile::setLabel(QString const& text) {
    TracedLock lock(lock_);
    labelLocked(text);
}

void SnapshotFile::setType(SnapshotType type, bool needResync) {
    TracedLock lock(lock_);
    setWord(header_, atType, static_cast<std::uint32_t>(type));
    header_[atNeedResync] = needResync;
}

void SnapshotFile::policyLocked(std::uint32_t policy, std::uint32_t opId, std::uint32_t ruleSet) {
    setWord(header_, atType, static_cast<std::uint32_t>(SnapshotType::Policy));
    setWord(header_, atPolicy, policy);
    setWord(header_, atOpId, opId);
    setWord(header_, atRuleSet, ruleSet);
}

void SnapshotFile::setPolicy(std::uint32_t policy, std::uint32_t opId, std::uint32_t ruleSet,
                             bool needResync) {
    TracedLock lock(lock_);
    policyLocked(policy, opId, ruleSet);
    header_[atNeedResync] = needResync;
}

bool SnapshotFile::updateResyncSnapshot(std::uint32_t policy, std::uint32_t opId,
                                        std::uint32_t ruleSet, bool indexed, QString const& label) {
    TracedLock lock(lock_);
    if (word(header_.data(), atType) != static_cast<std::uint32_t>(SnapshotType::Synchronization))
        return false;
    policyLocked(policy, opId, ruleSet);
    header_[atIndexed] = indexed;
    labelLocked(label);
    return true;
}

void SnapshotFile::retireLocked() {
    setWide(header_, atLogicalSize, 0);
    setWide(header_, atDirectoryCount, 0);
    header_[atRetire] = 1;
    header_[atAnalyzed] = 1;
}

void SnapshotFile::setRetire() {
    TracedLock lock(lock_);
    retireLocked();
}

void SnapshotFile::setRetired() {
    TracedLock lock(lock_);
    retireLocked();
    header_[atRetired] = 1;
}

void SnapshotFile::clearRetired() {
    TracedLock lock(lock_);
    header_[atRetired] = 0;
}

void SnapshotFile::markForDeletion() {
    TracedLock lock(lock_);
    header_[atMarkedForDeletion] = 1;
}

void SnapshotFile::analyzed(std::uint64_t logicalSize, std::uint64_t directories,
                            std::uint64_t files) {
    TracedLock lock(lock_);
    if (header_[atAnalyzed])
        return;
    setWide(header_, atLogicalSize, logicalSize);
    setWide(header_, atDirectoryCount, directories);
    setWide(header_, atFileCount, files);
    header_[atAnalyzed] = 1;
}

bool SnapshotFile::analysis(std::uint64_t& logicalSize, std::uint64_t& directories,
                            std::uint64_t& files) const {
    TracedLock lock(lock_);
    if (!header_[atAnalyzed])
        return false;
    logicalSize = wide(header_.data(), atLogicalSize);
    directories = wide(header_.data(), atDirectoryCount);
    files = wide(header_.data(), atFileCount);
    return true;
}

bool SnapshotFile::snapshot(Counters const& counters, std::uint32_t sourceTime, Instance previous,
                            bool dedup) {
    TracedLock lock(lock_);
    std::memcpy(header_.data() + atCounters, counters.data(), sizeof counters);
    setWord(header_, atSourceTime, sourceTime);
    setWord(header_, atRepositoryTime,
            static_cast<std::uint32_t>(Morva::Context::systemTime() / 1000));
    setWord(header_, atPreviousInstance, previous.value);
    setWord(header_, atDedupState,
            static_cast<std::uint32_t>(dedup ? DedupState::Pending : DedupState::None));
    return writeHeaderLocked();
}

bool SnapshotFile::writeHeader() {
    TracedLock lock(lock_);
    return writeHeaderLocked();
}

bool SnapshotFile::writeHeaderLocked() {
    if (!instance_)
        return false;
    auto const label = 2 * static_cast<std::uint32_t>(label_.size());
    std::array<std::uint8_t, wholeHeader> image;
    std::memcpy(image.data(), header_.data(), headerSize);
    std::memcpy(image.data() + atLabel, label_.constData(), label);
    std::uint32_t const count = headerSize + label;
    bool written = false;
    if (writer_) {
        written = writer_->writeAt(0, image.data(), count) == count;
    } else {
        auto file = RawFile::make();
        written = file->open(path_, RawFile::Mode::ReadWrite) &&
                  file->writeAt(0, image.data(), count) == count;
        file->close();
    }
    MORVA_TRACE(Verbose) << "Written" << written;
    if (!written)
        MORVA_TRACE(Always) << "Failed to write snapshot header" << path_;
    return written;
}

} // namespace Replication
