#include "replication/common/log/LogHeader.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"

#include <QIODevice>

#include <algorithm>

namespace Replication {

namespace {

constexpr std::uint32_t sizeFieldWidth = 4;
constexpr std::uint32_t prefixSize = 8; // size and magic

} // namespace

bool LogHeader::receive(LogIoRead const& source) {
    MORVA_METHOD("receive");
    std::uint8_t prefix[prefixSize];
    if (!source.read(prefix, prefixSize)) {
        MORVA_TRACE(Always) << "Failed to read log header size";
        return scope.result(false);
    }
    auto const size = Morva::loadLittle<std::uint32_t>(prefix);
    if (size < minimumSize || size > maximumSize) {
        MORVA_TRACE(Always) << "Invalid buffer size" << size;
        return scope.result(false);
    }
    auto const magic = Morva::loadLittle<std::uint32_t>(prefix + sizeFieldWidth);
    if (magic != startMagic) {
        MORVA_TRACE(Always) << "Invalid header start magic" << Morva::hex << magic;
        return scope.result(false);
    }
    if (buffer_.size() < size)
        buffer_.resize(size);
    Morva::storeLittle(buffer_.data(), magic);
    if (!source.read(buffer_.data() + sizeof magic,
                     size - static_cast<std::uint32_t>(sizeof magic))) {
        MORVA_TRACE(Always) << "Failed to receive log header";
        return scope.result(false);
    }
    if (!decode(buffer_.data(), size)) {
        MORVA_TRACE(Always) << "Failed to decode";
        return scope.result(false);
    }
    totalLength_ = std::uint64_t{sizeFieldWidth} + size + (type_ == Log ? bodySize_ : 0);
    return scope.result(true);
}

bool LogHeader::takeText(Morva::UnpackBuffer& unpack, QString& text) {
    std::uint32_t bytes = 0;
    if (!unpack.take(bytes) || bytes % sizeof(char16_t) != 0 || bytes > unpack.extent().size)
        return false;
    text_.resize(bytes / sizeof(char16_t));
    if (bytes != 0 && !unpack.take(text_.data(), bytes))
        return false;
    // Nearly always the same as before: then the string, and every copy of it, stays.
    QStringView const taken(text_.data(), static_cast<qsizetype>(text_.size()));
    if (text != taken)
        text = taken.toString();
    return true;
}

bool LogHeader::decode(std::uint8_t const* record, std::uint32_t size) {
    Morva::UnpackBuffer unpack;
    unpack.fromRawData(Morva::Extent(static_cast<void const*>(record), size));
    std::uint32_t magic = 0;
    if (!unpack.take(magic) || !unpack.take(type_))
        return false;
    if (type_ == Log) {
        std::uint32_t count = 0;
        if (!unpack.take(count) || count > unpack.extent().size / sizeof(std::uint32_t))
            return false;
        ruleIds_.resize(count);
        for (std::uint32_t& id : ruleIds_)
            if (!unpack.take(id))
                return false;
        if (!unpack.take(sequenceNumber_) || !takeText(unpack, source_) || !unpack.take(bodySize_))
            return false;
    } else if (type_ == Notification) {
        if (!takeText(unpack, name_))
            return false;
    } else {
        MORVA_TRACE(Always) << "Unknown type" << type_;
        return false;
    }
    std::uint32_t end = 0;
    return unpack.take(end) && end == endMagic && unpack.extent().size == 0;
}

Morva::Extent LogHeader::packed() {
    pack_.reset();
    pack_.append(startMagic);
    pack_.append(type_);
    if (type_ == Log) {
        pack_.append(static_cast<std::uint32_t>(ruleIds_.size()));
        for (std::uint32_t const id : ruleIds_)
            pack_.append(id);
        pack_.append(sequenceNumber_);
        pack_.append(source_);
        pack_.append(bodySize_);
    } else {
        pack_.append(name_);
    }
    pack_.append(endMagic);
    Morva::Extent const extent = pack_.extent();
    totalLength_ = extent.size + (type_ == Log ? std::uint64_t{bodySize_} : 0);
    return extent;
}

void LogHeader::send(QByteArray& buffer) {
    Morva::Extent const extent = packed();
    buffer.append(static_cast<char const*>(extent.data), extent.size);
}

bool LogHeader::write(QIODevice& file) {
    Morva::Extent const extent = packed();
    if (file.write(static_cast<char const*>(extent.data), extent.size) != extent.size) {
        MORVA_TRACE(Always) << "Failed to write header to file" << file.errorString();
        return false;
    }
    return true;
}

bool LogHeader::write(Morva::RawFile& file) {
    Morva::Extent const extent = packed();
    if (!file.write(extent)) {
        MORVA_TRACE(Always) << "Failed to write header to file" << file.name() << file.lastError();
        return false;
    }
    return true;
}

} // namespace Replication
