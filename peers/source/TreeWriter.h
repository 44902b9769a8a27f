#pragma once

#include "peers/source/FileReader.h"
#include "peers/source/LogMaker.h"

#include <cstdint>
#include <string_view>

struct stat;

namespace Replication {

/// What a walk has come to.
struct TreeObject {
    std::string_view path; ///< absolute, at the source
    struct stat const& status;
    int file = -1; ///< open for reading; -1 for what is neither a file nor a directory
    int directory = -1;
    char const* name = nullptr; ///< leads there from `directory`
};

/// Turns what a walk of a tree comes to into logs of one kind. The walk's order: the root, then in
/// the order of names each object, a directory with all that is in it between its begin and its
/// end.
///
/// Each operation is false when the sink has failed; the walk then ends. What can't be read is
/// reported and passed over.
class TreeWriter {
public:
    virtual ~TreeWriter() = default;

    /// Where to report what can't be read of the object at hand; set by the walk.
    void report(FileReader::Report report) { reader_.report(std::move(report)); }

    /// Whether the logs can have such an object at all; asked first. What is refused is left out
    /// with all that is below it.
    [[nodiscard]] virtual bool takes(TreeObject const&) { return true; }
    /// Whether the logs know of second names; else each name is a file of its own.
    [[nodiscard]] virtual bool hasLinks() const { return true; }

    [[nodiscard]] virtual bool beginRoot(TreeObject const& root) = 0;
    [[nodiscard]] virtual bool beginDirectory(TreeObject const& directory) = 0;
    /// Also for the root. Only path and status are there.
    [[nodiscard]] virtual bool endDirectory(TreeObject const& directory) = 0;
    [[nodiscard]] virtual bool file(TreeObject const& file) = 0;
    // Only for writers that take them.
    [[nodiscard]] virtual bool symlink(TreeObject const&, std::string_view /*target*/) {
        return true;
    }
    /// A device, fifo or socket.
    [[nodiscard]] virtual bool special(TreeObject const&) { return true; }
    /// A further name of the object that was logged as `existing`.
    [[nodiscard]] virtual bool link(TreeObject const&, std::string_view /*existing*/) {
        return true;
    }

    /// The number that the next log will have.
    [[nodiscard]] virtual std::uint64_t nextSequenceNumber() const = 0;
    /// Bytes of file contents logged.
    [[nodiscard]] std::uint64_t bytes() const { return reader_.bytes(); }

protected:
    [[nodiscard]] FileReader& reader() { return reader_; }

private:
    FileReader reader_;
};

} // namespace Replication
