#include "replication/repository/streams/DedupFile.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"

#include <array>
#include <cerrno>

namespace Replication {

using Morva::BufferedFile;
using Morva::RawFile;

namespace {

constexpr std::size_t gatheredSize = 4096;

} // namespace

DedupFile::DedupFile(QString const& directory, Instance instance)
    : directory_(directory), instance_(instance) {}

DedupFile::~DedupFile() {
    close();
}

QString DedupFile::nameOf(QString const& directory, Instance instance) {
    QString name = directory + "/dedup";
    if (instance)
        name += QString::number(instance.value).rightJustified(10, u'0');
    return name;
}

QString DedupFile::name() const {
    return nameOf(directory_, instance_);
}

bool DedupFile::openForAppend() {
    close();
    appender_ = RawFile::make();
    // A list that is there and can't be opened now must not be made anew.
    auto opened = appender_->open(name(), RawFile::Mode::ReadWrite);
    if (opened.is(Morva::Status::Code::NotFound))
        opened = appender_->create(name(), RawFile::Mode::ReadWrite);
    auto const length = opened ? appender_->length() : std::uint64_t{0};
    if (!opened || !length) {
        MORVA_TRACE(Always) << "Failed to create file" << name();
        appender_.reset();
        return false;
    }
    position_ = *length / entrySize * entrySize;
    return true;
}

bool DedupFile::append(StreamId id) {
    if (!appender_ || (gathered_.size() >= gatheredSize && !flush()))
        return false;
    gathered_.resize(gathered_.size() + entrySize);
    Morva::storeLittle(gathered_.data() + gathered_.size() - entrySize, id.value);
    return true;
}

bool DedupFile::flush() {
    auto const size = static_cast<std::uint32_t>(gathered_.size());
    if (size == 0)
        return true;
    if (!appender_ || !appender_->writeAt(position_, gathered_.data(), size)) {
        MORVA_TRACE(Always) << "Failed to write" << name();
        return false;
    }
    position_ += size;
    gathered_.clear();
    return true;
}

bool DedupFile::empty() {
    if (!appender_ && !openForAppend())
        return false;
    position_ = 0;
    gathered_.clear();
    return appender_->setLength(0).ok();
}

bool DedupFile::rename(Instance instance) {
    if (!instance || instance_ || !flush())
        return false;
    close();
    QString const closed = nameOf(directory_, instance);
    // A list of the same instance can only be left from a snapshot that was never made.
    auto& files = Morva::FileSystem::inForce();
    auto status = files.removeIfThere(closed);
    if (status)
        status = files.rename(name(), closed);
    bool const renamed = status || status.is(Morva::Status::Code::NotFound); // no list, no name
    if (!renamed)
        MORVA_TRACE(Always) << "Failed to rename" << name() << "to" << closed;
    return openForAppend() && renamed;
}

bool DedupFile::openForRead() {
    close();
    if (!instance_) {
        MORVA_TRACE(Always) << "Invalid instance number";
        return false;
    }
    reader_ = std::make_unique<BufferedFile>(bufferSize);
    if (reader_->open(name()))
        return true;
    reader_.reset();
    return false;
}

bool DedupFile::read(StreamId& id) {
    std::array<std::uint8_t, entrySize> bytes;
    if (!reader_)
        return false;
    auto const count = reader_->read(bytes.data(), entrySize);
    if (!count) // What can't be read stays without deduplication, and nothing else.
        MORVA_TRACE(Always) << "Failed to read" << name() << reader_->lastError();
    if (!count || *count != entrySize)
        return false;
    id.value = Morva::loadLittle<std::uint64_t>(bytes.data());
    position_ += entrySize;
    return true;
}

bool DedupFile::setPosition(std::uint64_t position) {
    if (!reader_ || position % entrySize != 0 ||
        !reader_->setPosition(static_cast<std::int64_t>(position)))
        return false;
    position_ = position;
    return true;
}

void DedupFile::close() {
    reader_.reset();
    if (appender_) {
        (void)flush();
        (void)appender_->close(); // removes nothing
    }
    gathered_.clear();
    appender_.reset();
    position_ = 0;
}

bool DedupFile::remove() {
    close();
    return Morva::FileSystem::inForce().removeIfThere(name()).ok();
}

} // namespace Replication
