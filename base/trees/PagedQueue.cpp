#include "base/trees/PagedQueue.h"

#include "base/trace/Trace.h"
#include "base/trees/RecordCheck.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace Morva {

namespace {

/// Header of a queue file, little-endian, 128 bytes; the records follow.
///  off  size  field    meaning
///    0     8  magic    "MORVAQUE"
///    8     4  version  1
///   12    20  zero
///   32    32  head 0   written by turns with head 1; the one with the higher sequence counts
///   64    32  head 1
///   96    32  zero
///
/// A head: 0 8 sequence, 8 8 generation, 16 8 offset of the first record, 24 8 recordCheck of these
namespace Header {
constexpr char magic[] = "MORVAQUE";
constexpr std::uint32_t version = 1;
constexpr std::uint32_t atVersion = 8, atHeads = 32, headSize = 32, size = 128;
} // namespace Header

/// Before each record: 0 4 size, 4 4 zero, 8 8 recordCheck of the bytes, seeded with generation
/// and offset.
constexpr std::uint32_t frameSize = 16;
constexpr std::uint64_t readAhead = 65536;
constexpr LockTexts lockTexts{"================ Lock Queue ================",
                              "================ Unlock Queue ================"};

std::uint64_t seedOf(std::uint64_t generation, std::uint64_t offset) {
    return generation * 0x100000001B3ull ^ offset;
}

std::uint64_t headAt(std::uint64_t sequence) {
    return Header::atHeads + sequence % 2 * Header::headSize;
}

} // namespace

PagedQueue::PagedQueue(QString const& path, std::uint64_t pageSize, std::uint64_t pagesInMemory)
    : pageSize_(std::max<std::uint64_t>(pageSize, frameSize)),
      memory_(pageSize_ * std::clamp<std::uint64_t>(pagesInMemory, 1, 0x10000)),
      lock_(lockTexts) {
    MORVA_METHOD("PagedQueue");
    TracedLock lock(lock_);
    event_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    open_ = event_ >= 0 && openOrMake(path);
    if (!open_)
        MORVA_TRACE(Always) << "Failed to open queue" << path;
}

PagedQueue::PagedQueue(QString const& path, std::uint64_t pageSize, ReadOnly)
    : pageSize_(std::max<std::uint64_t>(pageSize, frameSize)),
      memory_(pageSize_),
      lock_(lockTexts) {
    TracedLock lock(lock_);
    file_ = RawFile::make();
    open_ =
        file_->open(path, RawFile::Mode::ReadOnly) && file_->length() >= Header::size && readHead();
    if (open_)
        findTail();
}

PagedQueue::~PagedQueue() {
    if (event_ >= 0)
        ::close(event_);
}

bool PagedQueue::openOrMake(QString const& path) {
    file_ = RawFile::make();
    bool there = file_->open(path, RawFile::Mode::ReadWrite);
    if (!there && file_->lastError() != ENOENT)
        return false;
    std::array<std::uint8_t, Header::size> header{};
    bool const begun = there && file_->readAt(0, header.data(), Header::size) == Header::size &&
                       std::ranges::any_of(header, [](std::uint8_t byte) { return byte != 0; });
    if (begun || (there && file_->length() > Header::size)) {
        if (!readHead())
            return false;
        findTail();
        return true;
    }
    if (!there && !file_->create(path, RawFile::Mode::ReadWrite))
        return false;
    // In one write, so that a header without a head is damage.
    header.fill(0);
    std::memcpy(header.data(), Header::magic, 8);
    storeLittle(header.data() + Header::atVersion, Header::version);
    head_ = {1, 1, Header::size};
    storeHead(header.data() + headAt(head_.sequence), head_);
    tail_ = Header::size;
    trimmed_ = true;
    return file_->writeAt(0, header.data(), Header::size) == Header::size;
}

void PagedQueue::storeHead(std::uint8_t* at, Head const& head) {
    storeLittle(at, head.sequence);
    storeLittle(at + 8, head.generation);
    storeLittle(at + 16, head.offset);
    storeLittle(at + 24, recordCheck(0, at, 24));
}

bool PagedQueue::readHead() {
    std::array<std::uint8_t, Header::size> header;
    if (file_->readAt(0, header.data(), Header::size) != Header::size ||
        std::memcmp(header.data(), Header::magic, 8) != 0 ||
        loadLittle<std::uint32_t>(header.data() + Header::atVersion) != Header::version)
        return false;
    for (std::uint32_t i = 0; i < 2; ++i) {
        std::uint8_t const* at = header.data() + Header::atHeads + i * Header::headSize;
        Head const head{loadLittle<std::uint64_t>(at), loadLittle<std::uint64_t>(at + 8),
                        loadLittle<std::uint64_t>(at + 16)};
        if (loadLittle<std::uint64_t>(at + 24) == recordCheck(0, at, 24) &&
            head.sequence > head_.sequence && head.offset >= Header::size)
            head_ = head;
    }
    return head_.sequence != 0;
}

