#pragma once

#include "peers/source/OperationLogger.h"
#include "peers/source/TreeWriter.h"

namespace Replication {

/// Logs a tree as a POSIX source:
///
///   the root      SETATTR (mode, owner), SETEA, what is in it, SETATTR (times)
///   directory     MKDIR, SETEA, what is in it, SETATTR (times)
///   file          CREATE, WRITE..., TRUNCATE if it doesn't end in data, CLOSE, SETEA, SETATTR
///   symlink       SYMLINK, SETEA, SETATTR
///   other         MKNOD, SETEA, SETATTR
///   second name   LINK to the first one seen
///
/// What makes an object bears its times too, so that its SETATTR finds them in the store.
class PosixTreeWriter : public TreeWriter {
public:
    /// The logger must outlive the writer.
    explicit PosixTreeWriter(OperationLogger& logger) : log_(logger) {}

    [[nodiscard]] bool beginRoot(TreeObject const& root) override;
    [[nodiscard]] bool beginDirectory(TreeObject const& directory) override;
    [[nodiscard]] bool endDirectory(TreeObject const& directory) override;
    [[nodiscard]] bool file(TreeObject const& file) override;
    [[nodiscard]] bool symlink(TreeObject const& link, std::string_view target) override;
    [[nodiscard]] bool special(TreeObject const& object) override;
    [[nodiscard]] bool link(TreeObject const& object, std::string_view existing) override;
    [[nodiscard]] std::uint64_t nextSequenceNumber() const override {
        return log_.nextSequenceNumber();
    }

private:
    [[nodiscard]] bool contents(TreeObject const& file, std::uint32_t fileId);
    [[nodiscard]] bool attributes(TreeObject const& object);
    [[nodiscard]] bool times(TreeObject const& object);

    OperationLogger& log_;
};

} // namespace Replication
