#pragma once

#include "peers/source/ExchangeLogger.h"
#include "peers/source/TreeWriter.h"

#include <QSet>
#include <QString>

#include <string>
#include <string_view>
#include <vector>

namespace Replication {

/// Logs a Maildir as mail objects. Each message in a "cur" or "new" is one object: its path is that
/// of its folder (without "cur" or "new") and the name of the message without its flags, which
/// stays when the message is moved or marked. Its streams:
///
///   Data   the message as it stands in its file
///   State  "cur" or "new"
///   Flags  the letters behind ":2,"; there only if there are any
///
/// A folder is what has a "cur" or "new" in it, at any depth: ".Sent", "Lists/C++". What is being
/// delivered (in "tmp"), the files of mail servers and symbolic links are left out. Reported and
/// left out: a second message of a folder with the same name, one of 4 GiB or more.
class MailTreeWriter : public TreeWriter {
public:
    /// The logger must outlive the writer.
    explicit MailTreeWriter(ExchangeLogger& logger) : log_(logger) {}

    [[nodiscard]] bool takes(TreeObject const& object) override;
    [[nodiscard]] bool hasLinks() const override { return false; }
    [[nodiscard]] bool beginRoot(TreeObject const& root) override;
    [[nodiscard]] bool beginDirectory(TreeObject const& directory) override;
    [[nodiscard]] bool endDirectory(TreeObject const& directory) override;
    [[nodiscard]] bool file(TreeObject const& file) override;
    [[nodiscard]] std::uint64_t nextSequenceNumber() const override {
        return log_.nextSequenceNumber();
    }

private:
    /// A directory between its begin and its end.
    struct Level {
        bool holdsMessages = false; ///< a "cur" or "new"
        QSet<QString> messages;     ///< of a folder, in lower case
    };

    [[nodiscard]] bool small(std::string_view stream, std::string_view value);

    ExchangeLogger& log_;
    std::vector<Level> levels_;
    std::uint64_t lastSequence_ = 0;
    std::string sequence_;
};

} // namespace Replication