/// Writes and takes over a head, whose sequence is that of the one in force.
bool PagedQueue::writeHead(Head head) {
    ++head.sequence;
    std::array<std::uint8_t, Header::headSize> bytes;
    storeHead(bytes.data(), head);
    if (file_->writeAt(headAt(head.sequence), bytes.data(), Header::headSize) != Header::headSize) {
        MORVA_TRACE(Always) << "Failed to write the head of queue" << file_->name();
        return false;
    }
    head_ = head;
    return true;
}

/// The queue ends at the first record that isn't whole.
void PagedQueue::findTail() {
    std::uint64_t const length = file_->length();
    Window window;
    Extent record;
    tail_ = head_.offset;
    while (tail_ < length && load(tail_, length, head_.generation, window, record)) {
        tail_ += frameSize + record.size;
        ++count_;
    }
    trimmed_ = tail_ >= length;
    if (!trimmed_)
        MORVA_TRACE(Normal) << "Queue" << file_->name() << "ends" << length - tail_
                            << "bytes before its file";
}

/// What lies behind the tail could be taken for records once the tail has moved up to it.
bool PagedQueue::trim() {
    if (!trimmed_)
        trimmed_ = file_->setLength(tail_);
    return trimmed_;
}

bool PagedQueue::fill(std::uint64_t offset, std::uint64_t end, std::uint64_t count,
                      Window& window) const {
    if (offset >= window.start && offset + count <= window.start + window.bytes.size())
        return true;
    if (count > end - offset)
        return false;
    std::uint64_t const wanted =
        std::min(std::max(count, std::min(readAhead, memory_)), end - offset);
    window.start = offset;
    window.bytes.resize(wanted);
    if (file_->readAt(offset, window.bytes.data(), static_cast<std::uint32_t>(wanted)) == wanted)
        return true;
    window.bytes.clear();
    return false;
}

bool PagedQueue::load(std::uint64_t offset, std::uint64_t end, std::uint64_t generation,
                      Window& window, Extent& record) const {
    if (!fill(offset, end, frameSize, window))
        return false;
    std::uint8_t* at = window.bytes.data() + (offset - window.start);
    auto const size = loadLittle<std::uint32_t>(at);
    if (size > pageSize_ - frameSize || !fill(offset, end, frameSize + std::uint64_t{size}, window))
        return false;
    at = window.bytes.data() + (offset - window.start);
    if (loadLittle<std::uint64_t>(at + 8) !=
        recordCheck(seedOf(generation, offset), at + frameSize, size))
        return false;
    record = Extent(static_cast<void*>(at + frameSize), size);
    return true;
}

/// Puts the record, as it stands at an offset of a generation, behind what `frame_` holds.
void PagedQueue::addFrame(Extent const& record, std::uint64_t generation, std::uint64_t offset) {
    std::size_t const start = frame_.size();
    frame_.resize(start + frameSize + record.size);
    std::uint8_t* const at = frame_.data() + start;
    storeLittle(at, record.size);
    storeLittle(at + 4, std::uint32_t{0});
    if (record.size != 0)
        std::memcpy(at + frameSize, record.data, record.size);
    storeLittle(at + 8, recordCheck(seedOf(generation, offset), at + frameSize, record.size));
}

PagedQueue::Result PagedQueue::send(Extent const& record) {
    if (record.size > pageSize_ - frameSize)
        return Result::TooLarge;
    TracedLock lock(lock_);
    if (!open_ || !trim())
        return Result::Failed;
    std::uint32_t const bytes = frameSize + record.size;
    frame_.clear();
    addFrame(record, head_.generation, tail_);
    if (file_->writeAt(tail_, frame_.data(), bytes) != bytes) {
        MORVA_TRACE(Always) << "Failed to write to queue" << file_->name();
        trimmed_ = false;
        return Result::Failed;
    }
    tail_ += bytes;
    if (count_++ == 0)
        wake();
    return Result::Success;
}

PagedQueue::Result PagedQueue::receiver(int interruptDescriptor) {
    if (!open_ || event_ < 0)
        return Result::Failed;
    interrupt_ = interruptDescriptor;
    receiving_ = true;
    return Result::Success;
}

