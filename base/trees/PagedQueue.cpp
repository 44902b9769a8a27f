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

/// Before each record: 0 4 size, 4 4 frameWord of the size, 8 8 recordCheck of the bytes; both
/// checks are seeded with generation and offset. The word is 0 in files of earlier programs.
constexpr std::uint32_t frameSize = 16;
constexpr std::uint32_t atWord = 4, atFrameCheck = 8;
constexpr std::uint64_t readAhead = 65536;
/// Looking for a sound record behind a damaged one hashes no more bytes than these and some times
/// those that it passes, whatever sizes the damaged bytes seem to tell.
constexpr std::uint64_t searchBytes = 67108864;
constexpr std::uint64_t searchFactor = 8;
/// What the layers below verify, and fail, as one.
constexpr std::uint64_t filePage = 4096;
constexpr LockTexts lockTexts{"================ Lock Queue ================",
                              "================ Unlock Queue ================"};

std::uint64_t seedOf(std::uint64_t generation, std::uint64_t offset) {
    return generation * 0x100000001B3ull ^ offset;
}

/// Tells a frame whose record is damaged from bytes that never were a frame. Never 0.
std::uint32_t frameWord(std::uint64_t seed, std::uint8_t const* size) {
    return static_cast<std::uint32_t>(recordCheck(seed, size, 4) >> 32) | 1;
}

std::uint64_t headAt(std::uint64_t sequence) {
    return Header::atHeads + sequence % 2 * Header::headSize;
}

} // namespace

std::uint64_t PagedQueue::Found::end() const {
    return offset + frameSize + record.size;
}

PagedQueue::PagedQueue(QString const& path, std::uint64_t pageSize, std::uint64_t pagesInMemory,
                       Missing missing)
    : pageSize_(std::max<std::uint64_t>(pageSize, frameSize)),
      memory_(pageSize_ * std::clamp<std::uint64_t>(pagesInMemory, 1, 0x10000)),
      lock_(lockTexts) {
    MORVA_METHOD("PagedQueue");
    TracedLock lock(lock_);
    event_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    opened_ = event_ >= 0 ? openOrMake(path, missing)
                          : Status::fromErrno(errno, "make an event for", path);
    if (!opened_)
        MORVA_TRACE(Always) << "Failed to open queue" << path;
}

PagedQueue::PagedQueue(QString const& path, std::uint64_t pageSize, ReadOnly)
    : pageSize_(std::max<std::uint64_t>(pageSize, frameSize)),
      memory_(pageSize_),
      lock_(lockTexts) {
    TracedLock lock(lock_);
    file_ = RawFile::make();
    opened_ = file_->open(path, RawFile::Mode::ReadOnly);
    if (opened_)
        opened_ = readHead();
    if (opened_)
        opened_ = findTail();
}

PagedQueue::~PagedQueue() {
    if (event_ >= 0)
        ::close(event_);
}

Status PagedQueue::openOrMake(QString const& path, Missing missing) {
    file_ = RawFile::make();
    Status opened = file_->open(path, RawFile::Mode::ReadWrite);
    if (opened.is(Status::Code::NotFound) && missing == Missing::Make) {
        MORVA_TRY(file_->create(path, RawFile::Mode::ReadWrite));
        return make();
    }
    MORVA_TRY(std::move(opened));
    MORVA_TRY_LET(std::uint64_t const length, file_->length());
    if (length <= Header::size && missing == Missing::Make) {
        std::array<std::uint8_t, Header::size> header;
        MORVA_TRY_LET(std::uint32_t const got, file_->readAt(0, header.data(), Header::size));
        if (std::all_of(header.data(), header.data() + got, [](auto byte) { return byte == 0; }))
            return make();
    }
    MORVA_TRY(readHead());
    return findTail();
}

/// Writes the header of an empty queue, in one write, so that a header without a head is damage.
Status PagedQueue::make() {
    std::array<std::uint8_t, Header::size> header{};
    std::memcpy(header.data(), Header::magic, 8);
    storeLittle(header.data() + Header::atVersion, Header::version);
    head_ = {1, 1, Header::size};
    storeHead(header.data() + headAt(head_.sequence), head_);
    tail_ = Header::size;
    trimmed_ = true;
    return file_->writeAt(0, header.data(), Header::size);
}

void PagedQueue::storeHead(std::uint8_t* at, Head const& head) {
    storeLittle(at, head.sequence);
    storeLittle(at + 8, head.generation);
    storeLittle(at + 16, head.offset);
    storeLittle(at + 24, recordCheck(0, at, 24));
}

