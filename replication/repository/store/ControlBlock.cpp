#include "replication/repository/store/ControlBlock.h"

#include "base/trace/Trace.h"

#include <algorithm>
#include <cstring>

namespace Replication {

using Morva::Status;
using Morva::TracedLock;

namespace {

constexpr std::uint32_t keptByUpgrade = 112;
constexpr std::uint32_t oldBatchOffset = 40;

} // namespace

void ControlFields::upgrade() {
    MORVA_TRACE(Always) << "Upgrade Control Block";
    std::uint32_t const old = version();
    bool const oldBatch = bytes_[oldBatchOffset] != 0;
    std::memset(bytes_ + keptByUpgrade, 0, size - keptByUpgrade);
    version(currentVersion);
    filterType(old == 0 ? 1 : old);
    batch(oldBatch);
}

void ControlFields::print(int traceLevel) const {
    if (!Morva::Trace::enabled(static_cast<Morva::TraceLevel>(traceLevel)))
        return;
    Morva::TraceLine line(static_cast<Morva::TraceLevel>(traceLevel), __FILE__, __LINE__);
    line << "Control Block"
         << "Version" << version() << "Instance" << instance() << "ValidateInstance"
         << validateInstance() << "DeleteValidateInstance" << deleteValidateInstance()
         << "LastInstance" << lastInstance() << "DeleteLastInstance" << deleteLastInstance()
         << "StoreId" << Morva::hex << storeId() << Morva::dec << "ReplayId" << replayId()
         << "Sequence" << sequence() << "CaseSensitive" << caseSensitive() << "Directories"
         << directories() << "Files" << files() << "DirtyFiles" << dirtyFiles() << "Counters";
    Counters const all = counters();
    for (std::size_t i = 3; i < all.size(); ++i)
        line << all[i];
    line << "FilterType" << filterType() << "Generation" << generation() << "LastSequence"
         << lastSequence() << "Active" << active() << "MarkedForDeletion" << markedForDeletion()
         << "DeletionSent" << deletionSent() << "OpenMark" << openMark() << "Batch" << batch();
}

ControlBlock::Loaded ControlBlock::load(Image const& image) {
    TracedLock lock(lock_);
    image_ = image;
    dirty_ = false;
    ControlFields fields(image_.data());
    Loaded result = Loaded::Current;
    if (fields.version() > ControlFields::currentVersion) {
        MORVA_TRACE(Always) << "Invalid version" << fields.version();
        result = Loaded::Invalid;
    } else if (fields.version() < ControlFields::currentVersion) {
        fields.upgrade();
        dirty_ = true;
        result = Loaded::Upgraded;
    } else {
        MORVA_TRACE(Normal) << "Current version";
    }
    markedForDeletion_.store(fields.markedForDeletion(), std::memory_order_relaxed);
    return result;
}

QString ControlBlock::type() const {
    TracedLock lock(lock_);
    ControlFields const fields(const_cast<std::uint8_t*>(image_.data()));
    QString const batch = fields.batch() ? QStringLiteral("Batch") : QString();
    switch (fields.filterType()) {
    case 1:
        return batch + QStringLiteral("Filesystem");
    case 2:
        return batch + QStringLiteral("Exchange");
    default:
        return QStringLiteral("Invalid");
    }
}

ControlBlock::Image ControlBlock::image() const {
    TracedLock lock(lock_);
    return image_;
}

Status ControlBlock::write() {
    TracedLock lock(lock_);
    return dirty_ ? writeLocked() : Status();
}

Status ControlBlock::writeLocked() {
    markedForDeletion_.store(ControlFields(image_.data()).markedForDeletion(),
                             std::memory_order_relaxed);
    Status outcome = writer_(image_);
    dirty_ = !outcome;
    if (dirty_)
        MORVA_TRACE(Always) << "Failed to write control block" << outcome.text();
    return outcome;
}

void ControlBlock::restore(Image const& image) {
    image_ = image;
    dirty_ = true;
    markedForDeletion_.store(ControlFields(image_.data()).markedForDeletion(),
                             std::memory_order_relaxed);
}

void ControlBlock::countName(std::uint32_t type, bool added) {
    TracedLock lock(lock_);
    ControlFields fields(image_.data());
    if (!fields.storeId())
        return;
    bool const directory = type == directoryType;
    std::uint64_t const old = directory ? fields.directories() : fields.files();
    std::uint64_t const count = added ? old + 1 : old - std::min<std::uint64_t>(old, 1);
    directory ? fields.directories(count) : fields.files(count);
    dirty_ = true;
}

void ControlBlock::countDirty() {
    TracedLock lock(lock_);
    ControlFields fields(image_.data());
    if (!fields.storeId())
        return;
    fields.dirtyFiles(fields.dirtyFiles() + 1);
    dirty_ = true;
}

void ControlBlock::print(int traceLevel) const {
    TracedLock lock(lock_);
    ControlFields(const_cast<std::uint8_t*>(image_.data())).print(traceLevel);
}

} // namespace Replication
