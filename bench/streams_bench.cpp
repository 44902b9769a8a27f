// What the stream pool costs beside the bare file system:
//
//   RawWrite/n   pwrite of n bytes
//   Write/n      new stream, n bytes in pieces of at most 1 MiB, close
//   Read/n       a whole stream of n bytes in pieces of 1 MiB, from the page cache
//   Open         handle of an existing stream and its end
//
// Both write over the same 128 MiB of a file again and again, which are in the page cache before
// the clock starts. What is full is deleted outside the clock.

#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/StreamHandle.h"
#include "replication/repository/streams/Streams.h"

#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

using namespace Replication;

namespace {

constexpr std::uint32_t piece = 1 << 20;
constexpr std::uint64_t roomBytes = std::uint64_t{128} << 20;

std::vector<std::uint8_t> const data(piece, 0x5a);

struct Pool {
    Pool() {
        auto warm = streams->handle(streams->newStream(), false);
        for (std::uint64_t at = 0; at < roomBytes; at += piece)
            warm->write(at, data.data(), piece);
        warm->truncate(0);
        warm.reset();
        if (!cleanup.drain())
            std::abort();
    }

    QTemporaryDir directory;
    std::shared_ptr<Streams> streams = std::make_shared<Streams>(
        directory.path() + "/streams", directory.path() + "/data", Streams::Configuration{});
    CleanupWorker cleanup{streams};
};

void RawWrite(benchmark::State& state) {
    QTemporaryDir directory;
    int const file = ::open((directory.path() + "/raw").toLocal8Bit().constData(),
                            O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (::posix_fallocate(file, 0, static_cast<off_t>(roomBytes)) != 0)
        state.SkipWithError("no room");
    for (std::uint64_t at = 0; at < roomBytes; at += piece) {
        if (::pwrite(file, data.data(), piece, static_cast<off_t>(at)) < 0)
            state.SkipWithError("pwrite failed");
    }
    auto const size = static_cast<std::size_t>(state.range(0));
    std::uint64_t at = 0;
    for (auto _ : state) {
        if (::pwrite(file, data.data(), size, static_cast<off_t>(at)) < 0)
            state.SkipWithError("pwrite failed");
        at = at + size >= roomBytes ? 0 : at + size;
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    ::close(file);
}

void Write(benchmark::State& state) {
    Pool pool;
    auto const size = static_cast<std::uint64_t>(state.range(0));
    std::uint64_t filled = 0;
    std::vector<StreamId> ids;
    for (auto _ : state) {
        auto stream = pool.streams->handle(pool.streams->newStream(), false);
        for (std::uint64_t at = 0; at < size; at += piece)
            stream->write(at, data.data(),
                          static_cast<std::uint32_t>(std::min<std::uint64_t>(piece, size - at)));
        ids.push_back(stream->id());
        filled += size;
        if (filled < roomBytes && ids.size() < 200000)
            continue;
        state.PauseTiming();
        stream.reset();
        for (StreamId id : ids)
            pool.streams->handle(id, false)->releaseReference();
        if (!pool.cleanup.drain())
            state.SkipWithError("cleanup failed");
        ids.clear();
        filled = 0;
        state.ResumeTiming();
    }
    if (pool.streams->failures() != 0)
        state.SkipWithError("a block failed");
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void Read(benchmark::State& state) {
    Pool pool;
    auto stream = pool.streams->handle(pool.streams->newStream(), false);
    auto const size = static_cast<std::uint64_t>(state.range(0));
    for (std::uint64_t at = 0; at < size; at += piece)
        stream->write(at, data.data(), piece);
    std::vector<std::uint8_t> room(piece);
    for (auto _ : state) {
        for (std::uint64_t at = 0; at < size; at += piece)
            benchmark::DoNotOptimize(stream->read(at, room.data(), piece));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void Open(benchmark::State& state) {
    Pool pool;
    StreamId const id = pool.streams->newStream();
    for (auto _ : state)
        benchmark::DoNotOptimize(pool.streams->handle(id, false));
}

BENCHMARK(RawWrite)->Arg(16384)->Arg(1 << 20);
BENCHMARK(Write)->Arg(100)->Arg(16384)->Arg(1 << 20)->Arg(64 << 20);
BENCHMARK(Read)->Arg(64 << 20);
BENCHMARK(Open);

} // namespace