Status PagedQueue::readHead() {
    std::array<std::uint8_t, Header::size> header;
    MORVA_TRY(file_->readWhole(0, header.data(), Header::size));
    if (std::memcmp(header.data(), Header::magic, 8) == 0 &&
        loadLittle<std::uint32_t>(header.data() + Header::atVersion) == Header::version)
        for (std::uint32_t i = 0; i < 2; ++i) {
            std::uint8_t const* at = header.data() + Header::atHeads + i * Header::headSize;
            Head const head{loadLittle<std::uint64_t>(at), loadLittle<std::uint64_t>(at + 8),
                            loadLittle<std::uint64_t>(at + 16)};
            if (loadLittle<std::uint64_t>(at + 24) == recordCheck(0, at, 24) &&
                head.sequence > head_.sequence && head.offset >= Header::size)
                head_ = head;
        }
    if (head_.sequence == 0)
        return Status::corruption("open", file_->name(), QStringLiteral("its header is damaged"));
    return {};
}

/// Writes and takes over a head, whose sequence is that of the one in force.
Status PagedQueue::writeHead(Head head) {
    ++head.sequence;
    std::array<std::uint8_t, Header::headSize> bytes;
    storeHead(bytes.data(), head);
    Status written = file_->writeAt(headAt(head.sequence), bytes.data(), Header::headSize);
    if (written)
        head_ = head;
    else
        MORVA_TRACE(Always) << "Failed to write the head of queue" << file_->name();
    return written;
}

// --- Finding records --------------------------------------------------------------------------

Status PagedQueue::damagedAt(std::uint64_t offset) const {
    return Status::corruption("read", file_->name(), QStringLiteral("a record is damaged"),
                              {Status::Unit::Byte, offset});
}

/// The queue ends behind the last record that is sound or was sound once. Other bytes behind that
/// are of a time before, or of a record that was never whole.
Status PagedQueue::findTail() {
    MORVA_TRY_LET(std::uint64_t const length, file_->length());
    Window window;
    tail_ = head_.offset;
    for (;;) {
        MORVA_TRY_LET(auto const found, find(tail_, length, head_.generation, window));
        if (!found) {
            MORVA_TRY_LET(bool const passed, passDamagedTail(length, window));
            if (passed)
                continue;
            break;
        }
        if (found->offset != tail_)
            MORVA_TRACE(Always) << "Damaged records in queue" << file_->name() << "at" << tail_;
        tail_ = found->end();
        ++count_;
    }
    trimmed_ = tail_ >= length;
    if (!trimmed_)
        MORVA_TRACE(Normal) << "Queue" << file_->name() << "ends" << length - tail_
                            << "bytes before its file";
    return {};
}

/// Moves the tail behind a frame whose record is damaged, so that nothing is written over it, and
/// behind what can't be verified. False where there is no such thing.
Result<bool> PagedQueue::passDamagedTail(std::uint64_t length, Window& window) {
    if (tail_ >= length || length - tail_ < frameSize)
        return false;
    Status const filled = fill(tail_, length, frameSize, window);
    if (!filled && !filled.is(Status::Code::Corruption))
        return filled;
    std::uint64_t next = length;
    if (filled) {
        std::uint8_t const* at = window.bytes.data() + (tail_ - window.start);
        auto const size = loadLittle<std::uint32_t>(at);
        if (loadLittle<std::uint32_t>(at + atWord) !=
                frameWord(seedOf(head_.generation, tail_), at) ||
            size > length - tail_ - frameSize)
            return false;
        next = tail_ + frameSize + size;
    }
    MORVA_TRACE(Always) << "Damaged records in queue" << file_->name() << "at" << tail_;
    tail_ = next;
    return true;
}

/// What lies behind the tail could be taken for records once the tail has moved up to it.
Status PagedQueue::trim() {
    if (trimmed_)
        return {};
    MORVA_TRY(file_->setLength(tail_));
    trimmed_ = true;
    return {};
}

/// Has bytes of the file in the window. Reading ahead fails for what is needed alone.
Status PagedQueue::fill(std::uint64_t offset, std::uint64_t end, std::uint64_t count,
                        Window& window) const {
    if (offset >= window.start && offset + count <= window.start + window.bytes.size())
        return {};
    if (count > end - offset)
        return damagedAt(offset);
    std::uint64_t const ahead =
        std::min(std::max(count, std::min(readAhead, memory_)), end - offset);
    window.start = offset;
    Status read;
    for (std::uint64_t wanted = ahead;; wanted = count) {
        window.bytes.resize(wanted);
        read = file_->readWhole(offset, window.bytes.data(), static_cast<std::uint32_t>(wanted));
        if (read)
            return read;
        if (wanted == count || !read.is(Status::Code::Corruption))
            break;
    }
    window.bytes.clear();
    return read;
}

