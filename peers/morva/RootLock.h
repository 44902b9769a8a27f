#pragma once

#include <QString>

#include <chrono>

namespace Morva {

/// The lock of a repository's root directory, which is on its file "morva.lock". Held until the end
/// of the object, and by the system no longer than the process lives.
class RootLock {
public:
    enum class Mode {
        Shared,   ///< for reading: any number of processes
        Exclusive ///< for changing
    };

    /// Takes the lock, and waits so long while another process holds it. Throws `CommandFailure`:
    /// `NoRepository` when there is none at that path, `InUse` when another process still holds it,
    /// with its pid where the system tells it, and `Failed` when the root can't be reached or, for
    /// changing, belongs to another user: what that user's files would become, he couldn't open.
    RootLock(QString const& path, Mode mode, std::chrono::milliseconds wait);
    ~RootLock();
    RootLock(RootLock const&) = delete;
    RootLock& operator=(RootLock const&) = delete;

    /// False where a root for reading has a lock file that this user can't open: then nothing keeps
    /// a writer away.
    [[nodiscard]] bool isHeld() const { return descriptor_ >= 0; }

    /// Makes the lock file of a new root, for its owner alone; throws `CommandFailure`.
    static void make(QString const& path);
    [[nodiscard]] static QString fileName(QString const& path);

private:
    void open(QString const& path, Mode mode);
    void await(QString const& path, Mode mode, std::chrono::milliseconds wait);

    int descriptor_ = -1;
};

} // namespace Morva
