#include "replication/common/intake/StateFile.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"

#include <algorithm>

namespace Replication {

using Morva::loadLittle;
using Morva::RawFile;
using Morva::storeLittle;

namespace {

constexpr std::uint32_t currentVersion = 1;
constexpr std::uint32_t oldHeaderSize = 32;
constexpr std::uint32_t versionOffset = 16;
constexpr std::uint32_t maximumDetails = 64 * 1024 * 1024;

} // namespace

StateFile::StateFile(QString name) : name_(std::move(name)), file_(RawFile::make()) {}

StateFile::~StateFile() {
    close();
}

void StateFile::close() {
    (void)file_->close(); // removes nothing
}

void StateFile::clear() {
    valid_ = false;
    sequence_ = bytes_ = 0;
    flags_ = ruleSet_ = targetSize_ = lastResync_ = 0;
    target_.clear();
}

std::array<std::uint8_t, StateFile::headerSize> StateFile::encode() const {
    std::array<std::uint8_t, headerSize> header{};
    storeLittle<std::uint64_t>(&header[0], sequence_);
    storeLittle<std::uint64_t>(&header[8], bytes_);
    storeLittle<std::uint32_t>(&header[versionOffset], currentVersion);
    storeLittle<std::uint32_t>(&header[20], flags_);
    storeLittle<std::uint32_t>(&header[24], ruleSet_);
    storeLittle<std::uint32_t>(&header[28], targetSize_);
    storeLittle<std::uint32_t>(&header[32], lastResync_);
    return header;
}

void StateFile::decode(std::uint8_t const* header) {
    sequence_ = loadLittle<std::uint64_t>(header);
    bytes_ = loadLittle<std::uint64_t>(header + 8);
    flags_ = loadLittle<std::uint32_t>(header + 20);
    ruleSet_ = loadLittle<std::uint32_t>(header + 24);
    targetSize_ = loadLittle<std::uint32_t>(header + 28);
}

bool StateFile::create() {
    MORVA_METHOD("create");
    clear();
    close(); // a file that is there but can't be read
    auto const header = encode();
    if (!file_->create(name_, RawFile::Mode::Create) ||
        !file_->writeAt(0, header.data(), headerSize)) {
        MORVA_TRACE(Always) << "Failed to create" << name_;
        if (file_->isOpen())
            file_->deleteOnClose();
        (void)file_->close(); // the creation has failed already
        return scope.result(false);
    }
    mode_ = RawFile::Mode::ReadWrite;
    valid_ = true;
    MORVA_TRACE(Normal) << "Created initial state file" << name_;
    return scope.result(true);
}

bool StateFile::open(RawFile::Mode mode) {
    if (file_->isOpen()) {
        if (mode == mode_)
            return true;
        (void)file_->close(); // removes nothing
    }
    mode_ = mode;
    return file_->open(name_, mode).ok();
}

void StateFile::readHeader() {
    MORVA_METHOD("readHeader");
    clear();
    std::array<std::uint8_t, headerSize> header{};
    if (!open(RawFile::Mode::ReadWrite) || !file_->readWhole(0, header.data(), 24))
        return;
    auto const version = loadLittle<std::uint32_t>(&header[versionOffset]);
    if (version == 0) {
        if (!file_->readWhole(0, header.data(), oldHeaderSize))
            return;
        decode(header.data());
        valid_ = upgrade();
    } else if (version == currentVersion) {
        if (!file_->readWhole(0, header.data(), headerSize))
            return;
        decode(header.data());
        lastResync_ = loadLittle<std::uint32_t>(&header[32]);
        valid_ = true;
    }
    if (valid_ && targetSize_ != 0)
        readTarget();
    MORVA_TRACE(Normal) << "SequenceNumber" << sequence_ << "BytesProcessed" << bytes_ << "Flags"
                        << flags_ << "RuleSet" << ruleSet_ << "Last Resync" << lastResync_
                        << "Target" << target_;
}

bool StateFile::upgrade() {
    return write("to upgrade to version 1", "Failed to upgrade to version 1");
}

void StateFile::readTarget() {
    if (targetSize_ >= maximumTarget) {
        MORVA_TRACE(Always) << "Target size is too big, state file corrupted" << name_;
        clear();
        return;
    }
    QByteArray bytes(static_cast<qsizetype>(targetSize_), '\0');
    auto const count = file_->readAt(headerSize, bytes.data(), targetSize_);
    if (!count) {
        MORVA_TRACE(Always) << "Failed to read target from" << name_;
        clear();
        return;
    }
    bytes.truncate(static_cast<qsizetype>(*count));
    target_ = QString::fromUtf8(bytes);
}

bool StateFile::write(char const* what, char const* failure) {
    if (!open(RawFile::Mode::ReadWrite)) {
        MORVA_TRACE(Always) << "Failed to open" << name_ << what;
        return false;
    }
    auto const header = encode();
    if (file_->writeAt(0, header.data(), headerSize))
        return true;
    MORVA_TRACE(Always) << failure << name_;
    return false;
}

bool StateFile::sequenceNumber(std::uint64_t sequence) {
    sequence_ = sequence;
    return write("to write sequence number", "Failed to write sequence number to");
}

bool StateFile::sequenceNumber(std::uint64_t sequence, std::uint64_t bytes) {
    sequence_ = sequence;
    bytes_ = bytes;
    return write("to write sequence number", "Failed to write sequence number and size to");
}

bool StateFile::lastResync(std::uint32_t time) {
    MORVA_METHOD("lastResync");
    lastResync_ = time;
    return scope.result(write("to write last resync", "Failed to write last resync time to"));
}

bool StateFile::flag(std::uint32_t mask, bool set) {
    MORVA_METHOD("flag");
    flags_ = set ? flags_ | mask : flags_ & ~mask;
    return scope.result(write("to write flags", "Failed to write flags to"));
}

bool StateFile::ruleSet(std::uint32_t number) {
    MORVA_METHOD("ruleSet");
    ruleSet_ = number;
    return scope.result(write("to write rule set", "Failed to write rule set to"));
}

bool StateFile::target(QString const& text) {
    MORVA_METHOD("target");
    auto const bytes = text.toUtf8();
    target_ = text;
    targetSize_ = static_cast<std::uint32_t>(bytes.size());
    if (!write("to write target", "Failed to write target to"))
        return scope.result(false);
    if (file_->writeAt(headerSize, bytes.constData(), targetSize_) &&
        file_->setLength(headerSize + targetSize_))
        return scope.result(true);
    MORVA_TRACE(Always) << "Failed to write target to" << name_;
    return scope.result(false);
}

QByteArray StateFile::details() {
    auto const start = std::uint64_t{headerSize} + targetSize_;
    std::array<std::uint8_t, 4> count{};
    if (!valid_ || !open(RawFile::Mode::ReadWrite) || !file_->readWhole(start, count.data(), 4))
        return {};
    auto const size = loadLittle<std::uint32_t>(count.data());
    auto const length = file_->length();
    if (!length || size > maximumDetails || start + 4 + size > *length)
        return {};
    QByteArray bytes(static_cast<qsizetype>(size), '\0');
    if (!file_->readWhole(start + 4, bytes.data(), size))
        return {};
    return bytes;
}

bool StateFile::details(QByteArray const& bytes) {
    auto const start = std::uint64_t{headerSize} + targetSize_;
    QByteArray record(4, '\0');
    storeLittle<std::uint32_t>(record.data(), static_cast<std::uint32_t>(bytes.size()));
    record += bytes;
    auto const size = static_cast<std::uint32_t>(record.size());
    return open(RawFile::Mode::ReadWrite) && file_->writeAt(start, record.constData(), size) &&
           file_->setLength(start + size);
}

bool StateFile::remove() {
    MORVA_METHOD("remove");
    if (!open(RawFile::Mode::Create))
        return scope.result(false);
    clear();
    file_->deleteOnClose();
    return scope.result(file_->close().ok());
}

} // namespace Replication
