// What a directory of n names costs through a store's operations:
//
//   Insert/n   create an object; the directory is emptied outside the clock
//   Lookup/n   find a name in the live tree
//   List/n     all names of the live directory

#include "base/messages/XmlList.h"
#include "base/process/FixedPath.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/Directories.h"
#include "replication/repository/store/DirectoryScan.h"
#include "replication/repository/store/PathOperations.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/Streams.h"

#include <QDir>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstdlib>

using namespace Replication;
using Morva::FixedPath;

namespace {

/// A pool, a store and a directory "d" in it.
class OneDirectory {
public:
    explicit OneDirectory(std::int64_t names) : names_(names) {
        bool good = FixedPath::setRoot(root_.path()) &&
                    QDir().mkpath(FixedPath::repositoryStreams()) &&
                    QDir().mkpath(FixedPath::repositoryStreamData());
        streams_ =
            std::make_shared<Streams>(FixedPath::repositoryStreams(),
                                      FixedPath::repositoryStreamData(), Streams::Configuration{});
        Store::configure(Morva::XmlList{}, streams_, nullptr);
        if (auto made = Store::create(StoreId{1}, {ReplayId{7}, "machine", "home"}, true))
            store_ = *std::move(made);
        if (!good || !*streams_ || !store_)
            std::abort();
    }
    ~OneDirectory() {
        store_.reset();
        Store::closeAll();
    }

    static QString name(std::int64_t number) { return QStringLiteral("some file %1").arg(number); }
    bool fill() {
        return each([this](QStringList const& path) {
            return store_->paths().createObject(context_, path, {}).ok();
        });
    }
    bool empty() {
        return each([this](QStringList const& path) {
                   return store_->paths().unlink(context_, path).ok();
               }) &&
               CleanupWorker(streams_).drain();
    }
    bool has(std::int64_t number) {
        return store_->directories().locate({"d", name(number)}, PathMode::DoNotBuildPath)->found;
    }
    std::int64_t list() {
        auto const located = *store_->directories().locate({"d"}, PathMode::DoNotBuildPath);
        auto const handle = *store_->activeHandles().get(located.key.fileId());
        auto const node = handle ? handle->fileNode() : nullptr;
        std::int64_t seen = 0;
        if (node)
            for (DirectoryScan scan(*node, located.key.fileId(), "list"); scan.nextName();)
                ++seen;
        return seen;
    }

private:
    template <class Operation> bool each(Operation const& operation) {
        bool good = true;
        for (std::int64_t i = 0; i < names_; ++i)
            good = operation({"d", name(i)}) && good;
        return good;
    }

    std::int64_t names_;
    QTemporaryDir root_;
    std::shared_ptr<Streams> streams_;
    StorePointer store_;
    FileContext context_;
};

void Insert(benchmark::State& state) {
    OneDirectory directory(state.range(0));
    for (auto _ : state) {
        if (!directory.fill())
            state.SkipWithError("create failed");
        state.PauseTiming();
        if (!directory.empty())
            state.SkipWithError("unlink failed");
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
void Lookup(benchmark::State& state) {
    OneDirectory directory(state.range(0));
    if (!directory.fill())
        state.SkipWithError("create failed");
    std::int64_t number = 0;
    for (auto _ : state) {
        number = (number + 7919) % state.range(0);
        if (!directory.has(number))
            state.SkipWithError("a name is missing");
    }
    state.SetItemsProcessed(state.iterations());
}
void List(benchmark::State& state) {
    OneDirectory directory(state.range(0));
    if (!directory.fill())
        state.SkipWithError("create failed");
    for (auto _ : state)
        if (directory.list() != state.range(0))
            state.SkipWithError("names are missing");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Insert)->Arg(1000)->Arg(30000)->Unit(benchmark::kMillisecond);
BENCHMARK(Lookup)->Arg(1000)->Arg(30000);
BENCHMARK(List)->Arg(1000)->Arg(30000)->Unit(benchmark::kMicrosecond);

} // namespace
