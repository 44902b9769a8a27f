#include "replication/repository/streams/StreamHandle.h"

#include "base/trace/Trace.h"
#include "replication/repository/streams/Streams.h"

#include <QString>

#include <algorithm>
#include <cstring>

namespace Replication {

using Morva::TracedLock;

namespace {

char const* digestTypeName(std::uint32_t type) {
    switch (type) {
    case Digest::eRepDigestInvalid:
        return "eRepDigestInvalid";
    case Digest::eRepDigestSha1:
        return "eRepDigestSha1";
    }
    return "unknown";
}

QString digestText(Digest const& digest) {
    QByteArray const bytes(reinterpret_cast<char const*>(digest.value.data()), Digest::sha1Size);
    return QString::fromLatin1(bytes.toHex());
}

} // namespace

StreamHandle::StreamHandle(Key, std::shared_ptr<Streams> owner, StreamNode node)
    : owner_(std::move(owner)),
      id_(node.id()),
      lock_({"============= Lock StreamHandle =============",
             "++++++++++++ Unlock StreamHandle ++++++++++++"},
            id_.value),
      node_(node),
      info_(&owner_->streamTree(), node.record()) {}

StreamHandle::~StreamHandle() {
    MORVA_TRACE(Normal) << "Stream" << id_ << "ReferenceCount" << node_.referenceCount()
                        << digestText(node_.digest()) << digestTypeName(node_.digestType())
                        << node_.frozen() << node_.indexed();
    owner_->releaseHandle(*this);
}

void StreamHandle::wipeDigest() {
    if (node_.digestType() == Digest::eRepDigestInvalid)
        return;
    node_.digest(Digest{});
    info_.setDirty();
}

void StreamHandle::updateIfDirty() {
    if (!info_.dirty())
        return;
    info_.clearDirty();
    owner_->update(node_);
}

bool StreamHandle::write(std::uint64_t offset, void const* data, std::uint32_t count,
                         bool noExtend) {
    return writeUnlessFrozen(offset, data, count, noExtend) || frozen();
}

bool StreamHandle::writeUnlessFrozen(std::uint64_t offset, void const* data, std::uint32_t count,
                                     bool noExtend) {
    if (count == 0)
        return true;
    TracedLock lock(lock_);
    if (node_.frozen())
        return false;
    wipeDigest();
    bool const result = info_.write(offset, data, count, noExtend);
    updateIfDirty();
    return result;
}

bool StreamHandle::frozen() {
    TracedLock lock(lock_);
    return node_.frozen();
}

std::uint32_t StreamHandle::read(std::uint64_t offset, void* data, std::uint32_t count) {
    if (count == 0)
        return 0;
    TracedLock lock(lock_);
    return info_.read(offset, data, count);
}

std::optional<std::uint32_t> StreamHandle::readWhole(std::uint64_t offset, void* data,
                                                     std::uint32_t count) {
    TracedLock lock(lock_);
    info_.clearFailed();
    auto const result = info_.read(offset, data, count);
    if (info_.hasFailed())
        return std::nullopt;
    return result;
}

bool StreamHandle::locate(std::uint64_t count, std::uint64_t* blocks) {
    TracedLock lock(lock_);
    return info_.locate(count, blocks);
}

bool StreamHandle::findData(std::uint64_t& start, std::uint64_t& end) {
    TracedLock lock(lock_);
    return info_.findData(start, end);
}

bool StreamHandle::truncate(std::uint64_t length, std::uint32_t flags) {
    TracedLock lock(lock_);
    if (node_.frozen())
        return false;
    if ((flags & growOnly) != 0 && info_.length() >= length)
        return true;
    wipeDigest();
    bool const result = info_.truncate(length);
    updateIfDirty();
    return result;
}

bool StreamHandle::zeroData(std::uint64_t start, std::uint64_t end) {
    if (start == end)
        return true;
    TracedLock lock(lock_);
    if (node_.frozen())
        return false;
    wipeDigest();
    bool const result = info_.zeroData(start, end);
    updateIfDirty();
    return result;
}

bool StreamHandle::isZero(std::uint64_t start, std::uint64_t end) {
    TracedLock lock(lock_);
    return info_.isZero(start, end);
}

std::uint64_t StreamHandle::length() {
    TracedLock lock(lock_);
    return info_.length();
}

void StreamHandle::info(StreamInfo& result) {
    TracedLock lock(lock_);
    result.length = info_.length();
    result.indexed = node_.indexed();
    result.digest = node_.digest();
}

std::uint32_t StreamHandle::referenceCount() {
    TracedLock lock(lock_);
    return node_.referenceCount();
}

void StreamHandle::addReference() {
    TracedLock lock(lock_);
    node_.referenceCount(node_.referenceCount() + 1);
    MORVA_TRACE(Debug) << "ReferenceCount" << node_.referenceCount();
    owner_->update(node_);
}

void StreamHandle::releaseReference() {
    TracedLock lock(lock_);
    if (node_.referenceCount() == 0)
        return;
    node_.referenceCount(node_.referenceCount() - 1);
    MORVA_TRACE(Debug) << "ReferenceCount" << node_.referenceCount();
    owner_->update(node_);
}

bool StreamHandle::copyOnWrite(std::shared_ptr<StreamHandle>& result) {
    result.reset();
    TracedLock lock(lock_);
    if (!node_.frozen() && node_.referenceCount() < 2)
        return true;
    result = owner_->copyHandle(*this, node_);
    return result != nullptr;
}

bool StreamHandle::prepareDedup(DedupStatistics& statistics) {
    TracedLock lock(lock_);
    if (node_.indexed() || node_.referenceCount() == 0)
        return false;
    bool const known = node_.digestType() == Digest::eRepDigestSha1;
    node_.frozen(true);
    if (known)
        owner_->addDedup(node_, statistics);
    owner_->update(node_);
    return !known;
}

void StreamHandle::setDigest(std::uint32_t type, void const* digest, DedupStatistics& statistics) {
    TracedLock lock(lock_);
    if (!node_.frozen() || node_.indexed())
        return;
    Digest value;
    value.type = type;
    if (type == Digest::eRepDigestSha1)
        std::memcpy(value.value.data(), digest, Digest::sha1Size);
    node_.digest(value);
    if (type == Digest::eRepDigestSha1)
        owner_->addDedup(node_, statistics);
    owner_->update(node_);
}

bool StreamHandle::useDedup(std::uint64_t length, Digest const& digest) {
    TracedLock lock(lock_);
    return node_.referenceCount() == 1 && owner_->useDedup(node_, length, digest);
}

void StreamHandle::digest(Digest const& value) {
    TracedLock lock(lock_);
    if (node_.indexed() || node_.digestType() == value.type || value.type > Digest::eRepDigestSha1)
        return;
    // Whatever stands behind the digest would make equal ones differ.
    Digest clean = value;
    std::fill(clean.value.begin() + Digest::sha1Size, clean.value.end(), std::uint8_t{0});
    node_.digest(clean);
    owner_->update(node_);
}

void StreamHandle::saveStream() {
    TracedLock lock(lock_);
    if (node_.referenceCount() == 0)
        owner_->saveStream(id_);
}

} // namespace Replication
