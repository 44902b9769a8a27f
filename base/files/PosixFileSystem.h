#pragma once

#include "base/files/FileSystem.h"

namespace Morva {

/// The real disk. Names that are not UTF-8 keep their bytes (`encodePosixText`); a name with a
/// zero byte is refused.
class PosixFileSystem final : public FileSystem {
public:
    PosixFileSystem() = default;

    [[nodiscard]] std::unique_ptr<RawFile> make() override;
    [[nodiscard]] Result<std::optional<Information>> stat(QString const& name) override;
    [[nodiscard]] Result<std::vector<Entry>> list(QString const& directory) override;
    [[nodiscard]] Status makeDirectory(QString const& path) override;
    [[nodiscard]] Status removeDirectory(QString const& path) override;
    [[nodiscard]] Status rename(QString const& from, QString const& to) override;
    [[nodiscard]] Status remove(QString const& name) override;
    [[nodiscard]] Status syncDirectory(QString const& path) override;
};

} // namespace Morva
