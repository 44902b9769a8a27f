#pragma once

#include "base/files/RawFile.h"

#include <cerrno>
#include <cstdint>
#include <memory>

namespace Morva {

/// A disk that fails on order, for tests. While an object lives it is the disk in force
/// (`FileSystem::disk`), a wrapper of the real one that obeys it; at its end the real one is back.
/// One at a time. A file made under it may outlive it, under its last orders.
///
/// A *write* is here each call that changes a file: `create`, `write`, `writeAt`, `setLength`.
/// All counts are from the construction, all orders count from the moment they are given: 1 is
/// the next. A test sweeps a fault over a run like this:
///
///     for (n = 1;; ++n) {
///         FaultyFiles files;
///         files.failCall(n);
///         run();
///         bool const failed = files.faults() != 0;
///         files.heal();
///         check();
///         if (!failed) break;
///     }
///
/// Names appear and disappear at once and for good (creating, removing, renaming); what a crash
/// can take back is contents and lengths, in pages of 4096 bytes. A sync is only entered in the
/// book, and costs no disk access. One that fails drops the pages that were written since the one
/// before, and the next succeeds without them. All calls are thread-safe.
class FaultyFiles {
public:
    /// What becomes of writes that were not synced when the power went.
    enum class Unsynced { Lost, Kept, Random };
    /// Kinds of calls that reach the disk, each counted by itself. `Remove` is that of a directory
    /// or a file; `Any` are all calls together.
    enum class Call : std::uint8_t {
        Open,
        Read,
        Write,
        Length,
        Sync,
        SyncDirectory,
        List,
        Stat,
        MakeDirectory,
        Rename,
        Remove,
        Any
    };

    FaultyFiles();
    ~FaultyFiles();
    FaultyFiles(FaultyFiles const&) = delete;
    FaultyFiles& operator=(FaultyFiles const&) = delete;

    /// Restricts the counters, and with them the orders, to files whose name ends so; empty is
    /// all. A full disk and a crash still hit every file.
    void onlyNamesEndingWith(QString const& suffix);

    /// The nth call of a kind fails, once.
    void fail(Call kind, std::uint64_t n, int error = EIO);
    /// `n` more calls of a kind succeed, all behind them fail.
    void failAfter(Call kind, std::uint64_t n, int error = EIO);
    void failCall(std::uint64_t n, int error = EIO) { fail(Call::Any, n, error); }
    void failRead(std::uint64_t n, int error = EIO) { fail(Call::Read, n, error); }
    void failReadsAfter(std::uint64_t n, int error = EIO) { failAfter(Call::Read, n, error); }
    void failWrite(std::uint64_t n, int error = EIO) { fail(Call::Write, n, error); }
    void failWritesAfter(std::uint64_t n, int error = EIO) { failAfter(Call::Write, n, error); }
    void failSync(std::uint64_t n, int error = EIO) { fail(Call::Sync, n, error); }
    void failSyncsAfter(std::uint64_t n, int error = EIO) { failAfter(Call::Sync, n, error); }
    /// The nth write, if it is a `write` or `writeAt`, puts down the first half of its bytes only.
    void shortWrite(std::uint64_t n);
    /// Files may grow by this many bytes in all, then the disk is full (ENOSPC): a write puts down
    /// what fits, a growing `setLength` fails and changes nothing. What is below a file's length
    /// has its space already. Shrinking gives space back.
    void diskBudget(std::uint64_t bytes);
    /// Withdraws every order above and of `crashAtWrite` and `crashAtCall`. Doesn't restart.
    void heal();

    /// The power goes: nothing reaches the disk any more, and every call on every file and
    /// every name fails with EIO, until `restart`.
    void crash();
    /// The power goes at the nth write, which is the first that isn't made.
    void crashAtWrite(std::uint64_t n);
    /// The same at the nth call of any kind.
    void crashAtCall(std::uint64_t n);
    [[nodiscard]] bool crashed() const;
    /// The next start: decides over what was not synced, withdraws all orders, and lets new files
    /// work. Files opened before stay dead. Also does its work without a crash before. `seed` is
    /// for `Random`, which decides for each page and each length.
    void restart(Unsynced unsynced, std::uint64_t seed = 0);

    [[nodiscard]] std::uint64_t count(Call kind) const;
    [[nodiscard]] std::uint64_t writes() const { return count(Call::Write); }
    [[nodiscard]] std::uint64_t reads() const { return count(Call::Read); }
    [[nodiscard]] std::uint64_t syncs() const { return count(Call::Sync); }
    [[nodiscard]] std::uint64_t bytesWritten() const;
    /// Calls that failed by order.
    [[nodiscard]] std::uint64_t faults() const;

    /// State that files and orders share; for FaultyFiles.cpp only.
    class Disk;

private:
    std::shared_ptr<Disk> disk_;
};

} // namespace Morva