PagedQueue::Result PagedQueue::take(Extent& record) {
    if (!receiving_)
        return Result::Failed;
    if (interrupted())
        return Result::Interrupted;
    TracedLock lock(lock_);
    if (count_ == 0)
        return Result::Empty;
    Head const head = head_;
    std::uint64_t const tail = tail_;
    lock.release(); // what lies between head and tail doesn't change
    if (!load(head.offset, tail, head.generation, window_, record)) {
        MORVA_TRACE(Always) << "Failed to read from queue" << file_->name() << head.offset;
        return Result::Failed;
    }
    held_ = true;
    heldSize_ = record.size;
    return Result::Success;
}

PagedQueue::Result PagedQueue::receivePolled(Extent& record) {
    MORVA_METHOD("receivePolled");
    for (;;) {
        Result const result = take(record);
        if (result != Result::Empty)
            return result;
        waitForEvent();
    }
}

PagedQueue::Result PagedQueue::tryReceive(Extent& record) {
    return take(record);
}

bool PagedQueue::interrupted() const {
    if (stopped_.load(std::memory_order_acquire))
        return true;
    pollfd poll{interrupt_, POLLIN, 0};
    return interrupt_ >= 0 && ::poll(&poll, 1, 0) > 0;
}

void PagedQueue::waitForEvent() const {
    pollfd polls[] = {{event_, POLLIN, 0}, {interrupt_, POLLIN, 0}};
    std::uint64_t value = 0;
    if (::poll(polls, interrupt_ >= 0 ? 2 : 1, -1) > 0 && (polls[0].revents & POLLIN))
        (void)!::read(event_, &value, sizeof value);
}

void PagedQueue::wake() const {
    std::uint64_t const one = 1;
    (void)!::write(event_, &one, sizeof one);
}

void PagedQueue::stop() {
    stopped_.store(true, std::memory_order_release);
    wake();
}

/// Copies the records from `from` to the tail to the front of the file, as a generation of their
/// own, and tells where they end. They count only once a head names that generation. Only done
/// when what was released before takes at least as much room, so that the copy meets neither its
/// source nor the record at hand, and a record is moved at most once for as many bytes released.
bool PagedQueue::copyToFront(std::uint64_t from, std::uint64_t generation, std::uint64_t& end) {
    std::uint64_t const released = head_.offset - Header::size;
    if (released < std::max({pageSize_, tail_ - from, moveAt_}))
        return false;
    Window window;
    Extent record;
    std::uint64_t written = Header::size;
    frame_.clear();
    bool copied = true;
    while (copied && from < tail_) {
        copied = load(from, tail_, head_.generation, window, record);
        if (!copied)
            break;
        addFrame(record, generation, written + frame_.size());
        from += frameSize + record.size;
        if (frame_.size() >= readAhead || from == tail_) {
            auto const bytes = static_cast<std::uint32_t>(frame_.size());
            copied = file_->writeAt(written, frame_.data(), bytes) == bytes;
            written += bytes;
            frame_.clear();
        }
    }
    moveAt_ = copied ? 0 : released * 2;
    end = written;
    return copied;
}

PagedQueue::Result PagedQueue::release() {
    if (!held_)
        return Result::Failed;
    TracedLock lock(lock_);
    Head head = head_;
    std::uint64_t const next = head.offset + frameSize + heldSize_;
    std::uint64_t const before = tail_;
    std::uint64_t end = Header::size;
    // No generation has the number of a head that wasn't written yet.
    std::uint64_t const generation = head.sequence + 1;
    bool const startOver = count_ == 1 || copyToFront(next, generation, end);
    head.offset = startOver ? Header::size : next;
    if (startOver)
        head.generation = generation;
    if (!writeHead(head))
        return Result::Failed;
    held_ = false;
    --count_;
    if (startOver) {
        window_.bytes.clear();
        tail_ = end;
        if (before - end >= std::min(pageSize_, readAhead))
            trimmed_ = file_->setLength(end);
    }
    return Result::Success;
}

PagedQueue::Result PagedQueue::available(std::uint64_t& count) const {
    TracedLock lock(lock_);
    if (!open_)
        return Result::Failed;
    count = count_;
    return Result::Success;
}

bool PagedQueue::sync() {
    return open_ && file_->sync();
}

bool PagedQueue::forEach(std::function<bool(Extent const& record)> const& callback) const {
    TracedLock lock(lock_);
    if (!open_)
        return false;
    Window window;
    Extent record;
    for (std::uint64_t at = head_.offset; at < tail_; at += frameSize + record.size) {
        if (!load(at, tail_, head_.generation, window, record))
            return false;
        if (!callback(record))
            return true;
    }
    return true;
}

} // namespace Morva
