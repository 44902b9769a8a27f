#pragma once

#include "peers/morva/FileTree.h"
#include "replication/common/values/PosixObject.h"
#include "replication/repository/store/FileNode.h"

#include <QByteArray>
#include <QString>

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace Morva {

/// An open file descriptor, closed at the end.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    ~Descriptor();
    Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;

    [[nodiscard]] int get() const { return number_; }
    [[nodiscard]] explicit operator bool() const { return number_ >= 0; }
    [[nodiscard]] int release();
    /// errno of the close, 0 if it went well.
    [[nodiscard]] int close();

private:
    int number_;
};

/// How an object came out.
struct WriteResult {
    QString reason;     ///< empty: all of it was restored
    bool made = false;  ///< the object is there
    bool kept = false;  ///< it was there before, and equal
    bool fatal = false; ///< the file system takes no more

    [[nodiscard]] bool done() const { return reason.isEmpty(); }
    /// Notes a failed step; the first one is the reason. `error` is an errno.
    void add(QString const& what);
    void add(char const* what, int error);
    /// The same for a step that takes room on the file system.
    void addTaking(char const* what, int error);
};

/// Makes objects of a stored tree in an open directory. Names are taken relative to that directory
/// and never followed when they are symbolic links, so that no tree can reach outside it.
///
/// An object is made with nobody else's access and gets owner, extended attributes, mode and time
/// in that order, as far as the fresh object doesn't have them already. Never changed: for any
/// number of threads.
class ObjectWriter {
public:
    /// What becomes of what stands where an object is to be made. A directory in a directory's
    /// place is always used, but for `Refuse`.
    enum class Existing {
        Refuse,  ///< it stays, and the object is not made
        Replace, ///< it goes, a directory with all that is in it
        Resume   ///< an object that is equal stays and gets its attributes again; else as `Replace`
    };
    /// `root`: the open directory that all objects are made below.
    ObjectWriter(int root, Existing existing);

    /// Room for reading content, one for each thread.
    class Buffer {
    public:
        static constexpr std::uint32_t size = 1 << 20;
        [[nodiscard]] std::uint8_t* bytes() { return bytes_.get(); }

    private:
        std::unique_ptr<std::uint8_t[]> bytes_{new std::uint8_t[size]};
    };
    /// Called with the bytes of content written; false ends the writing.
    using Written = std::function<bool(std::uint64_t bytes)>;

    /// Any object but a directory. Blocks that can't be read become zeros and are a reason.
    [[nodiscard]] WriteResult make(int directory, QByteArray const& name,
                                   Replication::FileNode& node, ObjectAttributes const& attributes,
                                   Buffer& buffer, Written const& written) const;
    /// A further name for an object that was made.
    [[nodiscard]] WriteResult link(int fromDirectory, QByteArray const& from, int directory,
                                   QByteArray const& name, bool& impossible) const;
    /// A directory with access for its owner, or one that is there unless that is refused, opened.
    [[nodiscard]] WriteResult makeDirectory(int directory, QByteArray const& name,
                                            Descriptor& opened) const;
    /// Gives a directory all that it is, once its content is there.
    [[nodiscard]] WriteResult finishDirectory(int opened, Replication::FileNode& node,
                                              ObjectAttributes const& attributes) const;
    /// Whether a directory of this mode can't be worked in any more by this user.
    [[nodiscard]] bool closes(mode_t mode) const;
    [[nodiscard]] bool changesOwner(ObjectAttributes const& attributes) const;

private:
    [[nodiscard]] WriteResult file(int directory, QByteArray const& name,
                                   Replication::FileNode& node, ObjectAttributes const& attributes,
                                   Buffer& buffer, Written const& written) const;
    [[nodiscard]] WriteResult other(int directory, QByteArray const& name,
                                    Replication::FileNode& node,
                                    ObjectAttributes const& attributes) const;
    /// After a failure with EEXIST in errno.
    [[nodiscard]] bool clear(int directory, QByteArray const& name) const;
    /// A regular file that is there and has the content; nothing if it is to be made.
    [[nodiscard]] Descriptor openKept(int directory, QByteArray const& name,
                                      Replication::StreamHandle& content,
                                      ObjectAttributes const& attributes, Buffer& buffer,
                                      Written const& written) const;
    [[nodiscard]] bool keepsOther(int directory, QByteArray const& name,
                                  ObjectAttributes const& attributes,
                                  QByteArray const& target) const;
    [[nodiscard]] bool openExisting(int directory, QByteArray const& name,
                                    Descriptor& opened) const;
    void describe(int opened, ObjectAttributes const& attributes,
                  Replication::PosixAttributes const& extended, WriteResult& result) const;
    [[nodiscard]] mode_t finalMode(ObjectAttributes const& attributes) const;

    Existing existing_;
    bool privileged_;
    uid_t user_;
    gid_t group_;
    mode_t mask_;
    /// Fresh objects inherit a group or access lists from the directory.
    bool inherits_;
};

} // namespace Morva
