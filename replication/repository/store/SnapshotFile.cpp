#include "replication/repository/store/SnapshotFile.h"

#include "base/files/RawFile.h"
#include "base/messages/XmlList.h"
#include "base/process/Context.h"
#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "replication/repository/streams/DedupStatistics.h"

#include <QDateTime>

#include <algorithm>
#include <cstring>
#include <vector>

namespace Replication {

using Morva::loadLittle;
using Morva::RawFile;
using Morva::Status;
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
    atLinked = 191,
    atHandedOnLength = 192,
    atHandedOnTo = 200,
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
    TracedLock lock(lock_);
    Status outcome = loadLocked();
    if (outcome.is(Status::Code::NotFound)) {
        MORVA_TRACE(Normal) << "Create" << path_ << "as it does not exist";
        outcome = makeFile();
        if (!outcome)
            MORVA_TRACE(Always) << "Failed to create snapshot file" << outcome.text();
    }
    if (outcome)
        instance_ = instance;
}

SnapshotFile::SnapshotFile(QString const& directory, Instance instance, ReadOnly)
    : reader_(readBuffer) {
    path_ = directory + QLatin1Char('/') + fileName(instance);
    readOnly_ = true;
    TracedLock lock(lock_);
    if (instance && loadLocked())
        instance_ = instance;
}

SnapshotFile::SnapshotFile(QString const& directory, Instance instance, Existing existing)
    : path_(directory + QLatin1Char('/') + fileName(instance)),
      dedupFile_(existing.dedupFile),
      instance_(instance),
      reader_(readBuffer) {}

SnapshotFile::SnapshotFile(QString const& directory, Instance instance, New)
    : path_(directory + QLatin1Char('/') + fileName(instance)), reader_(readBuffer) {
    TracedLock lock(lock_);
    // To make it anew would wipe out what it says of its snapshot.
    auto const there = Morva::FileSystem::inForce().exists(path_);
    if (!there.ok())
        creation_ = there.status();
    else if (*there)
        creation_ = Status::corruption("create", path_, QStringLiteral("it is there already"));
    else
        creation_ = makeFile();
    if (creation_)
        instance_ = instance;
    else
        MORVA_TRACE(Always) << "Failed to create snapshot file" << creation_.text();
}

