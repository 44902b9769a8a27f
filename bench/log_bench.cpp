// Workloads: decode a stream of small logs (from memory, and from a file through the read-ahead),
// build small logs in place, encode writes of 1 MiB.

#include "replication/common/log/LogBuilder.h"
#include "replication/common/log/LogPool.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <unistd.h>

namespace {

using namespace Replication;

constexpr int logsInStream = 20000;

LogBuilder& smallLog(LogBuilder& builder, std::uint64_t number) {
    return builder.begin(LogType::PosixCreate, number)
        .time(1700000000)
        .number(LogField::FileId, number & 0xFFFF)
        .text(LogField::File, "/home/user/projects/kernel/drivers/net/ethernet/driver.c")
        .number(LogField::Mode, 0100644)
        .number(LogField::Uid, 1000)
        .number(LogField::Gid, 1000);
}

void shareValues(LogBuilder& builder) {
    std::uint32_t const rules[] = {1, 2};
    builder.rules(rules);
    builder.source(QStringLiteral("source.example"));
    builder.process("morva");
    builder.ruleSet(1);
}

QByteArray streamOfSmallLogs() {
    QByteArray stream;
    LogBuilder builder;
    shareValues(builder);
    for (int i = 0; i < logsInStream; ++i)
        stream += smallLog(builder, static_cast<std::uint64_t>(i)).encode().head.toByteArray();
    return stream;
}

void decodeAll(benchmark::State& state, LogIoRead const& source, LogHeader& header, LogEntry& log) {
    for (int i = 0; i < logsInStream; ++i) {
        if (!header.receive(source) || !log.receive(source, header)) {
            state.SkipWithError("a log was refused");
            return;
        }
        benchmark::DoNotOptimize(log.mode());
    }
}

void DecodeSmallLogsFromMemory(benchmark::State& state) {
    QByteArray const stream = streamOfSmallLogs();
    LogHeader header;
    LogEntry log;
    for (auto _ : state) {
        Morva::Extent extent(stream);
        decodeAll(state, logIo(extent), header, log);
    }
    state.SetItemsProcessed(state.iterations() * logsInStream);
    state.SetBytesProcessed(state.iterations() * stream.size());
}
BENCHMARK(DecodeSmallLogsFromMemory);

void DecodeSmallLogsFromFile(benchmark::State& state) {
    QByteArray const stream = streamOfSmallLogs();
    char name[] = "/tmp/log_bench_XXXXXX";
    int const file = ::mkstemp(name);
    ::unlink(name);
    if (::write(file, stream.constData(), static_cast<std::size_t>(stream.size())) != stream.size())
        state.SkipWithError("no room for the stream");
    LogHeader header;
    LogEntry log;
    for (auto _ : state) {
        ::lseek(file, 0, SEEK_SET);
        LogReadAhead ahead(file);
        decodeAll(state, ahead.io(), header, log);
    }
    ::close(file);
    state.SetItemsProcessed(state.iterations() * logsInStream);
}
BENCHMARK(DecodeSmallLogsFromFile);

void EncodeSmallLogs(benchmark::State& state) {
    LogBuilder builder;
    shareValues(builder);
    std::uint64_t number = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(smallLog(builder, ++number).encode().head.size);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(EncodeSmallLogs);

void BuildSmallLogsFromPool(benchmark::State& state) {
    LogBuilder builder;
    shareValues(builder);
    LogPool pool;
    std::uint64_t number = 0;
    for (auto _ : state) {
        LogPointer const log = pool.acquire();
        benchmark::DoNotOptimize(log->build(smallLog(builder, ++number)));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BuildSmallLogsFromPool);

void EncodeWritesOfOneMebibyte(benchmark::State& state) {
    LogBuilder builder;
    shareValues(builder);
    QByteArray const data(1 << 20, 'x');
    std::uint64_t number = 0;
    for (auto _ : state) {
        builder.begin(LogType::Write, ++number).bytes(LogField::Data, Morva::Extent(data));
        benchmark::DoNotOptimize(builder.encode().data.data);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(EncodeWritesOfOneMebibyte);

} // namespace
