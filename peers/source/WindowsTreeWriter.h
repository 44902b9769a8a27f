#pragma once

#include "peers/source/TreeWriter.h"
#include "peers/source/WindowsLogger.h"
#include "peers/source/WindowsPaths.h"

#include <QByteArray>
#include <QSet>
#include <QString>

#include <cstdint>
#include <map>
#include <tuple>
#include <vector>

namespace Replication {

/// Logs a tree as a Windows source. What is open is named by its number:
///
///   directory     CREATE, its streams, what is in it, SETATTR, CLOSE
///   file          CREATE, WRITE..., TRUNCATE if it doesn't end in data, its streams, SETATTR,
///   CLOSE stream        CREATE of "file:stream", WRITE, CLOSE symlink       CREATE of a reparse
///   point, SYMLINK, SETATTR, CLOSE second name   CREATE that opens the first one seen, LINK, CLOSE
///
/// Each attribute "user.NAME" is the stream NAME; other extended attributes are left out.
/// Attributes come from the mode (read-only: the owner may not write) and the name (hidden: begins
/// with a dot), the security descriptor from owner, group and mode.
///
/// Reported and left out: devices, fifos and sockets; a name that differs from one before it in the
/// same directory only in case.
class WindowsTreeWriter : public TreeWriter {
public:
    /// The logger must outlive the writer.
    WindowsTreeWriter(WindowsLogger& logger, WindowsPaths paths)
        : log_(logger), paths_(std::move(paths)) {}

    [[nodiscard]] bool takes(TreeObject const& object) override;
    [[nodiscard]] bool beginRoot(TreeObject const& root) override;
    [[nodiscard]] bool beginDirectory(TreeObject const& directory) override;
    [[nodiscard]] bool endDirectory(TreeObject const& directory) override;
    [[nodiscard]] bool file(TreeObject const& file) override;
    [[nodiscard]] bool symlink(TreeObject const& link, std::string_view target) override;
    [[nodiscard]] bool link(TreeObject const& object, std::string_view existing) override;
    [[nodiscard]] std::uint64_t nextSequenceNumber() const override {
        return log_.nextSequenceNumber();
    }

private:
    /// A directory between its begin and its end.
    struct Level {
        std::uint32_t fileId = 0;
        std::uint32_t created = 0;
        QSet<QString> names; ///< canonical
    };
    struct Security {
        QByteArray descriptor;
        QByteArray user;
    };

    [[nodiscard]] bool create(TreeObject const& object, WindowsPath const& path,
                              std::uint32_t created, std::uint32_t& fileId);
    [[nodiscard]] bool streams(TreeObject const& object, WindowsPath const& path);
    [[nodiscard]] bool stream(WindowsPath const& path, Morva::Extent const& value);
    [[nodiscard]] bool times(TreeObject const& object, std::uint32_t created, std::uint32_t fileId);
    [[nodiscard]] Security const& security(struct stat const& status);

    WindowsLogger& log_;
    WindowsPaths paths_;
    std::vector<Level> levels_;
    /// By uid, gid and mode: most objects of a tree have one of a few.
    std::map<std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>, Security> securities_;
};

} // namespace Replication
