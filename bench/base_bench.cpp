// What the base's containers cost, with files in a folder of /tmp:
//
//   PageHit, PageMiss     pin and return a page that is in the cache, or that isn't
//   PageWriteBack         change pages of a file four times as large as the cache, and flush
//   ReadPage/n, WritePage/n, WritePart/n
//                         a page, or 100 bytes of one, of a file without a journal (0), below one
//                         whose checksums are left out (1), or as it is (2)
//   TreeInsert/n, TreeFind/n, TreeRemove/n, TreeWalk/n
//                         keys of 40 bytes in a tree of n, in random order
//   QueueSendReceive      a record of 64 bytes through a queue
//   ListWriteRead, ListSort
//                         100,000 records of 64 bytes

#include "base/blocks/Blocks.h"
#include "base/files/Journal.h"
#include "base/trees/BPlusTree.h"
#include "base/trees/PagedList.h"
#include "base/trees/PagedQueue.h"

#include <QDir>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

using namespace Morva;

namespace {

constexpr std::uint32_t cachePages = 1024;
constexpr std::uint64_t records = 100000;

struct PageFile {
    explicit PageFile(std::uint64_t pages) {
        bool made = blocks.create(directory.path() + "/pages", 4096, 0, 0, mode).ok();
        std::uint64_t number = 0;
        for (std::uint64_t i = 0; made && i < pages; ++i)
            made = blocks.returnBlock(*blocks.newBlock(number), true);
        if (!made || !blocks.flush())
            std::abort();
    }

    static constexpr RawFile::Mode mode = RawFile::Mode::ReadWrite;
    QTemporaryDir directory;
    Blocks blocks{cachePages};
};

void touchPages(benchmark::State& state, std::uint64_t pages, bool change) {
    PageFile file(pages);
    // Far apart, so that none is read or written along with another one.
    std::uint64_t page = 0;
    for (auto _ : state) {
        page = (page + 7919) % pages;
        void* const block = *file.blocks.getBlock(page + Blocks::firstBlock());
        benchmark::DoNotOptimize(block);
        file.blocks.returnBlock(block, change);
    }
    if (!file.blocks.flush())
        state.SkipWithError("flush failed");
    state.SetItemsProcessed(state.iterations());
}
void PageHit(benchmark::State& state) {
    touchPages(state, cachePages / 2, false);
}
void PageMiss(benchmark::State& state) {
    touchPages(state, cachePages * 16, false);
}
void PageWriteBack(benchmark::State& state) {
    touchPages(state, cachePages * 4, true);
}
BENCHMARK(PageHit);
BENCHMARK(PageMiss);
BENCHMARK(PageWriteBack);

/// A file of 16 MiB, read and written below the page cache.
struct PagedFile {
    static constexpr std::uint64_t pages = 4096;

    explicit PagedFile(benchmark::State const& state) {
        QString const path = directory.path() + QStringLiteral("/place");
        bool made = QDir().mkpath(path);
        if (state.range(0) != 0) {
            auto opened = Journal::open(directory.path(), {path});
            made = made && opened;
            journal = made ? *std::move(opened) : nullptr;
        }
        // Side files are guarded, and have no sums themselves.
        file = RawFile::make();
        made = made && file->create(path + (state.range(0) == 1 ? "/pages.sums" : "/pages"),
                                    RawFile::Mode::ReadWrite);
        std::vector<std::uint8_t> const bytes(pages * pageSize, 7);
        made = made && file->writeAt(0, bytes.data(), pages * pageSize) &&
               (!journal || journal->checkpoint());
        if (!made)
            std::abort();
    }

    static constexpr std::uint32_t pageSize = 4096;
    QTemporaryDir directory;
    std::unique_ptr<Journal> journal;
    std::unique_ptr<RawFile> file;
};

template <class Call> void eachPage(benchmark::State& state, Call call) {
    PagedFile paged(state);
    std::vector<std::uint8_t> bytes(PagedFile::pageSize, 9);
    std::uint64_t page = 0;
    bool good = true;
    for (auto _ : state) {
        page = (page + 1567) % PagedFile::pages;
        good = call(*paged.file, page * PagedFile::pageSize, bytes.data()) && good;
    }
    if (!good)
        state.SkipWithError("the file failed");
    state.SetItemsProcessed(state.iterations());
}
void ReadPage(benchmark::State& state) {
    eachPage(state, [](RawFile& file, std::uint64_t offset, std::uint8_t* bytes) {
        return file.readWhole(offset, bytes, PagedFile::pageSize).ok();
    });
}
void WritePage(benchmark::State& state) {
    eachPage(state, [](RawFile& file, std::uint64_t offset, std::uint8_t* bytes) {
        return file.writeAt(offset, bytes, PagedFile::pageSize).ok();
    });
}
void WritePart(benchmark::State& state) {
    eachPage(state, [](RawFile& file, std::uint64_t offset, std::uint8_t* bytes) {
        return file.writeAt(offset + 1000, bytes, 100).ok();
    });
}
BENCHMARK(ReadPage)->DenseRange(0, 2);
BENCHMARK(WritePage)->DenseRange(0, 2);
BENCHMARK(WritePart)->DenseRange(0, 2);

class NumberKey final : public BPlusTree::Key {
public:
    explicit NumberKey(std::uint64_t number) : number_(number) {
        hash_.first = static_cast<std::uint32_t>(number * 0x9E3779B97F4A7C15ull >> 32);
    }
    void hash(BPlusTree::KeyHash const& value) override { hash_ = value; }
    [[nodiscard]] BPlusTree::KeyHash const& hash() const override { return hash_; }
    [[nodiscard]] std::uint32_t size() const override { return storedSize; }
    [[nodiscard]] bool save(Extent& range) const override {
        auto* const bytes = static_cast<std::uint8_t*>(range.data);
        std::memset(bytes, 0, storedSize);
        std::memcpy(bytes, &number_, sizeof number_);
        std::memcpy(bytes + sizeof number_, &hash_, sizeof hash_);
        return true;
    }
    [[nodiscard]] bool restore(Extent const& stored) override {
        std::memcpy(&hash_, static_cast<std::uint8_t const*>(stored.data) + sizeof number_,
                    sizeof hash_);
        return stored.size == storedSize;
    }
    [[nodiscard]] bool equal(Extent const& stored) const override {
        return std::memcmp(stored.data, &number_, sizeof number_) == 0;
    }

private:
    static constexpr std::uint32_t storedSize = 40;
    std::uint64_t number_;
    BPlusTree::KeyHash hash_;
};

struct Tree {
    explicit Tree(std::int64_t keys) : order(static_cast<std::size_t>(keys)) {
        std::iota(order.begin(), order.end(), 0u);
        std::shuffle(order.begin(), order.end(), std::mt19937_64(7));
        if (!tree.create(directory.path() + "/tree", 4096))
            std::abort();
    }
    bool insertAll() {
        return std::all_of(order.begin(), order.end(), [this](std::uint64_t number) {
            NumberKey key(number);
            return tree.insert(key).ok();
        });
    }
    bool removeAll() {
        return std::all_of(order.begin(), order.end(), [this](std::uint64_t number) {
            NumberKey key(number);
            return *tree.find(key) && tree.remove(key);
        });
    }

