#include "base/files/UnsyncedPages.h"

#include "base/trace/Trace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Morva {

namespace {

struct stat statusOf(int descriptor) {
    struct stat status {};
    ::fstat(descriptor, &status);
    return status;
}

} // namespace

std::shared_ptr<UnsyncedPages> UnsyncedPages::open(QByteArray const& path) {
    int descriptor = ::open(path.constData(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0)
        descriptor = ::open(path.constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0)
        return nullptr;
    return std::shared_ptr<UnsyncedPages>(new UnsyncedPages(descriptor));
}

UnsyncedPages::UnsyncedPages(int descriptor) : descriptor_(descriptor) {
    struct stat const status = statusOf(descriptor);
    identity_ = {status.st_dev, status.st_ino};
    syncedLength_ = static_cast<std::uint64_t>(status.st_size);
}

UnsyncedPages::~UnsyncedPages() {
    ::close(descriptor_);
}

void UnsyncedPages::beforeChange(std::uint64_t offset, std::uint64_t count) {
    changed_ = true;
    if (count == 0)
        return;
    for (std::uint64_t page = offset / pageSize; page <= (offset + count - 1) / pageSize; ++page) {
        auto const [place, isNew] = originals_.try_emplace(page);
        std::uint64_t const start = page * pageSize;
        if (!isNew || start >= syncedLength_)
            continue;
        place->second.resize(pageSize);
        std::uint64_t const held = std::min<std::uint64_t>(pageSize, syncedLength_ - start);
        MORVA_CHECK(::pread(descriptor_, place->second.data(), held, static_cast<off_t>(start)) ==
                        static_cast<ssize_t>(held),
                    "read of original page");
    }
}

void UnsyncedPages::synced() {
    originals_.clear();
    changed_ = false;
    syncedLength_ = length();
}

void UnsyncedPages::dropPages() {
    std::uint64_t const now = length();
    for (auto const& [page, bytes] : originals_)
        restore(page, bytes, now);
}

bool UnsyncedPages::isRemoved() const {
    return statusOf(descriptor_).st_nlink == 0;
}

std::uint64_t UnsyncedPages::length() const {
    return static_cast<std::uint64_t>(statusOf(descriptor_).st_size);
}

void UnsyncedPages::setLength(std::uint64_t bytes) {
    MORVA_CHECK(::ftruncate(descriptor_, static_cast<off_t>(bytes)) == 0, "length of lost file");
}

void UnsyncedPages::restore(std::uint64_t page, std::vector<std::uint8_t> const& bytes,
                            std::uint64_t length) {
    static std::vector<std::uint8_t> const zeros(pageSize);
    std::uint64_t const start = page * pageSize;
    if (start >= length)
        return;
    std::uint64_t const count = std::min<std::uint64_t>(pageSize, length - start);
    MORVA_CHECK(::pwrite(descriptor_, bytes.empty() ? zeros.data() : bytes.data(), count,
                         static_cast<off_t>(start)) == static_cast<ssize_t>(count),
                "restore of lost page");
}

void UnsyncedPages::lose() {
    if (!changed_)
        return;
    setLength(syncedLength_);
    for (auto const& [page, bytes] : originals_)
        restore(page, bytes, syncedLength_);
    synced();
}

void UnsyncedPages::loseSome(std::mt19937_64& random) {
    if (!changed_)
        return;
    std::uint64_t const kept = random() & 1 ? syncedLength_ : length();
    setLength(kept);
    for (auto const& [page, bytes] : originals_)
        if (random() & 1)
            restore(page, bytes, kept);
    synced();
}

} // namespace Morva
