#pragma once

#include "replication/common/log/LogEntry.h"

#include <QByteArray>
#include <QString>
#include <QStringView>

#include <cstdint>
#include <string>
#include <string_view>

namespace Replication {

/// A path value of a Windows log, and the memory that it refers to.
class WindowsPath {
public:
    /// Both spellings of a whole path, with "\" between its parts.
    WindowsPath(QString const& canonical, QString const& preserved);

    /// The same file's stream of that name.
    [[nodiscard]] WindowsPath stream(QString const& name) const;
    /// The log's value; valid as long as this object.
    [[nodiscard]] LogPath log() const;

private:
    WindowsPath() = default;

    QByteArray text_;
    QByteArray preserved_;
    std::uint32_t filenameOffset_ = 0;
    std::uint32_t streamOffset_ = 0;
    std::uint32_t preservedStreamOffset_ = 0;
};

/// Where a tree stands as a Windows source sees it.
struct WindowsPlace {
    std::string drive = "C:";
    /// The path of the tree's top on the drive, with "\" or "/"; that on this machine if empty.
    std::string top;
};

/// Puts paths of this machine below a drive.
///
/// Canonical is lower case. What a Windows name can't have (<>:"|?*\, control characters, a dot or
/// space at its end) and bytes that are not UTF-8 become U+F000 plus the character, as the
/// compatibility layers of that system do.
class WindowsPaths {
public:
    /// `top` is the absolute path of the tree's top on this machine; all paths lie below it.
    WindowsPaths(std::string_view top, WindowsPlace const& place);

    [[nodiscard]] WindowsPath of(std::string_view path) const;
    /// The target of a symbolic link, which may be relative.
    [[nodiscard]] static QString target(std::string_view target);
    /// One name, of a file or a stream.
    [[nodiscard]] static QString name(QStringView name);
    /// The form in which two names are one.
    [[nodiscard]] static QString canonical(QString const& text) { return text.toLower(); }
    /// The tree's top: "C:\data".
    [[nodiscard]] QString const& top() const { return preservedTop_; }

private:
    [[nodiscard]] static QString translated(QStringView path);

    std::size_t topSize_;
    QString preservedTop_;
    QString canonicalTop_;
};

} // namespace Replication