Status PagedQueue::load(std::uint64_t offset, std::uint64_t end, std::uint64_t generation,
                        Window& window, Extent& record) const {
    MORVA_TRY(fill(offset, end, frameSize, window));
    std::uint8_t* at = window.bytes.data() + (offset - window.start);
    auto const size = loadLittle<std::uint32_t>(at);
    if (size > pageSize_ - frameSize)
        return damagedAt(offset);
    MORVA_TRY(fill(offset, end, frameSize + std::uint64_t{size}, window));
    at = window.bytes.data() + (offset - window.start);
    if (loadLittle<std::uint64_t>(at + atFrameCheck) !=
        recordCheck(seedOf(generation, offset), at + frameSize, size))
        return damagedAt(offset);
    record = Extent(static_cast<void*>(at + frameSize), size);
    return {};
}

/// The first sound record from an offset on, which is that of a frame if all is well.
Result<std::optional<PagedQueue::Found>> PagedQueue::find(std::uint64_t from, std::uint64_t end,
                                                          std::uint64_t generation,
                                                          Window& window) const {
    if (from >= end)
        return std::optional<Found>();
    Found found{from, {}};
    Status loaded = load(from, end, generation, window, found.record);
    if (loaded) [[likely]]
        return std::optional(found);
    if (!loaded.is(Status::Code::Corruption))
        return loaded;
    return findAgain(from, end, generation, window);
}

/// The same where the record at `from` is damaged: behind it, if its frame tells how long it is,
/// else at whichever byte a sound one begins.
Result<std::optional<PagedQueue::Found>> PagedQueue::findAgain(std::uint64_t from,
                                                               std::uint64_t end,
                                                               std::uint64_t generation,
                                                               Window& window) const {
    std::uint64_t left = searchBytes + searchFactor * (end - from);
    std::uint64_t next = 0;
    for (std::uint64_t at = from; at < end && end - at >= frameSize; at = next) {
        next = at + 1;
        Status const filled = fill(at, end, frameSize, window);
        if (!filled) {
            if (!filled.is(Status::Code::Corruption))
                return filled;
            next = (at / filePage + 1) * filePage;
            continue;
        }
        std::uint8_t const* frame = window.bytes.data() + (at - window.start);
        std::uint64_t const size = loadLittle<std::uint32_t>(frame);
        auto const word = loadLittle<std::uint32_t>(frame + atWord);
        if (size > end - at - frameSize || size + frameSize > left)
            continue;
        bool const marked = word == frameWord(seedOf(generation, at), frame);
        if (word != 0 && !marked)
            continue;
        if (at != from) {
            left -= size + frameSize;
            Found found{at, {}};
            Status loaded = load(at, end, generation, window, found.record);
            if (loaded)
                return std::optional(found);
            if (!loaded.is(Status::Code::Corruption))
                return loaded;
        }
        if (marked)
            next = at + frameSize + size;
    }
    return std::optional<Found>();
}

/// Puts the record, as it stands at an offset of a generation, behind what `frame_` holds.
void PagedQueue::addFrame(Extent const& record, std::uint64_t generation, std::uint64_t offset) {
    std::size_t const start = frame_.size();
    frame_.resize(start + frameSize + record.size);
    std::uint8_t* const at = frame_.data() + start;
    std::uint64_t const seed = seedOf(generation, offset);
    storeLittle(at, record.size);
    storeLittle(at + atWord, frameWord(seed, at));
    if (record.size != 0)
        std::memcpy(at + frameSize, record.data, record.size);
    storeLittle(at + atFrameCheck, recordCheck(seed, at + frameSize, record.size));
}

Status PagedQueue::send(Extent const& record) {
    MORVA_TRY(Status(opened_));
    if (record.size > pageSize_ - frameSize)
        return Status::failure(Status::Code::InvalidArgument, "send to", file_->name(),
                               QStringLiteral("the record is too large"));
    TracedLock lock(lock_);
    MORVA_TRY(trim());
    std::uint32_t const bytes = frameSize + record.size;
    frame_.clear();
    addFrame(record, head_.generation, tail_);
    Status written = file_->writeAt(tail_, frame_.data(), bytes);
    if (!written) {
        MORVA_TRACE(Always) << "Failed to write to queue" << file_->name();
        trimmed_ = false;
        return written;
    }
    tail_ += bytes;
    if (count_++ == 0)
        wake();
    return {};
}

// --- Receiving --------------------------------------------------------------------------------

Status PagedQueue::receiver(int interruptDescriptor) {
    MORVA_TRY(Status(opened_));
    if (event_ < 0)
        return Status::failure(Status::Code::ReadOnly, "receive from", file_->name());
    interrupt_ = interruptDescriptor;
    receiving_ = true;
    return {};
}

