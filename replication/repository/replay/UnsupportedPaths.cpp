#include "replication/repository/replay/UnsupportedPaths.h"

#include "base/files/RawFile.h"

#include <utility>

namespace Replication {

using Morva::RawFile;
using Morva::Status;
using Morva::XmlList;
using Morva::XmlListIterator;

namespace {

auto const leftOutName = QStringLiteral("LeftOut");
auto const entryName = QStringLiteral("Entry");
auto const pathName = QStringLiteral("Path");
auto const reasonName = QStringLiteral("Reason");
/// No file of this many paths is larger.
constexpr std::uint64_t maximumFile = 16 << 20;

} // namespace

UnsupportedPaths::UnsupportedPaths(QString const& storeDirectory)
    : fileName_(storeDirectory + QStringLiteral("/unsupported")) {}

Status UnsupportedPaths::load() {
    auto const file = RawFile::make();
    if (auto opened = file->open(fileName_, RawFile::Mode::ReadOnly); !opened) {
        readable_ = opened.is(Status::Code::NotFound);
        return readable_ ? Status() : std::move(opened);
    }
    readable_ = false;
    MORVA_TRY_LET(auto const size, file->length());
    if (size > maximumFile)
        return Status::corruption("read", fileName_, QStringLiteral("it is too large"));
    QByteArray bytes(static_cast<qsizetype>(size), '\0');
    MORVA_TRY(file->readWhole(0, bytes.data(), static_cast<std::uint32_t>(size)));
    auto const list = XmlList::fromBinary(bytes);
    if (!list)
        return Status::corruption("read", fileName_, QStringLiteral("it is no list of paths"));
    for (XmlListIterator entry(*list, entryName); entry && paths_.size() < maximumPaths; ++entry) {
        auto const item = entry.getXmlList();
        paths_.emplace(item.getString(nullptr, pathName), item.getString(nullptr, reasonName));
    }
    leftOut_ = list->getUint64(nullptr, leftOutName);
    readable_ = true;
    return {};
}

Status UnsupportedPaths::save() {
    if (!changed_ || !readable_)
        return {};
    XmlList list;
    list.set(leftOutName, leftOut_);
    for (auto const& [path, reason] : paths_) {
        XmlList item;
        item.set(pathName, path);
        item.set(reasonName, reason);
        list.set(entryName, item, XmlList::SetTypeE::Add);
    }
    auto const bytes = list.toBinary();
    auto const file = RawFile::make();
    MORVA_TRY(file->create(fileName_, RawFile::Mode::ReadWrite));
    MORVA_TRY(file->writeAt(0, bytes.constData(), static_cast<std::uint32_t>(bytes.size())));
    MORVA_TRY(file->close());
    changed_ = false;
    return {};
}

bool UnsupportedPaths::add(QString const& path, QString const& reason) {
    auto const key = path.left(maximumText);
    if (auto const known = paths_.find(key); known != paths_.end()) {
        changed_ = changed_ || known->second != reason;
        known->second = reason;
        return false;
    }
    changed_ = true;
    if (paths_.size() >= maximumPaths)
        return ++leftOut_ == 1;
    paths_.emplace(key, reason);
    return true;
}

void UnsupportedPaths::remove(QString const& path) {
    if (paths_.erase(path.left(maximumText)) != 0)
        changed_ = true;
}

} // namespace Replication
