#pragma once

#include "peers/morva/FileTree.h"
#include "peers/morva/Root.h"

#include <QByteArray>
#include <QString>

#include <string>

namespace Morva {

/// The trees of one store, for a command that reads. Made with a command's arguments; what they
/// name wrongly throws `CommandFailure`.
class OpenStore {
public:
    OpenStore(Output const& output, std::string const& storeName);

    [[nodiscard]] Root::Source const& source() const { return source_; }
    [[nodiscard]] Replication::Store& store() const { return *store_; }
    /// The tree that a user means: a snapshot's number, "latest" or "live".
    [[nodiscard]] FileTree tree(QString const& name) const;
    /// Closes the store and the root; nodes and streams must have been given up by then.
    void finish();

private:
    Root root_;
    Root::Source source_;
    Replication::StorePointer store_;
};

/// An object that a user names as "SNAPSHOT:PATH".
struct NamedObject {
    FileTree tree;
    FileTree::Entry entry;
    QByteArray path; ///< from the tree's root; empty for the root itself
};
/// Throws `CommandFailure` when there is none.
[[nodiscard]] NamedObject objectNamed(OpenStore const& store, std::string const& text);
/// "live" or the snapshot's number.
[[nodiscard]] QString treeName(FileTree const& tree);
/// An argument of the command line, which need not be UTF-8.
[[nodiscard]] QString argumentText(std::string const& argument);

/// "drwxr-xr-x"
[[nodiscard]] QString modeText(std::uint32_t mode);
/// "file", "directory", "symlink", "fifo", "socket", "device"
[[nodiscard]] QString kindText(std::uint32_t mode);

} // namespace Morva