SnapshotFile::~SnapshotFile() {
    (void)close(); // of a file that was open in neither way
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

Status SnapshotFile::status() const {
    TracedLock lock(lock_);
    return loadLocked();
}

Status SnapshotFile::loadLocked() const {
    if (loaded_) [[likely]]
        return {};
    auto file = RawFile::make();
    auto const mode = readOnly_ ? RawFile::Mode::ReadOnly : RawFile::Mode::ReadWrite;
    Status outcome = file->open(path_, mode);
    if (!outcome) {
        if (!outcome.is(Status::Code::NotFound))
            MORVA_TRACE(Always) << "Failed to open snapshot file" << path_ << outcome.text();
        return outcome;
    }
    outcome = readHeader(*file);
    (void)file->close(); // removes nothing
    if (!outcome) {
        MORVA_TRACE(Always) << "Failed to read snapshot header" << outcome.text();
        now_ = {};
        return outcome;
    }
    kept_ = now_;
    loaded_ = true;
    alignDedupState();
    return {};
}

Status SnapshotFile::readHeader(RawFile& file) const {
    std::vector<std::uint8_t> bytes(wholeHeader);
    MORVA_TRY_LET(std::uint32_t const count, file.readAt(0, bytes.data(), wholeHeader));
    if (count < oldHeader)
        return Status::corruption("read snapshot header", path_,
                                  QStringLiteral("the file ends within it"));
    auto& header = now_.header;
    std::memcpy(header.data(), bytes.data(), headerSize);
    if (wide(header.data(), atDeleteOffset) == 0) {
        convertHeader();
        return readOnly_ ? Status() : convert(file);
    }
    if (wide(header.data(), atDeleteOffset) < oldHeader)
        return Status::corruption("read snapshot header", path_,
                                  QStringLiteral("its entries begin within it"));
    now_.label.clear();
    if (word(header.data(), atType) != static_cast<std::uint32_t>(SnapshotType::Old))
        loadLabel(bytes.data(), count);
    // What lies outside the label's area is no label: nothing of it is carried on.
    setWord(header, atLabelSize, static_cast<std::uint32_t>(now_.label.size()));
    return {};
}

void SnapshotFile::loadLabel(std::uint8_t const* bytes, std::uint32_t count) const {
    if (count < wholeHeader) {
        MORVA_TRACE(Always) << "Failed to read snapshot header";
        return;
    }
    std::uint32_t const size = std::min(word(bytes, atLabelSize), labelRoom(bytes));
    now_.label = QString(static_cast<qsizetype>(size), Qt::Uninitialized);
    std::memcpy(now_.label.data(), bytes + atLabel, std::size_t{2} * size);
}

void SnapshotFile::convertHeader() const {
    auto const found = Morva::FileSystem::inForce().stat(path_);
    auto const changed =
        found && *found ? static_cast<std::uint32_t>((*found)->modified) : std::uint32_t{0};
    auto& header = now_.header;
    setWord(header, atVersion, 0);
    setWide(header, atDeleteOffset, oldHeader);
    setWord(header, atSourceTime, changed);
    setWord(header, atRepositoryTime, changed);
    setWord(header, atLabelSize, 0);
}

Status SnapshotFile::convert(RawFile& file) const {
    // The header of the old layout ends where the entries begin, so it is written whole.
    std::array<std::uint8_t, oldHeader> image{};
    std::memcpy(image.data(), now_.header.data(), headerSize);
    Status outcome = file.writeAt(0, image.data(), oldHeader);
    if (!outcome)
        MORVA_TRACE(Always) << "Failed to write snapshot header" << outcome.text();
    return outcome;
}

void SnapshotFile::alignDedupState() const {
    if (!dedupFile_)
        return;
    auto& header = now_.header;
    auto const state = static_cast<DedupState>(word(header.data(), atDedupState));
    bool const waits = state == DedupState::Processing || state == DedupState::Pending;
    bool const ended = state == DedupState::Deduplicated || state == DedupState::None;
    if (*dedupFile_ ? !waits : !ended)
        setWord(header, atDedupState,
                static_cast<std::uint32_t>(*dedupFile_ ? DedupState::Pending : DedupState::None));
}

Status SnapshotFile::makeFile() {
    auto file = RawFile::make();
    MORVA_TRY(file->create(path_, RawFile::Mode::Create));
    made_ = true;
    setWord(now_.header, atVersion, 1);
    setWide(now_.header, atDeleteOffset, firstEntry);
    setWord(now_.header, atGeneration, 1);
    std::array<std::uint8_t, firstEntry> image{};
    std::memcpy(image.data(), now_.header.data(), headerSize);
    Status outcome = file->writeAt(0, image.data(), firstEntry);
    if (outcome) {
        loaded_ = true;
        kept_ = now_;
    } else {
        MORVA_TRACE(Always) << "Failed to initialize snapshot file" << outcome.text();
        file->deleteOnClose();
    }
    (void)file->close(); // a file that could not be made stays as damage, which is told already
    return outcome;
}

// --- fields

template <class T> T SnapshotFile::read(T (*get)(std::uint8_t const*)) const {
    TracedLock lock(lock_);
    (void)loadLocked(); // told by `status`, which comes before
    return get(now_.header.data());
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

std::uint64_t SnapshotFile::firstOffset() const {
    return wide(now_.header.data(), atDeleteOffset);
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
    (void)loadLocked(); // told by `status`, which comes before
    return now_.label;
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

bool SnapshotFile::linked() const {
    return read<bool>([](auto* h) { return h[atLinked] != 0; });
}

SnapshotFile::HandedOn SnapshotFile::handedOn() const {
    return read<HandedOn>([](auto* h) {
        return HandedOn{Instance{word(h, atHandedOnTo)}, wide(h, atHandedOnLength)};
    });
}

std::array<std::uint8_t, SnapshotFile::headerSize>& SnapshotFile::changing() {
    (void)loadLocked(); // without it `writeHeader` fails
    return now_.header;
}

void SnapshotFile::setPreviousInstance(Instance instance) {
    TracedLock lock(lock_);
    setWord(changing(), atPreviousInstance, instance.value);
}

void SnapshotFile::setDedupState(DedupState state) {
    TracedLock lock(lock_);
    setWord(changing(), atDedupState, static_cast<std::uint32_t>(state));
}

void SnapshotFile::setDedupOffset(std::uint64_t offset) {
    TracedLock lock(lock_);
    setWide(changing(), atDedupOffset, offset);
}

void SnapshotFile::setDeleteOffset(std::uint64_t offset) {
    TracedLock lock(lock_);
    setWide(changing(), atDeleteOffset, offset);
}

void SnapshotFile::setLength(std::uint64_t length) {
    TracedLock lock(lock_);
    setWide(changing(), atLength, length);
}

void SnapshotFile::setCounters(Counters const& counters) {
    TracedLock lock(lock_);
    std::memcpy(changing().data() + atCounters, counters.data(), sizeof counters);
}

void SnapshotFile::setDedupStatistics(DedupStatistics const& statistics) {
    TracedLock lock(lock_);
    // The first word is carried through.
    std::memcpy(changing().data() + atDedup + 8, &statistics.streams, sizeof statistics - 8);
}

void SnapshotFile::setIndexed(bool value) {
    TracedLock lock(lock_);
    changing()[atIndexed] = value;
}

void SnapshotFile::setHandedOn(HandedOn const& value) {
    TracedLock lock(lock_);
    setWord(changing(), atHandedOnTo, value.to.value);
    setWide(changing(), atHandedOnLength, value.length);
}

void SnapshotFile::labelLocked(QString const& text) {
    now_.label = text.left(labelRoom(changing().data()));
    setWord(changing(), atLabelSize, static_cast<std::uint32_t>(now_.label.size()));
}

void SnapshotFile::setLabel(QString const& text) {
    TracedLock lock(lock_);
    labelLocked(text);
}

void SnapshotFile::setType(SnapshotType type, bool needResync) {
    TracedLock lock(lock_);
    setWord(changing(), atType, static_cast<std::uint32_t>(type));
    changing()[atNeedResync] = needResync;
}

void SnapshotFile::policyLocked(std::uint32_t policy, std::uint32_t opId, std::uint32_t ruleSet) {
    setWord(changing(), atType, static_cast<std::uint32_t>(SnapshotType::Policy));
    setWord(changing(), atPolicy, policy);
    setWord(changing(), atOpId, opId);
    setWord(changing(), atRuleSet, ruleSet);
}

void SnapshotFile::setPolicy(std::uint32_t policy, std::uint32_t opId, std::uint32_t ruleSet,
                             bool needResync) {
    TracedLock lock(lock_);
    policyLocked(policy, opId, ruleSet);
    changing()[atNeedResync] = needResync;
}

bool SnapshotFile::updateResyncSnapshot(std::uint32_t policy, std::uint32_t opId,
                                        std::uint32_t ruleSet, bool indexed, QString const& label) {
    TracedLock lock(lock_);
    if (word(changing().data(), atType) !=
        static_cast<std::uint32_t>(SnapshotType::Synchronization))
        return false;
    policyLocked(policy, opId, ruleSet);
    changing()[atIndexed] = indexed;
    labelLocked(label);
    return true;
}

void SnapshotFile::retireLocked() {
    setWide(changing(), atLogicalSize, 0);
    setWide(changing(), atDirectoryCount, 0);
    changing()[atRetire] = 1;
    changing()[atAnalyzed] = 1;
}

void SnapshotFile::setRetire() {
    TracedLock lock(lock_);
    retireLocked();
}

void SnapshotFile::setRetired() {
    TracedLock lock(lock_);
    retireLocked();
    changing()[atRetired] = 1;
}

void SnapshotFile::clearRetired() {
    TracedLock lock(lock_);
    changing()[atRetired] = 0;
}

void SnapshotFile::setMarkedForDeletion(bool value) {
    TracedLock lock(lock_);
    changing()[atMarkedForDeletion] = value;
}

void SnapshotFile::analyzed(std::uint64_t logicalSize, std::uint64_t directories,
                            std::uint64_t files) {
    TracedLock lock(lock_);
    if (changing()[atAnalyzed])
        return;
    setWide(changing(), atLogicalSize, logicalSize);
    setWide(changing(), atDirectoryCount, directories);
    setWide(changing(), atFileCount, files);
    changing()[atAnalyzed] = 1;
}

bool SnapshotFile::analysis(std::uint64_t& logicalSize, std::uint64_t& directories,
                            std::uint64_t& files) const {
    TracedLock lock(lock_);
    if (!loadLocked() || !now_.header[atAnalyzed])
        return false;
    logicalSize = wide(now_.header.data(), atLogicalSize);
    directories = wide(now_.header.data(), atDirectoryCount);
    files = wide(now_.header.data(), atFileCount);
    return true;
}

Status SnapshotFile::snapshot(Counters const& counters, std::uint32_t sourceTime, Instance previous,
                              bool dedup) {
    TracedLock lock(lock_);
    auto& header = now_.header;
    std::memcpy(header.data() + atCounters, counters.data(), sizeof counters);
    setWord(header, atSourceTime, sourceTime);
    setWord(header, atRepositoryTime,
            static_cast<std::uint32_t>(Morva::Context::systemTime() / 1000));
    setWord(header, atPreviousInstance, previous.value);
    header[atLinked] = 1;
    setWord(header, atDedupState,
            static_cast<std::uint32_t>(dedup ? DedupState::Pending : DedupState::None));
    return writeHeaderLocked();
}

Status SnapshotFile::writeHeader() {
    TracedLock lock(lock_);
    return writeHeaderLocked();
}

Status SnapshotFile::writeHeaderLocked() {
    Status outcome = writeImage();
    MORVA_TRACE(Verbose) << "Written" << outcome.ok();
    if (outcome) {
        kept_ = now_;
    } else {
        MORVA_TRACE(Always) << "Failed to write snapshot header" << path_ << outcome.text();
        if (loaded_)
            now_ = kept_;
    }
    return outcome;
}

Status SnapshotFile::writeImage() {
    // What was never read must not be overwritten.
    if (!instance_ || !loaded_)
        return Status::corruption("write snapshot header", path_,
                                  QStringLiteral("the snapshot's file is damaged"));
    auto const label = 2 * static_cast<std::uint32_t>(now_.label.size());
    std::array<std::uint8_t, wholeHeader> image;
    std::memcpy(image.data(), now_.header.data(), headerSize);
    std::memcpy(image.data() + atLabel, now_.label.constData(), label);
    std::uint32_t const count = headerSize + label;
    if (writer_)
        return writer_->writeAt(0, image.data(), count);
    auto file = RawFile::make();
    MORVA_TRY(file->open(path_, RawFile::Mode::ReadWrite));
    return file->writeAt(0, image.data(), count);
}

} // namespace Replication
