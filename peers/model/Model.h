#pragma once

#include "replication/common/values/FileTime.h"

#include <QByteArray>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Replication {
class StreamHandle;
}

namespace Morva::Model {

inline constexpr std::uint64_t blockSize = 4096;
using Block = std::array<std::uint8_t, blockSize>;

/// The content of a file: a size, and those blocks that were ever written. What lies in no block
/// is zero. Bytes of a block behind the size are zero too.
class Content {
public:
    [[nodiscard]] std::uint64_t size() const { return size_; }
    void write(std::uint64_t offset, QByteArray const& data);
    void truncate(std::uint64_t size);
    /// Zeros below the size.
    void zero(std::uint64_t start, std::uint64_t end);
    [[nodiscard]] std::map<std::uint64_t, Block> const& blocks() const { return blocks_; }

private:
    std::uint64_t size_ = 0;
    std::map<std::uint64_t, Block> blocks_;
};

/// How a stored stream differs; empty when it doesn't.
[[nodiscard]] std::string difference(Content const& wanted, Replication::StreamHandle& stored);

/// What an object of a Windows source has besides its content. Names are compared without case:
/// the maps go by their lower case.
struct WindowsParts {
    struct Stream {
        QByteArray name; ///< as spelled, with its colon
        Content content;
    };
    std::uint32_t attributes = 0;
    QByteArray owner;
    QByteArray security; ///< its three parts, a digit each
    std::map<QByteArray, Stream> streams;
    /// By name in upper case: the name as spelled, a NUL, the value.
    std::map<QByteArray, QByteArray> extended;
    /// The streams of which not all is known; an empty name is the content.
    std::set<QByteArray> dirty;
};

/// The faults of the closed repository that `FixedPath` names, a line for each.
[[nodiscard]] std::string faultsOnDisk();

enum class Kind { Directory, File, Symlink, Special };

struct Object;
using ObjectPointer = std::shared_ptr<Object>;

/// One inode. Several names may lead to one object that is no directory.
struct Object {
    Kind kind = Kind::File;
    std::uint32_t mode = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::uint64_t device = 0;
    Replication::FileTime modified = Replication::FileTime::wholeSeconds(0);
    /// A directory's own time is known only after it was set: no log tells of its changes.
    bool modifiedKnown = true;
    std::uint32_t links = 1;
    /// May become larger than what is worth hashing; kept from deduplication by its first name.
    bool huge = false;
    QByteArray target;
    std::map<QByteArray, QByteArray> attributes;
    Content content;
    WindowsParts windows;
    std::map<QByteArray, ObjectPointer> names;
};

/// An independent copy of a tree in which two names of one object are so again.
[[nodiscard]] ObjectPointer clone(ObjectPointer const& root);

/// A directory and a name in it.
struct Name {
    ObjectPointer directory;
    QByteArray path; ///< whole path below the root, without a slash in front
    QByteArray name;
    ObjectPointer object;
};

/// Every name of a tree but the root, parents before what is in them.
[[nodiscard]] std::vector<Name> allNames(ObjectPointer const& root);

} // namespace Morva::Model