Result<bool> PagedQueue::take(Extent& record) {
    if (!receiving_)
        return Status::failure(Status::Code::InvalidArgument, "receive from",
                               file_ ? file_->name() : QString(),
                               QStringLiteral("nobody is its receiver"));
    if (interrupted())
        return Status::failure(Status::Code::Stopped, "receive from", file_->name());
    TracedLock lock(lock_);
    Head const head = head_;
    std::uint64_t const tail = tail_;
    lock.release(); // what lies between head and tail doesn't change
    std::uint64_t const from = std::max(head.offset, told_);
    if (from >= tail)
        return false;
    MORVA_TRY_LET(auto const found, find(from, tail, head.generation, window_));
    std::uint64_t const sound = found ? found->offset : tail;
    if (sound != from)
        return passDamage(from, sound);
    held_ = true;
    heldEnd_ = found->end();
    record = found->record;
    return true;
}

/// Notes damaged records as told, and gives the failure that tells them.
Status PagedQueue::passDamage(std::uint64_t from, std::uint64_t to) {
    MORVA_TRACE(Always) << "Failed to read from queue" << file_->name() << from;
    TracedLock lock(lock_);
    MORVA_TRY(recount());
    told_ = to;
    return damagedAt(from);
}

/// Counts the sound records anew, some of which have been damaged since they were counted.
Status PagedQueue::recount() {
    Window window;
    std::uint64_t count = 0;
    for (std::uint64_t at = head_.offset;; ++count) {
        MORVA_TRY_LET(auto const found, find(at, tail_, head_.generation, window));
        if (!found)
            break;
        at = found->end();
    }
    count_ = count;
    return {};
}

Status PagedQueue::receivePolled(Extent& record) {
    MORVA_METHOD("receivePolled");
    for (;;) {
        auto const taken = take(record);
        if (!taken.ok())
            return taken.status();
        if (*taken)
            return {};
        waitForEvent();
    }
}

Result<bool> PagedQueue::tryReceive(Extent& record) {
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
/// source nor the record at hand, and a record is moved at most once for as many bytes released;
/// and not over a damaged record, which stays until the receiver was told of it. False where it
/// isn't done, also for a failure: the file stays as it is, and the next release tries again.
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
        copied = load(from, tail_, head_.generation, window, record).ok();
        if (!copied)
            break;
        addFrame(record, generation, written + frame_.size());
        from += frameSize + record.size;
        if (frame_.size() >= readAhead || from == tail_) {
            auto const bytes = static_cast<std::uint32_t>(frame_.size());
            copied = file_->writeAt(written, frame_.data(), bytes).ok();
            written += bytes;
            frame_.clear();
        }
    }
    moveAt_ = copied ? 0 : released * 2;
    end = written;
    return copied;
}

Status PagedQueue::release() {
    if (!held_)
        return Status::failure(Status::Code::InvalidArgument, "release from",
                               file_ ? file_->name() : QString(),
                               QStringLiteral("no record is given out"));
    TracedLock lock(lock_);
    Head head = head_;
    std::uint64_t const before = tail_;
    std::uint64_t end = Header::size;
    // No generation has the number of a head that wasn't written yet.
    std::uint64_t const generation = head.sequence + 1;
    bool const startOver = heldEnd_ == tail_ || copyToFront(heldEnd_, generation, end);
    head.offset = startOver ? Header::size : heldEnd_;
    if (startOver)
        head.generation = generation;
    MORVA_TRY(writeHead(head));
    held_ = false;
    count_ -= count_ != 0;
    if (startOver) {
        window_.bytes.clear();
        told_ = 0;
        tail_ = end;
        if (before - end >= std::min(pageSize_, readAhead))
            trimmed_ = file_->setLength(end).ok(); // else the next send tries again
    }
    return {};
}

Status PagedQueue::available(std::uint64_t& count) const {
    MORVA_TRY(Status(opened_));
    TracedLock lock(lock_);
    count = count_;
    return {};
}

Status PagedQueue::sync() {
    MORVA_TRY(Status(opened_));
    return file_->sync();
}

Status PagedQueue::forEach(std::function<bool(Extent const& record)> const& callback) const {
    MORVA_TRY(Status(opened_));
    TracedLock lock(lock_);
    Window window;
    Status sound;
    for (std::uint64_t at = head_.offset; at < tail_;) {
        MORVA_TRY_LET(auto const found, find(at, tail_, head_.generation, window));
        if (!found || found->offset != at)
            sound.update(damagedAt(at));
        if (!found || !callback(found->record))
            break;
        at = found->end();
    }
    return sound;
}

} // namespace Morva