    QTemporaryDir directory;
    BPlusTree tree{cachePages};
    std::vector<std::uint64_t> order;
};

void TreeInsert(benchmark::State& state) {
    Tree tree(state.range(0));
    for (auto _ : state) {
        if (!tree.insertAll())
            state.SkipWithError("insert failed");
        state.PauseTiming();
        if (!tree.removeAll())
            state.SkipWithError("remove failed");
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
void TreeRemove(benchmark::State& state) {
    Tree tree(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        if (!tree.insertAll())
            state.SkipWithError("insert failed");
        state.ResumeTiming();
        if (!tree.removeAll())
            state.SkipWithError("remove failed");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
void TreeFind(benchmark::State& state) {
    Tree tree(state.range(0));
    if (!tree.insertAll())
        state.SkipWithError("insert failed");
    std::size_t at = 0;
    for (auto _ : state) {
        NumberKey key(tree.order[at]);
        at = at + 1 == tree.order.size() ? 0 : at + 1;
        benchmark::DoNotOptimize(*tree.tree.find(key));
    }
    state.SetItemsProcessed(state.iterations());
}
void TreeWalk(benchmark::State& state) {
    Tree tree(state.range(0));
    if (!tree.insertAll())
        state.SkipWithError("insert failed");
    for (auto _ : state) {
        std::int64_t seen = 0;
        if (!tree.tree.forEach([&](Extent const&) { return ++seen != 0; }) ||
            seen != state.range(0))
            state.SkipWithError("walk failed");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(TreeInsert)->Arg(10000)->Arg(300000)->Unit(benchmark::kMillisecond);
BENCHMARK(TreeRemove)->Arg(10000)->Arg(300000)->Unit(benchmark::kMillisecond);
BENCHMARK(TreeFind)->Arg(10000)->Arg(300000);
BENCHMARK(TreeWalk)->Arg(10000)->Arg(300000)->Unit(benchmark::kMillisecond);

void QueueSendReceive(benchmark::State& state) {
    QTemporaryDir directory;
    PagedQueue queue(directory.path() + "/queue", 65536, 4);
    std::uint8_t bytes[64] = {};
    Extent const record(static_cast<void*>(bytes), sizeof bytes);
    Extent got;
    bool good = queue.receiver().ok();
    for (auto _ : state)
        good = good && queue.send(record) && *queue.tryReceive(got) && queue.release();
    if (!good)
        state.SkipWithError("queue failed");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(QueueSendReceive);

bool fill(PagedList& list) {
    std::mt19937_64 random(7);
    std::uint64_t bytes[8] = {};
    bool good = true;
    for (std::uint64_t i = 0; i < records; ++i) {
        bytes[0] = random();
        good = list.write(Extent(static_cast<void*>(bytes), sizeof bytes)).ok() && good;
    }
    return good;
}

void ListWriteRead(benchmark::State& state) {
    QTemporaryDir directory;
    PagedList list(directory.path() + "/list");
    list.deleteOnClose();
    for (auto _ : state) {
        list.clear();
        bool const good = fill(list);
        list.setPositionStart();
        std::uint64_t seen = 0;
        for (Extent record; *list.read(record);)
            ++seen;
        if (!good || seen != records)
            state.SkipWithError("list failed");
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(records));
}
void ListSort(benchmark::State& state) {
    QTemporaryDir directory;
    auto const compare = [](Extent const& one, Extent const& other) {
        std::uint64_t a = 0;
        std::uint64_t b = 0;
        std::memcpy(&a, one.data, sizeof a);
        std::memcpy(&b, other.data, sizeof b);
        return a < b   ? PagedList::CompareResult::Less
               : a > b ? PagedList::CompareResult::Greater
                       : PagedList::CompareResult::Equal;
    };
    PagedList list(compare, directory.path() + "/list", 65536, 1048576);
    list.deleteOnClose();
    for (auto _ : state) {
        state.PauseTiming();
        list.clear();
        bool const good = fill(list);
        state.ResumeTiming();
        if (!good || !list.sort())
            state.SkipWithError("sort failed");
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(records));
}
BENCHMARK(ListWriteRead)->Unit(benchmark::kMillisecond);
BENCHMARK(ListSort)->Unit(benchmark::kMillisecond);

} // namespace
